#include "net/socket_set.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>

#include "foundation/logger.h"
#include "foundation/text.h"
#include "net/socket_set_record.h"

namespace {

constexpr const char *kTag = "SOCKETSET";
constexpr const char *kThreadPrefix[kTRPThreadCount] = {"CN ", "LN ", "RX ", "TX "};
constexpr const char *kThreadDefaultName[kTRPThreadCount] = {"Connect Socket", "Listen Socket", "Receive Socket",
                                                             "Send Socket"};
constexpr uint32_t kMaxResolvedAddresses = 16;
// How often a pending connect looks whether the set is closing.
constexpr int kConnectPollMillis = 100;

uint32_t SystemResolve(const char *host, in_addr *addresses, uint32_t capacity) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo *results = nullptr;
  if (getaddrinfo(host, nullptr, &hints, &results) != 0) return 0;
  uint32_t count = 0;
  for (addrinfo *entry = results; entry && count < capacity; entry = entry->ai_next) {
    if (entry->ai_family != AF_INET) continue;
    addresses[count++] = reinterpret_cast<sockaddr_in *>(entry->ai_addr)->sin_addr;
  }
  freeaddrinfo(results);
  return count;
}

std::atomic<TRPSocketSetResolver> g_resolver{SystemResolve};

std::string AddressText(in_addr address) {
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &address, text, sizeof text);
  return text;
}

bool IsDottedAddress(const char *host) {
  in_addr address{};
  if (inet_pton(AF_INET, host, &address) != 1) return false;
  return AddressText(address) == host;
}

// The text to connect to for `host`: itself when it is already an address,
// else the first address it resolves to, else the name unchanged (which then
// fails to connect).
std::string ResolveHost(const char *host) {
  if (IsDottedAddress(host)) return host;
  TRPSocketSetResolver resolve = g_resolver.load(std::memory_order_relaxed);
  VL_LOG(VLLogLevelVerbose, kTag, "Resolving %s to final IP...", VLLogFilterHost(host));
  in_addr addresses[kMaxResolvedAddresses];
  uint32_t count = resolve(host, addresses, kMaxResolvedAddresses);
  if (count == 0) return host;
  std::string text = AddressText(addresses[0]);
  VL_LOG(VLLogLevelVerbose, kTag, "Resolved to %s..", VLLogFilterHost(text.c_str()));

  // Link-local guard. What is resolved again is the first address's text, not
  // the host name, so the second answer normally holds that one address and
  // the first address stays, one second later.
  if (text.size() > 3 && text.compare(0, 3, "169") == 0 && count > 1) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    uint32_t again = resolve(text.c_str(), addresses, kMaxResolvedAddresses);
    if (again > 1) {
      text = AddressText(addresses[1]);
      VL_LOG(VLLogLevelVerbose, kTag, "Skipping 169 address, trying %s...", VLLogFilterHost(text.c_str()));
    }
  }
  return text;
}

// Name resolution on a thread of its own: a slow resolver holds up neither the
// connect thread's owner nor a close of the set. The connect thread waits in
// short polls and gives up when the set closes; the lookup then ends alone.
std::string ResolveWhileRunning(TRPSocketSet *set, const std::string &host) {
  struct Lookup {
    std::mutex lock;
    std::condition_variable done;
    bool finished = false;
    std::string address;
  };
  auto lookup = std::make_shared<Lookup>();
  std::thread([lookup, host] {
    std::string address = ResolveHost(host.c_str());
    std::lock_guard<std::mutex> guard(lookup->lock);
    lookup->address = address;
    lookup->finished = true;
    lookup->done.notify_all();
  }).detach();
  std::unique_lock<std::mutex> guard(lookup->lock);
  while (!lookup->finished) {
    if (!set->running) return "";
    lookup->done.wait_for(guard, std::chrono::milliseconds(kConnectPollMillis));
  }
  return IsDottedAddress(lookup->address.c_str()) ? lookup->address : "";
}

const char *NameOf(TRPSocketSet *set) { return set->hasName ? set->name.c_str() : ""; }

void NameThisThread(TRPSocketSet *set, TRPServiceThread which) {
  set->renameRequested[which] = false;
  std::string name;
  {
    std::lock_guard<std::mutex> guard(set->setLock);
    name = set->hasName ? std::string(kThreadPrefix[which]) + set->name : kThreadDefaultName[which];
  }
  VLThreadSetName(name.c_str());
}

