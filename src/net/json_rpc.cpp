#include "net/json_rpc.h"

#include <chrono>
#include <cstring>
#include <iterator>
#include <string>

#include "foundation/escape.h"
#include "foundation/json.h"
#include "foundation/logger.h"
#include "net/tls_link.h"

namespace {

constexpr const char *kTag = "VLJSONRPC";
// The raw lines of the link ("Sending ...", "Received Message: ...") are for
// whoever asks for them (--verbose, VL_LOG_TRACE): by default they would bury
// the status table, several to a share.
constexpr uint32_t kRawLineLevel = VLLogLevelVerbose;
constexpr uint32_t kUnacknowledgedLimitMillis = 60000;

VLJsonRpcMessage *NewMessage(uint32_t kind, uint32_t version, VLObject *id) {
  auto *message = new VLJsonRpcMessage;
  message->kind = kind;
  message->version = version;
  message->id = VLObjectRetain(id);
  return message;
}

bool IsType(const VLObject *value, uint32_t type) { return value && VLObjectType(value) == type; }

// Sets `key` only when there is a value to set.
void Put(VLObject *dictionary, const char *key, VLObject *value) {
  if (value) VLDictionarySet(dictionary, value, VLStringConstant(key));
}

// Sets `key` to a fresh value that the dictionary then holds alone.
void PutNew(VLObject *dictionary, const char *key, VLObject *value) {
  Put(dictionary, key, value);
  VLObjectRelease(value);
}

VLObject *VersionTwoError(const VLJsonRpcMessage *message) {
  VLObject *error = VLDictionaryCreate(3);
  PutNew(error, "code", VLNumberCreateInt32(static_cast<uint32_t>(message->errorCode)));
  Put(error, "message", message->errorMessage);
  Put(error, "data", message->errorData);
  return error;
}

void FreeClient(VLJsonRpcClient *client) {
  VLObjectRelease(client->path);
  delete client->tls;
  delete client;
}

// Values from inside a peer's error member, used only when of the expected type.
VLObject *MemberOfType(VLObject *dictionary, const char *name, uint32_t type) {
  if (!IsType(dictionary, VLTypeDictionary)) return nullptr;
  VLObject *value = VLDictionaryGetByName(dictionary, name);
  return IsType(value, type) ? value : nullptr;
}

// A TLS handshake or record that failed: said once, with the peer and the
// reason. The set fails once the callback that met it returns and reports the
// loss as any other; until the owner closes it, the client stays attached, so
// that the owner's close waits for this callback to end.
void FailTls(VLJsonRpcClient *client) {
  VL_LOG(VLLogLevelError, kTag, "TLS with %s failed: %s", client->peerName.c_str(), client->tls->Error().c_str());
  TRPSocketSetFail(client->socketSet, kSocketSetFailedByCaller);
}

void OnSetConnected(TRPSocketSet *set, uint32_t, void *user) {
  auto *client = static_cast<VLJsonRpcClient *>(user);
  // A silent pool is then declared dead by the stack within seconds, and the
  // loss surfaces as a read error.
  TRPSocketSetSetKeepAlive(set, true, 5, 10, 1);
  // Data the peer never acknowledges ends the connection within a minute.
  TRPSocketSetSetUserTimeout(set, kUnacknowledgedLimitMillis);
  if (client->tls) {
    // The connection counts once the handshake is through.
    if (!client->tls->Start()) FailTls(client);
  } else if (client->connected) {
    client->connected(client, client->userData);
  }
  if (client->destroyPending) FreeClient(client);
}

void OnSetDisconnected(TRPSocketSet *, uint32_t, void *user) {
  auto *client = static_cast<VLJsonRpcClient *>(user);
  if (client->disconnected) client->disconnected(client, client->userData);
  if (client->destroyPending) FreeClient(client);
}

// Opens what arrived; true when the client may go on reading.
bool ReceiveTls(VLJsonRpcClient *client, const uint8_t *bytes, uint32_t length) {
  std::string plaintext;
  if (!client->tls->Receive(bytes, length, plaintext)) {
    FailTls(client);
    return false;
  }
  if (!client->tlsReported && client->tls->Established()) {
    client->tlsReported = true;
    if (client->connected) client->connected(client, client->userData);
    if (client->destroyPending) return false;
  }
  if (!plaintext.empty()) {
    VLJsonRpcClientReceive(client, reinterpret_cast<const uint8_t *>(plaintext.data()),
                           static_cast<uint32_t>(plaintext.size()));
  }
  return true;
}

void OnSetRawData(TRPSocketSet *, uint32_t, const uint8_t *bytes, uint32_t length, void *user) {
  auto *client = static_cast<VLJsonRpcClient *>(user);
  if (client->tls) {
    ReceiveTls(client, bytes, length);
  } else {
    VLJsonRpcClientReceive(client, bytes, length);
  }
  if (client->destroyPending) FreeClient(client);
}

}  // namespace

