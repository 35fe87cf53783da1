// A small JSON-RPC 1.0 and 2.0 peer over one socket of a socket set: message
// records and their text, a line transport (one compact JSON object per line)
// and three callbacks. It knows nothing of what the messages mean; ids are the
// caller's, and matching a response to its request is the caller's business.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "foundation/json_bounded.h"
#include "foundation/object.h"
#include "foundation/relaxed.h"
#include "net/socket_set.h"

enum : uint32_t {
  VLJsonRpcTransportNone = 0,
  VLJsonRpcTransportLine = 1,
  VLJsonRpcTransportHttp = 2,   // not built
  VLJsonRpcTransportHttps = 3,  // not built
};

enum : uint32_t {
  VLJsonRpcKindRequest = 0,  // requests and notifications
  VLJsonRpcKindResponse = 1,
};

enum : uint32_t {
  VLJsonRpcVersion1 = 0,  // JSON-RPC 1.0 shape
  VLJsonRpcVersion2 = 1,  // JSON-RPC 2.0 shape
};

// The socket tag of the line transport; every send names it.
constexpr uint32_t kVLJsonRpcSocketTag = 16;

// A reference-counted message. Every value field holds its own reference.
struct VLJsonRpcMessage {
  std::atomic<uint32_t> refCount{1};
  uint32_t kind = VLJsonRpcKindRequest;
  uint32_t version = VLJsonRpcVersion1;
  VLObject *id = nullptr;  // null for a notification
  VLObject *method = nullptr;
  VLObject *params = nullptr;  // array, or dictionary in version 2
  uint8_t isError = 0;
  VLObject *result = nullptr;
  VLObject *errorObject = nullptr;  // version 1 errors, as the peer sent them
  int32_t errorCode = 0;            // version 2 errors
  VLObject *errorMessage = nullptr;
  VLObject *errorData = nullptr;
  // Parameters the log must not show (bit i: parameter i), such as a
  // password: the client's "Sending" line has *** in their place.
  uint32_t secretParams = 0;
};

struct VLJsonRpcClient;
class TlsLink;
struct TlsSettings;
using VLJsonRpcConnectedCallback = void (*)(VLJsonRpcClient *client, void *userData);
using VLJsonRpcDisconnectedCallback = void (*)(VLJsonRpcClient *client, void *userData);
// `message` is borrowed: retain it to keep it past the call.
using VLJsonRpcMessageCallback = void (*)(VLJsonRpcClient *client, VLJsonRpcMessage *message, void *userData);

struct VLJsonRpcClient {
  uint32_t transport = VLJsonRpcTransportNone;
  Relaxed<TRPSocketSet *> socketSet{nullptr};  // owned; senders use it under sendLock
  std::mutex sendLock;
  VLObject *path = nullptr;  // request path of the HTTP transports
  void *userData = nullptr;
  VLJsonRpcConnectedCallback connected = nullptr;
  VLJsonRpcDisconnectedCallback disconnected = nullptr;
  VLJsonRpcMessageCallback message = nullptr;
  // Set when the client was destroyed from inside one of its own callbacks;
  // the callback's caller frees it once the callback returns.
  bool destroyPending = false;
  // The receive thread's framing: the start of a line not yet ended, carried
  // from one read to the next, and whether an overlong line is being skipped.
  std::string partialLine;
  bool skippingLongLine = false;
  // Lines dropped unread (not a JSON object, or past a limit). Each reason
  // is warned about at most every 10 s, with the count since its last warning.
  Relaxed<uint64_t> droppedLines;
  struct DropNotice {
    uint64_t sinceWarning = 0;
    double lastWarning = -1;  // steady-clock seconds; -1: never
  } dropNotices[6];           // by VLJsonRefusal
  // The TLS transport: the link, whether its handshake has been reported as
  // the connection, and the peer's name for messages (escaped).
  TlsLink *tls = nullptr;
  bool tlsReported = false;
  std::string peerName;
};

// The longest line taken from a peer; a longer one is dropped with a warning.
constexpr size_t kVLJsonRpcMaxLineBytes = 1 << 20;
// What one line may hold: a line nested deeper, with more values or longer
// is dropped whole.
constexpr VLJsonLimits kVLJsonRpcLineLimits{64, 100000, kVLJsonRpcMaxLineBytes};
// Dropped lines are told at most this often for each reason, with their count.
constexpr double kVLJsonRpcDropWarningSeconds = 10;

// ---- Client -------------------------------------------------------------------
// A client is good for one connection. `connected` runs on the connect thread,
// `message` on the receive thread (serially, in stream order), `disconnected`
// on the thread that met the failure, once.