void RenameIfAsked(TRPSocketSet *set, TRPServiceThread which) {
  if (set->renameRequested[which]) NameThisThread(set, which);
}

// One byte to a select thread's self-pipe. Never blocks: a full pipe means the
// thread is already due to wake.
void Wake(VLSocket writer, char byte) {
  if (writer != kVLInvalidSocket) (void)send(writer, &byte, 1, MSG_NOSIGNAL | MSG_DONTWAIT);
}

// True when TRPSocketSetRemoveSocket took the slot from `fd` (it may even hold
// a new socket by now).
bool Retired(TRPSocket *slot, int fd) {
  return fd < 0 || !slot->inUse.load(std::memory_order_acquire) || slot->fd != fd;
}

TRPSocket *FindDescriptor(TRPSocketSet *set, int fd) {
  int32_t highest = set->highestSlot;
  for (int32_t i = 0; i <= highest; i++) {
    TRPSocket *slot = &set->slots[i];
    if (slot->inUse.load(std::memory_order_acquire) && slot->fd == fd) return slot;
  }
  return nullptr;
}

int ServiceThreadOfCaller(TRPSocketSet *set) {
  std::thread::id self = std::this_thread::get_id();
  // The order in which a deferral is reported.
  constexpr TRPServiceThread kOrder[] = {kTRPThreadSend, kTRPThreadConnect, kTRPThreadReceive, kTRPThreadListen};
  for (TRPServiceThread which : kOrder) {
    if (set->threadIds[which] == self) return which;
  }
  return -1;
}

void ConnectThreadMain(TRPSocketSet *set);
void ReceiveThreadMain(TRPSocketSet *set);
void SendThreadMain(TRPSocketSet *set);

// Starts a service thread unless it runs already. Threads start only while the
// set runs, so that the tear-down's joins see every thread there will be.
bool StartThread(TRPSocketSet *set, TRPServiceThread which) {
  std::lock_guard<std::mutex> guard(set->setLock);
  if (!set->running) return false;
  if (set->threads[which].joinable()) return true;
  if (which == kTRPThreadReceive) {
    if (VLSocketPair(set->receivePipe) != 0) {
      VL_LOG(VLLogLevelError, kTag, "Recv thread self-pipe creation failed");
      return false;
    }
    std::lock_guard<std::mutex> listGuard(set->receiveLock);
    TRPDescriptorListAdd(&set->receiveList, set->receivePipe[0]);
  }
  set->renameRequested[which] = false;
  switch (which) {
    case kTRPThreadConnect: set->threads[which] = std::thread(ConnectThreadMain, set); break;
    case kTRPThreadReceive: set->threads[which] = std::thread(ReceiveThreadMain, set); break;
    case kTRPThreadSend: set->threads[which] = std::thread(SendThreadMain, set); break;
    default: return false;
  }
  set->threadIds[which] = set->threads[which].get_id();
  return true;
}

bool AddToReceiveThread(TRPSocketSet *set, TRPSocket *slot, int fd) {
  if (!StartThread(set, kTRPThreadReceive)) return false;
  // Under setLock, so that a removal either comes first and is seen here, or
  // comes after and takes the descriptor out of the list again.
  std::lock_guard<std::mutex> setGuard(set->setLock);
  if (!set->running || Retired(slot, fd)) return false;
  std::lock_guard<std::mutex> guard(set->receiveLock);
  TRPDescriptorListAdd(&set->receiveList, fd);
  Wake(set->receivePipe[1], 'B');
  return true;
}

// Takes a slot out of service, under setLock. The descriptor is shut down now
// and closed at tear-down.
void RetireSlot(TRPSocketSet *set, TRPSocket *slot) {
  int fd = slot->fd;
  // Out of use first, so that no service thread picks the slot up again
  // while it is being emptied.
  slot->inUse.store(0, std::memory_order_release);
  {
    std::lock_guard<std::mutex> sendGuard(set->sendLock);
    std::lock_guard<std::mutex> ringGuard(set->sendBufferLock);
    slot->connected = 0;
    slot->fd = -1;
    TRPSendRingFree(&slot->ring);
    if (TRPDescriptorListRemove(&set->sendList, fd)) Wake(set->sendPipe[1], 'A');
  }
  {
    std::lock_guard<std::mutex> guard(set->receiveLock);
    if (TRPDescriptorListRemove(&set->receiveList, fd)) Wake(set->receivePipe[1], 'B');
  }
  if (fd >= 0) {
    shutdown(fd, SHUT_RDWR);
    set->retiredFds.push_back(fd);
  }
}

