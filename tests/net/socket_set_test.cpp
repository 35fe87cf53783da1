#include "net/socket_set.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <fstream>
#include <map>
#include <thread>

#include "loopback_peer.h"
#include "net/socket_set_record.h"

namespace {

using namespace std::chrono_literals;
using net_test::Listener;
using net_test::Peer;

// What a set's callbacks reported, with actions to run inside them.
struct Record {
  net_test::Events events;
  int connected = 0;
  std::vector<uint32_t> reasons;
  std::thread::id disconnectThread;
  std::string data;
  uint64_t sent = 0;
  std::vector<bool> closeResults;
  std::function<void(TRPSocketSet *, uint32_t)> onConnected;
  bool closeOnData = false;
  bool closeOnDisconnect = false;
};

void Connected(TRPSocketSet *set, uint32_t tag, void *user) {
  auto *r = static_cast<Record *>(user);
  if (r->onConnected) r->onConnected(set, tag);
  r->events.Update([&] { r->connected++; });
}
void Disconnected(TRPSocketSet *set, uint32_t reason, void *user) {
  auto *r = static_cast<Record *>(user);
  if (r->closeOnDisconnect) r->events.Update([&] { r->closeResults.push_back(TRPSocketSetClose(set)); });
  r->events.Update([&] {
    r->reasons.push_back(reason);
    r->disconnectThread = std::this_thread::get_id();
  });
}
void RawData(TRPSocketSet *set, uint32_t, const uint8_t *bytes, uint32_t length, void *user) {
  auto *r = static_cast<Record *>(user);
  r->events.Update([&] { r->data.append(reinterpret_cast<const char *>(bytes), length); });
  if (r->closeOnData) r->events.Update([&] { r->closeResults.push_back(TRPSocketSetClose(set)); });
}
void DataSent(TRPSocketSet *, uint32_t, uint64_t sent, uint64_t, void *user) {
  auto *r = static_cast<Record *>(user);
  r->events.Update([&] { r->sent += sent; });
}

TRPSocketSet *NewSet(Record *record) {
  TRPSocketSet *set = nullptr;
  EXPECT_TRUE(TRPSocketSetCreate(&set));
  TRPSocketSetSetCallbacks(set, Disconnected, Connected, RawData, DataSent, record);
  return set;
}

class SocketSetTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (set) {
      EXPECT_TRUE(TRPSocketSetClose(set));
    }
  }
  bool Connect(uint16_t port, uint32_t tag = 16) {
    return TRPSocketSetAddSocket(set, "127.0.0.1", 0, port, kSocketTypeConnect, tag, false, 0);
  }
  bool WaitConnected(int count = 1) {
    return record.events.WaitFor([&] { return record.connected >= count; });
  }
  std::vector<uint32_t> WaitReasons() {
    record.events.WaitFor([&] { return !record.reasons.empty(); });
    return record.events.Get([&] { return record.reasons; });
  }
  std::string WaitData(size_t length) {
    record.events.WaitFor([&] { return record.data.size() >= length; });
    return record.events.Get([&] { return record.data; });
  }
  template <typename Read>
  auto Seen(Read read) {
    return record.events.Get(read);
  }

  net_test::LogLines log;
  Record record;
  TRPSocketSet *set = NewSet(&record);
};

TEST_F(SocketSetTest, PeerThatStopsReadingFillsTheRingToItsLimitAndNoAcceptedByteIsLost) {
  Listener listener;
  ASSERT_TRUE(Connect(listener.Port()));
  Peer peer = listener.Accept();
  ASSERT_TRUE(WaitConnected());
  constexpr size_t kBlock = 1 << 20;
  std::string expected;
  std::string block(kBlock, '\0');
  for (int index = 0; index < 100; index++) {
    for (size_t i = 0; i < kBlock; i++) block[i] = static_cast<char>(index * 31 + i / 4096);
    if (!TRPSocketSetSend(set, block.data(), block.size(), 16)) break;
    expected += block;
  }
  EXPECT_TRUE(log.Contains("(Would exceed hardmax of 41943040)"));
  // Nearly the ring's maximum was taken; the system's buffers hold the rest.
  EXPECT_GE(expected.size(), 38u * kBlock);
  EXPECT_LT(expected.size(), 100u * kBlock);
  std::string received = peer.Read(expected.size(), 60s);
  ASSERT_EQ(received.size(), expected.size());
  EXPECT_TRUE(received == expected);
}

