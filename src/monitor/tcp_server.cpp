#include "monitor/tcp_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "foundation/compat.h"
#include "foundation/text.h"

namespace {

double Now() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

struct Client {
  int fd;
  std::string peer;
  std::string request;
  double started;
  // Once the request is whole: the answer and how much of it went out. It
  // goes out as the client reads, never holding up the other clients.
  bool answering = false;
  std::string answer;
  size_t sent = 0;
  double answerDeadline = 0;
};

// Sends what the socket takes now; true once the answer is out or the client
// is gone, false while more is to go.
bool SendSome(Client &client) {
  while (client.sent < client.answer.size()) {
    ssize_t n = send(client.fd, client.answer.data() + client.sent, client.answer.size() - client.sent,
                     MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      client.sent += static_cast<size_t>(n);
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      return !(n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK));
    }
  }
  return true;
}

}  // namespace

bool SplitHostPort(const std::string &text, std::string &host, uint16_t &port) {
  size_t colon = text.rfind(':');
  std::string number = colon == std::string::npos ? text : text.substr(colon + 1);
  char *end = nullptr;
  long value = strtol(number.c_str(), &end, 10);
  if (number.empty() || *end != '\0' || value < 0 || value > 65535) return false;
  // A port alone stays on this machine.
  host = colon == std::string::npos || colon == 0 ? "127.0.0.1" : text.substr(0, colon);
  port = static_cast<uint16_t>(value);
  return true;
}

bool IsIPv4Address(const std::string &text) {
  in_addr address{};
  return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool CheckListenAddress(const std::string &text, std::string &error) {
  std::string host;
  uint16_t port = 0;
  if (!SplitHostPort(text, host, port)) {
    error = "'" + text + "' is not HOST:PORT or PORT";
    return false;
  }
  if (host != "localhost" && !IsIPv4Address(host)) {
    error = "'" + host + "' is not an IPv4 address";
    return false;
  }
  return true;
}

TcpServer::TcpServer(Complete complete, Answer answer, Limits limits)
    : complete_(std::move(complete)), answer_(std::move(answer)), limits_(limits) {}

TcpServer::~TcpServer() { Stop(); }

bool TcpServer::Start(const std::string &hostPort, std::string &error) {
  std::string host;
  uint16_t port = 0;
  if (!CheckListenAddress(hostPort, error)) return false;
  SplitHostPort(hostPort, host, port);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  inet_pton(AF_INET, host == "localhost" ? "127.0.0.1" : host.c_str(), &address.sin_addr);
  listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  int on = 1;
  setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (listener_ < 0 || bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
      listen(listener_, 16) != 0 || pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) {
    error = "cannot listen on " + hostPort + ": " + VLErrorText(errno);
    Stop();
    return false;
  }
  socklen_t length = sizeof address;
  getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &length);
  port_ = ntohs(address.sin_port);
  running_ = true;
  thread_ = std::thread(&TcpServer::Serve, this);
  return true;
}

void TcpServer::Stop() {
  if (running_.exchange(false) && wake_[1] >= 0) (void)!write(wake_[1], "x", 1);
  if (thread_.joinable()) thread_.join();
  for (int *fd : {&listener_, &wake_[0], &wake_[1]}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
}

void TcpServer::Serve() {
  VLThreadSetName("monitor");
  std::vector<Client> clients;
  char buffer[4096];
  while (running_) {
    std::vector<pollfd> entries = {{wake_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
    for (const Client &client : clients)
      entries.push_back({client.fd, static_cast<short>(client.answering ? POLLOUT : POLLIN), 0});
    poll(entries.data(), entries.size(), 100);
    if (!running_) break;
    double now = Now();

    if (entries[1].revents & POLLIN) {
      sockaddr_in peer{};
      socklen_t length = sizeof peer;
      int fd = accept4(listener_, reinterpret_cast<sockaddr *>(&peer), &length, SOCK_CLOEXEC | SOCK_NONBLOCK);
      if (fd >= 0 && clients.size() >= limits_.connections) {
        close(fd);  // full: the newcomer goes, the ones being served stay
      } else if (fd >= 0) {
        char text[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text);
        clients.push_back({fd, text, "", now});
      }
    }

    std::vector<Client> kept;
    for (size_t i = 0; i < clients.size(); i++) {
      Client &client = clients[i];
      bool done = false;
      short events = i + 2 < entries.size() ? entries[i + 2].revents : 0;
      if (!client.answering) {
        bool ended = false;
        if (events & (POLLIN | POLLHUP | POLLERR)) {
          ssize_t n = recv(client.fd, buffer, sizeof buffer, 0);
          if (n > 0) {
            client.request.append(buffer, static_cast<size_t>(n));
          } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
            ended = true;  // the client finished writing, or went away
          }
        }
        bool cutOff = client.request.size() > limits_.requestBytes || now - client.started > limits_.requestSeconds;
        if (!cutOff && ((ended && !client.request.empty()) || complete_(client.request))) {
          client.answer = answer_(client.request, client.peer);
          client.answering = true;
          client.answerDeadline = now + limits_.requestSeconds;
          done = SendSome(client);
        } else if (cutOff || ended) {
          done = true;  // cut off unanswered, or gone without a request
        }
      } else {
        // A client that doesn't read its answer is let go after the limit.
        done = SendSome(client) || now > client.answerDeadline;
      }
      if (done) {
        close(client.fd);
      } else {
        kept.push_back(std::move(client));
      }
    }
    clients.swap(kept);
  }
  for (const Client &client : clients) close(client.fd);
}
