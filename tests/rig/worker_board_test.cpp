// A worker thread driving a simulated board in-process: what the board holds
// after a job load, the start clock, reloads, the crash rule and the stop
// sequence.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "board/dma_device.h"
#include "board/registers.h"
#include "hash/eaglesong.h"
#include "rig/dispatch.h"
#include "rig/governor.h"
#include "rig/worker.h"
#include "sim/blocks.h"
#include "sim/eaglesong.h"
#include "sim/hash_engine.h"
#include "sim/iic.h"
#include "sim/in_process.h"
#include "stratum/targets.h"
#include "support/wait_until.h"

namespace {

using namespace std::chrono_literals;
using testing_support::WaitUntil;

class WorkerBoardTest : public ::testing::Test {
 protected:
  void SetUp() override {
    boards.Install();
    std::string error;
    ASSERT_TRUE(boards.AddList(boardList, &error)) << error;
    card = boards.Find("xdma0");
    ASSERT_NE(card, nullptr);

    auto worker = std::make_unique<Worker>();
    worker->device.reset(BRYLDMADeviceOpen(boards.DevicePath("xdma0"), 0));
    ASSERT_NE(worker->device, nullptr);
    worker->model = model;
    worker->layoutVersion = 1;
    worker->enabled = true;
    worker->targetClockHz = 100000000;
    context.workers.push_back(std::move(worker));

    job = std::make_shared<StratumJob>();
    job->jobId = "job-1";
    job->extranonce = {0xa1, 0xa2, 0xa3, 0xa4};
    for (size_t i = 0; i < 32; i++) job->headerHash[i] = static_cast<uint8_t>(i * 7 + 1);
    job->nonceCounter = 40;
    DifficultyToTarget(1.0, job->target);
  }
  void TearDown() override {
    StopWorker();
    boards.Uninstall();
  }

  // The worker's thread body on a thread the test joins, so that nothing of
  // the worker outlives the board and the records it uses.
  void RunWorker() {
    thread = std::thread([this] {
      WorkerMain(new WorkerThreadArgs{0, &context});
      ended = true;
    });
  }

  // A worker that never stops fails the test and ends the process (its thread
  // still uses the board) rather than blocking the run.
  void StopWorker() {
    if (!thread.joinable()) return;
    context.workers[0]->enabled = false;
    if (!WaitUntil([&] { return ended.load(); }, 180000ms)) {
      ADD_FAILURE() << "the worker thread did not end";
      fflush(stdout);
      std::abort();
    }
    thread.join();
  }

  uint32_t Latched(uint32_t offset) {
    return card->WithFpga(0, [&](sim::Fpga *fpga) { return fpga->HashCore()->Latched(offset); });
  }

  bool Held() {
    return card->WithFpga(0, [&](sim::Fpga *fpga) { return fpga->HashCore()->Held(); });
  }

