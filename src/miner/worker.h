// The worker thread of one board, and how it is started.
#pragma once

#include <cstdint>

#include "miner/run_records.h"

// Thread body for one Worker; frees `args` on each way out. Returns 0.
int WorkerMain(WorkerThreadArgs *args);

// Starts a thread on WorkerMain for workers[index] and records it in the
// Worker. The thread is detached: main watches the active flag, never the
// handle.
void StartWorkerThread(MiningContext &context, uint64_t index);
