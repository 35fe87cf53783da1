// A pool job as workers hash it: everything they need, taken out of JSON.
// Never changed once published, except for the nonce counter.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

struct StratumJob {
  std::vector<uint8_t> extranonce;  // extranonce1 when the job was made
  uint64_t reserved = 0;
  double difficulty = 0.0;
  uint32_t target[8] = {};  // share target, word 0 least significant
  std::string jobId;        // empty: no work yet
  std::array<uint8_t, 32> prevHash{};
  std::array<uint8_t, 32> headerHash{};
  bool clean = false;
  // The pool (its index in the run's list) that sent the job: its shares go
  // to that pool or nowhere.
  uint32_t pool = 0;
  // The connection that brought it (see StratumContext::LinkNumber): its
  // shares go out on that connection or not at all.
  uint64_t link = 0;
  // Source of every job load's nonce word, so that no two loads share a
  // nonce space.
  std::atomic<uint64_t> nonceCounter{0};
};
