#include "support/test_pool.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace testing_support {

TestPool::TestPool(std::vector<std::string> options) {
  char dir[] = "/tmp/ombry-pool-XXXXXX";
  if (!mkdtemp(dir)) return;
  dir_ = dir;
  const char *source = getenv("OMBRY_SOURCE_DIR");
  int out[2];
  if (!source || pipe(out) != 0) return;
  std::vector<std::string> args = {"python3", std::string(source) + "/tools/test_pool/pool.py", "--port", "0"};
  args.insert(args.end(), {"--quiet", "--transcript", dir_ + "/transcript", "--stats", dir_ + "/stats.json"});
  args.insert(args.end(), options.begin(), options.end());
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
  const char *said = "listening on 127.0.0.1:";
  for (char line[256]; fgets(line, sizeof line, stream_);) {
    if (const char *at = strstr(line, said)) {
      port_ = static_cast<uint16_t>(atoi(at + strlen(said)));
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
  // "<connection> < <line>" for what the client sent.
  for (std::string line; std::getline(file, line);) {
    size_t gap = line.find(' ');
    if (gap != std::string::npos && line.compare(gap, 3, " < ") == 0) lines.push_back(line.substr(gap + 3));
  }
  return lines;
}

std::string TestPool::Stats() const {
  std::ifstream file(dir_ + "/stats.json");
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace testing_support
