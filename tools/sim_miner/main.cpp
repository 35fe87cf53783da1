// ombry-sim-miner: the unmodified miner with simulated boards installed in
// its own process, for machines where FUSE cannot mount. The boards come from
// the board list named by OMBRY_SIM_BOARDS; the miner finds them in the
// directory of OMBRY_DEVICE_DIR (by default the simulator's own). With
// OMBRY_SIM_CONTROL set, a named pipe at that path takes commands such as
// "xdma0 hot=95" while the miner runs.
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "shell/entry.h"
#include "sim/in_process.h"

namespace {

constexpr int kSearchNiceness = 10;

void ServeCommands(sim::InProcessBoards *boards, std::string path) {
  // Opened for writing too, so that the pipe never reads as ended between writers.
  int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    fprintf(stderr, "ombry-sim-miner: cannot open %s: %s\n", path.c_str(), strerror(errno));
    return;
  }
  std::string pending;
  char buffer[4096];
  for (;;) {
    ssize_t n = read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    pending.append(buffer, static_cast<size_t>(n));
    size_t end;
    while ((end = pending.find('\n')) != std::string::npos) {
      std::string line = pending.substr(0, end);
      pending.erase(0, end + 1);
      if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
      std::string error;
      if (!boards->RunCommand(line, &error)) fprintf(stderr, "ombry-sim-miner: %s\n", error.c_str());
    }
  }
  close(fd);
}

}  // namespace

int main(int argc, char **argv) {
  const char *listPath = getenv("OMBRY_SIM_BOARDS");
  if (!listPath || !*listPath) {
    fprintf(stderr, "ombry-sim-miner: set OMBRY_SIM_BOARDS to a board list file (see sim/README.md)\n");
    return 1;
  }
  std::ifstream in(listPath);
  if (!in) {
    fprintf(stderr, "ombry-sim-miner: cannot read %s\n", listPath);
    return 1;
  }
  std::stringstream text;
  text << in.rdbuf();

  const char *dir = getenv("OMBRY_DEVICE_DIR");
  std::string directory = dir && *dir ? dir : sim::InProcessBoards::kDefaultDirectory;
  setenv("OMBRY_DEVICE_DIR", directory.c_str(), 1);

  // Lives as long as the process: worker threads may outlast MinerMain.
  auto *boards = new sim::InProcessBoards(directory);
  std::string error;
  if (!boards->AddList(text.str(), &error)) {
    fprintf(stderr, "ombry-sim-miner: %s: %s\n", listPath, error.c_str());
    return 1;
  }
  boards->Install();

  // The simulator's threads leave the stop signals to the miner's own
  // handling: a signal that landed on one of them would end the process.
  sigset_t stopSignals, previous;
  sigemptyset(&stopSignals);
  for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGUSR1}) sigaddset(&stopSignals, signal);
  pthread_sigmask(SIG_BLOCK, &stopSignals, &previous);
  if (const char *control = getenv("OMBRY_SIM_CONTROL"); control && *control) {
    if (mkfifo(control, 0600) != 0 && errno != EEXIST) {
      fprintf(stderr, "ombry-sim-miner: cannot create %s: %s\n", control, strerror(errno));
      return 1;
    }
    std::thread(ServeCommands, boards, std::string(control)).detach();
  }
  // Below normal priority, so that the miner's own threads aren't starved by
  // the boards they drive.
  boards->StartSearch(kSearchNiceness);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  int code = MinerMain(argc, argv);
  boards->StopSearch();
  return code;
}
