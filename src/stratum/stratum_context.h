// The pool side of the run's central record: the connection, its state, the
// newest job and what the pool told us. The miner's record extends it with
// the boards; the Stratum code sees only this part.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "foundation/relaxed.h"
#include "stratum/answer_times.h"
#include "stratum/job.h"
#include "stratum/pool_endpoint.h"
#include "stratum/share_verdict.h"

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

// The ids of the session's requests. Every share has its own, counted up from
// kFirstShareId, so that each answer finds the share it answers.
enum StratumRequestId : uint64_t {
  kSubscribeId = 1,
  kExtranonceSubscribeId = 2,
  kAuthorizeId = 3,
  kFirstShareId = 4,
};

// Why the receive thread wants the console loop to end the connection.
enum StratumCloseReason : uint32_t {
  kCloseNone = 0,
  kCloseLoginRefused,
  kCloseSubscriptionUnusable,  // an extranonce the boards cannot mine with
};

// Seconds on the monotonic clock.
double StratumMonotonicSeconds();

// A share sent and not yet answered. The pool answers in order, so the
// oldest one is the share an answer belongs to.
struct PendingShare {
  uint64_t id = 0;    // the mining.submit request's
  double sentAt = 0;  // on the link's clock
  uint64_t worker = 0;
  uint32_t pool = 0;
  double difficulty = 0;
  uint64_t link = 0;  // the connection it was sent on
};

// How the link keeps itself alive: its time limits and the state its upkeep
// carries between polls. The limits are seconds.
struct StratumLink {
  double connectLimit = 10;
  double answerLimit = 10;   // each handshake answer
  double silenceLimit = 90;  // no line from the pool while mining
  double shareLimit = 30;    // a share left unanswered: the ceiling of the adaptive limit
  double shareLimitFloor = 10;
  double firstRetryDelay = 1;
  double longestRetryDelay = 60;
  double settledAfter = 60;  // mining this long resets the retry delay
  // The clock every limit is measured on; tests replace it.
  std::function<double()> clock = StratumMonotonicSeconds;

  // When the state last changed and when the pool last sent a line.
  Relaxed<double> stateSince;
  Relaxed<double> lastLineAt;
  // Shares sent and not yet answered, oldest first. Entries of an earlier
  // connection are stale and skipped. The lock also guards the share ids and
  // the pool's answer times, which are kept until the pool changes.
  std::mutex pendingLock;
  std::deque<PendingShare> pendingShares;
  uint64_t nextShareId = kFirstShareId;
  AnswerTimes answerTimes;
  // Shares found since the connection was lost, told once at reconnect.
  std::atomic<uint64_t> droppedSinceLoss{0};
  Relaxed<bool> connectedBefore;
  // Set by the receive thread when the pool refused the login or sent a
  // subscription the boards can't mine with; the console loop then closes the
  // connection.
  Relaxed<uint32_t> closeAsked{kCloseNone};
  // Set by the receive thread when this connection reached Mining, and when
  // the pool accepted a share on it.
  Relaxed<bool> mined;
  Relaxed<bool> shareAccepted;
  // The pool's client.reconnect to its own host: when to follow it (-1: not
  // asked) and the port the next connection goes to (0: the pool's own).
  Relaxed<double> reconnectAt{-1};
  Relaxed<uint32_t> redirectPort{0};
  // The receive thread's: a pool's messages and refused redirections are told
  // at most every 10 s, the next line saying how many went untold.
  struct Notice {
    double last = -1;
    uint64_t untold = 0;
  } messageNotice, redirectNotice;
  // Why the console loop dropped the connection, when that should make the
  // miner move to the next pool at once (a silent pool, a refused login).
  std::string giveUpReason;
  uint32_t failuresInARow = 0;      // connections that never reached Mining
  uint32_t switchesSinceMined = 0;  // pool switches since a connection last mined

  // The console loop's own: the retry schedule.
  double retryDelay = 0;  // the next delay; 0 before the first loss
  double retryAt = -1;    // -1: no retry scheduled
  std::minstd_rand jitter{std::random_device{}()};
};

// The pool's verdicts on one worker's shares.
struct StratumShareCounters {
  Relaxed<uint64_t> sharesAccepted;
  Relaxed<uint64_t> sharesRejected;
};

// Trying the primary pool in the background while a backup mines.
struct PrimaryProbe {
  std::shared_ptr<VLJsonRpcClient> client;
  double nextAttempt = -1;  // -1: due at once
  double startedAt = 0;
  Relaxed<double> upSince{-1};  // when the primary answered the whole handshake
  Relaxed<bool> lost;
};

struct StratumContext {
  Relaxed<uint32_t> stratumState;
  // The pools in order of preference: the primary first, then the backups.
  // Fixed once the run has started; the fields below describe the active one.
  std::vector<PoolEndpoint> pools;
  Relaxed<uint32_t> activePool;
  double failbackDelay = 120;        // seconds the primary must stay up; 0: no failback
  double primaryRetryInterval = 60;  // seconds between tries of the primary
  PrimaryProbe probe;
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
  std::atomic<uint64_t> sharesDroppedWhileDisconnected{0};
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

  // The connection's client: replaced by the console loop after a loss, and
  // taken by workers to send. Whoever holds a copy keeps the client alive; a
  // replaced client is closed first, so that no callback of it runs any more
  // and its sends go nowhere.
  std::shared_ptr<VLJsonRpcClient> Client() const {
    std::lock_guard<std::mutex> guard(clientLock_);
    return client_;
  }
  // Each client put in numbers a new connection. Read on a client's own
  // callbacks, it is that client's number: a client is closed before the next
  // one is put in.
  uint64_t LinkNumber() const {
    std::lock_guard<std::mutex> guard(clientLock_);
    return linkNumber_;
  }
  // The client of connection `link` while it is the current one, else null.
  std::shared_ptr<VLJsonRpcClient> ClientOfLink(uint64_t link) const {
    std::lock_guard<std::mutex> guard(clientLock_);
    return link == linkNumber_ ? client_ : nullptr;
  }
  std::shared_ptr<VLJsonRpcClient> ExchangeClient(std::shared_ptr<VLJsonRpcClient> client) {
    std::lock_guard<std::mutex> guard(clientLock_);
    if (client) linkNumber_++;
    client_.swap(client);
    return client;
  }

  StratumLink link;

  // The counters of the worker with index `worker`, or null when there is none.
  virtual StratumShareCounters *ShareCounters(uint64_t worker) = 0;

  // Told as the session goes, for whoever keeps account of the run: the
  // pool's answer to a share (credited to the share it belongs to), a new
  // job, a new connection after the first. Called on the receive thread or
  // the console loop; the defaults do nothing.
  virtual void OnShareAnswered(const PendingShare &share, const ShareVerdict &verdict) {
    (void)share;
    (void)verdict;
  }
  virtual void OnJob(uint32_t pool) { (void)pool; }
  virtual void OnReconnect(uint32_t pool) { (void)pool; }

 protected:
  StratumContext() = default;
  ~StratumContext() = default;

 private:
  mutable std::mutex currentJobLock_;
  std::shared_ptr<StratumJob> currentJob_;
  mutable std::mutex clientLock_;
  std::shared_ptr<VLJsonRpcClient> client_;
  uint64_t linkNumber_ = 0;
};
