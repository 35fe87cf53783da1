#pragma once

#include <atomic>
#include <cstdint>

#include "miner/run_records.h"

// The main thread's loop: keys, pool connection upkeep and the status table,
// until the run stops. Raises `watchdogCounter` once per pass.
void MainLoop(MiningContext &context, std::atomic<uint64_t> &watchdogCounter);
