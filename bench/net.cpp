// Network figures: the round trip of a short request over loop-back, the lines
// per second one client can hand to the socket set, and what one connection
// holds while it idles.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <condition_variable>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>

#include "foundation/logger.h"
#include "net/json_rpc.h"
#include "net/socket_set.h"

namespace {

// A loop-back peer on its own thread: echoes every byte back, or only counts
// what arrives, or answers every line with a pool's short response.
enum class PeerMode { kEcho, kCount, kAnswer };
const std::string kAnswer = "{\"id\":4,\"result\":true,\"error\":null}\n";

class Peer {
 public:
  explicit Peer(PeerMode mode) : mode_(mode) {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 || listen(listener_, 1) != 0) {
      abort();
    }
    getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Serve(); });
  }
  ~Peer() {
    stop_ = true;
    thread_.join();
    close(listener_);
  }
  uint16_t Port() const { return port_; }
  uint64_t Received() const { return received_.load(); }

 private:
  void Serve() {
    std::string buffer(1 << 16, '\0');
    pollfd entry{listener_, POLLIN, 0};
    while (!stop_ && poll(&entry, 1, 50) <= 0) {}
    if (stop_) return;
    int fd = accept(listener_, nullptr, nullptr);
    pollfd peer{fd, POLLIN, 0};
    while (!stop_) {
      if (poll(&peer, 1, 50) <= 0) continue;
      ssize_t n = recv(fd, buffer.data(), buffer.size(), 0);
      if (n <= 0) break;
      received_ += static_cast<uint64_t>(n);
      if (mode_ == PeerMode::kEcho) send(fd, buffer.data(), static_cast<size_t>(n), MSG_NOSIGNAL);
      if (mode_ == PeerMode::kAnswer) {
        for (ssize_t i = 0; i < n; i++) {
          if (buffer[i] == '\n') send(fd, kAnswer.data(), kAnswer.size(), MSG_NOSIGNAL);
        }
      }
    }
    close(fd);
  }
  PeerMode mode_;
  int listener_ = -1;
  uint16_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<uint64_t> received_{0};
  std::thread thread_;
};

struct Client {
  std::mutex lock;
  std::condition_variable changed;
  bool connected = false;
  uint64_t received = 0;
};

void OnConnected(TRPSocketSet *, uint32_t, void *user) {
  auto *client = static_cast<Client *>(user);
  std::lock_guard<std::mutex> guard(client->lock);
  client->connected = true;
  client->changed.notify_all();
}

void OnData(TRPSocketSet *, uint32_t, const uint8_t *, uint32_t length, void *user) {
  auto *client = static_cast<Client *>(user);
  std::lock_guard<std::mutex> guard(client->lock);
  client->received += length;
  client->changed.notify_all();
}

TRPSocketSet *ConnectTo(uint16_t port, Client *client) {
  TRPSocketSet *set = nullptr;
  TRPSocketSetCreate(&set);
  TRPSocketSetSetCallbacks(set, nullptr, OnConnected, OnData, nullptr, client);
  TRPSocketSetAddSocket(set, "127.0.0.1", 0, port, kSocketTypeConnect, 16, false, 0);
  std::unique_lock<std::mutex> guard(client->lock);
  client->changed.wait(guard, [&] { return client->connected; });
  return set;
}

// A share line as the miner sends it, about this long.
const std::string kLine =
    "{\"id\":4,\"method\":\"mining.submit\",\"params\":[\"worker.1\",\"1a2b3c\",\"00000000deadbeef\"]}\n";

void BM_SocketSetRoundTrip(benchmark::State &state) {
  VLLogSetLevel(VLLogLevelError);
  Peer peer(PeerMode::kEcho);
  Client client;
  TRPSocketSet *set = ConnectTo(peer.Port(), &client);
  uint64_t expected = 0;
  for (auto _ : state) {
    TRPSocketSetSend(set, kLine.data(), kLine.size(), 16);
    expected += kLine.size();
    std::unique_lock<std::mutex> guard(client.lock);
    client.changed.wait(guard, [&] { return client.received >= expected; });
  }
  TRPSocketSetClose(set);
}
BENCHMARK(BM_SocketSetRoundTrip)->UseRealTime();

