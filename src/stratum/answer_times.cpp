#include "stratum/answer_times.h"

#include <algorithm>

void AnswerTimes::Add(double seconds) {
  seconds_[next_] = std::max(0.0, seconds);
  next_ = (next_ + 1) % kKept;
  count_ = std::min(count_ + 1, kKept);
}

double AnswerTimes::Percentile99() const {
  if (count_ == 0) return 0;
  std::array<double, kKept> sorted = seconds_;
  // Rank ceil(0.99 n), counted from 1.
  size_t rank = (99 * count_ + 99) / 100;
  std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(rank - 1),
                   sorted.begin() + static_cast<std::ptrdiff_t>(count_));
  return sorted[rank - 1];
}

double AnswerTimes::ShareLimit(double floor, double ceiling) const {
  if (!Adapted()) return ceiling;
  // The operator's share timeout is never exceeded, even below the floor.
  return std::clamp(kTimesTheUsual * Percentile99(), std::min(floor, ceiling), ceiling);
}
