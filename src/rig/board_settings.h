// The boards' settings as config.json holds them: written on the operator's
// request, and merged into a worker from a stored document.
#pragma once

#include "foundation/object.h"
#include "rig/run_records.h"

// Applies the stored entries whose string "dna" equals the worker's: a number
// "clock" in MHz sets the target clock, a number "disabled" the enabled flag.
// Entries of other shapes are skipped.
void MergeStoredDeviceSettings(Worker &worker, const VLObject *devices);

// Writes every worker's model, DNA, target clock and disabled flag to
// config.json in the working directory. A failure is logged; the run goes on.
void SaveConfiguration(MiningContext &context);
