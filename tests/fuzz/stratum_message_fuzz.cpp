// Lines from a pool, as the client parses them, into the Stratum session in
// whichever state the input picks, with the extranonce settings it picks.
// Whatever the session answers goes to a client with no connection.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "foundation/object.h"
#include "net/json_rpc.h"
#include "stratum/session.h"
#include "stratum/stratum_context.h"

namespace {

struct FuzzContext final : StratumContext {
  StratumShareCounters counters[4];
  StratumShareCounters *ShareCounters(uint64_t worker) override { return worker < 4 ? &counters[worker] : nullptr; }
};

}  // namespace

// Byte 0: the session state; byte 1: extranonce1 length and extranonce2 size;
// byte 2: the worker of the last share. Then lines, split at line feeds.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  if (size < 3) return 0;
  FuzzContext context;
  context.account = "wallet.rig";
  context.password = "x";
  context.stratumState = bytes[0] % 8;
  context.extranonce1.assign(bytes[1] % 17, 0xa5);
  context.extranonce2Size = bytes[1] >> 4;
  context.lastSubmitWorker = bytes[2] % 6;
  bytes += 3;
  size -= 3;

  VLJsonRpcClient *client = VLJsonRpcClientCreate();
  VLJsonRpcClientSetUserData(client, &context);
  VLJsonRpcClientSetMessageCallback(client, OnStratumMessage);
  // One line per read, as a pool that writes whole lines would be read.
  while (size > 0) {
    const void *end = memchr(bytes, '\n', size);
    size_t length = end ? static_cast<const uint8_t *>(end) - bytes + 1 : size;
    VLJsonRpcClientReceive(client, bytes, static_cast<uint32_t>(length));
    bytes += length;
    size -= length;
  }
  VLJsonRpcClientDestroy(client);
  return 0;
}