VLJsonRpcClient *VLJsonRpcClientCreate();
// The setters are called before the connect.
void VLJsonRpcClientSetUserData(VLJsonRpcClient *client, void *userData);
void VLJsonRpcClientSetConnectedCallback(VLJsonRpcClient *client, VLJsonRpcConnectedCallback callback);
void VLJsonRpcClientSetDisconnectedCallback(VLJsonRpcClient *client, VLJsonRpcDisconnectedCallback callback);
void VLJsonRpcClientSetMessageCallback(VLJsonRpcClient *client, VLJsonRpcMessageCallback callback);
// The line transport: plain TCP to `host` (a string value), connected on the
// set's connect thread. False when the socket can't be set up (or a connection
// was made already).
bool VLJsonRpcClientConnectTcp(VLJsonRpcClient *client, VLObject *host, uint16_t port);
// The same over TLS: `connected` runs once the handshake is done and the
// certificate checked, on the receive thread. A failed handshake or check is
// logged with the peer and the reason and reported as a disconnect.
bool VLJsonRpcClientConnectTls(VLJsonRpcClient *client, VLObject *host, uint16_t port, const TlsSettings &settings);
// Serialises and queues the message; never waits on the network. From any
// thread, also while another closes the client. True when the message was
// queued whole; false once the connection is closed or its queue is full.
bool VLJsonRpcClientSend(VLJsonRpcClient *client, VLJsonRpcMessage *message);
// Ends the connection, without callbacks, and frees the client. Safe after the
// connection failed, and from inside the client's own callbacks.
void VLJsonRpcClientDestroy(VLJsonRpcClient *client);
// Ends the connection without callbacks and keeps the client: once it
// returns no callback of the client runs (from inside one, none after it),
// and sends are dropped. Whoever still holds the client may then free it.
void VLJsonRpcClientClose(VLJsonRpcClient *client);
// One read of the connection, framed and delivered to the message callback on
// the calling thread: the receive path of the line transport. Whole lines are
// handed on however the bytes are cut into reads; a line may be up to
// kVLJsonRpcMaxLineBytes long. Only JSON is read (never a property list): a
// line that is no JSON object, or that is past kVLJsonRpcLineLimits, is
// dropped and counted, with a warning for each reason at most every 10 s.
void VLJsonRpcClientReceive(VLJsonRpcClient *client, const uint8_t *bytes, uint32_t length);
// Lines dropped unread so far; from any thread.
uint64_t VLJsonRpcClientDroppedLines(const VLJsonRpcClient *client);

// ---- Messages -----------------------------------------------------------------

// An id is a number of an integer kind or a non-empty string.
bool VLJsonRpcIdIsValid(const VLObject *id);

// Constructors return one reference, or null when the id isn't valid.
VLJsonRpcMessage *VLJsonRpcRequestCreate(VLObject *id, VLObject *method, uint32_t version);
VLJsonRpcMessage *VLJsonRpcNotificationCreate(VLObject *method, uint32_t version);
VLJsonRpcMessage *VLJsonRpcResultCreate(VLObject *id, VLObject *result, uint32_t version);
// A version 1 error response carrying the error member as it stands.
VLJsonRpcMessage *VLJsonRpcErrorCreateV1(VLObject *id, VLObject *errorObject);
// A version 2 error response; `data` may be null.
VLJsonRpcMessage *VLJsonRpcErrorCreate(VLObject *id, int32_t code, VLObject *message, VLObject *data);

// Requests only: appends to the positional parameters (replacing named ones).
void VLJsonRpcMessageAddParam(VLJsonRpcMessage *message, VLObject *value);
// Requests only: an array, or a dictionary in a version 2 message; anything
// else leaves the message without parameters.
void VLJsonRpcMessageSetParams(VLJsonRpcMessage *message, VLObject *value);
// Version 2 requests only: one named parameter.
void VLJsonRpcMessageSetNamedParam(VLJsonRpcMessage *message, VLObject *key, VLObject *value);
// Positional parameter `index` (below 32) is a secret: logged as ***, sent as it is.
void VLJsonRpcMessageSetSecretParam(VLJsonRpcMessage *message, uint32_t index);

VLJsonRpcMessage *VLJsonRpcMessageRetain(VLJsonRpcMessage *message);
void VLJsonRpcMessageRelease(VLJsonRpcMessage *message);

// Borrowed field values.
uint32_t VLJsonRpcMessageKind(const VLJsonRpcMessage *message);
uint32_t VLJsonRpcMessageVersion(const VLJsonRpcMessage *message);
VLObject *VLJsonRpcMessageId(const VLJsonRpcMessage *message);
VLObject *VLJsonRpcMessageMethod(const VLJsonRpcMessage *message);
VLObject *VLJsonRpcMessageParams(const VLJsonRpcMessage *message);
VLObject *VLJsonRpcMessageResult(const VLJsonRpcMessage *message);
VLObject *VLJsonRpcMessageErrorObject(const VLJsonRpcMessage *message);
int32_t VLJsonRpcMessageErrorCode(const VLJsonRpcMessage *message);
VLObject *VLJsonRpcMessageErrorMessage(const VLJsonRpcMessage *message);
VLObject *VLJsonRpcMessageErrorData(const VLJsonRpcMessage *message);
// True only for a response that is an error.
bool VLJsonRpcMessageIsError(const VLJsonRpcMessage *message);
// The error as one value, with a reference for the caller: a version 1
// error's member as it stands; for version 2 a new dictionary with "code",
// "message" and, if present, "data". Null when the message is no error.
VLObject *VLJsonRpcMessageError(const VLJsonRpcMessage *message);

// One line of compact JSON ending in a line feed (a new string), or null for
// an unknown kind. Blanks, line ends and bytes from 128 up are removed
// everywhere, inside strings too, so string values must be printable ASCII
// without blanks to be sent exactly.
VLObject *VLJsonRpcMessageSerialize(const VLJsonRpcMessage *message);
// A data or string value holding one JSON object to a message, or null. Read
// strictly, within kVLJsonRpcLineLimits (foundation/json_bounded.h).
VLJsonRpcMessage *VLJsonRpcMessageParse(const VLObject *data);
// The same on bytes. A line that isn't a JSON object within the limits gives
// null with the reason in `why`; a JSON object that is no message gives null
// with kNone.
VLJsonRpcMessage *VLJsonRpcMessageParseLine(const char *line, size_t length, VLJsonRefusal *why);
