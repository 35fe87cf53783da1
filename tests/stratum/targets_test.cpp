#include "stratum/targets.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {

struct Row {
  double difficulty;
  uint64_t limbs[4];  // the most significant first
};

uint64_t Limb(const uint32_t target[8], int i) {
  return static_cast<uint64_t>(target[2 * i + 1]) << 32 | target[2 * i];
}

TEST(DifficultyToTargetTest, ReproducesEveryRowIncludingOutOfRangeDifficulties) {
  constexpr uint64_t kI = 0x8000000000000000ULL;
  const Row rows[] = {
      {1.0, {0x00000000FFFF0000ULL, 0, 0, 0}},
      {0.0, {0x00000000FFFF0000ULL, 0, 0, 0}},
      {-0.0, {0x00000000FFFF0000ULL, 0, 0, 0}},
      {2.0, {0x000000007FFF8000ULL, 0, 0, 0}},
      {0.5, {0x00000001FFFE0000ULL, 0, 0, 0}},
      {1024.0, {0x00000000003FFFC0ULL, 0, 0, 0}},
      {3.5, {0x0000000049244924ULL, 0x9249240000000000ULL, 0, 0}},
      {1e-9, {0x3B9A8E6535FFFE00ULL, 0, 0, 0}},
      {1e-12, {0, 0, 0, 0}},
      {std::numeric_limits<double>::infinity(), {0, 0, 0, 0}},
      {std::numeric_limits<double>::quiet_NaN(), {kI, kI, kI, kI}},
      {-1.0, {0xFFFFFFFF00010000ULL, kI, kI, kI}},
  };
  for (const Row &row : rows) {
    uint32_t target[8];
    DifficultyToTarget(row.difficulty, target);
    for (int i = 0; i < 4; i++) EXPECT_EQ(Limb(target, 3 - i), row.limbs[i]) << row.difficulty << " limb " << 3 - i;
  }
}

TEST(MachineConversionTest, UnsignedConversionsMatchTheProcessorAtTheEdges) {
  EXPECT_EQ(MachineDoubleToU64(9223372036854775808.0), 0x8000000000000000ULL);
  EXPECT_EQ(MachineDoubleToU64(18446744073709549568.0), 0xFFFFFFFFFFFFF800ULL);
  EXPECT_EQ(MachineDoubleToU64(18446744073709551616.0), 0u);  // 2^64 does not fit
  EXPECT_EQ(MachineDoubleToU64(-1.0), 0xFFFFFFFFFFFFFFFFULL);
  EXPECT_EQ(MachineDoubleToU64(1.9), 1u);
  // Round to nearest even through the sticky bit, like an exact conversion.
  for (uint64_t v : {0xFFFFFFFFFFFFFFFFULL, 0x8000000000000401ULL, 0x8000000000000400ULL, 0x8000000000000C00ULL,
                     0x8000000000000001ULL, 12345ULL}) {
    EXPECT_EQ(MachineU64ToDouble(v), static_cast<double>(v)) << std::hex << v;
  }
}

TEST(TargetBytesToDifficultyTest, InvertsDifficultyToTargetForPoolTargets) {
  for (double difficulty : {1.0, 2.0, 0.5, 1024.0, 3.5, 65536.0, 1e6}) {
    uint32_t target[8];
    DifficultyToTarget(difficulty, target);
    uint8_t bytes[32];
    for (int i = 0; i < 32; i++) bytes[i] = static_cast<uint8_t>(target[i / 4] >> (8 * (i % 4)));
    EXPECT_DOUBLE_EQ(TargetBytesToDifficulty(bytes), difficulty);
  }
}

}  // namespace
