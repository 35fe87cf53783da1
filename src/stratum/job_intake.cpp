#include "stratum/job_intake.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "foundation/escape.h"
#include "foundation/logger.h"
#include "stratum/pool_values.h"
#include "stratum/targets.h"

namespace {

constexpr const char *kTag = "Miner";
constexpr uint64_t kNonceCounterStep = 32;

// The message's params when they are an array; null otherwise (absent too).
const VLObject *ParamsArray(VLJsonRpcMessage *message) {
  const VLObject *params = VLJsonRpcMessageParams(message);
  return VLObjectType(params) == VLTypeArray ? params : nullptr;
}

// A value's truth: a number that isn't zero, or a string whose integer value
// is at least 1.
bool TruthValue(const VLObject *value) {
  if (VLObjectType(value) == VLTypeString) return strtoll(VLStringChars(value), nullptr, 10) >= 1;
  return VLNumberGetBool(value);
}

std::string DifficultyText(double difficulty) {
  char text[40];
  snprintf(text, sizeof text, "%g", difficulty);
  return text;
}

std::string HexText(const std::vector<uint8_t> &bytes) {
  std::string text = "\"";
  char pair[3];
  for (uint8_t byte : bytes) {
    snprintf(pair, sizeof pair, "%02x", byte);
    text += pair;
  }
  return text + "\"";
}

// Refuses the job of `jobId` for a field that `why` names; the job in hand
// stays in force.
void RefuseJob(const VLObject *jobId, const std::string &why, const std::shared_ptr<StratumJob> &previous) {
  std::string kept =
      previous && !previous->jobId.empty() ? "job \"" + VLEscapeControl(previous->jobId) + "\"" : "the work in hand";
  RefusePoolValue("job", jobId, why, kept);
}

void SetDifficulty(StratumContext &context, double difficulty) {
  VL_LOG(VLLogLevelInfo, kTag, "Setting difficulty to %0.2f", difficulty);
  context.difficulty = difficulty;
}

}  // namespace

void StratumProcessJob(VLJsonRpcMessage *message, StratumContext &context, bool preAuthorization) {
  const VLObject *params = ParamsArray(message);
  if (!params) {
    VL_LOG(VLLogLevelWarning, kTag, "Received malformed work");
    return;
  }
  uint32_t count = VLArrayCount(params);
  if (count < 4) {
    VL_LOG(VLLogLevelWarning, kTag, "Received inadequate work");
    return;
  }
  const VLObject *jobId = VLArrayGet(params, 0);
  const VLObject *headerHash = VLArrayGet(params, 1);
  const VLObject *prevHash = VLArrayGet(params, 3);
  bool clean = count > 4 && TruthValue(VLArrayGet(params, 4));

  auto job = std::make_shared<StratumJob>();
  std::shared_ptr<StratumJob> previous = context.CurrentJob();
  if (!previous) {
    VL_LOG(VLLogLevelError, kTag, "Missing initial stratum data");
    return;
  }
  // Each job's nonce words start past the previous job's, for the session's life.
  job->nonceCounter = previous->nonceCounter.load() + kNonceCounterStep;
  job->difficulty = context.difficulty;
  DifficultyToTarget(job->difficulty, job->target);
  job->extranonce = context.extranonce1;
  job->pool = context.activePool;
  job->link = context.LinkNumber();
  // Every field is checked before the job may replace the one in hand.
  std::string why;
  if (!ReadJobId(jobId, job->jobId, why)) {
    RefuseJob(jobId, why, previous);
    return;
  }
  if (!ReadHash32(headerHash, job->headerHash, why)) {
    RefuseJob(jobId, "header hash " + PoolValueText(headerHash) + " is " + why, previous);
    return;
  }
  if (!ReadHash32(prevHash, job->prevHash, why)) {
    RefuseJob(jobId, "previous hash " + PoolValueText(prevHash) + " is " + why, previous);
    return;
  }
  job->clean = clean;
  if (!clean) {
    VL_LOG(VLLogLevelWarning, kTag, "New job didn't ask for a clear, ignoring");
    return;
  }
  // The job first, then the generation: a worker that sees the new
  // generation finds the new job.
  context.SetCurrentJob(std::move(job));
  if (!preAuthorization) context.jobGeneration.fetch_add(1);
  context.lastJobTime = static_cast<int64_t>(time(nullptr));
  context.OnJob(context.activePool);
}

void StratumSetDifficulty(VLJsonRpcMessage *message, StratumContext &context) {
  const VLObject *params = ParamsArray(message);
  if (!params) return;
  const VLObject *value = VLArrayGet(params, 0);
  double difficulty = 0;
  std::string why;
  if (!ReadDifficulty(value, false, difficulty, why)) {
    RefusePoolValue("difficulty", value, why, DifficultyText(context.difficulty));
    return;
  }
  SetDifficulty(context, difficulty);
}

void StratumSetTarget(VLJsonRpcMessage *message, StratumContext &context) {
  const VLObject *params = ParamsArray(message);
  if (!params || VLArrayCount(params) == 0) return;
  const VLObject *value = VLArrayGet(params, 0);
  std::array<uint8_t, 32> target{};
  std::string why;
  bool read = ReadHash32(value, target, why);
  if (read && std::all_of(target.begin(), target.end(), [](uint8_t byte) { return byte == 0; })) {
    read = false;
    why = "all zeros";
  }
  // The pool writes the most significant byte first.
  std::reverse(target.begin(), target.end());
  double difficulty = 0;
  if (read) {
    VLRef number(VLNumberCreateReal(TargetBytesToDifficulty(target.data())));
    read = ReadDifficulty(number.get(), false, difficulty, why);
  }
  if (!read) {
    RefusePoolValue("target", value, why, "difficulty " + DifficultyText(context.difficulty));
    return;
  }
  SetDifficulty(context, difficulty);
}

void StratumSetExtranonce(VLJsonRpcMessage *message, StratumContext &context) {
  const VLObject *params = ParamsArray(message);
  if (!params || VLArrayCount(params) < 2) return;
  std::string why;
  if (!ReadExtranonce(VLArrayGet(params, 0), VLArrayGet(params, 1), context.extranonce1, context.extranonce2Size,
                      why)) {
    RefusePoolValue("extranonce1", VLArrayGet(params, 0), why, HexText(context.extranonce1));
    return;
  }
  VL_LOG(VLLogLevelInfo, kTag, "Updated extranonce");
}

bool StratumTakeExtranonce(const VLObject *extranonce1, const VLObject *size, StratumContext &context) {
  std::string why;
  if (ReadExtranonce(extranonce1, size, context.extranonce1, context.extranonce2Size, why)) return true;
  RefusePoolValue("extranonce1", extranonce1, why, HexText(context.extranonce1));
  return false;
}

bool StratumTakeDifficulty(const VLObject *value, StratumContext &context) {
  double difficulty = 0;
  std::string why;
  if (ReadDifficulty(value, true, difficulty, why)) {
    context.difficulty = difficulty;
    return true;
  }
  RefusePoolValue("difficulty", value, why, DifficultyText(context.difficulty));
  return false;
}
