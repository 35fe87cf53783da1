// The run's settings: the argument vector applied to the context, the
// workers and the pools, and the workers' threads started.
#pragma once

#include <cstdint>

#include "foundation/object.h"
#include "rig/board_settings.h"
#include "rig/run_records.h"

constexpr uint64_t kDefaultClockHz = 100000000;

// The two parts of a stored document that SetupRun merges. Nothing in this
// program reads config.json back, so both are absent in every run; the merge
// stands ready for a loader that fills them in.
struct StoredRunSettings {
  const VLObject *devices = nullptr;  // array of {"dna", "clock", "disabled"}
  const VLObject *stratum = nullptr;  // {"host", "port", "wallet", "password"}
};

// Applies a stored stratum section; its texts are copied for the whole run.
void MergeStoredStratumSettings(MiningContext &context, const VLObject *stratum);

// Applies the argument vector to the run and starts one thread per enabled
// worker. Ends the process with code 1 for an unknown algorithm.
void SetupRun(MiningContext &context, int argc, char **argv);
