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

TEST_F(SocketSetTest, ConnectFailureEndsTheSetWithOneCallbackOnTheConnectThread) {
  ASSERT_TRUE(Connect(net_test::ClosedPort()));
  EXPECT_EQ(WaitReasons(), std::vector<uint32_t>{kSocketSetConnectFailed});
  EXPECT_NE(Seen([&] { return record.disconnectThread; }), std::this_thread::get_id());
  EXPECT_EQ(Seen([&] { return record.connected; }), 0);
  EXPECT_TRUE(log.Contains("Connect Error @ 16: 111"));
  // The shell left for the owner refuses work; its close reports nothing more.
  EXPECT_FALSE(TRPSocketSetSend(set, "x", 1, 16));
  EXPECT_FALSE(Connect(1));
  EXPECT_TRUE(TRPSocketSetClose(set));
  set = nullptr;
  EXPECT_EQ(record.reasons.size(), 1u);
}

TEST_F(SocketSetTest, PeerEndingTheStreamIsToldByHowItEnded) {
  Listener listener;
  for (bool reset : {false, true}) {
    TRPSocketSetClose(set);
    record.reasons.clear();
    set = NewSet(&record);
    ASSERT_TRUE(Connect(listener.Port()));
    Peer peer = listener.Accept();
    ASSERT_TRUE(WaitConnected(reset ? 2 : 1));
    reset ? peer.Reset() : peer.Close();
    EXPECT_EQ(WaitReasons(), std::vector<uint32_t>{reset ? kSocketSetReadFailed : kSocketSetPeerClosed});
  }
}

TEST_F(SocketSetTest, ConnectedCallbackSendsBeforeTheFirstReadAndDataFlowsBothWays) {
  Listener listener;
  std::string threadName;
  record.onConnected = [&](TRPSocketSet *s, uint32_t tag) {
    std::ifstream comm("/proc/thread-self/comm");
    std::getline(comm, threadName);
    EXPECT_TRUE(TRPSocketSetSend(s, "hello\n", 6, tag));
  };
  TRPSocketSetSetName(set, "Pool");
  ASSERT_TRUE(Connect(listener.Port()));
  Peer peer = listener.Accept();
  EXPECT_EQ(peer.Read(6), "hello\n");
  peer.Write("world");
  EXPECT_EQ(WaitData(5), "world");
  EXPECT_TRUE(record.events.WaitFor([&] { return record.sent == 6; }));
  EXPECT_EQ(threadName, "CN Pool");
  EXPECT_FALSE(TRPSocketSetSend(set, "x", 1, 99));  // unknown tag
}

TEST_F(SocketSetTest, PendingConnectRefusesSendsAndIsCutShortByRemoveAndClose) {
  // A listener whose queue is full drops further attempts: the connect hangs.
  Listener listener(0);
  std::vector<Peer> fillers;
  for (int i = 0; i < 3; i++) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    sockaddr_in address = net_test::Loopback(listener.Port());
    connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    fillers.emplace_back(fd);
  }
  std::this_thread::sleep_for(100ms);
  ASSERT_TRUE(Connect(listener.Port()));
  std::this_thread::sleep_for(300ms);
  ASSERT_EQ(Seen([&] { return record.connected; }), 0);
  EXPECT_FALSE(TRPSocketSetSend(set, "x", 1, 16));
  // Removing a socket whose connect is pending cuts it short and keeps the set.
  ASSERT_TRUE(Connect(listener.Port(), 17));
  EXPECT_TRUE(TRPSocketSetRemoveSocket(set, 16));
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(Seen([&] { return record.reasons; }), std::vector<uint32_t>{});
  EXPECT_TRUE(TRPSocketSetClose(set));
  set = nullptr;
  EXPECT_TRUE(record.reasons.empty());
}

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

TEST_F(SocketSetTest, CloseFromInsideADataCallbackIsDeferredAndTheSetEndsItself) {
  Listener listener;
  record.closeOnData = true;
  ASSERT_TRUE(Connect(listener.Port()));
  Peer peer = listener.Accept();
  peer.Write("x");
  EXPECT_TRUE(peer.WaitForEnd());
  set = nullptr;  // gone with the deferred close; a leak would fail the sanitizer build
  EXPECT_EQ(Seen([&] { return record.closeResults; }), std::vector<bool>{false});
  EXPECT_EQ(Seen([&] { return record.data; }), "x");
  EXPECT_TRUE(Seen([&] { return record.reasons.empty(); }));
  EXPECT_TRUE(log.Contains("Deferring because receive thread"));
  EXPECT_TRUE(log.Contains("Socket set close internal from receive thread"));
}

TEST_F(SocketSetTest, CloseFromInsideTheDisconnectedCallbackLetsTheSetFreeItself) {
  record.closeOnDisconnect = true;
  ASSERT_TRUE(Connect(net_test::ClosedPort()));
  EXPECT_EQ(WaitReasons().size(), 1u);
  set = nullptr;
  EXPECT_EQ(Seen([&] { return record.closeResults; }), std::vector<bool>{false});
}

// Ends the peer's stream while the owner's close holds the set's lock, so that
// the receive thread meets the failure while the close is under way.
void ResetPeerDuringClose(uint32_t, const char *, const char *message, void *peer) {
  if (!strstr(message, "Closing socket properly")) return;
  static_cast<Peer *>(peer)->Reset();
  std::this_thread::sleep_for(20ms);
}

