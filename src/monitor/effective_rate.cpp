#include "monitor/effective_rate.h"

#include <algorithm>

double HashesPerShare(double difficulty) { return difficulty * 281474976710656.0 / 65535.0; }

void EffectiveRate::Add(double now, double difficulty) {
  shares_.emplace_back(now, HashesPerShare(difficulty));
  total_ += shares_.back().second;
  while (!shares_.empty() && shares_.front().first < now - kKeptSeconds) shares_.pop_front();
}

double EffectiveRate::PerSecond(double now, double window, double start) const {
  double from = std::max(now - window, start);
  double span = now - from;
  if (span <= 0) return 0;
  double hashes = 0;
  for (auto it = shares_.rbegin(); it != shares_.rend() && it->first >= from; ++it) hashes += it->second;
  return hashes / span;
}
