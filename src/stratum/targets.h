// Conversions between a pool difficulty and a 256-bit target. Targets are
// eight 32-bit words, word 0 least significant.
#pragma once

#include <array>
#include <cstdint>

using Target256 = std::array<uint32_t, 8>;

// The difficulty-one target, 0xFFFF times 2 to the 208.
constexpr double kDifficultyOneTarget = 2.695953529101131e+67;

// Fills `target_out` with the target of `difficulty`. Out-of-range results
// (negative, infinite, not-a-number, or a target above 2 to the 256) come out
// as x86-64's conversions give them, on every build.
void DifficultyToTarget(double difficulty, uint32_t target_out[8]);

// The difficulty of a 32-byte target given least significant byte first.
double TargetBytesToDifficulty(const uint8_t target[32]);

// The machine conversions made explicit, so that no optimisation changes them.
uint64_t MachineDoubleToU64(double value);
double MachineU64ToDouble(uint64_t value);
