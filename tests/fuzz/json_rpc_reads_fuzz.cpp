// A pool's byte stream through the client's receive path, cut into reads at
// points the input chooses: the messages that come out are the same as from
// the whole stream in one read, and each one written back as text reads
// again as a message of its kind.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "foundation/object.h"
#include "net/json_rpc.h"

namespace {

void OnMessage(VLJsonRpcClient *, VLJsonRpcMessage *message, void *userData) {
  Check(VLJsonRpcMessageKind(message) <= 3);
  VLObject *text = VLJsonRpcMessageSerialize(message);
  static_cast<std::vector<std::string> *>(userData)->push_back(text ? VLStringChars(text) : "(none)");
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

std::vector<std::string> Messages(const uint8_t *bytes, size_t size, uint32_t seed) {
  std::vector<std::string> messages;
  VLJsonRpcClient *client = VLJsonRpcClientCreate();
  VLJsonRpcClientSetUserData(client, &messages);
  VLJsonRpcClientSetMessageCallback(client, OnMessage);
  while (size > 0) {
    size_t read = seed != 0 ? CutLength(seed, size, 512) : size;
    VLJsonRpcClientReceive(client, bytes, static_cast<uint32_t>(read));
    bytes += read;
    size -= read;
  }
  VLJsonRpcClientDestroy(client);
  return messages;
}

// The first byte seeds the read lengths; the rest is the stream.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  if (size < 1) return 0;
  uint32_t seed = bytes[0] | 0x100;
  Check(Messages(bytes + 1, size - 1, seed) == Messages(bytes + 1, size - 1, 0));
  return 0;
}
