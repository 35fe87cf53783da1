#include "net/json_rpc.h"

#include <gtest/gtest.h>
#include <netinet/tcp.h>

#include <string>
#include <vector>

#include "foundation/json.h"
#include "loopback_peer.h"
#include "net/socket_set_record.h"
#include "net/tls_link.h"

namespace {

using net_test::Listener;
using net_test::Peer;

VLRef Text(const char *text) { return VLRef(VLStringCreate(text, 0)); }

// The message's text; the message is released.
std::string Wire(VLJsonRpcMessage *message) {
  VLRef line(message ? VLJsonRpcMessageSerialize(message) : nullptr);
  VLJsonRpcMessageRelease(message);
  return line ? VLStringChars(line.get()) : "(null)";
}

VLJsonRpcMessage *Parse(const std::string &line) {
  VLRef data(VLDataCreate(line.data(), static_cast<uint32_t>(line.size())));
  return VLJsonRpcMessageParse(data.get());
}

TEST(JsonRpcParse, MessagesAreRecognisedByTheirMembersAndKeepWhatTheirVersionCarries) {
  // Each line and the message it makes, as that message is written again.
  const std::pair<const char *, const char *> cases[] = {
      {"{\"id\":1,\"method\":\"m\",\"result\":true}", "{\"id\":1,\"method\":\"m\",\"params\":[]}\n"},
      {"{\"id\":null,\"method\":\"n\",\"params\":[\"a\"]}", "{\"id\":null,\"method\":\"n\",\"params\":[\"a\"]}\n"},
      {"{\"jsonrpc\":\"2.0\",\"method\":\"n\"}", "{\"jsonrpc\":\"2.0\",\"method\":\"n\"}\n"},
      {"{\"id\":2,\"result\":true,\"error\":null}\r", "{\"id\":2,\"result\":true,\"error\":null}\n"},
      {"{\"id\":2,\"result\":null,\"error\":[21,\"stale\",null]}",
       "{\"id\":2,\"error\":[21,\"stale\",null],\"result\":null}\n"},
      {"{\"id\":1,\"error\":{\"message\":\"no\",\"code\":-3}}",
       "{\"id\":1,\"error\":{\"message\":\"no\",\"code\":-3},\"result\":null}\n"},
      {"{\"jsonrpc\":\"2.0\",\"id\":1,\"error\":{\"data\":[1],\"message\":\"no\",\"code\":-3}}",
       "{\"jsonrpc\":\"2.0\",\"id\":1,\"error\":{\"code\":-3,\"message\":\"no\",\"data\":[1]}}\n"},
      {"{\"jsonrpc\":\"2.0\",\"id\":1,\"error\":\"text\"}", "{\"jsonrpc\":\"2.0\",\"id\":1,\"error\":{\"code\":0}}\n"},
      {"{\"id\":2,\"foo\":1}", "(null)"},
      {"{\"id\":null,\"result\":true}", "(null)"},
      {"{\"result\":true}", "(null)"},
      {"{\"id\":1.5,\"method\":\"m\",\"params\":[1]}", "(null)"},
      {"{\"id\":3,\"method\":4}", "(null)"},
      {"[1,2]", "(null)"},
      {"garbage", "(null)"},
      {"", "(null)"},
  };
  for (const auto &[line, wire] : cases) EXPECT_EQ(Wire(Parse(line)), wire) << line;

  // A JSON null result is a null value; an absent one is nothing.
  VLJsonRpcMessage *nullResult = Parse("{\"id\":1,\"result\":null,\"error\":null}");
  VLJsonRpcMessage *noResult = Parse("{\"id\":1,\"error\":null}");
  EXPECT_EQ(VLObjectType(VLJsonRpcMessageResult(nullResult)), VLTypeNull);
  EXPECT_EQ(VLJsonRpcMessageResult(noResult), nullptr);
  VLJsonRpcMessageRelease(nullResult);
  VLJsonRpcMessageRelease(noResult);
}

// The messages a client without a connection delivers from `stream` read in
// pieces that end at `cuts`, each as it would be sent again.
std::vector<std::string> Deliver(const std::string &stream, const std::vector<size_t> &cuts,
                                 uint64_t *dropped = nullptr) {
  std::vector<std::string> delivered;
  VLJsonRpcClient *client = VLJsonRpcClientCreate();
  VLJsonRpcClientSetUserData(client, &delivered);
  VLJsonRpcClientSetMessageCallback(client, [](VLJsonRpcClient *, VLJsonRpcMessage *message, void *user) {
    VLRef line(VLJsonRpcMessageSerialize(message));
    static_cast<std::vector<std::string> *>(user)->push_back(VLStringChars(line.get()));
  });
  size_t from = 0;
  for (size_t cut : cuts) {
    VLJsonRpcClientReceive(client, reinterpret_cast<const uint8_t *>(stream.data()) + from,
                           static_cast<uint32_t>(cut - from));
    from = cut;
  }
  if (dropped) *dropped = VLJsonRpcClientDroppedLines(client);
  VLJsonRpcClientDestroy(client);
  return delivered;
}

// A client on the line transport, with what its callbacks saw.
struct ClientRecord {
  net_test::Events events;
  int connected = 0;
  int disconnected = 0;
  std::vector<std::string> lines;  // each message as it would be sent again
  std::string keepAlive;           // on, idle, interval, count, as the connected callback found them
  std::function<void(VLJsonRpcClient *)> onConnected;
  std::function<void(VLJsonRpcClient *)> onMessage;
};

void ClientConnected(VLJsonRpcClient *client, void *user) {
  auto *record = static_cast<ClientRecord *>(user);
  int fd = TRPSocketSetFindTag(client->socketSet, kVLJsonRpcSocketTag)->fd;
  std::string keepAlive;
  for (auto [level, name] : {std::pair{SOL_SOCKET, SO_KEEPALIVE},
                             {IPPROTO_TCP, TCP_KEEPIDLE},
                             {IPPROTO_TCP, TCP_KEEPINTVL},
                             {IPPROTO_TCP, TCP_KEEPCNT}}) {
    int value = -1;
    socklen_t length = sizeof value;
    getsockopt(fd, level, name, &value, &length);
    keepAlive += std::to_string(value) + " ";
  }
  if (record->onConnected) record->onConnected(client);
  record->events.Update([&] {
    record->connected++;
    record->keepAlive = keepAlive;
  });
}
void ClientDisconnected(VLJsonRpcClient *, void *user) {
  auto *record = static_cast<ClientRecord *>(user);
  record->events.Update([&] { record->disconnected++; });
}
void ClientMessage(VLJsonRpcClient *client, VLJsonRpcMessage *message, void *user) {
  auto *record = static_cast<ClientRecord *>(user);
  VLRef line(VLJsonRpcMessageSerialize(message));
  record->events.Update([&] { record->lines.emplace_back(VLStringChars(line.get())); });
  if (record->onMessage) record->onMessage(client);
}

class JsonRpcClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    client = VLJsonRpcClientCreate();
    VLJsonRpcClientSetUserData(client, &record);
    VLJsonRpcClientSetConnectedCallback(client, ClientConnected);
    VLJsonRpcClientSetDisconnectedCallback(client, ClientDisconnected);
    VLJsonRpcClientSetMessageCallback(client, ClientMessage);
  }
  void TearDown() override { VLJsonRpcClientDestroy(client); }
  Peer Connect() {
    EXPECT_TRUE(VLJsonRpcClientConnectTcp(client, Text("127.0.0.1").get(), listener.Port()));
    Peer peer = listener.Accept();
    EXPECT_TRUE(record.events.WaitFor([&] { return record.connected == 1; }));
    return peer;
  }

  net_test::LogLines log;
  Listener listener;
  ClientRecord record;
  VLJsonRpcClient *client = nullptr;
};