// Counts an owner call for its whole duration.
class CallScope {
 public:
  explicit CallScope(TRPSocketSet *set) : set_(set) { set_->activeCalls.fetch_add(1); }
  ~CallScope() { set_->activeCalls.fetch_sub(1); }
  CallScope(const CallScope &) = delete;
  CallScope &operator=(const CallScope &) = delete;

 private:
  TRPSocketSet *set_;
};

void DestroyRecord(TRPSocketSet *set) {
  if (set->activeCalls.load() != 0) {
    VL_LOG(VLLogLevelDebug, kTag, "Busy wait for direct-send to finish");
    while (set->activeCalls.load() != 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  delete set;
}

// The end of a tear-down: mark it done and settle who frees the record.
void FinishTearDown(TRPSocketSet *set) {
  std::unique_lock<std::mutex> guard(set->setLock);
  set->tornDown = true;
  VLConditionBroadcast(&set->tornDownCondition);
  // The owner waits for this (or is this thread) and frees the record.
  if (set->ownerClosing) return;
  // Not released yet: the shell stays for the owner's close.
  if (!set->ownerReleased) return;
  // Released from a callback while no owner waits: this thread is the last
  // user. Every other service thread was joined by the tear-down.
  std::thread::id self = std::this_thread::get_id();
  for (std::thread &thread : set->threads) {
    if (thread.joinable() && thread.get_id() == self) thread.detach();
  }
  guard.unlock();
  DestroyRecord(set);
}

// Tears the set down. Whoever gets here first does the work; a later caller
// returns false at once. The disconnected callback, if any, is the last one.
bool CloseInternal(TRPSocketSet *set, uint32_t reason, bool notify) {
  {
    std::lock_guard<std::mutex> guard(set->setLock);
    if (!set->running) return false;
    set->disconnecting = 1;
    set->running = 0;
    set->disconnectReason = reason;
  }

  {
    std::lock_guard<std::mutex> guard(set->connectLock);
    VLConditionBroadcast(&set->connectCondition);
  }
  {
    std::lock_guard<std::mutex> guard(set->receiveLock);
    Wake(set->receivePipe[1], 'B');
  }

  // Shut every socket down now, which also ends reads and sends in progress;
  // the descriptors are closed only after the threads that use them are gone.
  std::vector<int> toClose;
  {
    std::lock_guard<std::mutex> sendGuard(set->sendLock);
    std::lock_guard<std::mutex> ringGuard(set->sendBufferLock);
    Wake(set->sendPipe[1], 'A');
    int32_t highest = set->highestSlot;
    for (int32_t i = 0; i <= highest; i++) {
      TRPSocket *slot = &set->slots[i];
      slot->connected = 0;
      TRPSendRingFree(&slot->ring);
      int fd = slot->fd;
      if (fd < 0) continue;
      slot->fd = -1;
      shutdown(fd, SHUT_RDWR);
      toClose.push_back(fd);
    }
  }

  std::thread::id self = std::this_thread::get_id();
  for (int which : {kTRPThreadConnect, kTRPThreadListen, kTRPThreadReceive, kTRPThreadSend}) {
    std::thread &thread = set->threads[which];
    if (thread.joinable() && thread.get_id() != self) thread.join();
  }

  {
    std::lock_guard<std::mutex> guard(set->setLock);
    toClose.insert(toClose.end(), set->retiredFds.begin(), set->retiredFds.end());
    set->retiredFds.clear();
  }
  for (int fd : toClose) close(fd);
  for (VLSocket *pipe : {set->receivePipe, set->sendPipe}) {
    for (int end = 0; end < 2; end++) {
      if (pipe[end] == kVLInvalidSocket) continue;
      shutdown(pipe[end], SHUT_RDWR);
      VLSocketClose(pipe[end]);
      pipe[end] = kVLInvalidSocket;
    }
  }

  uint32_t finalReason;
  {
    std::lock_guard<std::mutex> guard(set->setLock);
    set->disconnecting = 0;
    finalReason = set->disconnectReason;
  }
  if (notify || finalReason != 0) {
    TRPSocketSetDisconnectedCallback disconnected = set->disconnected;
    if (disconnected) disconnected(set, finalReason, set->userData);
  }
  FinishTearDown(set);
  return true;
}

// After a callback on a service thread: run the close that the callback asked
// for. True when the thread must end (the record may be gone then).
bool HonourDeferredClose(TRPSocketSet *set, const char *where) {
  if (set->deferClose) {
    VL_LOG(VLLogLevelVerbose, kTag, "Socket set close internal from %s", where);
    CloseInternal(set, 0, false);
    return true;
  }
  if (uint32_t reason = set->failReason) {
    CloseInternal(set, reason, true);
    return true;
  }
  return false;
}

// A socket failed on a service thread: every socket of the set is needed, so
// the set ends, with one disconnected callback. The thread must end after.
void SocketFailed(TRPSocketSet *set, TRPSocket *slot, int fd, uint32_t reason, const char *where) {
  VL_LOG(VLLogLevelDebug, kTag, "Non optional sock tag: %i disconnect. on %i", static_cast<int>(slot->tag), fd);
  if (HonourDeferredClose(set, where)) return;
  CloseInternal(set, reason, true);
}

TRPSocket *FindPendingConnect(TRPSocketSet *set) {
  int32_t highest = set->highestSlot;
  for (int32_t i = 0; i <= highest; i++) {
    TRPSocket *slot = &set->slots[i];
    if (slot->inUse.load(std::memory_order_acquire) && slot->type == kSocketTypeConnect && !slot->connected &&
        slot->fd >= 0) {
      return slot;
    }
  }
  return nullptr;
}

// A blocking connect that gives up when the set closes: the wait is cut into
// short polls so that a close never waits for the system's connect timeout.
// Returns 0 or the error.
int ConnectWhileRunning(TRPSocketSet *set, int fd, const sockaddr_in &remote) {
  int flags = fcntl(fd, F_GETFL);
  fcntl(fd, F_SETFL, flags | O_NONBLOCK);
  int error = 0;
  if (connect(fd, reinterpret_cast<const sockaddr *>(&remote), sizeof remote) != 0) {
    error = errno;
    if (error == EINPROGRESS) {
      for (;;) {
        pollfd entry{fd, POLLOUT, 0};
        int ready = poll(&entry, 1, kConnectPollMillis);
        if (ready > 0) break;
        if (ready < 0 && errno != EINTR) break;
        if (!set->running) {
          fcntl(fd, F_SETFL, flags);
          return ECONNABORTED;
        }
      }
      socklen_t length = sizeof error;
      if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
    }
  }
  fcntl(fd, F_SETFL, flags);
  return error;
}

// Returns false when the thread must end.
bool ConnectOne(TRPSocketSet *set, TRPSocket *slot) {
  int fd = slot->fd;
  uint32_t tag = slot->tag;
  if (fd < 0) return true;
  sockaddr_in remote = slot->remoteAddress;
  int error = 0;
  if (!slot->remoteHost.empty()) {
    std::string address = ResolveWhileRunning(set, slot->remoteHost);
    if (!set->running) return false;
    if (address.empty()) {
      VL_LOG(VLLogLevelError, kTag, "Cannot resolve %s", VLLogFilterHost(slot->remoteHost.c_str()));
      error = EHOSTUNREACH;
    } else {
      remote.sin_addr.s_addr = inet_addr(address.c_str());
    }
  }
  if (error == 0) error = ConnectWhileRunning(set, fd, remote);
  if (!set->running) return false;

  if (error == 0) {
    {
      std::lock_guard<std::mutex> guard(set->setLock);
      if (Retired(slot, fd)) return true;
      slot->connected = 1;
    }
    TRPSocketSetConnectedCallback connected = set->connected;
    if (connected) connected(set, tag, set->userData);
    if (HonourDeferredClose(set, "connect thread")) return false;
    // Reading starts only now, so the callback can queue data before it.
    AddToReceiveThread(set, slot, fd);
    return true;
  }
  if (Retired(slot, fd)) return true;

  VL_LOG(VLLogLevelError, kTag, "Connect Error @ %i: %i", static_cast<int>(tag), error);
  SocketFailed(set, slot, fd, kSocketSetConnectFailed, "connect thread");
  return false;
}

void ConnectThreadMain(TRPSocketSet *set) {
  NameThisThread(set, kTRPThreadConnect);
  for (;;) {
    TRPSocket *pending = nullptr;
    {
      std::unique_lock<std::mutex> guard(set->connectLock);
      for (;;) {
        if (!set->running) return;
        pending = FindPendingConnect(set);
        if (pending) break;
        set->connectCondition.variable.wait(guard);
      }
    }
    RenameIfAsked(set, kTRPThreadConnect);
    if (!ConnectOne(set, pending)) return;
  }
}

// Serves one readable socket. Returns false when the thread must end.
bool ReceiveFrom(TRPSocketSet *set, int fd, uint8_t *buffer) {
  TRPSocket *slot = FindDescriptor(set, fd);
  // A socket being removed is skipped; the tear-down is seen after select.
  if (!slot || !slot->connected) return true;
  ssize_t received = recv(fd, buffer, kTRPSocketSetTransferMax, 0);
  if (received > 0) {
    TRPSocketSetRawDataCallback rawData = set->rawData;
    if (rawData) rawData(set, slot->tag, buffer, static_cast<uint32_t>(received), set->userData);
    return !HonourDeferredClose(set, "receive thread");
  }
  int error = errno;
  if (received < 0 && (error == EINTR || error == EAGAIN)) return true;
  if (!set->running) return false;
  uint32_t reason = kSocketSetReadFailed;
  if (received < 0 && error == ETIMEDOUT) reason = kSocketSetReadTimedOut;
  if (received == 0) reason = kSocketSetPeerClosed;
  if (Retired(slot, fd)) return true;
  SocketFailed(set, slot, fd, reason, "receive thread");
  return false;
}

void ReceiveThreadMain(TRPSocketSet *set) {
  NameThisThread(set, kTRPThreadReceive);
  uint8_t buffer[kTRPSocketSetTransferMax];
  int pipe = set->receivePipe[0];
  for (;;) {
    TRPDescriptorList list;
    {
      std::lock_guard<std::mutex> guard(set->receiveLock);
      list = set->receiveList;
    }
    fd_set readable;
    FD_ZERO(&readable);
    TRPDescriptorListFill(&list, &readable);
    int ready = select(list.highest + 1, &readable, nullptr, nullptr, nullptr);
    if (!set->running) return;
    RenameIfAsked(set, kTRPThreadReceive);
    if (ready < 0 && errno != EINTR) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (ready <= 0) continue;
    for (int fd = list.lowest; fd <= list.highest; fd++) {
      if (!FD_ISSET(fd, &readable)) continue;
      if (fd == pipe) {
        char bytes[64];
        (void)VLSocketRecv(pipe, bytes, sizeof bytes);
        if (!set->running) return;
        continue;
      }
      if (!ReceiveFrom(set, fd, buffer)) return;
    }
  }
}

// Sends the next piece of one socket's ring. Returns false when the thread
// must end.
bool SendFrom(TRPSocketSet *set, int fd, uint8_t *chunk) {
  TRPSocket *slot = FindDescriptor(set, fd);
  uint64_t length = 0;
  {
    std::lock_guard<std::mutex> sendGuard(set->sendLock);
    TRPDescriptorListRemove(&set->sendList, fd);
    if (!slot) {
      VL_LOG(VLLogLevelVerbose, kTag, "Socket attempting to send to NULL socket.");
      return true;
    }
    std::lock_guard<std::mutex> ringGuard(set->sendBufferLock);
    if (!slot->connected) return true;
    if (!slot->ring.sendBuffer) {
      VL_LOG(VLLogLevelError, kTag, "Send thread did not have a buffer to send with");
    } else {
      length = TRPSendRingPeek(&slot->ring, chunk, kTRPSocketSetTransferMax);
    }
  }
  if (length == 0) return true;

  ssize_t sent = send(fd, chunk, length, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (sent < 0) {
    int error = errno;
    if (error == EAGAIN || error == EWOULDBLOCK || error == EINTR) {
      sent = 0;
    } else {
      if (!set->running) return false;
      if (Retired(slot, fd)) return true;
      SocketFailed(set, slot, fd, kSocketSetSendFailed, "send thread");
      return false;
    }
  }

  uint64_t queued;
  {
    std::lock_guard<std::mutex> sendGuard(set->sendLock);
    std::lock_guard<std::mutex> ringGuard(set->sendBufferLock);
    TRPSendRingConsume(&slot->ring, static_cast<uint64_t>(sent));
    queued = slot->ring.sendUsed;
    if (queued > 0 && slot->connected && set->running) TRPDescriptorListAdd(&set->sendList, fd);
  }
  if (sent > 0) {
    TRPSocketSetDataSentCallback dataSent = set->dataSent;
    if (dataSent) dataSent(set, slot->tag, static_cast<uint64_t>(sent), queued, set->userData);
    if (HonourDeferredClose(set, "send thread")) return false;
  }
  return true;
}

void SendThreadMain(TRPSocketSet *set) {
  NameThisThread(set, kTRPThreadSend);
  uint8_t chunk[kTRPSocketSetTransferMax];
  int pipe = set->sendPipe[0];
  for (;;) {
    TRPDescriptorList list;
    {
      std::lock_guard<std::mutex> guard(set->sendLock);
      list = set->sendList;
    }
    fd_set readable;
    fd_set writable;
    FD_ZERO(&readable);
    FD_ZERO(&writable);
    FD_SET(pipe, &readable);
    TRPDescriptorListFill(&list, &writable);
    int ready = select(std::max(pipe, list.highest) + 1, &readable, &writable, nullptr, nullptr);
    if (!set->running) return;
    RenameIfAsked(set, kTRPThreadSend);
    if (ready < 0) {
      int error = errno;
      if (error == EINTR) continue;
      VL_LOG(VLLogLevelError, kTag, "send select error?! %i, %i\\", ready, error);
      if (!FindDescriptor(set, list.highest)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        continue;
      }
      CloseInternal(set, kSocketSetSelectFailed, true);
      return;
    }
    if (FD_ISSET(pipe, &readable)) {
      char bytes[256];
      (void)VLSocketRecv(pipe, bytes, sizeof bytes);
      if (!set->running) return;
    }
    for (int fd = list.lowest; fd >= 0 && fd <= list.highest; fd++) {
      if (FD_ISSET(fd, &writable) && !SendFrom(set, fd, chunk)) return;
    }
  }
}

void SetOption(int fd, int level, int name, int value, const char *failure) {
  if (setsockopt(fd, level, name, &value, sizeof value) != 0) VL_LOG(VLLogLevelError, kTag, "%s", failure);
}

void ApplyKeepAlive(int fd, bool enable, uint32_t idle, uint32_t count, uint32_t interval) {
  int on = enable ? 1 : 0;
  if (setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) != 0) {
    int error = errno;
    if (enable) {
      VL_LOG(VLLogLevelError, kTag, "Failed to set SO_KEEPALIVE on socket: (%i) %s", error, VLErrorText(error).c_str());
    } else {
      VL_LOG(VLLogLevelError, kTag, "Failed to unset SO_KEEPALIVE on socket");
    }
    return;
  }
  // Disabling needs no timings; the stack ignores them without SO_KEEPALIVE.
  if (!enable) return;
  int values[][2] = {{TCP_KEEPIDLE, static_cast<int>(idle)},
                     {TCP_KEEPINTVL, static_cast<int>(interval)},
                     {TCP_KEEPCNT, static_cast<int>(count)}};
  for (auto &[name, value] : values) {
    if (setsockopt(fd, IPPROTO_TCP, name, &value, sizeof value) != 0) {
      VL_LOG(VLLogLevelError, kTag, "Failed to enable Win32 Keep Alive settings: %i", errno);
      return;
    }
  }
}

}  // namespace

TRPSocket *TRPSocketSetFindTag(TRPSocketSet *set, uint32_t tag) {
  int32_t highest = set->highestSlot;
  for (int32_t i = 0; i <= highest; i++) {
    TRPSocket *slot = &set->slots[i];
    if (slot->inUse.load(std::memory_order_acquire) && slot->tag == tag) return slot;
  }
  return nullptr;
}

void TRPSocketSetSetResolver(TRPSocketSetResolver resolver) {
  g_resolver.store(resolver ? resolver : SystemResolve, std::memory_order_relaxed);
}

bool TRPSocketSetCreate(TRPSocketSet **out) {
  auto *set = new TRPSocketSet;
  if (VLSocketPair(set->sendPipe) != 0) {
    VL_LOG(VLLogLevelError, kTag, "Send thread self-pipe creation failed");
    delete set;
    *out = nullptr;
    return false;
  }
  set->running = 1;
  *out = set;
  return true;
}

void TRPSocketSetSetName(TRPSocketSet *set, const char *name) {
  std::lock_guard<std::mutex> guard(set->setLock);
  set->hasName = name != nullptr;
  set->name = name ? name : "";
  for (Relaxed<bool> &flag : set->renameRequested) flag = true;
}

void TRPSocketSetSetCallbacks(TRPSocketSet *set, TRPSocketSetDisconnectedCallback disconnected,
                              TRPSocketSetConnectedCallback connected, TRPSocketSetRawDataCallback rawData,
                              TRPSocketSetDataSentCallback dataSent, void *userData) {
  set->userData = userData;
  set->disconnected = disconnected;
  set->connected = connected;
  set->rawData = rawData;
  set->dataSent = dataSent;
}

void TRPSocketSetSetTimeout(TRPSocketSet *set, uint32_t timeout) { set->timeout = timeout; }
uint32_t TRPSocketSetGetTimeout(TRPSocketSet *set) { return set->timeout; }

void TRPSocketSetSetUserTimeout(TRPSocketSet *set, uint32_t millis) {
  std::lock_guard<std::mutex> guard(set->setLock);
  set->userTimeoutMillis = millis;
  int32_t highest = set->highestSlot;
  for (int32_t i = 0; i <= highest; i++) {
    TRPSocket *slot = &set->slots[i];
    if (!slot->inUse.load(std::memory_order_acquire) || slot->fd < 0) continue;
    SetOption(slot->fd, IPPROTO_TCP, TCP_USER_TIMEOUT, static_cast<int>(millis), "Failed to set TCP_USER_TIMEOUT");
  }
}

void TRPSocketSetSetKeepAlive(TRPSocketSet *set, bool enable, uint32_t idle, uint32_t count, uint32_t interval) {
  std::lock_guard<std::mutex> guard(set->setLock);
  set->keepAliveEnabled = enable;
  set->keepAliveIdle = idle;
  set->keepAliveCount = count;
  set->keepAliveInterval = interval;
  int32_t highest = set->highestSlot;
  for (int32_t i = 0; i <= highest; i++) {
    TRPSocket *slot = &set->slots[i];
    if (!slot->inUse.load(std::memory_order_acquire) || slot->fd < 0) continue;
    ApplyKeepAlive(slot->fd, enable, idle, count, interval);
  }
}

bool TRPSocketSetAddSocket(TRPSocketSet *set, const char *host, uint16_t localPort, uint16_t remotePort, uint32_t type,
                           uint32_t tag, bool parseMessages, uint32_t options) {
  (void)options;  // no option applies to the socket type built here
  if (!set) return false;
  CallScope call(set);
  if (!set->running) return false;
  if (type != kSocketTypeConnect) {
    VL_LOG(VLLogLevelError, kTag, "Socket type %u is not available", type);
    return false;
  }
  if (parseMessages) {
    VL_LOG(VLLogLevelError, kTag, "Message parsing is not available (tag %u)", tag);
    return false;
  }

  // A name is resolved later, on the connect thread, never on the caller's.
  bool named = host != nullptr && !IsDottedAddress(host);
  sockaddr_in remote{};
  remote.sin_family = AF_INET;
  remote.sin_port = htons(remotePort);
  remote.sin_addr.s_addr = host && !named ? inet_addr(host) : htonl(INADDR_ANY);

  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    int error = errno;
    VL_LOG(VLLogLevelError, kTag, "Error creating socket: %s (%i)", VLErrorText(error).c_str(), error);
    return false;
  }
  SetOption(fd, SOL_SOCKET, SO_REUSEADDR, 1, "Failed to set SO_REUSEADDR on socket");
  SetOption(fd, IPPROTO_TCP, TCP_NODELAY, 1, "Failed to set TCP_NODELAY on socket");

  {
    std::lock_guard<std::mutex> guard(set->setLock);
    TRPSocket *slot = nullptr;
    int32_t index = 0;
    for (; index < static_cast<int32_t>(kTRPSocketSetSlots); index++) {
      if (!set->slots[index].inUse.load(std::memory_order_acquire)) {
        slot = &set->slots[index];
        break;
      }
    }
    if (!set->running || !slot) {
      close(fd);
      return false;
    }
    slot->fd = fd;
    slot->tag = tag;
    slot->type = type;
    slot->remoteAddress = remote;
    slot->remoteHost = named ? host : "";
    slot->localPort = localPort;
    slot->remotePort = remotePort;
    slot->connected = 0;
    if (index > set->highestSlot) set->highestSlot = index;
    slot->inUse.store(1, std::memory_order_release);
  }

  if (!StartThread(set, kTRPThreadConnect)) return false;
  std::lock_guard<std::mutex> guard(set->connectLock);
  VLConditionSignal(&set->connectCondition);
  return true;
}

