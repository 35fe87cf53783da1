#include "stratum/job_intake.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "foundation/logger.h"
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

bool DecodeHash(const VLObject *value, std::array<uint8_t, 32> &out) {
  std::vector<uint8_t> bytes = HexToBytes(value);
  if (bytes.size() != out.size()) return false;
  std::copy(bytes.begin(), bytes.end(), out.begin());
  return true;
}

}  // namespace

void HexToBytes(const VLObject *value, std::vector<uint8_t> &out) {
  VLObject *data = VLObjectType(value) == VLTypeString ? VLDataFromHexString(value) : nullptr;
  if (!data) {
    out.clear();
    return;
  }
  out.assign(VLDataBytes(data), VLDataBytes(data) + VLDataLength(data));
  VLObjectRelease(data);
}

std::vector<uint8_t> HexToBytes(const VLObject *value) {
  std::vector<uint8_t> out;
  HexToBytes(value, out);
  return out;
}

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
  // A job id that isn't a string is taken as empty.
  const char *jobIdText = VLObjectType(jobId) == VLTypeString ? VLStringChars(jobId) : "";
  job->jobId = jobIdText ? jobIdText : "";
  if (!DecodeHash(headerHash, job->headerHash)) {
    VL_LOG(VLLogLevelError, kTag, "headerHash size mismatch");
    return;
  }
  if (!DecodeHash(prevHash, job->prevHash)) {
    VL_LOG(VLLogLevelError, kTag, "prevHash size mismatch");
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
  if (VLObjectType(value) != VLTypeNumber) return;
  double difficulty = VLNumberGetReal(value);
  VL_LOG(VLLogLevelInfo, kTag, "Setting difficulty to %0.2f", difficulty);
  context.difficulty = difficulty;
}

void StratumSetTarget(VLJsonRpcMessage *message, StratumContext &context) {
  const VLObject *params = ParamsArray(message);
  if (!params || VLArrayCount(params) == 0) return;
  std::vector<uint8_t> target = HexToBytes(VLArrayGet(params, 0));
  // The pool writes the most significant byte first.
  std::reverse(target.begin(), target.end());
  if (target.size() != 32) {
    VL_LOG(VLLogLevelError, kTag, "Invalid target provided by the pool");
    return;
  }
  double difficulty = TargetBytesToDifficulty(target.data());
  VL_LOG(VLLogLevelInfo, kTag, "Setting difficulty to %0.2f", difficulty);
  context.difficulty = difficulty;
}

void StratumSetExtranonce(VLJsonRpcMessage *message, StratumContext &context) {
  const VLObject *params = ParamsArray(message);
  if (!params || VLArrayCount(params) < 2) return;
  HexToBytes(VLArrayGet(params, 0), context.extranonce1);
  context.extranonce2Size = VLNumberGetUInt64(VLArrayGet(params, 1));
  VL_LOG(VLLogLevelInfo, kTag, "Updated extranonce");
}