std::string Result(int id) { return "{\"id\":" + std::to_string(id) + ",\"result\":true,\"error\":null}\n"; }

// A secret parameter goes out as it is and is logged as ***.
TEST_F(JsonRpcClientTest, ConnectTurnsKeepAliveOnAndSendsExactLines) {
  record.onConnected = [](VLJsonRpcClient *c) {
    VLJsonRpcMessage *authorize =
        VLJsonRpcRequestCreate(VLRef(VLNumberCreateUInt32(3)).get(), Text("mining.authorize").get(), 0);
    VLJsonRpcMessageAddParam(authorize, Text("w.rig").get());
    VLJsonRpcMessageAddParam(authorize, Text("s3cret").get());
    VLJsonRpcMessageSetSecretParam(authorize, 1);
    VLJsonRpcClientSend(c, authorize);
    VLJsonRpcMessageRelease(authorize);
  };
  Peer peer = Connect();
  const std::string authorize = "{\"id\":3,\"method\":\"mining.authorize\",\"params\":[\"w.rig\",\"s3cret\"]}\n";
  EXPECT_EQ(peer.Read(authorize.size()), authorize);
  EXPECT_EQ(record.keepAlive, "1 5 1 10 ");
  // Raw lines are verbose: the default level (Info) does not show them.
  EXPECT_TRUE(log.Has("VLJSONRPC", "Sending {\"id\":3,\"method\":\"mining.authorize\",\"params\":[\"w.rig\",\"***\"]}",
                      VLLogLevelVerbose));
  EXPECT_EQ(log.Count("s3cret"), 0u);
}

