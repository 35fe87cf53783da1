// Keeping the pool connection alive from the console loop.
#pragma once

#include <cstdint>

#include "miner/run_records.h"

// One look at the Stratum state, once per console pass: connects from Idle,
// and after a loss rebuilds the client on the eleventh pass, counting the
// passes in `retryCount`.
void KeepPoolConnection(MiningContext &context, uint64_t &retryCount);