TEST_F(SocketSetTest, LinesSentFromManyThreadsArriveWholeAndInEachThreadsOrder) {
  Listener listener;
  ASSERT_TRUE(Connect(listener.Port()));
  Peer peer = listener.Accept();
  ASSERT_TRUE(WaitConnected());
  constexpr int kThreads = 8;
  constexpr int kLines = 1500;
  auto lineOf = [](int thread, int index) {
    return std::to_string(thread) + ":" + std::to_string(index) + ":" + std::string(index % 300, 'a' + thread) + "\n";
  };
  size_t total = 0;
  std::vector<std::thread> senders;
  for (int t = 0; t < kThreads; t++) {
    for (int i = 0; i < kLines; i++) total += lineOf(t, i).size();
    senders.emplace_back([&, t] {
      for (int i = 0; i < kLines; i++) {
        std::string line = lineOf(t, i);
        EXPECT_TRUE(TRPSocketSetSend(set, line.data(), line.size(), 16));
      }
    });
  }
  for (std::thread &sender : senders) sender.join();
  std::string received = peer.Read(total, 30s);
  ASSERT_EQ(received.size(), total);
  std::vector<int> next(kThreads, 0);
  for (size_t start = 0, end; start < received.size(); start = end + 1) {
    end = received.find('\n', start);
    std::string line = received.substr(start, end + 1 - start);
    int thread = line[0] - '0';
    ASSERT_TRUE(thread >= 0 && thread < kThreads) << line;
    ASSERT_EQ(line, lineOf(thread, next[thread]++));
  }
  EXPECT_EQ(next, std::vector<int>(kThreads, kLines));
}

// A resolver that answers only once the test lets it.
std::mutex g_gateLock;
std::condition_variable g_gate;
bool g_gateOpen = false;
bool g_answeredAfterAdd = false;
uint32_t GatedResolve(const char *, in_addr *addresses, uint32_t) {
  std::unique_lock<std::mutex> guard(g_gateLock);
  g_answeredAfterAdd = g_gate.wait_for(guard, std::chrono::seconds(5), [] { return g_gateOpen; });
  inet_pton(AF_INET, "127.0.0.1", &addresses[0]);
  return 1;
}

TEST(SocketSetResolve, ASlowResolverHoldsUpNeitherTheCallerNorTheClose) {
  TRPSocketSetSetResolver(GatedResolve);
  Listener listener;
  TRPSocketSet *set = nullptr;
  ASSERT_TRUE(TRPSocketSetCreate(&set));
  // Returns while the lookup is still waiting at the gate.
  ASSERT_TRUE(TRPSocketSetAddSocket(set, "pool.test", 0, listener.Port(), kSocketTypeConnect, 1, false, 0));
  {
    std::lock_guard<std::mutex> guard(g_gateLock);
    g_gateOpen = true;
  }
  g_gate.notify_all();
  EXPECT_TRUE(listener.Accept().Valid());
  EXPECT_TRUE(g_answeredAfterAdd);

  // A set closed while its lookup hangs closes at once; the lookup ends alone.
  g_gateOpen = false;
  TRPSocketSet *stuck = nullptr;
  ASSERT_TRUE(TRPSocketSetCreate(&stuck));
  ASSERT_TRUE(TRPSocketSetAddSocket(stuck, "pool.test", 0, listener.Port(), kSocketTypeConnect, 1, false, 0));
  TRPSocketSetClose(stuck);
  {
    std::lock_guard<std::mutex> guard(g_gateLock);
    g_gateOpen = true;
  }
  g_gate.notify_all();
  TRPSocketSetClose(set);
  TRPSocketSetSetResolver(nullptr);
}

}  // namespace