// ---- Client -------------------------------------------------------------------

VLJsonRpcClient *VLJsonRpcClientCreate() { return new VLJsonRpcClient; }

void VLJsonRpcClientSetUserData(VLJsonRpcClient *client, void *userData) { client->userData = userData; }
void VLJsonRpcClientSetConnectedCallback(VLJsonRpcClient *client, VLJsonRpcConnectedCallback callback) {
  client->connected = callback;
}
void VLJsonRpcClientSetDisconnectedCallback(VLJsonRpcClient *client, VLJsonRpcDisconnectedCallback callback) {
  client->disconnected = callback;
}
void VLJsonRpcClientSetMessageCallback(VLJsonRpcClient *client, VLJsonRpcMessageCallback callback) {
  client->message = callback;
}

bool VLJsonRpcClientConnectTcp(VLJsonRpcClient *client, VLObject *host, uint16_t port) {
  if (!client || client->socketSet || !IsType(host, VLTypeString)) return false;
  if (client->peerName.empty()) client->peerName = VLEscapeControl(host) + ":" + std::to_string(port);
  TRPSocketSet *set = nullptr;
  if (!TRPSocketSetCreate(&set)) return false;
  TRPSocketSetSetName(set, "JSON-RPC Client");
  TRPSocketSetSetTimeout(set, 5000);
  TRPSocketSetSetMessageCallbacks(set, OnSetDisconnected, OnSetConnected, OnSetRawData, client);
  client->socketSet = set;
  client->transport = VLJsonRpcTransportLine;
  return TRPSocketSetAddSocket(set, VLStringChars(host), 0, port, kSocketTypeConnect, kVLJsonRpcSocketTag, false, 0);
}

bool VLJsonRpcClientConnectTls(VLJsonRpcClient *client, VLObject *host, uint16_t port, const TlsSettings &settings) {
  if (!client || client->socketSet || client->tls || !IsType(host, VLTypeString)) return false;
  client->peerName = VLEscapeControl(host) + ":" + std::to_string(port);
  std::string error;
  std::unique_ptr<TlsLink> link = TlsLink::Create(
      settings,
      [client](const uint8_t *bytes, size_t length) {
        TRPSocketSet *set = client->socketSet;
        return set != nullptr && TRPSocketSetSend(set, bytes, length, kVLJsonRpcSocketTag);
      },
      error);
  if (!link) {
    VL_LOG(VLLogLevelError, kTag, "TLS with %s cannot start: %s", client->peerName.c_str(), error.c_str());
    return false;
  }
  client->tls = link.release();
  return VLJsonRpcClientConnectTcp(client, host, port);
}

namespace {

// The message as the log shows it: its line without the line feed, secret
// parameters as ***, control characters escaped.
std::string SentForLog(const VLJsonRpcMessage *message, VLObject *text) {
  VLRef shown = VLRef::Retain(text);
  if (message->secretParams != 0 && IsType(message->params, VLTypeArray)) {
    VLRef params(VLArrayCreate(VLArrayCount(message->params)));
    for (uint32_t i = 0; i < VLArrayCount(message->params); i++) {
      bool secret = i < 32 && (message->secretParams >> i & 1u) != 0;
      VLArrayAppend(params.get(), secret ? VLStringConstant("***") : VLArrayGet(message->params, i));
    }
    VLJsonRpcMessage masked;
    masked.kind = message->kind;
    masked.version = message->version;
    masked.id = message->id;
    masked.method = message->method;
    masked.params = params.get();
    shown.Reset(VLJsonRpcMessageSerialize(&masked));
  }
  std::string_view line(VLStringChars(shown.get()), VLStringLength(shown.get()));
  if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
  return VLEscapeControl(line);
}

}  // namespace

