// The status table and its cadence, printed in-process and read back from the
// captured streams.
#include "console/status_table.h"

#include <gtest/gtest.h>

#include <atomic>

#include "support/fake_workers.h"
#include "foundation/colour.h"
#include "foundation/logger.h"
#include "console/status_console.h"
#include "stratum/stratum_context.h"
#include "support/capture.h"

using miner_testing::MakeWorker;
using testing_support::StreamCapture;

namespace {

constexpr uint64_t kNow = 100000;

class StatusTableTest : public ::testing::Test {
 protected:
  void SetUp() override {
    VLLogEnableConsole();
    VLForceColour(1);  // the colours are what several tests look at
  }
  void TearDown() override { VLForceColour(-1); }

  Worker &Add(const std::string &modelName, BoardModel model) {
    auto worker = MakeWorker(modelName, model, "dna");
    worker->enabled = true;
    worker->heartbeat = kNow;
    context_.workers.push_back(std::move(worker));
    return *context_.workers.back();
  }

  std::string Table() {
    StreamCapture capture;
    PrintStatusTable(session_, kNow);
    capture.Stop();
    EXPECT_EQ(capture.Err(), "");
    return capture.Out();
  }

  MiningContext context_;
  ConsoleSession session_{context_};
};

std::string Row(const std::string &body) { return "I/Miner        : " + body + "\n"; }

// The rates are the nominal one at the current clock, whatever the worker's
// last clock step recorded, and the effective one from accepted shares; a
// board without a regulator sensor shows "--" for it.
TEST_F(StatusTableTest, RowShowsReadingsClocksRatesAndCountersWithGrowth) {
  context_.ledger.Open(2, 1, StratumMonotonicSeconds() - 60);
  Worker &worker = Add("215 ", 3);
  worker.coreTemperature = 65.3;
  worker.vrmTemperature = 80.0;
  worker.vccint = 0.85;
  worker.currentClockHz = 200000000;
  worker.targetClockHz = 250000000;
  worker.found = 7;
  worker.sharesAccepted = 5;
  worker.invalid = 1;
  worker.sharesRejected = 2;
  Worker &narrow = Add("RK35", 7);
  narrow.coreTemperature = 50.0;
  narrow.vrmTemperature = 0.0;  // never read: the model has no regulator sensor
  narrow.vccint = 0.80;
  narrow.currentClockHz = 100000000;
  narrow.targetClockHz = 100000000;
  // One accepted share of difficulty 0.05 within the last minute: about 3.58 MH/s.
  context_.ledger.ShareAnswered(0, 0, 0.05, true, StratumMonotonicSeconds() - 1, 0);

  std::string expected =
      "I/Miner        : \x1b[1;97mId | Model | Core T |  VRM T  | VCCINT | Clock [MHz] | Nominal MH/s | Effective "
      "MH/s |    Found    |   Accepted  |   Invalid   |   Rejected  \x1b[0m\n"
      "I/Miner        : ---+-------+--------+---------+--------+-------------+--------------+----------------+-----"
      "--------+-------------+-------------+-------------\n" +
      Row(" 1 |  215  | 65.3 C\x1b[0m |  80.0 C\x1b[0m | 0.85 V\x1b[0m |  200 / 250  |       200.00 |           3.58"
          " |     7 (+ 7) |     5 (+ 5) |     1 (+ 1) |     2 (+ 2)") +
      Row(" 2 |  RK35 | 50.0 C\x1b[0m |    -- C\x1b[0m | 0.80 V\x1b[0m |  100 / 100  |      1000.00 |           0.00"
          " |     0 (+ 0) |     0 (+ 0) |     0 (+ 0) |     0 (+ 0)") +
      "\x1b[1;32mI/Miner        : Total Hashrate: 1200.00 MH/s (effective 3.58 MH/s)\n\x1b[0m";
  EXPECT_EQ(Table(), expected);

  worker.found = 19;
  worker.sharesAccepted = 16;
  worker.belowBoardTarget = 3;
  std::string second = Table();
  EXPECT_NE(second.find("|    19 (+12) |    16 (+11) |     1 (+ 0) |     2 (+ 0)\n"), std::string::npos) << second;
  EXPECT_EQ(worker.shownCounters.found, 19u);
  EXPECT_EQ(worker.shownCounters.belowBoardTarget, 3u);
}

TEST_F(StatusTableTest, DisabledAndStaleWorkersGetOneLineEachAndNoShareOfTheTotal) {
  Worker &disabled = Add("1525", 1);
  disabled.enabled = false;
  disabled.currentClockHz = 100000000;
  const char *expectedLines[] = {
      "\x1b[1;33mI/Miner        : Worker 1: Offline (Disabled)\n\x1b[0m",
      "\x1b[1;33mI/Miner        : Worker 2: Started waiting for work 6 seconds ago\n\x1b[0m",
      "\x1b[1;33mI/Miner        : Worker 3: Started initializing 7 seconds ago\n\x1b[0m",
      "\x1b[1;33mI/Miner        : Worker 4: Started waiting for DMA 8 seconds ago\n\x1b[0m",
      "\x1b[1;33mI/Miner        : Worker 5: Started working on DMA 9 seconds ago\n\x1b[0m",
      "\x1b[1;33mI/Miner        : Worker 6: Started final mining preparation 10 seconds ago\n\x1b[0m",
      "\x1b[1;31mI/Miner        : Worker 7: Heart stopped 11 seconds ago\n\x1b[0m",
  };
  for (uint32_t state = 0; state <= WorkerStateRunning; state++) {
    Worker &stale = Add("1525", 1);
    stale.state = state;
    stale.heartbeat = kNow - 6 - state;
    stale.currentClockHz = 100000000;
  }
  Worker &fresh = Add("1525", 1);
  fresh.heartbeat = kNow - 5;       // five seconds is not yet stale
  fresh.currentClockHz = 25000000;  // 12 cores at 25 MHz

  std::string text = Table();
  for (const char *line : expectedLines) EXPECT_NE(text.find(line), std::string::npos) << line;
  EXPECT_NE(text.find("I/Miner        :  8 |  1525 |"), std::string::npos);
  EXPECT_NE(text.find("Total Hashrate: 300.00 MH/s (effective 0.00 MH/s)\n"), std::string::npos) << text;
}

// Runs `passes` console passes and returns what they printed.
std::string RunPasses(ConsoleSession &session, uint64_t passes, std::atomic<uint64_t> &counter) {
  StreamCapture capture;
  for (uint64_t i = 0; i < passes; i++) FinishConsolePass(session, counter);
  capture.Stop();
  return capture.Out();
}

TEST_F(StatusTableTest, TableEveryFiftyPassesAndTheWatchdogFedEveryPass) {
  Add("1525", 1);
  std::atomic<uint64_t> counter{0};
  auto tables = [&](uint64_t passes) {
    std::string out = RunPasses(session_, passes, counter);
    size_t count = 0;
    for (size_t at = out.find("Id | Model |"); at != std::string::npos; at = out.find("Id | Model |", at + 1)) count++;
    return count;
  };
  EXPECT_EQ(tables(49), 0u);
  EXPECT_EQ(tables(1), 1u);   // pass 50
  EXPECT_EQ(tables(99), 1u);  // pass 100
  EXPECT_EQ(tables(1), 1u);   // pass 150
  EXPECT_EQ(counter.load(), 150u);
}

TEST_F(StatusTableTest, VrmBannerComesOnlyWithATableThatShowsAHotRegulator) {
  Worker &worker = Add("101 ", 2);
  worker.vrmTemperature = 125.5;
  std::atomic<uint64_t> counter{0};
  std::string hot = RunPasses(session_, 50, counter);
  const std::string banner =
      "\x1b[1;31mI/Miner        : \n\x1b[0m"
      "\x1b[1;31mI/Miner        : ************************************************************\n\x1b[0m"
      "\x1b[1;31mI/Miner        : *                         WARNING!                         *\n\x1b[0m"
      "\x1b[1;31mI/Miner        : *  At least one VRM is over the maximum rated temperature  *\n\x1b[0m"
      "\x1b[1;31mI/Miner        : *      for continuous operation, which will lead to a      *\n\x1b[0m"
      "\x1b[1;31mI/Miner        : *         shorter lifetime and / or sudden failure.        *\n\x1b[0m"
      "\x1b[1;31mI/Miner        : ************************************************************\n\x1b[0m"
      "\x1b[1;31mI/Miner        : \n\x1b[0m";
  ASSERT_GE(hot.size(), banner.size());
  EXPECT_EQ(hot.substr(hot.size() - banner.size()), banner);
  EXPECT_EQ(hot.find(banner), hot.rfind(banner)) << "one banner per table";

  worker.vrmTemperature = 125.0;  // at the rating is not over it
  EXPECT_EQ(RunPasses(session_, 50, counter).find("WARNING!"), std::string::npos);

  // A hot regulator on a row that isn't shown doesn't raise it.
  worker.vrmTemperature = 130.0;
  worker.enabled = false;
  EXPECT_EQ(RunPasses(session_, 50, counter).find("WARNING!"), std::string::npos);
}

}  // namespace
