// The run's settings: the argument vector applied to the context and the
// workers, and the boards' settings written to config.json on request.
#pragma once

#include <cstdint>

#include "miner/run_records.h"

constexpr uint64_t kDefaultClockHz = 100000000;

// Applies the argument vector to the run and starts one thread per enabled
// worker. Ends the process with code 1 for an unknown algorithm.
void SetupRun(MiningContext &context, int argc, char **argv);

// Writes every worker's model, DNA, target clock and disabled flag to
// config.json in the working directory. A failure is logged; the run goes on.
void SaveConfiguration(MiningContext &context);