bool VLJsonRpcClientSend(VLJsonRpcClient *client, VLJsonRpcMessage *message) {
  if (!client || client->transport != VLJsonRpcTransportLine) return false;
  VLObject *text = VLJsonRpcMessageSerialize(message);
  if (!text) return false;
  bool queued = false;
  {
    // The set can't be closed under a sender: the close takes it away under
    // this lock first.
    std::lock_guard<std::mutex> guard(client->sendLock);
    if (TRPSocketSet *set = client->socketSet) {
      if (VLLogGetLevel() <= kRawLineLevel) {
        VL_LOG(kRawLineLevel, kTag, "Sending %s", SentForLog(message, text).c_str());
      }
      if (client->tls) {
        queued = client->tls->Send(reinterpret_cast<const uint8_t *>(VLStringChars(text)), VLStringLength(text));
      } else {
        queued = TRPSocketSetSend(set, VLStringChars(text), VLStringLength(text), kVLJsonRpcSocketTag);
      }
    }
  }
  VLObjectRelease(text);
  return queued;
}

namespace {

// Ends the connection without callbacks. False when called from inside one of
// the client's own callbacks: the set then closes after that callback.
bool CloseConnection(VLJsonRpcClient *client) {
  TRPSocketSet *set;
  {
    // Once no sender holds the set, new ones find none.
    std::lock_guard<std::mutex> guard(client->sendLock);
    set = client->socketSet;
    client->socketSet = nullptr;
  }
  if (!set) return true;
  // No callback may start during the close. One already running finishes
  // before the close returns, with the client still alive.
  TRPSocketSetSetCallbacks(set, nullptr, nullptr, nullptr, nullptr, client);
  return TRPSocketSetClose(set);
}

}  // namespace

void VLJsonRpcClientClose(VLJsonRpcClient *client) {
  if (client) CloseConnection(client);
}

void VLJsonRpcClientDestroy(VLJsonRpcClient *client) {
  if (!client) return;
  if (!CloseConnection(client)) {
    // Called from inside one of this client's callbacks: the callback's
    // caller frees the client.
    client->destroyPending = true;
    return;
  }
  FreeClient(client);
}

namespace {

double SteadySeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// A line dropped unread: counted, and told at once unless a warning of the
// same reason went out in the last 10 s; the next one then says how many went.
void DropLine(VLJsonRpcClient *client, VLJsonRefusal why) {
  client->droppedLines += 1;
  if (why == VLJsonRefusal::kNotObject) why = VLJsonRefusal::kNotJson;  // the same words
  VLJsonRpcClient::DropNotice &notice = client->dropNotices[static_cast<size_t>(why) % std::size(client->dropNotices)];
  notice.sinceWarning++;
  double now = SteadySeconds();
  if (notice.lastWarning >= 0 && now - notice.lastWarning < kVLJsonRpcDropWarningSeconds) return;
  const char *peer = client->peerName.empty() ? "the peer" : client->peerName.c_str();
  std::string reason = VLJsonRefusalText(why, kVLJsonRpcLineLimits);
  if (notice.sinceWarning == 1) {
    VL_LOG(VLLogLevelWarning, kTag, "Dropped a line from %s: %s", peer, reason.c_str());
  } else {
    VL_LOG(VLLogLevelWarning, kTag, "Dropped %llu lines from %s since the last such warning: %s",
           static_cast<unsigned long long>(notice.sinceWarning), peer, reason.c_str());
  }
  notice.sinceWarning = 0;
  notice.lastWarning = now;
}

bool Blank(const char *line, size_t length) {
  for (size_t i = 0; i < length; i++) {
    if (line[i] != ' ' && line[i] != '\t' && line[i] != '\r') return false;
  }
  return true;
}

void DeliverLine(VLJsonRpcClient *client, const char *line, size_t length) {
  if (Blank(line, length)) return;
  if (VLLogGetLevel() <= kRawLineLevel) {
    VL_LOG(kRawLineLevel, kTag, "Received Message: %s", VLEscapeControl(std::string_view(line, length)).c_str());
  }
  VLJsonRefusal why = VLJsonRefusal::kNone;
  VLJsonRpcMessage *message = VLJsonRpcMessageParseLine(line, length, &why);
  if (why != VLJsonRefusal::kNone) DropLine(client, why);
  if (!message) return;
  if (client->message) client->message(client, message, client->userData);
  VLJsonRpcMessageRelease(message);
}

}  // namespace

