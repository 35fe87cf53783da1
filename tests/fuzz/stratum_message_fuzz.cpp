// Lines from a pool, as the client parses them, into the Stratum session in
// whichever state the input picks, with the extranonce settings and the job
// it picks. Whatever the session answers goes to a client with no connection.
// After every line the session must have moved only forward along its steps
// (Subscribing to Authorizing, Authorizing to Mining), raised the job
// generation and booked share answers at most once, and published only jobs
// whose nonce space follows the previous job's.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "foundation/object.h"
#include "net/json_rpc.h"
#include "stratum/job.h"
#include "stratum/session.h"
#include "stratum/stratum_context.h"

namespace {

constexpr uint64_t kWorkers = 4;

void Check(bool condition) {
  if (!condition) abort();
}

struct FuzzContext final : StratumContext {
  StratumShareCounters counters[kWorkers];
  StratumShareCounters *ShareCounters(uint64_t worker) override {
    return worker < kWorkers ? &counters[worker] : nullptr;
  }
  uint64_t Answers() const {
    uint64_t total = 0;
    for (const auto &c : counters) total += c.sharesAccepted.load() + c.sharesRejected.load();
    return total;
  }
};

bool MayFollow(uint32_t before, uint32_t after) {
  if (after == before) return true;
  return (before == Subscribing && after == Authorizing) || (before == Authorizing && after == Mining);
}

// The checks of one line, given what the session held before it.
void CheckStep(FuzzContext &context, uint32_t state, uint64_t generation, uint64_t answers,
               const std::shared_ptr<StratumJob> &job) {
  uint32_t now = context.stratumState;
  Check(MayFollow(state, now));
  uint64_t raised = context.jobGeneration.load() - generation;
  Check(raised <= 1);
  if (raised) Check(state == Mining || now == Mining);
  uint64_t booked = context.Answers() - answers;
  Check(booked <= 1);
  if (booked) Check(state == Mining);
  std::shared_ptr<StratumJob> current = context.CurrentJob();
  if (current == job) return;
  Check(current != nullptr);
  if (state == Subscribing) {
    // The subscribe answer: initial data taken, no work yet.
    Check(current->jobId.empty() && current->nonceCounter.load() == 0);
    return;
  }
  Check(state == Authorizing || state == Mining);
  Check(job && current->nonceCounter.load() == job->nonceCounter.load() + 32);
  Check(current->clean && current->extranonce == context.extranonce1);
}

}  // namespace

// The session's coloured console output isn't wanted here.
extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  if (!freopen("/dev/null", "w", stdout)) abort();
  return 0;
}

// Byte 0: the session state; byte 1: extranonce1 length and extranonce2 size;
// byte 2: the worker of the last share (bits 0 to 2) and the job held at the
// start (bits 3 and 4: none, the empty job of a subscribe answer, or work).
// Then lines, one read each, split after line feeds.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  if (size < 3) return 0;
  FuzzContext context;
  context.account = "wallet.rig";
  context.password = "x";
  context.stratumState = bytes[0] % 8;
  context.extranonce1.assign(bytes[1] % 17, 0xa5);
  context.extranonce2Size = bytes[1] >> 4;
  context.lastSubmitWorker = (bytes[2] & 7) % 6;
  uint32_t held = (bytes[2] >> 3) & 3;
  if (held) {
    auto job = std::make_shared<StratumJob>();
    if (held >= 2) {
      job->jobId = "1a";
      job->extranonce = context.extranonce1;
      job->clean = true;
      job->nonceCounter = 64;
      job->headerHash.fill(0x4e);
      job->prevHash.fill(0x0f);
    }
    context.SetCurrentJob(std::move(job));
  }
  bytes += 3;
  size -= 3;

  VLJsonRpcClient *client = VLJsonRpcClientCreate();
  VLJsonRpcClientSetUserData(client, &context);
  VLJsonRpcClientSetMessageCallback(client, OnStratumMessage);
  while (size > 0) {
    const void *end = memchr(bytes, '\n', size);
    size_t length = end ? static_cast<size_t>(static_cast<const uint8_t *>(end) - bytes) + 1 : size;
    uint32_t state = context.stratumState;
    uint64_t generation = context.jobGeneration.load();
    uint64_t answers = context.Answers();
    std::shared_ptr<StratumJob> job = context.CurrentJob();
    VLJsonRpcClientReceive(client, bytes, static_cast<uint32_t>(length));
    CheckStep(context, state, generation, answers, job);
    bytes += length;
    size -= length;
  }
  VLJsonRpcClientDestroy(client);
  return 0;
}
