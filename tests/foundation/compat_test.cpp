#include "foundation/compat.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>
#include <vector>

namespace {

std::vector<uint32_t> g_requests;
uint32_t g_answer = 1;

uint32_t RecordRequest(uint32_t flags) {
  g_requests.push_back(flags);
  return g_answer;
}

class SleepManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_requests.clear();
    g_answer = 1;
    VLSetExecutionStateHook(RecordRequest);
    manager = VLSleepManagerCreate();
  }
  void TearDown() override {
    VLSleepManagerDestroy(manager);
    VLSetExecutionStateHook(nullptr);
  }
  VLSystemSleepManager *manager = nullptr;
};

TEST_F(SleepManagerTest, TheRunsInertSetupMakesNoSystemCall) {
  VLSleepManagerSetMode(manager, 1);
  VLSleepManagerSetDisabled(manager, false);
  EXPECT_TRUE(g_requests.empty());
}

TEST_F(SleepManagerTest, RequestsAreMadeOncePerChange) {
  VLSleepManagerSetDisabled(manager, true);
  VLSleepManagerSetDisabled(manager, true);
  EXPECT_EQ(g_requests, std::vector<uint32_t>({0x80000041}));
  VLSleepManagerSetDisabled(manager, false);
  EXPECT_EQ(g_requests, std::vector<uint32_t>({0x80000041, 0x80000000}));
}

TEST_F(SleepManagerTest, ModeChangeWhileActiveReapplies) {
  VLSleepManagerSetDisabled(manager, true);
  g_requests.clear();
  VLSleepManagerSetMode(manager, 1);
  EXPECT_TRUE(g_requests.empty());
  VLSleepManagerSetMode(manager, 0);
  EXPECT_EQ(g_requests, std::vector<uint32_t>({0x80000000, 0x80000043}));
}

TEST_F(SleepManagerTest, RefusedRequestLeavesPreventionOff) {
  g_answer = 0;
  VLSleepManagerSetDisabled(manager, true);
  EXPECT_FALSE(manager->sleepDisabled);
}

TEST(SocketPairTest, ByteWrittenOnOneEndWakesTheOther) {
  VLSocket pair[2];
  ASSERT_EQ(VLSocketPair(pair), 0u);
  pollfd fd{pair[0], POLLIN, 0};
  EXPECT_EQ(poll(&fd, 1, 0), 0);
  ASSERT_EQ(write(pair[1], "x", 1), 1);
  EXPECT_EQ(poll(&fd, 1, 5000), 1);
  char byte = 0;
  EXPECT_EQ(VLSocketRecv(pair[0], &byte, 1), 1);
  EXPECT_EQ(byte, 'x');
  VLSocketClose(pair[0]);
  VLSocketClose(pair[1]);
}

TEST(SocketRecvTest, ConnectionResetReadsAsEndOfStream) {
  VLSocket pair[2];
  ASSERT_EQ(VLSocketPair(pair), 0u);
  // Closing with unread data and a zero linger sends a reset to the peer.
  ASSERT_EQ(write(pair[0], "unread", 6), 6);
  linger hard{1, 0};
  setsockopt(pair[1], SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  VLSocketClose(pair[1]);
  char buffer[16];
  EXPECT_EQ(VLSocketRecv(pair[0], buffer, sizeof buffer), 0);
  VLSocketClose(pair[0]);
}

TEST(ConditionTest, SignalWakesAWaiterThatWaitsForItsPredicate) {
  VLCondition condition;
  VLConditionInit(&condition);
  std::mutex lock;
  bool ready = false;
  std::thread waiter([&] {
    lock.lock();
    while (!ready) VLConditionWait(&condition, &lock);
    lock.unlock();
  });
  lock.lock();
  ready = true;
  VLConditionSignal(&condition);
  lock.unlock();
  waiter.join();
  VLConditionDestroy(&condition);
  EXPECT_TRUE(ready);
}

TEST(ConditionTest, TimedWaitReturnsAfterAPassedDeadline) {
  VLCondition condition;
  std::mutex lock;
  VLDeadline past{1, 0};
  lock.lock();
  VLConditionTimedWait(&condition, &lock, &past);
  // The caller's lock is held again on return.
  EXPECT_FALSE(lock.try_lock());
  lock.unlock();
}

}  // namespace