// A line is handed on when its line feed arrives, whatever reads it was cut
// into; a line that arrives whole in one read goes on from that read, as it
// always has. A line that grows past the limit is dropped, and reading takes
// up again after its line feed.
void VLJsonRpcClientReceive(VLJsonRpcClient *client, const uint8_t *bytes, uint32_t length) {
  const char *next = reinterpret_cast<const char *>(bytes);
  const char *end = next + length;
  while (next < end && !client->destroyPending) {
    const char *feed = static_cast<const char *>(memchr(next, '\n', static_cast<size_t>(end - next)));
    const char *stop = feed ? feed : end;
    size_t piece = static_cast<size_t>(stop - next);
    if (client->skippingLongLine) {
      if (feed) client->skippingLongLine = false;
    } else if (client->partialLine.size() + piece > kVLJsonRpcMaxLineBytes) {
      DropLine(client, VLJsonRefusal::kTooLong);
      client->partialLine.clear();
      client->partialLine.shrink_to_fit();
      client->skippingLongLine = feed == nullptr;
    } else if (feed && client->partialLine.empty()) {
      DeliverLine(client, next, piece);
    } else {
      client->partialLine.append(next, piece);
      if (feed) {
        std::string line;
        line.swap(client->partialLine);
        DeliverLine(client, line.data(), line.size());
      }
    }
    next = feed ? feed + 1 : end;
  }
}

uint64_t VLJsonRpcClientDroppedLines(const VLJsonRpcClient *client) { return client ? client->droppedLines.load() : 0; }

// ---- Messages -----------------------------------------------------------------

bool VLJsonRpcIdIsValid(const VLObject *id) {
  if (IsType(id, VLTypeString)) return VLStringLength(id) > 0;
  if (!IsType(id, VLTypeNumber)) return false;
  uint32_t kind = VLNumberGetKind(id);
  return kind == VLNumberUInt32 || kind == VLNumberInt32 || kind == VLNumberUInt64;
}

VLJsonRpcMessage *VLJsonRpcRequestCreate(VLObject *id, VLObject *method, uint32_t version) {
  if (!VLJsonRpcIdIsValid(id)) return nullptr;
  VLJsonRpcMessage *message = NewMessage(VLJsonRpcKindRequest, version, id);
  message->method = VLObjectRetain(method);
  return message;
}

VLJsonRpcMessage *VLJsonRpcNotificationCreate(VLObject *method, uint32_t version) {
  VLJsonRpcMessage *message = NewMessage(VLJsonRpcKindRequest, version, nullptr);
  message->method = VLObjectRetain(method);
  return message;
}

VLJsonRpcMessage *VLJsonRpcResultCreate(VLObject *id, VLObject *result, uint32_t version) {
  if (!VLJsonRpcIdIsValid(id)) return nullptr;
  VLJsonRpcMessage *message = NewMessage(VLJsonRpcKindResponse, version, id);
  message->result = VLObjectRetain(result);
  return message;
}

VLJsonRpcMessage *VLJsonRpcErrorCreateV1(VLObject *id, VLObject *errorObject) {
  if (!VLJsonRpcIdIsValid(id)) return nullptr;
  VLJsonRpcMessage *message = NewMessage(VLJsonRpcKindResponse, VLJsonRpcVersion1, id);
  message->isError = 1;
  message->errorObject = VLObjectRetain(errorObject);
  return message;
}

