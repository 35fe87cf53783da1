// The session against the test pool over real TCP: the exact lines the
// client sends, its state changes, jobs, shares and reconnection.
#include "stratum/session.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "net/loopback_peer.h"
#include "stratum/failover.h"
#include "stratum/share.h"
#include "support/test_pool.h"

namespace {

using namespace std::chrono_literals;
using testing_support::TestPool;

struct PoolContext : StratumContext {
  StratumShareCounters counters;
  StratumShareCounters *ShareCounters(uint64_t worker) override { return worker == 0 ? &counters : nullptr; }
};

// The state changes in the order they were logged.
std::vector<std::string> States(const testing_support::LogLines &log) {
  std::vector<std::string> states;
  for (const auto &line : log.All()) {
    if (line.message.rfind("Stratum state ", 0) == 0) states.push_back(line.message.substr(14));
  }
  return states;
}

class SessionTest : public ::testing::Test {
 protected:
  // The link's clock runs with real time, and a test can jump it forward.
  void SetUp() override {
    context.link.clock = [this] { return StratumMonotonicSeconds() + skipped.load(); };
  }
  void Skip(double seconds) { skipped.store(skipped.load() + seconds); }

  void Start(std::vector<std::string> options) {
    pool = std::make_unique<TestPool>(std::move(options));
    ASSERT_NE(pool->Port(), 0);
    context.poolHost = "127.0.0.1";
    context.poolPort = pool->Port();
    context.account = "wallet.rig";
    context.password = "x";
    StratumSetState(context, Idle);
  }
  void TearDown() override { StratumShutdown(context); }
  // Polls as the console loop does, every 100 ms, until `done` or a bound.
  template <typename Done>
  bool PollUntil(Done done, int maxPolls = 300) {
    for (int i = 0; i < maxPolls; i++) {
      StratumPoll(context);
      if (done()) return true;
      std::this_thread::sleep_for(100ms);
    }
    return false;
  }

  bool MiningAJob() {
    return context.stratumState == Mining && context.CurrentJob() && !context.CurrentJob()->jobId.empty();
  }
  // A few polls that must not change the state.
  void PollAFewTimes() {
    for (int i = 0; i < 3; i++) StratumPoll(context);
  }
  void Restart() {
    StratumShutdown(context);
    StratumSetState(context, Idle);
  }