TEST(SocketSetOwnership, OwnerCloseRacingAFailureIsHarmless) {
  Listener listener;
  for (int round = 0; round < 40; round++) {
    Record record;
    TRPSocketSet *set = NewSet(&record);
    ASSERT_TRUE(TRPSocketSetAddSocket(set, "127.0.0.1", 0, listener.Port(), kSocketTypeConnect, 1, false, 0));
    Peer peer = listener.Accept();
    record.events.WaitFor([&] { return record.connected == 1; });
    std::thread sender([&] {
      for (int i = 0; i < 50; i++) TRPSocketSetSend(set, "line\n", 5, 1);
    });
    if (round % 3 == 0) {
      VLLogSetLevel(VLLogLevelVerbose);
      VLLogSetCallback(ResetPeerDuringClose, &peer);
    } else {
      round % 2 ? peer.Reset() : peer.Close();
      std::this_thread::sleep_for(std::chrono::microseconds(round * 50));
    }
    sender.join();
    EXPECT_TRUE(TRPSocketSetClose(set));
    VLLogSetCallback(nullptr, nullptr);
    EXPECT_LE(record.reasons.size(), 1u);
  }
}

TEST_F(SocketSetTest, RemovingOneSocketClosesItAndKeepsTheOthers) {
  Listener listener;
  ASSERT_TRUE(Connect(listener.Port(), 1));
  Peer first = listener.Accept();
  ASSERT_TRUE(Connect(listener.Port(), 2));
  Peer second = listener.Accept();
  ASSERT_TRUE(WaitConnected(2));
  EXPECT_TRUE(TRPSocketSetRemoveSocket(set, 1));
  EXPECT_FALSE(TRPSocketSetRemoveSocket(set, 1));
  EXPECT_TRUE(first.WaitForEnd());
  EXPECT_FALSE(TRPSocketSetSend(set, "x", 1, 1));
  EXPECT_TRUE(TRPSocketSetSend(set, "still", 5, 2));
  EXPECT_EQ(second.Read(5), "still");
  second.Write("back");
  EXPECT_EQ(WaitData(4), "back");
  EXPECT_TRUE(Seen([&] { return record.reasons.empty(); }));
}

// Resolver answers by host text, and the hosts asked for (from the set's own
// lookup thread).
std::mutex g_resolveLock;
std::vector<std::string> g_asked;
std::map<std::string, std::vector<std::string>> g_answers;
uint32_t ScriptedResolve(const char *host, in_addr *addresses, uint32_t capacity) {
  std::lock_guard<std::mutex> guard(g_resolveLock);
  g_asked.push_back(host);
  uint32_t count = 0;
  for (const std::string &text : g_answers[host]) {
    if (count < capacity) inet_pton(AF_INET, text.c_str(), &addresses[count++]);
  }
  return count;
}

std::vector<std::string> AskedOnceSettled(size_t expected) {
  for (int i = 0; i < 100; i++) {
    {
      std::lock_guard<std::mutex> guard(g_resolveLock);
      if (g_asked.size() >= expected) return g_asked;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  std::lock_guard<std::mutex> guard(g_resolveLock);
  return g_asked;
}

TEST(SocketSetResolve, LinkLocalGuardResolvesTheFirstAddressAgain) {
  net_test::LogLines log;
  TRPSocketSetSetResolver(ScriptedResolve);
  struct Case {
    std::vector<std::string> first, second, asked;
  };
  const Case cases[] = {
      {{"169.254.7.7"}, {}, {"pool.test"}},  // one address: no second look
      {{"169.254.7.7", "127.0.0.1"}, {"169.254.7.7"}, {"pool.test", "169.254.7.7"}},
      {{"169.254.7.7", "127.0.0.1"}, {"169.254.7.7", "127.0.0.2"}, {"pool.test", "169.254.7.7"}},
      {{"10.1.2.3", "127.0.0.1"}, {}, {"pool.test"}},
      {{}, {}, {"pool.test"}},
  };
  for (const Case &c : cases) {
    {
      std::lock_guard<std::mutex> guard(g_resolveLock);
      g_asked.clear();
      g_answers = {{"pool.test", c.first}, {"169.254.7.7", c.second}};
    }
    TRPSocketSet *set = nullptr;
    ASSERT_TRUE(TRPSocketSetCreate(&set));
    ASSERT_TRUE(TRPSocketSetAddSocket(set, "pool.test", 0, 9, kSocketTypeConnect, 1, false, 0));
    EXPECT_EQ(AskedOnceSettled(c.asked.size()), c.asked);
    TRPSocketSetClose(set);
  }
  EXPECT_TRUE(log.Contains("Skipping 169 address, trying 127.0.0.2..."));
  EXPECT_TRUE(log.Contains("Cannot resolve pool.test"));
  TRPSocketSetSetResolver(nullptr);
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

TEST_F(SocketSetTest, NamesGoThroughTheSystemResolver) {
  Listener listener;
  ASSERT_TRUE(TRPSocketSetAddSocket(set, "localhost", 0, listener.Port(), kSocketTypeConnect, 3, false, 0));
  EXPECT_TRUE(listener.Accept().Valid());
  EXPECT_TRUE(log.Contains("Resolved to 127.0.0.1.."));
}

}  // namespace