VLJsonRpcMessage *VLJsonRpcErrorCreate(VLObject *id, int32_t code, VLObject *text, VLObject *data) {
  if (!VLJsonRpcIdIsValid(id)) return nullptr;
  VLJsonRpcMessage *message = NewMessage(VLJsonRpcKindResponse, VLJsonRpcVersion2, id);
  message->isError = 1;
  message->errorCode = code;
  message->errorMessage = VLObjectRetain(text);
  message->errorData = VLObjectRetain(data);
  return message;
}

void VLJsonRpcMessageAddParam(VLJsonRpcMessage *message, VLObject *value) {
  if (!message || message->kind != VLJsonRpcKindRequest || !value) return;
  if (message->params && VLObjectType(message->params) != VLTypeArray) {
    VLObjectRelease(message->params);
    message->params = nullptr;
  }
  if (!message->params) message->params = VLArrayCreate(1);
  VLArrayAppend(message->params, value);
}

void VLJsonRpcMessageSetParams(VLJsonRpcMessage *message, VLObject *value) {
  if (!message || message->kind != VLJsonRpcKindRequest) return;
  VLObjectRelease(message->params);
  message->params = nullptr;
  bool named = message->version == VLJsonRpcVersion2 && IsType(value, VLTypeDictionary);
  if (IsType(value, VLTypeArray) || named) message->params = VLObjectRetain(value);
}

void VLJsonRpcMessageSetNamedParam(VLJsonRpcMessage *message, VLObject *key, VLObject *value) {
  if (!message || message->kind != VLJsonRpcKindRequest || message->version != VLJsonRpcVersion2 || !key || !value) {
    return;
  }
  if (message->params && VLObjectType(message->params) != VLTypeDictionary) {
    VLObjectRelease(message->params);
    message->params = nullptr;
  }
  if (!message->params) message->params = VLDictionaryCreate(1);
  VLDictionarySet(message->params, value, key);
}

void VLJsonRpcMessageSetSecretParam(VLJsonRpcMessage *message, uint32_t index) {
  if (message && index < 32) message->secretParams |= 1u << index;
}

VLJsonRpcMessage *VLJsonRpcMessageRetain(VLJsonRpcMessage *message) {
  if (message) message->refCount.fetch_add(1);
  return message;
}

void VLJsonRpcMessageRelease(VLJsonRpcMessage *message) {
  if (!message || message->refCount.fetch_sub(1) != 1) return;
  for (VLObject *value : {message->id, message->method, message->params, message->result, message->errorObject,
                          message->errorMessage, message->errorData}) {
    VLObjectRelease(value);
  }
  delete message;
}

uint32_t VLJsonRpcMessageKind(const VLJsonRpcMessage *message) { return message->kind; }
uint32_t VLJsonRpcMessageVersion(const VLJsonRpcMessage *message) { return message->version; }
VLObject *VLJsonRpcMessageId(const VLJsonRpcMessage *message) { return message->id; }
VLObject *VLJsonRpcMessageMethod(const VLJsonRpcMessage *message) { return message->method; }
VLObject *VLJsonRpcMessageParams(const VLJsonRpcMessage *message) { return message->params; }
VLObject *VLJsonRpcMessageResult(const VLJsonRpcMessage *message) { return message->result; }
VLObject *VLJsonRpcMessageErrorObject(const VLJsonRpcMessage *message) { return message->errorObject; }
int32_t VLJsonRpcMessageErrorCode(const VLJsonRpcMessage *message) { return message->errorCode; }
VLObject *VLJsonRpcMessageErrorMessage(const VLJsonRpcMessage *message) { return message->errorMessage; }
VLObject *VLJsonRpcMessageErrorData(const VLJsonRpcMessage *message) { return message->errorData; }

bool VLJsonRpcMessageIsError(const VLJsonRpcMessage *message) {
  return message && message->kind == VLJsonRpcKindResponse && message->isError;
}

VLObject *VLJsonRpcMessageError(const VLJsonRpcMessage *message) {
  if (!message) return nullptr;
  if (message->version == VLJsonRpcVersion1) return VLObjectRetain(message->errorObject);
  if (!VLJsonRpcMessageIsError(message)) return nullptr;
  return VersionTwoError(message);
}

