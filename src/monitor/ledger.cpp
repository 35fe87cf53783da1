#include "monitor/ledger.h"

#include <algorithm>

namespace {

void Credit(ShareTally &tally, bool accepted, int64_t unixNow) {
  if (accepted) {
    tally.accepted++;
    tally.lastShareTime = unixNow;
  } else {
    tally.rejected++;
  }
}

}  // namespace

void RunLedger::Open(size_t boards, size_t pools, double start) {
  std::lock_guard<std::mutex> guard(lock_);
  start_ = start;
  boards_.assign(boards, {});
  boardRates_.assign(boards, {});
  pools_.assign(pools, {});
}

void RunLedger::ShareAnswered(uint64_t board, uint32_t pool, double difficulty, bool accepted, double now,
                              int64_t unixNow, const std::string &reason) {
  std::lock_guard<std::mutex> guard(lock_);
  Credit(total_, accepted, unixNow);
  if (accepted) totalRate_.Add(now, difficulty);
  if (board < boards_.size()) {
    Credit(boards_[board], accepted, unixNow);
    if (accepted) boardRates_[board].Add(now, difficulty);
  }
  if (pool >= pools_.size()) return;
  Credit(pools_[pool], accepted, unixNow);
  if (accepted) return;
  auto &reasons = pools_[pool].rejectedByReason;
  auto entry = std::find_if(reasons.begin(), reasons.end(), [&](const auto &pair) { return pair.first == reason; });
  if (entry == reasons.end()) {
    reasons.emplace_back(reason, 1);
  } else {
    entry->second++;
  }
}

void RunLedger::Job(uint32_t pool, int64_t unixNow) {
  std::lock_guard<std::mutex> guard(lock_);
  if (pool >= pools_.size()) return;
  pools_[pool].jobs++;
  pools_[pool].lastJobTime = unixNow;
}

void RunLedger::Reconnect(uint32_t pool) {
  std::lock_guard<std::mutex> guard(lock_);
  if (pool < pools_.size()) pools_[pool].reconnects++;
}

ShareTally RunLedger::Board(uint64_t board) const {
  std::lock_guard<std::mutex> guard(lock_);
  return board < boards_.size() ? boards_[board] : ShareTally{};
}

PoolTally RunLedger::Pool(uint32_t pool) const {
  std::lock_guard<std::mutex> guard(lock_);
  return pool < pools_.size() ? pools_[pool] : PoolTally{};
}

ShareTally RunLedger::Total() const {
  std::lock_guard<std::mutex> guard(lock_);
  return total_;
}

RateWindows RunLedger::Windows(const EffectiveRate &rate, double now) const {
  RateWindows windows;
  windows.average = now > start_ ? rate.TotalHashes() / (now - start_) : 0;
  windows.s5 = rate.PerSecond(now, 5, start_);
  windows.m1 = rate.PerSecond(now, 60, start_);
  windows.m5 = rate.PerSecond(now, 300, start_);
  windows.m15 = rate.PerSecond(now, 900, start_);
  return windows;
}

RateWindows RunLedger::BoardRates(uint64_t board, double now) const {
  std::lock_guard<std::mutex> guard(lock_);
  return board < boardRates_.size() ? Windows(boardRates_[board], now) : RateWindows{};
}

RateWindows RunLedger::TotalRates(double now) const {
  std::lock_guard<std::mutex> guard(lock_);
  return Windows(totalRate_, now);
}
