// The pool side of the run's central record: the connection, its state, the
// newest job and what the pool told us. The miner's record extends it with
// the boards; the Stratum code sees only this part.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "foundation/relaxed.h"
#include "stratum/job.h"

struct VLJsonRpcClient;

// The session's states. The numbering is kept as it stands: comparisons and
// the log are written against it.
enum StratumState : uint32_t {
  Idle = 0,
  Disconnected = 1,
  Connecting = 2,
  Authorizing = 3,
  Authorized = 4,
  Subscribing = 5,
  Subscribed = 6,
  Mining = 7,
};

// The pool's verdicts on one worker's shares.
struct StratumShareCounters {
  Relaxed<uint64_t> sharesAccepted;
  Relaxed<uint64_t> sharesRejected;
};

struct StratumContext {
  // Replaced by the console loop after a loss; read by workers to send.
  Relaxed<VLJsonRpcClient *> rpcClient{nullptr};
  Relaxed<uint32_t> stratumState;
  const char *poolHost = nullptr;
  uint16_t poolPort = 0;
  const char *account = nullptr;
  const char *password = nullptr;
  std::atomic<uint64_t> jobGeneration{0};
  std::vector<uint8_t> extranonce1;
  uint64_t extranonce2Size = 0;
  double difficulty = 1.0;
  Relaxed<uint64_t> lastSubmitWorker;
  uint32_t fixedTargetWord = 0;
  // Link health, for the operator and for monitoring: connections made after
  // the first, shares found while no connection could take them, and when
  // the last job arrived (Unix seconds, 0 before the first).
  Relaxed<uint64_t> reconnects;
  Relaxed<uint64_t> sharesDroppedWhileDisconnected;
  Relaxed<int64_t> lastJobTime;

  // The newest job, replaced by the receive thread and copied by workers.
  std::shared_ptr<StratumJob> CurrentJob() const {
    std::lock_guard<std::mutex> guard(currentJobLock_);
    return currentJob_;
  }
  void SetCurrentJob(std::shared_ptr<StratumJob> job) {
    std::lock_guard<std::mutex> guard(currentJobLock_);
    currentJob_ = std::move(job);
  }

  // The counters of the worker with index `worker`, or null when there is none.
  virtual StratumShareCounters *ShareCounters(uint64_t worker) = 0;

 protected:
  StratumContext() = default;
  ~StratumContext() = default;

 private:
  mutable std::mutex currentJobLock_;
  std::shared_ptr<StratumJob> currentJob_;
};
