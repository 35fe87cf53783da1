// The monotonic clock in ticks, and elapsed time in microseconds.
#pragma once

#include <cstdint>

void VLTimeInit();
int64_t VLTimeNow();
int64_t VLTimeElapsedMicros(int64_t now, int64_t then);
// Seconds of the monotonic clock, as heartbeats record them.
uint64_t VLTimeSeconds();
