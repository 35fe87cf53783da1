// Lines from a pool, as the client parses them, into the Stratum session in
// whichever state the input picks, with the extranonce settings it picks.
// Whatever the session answers goes to a client with no connection.
#include <bit>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "foundation/object.h"
#include "net/json_rpc.h"
#include "stratum/session.h"
#include "stratum/stratum_context.h"

namespace {

struct FuzzContext final : StratumContext {
  StratumShareCounters counters[4];
  StratumShareCounters *ShareCounters(uint64_t worker) override { return worker < 4 ? &counters[worker] : nullptr; }
};

// What the session made of the lines; the difficulty by its bits, so that a
// NaN equals itself.
struct Verdict {
  uint32_t state;
  uint64_t difficulty;
  std::vector<uint8_t> extranonce1;
  uint64_t extranonce2Size;
  std::string jobId;
  uint64_t generation;
  uint32_t closeAsked;
  uint64_t accepted[4], rejected[4];
  bool operator==(const Verdict &) const = default;
};

// `seed` 0: one line per read, as a pool that writes whole lines is read;
// otherwise reads cut where the seed says.
Verdict Run(const uint8_t *settings, const uint8_t *bytes, size_t size, uint32_t seed) {
  FuzzContext context;
  context.account = "wallet.rig";
  context.password = "x";
  context.stratumState = settings[0] % 8;
  context.extranonce1.assign(settings[1] % 17, 0xa5);
  context.extranonce2Size = settings[1] >> 4;
  context.lastSubmitWorker = settings[2] % 6;

  VLJsonRpcClient *client = VLJsonRpcClientCreate();
  VLJsonRpcClientSetUserData(client, &context);
  VLJsonRpcClientSetMessageCallback(client, OnStratumMessage);
  while (size > 0) {
    size_t length = size;
    if (seed != 0) {
      length = CutLength(seed, size, 256);
    } else if (const void *end = memchr(bytes, '\n', size)) {
      length = static_cast<const uint8_t *>(end) - bytes + 1;
    }
    VLJsonRpcClientReceive(client, bytes, static_cast<uint32_t>(length));
    bytes += length;
    size -= length;
  }
  VLJsonRpcClientDestroy(client);

  Verdict verdict{context.stratumState,
                  std::bit_cast<uint64_t>(context.difficulty),
                  context.extranonce1,
                  context.extranonce2Size,
                  "",
                  context.jobGeneration.load(),
                  context.link.closeAsked};
  if (auto job = context.CurrentJob()) verdict.jobId = job->jobId;
  for (int i = 0; i < 4; i++) {
    verdict.accepted[i] = context.counters[i].sharesAccepted;
    verdict.rejected[i] = context.counters[i].sharesRejected;
  }
  return verdict;
}

}  // namespace

// Byte 0: the session state; byte 1: extranonce1 length and extranonce2 size;
// byte 2: the worker of the last share; byte 3: where reads are cut. Then
// lines, split at line feeds: the session comes to the same verdicts however
// the bytes are cut into reads.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  if (size < 4) return 0;
  Verdict whole = Run(bytes, bytes + 4, size - 4, 0);
  Verdict cut = Run(bytes, bytes + 4, size - 4, bytes[3] | 0x100u);
  Check(whole == cut);
  return 0;
}
