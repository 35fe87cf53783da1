// The socket set's record, shared by its source files and by tests that look
// at a live set's sockets.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "foundation/compat.h"
#include "foundation/relaxed.h"
#include "net/descriptor_list.h"
#include "net/send_ring.h"
#include "net/socket_set.h"

struct TRPSocket {
  Relaxed<int> fd{-1};  // -1 when closed
  Relaxed<uint32_t> tag;
  Relaxed<uint32_t> type;
  // Written before `inUse` is published, read-only while the slot is in use.
  // A name in `remoteHost` is resolved on the connect thread into the address.
  sockaddr_in remoteAddress{};
  std::string remoteHost;
  Relaxed<uint16_t> localPort;
  Relaxed<uint16_t> remotePort;
  Relaxed<uint8_t> connected;
  // Stored with release once the slot's fields are filled, so that a thread
  // that finds the slot in use also sees them.
  std::atomic<uint8_t> inUse{0};
  TRPSendRing ring;  // under the set's sendBufferLock
};

enum TRPServiceThread : int {
  kTRPThreadConnect,
  kTRPThreadListen,
  kTRPThreadReceive,
  kTRPThreadSend,
  kTRPThreadCount,
};

struct TRPSocketSet {
  // Slot allocation, the running flags, the thread handles, the name and the
  // record's own lifetime.
  std::mutex setLock;
  std::thread threads[kTRPThreadCount];
  std::thread::id threadIds[kTRPThreadCount];  // kept after a thread ends, to recognise its callbacks
  Relaxed<bool> renameRequested[kTRPThreadCount];

  std::mutex connectLock;
  VLCondition connectCondition;

  std::mutex receiveLock;
  TRPDescriptorList receiveList;  // the self-pipe's reading end first
  VLSocket receivePipe[2] = {kVLInvalidSocket, kVLInvalidSocket};

  std::mutex sendLock;  // the send list; always taken before sendBufferLock
  TRPDescriptorList sendList;
  VLSocket sendPipe[2] = {kVLInvalidSocket, kVLInvalidSocket};
  std::mutex sendBufferLock;  // the rings

  Relaxed<uint8_t> deferClose;
  Relaxed<uint32_t> failReason;  // a failure asked for from a callback, 0 for none
  Relaxed<uint8_t> disconnecting;
  Relaxed<uint8_t> running;
  Relaxed<int32_t> highestSlot{-1};
  TRPSocket slots[kTRPSocketSetSlots];

  // Under setLock.
  bool keepAliveEnabled = false;
  uint32_t keepAliveIdle = 0;
  uint32_t keepAliveCount = 0;
  uint32_t keepAliveInterval = 0;
  uint32_t userTimeoutMillis = 0;
  uint32_t disconnectReason = 0;
  bool hasName = false;
  std::string name;
  // Sockets removed while the set runs: shut down at once, closed at
  // tear-down, so that a select thread never waits on a reused number.
  std::vector<int> retiredFds;

  Relaxed<uint32_t> timeout;

  Relaxed<void *> userData;
  Relaxed<TRPSocketSetConnectedCallback> connected;
  Relaxed<TRPSocketSetDisconnectedCallback> disconnected;
  Relaxed<TRPSocketSetRawDataCallback> rawData;
  Relaxed<TRPSocketSetDataSentCallback> dataSent;
  Relaxed<TRPSocketSetRawDataCallback> messageRawData;  // behind the pass-through

  // Owner calls in progress (add, send, remove); the record isn't freed while
  // any remain, even when a callback closed the set meanwhile.
  std::atomic<uint32_t> activeCalls{0};

  // The record's own lifetime, under setLock. `ownerReleased`: the owner
  // called TRPSocketSetClose. `ownerClosing`: it did so on its own thread and
  // frees the record itself. `tornDown`: the tear-down has finished.
  bool ownerReleased = false;
  bool ownerClosing = false;
  bool tornDown = false;
  VLCondition tornDownCondition;
};

// Lookups walk the slots up to highestSlot without a lock.
TRPSocket *TRPSocketSetFindTag(TRPSocketSet *set, uint32_t tag);
