// A pool's byte stream through the client's receive path, cut into reads at
// points the input chooses: every read is framed and parsed on its own, and
// each message that comes out is written back as text and read again.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "foundation/object.h"
#include "net/json_rpc.h"

namespace {

void Check(bool condition) {
  if (!condition) abort();
}

void OnMessage(VLJsonRpcClient *, VLJsonRpcMessage *message, void *userData) {
  ++*static_cast<uint64_t *>(userData);
  Check(VLJsonRpcMessageKind(message) <= 3);
  VLObject *text = VLJsonRpcMessageSerialize(message);
  if (!text) return;
  // What the client writes, it reads back as a message of the same kind.
  VLObject *data = VLDataCreate(VLStringChars(text), VLStringLength(text));
  VLJsonRpcMessage *again = VLJsonRpcMessageParse(data);
  if (again) {
    Check(VLJsonRpcMessageKind(again) == VLJsonRpcMessageKind(message));
    VLJsonRpcMessageRelease(again);
  }
  VLObjectRelease(data);
  VLObjectRelease(text);
}

}  // namespace

// The first byte seeds the read lengths; the rest is the stream.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  if (size < 1) return 0;
  uint32_t seed = bytes[0];
  bytes++;
  size--;
  uint64_t messages = 0;
  VLJsonRpcClient *client = VLJsonRpcClientCreate();
  VLJsonRpcClientSetUserData(client, &messages);
  VLJsonRpcClientSetMessageCallback(client, OnMessage);
  while (size > 0) {
    seed = seed * 1103515245u + 12345u;
    size_t read = 1 + (seed >> 8) % 512;
    if (read > size) read = size;
    VLJsonRpcClientReceive(client, bytes, static_cast<uint32_t>(read));
    bytes += read;
    size -= read;
  }
  VLJsonRpcClientDestroy(client);
  return 0;
}
