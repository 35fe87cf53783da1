#include "rig/dispatch.h"

#include <chrono>
#include <cstring>
#include <thread>

#include "foundation/logger.h"
#include "foundation/vltime.h"
#include "hash/eaglesong.h"
#include "hash/eaglesong_lanes.h"
#include "foundation/console_io.h"
#include "rig/governor.h"
#include "stratum/share.h"
#include "stratum/targets.h"

namespace {

constexpr const char *kTag = "Miner";
constexpr uint32_t kCandidatesPerCore = 64;
constexpr uint64_t kMaxCores = 64;  // more than any model has
constexpr uint32_t kAllOnes = 0xffffffff;
constexpr uint64_t kCrashReports = 4;

BRYLDMAFile *Registers(BRYLDMADevice *device) { return device->userFile; }

void WriteSlot(BRYLDMADevice *device, const JobSlot &slot, uint32_t offset, uint32_t value) {
  BRYLDMADeviceWrite(device, Registers(device), slot.base + offset, value);
}

// Searches the candidates of one reported value in order and returns the
// verdict of the first that is a solution at all; false when none is.
bool VerifyReportedNonce(WorkerLoop &loop, MiningContext &context, Worker &worker, const JobSlot &slot,
                         uint32_t reported) {
  uint32_t blockWords[4];
  NonceBlockWords(slot.nonceBlock, blockWords);
  uint32_t header[8];
  memcpy(header, loop.job->headerHash.data(), sizeof header);

  const uint64_t count = loop.cores * kCandidatesPerCore;
  EaglesongNonceTail tails[kMaxCores * kCandidatesPerCore];
  for (uint64_t t = 0; t < count; t++) {
    CandidateOrder order = CandidateAt(t);
    uint32_t candidate = reported + static_cast<uint32_t>(order.skew) - kPipelineDistance;
    tails[t] = {blockWords[2] ^ order.coreNumber, blockWords[3] ^ candidate};
  }

  // Every candidate before the first one within difficulty one would be
  // judged "no solution", so the multi-lane search finds the verdict's
  // candidate exactly as trying them one by one would.
  size_t hit = EaglesongSearch48(header, blockWords[0], blockWords[1], tails, count, kDifficultyOneBound, nullptr);
  if (hit == count) return false;

  CandidateOrder order = CandidateAt(hit);
  uint32_t candidate = reported + static_cast<uint32_t>(order.skew) - kPipelineDistance;
  CandidateResult result;
  SubmitCandidate(result, context, worker.id, loop.job, loop.job->headerHash.data(), blockWords, candidate,
                  slot.jobNonceWord, loop.boardTarget, order.coreNumber);
  if (result.code == CandidateShare) {
    double hashDifficulty = kDifficultyOneTarget / result.value;
    VL_LOG(VLLogLevelInfo, kTag, "Worker %llu - YAY for nonce %08x (c: %u, off: %d, diff %0.2f / %0.2f)",
           static_cast<unsigned long long>(worker.id + 1), reported + static_cast<uint32_t>(order.skew),
           order.coreNumber, order.skew, hashDifficulty, loop.job->difficulty);
  } else if (result.code == CandidateAboveBoardTarget) {
    ++worker.belowBoardTarget;
  }
  return result.code != CandidateNoSolution;
}

void BookInvalidNonce(WorkerLoop &loop, Worker &worker, uint32_t reported) {
  VL_LOG(VLLogLevelError, kTag, "Worker %llu - share was invalid with nonce %08x",
         static_cast<unsigned long long>(worker.id + 1), reported);
  ++worker.invalid;
  // The step of the pass: a crash below clears `enabled`, and the tuning fall
  // must not turn into a normal step because of it.
  uint64_t step = loop.passStep;
  if (reported == kAllOnes && ++loop.crashCount == kCrashReports) {
    // A board that fell off the bus reads as all ones.
    LOG_COLOR(ConsoleColorRed, VLLogLevelError, kTag, "Worker %llu has crashed, disabling...",
              static_cast<unsigned long long>(worker.id + 1));
    worker.enabled = false;
  }
  if (worker.tuning != TuningOff) {
    worker.tuning = TuningDone;
    if (step < worker.targetClockHz) worker.targetClockHz -= step;
  }
}

}  // namespace

uint64_t RefreshPeriodMs(double hashRateMHs, uint64_t cores) {
  double perCore = hashRateMHs * 1000000.0 / static_cast<double>(cores);
  uint64_t period = MachineDoubleToU64(4294967295000.0 / perCore);
  if (period > 1000) {
    period -= 500;
  } else if (period > 70) {
    period -= 50;
  } else if (period < 20) {
    period = 20;
  }
  return period;
}

void RateDerivedBoardTarget(uint64_t currentClockHz, uint64_t cores, bool tuning, uint32_t target[8]) {
  double period = tuning ? 15.0 : 1.0;
  double difficulty = static_cast<double>(currentClockHz) * static_cast<double>(cores) * (1.0 / period) / 4294967296.0;
  DifficultyToTarget(difficulty, target);
  for (int i = 0; i < 6; i++) target[i] = 0xffffffff;
}