  // The board, a model 7 unless a suite says otherwise.
  const char *boardList = "xdma0 model=7\n";
  BoardModel model = 7;
  sim::InProcessBoards boards{"/ombry-worker-test"};
  sim::Card *card = nullptr;
  std::thread thread;
  std::atomic<bool> ended{false};
  MiningContext context;
  std::shared_ptr<StratumJob> job;
};

// A job load holds the cores, clears, sets the target, the nonce block and
// the midstate, and only then lets the cores run: in this order, nothing else,
// each with what the board expects.
TEST_F(WorkerBoardTest, AJobLoadWritesWhatTheBoardExpectsInTheBoardsOrder) {
  context.SetCurrentJob(job);
  WorkerLoop loop;
  loop.slots = {JobSlot{.base = JobSlotBase(0)}};
  card->SetTracing(true);
  LoadJob(loop, context, *context.workers[0]);
  std::vector<sim::Access> trace = card->TakeTrace();

  std::vector<uint64_t> expected = {kSlotControl, kSlotClear, kSlotTargetHigh, kSlotTargetLow};
  for (uint32_t i = 0; i < 4; i++) expected.push_back(kSlotNonceBlock + 4 * i);
  for (uint32_t i = 0; i < 16; i++) expected.push_back(kSlotMidstate + 4 * i);
  expected.push_back(kSlotControl);
  std::vector<uint64_t> written;
  for (const sim::Access &access : trace) {
    if (access.node == sim::Node::User && access.write) written.push_back(access.position - JobSlotBase(0));
  }
  EXPECT_EQ(written, expected);
  EXPECT_FALSE(Held());

  uint32_t header[8], midstate[16];
  memcpy(header, job->headerHash.data(), sizeof header);
  EaglesongMidstate(header, midstate);
  for (uint32_t i = 0; i < 16; i++) EXPECT_EQ(Latched(kSlotMidstate + 4 * i), midstate[i]) << i;
  // With no board target of its own yet, the job's: its top limb at difficulty 1.
  EXPECT_EQ(Latched(kSlotTargetHigh), 0u);
  EXPECT_EQ(Latched(kSlotTargetLow), 0xffff0000u);
  // Nonce block: the extranonce, then the job nonce word drawn from the counter.
  EXPECT_EQ(Latched(kSlotNonceBlock), 0xa1a2a3a4u);
  EXPECT_EQ(__builtin_bswap32(Latched(kSlotNonceBlock + 4)), 40u);
  EXPECT_EQ(job->nonceCounter.load(), 41u);
  EXPECT_EQ(Latched(kSlotNonceBlock + 8), 0u);
  EXPECT_EQ(Latched(kSlotNonceBlock + 12), 0u);
}

// A job that comes after the start is loaded at the start clock; without a new
// job the board is loaded again every refresh period (20 ms before the first
// clock step), each time with a fresh nonce word. Disabled, the clock ramps
// down to zero (no step in the first 2000 passes, then 25 MHz every second
// pass) and the cores are held and stopped.
TEST_F(WorkerBoardTest, TheBoardIsReloadedEveryRefreshPeriodAndRampsDownToAStopWhenDisabled) {
  Worker &worker = *context.workers[0];
  RunWorker();
  context.SetCurrentJob(job);
  ASSERT_TRUE(WaitUntil([&] { return worker.state == WorkerStateRunning && Latched(kSlotMidstate) != 0; }));
  EXPECT_TRUE(worker.active);
  EXPECT_EQ(worker.currentClockHz, 100000000u);
  EXPECT_NEAR(card->WithFpga(0, [](sim::Fpga *fpga) { return fpga->HashClockHz(); }), 100e6, 1e6);
  // The board target's top limb: one report a second at 100 MHz on 10 cores,
  // 0xFFFF * 2^48 / 1e9, above the job's 0xFFFF0000 at difficulty 1.
  EXPECT_EQ(Latched(kSlotTargetHigh), 0x4u);
  EXPECT_EQ(Latched(kSlotTargetLow), 0x4b7eae86u);
  EXPECT_FALSE(Held());

  uint64_t drawn = job->nonceCounter.load();
  uint32_t word = Latched(kSlotNonceBlock + 4);
  EXPECT_TRUE(WaitUntil([&] { return job->nonceCounter.load() >= drawn + 3 && Latched(kSlotNonceBlock + 4) != word; }));
  EXPECT_EQ(context.jobGeneration.load(), 0u);

  StopWorker();
  EXPECT_FALSE(worker.active);
  EXPECT_EQ(worker.currentClockHz, 0u);
  EXPECT_TRUE(Held());
  EXPECT_TRUE(card->WithFpga(0, [](sim::Fpga *fpga) { return !fpga->ClockEnabled() && !fpga->OutOfReset(); }));
}

// A board that fell off the bus reports all ones. The crash rule takes it out
// at the fourth such report in a row: a verified nonce between them starts
// the count again. A tuning run ends at the first invalid report and falls by
// the pass's step for each.
TEST_F(WorkerBoardTest, FourAllOnesReportsInARowCrashTheBoardAndAGoodNonceStartsTheCountAgain) {
  Worker &worker = *context.workers[0];
  worker.tuning = TuningActive;
  worker.targetClockHz = 200000000;
  context.SetCurrentJob(job);
  WorkerLoop loop;
  loop.slots = {JobSlot{.base = JobSlotBase(0)}};
  loop.cores = CoreCount(worker.model);
  loop.passStep = 50000;
  LoadJob(loop, context, worker);

  // What the board reports for a nonce within difficulty one, found by the
  // simulator's own hash from what the load latched: core 0, counter i,
  // reported 43 on.
  uint32_t midstate[16], block[4], bound[8] = {~0u, ~0u, ~0u, ~0u, ~0u, ~0u, ~0u, 0xFFFF};
  for (uint32_t i = 0; i < 16; i++) midstate[i] = Latched(kSlotMidstate + 4 * i);
  for (uint32_t i = 0; i < 4; i++) block[i] = Latched(kSlotNonceBlock + 4 * i);
  std::vector<sim::NonceTail> tails(1 << 20);
  for (uint32_t i = 0; i < tails.size(); i++) tails[i] = {block[2], block[3] ^ i};
  size_t good = sim::SearchMidstate(midstate, block[0], block[1], tails.data(), tails.size(), bound);
  ASSERT_LT(good, tails.size());

  auto report = [&](std::vector<uint32_t> values) {
    card->WithFpga(0, [&](sim::Fpga *fpga) {
      for (uint32_t slot = 0; slot < values.size(); slot++) fpga->HashCore()->PostResult(slot, values[slot]);
      return 0;
    });
    CollectNonces(loop, context, worker);
  };
  const uint32_t ones = 0xFFFFFFFF;
  report({ones, ones, ones});
  report({static_cast<uint32_t>(good) + sim::kReportDistance});
  report({ones, ones, ones});
  EXPECT_TRUE(worker.enabled);
  EXPECT_EQ(worker.found, 7u);
  EXPECT_EQ(worker.invalid, 6u);
  EXPECT_EQ(worker.tuning, TuningDone);
  EXPECT_EQ(worker.targetClockHz, 200000000u - 6 * 50000u);
  report({ones});
  EXPECT_FALSE(worker.enabled);
}

// Model 6 keeps its regulator sensors on the I2C bus: the worker shows what
// 0x1F reads and throttles when it runs hot.
class WorkerRegulatorTest : public WorkerBoardTest {
 protected:
  WorkerRegulatorTest() {
    boardList = "xdma0 model=6 i2c_temp_1f=110\n";
    model = 6;
  }
};

TEST_F(WorkerRegulatorTest, Model6ShowsTheI2CRegulatorTemperatureAndThrottlesWhenHot) {
  Worker &worker = *context.workers[0];
  context.SetCurrentJob(job);
  RunWorker();

  EXPECT_TRUE(WaitUntil([&] { return worker.vrmTemperature == 110.0; }));
  // Cooking: after the first 2000 passes the clock walks down from 100 MHz.
  EXPECT_TRUE(WaitUntil([&] { return worker.currentClockHz < 100000000; }, 60000ms));

  // The sensor cools; the reading shown never falls while the worker runs,
  // through two more readings of it.
  std::string error;
  ASSERT_TRUE(boards.RunCommand("xdma0 i2c_temp_1f=40", &error)) << error;
  std::string transcript;
  auto readings = [&] {
    transcript += card->WithFpga(0, [](sim::Fpga *fpga) { return fpga->Iic()->TakeTranscript(); });
    return std::count(transcript.begin(), transcript.end(), '@') / 2;
  };
  readings();
  transcript.clear();
  EXPECT_TRUE(WaitUntil([&] { return readings() >= 6; }));
  EXPECT_EQ(worker.vrmTemperature, 110.0);
}

}  // namespace
