// The rate a board or the run really delivers, from the shares the pool
// accepted: each accepted share of difficulty d stands for d * 2^48 / 0xFFFF
// hashes, counted over a sliding window of up to 15 minutes. Not locked:
// its owner serialises the calls.
#pragma once

#include <deque>
#include <utility>

double HashesPerShare(double difficulty);

class EffectiveRate {
 public:
  // An accepted share at `now` (monotonic seconds).
  void Add(double now, double difficulty);
  // Hashes per second over the last `window` seconds, or since `start` when
  // that is later (a run younger than the window).
  double PerSecond(double now, double window, double start) const;
  // Every accepted hash since the start.
  double TotalHashes() const { return total_; }

 private:
  static constexpr double kKeptSeconds = 15 * 60;
  std::deque<std::pair<double, double>> shares_;  // (time, hashes)
  double total_ = 0;
};
