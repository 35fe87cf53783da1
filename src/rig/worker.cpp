#include "rig/worker.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "foundation/compat.h"
#include "foundation/logger.h"
#include "foundation/vltime.h"
#include "foundation/console_io.h"
#include "rig/dispatch.h"
#include "rig/governor.h"

using namespace std::chrono_literals;

namespace {

constexpr uint64_t kSensorPassEvery = 100;
constexpr uint64_t kPassesBeforeClockSteps = 2000;
constexpr uint64_t kIdentityLedOnPasses = 0;
// A healthy board never fails a read; this many in a row is a board gone.
constexpr uint64_t kFailedReadsToTakeOut = 100;
constexpr uint64_t kSecondsWithoutTemperature = 5;

void Beat(Worker &worker) { worker.heartbeat.store(VLTimeSeconds()); }

void SetState(Worker &worker, WorkerState state) {
  Beat(worker);
  worker.state = state;
}

// The identity LED of the wide family: on while a request stands, off once
// the countdown that was running reaches exactly 0.
void SetIdentityLed(BRYLDMADevice *device, BoardModel model, bool request, uint64_t countdown) {
  if (!IsWideFamily(model)) return;
  if (request) {
    SetIdentityLEDSetting(device, OmbryIdentityLEDSetting34);
  } else if (countdown == kIdentityLedOnPasses) {
    SetIdentityLEDSetting(device, OmbryIdentityLEDSettingOff);
  }
}

void WaitForFirstJob(MiningContext &context) {
  for (;;) {
    std::shared_ptr<StratumJob> job = context.CurrentJob();
    if (job && !job->jobId.empty()) return;
    std::this_thread::sleep_for(50ms);
  }
}

// Makes the wide family's XADC convert the regulator channel, averaged.
void EnableRegulatorChannel(BRYLDMADevice *device) {
  uint32_t sequencer = BRYLDMADeviceRead(device, device->userFile, kRegXadcSequencer);
  BRYLDMADeviceWrite(device, device->userFile, kRegXadcSequencer, sequencer | kXadcSequencerAux6);
  uint32_t config = BRYLDMADeviceRead(device, device->userFile, kRegXadcConfig0);
  BRYLDMADeviceWrite(device, device->userFile, kRegXadcConfig0, config | kXadcConfig0Averaging);
}

void StopBoard(WorkerLoop &loop, Worker &worker) {
  BRYLDMADevice *device = worker.device.get();
  SetIdentityLed(device, worker.model, false, 0);
  VL_LOG(VLLogLevelInfo, loop.logTag, "Stopping hashcore(s)");
  for (const JobSlot &slot : loop.slots)
    BRYLDMADeviceWrite(device, device->userFile, slot.base + kSlotControl, kSlotHold);
  std::this_thread::sleep_for(1ms);
  SetMmcmClockEnable(device, false, worker.layoutVersion);
  SetMmcmReset(device, true, worker.layoutVersion);
  // Released: whoever sees the board stopped may let go of what it used.
  worker.active.StoreRelease(false);
  VL_LOG(VLLogLevelInfo, loop.logTag, "Stopped");
}

// Takes a failing board out like a crashed one: one red line naming the
// cause, then the clock goes down to the floor and the board stops. The other
// boards mine on.
void TakeOut(WorkerLoop &loop, Worker &worker, const std::string &cause) {
  if (!worker.enabled) return;
  LOG_COLOR(ConsoleColorRed, VLLogLevelError, loop.logTag, "Worker %llu: %s; clock to the floor, stopping the board",
            static_cast<unsigned long long>(worker.id) + 1, cause.c_str());
  worker.takenOut = true;
  worker.enabled = false;
}

// The board's health after what this pass read: reads that keep failing, a
// wait on the hardware that ran out, or no core temperature for a while.
void CheckHealth(WorkerLoop &loop, Worker &worker) {
  const BRYLDMADevice *device = worker.device.get();
  if (device->failedReadsInARow >= kFailedReadsToTakeOut) {
    char cause[96];
    snprintf(cause, sizeof cause, "register reads keep failing (at 0x%llx)",
             static_cast<unsigned long long>(device->lastFailedAddress));
    TakeOut(loop, worker, cause);
  } else if (device->stuckWait != nullptr) {
    TakeOut(loop, worker, device->stuckWait);
  }
  uint64_t now = VLTimeSeconds();
  if (!std::isnan(worker.coreTemperature.load())) {
    loop.temperatureSeenAt = now;
  } else if (now - loop.temperatureSeenAt >= kSecondsWithoutTemperature) {
    TakeOut(loop, worker, "no valid core temperature for 5 s, treated as hot");
  }
}

// One pass of the loop; false once the board has stopped.
bool RunPass(WorkerLoop &loop, MiningContext &context, Worker &worker) {
  BRYLDMADevice *device = worker.device.get();
  uint64_t step = ClockStep(worker);
  loop.passStep = step;

  if (loop.loopCount % kSensorPassEvery == 0) {
    try {
      SensorPass(device, *loop.i2c, worker, loop.logTag, loop.refClockHz, loop.throttleMHz);
    } catch (const std::runtime_error &error) { TakeOut(loop, worker, error.what()); }
  }
  CheckHealth(loop, worker);

  uint64_t desiredClockHz = DesiredClockHz(worker, step, loop.throttleMHz, loop.loopCount);
  if (!worker.enabled && worker.currentClockHz == 0) {
    StopBoard(loop, worker);
    return false;
  }

  uint64_t divisor = worker.enabled ? 3 : 2;
  if (loop.loopCount > kPassesBeforeClockSteps && loop.loopCount % divisor == 0 &&
      desiredClockHz != worker.currentClockHz) {
    uint64_t next = NextClockHz(worker.currentClockHz, desiredClockHz, step);
    TakeClockStep(loop.slots, device, worker, loop.refClockHz, loop.mmcmMultiplier, next, loop.cores);
    loop.refreshPeriodMs = 0;
    loop.needWork = true;
    std::this_thread::sleep_for(5ms);
  }

  UpdateRefreshAndTarget(loop, context, worker);

  uint64_t generation = context.jobGeneration.load();
  if (generation != loop.seenGeneration) {
    loop.needWork = true;
    loop.seenGeneration = generation;
  }
  if (static_cast<uint64_t>(VLTimeElapsedMicros(VLTimeNow(), loop.lastDispatch) / 1000) >= loop.refreshPeriodMs) {
    loop.needWork = true;
  }
  if (loop.needWork) LoadJob(loop, context, worker);

  std::this_thread::sleep_for(1ms);
  CollectNonces(loop, context, worker);

  uint64_t countdown = worker.identityLedCountdown;
  worker.identityLedCountdown = countdown - 1;
  SetIdentityLed(device, worker.model, worker.identityLedRequest, countdown);
  worker.identityLedRequest = false;

  loop.loopCount++;
  return true;
}

}  // namespace

