#include "rig/dispatch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>

namespace {

// The rate, in MH/s, at which one core runs through 2^32 nonces in `periodMs`;
// exact in doubles for periods that divide 4294967295000.
double RateForPeriod(double periodMs, uint64_t cores) {
  return 4294967295000.0 / periodMs * static_cast<double>(cores) / 1000000.0;
}

TEST(RefreshPeriodTest, TrimsAtTheBoundaries) {
  constexpr uint64_t kCores = 1000000;  // keeps the arithmetic exact
  EXPECT_EQ(RefreshPeriodMs(RateForPeriod(1000, kCores), kCores), 950u);
  EXPECT_EQ(RefreshPeriodMs(RateForPeriod(1020, kCores), kCores), 520u);
  EXPECT_EQ(RefreshPeriodMs(RateForPeriod(71, kCores), kCores), 21u);
  EXPECT_EQ(RefreshPeriodMs(RateForPeriod(51, kCores), kCores), 51u);
  EXPECT_EQ(RefreshPeriodMs(RateForPeriod(15, kCores), kCores), 20u);
  // 200 MHz on 20 cores: 21474 ms less 500.
  EXPECT_EQ(RefreshPeriodMs(200.0 * 20, 20), 20974u);
  // Before the first clock step the rate is 0: infinity converts to 0, trimmed to 20.
  EXPECT_EQ(RefreshPeriodMs(0.0, 20), 20u);
}

// The board reports about one hash a period: its target's top limb is
// 0xFFFF * 2^48 over the hashes of a period (2e9 a second at 100 MHz on 20
// cores; a tuning period is 15 s), with the low words open.
TEST(RateDerivedTargetTest, AimsAtOneNonceAPeriodWithTheLowWordsOpen) {
  for (auto [tuning, topLimb] : {std::pair{false, 9223231299ull}, {true, 138348469490ull}}) {
    uint32_t target[8];
    RateDerivedBoardTarget(100000000, 20, tuning, target);
    EXPECT_EQ(static_cast<uint64_t>(target[7]) << 32 | target[6], topLimb) << tuning;
    for (int i = 0; i < 6; i++) EXPECT_EQ(target[i], 0xffffffffu);
  }
}

TEST(NonceBlockTest, ExtranonceAndNonceWordReversedPerGroup) {
  uint8_t block[16];
  BuildNonceBlock({0xa1, 0xa2, 0xa3, 0xa4, 0xa5}, 0x11223344, block);
  // Raw: a1 a2 a3 a4 | a5 44 33 22 | 11 00 00 00 | 00 ...
  const uint8_t expected[16] = {0xa4, 0xa3, 0xa2, 0xa1, 0x22, 0x33, 0x44, 0xa5, 0, 0, 0, 0x11, 0, 0, 0, 0};
  EXPECT_EQ(memcmp(block, expected, 16), 0);
  uint32_t words[4];
  NonceBlockWords(block, words);
  EXPECT_EQ(words[0], 0xa1a2a3a4u);  // raw bytes 0..3 read big-endian
  EXPECT_EQ(words[1], 0xa5443322u);

  BuildNonceBlock(std::vector<uint8_t>(12, 0xee), 0x11223344, block);
  for (uint8_t byte : block) EXPECT_EQ(byte, 0);  // twelve or more: all zero
  BuildNonceBlock(std::vector<uint8_t>(11, 0xee), 0x11223344, block);
  NonceBlockWords(block, words);
  EXPECT_EQ(words[2], 0xeeeeee44u);
  EXPECT_EQ(words[3], 0x33221100u);
}

TEST(CandidateOrderTest, CoreInnermostThenSkewAlternating) {
  EXPECT_EQ(CandidateAt(63).coreNumber, 63u);
  for (auto [index, skew] : {std::pair{64, 0}, {128, 1}, {192, -1}, {1279, -9}})
    EXPECT_EQ(CandidateAt(index).skew, skew);
  // Skew 0 comes twice (k = 0 and 1), so 20 cores' worth of candidates
  // cover 19 distinct skews.
  std::set<std::pair<uint32_t, int32_t>> seen;
  for (uint64_t t = 0; t < 1280; t++) seen.insert({CandidateAt(t).coreNumber, CandidateAt(t).skew});
  EXPECT_EQ(seen.size(), 19u * 64u);
}

}  // namespace