void BM_SocketSetLinesPerSecond(benchmark::State &state) {
  VLLogSetLevel(VLLogLevelError);
  Peer peer(PeerMode::kCount);
  Client client;
  TRPSocketSet *set = ConnectTo(peer.Port(), &client);
  uint64_t lines = 0;
  for (auto _ : state) {
    for (int i = 0; i < 1000; i++) TRPSocketSetSend(set, kLine.data(), kLine.size(), 16);
    lines += 1000;
  }
  // Counted as sent only once the peer has them all.
  while (peer.Received() < lines * kLine.size()) std::this_thread::sleep_for(std::chrono::microseconds(100));
  state.SetItemsProcessed(static_cast<int64_t>(lines));
  TRPSocketSetClose(set);
}
BENCHMARK(BM_SocketSetLinesPerSecond)->UseRealTime();

long StatusField(const char *name) {
  std::ifstream status("/proc/self/status");
  std::string key;
  long value = 0;
  while (status >> key) {
    if (key == name) {
      status >> value;
      return value;
    }
  }
  return 0;
}

void BM_SocketSetConnectionAtRest(benchmark::State &state) {
  VLLogSetLevel(VLLogLevelError);
  Peer peer(PeerMode::kEcho);
  {
    // One connection first, so that what the process sets up once for its
    // first threads (allocator arenas, stack caches) isn't counted.
    Peer warmUpPeer(PeerMode::kEcho);
    Client warmUp;
    TRPSocketSet *set = ConnectTo(warmUpPeer.Port(), &warmUp);
    TRPSocketSetSend(set, kLine.data(), kLine.size(), 16);
    TRPSocketSetClose(set);
  }
  for (auto _ : state) {
    malloc_trim(0);
    long threadsBefore = StatusField("Threads:");
    long rssBefore = StatusField("VmRSS:");
    size_t heapBefore = mallinfo2().uordblks;
    Client client;
    TRPSocketSet *set = ConnectTo(peer.Port(), &client);
    TRPSocketSetSend(set, kLine.data(), kLine.size(), 16);
    {
      std::unique_lock<std::mutex> guard(client.lock);
      client.changed.wait(guard, [&] { return client.received >= kLine.size(); });
    }
    size_t heap = mallinfo2().uordblks - heapBefore;
    long threads = StatusField("Threads:") - threadsBefore;
    long rss = StatusField("VmRSS:") - rssBefore;
    state.counters["heap_bytes"] = static_cast<double>(heap);
    state.counters["threads"] = static_cast<double>(threads);
    state.counters["rss_kib"] = static_cast<double>(rss);
    TRPSocketSetClose(set);
  }
}
BENCHMARK(BM_SocketSetConnectionAtRest)->Iterations(1);

// The miner's own path: a request serialised and sent through the client, the
// pool's answer read, split, parsed and delivered to the message callback.
struct RpcClient {
  std::mutex lock;
  std::condition_variable changed;
  bool connected = false;
  uint64_t answers = 0;
};

void OnRpcConnected(VLJsonRpcClient *, void *user) {
  auto *record = static_cast<RpcClient *>(user);
  std::lock_guard<std::mutex> guard(record->lock);
  record->connected = true;
  record->changed.notify_all();
}

void OnRpcMessage(VLJsonRpcClient *, VLJsonRpcMessage *message, void *user) {
  auto *record = static_cast<RpcClient *>(user);
  if (VLJsonRpcMessageKind(message) != VLJsonRpcKindResponse) return;
  std::lock_guard<std::mutex> guard(record->lock);
  record->answers++;
  record->changed.notify_all();
}