void *WorkerMain(WorkerThreadArgs *rawArgs) {
  std::unique_ptr<WorkerThreadArgs> args(rawArgs);
  MiningContext &context = *args->context;
  Worker &worker = *context.workers[args->workerIndex];

  WorkerLoop loop;
  snprintf(loop.logTag, sizeof loop.logTag, "Worker%02llu", static_cast<unsigned long long>(worker.id) + 1);
  VLThreadSetName(loop.logTag);
  VL_LOG(VLLogLevelInfo, loop.logTag, "Starting...");
  SetState(worker, WorkerStateWaitingForWork);

  WaitForFirstJob(context);
  SetState(worker, WorkerStateInitializing);
  std::this_thread::sleep_for(std::chrono::milliseconds(worker.id * 200));  // boards come up one after the other

  BRYLDMADevice *device = worker.device.get();
  if (!device) {
    VL_LOG(VLLogLevelError, loop.logTag, "Failed to initialize device, worker shutting down");
    worker.enabled = false;
    return nullptr;
  }
  // A board enabled again after a wait ran out gets a fresh chance: it is
  // taken out again only if the hardware stays stuck.
  device->stuckWait = nullptr;
  if (IsWideFamily(worker.model)) EnableRegulatorChannel(device);

  worker.active = true;
  I2CController i2c(device, kRegI2CBase);
  loop.i2c = &i2c;
  loop.slots.resize(1);
  loop.slots[0].base = JobSlotBase(0);
  loop.refClockHz = RefClockHz(worker);
  loop.mmcmMultiplier = MmcmMultiplier(worker);
  loop.temperatureSeenAt = VLTimeSeconds();
  try {
    BringUpClock(loop.slots, device, worker, loop.logTag, loop.refClockHz, loop.mmcmMultiplier, i2c);
  } catch (const std::runtime_error &error) { TakeOut(loop, worker, error.what()); }

  SetState(worker, WorkerStateFinalPreparation);
  loop.cores = CoreCount(worker.model);
  for (uint32_t &word : loop.boardTarget) word = 0xffffffff;
  loop.boardTarget[7] = context.fixedTargetWord;

  SetState(worker, WorkerStateRunning);
  worker.miningSince = StratumMonotonicSeconds();
  while (RunPass(loop, context, worker)) {}
  return nullptr;
}

void StartWorkerThread(MiningContext &context, uint64_t workerIndex) {
  auto *args = new WorkerThreadArgs{workerIndex, &context};
  context.workerThreads.fetch_add(1);
  Worker &worker = *context.workers[workerIndex];
  worker.threadsLive.fetch_add(1);
  std::thread thread([args, &context, &worker] {
    WorkerMain(args);
    worker.threadsLive.fetch_sub(1);
    context.workerThreads.fetch_sub(1, std::memory_order_release);
  });
  context.workers[workerIndex]->threadHandle = thread.get_id();
  // Never joined: main watches the active flag, and abandons a worker that
  // doesn't stop in time (its records then stay until the process ends).
  thread.detach();
}
