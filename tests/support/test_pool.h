// The test pool (tools/test_pool) as a child process on a free port, with
// its transcript and statistics in a scratch directory.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace testing_support {

class TestPool {
 public:
  // Starts the pool with `options` added to its command line; Port() is 0
  // when it did not come up.
  explicit TestPool(std::vector<std::string> options);
  ~TestPool();
  TestPool(const TestPool &) = delete;
  TestPool &operator=(const TestPool &) = delete;

  uint16_t Port() const { return port_; }
  // The lines the client sent, in order.
  std::vector<std::string> ClientLines() const;
  // The pool's statistics file as text (JSON), empty until it is written.
  std::string Stats() const;
  // Stops the pool (SIGTERM) and waits for it; the destructor does the same.
  void Stop();

 private:
  std::string dir_;
  pid_t pid_ = -1;
  uint16_t port_ = 0;
  FILE *stream_ = nullptr;
};

}  // namespace testing_support
