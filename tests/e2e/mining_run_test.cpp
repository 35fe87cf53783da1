// Whole runs of the miner: shares the pool accepts, boards that run hot or
// sag, the operator's keys, and signals, a service manager's among them. Every
// wait is a hang guard; what is asserted is what the operator saw and the pool got.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

#include "e2e/miner_run.h"

namespace e2e {
namespace {

// Low enough for a share every second or so per board at the simulator's speed.
const std::vector<std::string> kEasyPool = {"--difficulty", "0.0005", "--notify-interval", "2"};

// A datagram socket where the notify protocol's messages arrive, read all
// the while as a service manager reads it: a queue left full (ten messages)
// would block the miner's next message, and with it the miner.
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
    reader_ = std::thread([this] {
      char buffer[512];
      for (pollfd ready{fd_, POLLIN, 0}; !stop_.load();) {
        if (poll(&ready, 1, 100) <= 0) continue;
        ssize_t n = recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
        std::lock_guard<std::mutex> lock(mutex_);
        if (n > 0) received_.append(buffer, static_cast<size_t>(n)).append("\n");
      }
    });
  }
  ~NotifySocket() {
    stop_.store(true);
    reader_.join();
    close(fd_);
    unlink(path_.c_str());
  }
  const std::string &Path() const { return path_; }
  // Everything that arrived so far, one message a line.
  std::string Take() {
    std::lock_guard<std::mutex> lock(mutex_);
    return received_;
  }

 private:
  std::string path_;
  int fd_ = -1;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::string received_;
  std::thread reader_;
};

// Both sides count the shares alike, and the operator's keys stop, restart
// and tune a board.
TEST(MiningRun, SharesAreCountedAlikeAndKeysStopRestartAndTuneABoard) {
  MinerRun run(kTwoBoards, kEasyPool);
  ASSERT_TRUE(run.Start());
  // Both boards find shares (the slower one may take a while under a sanitizer).
  ASSERT_TRUE(run.Until([&] {
    return run.Pool("accepted") >= 6 && SubmittedJobIds(run.PoolProcess()).size() >= 2 &&
           run.Count("Worker 1 - YAY") >= 1 && run.Count("Worker 2 - YAY") >= 1;
  })) << run.Output();

  // The screen: two tables in a row that show both boards give each its
  // nominal rate (not yet stepped, the clock at its start) and an effective
  // one; board 1 has no regulator sensor. Between them, a share is its
  // outcome line and no raw line of the pool link.
  std::vector<Table> tables;
  size_t first = 0;
  ASSERT_TRUE(run.Until([&] {
    tables = Tables(run.Lines());
    for (first = 0; first + 1 < tables.size(); first++) {
      if (tables[first].size() == 2 && tables[first + 1].size() == 2) return true;
    }
    return false;
  })) << run.Output();
  for (const Table &table : {tables[first], tables[first + 1]}) {
    for (const auto &[number, columns] : table) {
      SCOPED_TRACE(number);
      ASSERT_EQ(columns.size(), 12u);
      EXPECT_GT(std::stod(columns[6]), 0.0) << "nominal";
      EXPECT_GE(std::stod(columns[7]), 0.0) << "effective";
      EXPECT_EQ(columns[3].find("--") != std::string::npos, number == 1) << columns[3];
    }
  }
  EXPECT_EQ(run.Count("Sending "), 0u);
  EXPECT_EQ(run.Count("Received Message"), 0u);
  EXPECT_GE(run.Count(" ms)"), 1u);
  EXPECT_EQ(run.Count("Share Accepted! (answered in "), run.Count("Share Accepted!"));

  // The operator's keys stop and restart a board, and tune it.
  run.Child().Type("1d");
  ASSERT_TRUE(run.Until([&] { return run.Count("I/Worker01     : Stopped") == 1; })) << run.Output();
  EXPECT_TRUE(run.Until([&] { return run.Count("Worker 1: Offline (Disabled)") > 0; }));
  size_t enabled = run.Output().size();
  run.Child().Type("e");
  ASSERT_TRUE(run.Until([&] { return run.Count("I/Worker01     : Starting...", enabled) == 1; }));
  EXPECT_TRUE(run.Until([&] { return run.Count("Worker 1 - YAY", enabled) >= 1; })) << run.Output().substr(enabled);
  // Tuning raises the target in small steps: the saved settings show it.
  run.Child().Type("t");
  EXPECT_TRUE(run.Until([&] {
    run.Child().Type("s");
    run.Pump(std::chrono::milliseconds(1000));
    return run.SavedClock() > 100.0;
  })) << ReadFile(run.WorkDir() / "config.json");

  // Searches all but stop; once the answers in flight are in, the table and
  // the pool agree.
  ASSERT_TRUE(run.Command("xdma0 ratecap=0.000001"));
  ASSERT_TRUE(run.Command("xdma1 ratecap=0.000001"));
  EXPECT_TRUE(run.Until([&] {
    uint64_t accepted = run.Pool("accepted");
    return run.Count("Share Accepted!") == accepted && run.TableAccepted(2) == accepted &&
           run.Count("Share was rejected") == run.Pool("rejected");
  })) << "pool "
      << run.Pool("accepted") << ", table " << run.TableAccepted(2);

  EXPECT_EQ(run.Quit(), 0);
  EXPECT_EQ(WrongfullyRejected(run.PoolProcess()), 0u) << run.PoolProcess().Stats();
  EXPECT_EQ(run.Count("share was invalid"), 0u);
  EXPECT_EQ(run.Count("I/Worker01     : Stopped"), 2u);
  EXPECT_EQ(run.Count("I/Worker02     : Stopped"), 1u);
}