void BM_JsonRpcRoundTrip(benchmark::State &state) {
  VLLogSetLevel(VLLogLevelError);
  Peer peer(PeerMode::kAnswer);
  RpcClient record;
  VLJsonRpcClient *client = VLJsonRpcClientCreate();
  VLJsonRpcClientSetUserData(client, &record);
  VLJsonRpcClientSetConnectedCallback(client, OnRpcConnected);
  VLJsonRpcClientSetMessageCallback(client, OnRpcMessage);
  VLObject *host = VLStringCreate("127.0.0.1", 0);
  VLJsonRpcClientConnectTcp(client, host, peer.Port());
  VLObjectRelease(host);
  {
    std::unique_lock<std::mutex> guard(record.lock);
    record.changed.wait(guard, [&] { return record.connected; });
  }
  VLObject *id = VLNumberCreateUInt32(4);
  VLObject *method = VLStringCreate("mining.submit", 0);
  uint64_t expected = 0;
  for (auto _ : state) {
    VLJsonRpcMessage *submit = VLJsonRpcRequestCreate(id, method, VLJsonRpcVersion1);
    for (const char *param : {"worker.1", "1a2b3c", "00000000deadbeef"}) {
      VLObject *value = VLStringCreate(param, 0);
      VLJsonRpcMessageAddParam(submit, value);
      VLObjectRelease(value);
    }
    VLJsonRpcClientSend(client, submit);
    VLJsonRpcMessageRelease(submit);
    expected++;
    std::unique_lock<std::mutex> guard(record.lock);
    record.changed.wait(guard, [&] { return record.answers >= expected; });
  }
  VLObjectRelease(id);
  VLObjectRelease(method);
  VLJsonRpcClientDestroy(client);
}
BENCHMARK(BM_JsonRpcRoundTrip)->UseRealTime();

// Share lines built, serialised and queued by one thread, counted once the
// peer has read them all.
void BM_JsonRpcLinesPerSecond(benchmark::State &state) {
  VLLogSetLevel(VLLogLevelError);
  Peer peer(PeerMode::kCount);
  RpcClient record;
  VLJsonRpcClient *client = VLJsonRpcClientCreate();
  VLJsonRpcClientSetUserData(client, &record);
  VLJsonRpcClientSetConnectedCallback(client, OnRpcConnected);
  VLObject *host = VLStringCreate("127.0.0.1", 0);
  VLJsonRpcClientConnectTcp(client, host, peer.Port());
  VLObjectRelease(host);
  {
    std::unique_lock<std::mutex> guard(record.lock);
    record.changed.wait(guard, [&] { return record.connected; });
  }
  VLObject *id = VLNumberCreateUInt32(4);
  VLObject *method = VLStringCreate("mining.submit", 0);
  uint64_t lines = 0;
  uint64_t bytes = 0;
  for (auto _ : state) {
    VLJsonRpcMessage *submit = VLJsonRpcRequestCreate(id, method, VLJsonRpcVersion1);
    for (const char *param : {"worker.1", "1a2b3c", "00000000deadbeef"}) {
      VLObject *value = VLStringCreate(param, 0);
      VLJsonRpcMessageAddParam(submit, value);
      VLObjectRelease(value);
    }
    if (lines == 0) {
      VLObject *text = VLJsonRpcMessageSerialize(submit);
      bytes = VLStringLength(text);
      VLObjectRelease(text);
    }
    VLJsonRpcClientSend(client, submit);
    VLJsonRpcMessageRelease(submit);
    lines++;
  }
  while (peer.Received() < lines * bytes) std::this_thread::sleep_for(std::chrono::microseconds(100));
  state.SetItemsProcessed(static_cast<int64_t>(lines));
  VLObjectRelease(id);
  VLObjectRelease(method);
  VLJsonRpcClientDestroy(client);
}
BENCHMARK(BM_JsonRpcLinesPerSecond)->UseRealTime();

}  // namespace
