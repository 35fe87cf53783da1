// How long the pool takes to answer a share, over its last answers, and the
// time limit that gives a share under way: a pool that answers in 50 ms is
// found silent long before one that always takes seconds, and neither is
// given up for its usual pace.
#pragma once

#include <array>
#include <cstddef>

class AnswerTimes {
 public:
  static constexpr size_t kKept = 100;
  // Fewer answers than this say too little; the limit stays at its ceiling.
  static constexpr size_t kEnough = 10;
  static constexpr double kTimesTheUsual = 20;

  void Add(double seconds);
  void Clear() { count_ = next_ = 0; }
  size_t Count() const { return count_; }
  // The 99th percentile (nearest rank) of the kept answer times; 0 without any.
  double Percentile99() const;
  // 20 times the 99th percentile, within [floor, ceiling] (a ceiling below
  // the floor wins); the ceiling until kEnough answers are in.
  double ShareLimit(double floor, double ceiling) const;
  bool Adapted() const { return count_ >= kEnough; }

 private:
  std::array<double, kKept> seconds_{};
  size_t count_ = 0;
  size_t next_ = 0;
};
