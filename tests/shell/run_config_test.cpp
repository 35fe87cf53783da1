// The argument vector applied to the run: forced clocks, the wide family's
// cap, pool settings and the algorithm check.
#include "shell/run_config.h"

#include <gtest/gtest.h>

#include <tuple>

#include "support/fake_workers.h"
#include "foundation/logger.h"
#include "support/capture.h"
#include "support/wait_until.h"

using miner_testing::MakeWorker;
using miner_testing::RunStateGuard;
using testing_support::StreamCapture;

namespace {

class SetupRunTest : public ::testing::Test {
 protected:
  void SetUp() override {
    VLLogEnableConsole();
    context_.workers.push_back(MakeWorker("1525", 1, "narrow"));
    context_.workers.push_back(MakeWorker("215 ", 3, "wide"));
    // Lets the started worker threads run to their end: with no board they
    // clear `enabled` and stop.
    miner_testing::GiveJob(context_);
  }
  void TearDown() override {
    EXPECT_TRUE(WorkerThreadsEnded());
    capture_.reset();
  }

  bool WorkerThreadsEnded() {
    return testing_support::WaitUntil([&] { return context_.workerThreads.load(std::memory_order_acquire) == 0; });
  }

  // Runs SetupRun on `args_` and returns what it logged. Output is captured
  // from the call on, worker threads included, until the test ends.
  std::string Run() {
    if (!capture_) capture_ = std::make_unique<StreamCapture>();
    // Each stream is cut on its own: worker threads of an earlier call may
    // still be adding error lines.
    size_t outBefore = capture_->Out().size();
    size_t errBefore = capture_->Err().size();
    SetupRun(context_, static_cast<int>(args_.size()), Argv());
    return capture_->Out().substr(outBefore) + capture_->Err().substr(errBefore);
  }

  char **Argv() {
    argv_.clear();
    for (auto &arg : args_) argv_.push_back(arg.data());
    argv_.push_back(nullptr);
    return argv_.data();
  }

  RunStateGuard runState_;
  MiningContext context_;
  std::vector<std::string> args_;
  std::vector<char *> argv_;
  std::unique_ptr<StreamCapture> capture_;
};

TEST_F(SetupRunTest, ForcedClockAppliesToBothFamiliesWithTheWideCap) {
  // The clock argument, the line it logs, and the narrow and the wide board's clock.
  const std::tuple<const char *, const char *, uint64_t, uint64_t> rows[] = {
      {"350", "I/Miner        : Forcing clock to 350 MHz\n", 350000000, 350000000},
      {"351", "I/Miner        : Forcing clock to 351 MHz\n", 351000000, 250000000},
      // Out of range is reported but still applied.
      {"1000", "I/Miner        : Forced clock 1000 MHz was out of range\n", 1000000000, 250000000},
      // Zero or unreadable forces nothing.
      {"0", "I/Miner        : Forcing clock to 0 MHz\n", 100000000, 100000000},
      {"fast", "I/Miner        : Forcing clock to 0 MHz\n", 100000000, 100000000},
  };
  for (const auto &[argument, line, narrowHz, wideHz] : rows) {
    SCOPED_TRACE(argument);
    args_ = {"miner", "ckb", "pool.example.org", "3333", "wallet", "pw", argument};
    std::string log = Run();
    EXPECT_NE(log.find(line), std::string::npos) << log;
    EXPECT_EQ(context_.workers[0]->targetClockHz, narrowHz);
    EXPECT_EQ(context_.workers[1]->targetClockHz, wideHz);
    ASSERT_TRUE(WorkerThreadsEnded());
  }
}

// Each TLS pool gets its own host's pin, else the one for every host; a pin
// for another host, or for a longer name, is not its own. Plain pools get none.
TEST_F(SetupRunTest, EachTlsPoolGetsItsHostsPinElseTheGeneralOne) {
  const std::string general(64, 'a'), forB(64, 'b');
  context_.options.tlsFingerprints = {"b.example=" + forB, general, "c.example=" + std::string(64, 'c')};
  context_.options.backupPools = {"stratum+ssl://b.example:443", "stratum+ssl://b.example.net:443",
                                  "stratum+tcp://b.example:3333"};
  args_ = {"miner", "ckb", "stratum+ssl://a.example:443", "3333", "wallet", "pw"};
  Run();
  std::vector<std::string> pins;
  for (const PoolEndpoint &pool : context_.pools) pins.push_back(pool.pinnedSha256);
  EXPECT_EQ(pins, (std::vector<std::string>{general, forB, general, ""}));
}

using SetupRunDeathTest = SetupRunTest;

TEST_F(SetupRunDeathTest, UnknownAlgorithmEndsTheProcessWithCodeOne) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  args_ = {"miner", "recovery", "pool", "3333", "wallet", "pw"};
  EXPECT_EXIT(SetupRun(context_, 6, Argv()), ::testing::ExitedWithCode(1),
              "E/Miner        : Algorithm 'recovery' is not known");
  args_[1] = "CKB";  // case matters
  EXPECT_EXIT(SetupRun(context_, 6, Argv()), ::testing::ExitedWithCode(1), "Algorithm 'CKB' is not known");
}

}  // namespace
