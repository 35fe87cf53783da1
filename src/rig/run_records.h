// The run's central records: MiningContext on the stack of main, one Worker
// per usable board, and the process-wide stop signal.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "foundation/relaxed.h"
#include "foundation/run_state.h"
#include "flash/flash_catalogue.h"
#include "monitor/ledger.h"
#include "rig/run_options.h"
#include "stratum/stratum_context.h"

struct BRYLDMADevice;

enum WorkerState : uint32_t {
  WorkerStateWaitingForWork = 0,
  WorkerStateInitializing = 1,
  WorkerStateWaitingForDma = 2,
  WorkerStateWorkingOnDma = 3,
  WorkerStateFinalPreparation = 4,
  WorkerStateRunning = 5,
};

enum TuningState : uint32_t {
  TuningOff = 0,
  TuningActive = 1,
  TuningDone = 2,
};

struct ShownCounters {
  Relaxed<uint64_t> found;
  Relaxed<uint64_t> invalid;
  Relaxed<uint64_t> belowBoardTarget;
  Relaxed<uint64_t> sharesAccepted;
  Relaxed<uint64_t> sharesRejected;
};

// Closes a board's device; supplied by the board layer.
void BRYLDMADeviceClose(BRYLDMADevice *device);
struct BRYLDMADeviceCloser {
  void operator()(BRYLDMADevice *device) const { BRYLDMADeviceClose(device); }
};

// One usable board. Never moved or destroyed while the run lasts; its worker
// thread owns the board, other threads only poll and set the fields below.
struct Worker : StratumShareCounters {
  std::unique_ptr<BRYLDMADevice, BRYLDMADeviceCloser> device;
  Relaxed<uint64_t> id;
  Relaxed<bool> enabled{false};
  Relaxed<bool> active{false};
  uint64_t deviceIndex = 0;
  uint32_t layoutVersion = 0;
  BoardModel model = 0;
  std::string modelName;
  std::string dna;
  std::string pciAddress;  // empty where the system names none (simulated boards)
  Relaxed<uint64_t> targetClockHz;
  Relaxed<double> coreTemperature;
  Relaxed<double> vrmTemperature;
  Relaxed<double> vccint;
  Relaxed<uint64_t> currentClockHz;
  Relaxed<double> hashRateMHs;
  Relaxed<bool> identityLedRequest{true};
  Relaxed<uint64_t> identityLedCountdown{1000};
  Relaxed<bool> couponRequest{false};
  Relaxed<uint64_t> found;
  Relaxed<uint64_t> invalid;
  Relaxed<uint64_t> belowBoardTarget;
  // sharesAccepted and sharesRejected come with StratumShareCounters.
  ShownCounters shownCounters;
  Relaxed<uint32_t> tuning{TuningOff};
  // How far the thermal rule holds the clock under the target, in MHz.
  Relaxed<uint64_t> throttleMHz;
  // Set when the board was taken out for a fault, cleared when it is enabled
  // again; and when its worker last started mining (monotonic seconds, <0:
  // not since the start).
  Relaxed<bool> takenOut{false};
  Relaxed<double> miningSince{-1};
  // Threads running on this record (a key may start a second one).
  std::atomic<uint32_t> threadsLive{0};
  Relaxed<uint32_t> state{WorkerStateWaitingForWork};
  std::atomic<uint64_t> heartbeat{0};
  std::optional<std::string> bitstreamName;
  // The last thread started for this record. Never joined: main watches the
  // active flag instead, and a worker that doesn't stop in time is abandoned.
  std::thread::id threadHandle;
};

// The pool's part (connection, state, job, difficulty, extranonce) comes with
// StratumContext.
struct MiningContext final : StratumContext {
  uint32_t algorithm = 0;
  RunOptions options;
  std::vector<std::unique_ptr<Worker>> workers;
  FlashCatalogue flashCatalogue;
  std::mutex lock;  // constructed with the record; no path takes it
  // Worker threads started and not yet ended. A thread counts itself out as
  // the last thing it does (release), so whoever sees 0 (acquire) may let the
  // records go.
  std::atomic<uint64_t> workerThreads{0};

  // Monitoring's accounts of the run: answers by the share they answer.
  RunLedger ledger;

  StratumShareCounters *ShareCounters(uint64_t worker) override {
    return worker < workers.size() ? workers[worker].get() : nullptr;
  }
  void OnShareAnswered(const PendingShare &share, const ShareVerdict &verdict) override;
  void OnJob(uint32_t pool) override;
  void OnReconnect(uint32_t pool) override;
};

// Heap pair handed to a worker thread; the thread frees it on each way out.
struct WorkerThreadArgs {
  uint64_t workerIndex;
  MiningContext *context;
};
