// The run's settings: the argument vector applied to the context and the
// workers, and the boards' settings written to config.json on request.
#pragma once

#include <cstdint>

#include "foundation/object.h"
#include "miner/run_records.h"

constexpr uint64_t kDefaultClockHz = 100000000;

// The two parts of a stored document that SetupRun merges. Nothing in this
// program reads config.json back, so both are absent in every run; the merge
// stands ready for a loader that fills them in.
struct StoredRunSettings {
  const VLObject *devices = nullptr;  // array of {"dna", "clock", "disabled"}
  const VLObject *stratum = nullptr;  // {"host", "port", "wallet", "password"}
};

// Applies the stored entries whose string "dna" equals the worker's: a number
// "clock" in MHz sets the target clock, a number "disabled" the enabled flag.
// Entries of other shapes are skipped.
void MergeStoredDeviceSettings(Worker &worker, const VLObject *devices);

// Applies a stored stratum section; its texts are copied for the whole run.
void MergeStoredStratumSettings(MiningContext &context, const VLObject *stratum);

// Applies the argument vector to the run and starts one thread per enabled
// worker. Ends the process with code 1 for an unknown algorithm.
void SetupRun(MiningContext &context, int argc, char **argv);

// Writes every worker's model, DNA, target clock and disabled flag to
// config.json in the working directory. A failure is logged; the run goes on.
void SaveConfiguration(MiningContext &context);
