// Keeping the pool connection alive from the console loop.
#pragma once

#include <cstdint>

#include "rig/run_records.h"

// One look at the pool link, once per console pass (see StratumPoll).
void KeepPoolConnection(MiningContext &context);
