#pragma once

#include <cstdint>

#include "rig/run_records.h"

// One board's thread: waits for a job, brings the clock up, then loops over
// sensors, clock, job loads and nonces until the board is disabled and its
// clock is down. Takes ownership of `args`.
void *WorkerMain(WorkerThreadArgs *args);

// Starts a worker thread on the record `workerIndex` and remembers it there.
void StartWorkerThread(MiningContext &context, uint64_t workerIndex);
