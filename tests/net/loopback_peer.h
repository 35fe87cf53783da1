// Small loop-back TCP peers for the network tests, written with plain POSIX
// calls so that they share nothing with the code under test.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace net_test {

using namespace std::chrono_literals;

class Peer {
 public:
  explicit Peer(int fd = -1) : fd_(fd) {}
  Peer(Peer &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  ~Peer() { Close(); }
  bool Valid() const { return fd_ >= 0; }
  int Fd() const { return fd_; }

  void Write(const std::string &text) {
    size_t done = 0;
    while (done < text.size()) {
      ssize_t n = send(fd_, text.data() + done, text.size() - done, MSG_NOSIGNAL);
      if (n <= 0) return;
      done += static_cast<size_t>(n);
    }
  }
  // Reads until `want` bytes have arrived in total, the stream ends, or `limit` passes.
  std::string Read(size_t want, std::chrono::milliseconds limit = 10s) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    std::vector<char> buffer(1 << 20);
    while (received_.size() < want && std::chrono::steady_clock::now() < deadline) {
      pollfd entry{fd_, POLLIN, 0};
      if (poll(&entry, 1, 50) <= 0) continue;
      ssize_t n = recv(fd_, buffer.data(), buffer.size(), 0);
      if (n <= 0) {
        ended_ = true;
        break;
      }
      received_.append(buffer.data(), static_cast<size_t>(n));
    }
    return received_;
  }
  // True once the other side has closed (a read gives 0 or an error).
  bool WaitForEnd(std::chrono::milliseconds limit = 10s) {
    Read(SIZE_MAX, limit);
    return ended_;
  }
  // An abortive close: the other side sees a reset.
  void Reset() {
    linger option{1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &option, sizeof option);
    Close();
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

class Listener {
 public:
  explicit Listener(int backlog = 8) {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address);
    listen(fd_, backlog);
    getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &length);
    port_ = ntohs(address.sin_port);
  }
  ~Listener() { close(fd_); }
  uint16_t Port() const { return port_; }
  Peer Accept(std::chrono::milliseconds limit = 10s) {
    pollfd entry{fd_, POLLIN, 0};
    if (poll(&entry, 1, static_cast<int>(limit.count())) <= 0) return Peer();
    return Peer(accept(fd_, nullptr, nullptr));
  }

 private:
  int fd_ = -1;
  uint16_t port_ = 0;
};

// A loop-back port with nothing listening on it.
inline uint16_t ClosedPort() {
  Listener listener;
  return listener.Port();
}

// Waits on a predicate over state that callbacks on other threads change.
class Events {
 public:
  template <typename Change>
  void Update(Change change) {
    std::lock_guard<std::mutex> guard(lock_);
    change();
    changed_.notify_all();
  }
  bool WaitFor(const std::function<bool()> &done, std::chrono::milliseconds limit = 10s) {
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, limit, done);
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

// Collects log lines so that tests can look for the system's messages.
class LogLines {
 public:
  LogLines();
  ~LogLines();
  bool Contains(const std::string &text);
  std::vector<std::string> Lines();

 private:
  static void Record(uint32_t level, const char *tag, const char *message, void *context);
  std::mutex lock_;
  std::vector<std::string> lines_;
};

}  // namespace net_test
