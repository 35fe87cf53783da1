#include "foundation/vltime.h"

#include <chrono>

// The steady clock counts in nanoseconds; a tick is one of them, so the
// frequency needs no one-time reading.
void VLTimeInit() {}

int64_t VLTimeNow() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

int64_t VLTimeElapsedMicros(int64_t now, int64_t then) { return (now - then) / 1000; }

uint64_t VLTimeSeconds() {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now().time_since_epoch()).count());
}