  testing_support::LogLines log{VLLogLevelInfo};
  // The waits the session schedules before its next `count` attempts, each
  // skipped on the link's clock.
  std::vector<double> RetryWaits(int count) {
    std::vector<double> waits;
    for (int attempt = 0; attempt < count; attempt++) {
      if (!PollUntil([&] { return context.stratumState == Disconnected && context.link.retryAt >= 0; })) break;
      double wait = std::max(0.0, context.link.retryAt - context.link.clock());
      waits.push_back(wait);
      size_t attempts = Attempts();
      Skip(wait);
      if (!PollUntil([&] { return Attempts() > attempts; })) break;
    }
    return waits;
  }
  // Connection attempts so far; an attempt may fail before a poll sees it.
  size_t Attempts() {
    std::vector<std::string> states = States(log);
    return static_cast<size_t>(std::count(states.begin(), states.end(), "Idle -> Connecting"));
  }
  // Shares on the current job, each with its own nonce.
  void SendShares(int count) {
    for (int i = 0; i < count; i++) {
      char nonce[32];
      snprintf(nonce, sizeof nonce, "%024x", ++sharesSent);
      SendShare(context, *context.CurrentJob(), nonce, 0);
    }
  }
  uint64_t Answered() { return context.counters.sharesAccepted + context.counters.sharesRejected; }
  int sharesSent = 0;
  std::unique_ptr<TestPool> pool;
  PoolContext context;
  std::atomic<double> skipped{0};
};

TEST_F(SessionTest, ReachesMiningWithTheExactLinesAndStateOrder) {
  Start({"--difficulty", "0.5"});
  ASSERT_TRUE(PollUntil([&] { return MiningAJob(); }));
  std::vector<std::string> sent = pool->ClientLines();
  ASSERT_GE(sent.size(), 3u);
  EXPECT_EQ(sent[0], R"({"jsonrpc":"2.0","id":1,"method":"mining.subscribe","params":["testminer","testminer"]})");
  EXPECT_EQ(sent[1], R"({"jsonrpc":"2.0","id":2,"method":"mining.extranonce.subscribe","params":[]})");
  EXPECT_EQ(sent[2], R"({"jsonrpc":"2.0","id":3,"method":"mining.authorize","params":["wallet.rig","x"]})");
  std::vector<std::string> expected = {"Idle -> Idle",
                                       "Idle -> Connecting",
                                       "Connecting -> Subscribing",
                                       "Subscribing -> Subscribed",
                                       "Subscribed -> Authorizing",
                                       "Authorizing -> Authorized",
                                       "Authorized -> Mining"};
  EXPECT_EQ(States(log), expected);
  EXPECT_GE(context.jobGeneration.load(), 1u);
  EXPECT_FALSE(context.extranonce1.empty());
}

// Each wait between half and all of its longest, with jitter.
void ExpectBackoff(const std::vector<double> &waits, size_t from, const std::vector<double> &longest) {
  ASSERT_EQ(waits.size(), from + longest.size());
  for (size_t i = 0; i < longest.size(); i++) {
    EXPECT_GE(waits[from + i], longest[i] / 2) << i;
    EXPECT_LE(waits[from + i], longest[i]) << i;
  }
}

int Count(const std::vector<std::string> &lines, const std::string &part) {
  int count = 0;
  for (const std::string &line : lines) count += line.find(part) != std::string::npos;
  return count;
}

TEST_F(SessionTest, AStalledOrRefusingPoolIsLeftWithOneLineAndTriedAgain) {
  struct Case {
    std::vector<std::string> pool;
    uint32_t stalledIn;
    double skip;
    std::string line;
  };
  // Left alike elsewhere: a plain refusal (Failover, end-to-end), a false login (SessionLines); a silent
  // subscribe takes the path of the short one below.
  const std::string unanswered = "The pool did not answer mining.";
  const std::string refused = "Pool refused authorisation for wallet.rig: ";
  const Case cases[] = {
      {{"--subscribe", "short"}, Subscribing, 10.5, unanswered + "subscribe within 10 s; reconnecting"},
      {{"--authorize", "silent"}, Authorizing, 10.5, unanswered + "authorize within 10 s; reconnecting"},
      {{"--notify-interval", "600"}, Mining, 90.5, "No line from the pool for 90 s; reconnecting"},
      {{"--authorize", "error", "--jsonrpc2"}, Authorizing, 0, refused + "Unauthorized worker (24)"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.line);
    context.link.retryDelay = 0;
    Start(c.pool);
    ASSERT_TRUE(PollUntil([&] { return context.stratumState == c.stalledIn || log.Has("Miner", c.line); }));
    Skip(c.skip);
    ASSERT_TRUE(PollUntil([&] { return context.stratumState == Disconnected; }));
    EXPECT_TRUE(log.Has("Miner", c.line));
    // Tried again with a fresh client and a fresh subscribe.
    ASSERT_TRUE(PollUntil([&] { return Count(pool->ClientLines(), "mining.subscribe") == 2; }));
    Restart();
  }
}

TEST_F(SessionTest, ASharesUnansweredAnswerAndTheOptionsLimitsEndTheConnection) {
  Start({"--notify-interval", "600", "--silent-after", "0.2"});
  ASSERT_TRUE(PollUntil([&] { return context.stratumState == Mining; }));
  std::this_thread::sleep_for(300ms);
  SendShare(context, *context.CurrentJob(), "00", 0);
  Skip(15);
  PollAFewTimes();
  EXPECT_EQ(context.stratumState, Mining);  // within both limits
  Skip(16);
  ASSERT_TRUE(PollUntil([&] { return context.stratumState == Disconnected; }));
  EXPECT_TRUE(log.Has("Miner", "The pool left a share unanswered for 30 s; reconnecting"));

  context.link.silenceLimit = 20;
  Skip(2);
  ASSERT_TRUE(PollUntil([&] { return context.stratumState == Mining; }));
  Skip(21);
  ASSERT_TRUE(PollUntil([&] { return context.stratumState == Disconnected; }));
  EXPECT_TRUE(log.Has("Miner", "No line from the pool for 20 s; reconnecting"));
}

// A pool where nearly every hash is a share (its jobs seeded, so the same
// shares every run): ids and answers, not hashing, are tested.
const std::vector<std::string> kEasyShares = {"--notify-interval", "600", "--difficulty", "2.5e-10", "--seed", "1"};

std::vector<std::string> With(std::vector<std::string> options, std::initializer_list<std::string> more) {
  options.insert(options.end(), more);
  return options;
}

// A pool that answered its last shares in moments and then goes quiet is
// left after the floor of the adaptive limit, not the option's 30 s.
TEST_F(SessionTest, APoolThatAnsweredFastAndFallsSilentIsLeftAtTheAdaptiveLimit) {
  Start(With(kEasyShares, {"--silent-after-answers", "10"}));
  ASSERT_TRUE(PollUntil([&] { return MiningAJob(); }));
  SendShares(10);
  ASSERT_TRUE(PollUntil([&] { return Answered() == 10; }));
  SendShares(1);
  Skip(9);
  PollAFewTimes();
  EXPECT_EQ(context.stratumState, Mining);
  Skip(1.5);
  ASSERT_TRUE(PollUntil([&] { return context.stratumState == Disconnected; }));
  EXPECT_EQ(log.Count("The pool left a share unanswered past its adaptive limit"), 1u);
  EXPECT_EQ(context.link.giveUpReason, "it went silent");
}

// A pool that always takes long is given its own pace, up to the option.
TEST_F(SessionTest, APoolThatAnswersSlowlyButSurelyIsNotGivenUp) {
  Start(With(kEasyShares, {"--submit-delay", "0.5"}));
  ASSERT_TRUE(PollUntil([&] { return MiningAJob(); }));
  SendShares(10);
  Skip(12);  // every answer comes after more than the floor of 10 s
  ASSERT_TRUE(PollUntil([&] { return Answered() == 10; }));
  SendShares(1);
  Skip(25);
  ASSERT_TRUE(PollUntil([&] { return Answered() == 11 || context.stratumState != Mining; }));
  EXPECT_EQ(context.stratumState, Mining);
  EXPECT_EQ(log.Count("The pool left a share unanswered"), 0u);
}

// The pauses before a new attempt start again from the first after a session
// in which the pool took a share, and grow on after one that only mined.
TEST_F(SessionTest, ASessionWithAnAcceptedShareResetsThePauses) {
  for (bool share : {true, false}) {
    SCOPED_TRACE(share ? "a share accepted" : "no share");
    Start(With(kEasyShares, {"--close-at", "1.5"}));
    context.link.retryDelay = 8;  // the pauses had grown
    ASSERT_TRUE(PollUntil([&] { return MiningAJob(); }));
    if (share) {
      SendShares(3);
      ASSERT_TRUE(PollUntil([&] { return Answered() == 3; }));
      ASSERT_GE(context.counters.sharesAccepted.load(), 1u);
    }
    ASSERT_TRUE(PollUntil([&] { return context.stratumState == Disconnected && context.link.retryAt >= 0; }));
    double wait = context.link.retryAt - context.link.clock();
    EXPECT_TRUE(share ? wait <= 1.0 : wait >= 8.0) << wait;
    StratumShutdown(context);
    context.counters.sharesAccepted = 0;
    context.counters.sharesRejected = 0;
  }
}

TEST_F(SessionTest, RetriesBackOffWithJitterAndSettleAfterAMinuteOfMining) {
  Start({"--notify-interval", "600"});
  uint16_t port = context.poolPort;
  context.poolPort = net_test::ClosedPort();
  ExpectBackoff(RetryWaits(8), 0, {1, 2, 4, 8, 16, 32, 60, 60});

  context.poolPort = port;
  ASSERT_TRUE(PollUntil([&] { return context.stratumState == Disconnected && context.link.retryAt >= 0; }));
  Skip(context.link.retryAt - context.link.clock());
  ASSERT_TRUE(PollUntil([&] { return context.stratumState == Mining; }));
  Skip(61);
  StratumPoll(context);
  pool.reset();  // the pool goes away
  ASSERT_TRUE(PollUntil([&] { return context.stratumState == Disconnected && context.link.retryAt >= 0; }));
  EXPECT_LE(context.link.retryAt - context.link.clock(), 1.0);
}

TEST_F(SessionTest, PoolsThatAllRefuseAreLeftAtOnceUntilEachHasRefusedThenThePausesGrow) {
  Start({"--authorize", "error", "--notify-interval", "600"});
  for (const char *user : {"w.first", "w.second"}) context.pools.push_back({"127.0.0.1", context.poolPort, user, "x"});
  StratumUsePool(context, 0);
  std::vector<double> delays = RetryWaits(5);
  ExpectBackoff(delays, 1, {1, 2, 4, 8});
  EXPECT_LT(delays.at(0), 0.5);  // the second pool at once
  EXPECT_TRUE(log.Has("Miner", "Pool refused authorisation for w.second: Unauthorized worker (24)"));
}

// A connection that mined starts a new round: the next refusal moves on at once.
TEST_F(SessionTest, ARefusalAfterASessionThatMinedMovesOnAtOnce) {
  std::string script = testing::TempDir() + "ombry-round-" + std::to_string(getpid()) + ".json";
  std::ofstream(script) << R"({"connections":[{"authorize":"error"},{"close_at":0.5},{"authorize":"error"}]})";
  Start({"--script", script, "--notify-interval", "600"});
  for (const char *user : {"w.first", "w.second"}) context.pools.push_back({"127.0.0.1", context.poolPort, user, "x"});
  StratumUsePool(context, 0);
  std::vector<double> delays = RetryWaits(3);  // refused, mined and closed, refused
  std::remove(script.c_str());
  ASSERT_EQ(delays.size(), 3u);
  EXPECT_LT(delays[0], 0.5);
  EXPECT_GE(delays[1], 0.5);  // the same pool again, after a pause
  EXPECT_LT(delays[2], 0.5);
}

TEST_F(SessionTest, AJobAfterAReconnectIsSearchedInFreshNonces) {
  Start({"--close-after", "4", "--notify-interval", "600"});
  ASSERT_TRUE(PollUntil([&] { return MiningAJob(); }));
  std::shared_ptr<StratumJob> earlier = context.CurrentJob();
  uint64_t before = earlier->nonceCounter.fetch_add(5) + 5;
  SendShare(context, *earlier, "00", 0);
  ASSERT_TRUE(PollUntil([&] { return context.stratumState == Disconnected; }));
  ASSERT_TRUE(PollUntil([&] { return MiningAJob(); }));
  EXPECT_GT(context.CurrentJob()->nonceCounter.load(), before);
  EXPECT_EQ(context.reconnects.load(), 1u);
  // A share of the earlier connection's job is not the new session's to send.
  SendShare(context, *earlier, "00", 0);
  EXPECT_EQ(context.sharesDroppedWhileDisconnected.load(), 1u);
}

// Each answer moves the counter of the board that sent the share: an
// acceptance (the pool's target lets all but one hash in 2^40 pass) and a
// refusal (a nonce too short).
TEST_F(SessionTest, ThePoolsAnswersAreCountedForTheBoard) {
  Start({"--target-mode", "target", "--target", "ffffffffff" + std::string(54, '0'), "--notify-interval", "600"});
  ASSERT_TRUE(PollUntil([&] { return MiningAJob(); }));
  std::string nonce(2 * (16 - context.extranonce1.size()), '0');
  SendShare(context, *context.CurrentJob(), nonce.c_str(), 0);
  SendShare(context, *context.CurrentJob(), "00", 0);
  ASSERT_TRUE(PollUntil([&] { return Answered() == 2; }));
  EXPECT_EQ(context.counters.sharesAccepted, 1u);
  EXPECT_EQ(context.counters.sharesRejected, 1u);
}

// While a backup mines, the primary is tried in the background; the miner
// returns to it once it has answered a whole handshake and stayed up for the
// failback delay, not a second before, and never to a primary that refuses
// the login.
TEST_F(SessionTest, TheBackupHandsBackOnlyToAPrimaryThatLoggedInAndStayedUp) {
  struct Case {
    std::vector<std::string> primary;
    bool returns;
  };
  const Case cases[] = {{{}, true},
                        {{"--authorize", "error"}, false},
                        {{"--authorize", "false"}, false},
                        {{"--subscribe", "short"}, false}};
  for (const Case &c : cases) {
    SCOPED_TRACE(c.primary.empty() ? "a primary that logs in" : c.primary[1]);
    TestPool primary(With(c.primary, {"--notify-interval", "600"}));
    Start({"--notify-interval", "600"});
    context.pools = {{"127.0.0.1", primary.Port(), "w.primary", "x"}, {"127.0.0.1", context.poolPort, "w.backup", "x"}};
    context.link.silenceLimit = 1000;
    StratumUsePool(context, 1);
    ASSERT_TRUE(PollUntil([&] {
      return context.stratumState == Mining && Count(primary.ClientLines(), "mining.subscribe") == 1 &&
             (context.probe.upSince >= 0 || !context.probe.client);
    }));
    Skip(110);
    PollAFewTimes();
    EXPECT_EQ(context.activePool, 1u);
    Skip(11);
    if (c.returns) {
      EXPECT_TRUE(PollUntil([&] { return context.activePool == 0; }));
      EXPECT_TRUE(
          log.Has("Miner", "Switching from pool stratum+tcp://127.0.0.1:" + std::to_string(context.pools[1].port) +
                               " to pool stratum+tcp://127.0.0.1:" + std::to_string(primary.Port()) +
                               ": the primary pool has been back for 120 s"));
    } else {
      // Tried again after the retry interval, and refused again.
      EXPECT_TRUE(
          PollUntil([&] { return Count(primary.ClientLines(), "mining.subscribe") == 2 && !context.probe.client; }));
      EXPECT_EQ(context.activePool, 1u);
    }
    Restart();
    context.probe.nextAttempt = -1;
    context.probe.upSince = -1;
  }
}

}  // namespace
