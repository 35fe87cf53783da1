// A pool's byte stream through the client's receive path, cut into reads at
// points the input chooses: every read is framed and parsed on its own. Each
// message that comes out must be a request with a text method or a response,
// and its text, read back, a message of the same kind. A read must give the
// same messages as the same bytes cut into one read per line.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "foundation/object.h"
#include "foundation/text.h"
#include "net/json_rpc.h"

namespace {

void Check(bool condition) {
  if (!condition) abort();
}

std::string Text(const VLObject *string) { return std::string(VLStringChars(string), VLStringLength(string)); }

// The client's messages, as the text the client would write for them.
void OnMessage(VLJsonRpcClient *, VLJsonRpcMessage *message, void *userData) {
  auto *seen = static_cast<std::vector<std::string> *>(userData);
  uint32_t kind = VLJsonRpcMessageKind(message);
  Check(kind == VLJsonRpcKindRequest || kind == VLJsonRpcKindResponse);
  if (kind == VLJsonRpcKindRequest) {
    Check(VLObjectType(VLJsonRpcMessageMethod(message)) == VLTypeString);
    Check(!VLJsonRpcMessageIsError(message));
  }
  VLObject *text = VLJsonRpcMessageSerialize(message);
  Check(text != nullptr);
  seen->push_back(Text(text));
  // What the client writes, it reads back as a message of the same kind.
  VLObject *data = VLDataCreate(VLStringChars(text), VLStringLength(text));
  VLJsonRpcMessage *again = VLJsonRpcMessageParse(data);
  if (again) Check(VLJsonRpcMessageKind(again) == kind);
  VLJsonRpcMessageRelease(again);
  VLObjectRelease(data);
  VLObjectRelease(text);
}

std::vector<std::string> ReadOnce(const uint8_t *bytes, size_t length) {
  std::vector<std::string> seen;
  VLJsonRpcClient *client = VLJsonRpcClientCreate();
  VLJsonRpcClientSetUserData(client, &seen);
  VLJsonRpcClientSetMessageCallback(client, OnMessage);
  VLJsonRpcClientReceive(client, bytes, static_cast<uint32_t>(length));
  VLJsonRpcClientDestroy(client);
  return seen;
}

// The read cut after every line feed, each piece a read of a fresh client.
// Left out: a last piece without line feed that is over the line limit (the
// whole read drops it as an oversized line; alone it has no line end to be
// measured by).
std::vector<std::string> ReadLineByLine(const uint8_t *bytes, size_t length) {
  std::vector<std::string> seen;
  bool cut = false;
  while (length > 0) {
    const void *end = memchr(bytes, '\n', length);
    size_t piece = end ? static_cast<size_t>(static_cast<const uint8_t *>(end) - bytes) + 1 : length;
    if (end || !cut || piece <= kVLSplitPieceLimit) {
      std::vector<std::string> more = ReadOnce(bytes, piece);
      seen.insert(seen.end(), more.begin(), more.end());
    }
    cut = true;
    bytes += piece;
    length -= piece;
  }
  return seen;
}

}  // namespace

// Byte 0: how many read lengths follow (its low four bits), each two bytes,
// little-endian, plus one; they are used in turn. Without any, the stream is
// one read. The rest is the stream.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  if (size < 1) return 0;
  size_t count = bytes[0] & 0x0f;
  if (size < 1 + 2 * count) return 0;
  std::vector<size_t> lengths;
  for (size_t i = 0; i < count; i++) lengths.push_back((bytes[1 + 2 * i] | bytes[2 + 2 * i] << 8) + 1u);
  bytes += 1 + 2 * count;
  size -= 1 + 2 * count;

  std::vector<std::string> seen;
  VLJsonRpcClient *client = VLJsonRpcClientCreate();
  VLJsonRpcClientSetUserData(client, &seen);
  VLJsonRpcClientSetMessageCallback(client, OnMessage);
  for (size_t next = 0; size > 0; next++) {
    size_t read = lengths.empty() ? size : lengths[next % lengths.size()];
    if (read > size) read = size;
    size_t before = seen.size();
    VLJsonRpcClientReceive(client, bytes, static_cast<uint32_t>(read));
    std::vector<std::string> fromRead(seen.begin() + static_cast<ptrdiff_t>(before), seen.end());
    // A zero byte ends the text of a read; what follows it in the read is
    // never looked at, so the cut into lines would see more.
    if (!memchr(bytes, 0, read)) Check(fromRead == ReadLineByLine(bytes, read));
    bytes += read;
    size -= read;
  }
  VLJsonRpcClientDestroy(client);
  return 0;
}
