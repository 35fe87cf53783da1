#include "stratum/targets.h"

#include <cstring>

namespace {

constexpr double kTwo63 = 9223372036854775808.0;
constexpr double kTwo64 = 18446744073709551616.0;
constexpr double kTwo128 = kTwo64 * kTwo64;
constexpr double kTwo192 = kTwo128 * kTwo64;
constexpr uint64_t kIndefinite = 0x8000000000000000ULL;

// The processor's truncating double-to-signed conversion: a value that does
// not fit, or not-a-number, gives the "integer indefinite" pattern.
uint64_t TruncateToSigned(double value) {
  if (!(value >= -kTwo63 && value < kTwo63)) return kIndefinite;
  return static_cast<uint64_t>(static_cast<int64_t>(value));
}

uint64_t ReadLittleEndian64(const uint8_t *bytes) {
  uint64_t value = 0;
  for (int i = 7; i >= 0; i--) value = (value << 8) | bytes[i];
  return value;
}

}  // namespace

uint64_t MachineDoubleToU64(double value) {
  if (value >= kTwo63) return TruncateToSigned(value - kTwo63) ^ kIndefinite;
  return TruncateToSigned(value);
}

double MachineU64ToDouble(uint64_t value) {
  if (value >> 63) {
    // Halve with the lost bit kept as a sticky bit, convert, double: the
    // result is rounded once, as an exact conversion would be.
    double half = static_cast<double>(static_cast<int64_t>((value >> 1) | (value & 1)));
    return half + half;
  }
  return static_cast<double>(static_cast<int64_t>(value));
}

void DifficultyToTarget(double difficulty, uint32_t target_out[8]) {
  if (difficulty == 0.0) difficulty = 1.0;
  double d = kDifficultyOneTarget / difficulty;

  uint64_t w3 = MachineDoubleToU64(d / kTwo192);
  d = d - MachineU64ToDouble(w3) * kTwo192;
  uint64_t w2 = MachineDoubleToU64(d / kTwo128);
  d = d - MachineU64ToDouble(w2) * kTwo128;
  uint64_t w1 = MachineDoubleToU64(d / kTwo64);
  d = d - MachineU64ToDouble(w1) * kTwo64;
  uint64_t w0 = MachineDoubleToU64(d);

  const uint64_t limbs[4] = {w0, w1, w2, w3};
  for (int i = 0; i < 4; i++) {
    target_out[2 * i] = static_cast<uint32_t>(limbs[i]);
    target_out[2 * i + 1] = static_cast<uint32_t>(limbs[i] >> 32);
  }
}

double TargetBytesToDifficulty(const uint8_t target[32]) {
  uint64_t w0 = ReadLittleEndian64(target);
  uint64_t w1 = ReadLittleEndian64(target + 8);
  uint64_t w2 = ReadLittleEndian64(target + 16);
  uint64_t w3 = ReadLittleEndian64(target + 24);
  double sum = MachineU64ToDouble(w3) * kTwo192;
  sum = MachineU64ToDouble(w2) * kTwo128 + sum;
  sum = MachineU64ToDouble(w1) * kTwo64 + sum;
  sum = MachineU64ToDouble(w0) + sum;
  return kDifficultyOneTarget / sum;
}
