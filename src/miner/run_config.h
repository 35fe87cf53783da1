#pragma once

#include "miner/run_records.h"

// Applies the argument vector to the run and starts one thread per enabled
// worker.
void SetupRun(MiningContext &context, int argc, char **argv);
