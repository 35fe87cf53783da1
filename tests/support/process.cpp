#include "support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>

extern char **environ;

namespace testing_support {
namespace {

[[noreturn]] void ExecChild(std::vector<std::string> argv, const std::vector<std::string> &extraEnv) {
  for (const auto &entry : extraEnv) putenv(strdup(entry.c_str()));
  std::vector<char *> pointers;
  for (auto &arg : argv) pointers.push_back(arg.data());
  pointers.push_back(nullptr);
  execv(pointers[0], pointers.data());
  perror("execv");
  _exit(127);
}

int ExitCode(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

}  // namespace

std::string BuiltProgram(const std::string &relativePath) {
  const char *build = getenv("OMBRY_BUILD_DIR");
  if (!build) throw std::runtime_error("OMBRY_BUILD_DIR is not set; run the tests through ctest");
  return std::string(build) + "/" + relativePath;
}

ProcessResult RunProcess(const std::vector<std::string> &argv, const std::vector<std::string> &extraEnv) {
  int outPipe[2], errPipe[2];
  if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  pid_t pid = fork();
  if (pid == 0) {
    dup2(open("/dev/null", O_RDONLY), 0);
    dup2(outPipe[1], 1);
    dup2(errPipe[1], 2);
    ExecChild(argv, extraEnv);
  }
  close(outPipe[1]);
  close(errPipe[1]);

  ProcessResult result;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  int open = 2;
  while (open > 0) {
    // Until it is reaped, its pid stays its own: killing it again is harmless.
    if (std::chrono::steady_clock::now() > deadline) kill(pid, SIGKILL);
    if (poll(fds, 2, 100) <= 0) continue;
    for (int i = 0; i < 2; i++) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP))) continue;
      char buffer[4096];
      ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n <= 0) {
        close(fds[i].fd);
        fds[i].fd = -1;
        open--;
      } else {
        (i == 0 ? result.out : result.err).append(buffer, static_cast<size_t>(n));
      }
    }
  }
  int status = 0;
  waitpid(pid, &status, 0);
  result.exitCode = ExitCode(status);
  return result;
}

PtyProcess::PtyProcess(const std::vector<std::string> &argv, const std::vector<std::string> &extraEnv,
                       const std::function<int()> &body, const std::string &workDir) {
  pid_ = forkpty(&master_, nullptr, nullptr, nullptr);
  if (pid_ < 0) throw std::runtime_error("forkpty");
  if (pid_ == 0) {
    if (body) {
      int code = body();
      fflush(stdout);
      _exit(code);
    }
    if (!workDir.empty() && chdir(workDir.c_str()) != 0) _exit(126);
    ExecChild(argv, extraEnv);
  }
}

PtyProcess::~PtyProcess() {
  if (!exited_) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  close(master_);
}

void PtyProcess::Type(const std::string &keys) {
  if (write(master_, keys.data(), keys.size()) != static_cast<ssize_t>(keys.size())) {
    throw std::runtime_error("write to pty");
  }
}

bool PtyProcess::ReadSome(std::chrono::milliseconds timeout) {
  pollfd fd{master_, POLLIN, 0};
  if (poll(&fd, 1, static_cast<int>(timeout.count())) <= 0) return true;
  char buffer[4096];
  ssize_t n = read(master_, buffer, sizeof buffer);
  if (n <= 0) return false;  // the child closed the terminal
  output_.append(buffer, static_cast<size_t>(n));
  return true;
}

bool PtyProcess::WaitFor(const std::string &text, std::chrono::milliseconds limit, size_t from) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (output_.find(text, from) == std::string::npos) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    if (!ReadSome(std::chrono::milliseconds(50))) return output_.find(text, from) != std::string::npos;
  }
  return true;
}

int PtyProcess::Wait(std::chrono::milliseconds limit) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (ReadSome(std::chrono::milliseconds(50))) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid_, SIGKILL);
      break;
    }
  }
  int status = 0;
  waitpid(pid_, &status, 0);
  exited_ = true;
  return ExitCode(status);
}

void PtyProcess::Signal(int signal) { kill(pid_, signal); }

bool PtyProcess::TerminalModes(struct termios *modes) const { return tcgetattr(master_, modes) == 0; }

}  // namespace testing_support