VLObject *VLJsonRpcMessageSerialize(const VLJsonRpcMessage *message) {
  if (!message || message->kind > VLJsonRpcKindResponse) return nullptr;
  bool two = message->version == VLJsonRpcVersion2;
  VLObject *document = VLDictionaryCreate(3);
  if (two) Put(document, "jsonrpc", VLStringConstant("2.0"));
  if (message->kind == VLJsonRpcKindRequest) {
    if (message->id) {
      Put(document, "id", message->id);
    } else if (!two) {
      PutNew(document, "id", VLNullCreate());
    }
    Put(document, "method", message->method);
    if (message->params) {
      Put(document, "params", message->params);
    } else if (!two) {
      PutNew(document, "params", VLArrayCreate(0));
    }
  } else {
    Put(document, "id", message->id);
    if (!message->isError) {
      if (message->result) {
        Put(document, "result", message->result);
      } else {
        PutNew(document, "result", VLNullCreate());
      }
      if (!two) PutNew(document, "error", VLNullCreate());
    } else {
      if (two) {
        PutNew(document, "error", VersionTwoError(message));
      } else if (message->errorObject) {
        Put(document, "error", message->errorObject);
      } else {
        PutNew(document, "error", VLNullCreate());
      }
      if (!two) PutNew(document, "result", VLNullCreate());
    }
  }
  VLObject *layout = VLObjectSerialize(document, VLFormatJson);
  VLObjectRelease(document);
  // One line per message: the writer's indents and line ends go.
  VLObject *line = VLStringRemoveWhitespace(layout);
  VLObjectRelease(layout);
  if (line) VLStringAppendFormat(line, "\n");
  return line;
}

VLJsonRpcMessage *VLJsonRpcMessageParse(const VLObject *data) {
  if (IsType(data, VLTypeString)) return VLJsonRpcMessageParseLine(VLStringChars(data), VLStringLength(data), nullptr);
  if (!IsType(data, VLTypeData)) return nullptr;
  return VLJsonRpcMessageParseLine(reinterpret_cast<const char *>(VLDataBytes(data)), VLDataLength(data), nullptr);
}

VLJsonRpcMessage *VLJsonRpcMessageParseLine(const char *line, size_t length, VLJsonRefusal *why) {
  VLObject *document = VLJsonReadObject(line, length, kVLJsonRpcLineLimits, why);
  if (!document) return nullptr;
  VLObject *marker = VLDictionaryGetByName(document, "jsonrpc");
  uint32_t version = VLJsonRpcVersion1;
  if (IsType(marker, VLTypeString) && VLStringCompareText(marker, VLStringConstant("2.0")) == 1) {
    version = VLJsonRpcVersion2;
  }
  VLObject *method = VLDictionaryGetByName(document, "method");
  VLObject *result = VLDictionaryGetByName(document, "result");
  VLObject *error = VLDictionaryGetByName(document, "error");
  VLObject *id = VLDictionaryGetByName(document, "id");

  VLJsonRpcMessage *message = nullptr;
  if (method) {
    // A method name that isn't text can't be dispatched by anyone.
    if (IsType(method, VLTypeString)) {
      if (!id || IsType(id, VLTypeNull)) {
        message = VLJsonRpcNotificationCreate(method, version);
      } else {
        message = VLJsonRpcRequestCreate(id, method, version);
      }
      VLObject *params = VLDictionaryGetByName(document, "params");
      if (message && params) VLJsonRpcMessageSetParams(message, params);
    }
  } else if (error && !IsType(error, VLTypeNull)) {
    if (version == VLJsonRpcVersion2) {
      VLObject *codeValue = MemberOfType(error, "code", VLTypeNumber);
      if (!codeValue) codeValue = MemberOfType(error, "code", VLTypeString);
      auto code = static_cast<int32_t>(VLNumberGetInt32(codeValue));
      VLObject *data = IsType(error, VLTypeDictionary) ? VLDictionaryGetByName(error, "data") : nullptr;
      message = VLJsonRpcErrorCreate(id, code, MemberOfType(error, "message", VLTypeString), data);
    } else {
      message = VLJsonRpcErrorCreateV1(id, error);
    }
  } else if (result || error) {
    message = VLJsonRpcResultCreate(id, result, version);
  }
  VLObjectRelease(document);
  return message;
}
