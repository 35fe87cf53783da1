#include "net/socket_set.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "loopback_peer.h"
#include "net/socket_set_record.h"

namespace {

using namespace std::chrono_literals;
using net_test::Listener;
using net_test::Peer;

// What a set's callbacks reported, in order.
struct Record {
  net_test::Events events;
  int connected = 0;
  std::vector<std::string> seen;  // "data:<bytes>" and "lost:<reason>"
  bool failOnData = false;
};

void Connected(TRPSocketSet *, uint32_t, void *user) {
  auto *r = static_cast<Record *>(user);
  r->events.Update([&] { r->connected++; });
}
void Disconnected(TRPSocketSet *, uint32_t reason, void *user) {
  auto *r = static_cast<Record *>(user);
  r->events.Update([&] { r->seen.push_back("lost:" + std::to_string(reason)); });
}
void RawData(TRPSocketSet *set, uint32_t, const uint8_t *bytes, uint32_t length, void *user) {
  auto *r = static_cast<Record *>(user);
  if (r->events.Get([&] { return r->failOnData; })) TRPSocketSetFail(set, kSocketSetFailedByCaller);
  r->events.Update([&] { r->seen.push_back("data:" + std::string(reinterpret_cast<const char *>(bytes), length)); });
}

class SocketSetTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(TRPSocketSetCreate(&set));
    TRPSocketSetSetCallbacks(set, Disconnected, Connected, RawData, nullptr, &record);
  }
  void TearDown() override {
    if (set) { EXPECT_TRUE(TRPSocketSetClose(set)); }
  }
  // The set connected, on tag 16, to a loop-back peer.
  Peer Open() {
    EXPECT_TRUE(TRPSocketSetAddSocket(set, "127.0.0.1", 0, listener.Port(), kSocketTypeConnect, 16, false, 0));
    Peer peer = listener.Accept();
    EXPECT_TRUE(record.events.WaitFor([&] { return record.connected == 1; }));
    return peer;
  }

  net_test::LogLines log;
  Listener listener;
  Record record;
  TRPSocketSet *set = nullptr;
};

// A failure the bytes show, asked for inside the data callback: the set ends
// once that callback is over, with one report, and the owner's close after
// it is as safe as ever (TearDown).
TEST_F(SocketSetTest, AFailureAskedForInACallbackEndsTheSetAfterItWithOneReport) {
  Peer peer = Open();
  record.events.Update([&] { record.failOnData = true; });
  peer.Write("x");
  EXPECT_TRUE(peer.WaitForEnd());
  ASSERT_TRUE(record.events.WaitFor([&] { return record.seen.size() >= 2; }));
  EXPECT_EQ(record.events.Get([&] { return record.seen; }),
            (std::vector<std::string>{"data:x", "lost:" + std::to_string(kSocketSetFailedByCaller)}));
  EXPECT_FALSE(TRPSocketSetSend(set, "y", 1, 16));
}

TEST_F(SocketSetTest, PeerThatStopsReadingFillsTheRingToItsLimitAndNoAcceptedByteIsLost) {
  Peer peer = Open();
  constexpr size_t kBlock = 1 << 20;
  std::string expected;
  std::string block(kBlock, '\0');
  for (int index = 0; index < 100; index++) {
    for (size_t i = 0; i < kBlock; i++) block[i] = static_cast<char>(index * 31 + i / 4096);
    if (!TRPSocketSetSend(set, block.data(), block.size(), 16)) break;
    expected += block;
  }
  EXPECT_GE(log.Count("(Would exceed hardmax of 41943040)"), 1u);
  // Nearly the ring's maximum was taken; the system's buffers hold the rest.
  EXPECT_GE(expected.size(), 38u * kBlock);
  EXPECT_LT(expected.size(), 100u * kBlock);
  std::string received = peer.Read(expected.size(), 60s);
  ASSERT_EQ(received.size(), expected.size());
  EXPECT_TRUE(received == expected);
}

TEST_F(SocketSetTest, LinesSentFromManyThreadsArriveWholeAndInEachThreadsOrder) {
  Peer peer = Open();
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
int g_lookupsDone = 0;
uint32_t GatedResolve(const char *, in_addr *addresses, uint32_t) {
  std::unique_lock<std::mutex> guard(g_gateLock);
  g_answeredAfterAdd = g_gate.wait_for(guard, std::chrono::seconds(30), [] { return g_gateOpen; });
  g_lookupsDone++;
  inet_pton(AF_INET, "127.0.0.1", &addresses[0]);
  return 1;
}
void SetGate(bool open) {
  std::lock_guard<std::mutex> guard(g_gateLock);
  g_gateOpen = open;
  g_gate.notify_all();
}

TEST(SocketSetResolve, ASlowResolverHoldsUpNeitherTheCallerNorTheClose) {
  TRPSocketSetSetResolver(GatedResolve);
  Listener listener;
  TRPSocketSet *set = nullptr;
  ASSERT_TRUE(TRPSocketSetCreate(&set));
  // Returns while the lookup is still waiting at the gate.
  ASSERT_TRUE(TRPSocketSetAddSocket(set, "pool.test", 0, listener.Port(), kSocketTypeConnect, 1, false, 0));
  SetGate(true);
  EXPECT_TRUE(listener.Accept().Valid());
  EXPECT_TRUE(g_answeredAfterAdd);

  // A set closed while its lookup hangs closes without waiting for it; the
  // lookup ends alone.
  SetGate(false);
  TRPSocketSet *stuck = nullptr;
  ASSERT_TRUE(TRPSocketSetCreate(&stuck));
  ASSERT_TRUE(TRPSocketSetAddSocket(stuck, "pool.test", 0, listener.Port(), kSocketTypeConnect, 1, false, 0));
  TRPSocketSetClose(stuck);
  {
    std::lock_guard<std::mutex> guard(g_gateLock);
    EXPECT_EQ(g_lookupsDone, 1);
  }
  SetGate(true);
  TRPSocketSetClose(set);
  TRPSocketSetSetResolver(nullptr);
}

}  // namespace