void BuildNonceBlock(const std::vector<uint8_t> &extranonce, uint32_t jobNonceWord, uint8_t block_out[16]) {
  memset(block_out, 0, 16);
  if (extranonce.size() < 12) {
    // An empty extranonce may have no storage at all.
    if (!extranonce.empty()) memcpy(block_out, extranonce.data(), extranonce.size());
    for (int i = 0; i < 4; i++) block_out[extranonce.size() + i] = static_cast<uint8_t>(jobNonceWord >> (8 * i));
    for (int group = 0; group < 4; group++) {
      uint8_t *g = block_out + 4 * group;
      std::swap(g[0], g[3]);
      std::swap(g[1], g[2]);
    }
  }
}

void NonceBlockWords(const uint8_t block[16], uint32_t words_out[4]) { memcpy(words_out, block, 16); }

CandidateOrder CandidateAt(uint64_t index) {
  uint64_t k = index / kCandidatesPerCore;
  int32_t magnitude = static_cast<int32_t>(k / 2);
  return {static_cast<uint32_t>(index % kCandidatesPerCore), k % 2 == 0 ? magnitude : -magnitude};
}

void UpdateRefreshAndTarget(WorkerLoop &loop, const MiningContext &context, const Worker &worker) {
  if (loop.refreshPeriodMs != 0) return;
  loop.refreshPeriodMs = RefreshPeriodMs(worker.hashRateMHs, loop.cores);
  if (context.fixedTargetWord == 0) {
    RateDerivedBoardTarget(worker.currentClockHz, loop.cores, worker.tuning == TuningActive, loop.boardTarget);
  }
}

void LoadJob(WorkerLoop &loop, MiningContext &context, Worker &worker) {
  BRYLDMADevice *device = worker.device.get();
  loop.job = context.CurrentJob();
  const StratumJob &job = *loop.job;

  // The board reports everything that might be a share.
  auto topLimb = [](const uint32_t words[8]) { return static_cast<uint64_t>(words[7]) << 32 | words[6]; };
  if (topLimb(loop.boardTarget) < topLimb(job.target)) {
    loop.boardTarget[6] = job.target[6];
    loop.boardTarget[7] = job.target[7];
  }

  uint32_t midstate[16];
  uint32_t header[8];
  memcpy(header, job.headerHash.data(), sizeof header);
  EaglesongMidstate(header, midstate);

  for (JobSlot &slot : loop.slots) {
    slot.jobNonceWord = static_cast<uint32_t>(loop.job->nonceCounter.fetch_add(1));
    loop.lastDispatch = VLTimeNow();
    BuildNonceBlock(job.extranonce, slot.jobNonceWord, slot.nonceBlock);

    WriteSlot(device, slot, kSlotControl, kSlotHold);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    WriteSlot(device, slot, kSlotClear, 0);
    WriteSlot(device, slot, kSlotTargetHigh, loop.boardTarget[7]);
    WriteSlot(device, slot, kSlotTargetLow, loop.boardTarget[6]);
    uint32_t blockWords[4];
    NonceBlockWords(slot.nonceBlock, blockWords);
    for (uint32_t i = 0; i < 4; i++) WriteSlot(device, slot, kSlotNonceBlock + 4 * i, blockWords[i]);
    for (uint32_t i = 0; i < 16; i++) WriteSlot(device, slot, kSlotMidstate + 4 * i, midstate[i]);
    WriteSlot(device, slot, kSlotControl, 0);  // the cores run
  }
  loop.needWork = false;
}

void CollectNonces(WorkerLoop &loop, MiningContext &context, Worker &worker) {
  BRYLDMADevice *device = worker.device.get();
  // A board that fell off the bus reports nothing real while it is ramped
  // down; reading on would log an all-ones nonce every pass.
  if (loop.crashCount >= kCrashReports) return;
  for (const JobSlot &slot : loop.slots) {
    uint32_t control = BRYLDMADeviceRead(device, Registers(device), slot.base + kSlotControl);
    uint32_t flags = (control & kSlotFlagsMask) >> 12;
    if (flags == 0) continue;

    uint32_t reported[4] = {};
    for (uint32_t i = 0; i < 4; i++) {
      if (flags & (1u << i))
        reported[i] = BRYLDMADeviceRead(device, Registers(device), slot.base + SlotResultOffset(i));
    }
    BRYLDMADeviceWrite(device, Registers(device), slot.base + kSlotControl, control & ~kSlotFlagsMask);

    for (uint32_t i = 0; i < 4; i++) {
      if (!(flags & (1u << i))) continue;
      ++worker.found;
      if (loop.job && VerifyReportedNonce(loop, context, worker, slot, reported[i])) {
        loop.crashCount = 0;
      } else {
        BookInvalidNonce(loop, worker, reported[i]);
      }
    }
  }
  if (worker.couponRequest) {
    // The coupon token itself is not part of this program.
    VL_LOG(VLLogLevelInfo, loop.logTag, "CUT COUPON HERE");
    worker.couponRequest = false;
  }
}
