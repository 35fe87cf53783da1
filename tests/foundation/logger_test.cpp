#include "foundation/logger.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/capture.h"

using testing_support::StreamCapture;

namespace {

class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    VLLogEnableConsole();
    Reset();
  }
  void TearDown() override { Reset(); }
  static void Reset() {
    unsetenv("VL_LOG_TRACE");
    StreamCapture quiet;
    VLLogSetLevel(VLLogLevelInfo);
  }
};

// Info and above pass; warnings and errors go to stderr. Names are padded to
// one width.
TEST_F(LoggerTest, LineFormatAndStreamsByLevel) {
  StreamCapture capture;
  for (uint32_t level : {50u, 100u, 200u, 300u, 400u, 500u}) VL_LOG(level, "T", "%u", level);
  VL_LOG(VLLogLevelError, "Miner", "error %d", 1);
  VL_LOG(VLLogLevelWarning, "DMA_DEVICE", "warning");
  VL_LOG(VLLogLevelInfo, "LOGGER", "info");
  capture.Stop();
  EXPECT_EQ(capture.Err(),
            "W/T            : 400\nE/T            : 500\nE/Miner        : error 1\nW/DMA_DEVICE   : warning\n");
  EXPECT_EQ(capture.Out(), "I/T            : 300\nI/LOGGER       : info\n");
}

TEST_F(LoggerTest, ConcurrentWritersNeverInterleaveLines) {
  constexpr int kThreads = 8;
  constexpr int kLines = 300;
  StreamCapture capture;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; t++) {
    threads.emplace_back([t] {
      std::string body(2000 + t * 50, static_cast<char>('a' + t));
      for (int i = 0; i < kLines; i++) VL_LOG(VLLogLevelInfo, "W", "%d:%s", t, body.c_str());
    });
  }
  for (auto &thread : threads) thread.join();
  capture.Stop();

  std::istringstream lines(capture.Out());
  std::string line;
  int counts[kThreads] = {};
  while (std::getline(lines, line)) {
    ASSERT_EQ(line.rfind("I/W            : ", 0), 0u) << line.substr(0, 40);
    int t = line[17] - '0';
    ASSERT_TRUE(t >= 0 && t < kThreads);
    EXPECT_EQ(line.substr(19), std::string(2000 + t * 50, static_cast<char>('a' + t)));
    counts[t]++;
  }
  for (int t = 0; t < kThreads; t++) EXPECT_EQ(counts[t], kLines);
}

}  // namespace
