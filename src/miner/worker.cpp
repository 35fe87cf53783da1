#include "miner/worker.h"

#include <fmt/printf.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "foundation/logger.h"
#include "foundation/vltime.h"

namespace {
constexpr auto kIdlePollInterval = std::chrono::milliseconds(50);
}  // namespace

// Placeholder until the mining worker lands: it claims the board, shows a
// live heartbeat while enabled, and stops as soon as it is disabled or the run
// ends, so that the console's 'd'/'e' keys and main's stop wait have a real
// thread to act on. It touches no register.
int WorkerMain(WorkerThreadArgs *args) {
  std::unique_ptr<WorkerThreadArgs> owned(args);
  Worker &worker = *owned->context->workers[owned->workerIndex];
  std::string tag = fmt::sprintf("Worker%02llu", static_cast<unsigned long long>(worker.id.load() + 1));
  VL_LOG(VLLogLevelInfo, tag.c_str(), "Starting...");

  worker.heartbeat.store(VLTimeSeconds());
  worker.state = WorkerStateWaitingForWork;
  worker.active = true;
  while (worker.enabled && g_runState == RunStateRunning) {
    worker.heartbeat.store(VLTimeSeconds());
    std::this_thread::sleep_for(kIdlePollInterval);
  }
  worker.active = false;
  VL_LOG(VLLogLevelInfo, tag.c_str(), "Stopped");
  return 0;
}

void StartWorkerThread(MiningContext &context, uint64_t index) {
  auto *args = new WorkerThreadArgs{index, &context};
  std::thread thread(WorkerMain, args);
  context.workers[index]->threadHandle = thread.get_id();
  thread.detach();
}
