// Child processes for tests: run a command to its end with its streams
// captured, or drive one through a pseudo-terminal as an operator would.
#pragma once

#include <termios.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace testing_support {

struct ProcessResult {
  int exitCode = -1;  // -1 when ended by a signal
  std::string out;
  std::string err;
};

// Runs `argv` with standard input from /dev/null and `extraEnv` ("NAME=value")
// added to the environment; kills it after a minute.
ProcessResult RunProcess(const std::vector<std::string> &argv, const std::vector<std::string> &extraEnv = {});

// A child on a pseudo-terminal: what it prints is read from the master side,
// and Type() sends key presses.
class PtyProcess {
 public:
  // Starts `argv` in `workDir` (empty: this one), or, with an empty argv,
  // runs `body` in the forked child and exits with its result.
  PtyProcess(const std::vector<std::string> &argv, const std::vector<std::string> &extraEnv = {},
             const std::function<int()> &body = nullptr, const std::string &workDir = "");
  ~PtyProcess();
  PtyProcess(const PtyProcess &) = delete;
  PtyProcess &operator=(const PtyProcess &) = delete;

  void Type(const std::string &keys);
  // Reads until `text` has appeared in the output at or after offset `from`;
  // false if the child ended or `limit` passed first.
  bool WaitFor(const std::string &text, std::chrono::milliseconds limit = std::chrono::milliseconds(20000),
               size_t from = 0);
  // Reads until the child ends and returns its exit code (-1 for a signal).
  int Wait(std::chrono::milliseconds limit = std::chrono::milliseconds(60000));
  void Signal(int signal);
  const std::string &Output() const { return output_; }
  int Pid() const { return pid_; }
  // The terminal's line discipline as it stands (the child may have changed it).
  bool TerminalModes(struct termios *modes) const;

 private:
  bool ReadSome(std::chrono::milliseconds timeout);
  int master_ = -1;
  int pid_ = -1;
  bool exited_ = false;
  std::string output_;
};

// The path of a built program, from the build directory the tests run in.
std::string BuiltProgram(const std::string &relativePath);

}  // namespace testing_support
