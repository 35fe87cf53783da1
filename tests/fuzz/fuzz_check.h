// What the fuzz targets share: a broken promise stops the run, so that the
// fuzzer keeps the input, and reads cut where a seed says.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

inline void Check(bool condition) {
  if (!condition) abort();
}

// The length of the next read: 1 to `most` bytes as `seed` steps on, never more than the `left`.
inline size_t CutLength(uint32_t &seed, size_t left, size_t most) {
  seed = seed * 1103515245u + 12345u;
  return std::min<size_t>(left, 1 + (seed >> 8) % most);
}