// The receive path on its own: the same bytes give the same messages however
// they are cut into reads, and a line over the limit is dropped once.
TEST(JsonRpcFraming, TheSameMessagesWhereverTheReadsAreCut) {
  const std::string overlong = "{\"id\":9,\"result\":\"" + std::string(kVLJsonRpcMaxLineBytes, 'b') + "\"}\n";
  const std::string stream =
      Result(1) + "not json\n" + "{\"id\":2,\"result\":[1,2],\"error\":null}\r\n" + overlong + "\n" + Result(3);
  const std::vector<std::string> expected = {Result(1), "{\"id\":2,\"result\":[1,2],\"error\":null}\n", Result(3)};
  net_test::LogLines log;
  EXPECT_EQ(Deliver(stream, {stream.size()}), expected);
  size_t overlongAt = stream.find(overlong);
  for (size_t step : {size_t{1}, size_t{7}, size_t{4096}, size_t{65536}}) {
    std::vector<size_t> cuts;
    for (size_t at = 0; at < overlongAt; at += step) cuts.push_back(at);
    // The overlong line in large pieces, then byte by byte again.
    for (size_t at = overlongAt; at < overlongAt + overlong.size(); at += 65536) cuts.push_back(at);
    for (size_t at = overlongAt + overlong.size(); at < stream.size(); at += step) cuts.push_back(at);
    cuts.push_back(stream.size());
    EXPECT_EQ(Deliver(stream, cuts), expected) << "reads of " << step;
  }
  EXPECT_EQ(log.Count("Dropped a line from the peer: over 1048576 bytes"), 5u);  // one warning a feed, however cut
}

// Only JSON objects within the limits are read; every other line is dropped
// and counted, and each reason is told once however many lines it takes.
TEST(JsonRpcFraming, LinesThatAreNoJsonObjectOrPastALimitAreDroppedCountedAndToldOnce) {
  const std::string deep = "{\"id\":4,\"error\":" + std::string(65, '[') + std::string(65, ']') + "}\n";
  std::string flood = "{\"id\":5,\"result\":[0";
  for (int i = 0; i < 100000; i++) flood += ",0";
  flood += "]}\n";
  const std::string stream = "bplist00\xd1\x01\x02\n<plist><dict/></plist>\n[1,2]\n{\"id\":1,\"result\":true} 2\n" +
                             deep + deep + flood + " \r\n" + Result(6);
  net_test::LogLines log;
  uint64_t dropped = 0;
  EXPECT_EQ(Deliver(stream, {stream.size()}, &dropped), std::vector<std::string>{Result(6)});
  EXPECT_EQ(dropped, 7u);
  EXPECT_EQ(log.Count("Dropped a line from the peer: not a JSON object"), 1u);
  EXPECT_EQ(log.Count("Dropped a line from the peer: nested deeper than 64 levels"), 1u);
  EXPECT_EQ(log.Count("Dropped a line from the peer: more than 100,000 values"), 1u);
  EXPECT_EQ(log.Count("Dropped"), 3u);
}

TEST_F(JsonRpcClientTest, LossIsReportedOnceAndDestroyAfterItIsHarmless) {
  Peer peer = Connect();
  peer.Close();
  EXPECT_TRUE(record.events.WaitFor([&] { return record.disconnected == 1; }));
  VLJsonRpcMessage *late = VLJsonRpcNotificationCreate(Text("late").get(), 0);
  EXPECT_FALSE(VLJsonRpcClientSend(client, late));  // a dead connection takes nothing
  VLJsonRpcMessageRelease(late);
  VLJsonRpcClientDestroy(client);
  client = nullptr;
  EXPECT_EQ(record.disconnected, 1);
}

// A peer that answers the TLS handshake in plain text: one line naming the
// peer and the reason, one loss and no connection; the owner may destroy
// the client as soon as it hears of the loss.
TEST_F(JsonRpcClientTest, ARefusedTlsHandshakeIsOneLossAndOneLine) {
  net_test::LogLines log;
  TlsSettings settings;
  settings.serverName = "127.0.0.1";
  ASSERT_TRUE(VLJsonRpcClientConnectTls(client, Text("127.0.0.1").get(), listener.Port(), settings));
  Peer peer = listener.Accept();
  EXPECT_FALSE(peer.Read(1).empty());  // the client's first flight
  peer.Write("HTTP/1.0 400 Bad Request\r\n\r\n");
  ASSERT_TRUE(record.events.WaitFor([&] { return record.disconnected == 1; }));
  VLJsonRpcClientDestroy(client);
  client = nullptr;
  EXPECT_EQ(record.connected, 0);
  EXPECT_EQ(record.disconnected, 1);
  EXPECT_EQ(log.Count("TLS with 127.0.0.1:" + std::to_string(listener.Port()) + " failed: "), 1u);
}

TEST_F(JsonRpcClientTest, DestroyFromInsideTheMessageCallbackEndsTheConnection) {
  record.onMessage = [](VLJsonRpcClient *c) { VLJsonRpcClientDestroy(c); };
  Peer peer = Connect();
  peer.Write(Result(1) + Result(2));
  EXPECT_TRUE(peer.WaitForEnd());
  client = nullptr;
  EXPECT_TRUE(record.events.WaitFor([&] { return !record.lines.empty(); }));
  EXPECT_EQ(record.events.Get([&] { return record.lines.size(); }), 1u);  // the second line of the read isn't delivered
  EXPECT_EQ(record.events.Get([&] { return record.disconnected; }), 0);
}

}  // namespace