bool TRPSocketSetSend(TRPSocketSet *set, const void *bytes, uint64_t length, uint32_t tag) {
  CallScope call(set);
  bool queued = false;
  TRPSocket *slot = set->running ? TRPSocketSetFindTag(set, tag) : nullptr;
  if (slot && slot->connected && StartThread(set, kTRPThreadSend)) {
    std::lock_guard<std::mutex> sendGuard(set->sendLock);
    if (set->running && slot->connected) {
      bool added = TRPDescriptorListAdd(&set->sendList, slot->fd);
      {
        std::lock_guard<std::mutex> ringGuard(set->sendBufferLock);
        queued = TRPSendRingReserve(&slot->ring, length);
        if (queued) TRPSendRingPut(&slot->ring, bytes, length);
      }
      // A descriptor already listed is either in the thread's current select
      // or will be in its next one; only a new entry needs the wake-up.
      if (added) Wake(set->sendPipe[1], 'A');
    }
  }
  return queued;
}

bool TRPSocketSetRemoveSocket(TRPSocketSet *set, uint32_t tag) {
  CallScope call(set);
  std::lock_guard<std::mutex> guard(set->setLock);
  if (!set->running) return false;
  TRPSocket *slot = TRPSocketSetFindTag(set, tag);
  if (!slot) return false;
  RetireSlot(set, slot);
  return true;
}

