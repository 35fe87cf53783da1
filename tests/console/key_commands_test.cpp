// The operator's keys, handled in-process on boardless worker records.
#include "console/key_commands.h"

#include <gtest/gtest.h>

#include <thread>

#include "support/fake_workers.h"
#include "foundation/logger.h"
#include "support/capture.h"
#include "support/wait_until.h"

using miner_testing::AddWorkers;
using miner_testing::RunStateGuard;
using testing_support::StreamCapture;

namespace {

class KeyCommandsTest : public ::testing::Test {
 protected:
  void SetUp() override { VLLogEnableConsole(); }
  // Presses `keys` in order and returns what was printed.
  std::string Press(const std::string &keys) {
    StreamCapture capture;
    for (char key : keys) HandleKey(session_, key);
    capture.Stop();
    return capture.Out() + capture.Err();
  }

  uint64_t ClockMHz(size_t index) { return context_.workers[index]->targetClockHz / 1000000; }

  RunStateGuard runState_;
  MiningContext context_;
  ConsoleSession session_{context_};
};

TEST_F(KeyCommandsTest, DigitsTargetOneWorkerAndAllGoesBackToEvery) {
  AddWorkers(context_, 3);
  for (auto &worker : context_.workers) worker->targetClockHz = 100000000;

  EXPECT_EQ(Press("2"), "I/Miner        : Commands targeting device 2\n");
  EXPECT_EQ(session_.targetDevice, 2);
  Press("+");
  EXPECT_EQ(ClockMHz(0), 100u);
  EXPECT_EQ(ClockMHz(1), 105u);
  EXPECT_EQ(ClockMHz(2), 100u);

  EXPECT_EQ(Press("a"), "I/Miner        : Commands targeting all devices\n");
  EXPECT_EQ(session_.targetDevice, -1);
  // One line per key, not per worker.
  EXPECT_EQ(Press("+"), "I/Miner        : Increasing clocks by 5 MHz\n");
  EXPECT_EQ(ClockMHz(0), 105u);
  EXPECT_EQ(ClockMHz(1), 110u);
  EXPECT_EQ(ClockMHz(2), 105u);
}

TEST_F(KeyCommandsTest, QuitStopsTheRunAndLaterKeysAreIgnored) {
  AddWorkers(context_, 1);
  context_.workers[0]->targetClockHz = 100000000;
  EXPECT_EQ(Press("q+d3"), "I/Miner        : Quitting miner, shutting down devices...\n");
  EXPECT_EQ(g_runState, RunStateStopping);
  EXPECT_EQ(context_.workers[0]->targetClockHz, 100000000u);
  EXPECT_TRUE(context_.workers[0]->enabled);
  EXPECT_EQ(session_.targetDevice, -1);
}

TEST_F(KeyCommandsTest, EnableStartsAWorkerThreadOnEachTargetedRecord) {
  AddWorkers(context_, 2);
  for (auto &worker : context_.workers) worker->enabled = false;
  // With work published, a thread on a boardless record runs to its end: it
  // finds no device and clears the flag that the key set.
  miner_testing::GiveJob(context_);
  StreamCapture capture;
  HandleKey(session_, '2');
  HandleKey(session_, 'e');
  Worker &worker = *context_.workers[1];
  EXPECT_NE(worker.threadHandle, std::thread::id());
  EXPECT_TRUE(testing_support::WaitUntil([&] { return context_.workerThreads.load(std::memory_order_acquire) == 0; }));
  EXPECT_FALSE(worker.enabled);
  capture.Stop();
  std::string out = capture.Out() + capture.Err();
  EXPECT_NE(out.find("I/Miner        : Enabling targeted device(s)\n"), std::string::npos) << out;
  EXPECT_NE(out.find("E/Worker02     : Failed to initialize device, worker shutting down\n"), std::string::npos);
  EXPECT_EQ(out.find("Worker01"), std::string::npos) << "the untargeted record got no thread";
  EXPECT_EQ(context_.workers[0]->threadHandle, std::thread::id());
}

}  // namespace
