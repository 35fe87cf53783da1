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

TEST_F(SleepManagerTest, RequestsAreMadeOncePerChange) {
  VLSleepManagerSetDisabled(manager, true);
  VLSleepManagerSetDisabled(manager, true);
  EXPECT_EQ(g_requests, std::vector<uint32_t>({0x80000041}));
  VLSleepManagerSetDisabled(manager, false);
  EXPECT_EQ(g_requests, std::vector<uint32_t>({0x80000041, 0x80000000}));
}

}  // namespace
