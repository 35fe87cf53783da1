// Work dispatch and nonce intake: how a job becomes register writes in a
// board's hash core, and how the values a board reports are worked back to a
// core and a counter, verified and passed on as shares.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "board/i2c.h"
#include "board/registers.h"
#include "rig/run_records.h"
#include "stratum/job.h"

// The board's fixed distance between the counter it reports and the one it
// hashed.
constexpr uint32_t kPipelineDistance = 43;

// What a worker thread keeps for itself between passes.
struct WorkerLoop {
  char logTag[32] = {};
  uint64_t refClockHz = 0;
  uint8_t mmcmMultiplier = 0;
  std::vector<JobSlot> slots;
  uint32_t boardTarget[8] = {};
  std::shared_ptr<StratumJob> job;
  int64_t lastDispatch = 0;      // monotonic ticks
  uint64_t refreshPeriodMs = 0;  // 0: to be computed
  bool needWork = true;
  uint64_t seenGeneration = 0;
  uint64_t loopCount = 0;
  uint64_t crashCount = 0;
  uint64_t throttleMHz = 0;
  uint64_t cores = 1;
  I2CController *i2c = nullptr;    // the board's I2C bus, alive as long as the thread
  uint64_t passStep = 0;           // the clock step of this pass
  uint64_t temperatureSeenAt = 0;  // monotonic seconds of the last valid core temperature
};

// The time one core takes through 2^32 nonces at `hashRateMHs`, trimmed so
// that a new load comes before the nonce space runs out.
uint64_t RefreshPeriodMs(double hashRateMHs, uint64_t cores);

// The board target that makes a board report about one nonce a `period`
// seconds, whatever the pool's difficulty.
void RateDerivedBoardTarget(uint64_t currentClockHz, uint64_t cores, bool tuning, uint32_t target[8]);

// The slot's nonce block: the extranonce, the job nonce word behind it, each
// 4-byte group byte-reversed, read as four host-order words.
void BuildNonceBlock(const std::vector<uint8_t> &extranonce, uint32_t jobNonceWord, uint8_t block_out[16]);
void NonceBlockWords(const uint8_t block[16], uint32_t words_out[4]);

// The candidate order of a reported nonce: core number innermost, then the
// skew 0, 0, +1, -1, +2, -2, ...
struct CandidateOrder {
  uint32_t coreNumber;
  int32_t skew;
};
CandidateOrder CandidateAt(uint64_t index);

// Computes the refresh period and the rate-derived target when due.
void UpdateRefreshAndTarget(WorkerLoop &loop, const MiningContext &context, const Worker &worker);
// Loads the context's current job into every slot.
void LoadJob(WorkerLoop &loop, MiningContext &context, Worker &worker);
// Reads, acknowledges and verifies what each slot reported.
void CollectNonces(WorkerLoop &loop, MiningContext &context, Worker &worker);
