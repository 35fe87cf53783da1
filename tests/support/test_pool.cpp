#include "support/test_pool.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace testing_support {

TestPool::TestPool(std::vector<std::string> options) {
  char dir[] = "/tmp/ombry-pool-XXXXXX";
  if (!mkdtemp(dir)) return;
  dir_ = dir;
  const char *source = getenv("OMBRY_SOURCE_DIR");
  if (!source) return;
  std::string script = std::string(source) + "/tools/test_pool/pool.py";
  std::vector<std::string> args = {
      "python3",           script, "--port", "0", "--quiet", "--transcript", dir_ + "/transcript", "--stats",
      dir_ + "/stats.json"};
  args.insert(args.end(), options.begin(), options.end());
  int out[2];
  if (pipe(out) != 0) return;
  pid_ = fork();
  if (pid_ == 0) {
    dup2(out[1], 1);
    close(out[0]);
    close(out[1]);
    std::vector<char *> argv;
    for (auto &arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    execvp("python3", argv.data());
    _exit(127);
  }
  close(out[1]);
  stream_ = fdopen(out[0], "r");
  char line[256];
  while (fgets(line, sizeof line, stream_)) {
    if (const char *at = strstr(line, "listening on 127.0.0.1:")) {
      port_ = static_cast<uint16_t>(atoi(at + strlen("listening on 127.0.0.1:")));
      break;
    }
  }
}

TestPool::~TestPool() {
  Stop();
  if (stream_) fclose(stream_);
  if (!dir_.empty()) std::filesystem::remove_all(dir_);
}

void TestPool::Stop() {
  if (pid_ <= 0) return;
  kill(pid_, SIGTERM);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

std::vector<std::string> TestPool::ClientLines() const {
  std::ifstream file(dir_ + "/transcript");
  std::vector<std::string> lines;
  std::string line;
  while (std::getline(file, line)) {
    std::istringstream fields(line);
    std::string connection, direction;
    fields >> connection >> direction;
    if (direction == "<") lines.push_back(line.substr(line.find('<') + 2));
  }
  return lines;
}

std::string TestPool::Stats() const {
  std::ifstream file(dir_ + "/stats.json");
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

}  // namespace testing_support
