// Loop-back TCP peers for the network tests, in plain POSIX calls so that they
// share nothing with the code under test, and a log line collector.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "support/log_lines.h"

namespace net_test {

using namespace std::chrono_literals;

class Peer {
 public:
  explicit Peer(int fd = -1) : fd_(fd) {}
  Peer(Peer &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  ~Peer() { Close(); }
  bool Valid() const { return fd_ >= 0; }
  void Write(const std::string &text) { send(fd_, text.data(), text.size(), MSG_NOSIGNAL); }
  // All bytes received so far, once `want` of them have arrived, the stream
  // has ended or `limit` has passed.
  std::string Read(size_t want, std::chrono::milliseconds limit = 10s) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    std::vector<char> buffer(1 << 20);
    while (!ended_ && received_.size() < want && std::chrono::steady_clock::now() < deadline) {
      pollfd entry{fd_, POLLIN, 0};
      if (poll(&entry, 1, 50) <= 0) continue;
      ssize_t n = recv(fd_, buffer.data(), buffer.size(), 0);
      ended_ = n <= 0;
      if (n > 0) received_.append(buffer.data(), static_cast<size_t>(n));
    }
    return received_;
  }
  bool WaitForEnd() {
    Read(SIZE_MAX);
    return ended_;
  }
  void Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
  std::string received_;
  bool ended_ = false;
};

inline sockaddr_in Loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

class Listener {
 public:
  explicit Listener(int backlog = 8) : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof address;
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    EXPECT_EQ(listen(fd_, backlog), 0);
    getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &length);
    port_ = ntohs(address.sin_port);
  }
  ~Listener() { close(fd_); }
  uint16_t Port() const { return port_; }
  Peer Accept() {
    pollfd entry{fd_, POLLIN, 0};
    return Peer(poll(&entry, 1, 10000) > 0 ? accept(fd_, nullptr, nullptr) : -1);
  }

 private:
  int fd_;
  uint16_t port_ = 0;
};

// A loop-back port with nothing listening on it.
inline uint16_t ClosedPort() { return Listener().Port(); }

// State that callbacks on other threads change, and waits for it.
class Events {
 public:
  template <typename Change>
  void Update(Change change) {
    std::lock_guard<std::mutex> guard(lock_);
    change();
    changed_.notify_all();
  }
  bool WaitFor(const std::function<bool()> &done) {
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, 10s, done);
  }
  template <typename Read>
  auto Get(Read read) {
    std::lock_guard<std::mutex> guard(lock_);
    return read();
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
};

using LogLines = testing_support::LogLines;

}  // namespace net_test
