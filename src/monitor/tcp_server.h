// A small request-and-answer server for monitoring: one thread of its own,
// one request per connection, the answer, then the connection closes. It
// holds at most 16 connections; a request larger than 64 KiB or slower than
// 5 s is cut off, and so is a client that leaves its answer unread for 5 s.
// Nothing it does waits on mining, and mining never waits on it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

class TcpServer {
 public:
  struct Limits {
    size_t connections = 16;
    size_t requestBytes = 64 * 1024;
    double requestSeconds = 5;
  };
  // Whether the bytes so far are a whole request.
  using Complete = std::function<bool(const std::string &request)>;
  // The answer to a whole request from `peer` (its address as text).
  using Answer = std::function<std::string(const std::string &request, const std::string &peer)>;

  TcpServer(Complete complete, Answer answer, Limits limits);
  TcpServer(Complete complete, Answer answer) : TcpServer(std::move(complete), std::move(answer), Limits{}) {}
  ~TcpServer();
  TcpServer(const TcpServer &) = delete;
  TcpServer &operator=(const TcpServer &) = delete;

  // Listens on "HOST:PORT" (IPv4; port 0 picks one), or on 127.0.0.1 for
  // "PORT" or ":PORT", and starts serving.
  // False with `error` when the address is bad or taken.
  bool Start(const std::string &hostPort, std::string &error);
  uint16_t Port() const { return port_; }
  void Stop();

 private:
  void Serve();

  Complete complete_;
  Answer answer_;
  Limits limits_;
  int listener_ = -1;
  int wake_[2] = {-1, -1};
  uint16_t port_ = 0;
  std::atomic<bool> running_{false};
  std::thread thread_;
};

// Splits "HOST:PORT"; a port alone ("PORT", ":PORT") is on 127.0.0.1. False
// when it isn't one.
bool SplitHostPort(const std::string &text, std::string &host, uint16_t &port);
// Whether `text` is an address a server can listen on: an IPv4 address (or
// "localhost") and a port. False with `error` saying why not.
bool CheckListenAddress(const std::string &text, std::string &error);
bool IsIPv4Address(const std::string &text);
