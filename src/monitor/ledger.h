// The run's accounts as monitoring shows them: each pool answer credited to
// the board and pool of the share it answers, effective rates from accepted
// shares, and jobs and reconnects per pool. Reported from the session's
// threads, read by the monitoring servers; one lock keeps them apart.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "monitor/effective_rate.h"

struct ShareTally {
  uint64_t accepted = 0;
  uint64_t rejected = 0;
  int64_t lastShareTime = 0;  // Unix seconds of the last accepted share
};

struct PoolTally : ShareTally {
  // The rejections by the reason's label, in the order first seen.
  std::vector<std::pair<std::string, uint64_t>> rejectedByReason;
  uint64_t jobs = 0;
  uint64_t reconnects = 0;
  int64_t lastJobTime = 0;
};

// Effective hashes per second over the windows monitoring shows.
struct RateWindows {
  double average = 0;  // since the start
  double s5 = 0;
  double m1 = 0;
  double m5 = 0;
  double m15 = 0;
};

class RunLedger {
 public:
  // Sizes the accounts; called once before anything is reported. `start` is
  // on the monotonic clock the other calls use.
  void Open(size_t boards, size_t pools, double start);

  // An answer out of range of the accounts still counts in the run's total.
  // A rejection counts against its pool under `reason`, a label.
  void ShareAnswered(uint64_t board, uint32_t pool, double difficulty, bool accepted, double now, int64_t unixNow,
                     const std::string &reason = "other");
  void Job(uint32_t pool, int64_t unixNow);
  void Reconnect(uint32_t pool);

  ShareTally Board(uint64_t board) const;
  PoolTally Pool(uint32_t pool) const;
  ShareTally Total() const;
  RateWindows BoardRates(uint64_t board, double now) const;
  RateWindows TotalRates(double now) const;
  double Start() const { return start_; }

 private:
  RateWindows Windows(const EffectiveRate &rate, double now) const;

  mutable std::mutex lock_;
  double start_ = 0;
  std::vector<ShareTally> boards_;
  std::vector<EffectiveRate> boardRates_;
  std::vector<PoolTally> pools_;
  ShareTally total_;
  EffectiveRate totalRate_;
};
