// A threaded socket set: up to 96 sockets served by service threads that are
// started on first need (connect, receive, send). Callers add sockets by type
// and a numeric tag, get callbacks on the service threads, and hand in bytes
// that the send thread writes out later, so that no caller waits on the
// network; names are resolved on a thread of their own.
//
// Lifetime: a set whose non-optional socket fails tears itself down on the
// thread that met the failure and reports one disconnected callback. The record
// then stays as an inert shell until its owner calls TRPSocketSetClose, which
// is always the owner's last call and always safe.
#pragma once

#include <netinet/in.h>

#include <cstdint>

struct TRPSocketSet;

enum TRPSocketType : uint32_t {
  kSocketTypeListenerBound = 0,
  kSocketTypeListener = 1,
  kSocketTypeConnect = 2,
  kSocketTypeDatagram = 3,
  kSocketTypeDatagramConnected = 4,
  kSocketTypeMulticastReceiver = 5,
  kSocketTypeMulticastSender = 6,
};

// Reasons handed to the disconnected callback.
enum : uint32_t {
  kSocketSetSelectFailed = 12289,
  kSocketSetAcceptFailed = 12290,
  kSocketSetPeerClosed = 12291,
  kSocketSetReadFailed = 12292,
  kSocketSetConnectFailed = 12293,
  kSocketSetSendFailed = 12294,
  kSocketSetReadTimedOut = 12296,
  kSocketSetFailedByCaller = 12297,
};

constexpr uint32_t kTRPSocketSetSlots = 96;
constexpr uint32_t kTRPSocketSetTransferMax = 32768;  // bytes per read and per send

using TRPSocketSetConnectedCallback = void (*)(TRPSocketSet *set, uint32_t tag, void *userData);
using TRPSocketSetDisconnectedCallback = void (*)(TRPSocketSet *set, uint32_t reason, void *userData);
using TRPSocketSetRawDataCallback = void (*)(TRPSocketSet *set, uint32_t tag, const uint8_t *bytes, uint32_t length,
                                             void *userData);
using TRPSocketSetDataSentCallback = void (*)(TRPSocketSet *set, uint32_t tag, uint64_t sent, uint64_t queued,
                                              void *userData);

// Name resolution, replaceable for tests: writes up to `capacity` IPv4
// addresses of `host` and returns how many it found.
using TRPSocketSetResolver = uint32_t (*)(const char *host, in_addr *addresses, uint32_t capacity);
// Null restores the system resolver (getaddrinfo).
void TRPSocketSetSetResolver(TRPSocketSetResolver resolver);

// A new set in *set; false, with *set null, when its wake-up pair can't be made.
bool TRPSocketSetCreate(TRPSocketSet **set);
void TRPSocketSetSetName(TRPSocketSet *set, const char *name);
// All at once, before the first socket is added; null turns one off.
void TRPSocketSetSetCallbacks(TRPSocketSet *set, TRPSocketSetDisconnectedCallback disconnected,
                              TRPSocketSetConnectedCallback connected, TRPSocketSetRawDataCallback rawData,
                              TRPSocketSetDataSentCallback dataSent, void *userData);
// Stored for the set's users; nothing in the set reads it.
void TRPSocketSetSetTimeout(TRPSocketSet *set, uint32_t timeout);
uint32_t TRPSocketSetGetTimeout(TRPSocketSet *set);
// Applies TCP keep-alive to every stream socket in use: probes after `idle`
// seconds of silence, every `interval` seconds, `count` of them.
void TRPSocketSetSetKeepAlive(TRPSocketSet *set, bool enable, uint32_t idle, uint32_t count, uint32_t interval);
// Unacknowledged data older than `millis` ends the connection (TCP_USER_TIMEOUT),
// so a peer that vanished is found even while data waits to go out.
void TRPSocketSetSetUserTimeout(TRPSocketSet *set, uint32_t millis);
// `host` may be null (any address); a name is resolved on the connect thread. Only kSocketTypeConnect is built, and
// message parsing isn't: asking for other types or for parsing fails the call.
bool TRPSocketSetAddSocket(TRPSocketSet *set, const char *host, uint16_t localPort, uint16_t remotePort, uint32_t type,
                           uint32_t tag, bool parseMessages, uint32_t options);
// True when the bytes were queued whole. A call's bytes are contiguous on the
// stream whatever other threads send.
bool TRPSocketSetSend(TRPSocketSet *set, const void *bytes, uint64_t length, uint32_t tag);
// Closes one socket and keeps the set.
bool TRPSocketSetRemoveSocket(TRPSocketSet *set, uint32_t tag);
// From inside a callback of this set: once the callback returns, the set
// fails as if its socket had (one disconnected callback with `reason`), and
// the record stays for the owner's close. For a failure that the bytes show
// and the socket doesn't, such as a refused TLS handshake.
void TRPSocketSetFail(TRPSocketSet *set, uint32_t reason);
// The owner's close; the pointer is invalid afterwards. From inside a callback
// of this set the close is deferred until the callback returns (result false).
bool TRPSocketSetClose(TRPSocketSet *set);

// Installs the message pass-through as the raw data callback, with the
// caller's raw data callback behind it.
void TRPSocketSetSetMessageCallbacks(TRPSocketSet *set, TRPSocketSetDisconnectedCallback disconnected,
                                     TRPSocketSetConnectedCallback connected, TRPSocketSetRawDataCallback rawData,
                                     void *userData);
// The pass-through itself: hands a read of a socket without message parsing to
// the caller's raw data callback unchanged.
void TRPSocketSetParseMessage(TRPSocketSet *set, uint32_t tag, const uint8_t *bytes, uint32_t length, void *userData);
