// The process-wide stop signal that every thread polls: running, stopping
// (a key, a signal or the API asked), finished (main has shut down).
#pragma once

#include <cstdint>

#include "foundation/relaxed.h"

enum RunState : uint32_t {
  RunStateRunning = 0,
  RunStateStopping = 1,
  RunStateFinished = 2,
};

// Polled by every thread; written as single stores.
extern Relaxed<uint32_t> g_runState;
