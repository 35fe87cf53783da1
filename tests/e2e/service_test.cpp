// The miner under a service manager: it says when it is ready, keeps the
// manager's watchdog fed from its own watchdog thread, and a stop request
// ramps the boards down as the q key does.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "e2e/miner_run.h"

namespace e2e {
namespace {

// A datagram socket where the notify protocol's messages arrive.
class NotifySocket {
 public:
  NotifySocket() {
    path_ = testing::TempDir() + "ombry-notify-" + std::to_string(getpid());
    unlink(path_.c_str());
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path_.c_str());
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  }
  ~NotifySocket() {
    close(fd_);
    unlink(path_.c_str());
  }
  const std::string &Path() const { return path_; }
  // Everything that arrived so far, one message a line.
  std::string Take() {
    char buffer[512];
    pollfd entry{fd_, POLLIN, 0};
    while (poll(&entry, 1, 0) > 0) {
      ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
      if (n <= 0) break;
      received_.append(buffer, static_cast<size_t>(n)).append("\n");
    }
    return received_;
  }

 private:
  std::string path_;
  int fd_ = -1;
  std::string received_;
};

TEST(Service, ReadyAliveAndStoppingAreToldAndAStopRampsTheBoardsDown) {
  NotifySocket notify;
  MinerRun run("xdma0 model=7\nxdma1 model=2\n", {"--difficulty", "0.002", "--notify-interval", "2"});
  run.AddEnvironment("NOTIFY_SOCKET=" + notify.Path());
  ASSERT_TRUE(run.Start());
  ASSERT_TRUE(run.Until([&] {
    std::string told = notify.Take();
    return told.find("READY=1\n") != std::string::npos && told.find("WATCHDOG=1\n") != std::string::npos;
  })) << notify.Take();
  run.Child().Signal(SIGTERM);
  EXPECT_EQ(run.Child().Wait(), 0);
  EXPECT_NE(notify.Take().find("STOPPING=1\n"), std::string::npos);
  EXPECT_EQ(run.Count("I/Worker01     : Stopped"), 1u);
  EXPECT_EQ(run.Count("I/Worker02     : Stopped"), 1u);
}

}  // namespace
}  // namespace e2e
