// Worker records without boards, for driving the console and the run
// configuration in-process.
#pragma once

#include <memory>
#include <string>

#include "rig/run_records.h"
#include "stratum/job.h"

namespace miner_testing {

inline std::unique_ptr<Worker> MakeWorker(const std::string &modelName, BoardModel model, const std::string &dna) {
  auto worker = std::make_unique<Worker>();
  worker->modelName = modelName;
  worker->model = model;
  worker->dna = dna;
  return worker;
}

// `count` enabled narrow-family workers "1525" with DNA "dna<i+1>".
inline void AddWorkers(MiningContext &context, size_t count) {
  for (size_t i = 0; i < count; i++) {
    auto worker = MakeWorker("1525", 1, "dna" + std::to_string(context.workers.size() + 1));
    worker->id = context.workers.size();
    worker->enabled = true;
    context.workers.push_back(std::move(worker));
  }
}

// Publishes a job, so that a worker thread started on a boardless record
// gets past its wait for work, finds no device, clears `enabled` and ends.
inline void GiveJob(MiningContext &context) {
  auto job = std::make_shared<StratumJob>();
  job->jobId = "1";
  context.SetCurrentJob(job);
}

// Resets the process-wide stop signal around each test.
struct RunStateGuard {
  RunStateGuard() { g_runState = RunStateRunning; }
  ~RunStateGuard() { g_runState = RunStateRunning; }
};

}  // namespace miner_testing