// Under a service manager: ready and alive are told, and its stop request
// (SIGTERM) ramps the boards down as q does.
TEST(MiningRun, HotOrSaggingBoardsThrottleTheHotOneRecoversAndTerminationStopsCleanly) {
  // The sagging board is of the wide family: a narrow board's limit (0.5 V) is
  // also the lowest reading taken as real.
  NotifySocket notify;
  MinerRun run("xdma0 model=7\nxdma1 model=2\nxdma2 model=7\n", {"--difficulty", "1"});
  run.environment.push_back("NOTIFY_SOCKET=" + notify.Path());
  ASSERT_TRUE(run.Start());
  ASSERT_TRUE(run.Until([&] {
    std::string told = notify.Take();
    return run.LastClock(1).first == 100 && run.LastClock(3).first == 100 &&
           told.find("READY=1\n") != std::string::npos && told.find("WATCHDOG=1\n") != std::string::npos;
  })) << notify.Take();
  // Keys come singly while it runs; the terminal is given back as it was.
  termios modes{};
  ASSERT_TRUE(run.Child().TerminalModes(&modes));
  EXPECT_EQ(modes.c_lflag & ICANON, 0u);

  ASSERT_TRUE(run.Command("xdma0 hot=95"));
  ASSERT_TRUE(run.Command("xdma1 sag=0.3"));  // about 0.7 V, under the wide limit of 0.75 V
  ASSERT_TRUE(run.Until([&] { return run.Count("I/Worker01     : Warning: Cooking condition detected!") > 0; }));
  ASSERT_TRUE(run.Until([&] {
    auto hot = run.LastClock(1), sagging = run.LastClock(2);
    return hot.first >= 0 && hot.first < 100 && sagging.first >= 0 && sagging.first < 100;
  })) << run.Output();
  EXPECT_EQ(run.LastClock(1).second, 100) << "throttling leaves the target alone";
  EXPECT_EQ(run.LastClock(3).first, 100) << "a healthy board keeps its clock";

  ASSERT_TRUE(run.Command("xdma0 hot=off"));
  size_t cooled = run.Output().size();
  EXPECT_TRUE(run.Until([&] { return run.LastClock(1, cooled).first == 100; })) << run.Output().substr(cooled);

  run.Child().Signal(SIGTERM);
  EXPECT_EQ(run.Child().Wait(), 0);
  EXPECT_NE(notify.Take().find("STOPPING=1\n"), std::string::npos);
  ASSERT_TRUE(run.Child().TerminalModes(&modes));
  EXPECT_NE(modes.c_lflag & ICANON, 0u);
  EXPECT_NE(modes.c_lflag & ECHO, 0u);
  for (const char *stopped : {"I/Worker01     : Stopped", "I/Worker02     : Stopped", "I/Worker03     : Stopped"}) {
    EXPECT_EQ(run.Count(stopped), 1u) << stopped;
  }
  EXPECT_EQ(run.Count("E/Miner        : Exiting"), 1u);
}

// A stop request straight after start-up, while the boards are still coming up.
TEST(Signals, InterruptWhileStartingStopsCleanly) {
  MinerRun run(kTwoBoards, kEasyPool);
  ASSERT_TRUE(run.Start());
  run.Child().Signal(SIGINT);
  EXPECT_EQ(run.Child().Wait(), 0);
  EXPECT_EQ(run.Count("E/Miner        : Exiting"), 1u);
}

}  // namespace
}  // namespace e2e