void TRPSocketSetFail(TRPSocketSet *set, uint32_t reason) {
  if (set && reason != 0) set->failReason = reason;
}

bool TRPSocketSetClose(TRPSocketSet *set) {
  if (!set) return false;
  std::unique_lock<std::mutex> guard(set->setLock);
  int which = ServiceThreadOfCaller(set);
  if (which >= 0) {
    constexpr const char *kDeferring[kTRPThreadCount] = {
        "Deferring because connect thread %s", "Deferring because listen thread %s",
        "Deferring because receive thread %s", "Deferring because send thread %s"};
    VL_LOG(VLLogLevelDebug, kTag, kDeferring[which], NameOf(set));
    VL_LOG(VLLogLevelDebug, kTag, "Closing socket from a callback thread - deferring %s", NameOf(set));
    set->deferClose = 1;
    set->ownerReleased = true;
    return false;
  }

  set->ownerReleased = true;
  set->ownerClosing = true;
  if (set->running) {
    VL_LOG(VLLogLevelVerbose, kTag, "Closing socket properly %s - %i, %i", NameOf(set), static_cast<int>(set->running),
           static_cast<int>(set->disconnecting));
    guard.unlock();
    // A service thread that meets a failure meanwhile may win the tear-down;
    // this then returns at once and the wait below covers it.
    CloseInternal(set, 0, false);
    guard.lock();
  } else {
    VL_LOG(VLLogLevelVerbose, kTag, "Close socket waiting while disconnecting. %s - %i, %i", NameOf(set),
           static_cast<int>(set->running), static_cast<int>(set->disconnecting));
  }
  // Whoever tears the set down joins the other service threads; wait for it to
  // finish, its disconnected callback included, before touching the threads.
  auto start = std::chrono::steady_clock::now();
  while (!set->tornDown) set->tornDownCondition.variable.wait(guard);
  auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
  VL_LOG(VLLogLevelVerbose, kTag, "Socket Finished disconnecting. %s, cnt: %i", NameOf(set),
         static_cast<int>(waited.count()));
  guard.unlock();
  // Only the thread that ran the tear-down can be left; it touches nothing of
  // the record once the tear-down is marked finished.
  for (std::thread &thread : set->threads) {
    if (thread.joinable()) thread.join();
  }
  DestroyRecord(set);
  return true;
}
