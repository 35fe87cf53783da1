// The session's reading of every kind of line a pool sends, table by table:
// what a line is, what the session then holds, what it answers and what it
// logs. Lines go in as the receive path delivers them; answers go out over a
// real connection to a loop-back peer.
#include "stratum/message_kind.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>

#include "foundation/build_info.h"
#include "net/json_rpc.h"
#include "net/loopback_peer.h"
#include "stratum/session.h"
#include "stratum/share_verdict.h"
#include "support/log_lines.h"

namespace {

VLJsonRpcMessage *Parse(const std::string &line) {
  return VLJsonRpcMessageParseLine(line.data(), line.size(), nullptr);
}

TEST(PoolMessage, AMethodMakesANotificationWhateverItsIdAndOnlyAnswersGoByTheirId) {
  using K = PoolMessageKind;
  const std::pair<std::string, PoolMessageKind> rows[] = {
      {R"({"id":null,"method":"mining.notify","params":[]})", K::Notify},
      {R"({"method":"mining.notify","params":[]})", K::Notify},
      {R"({"id":4,"method":"mining.notify","params":[]})", K::Notify},
      {R"({"id":0,"method":"mining.set_target","params":[]})", K::SetTarget},
      {R"({"id":7,"method":"mining.set_difficulty","params":[]})", K::SetDifficulty},
      {R"({"id":"x1","method":"mining.set_extranonce","params":[]})", K::SetExtranonce},
      {R"({"id":1,"method":"client.get_version"})", K::GetVersion},
      {R"({"id":null,"method":"client.show_message","params":["hi"]})", K::ShowMessage},
      {R"({"id":3,"method":"mining.ping"})", K::Ping},
      {R"({"id":null,"method":"client.reconnect","params":[]})", K::Reconnect},
      {R"({"id":2,"method":"Mining.Notify","params":[]})", K::OtherMethod},
      {R"({"id":1,"result":[null,"",16],"error":null})", K::SubscribeAnswer},
      {R"({"id":2,"result":true,"error":null})", K::ExtranonceSubscribeAnswer},
      {R"({"jsonrpc":"2.0","id":3,"result":true})", K::AuthorizeAnswer},
      {R"({"id":4,"result":false,"error":null})", K::ShareAnswer},
      {R"({"id":123456789012,"result":true,"error":null})", K::ShareAnswer},
      {R"({"id":0,"result":true,"error":null})", K::StrayAnswer},
      {R"({"id":-4,"result":true,"error":null})", K::StrayAnswer},
      {R"({"id":"4","result":true,"error":null})", K::StrayAnswer},
  };
  for (const auto &[line, kind] : rows) {
    VLJsonRpcMessage *message = Parse(line);
    ASSERT_NE(message, nullptr) << line;
    EXPECT_EQ(StratumClassifyMessage(message), kind) << line;
    VLJsonRpcMessageRelease(message);
  }
}

TEST(PoolMessage, AVerdictGoesByTheErrorsTextFirstAndByItsCodeOnlyWhenTheTextIsEmpty) {
  struct Row {
    std::string answer;
    const char *verdict;  // "accepted" or the reason's label
    int64_t code;
  };
  const Row rows[] = {
      {R"({"id":4,"result":true,"error":null})", "accepted", 0},
      {R"({"jsonrpc":"2.0","id":4,"result":true})", "accepted", 0},
      {R"({"id":4,"result":null,"error":null})", "accepted", 0},
      {R"({"id":4,"result":false,"error":null})", "none_given", 0},
      {R"({"jsonrpc":"2.0","id":4,"result":false})", "none_given", 0},
      {R"({"id":4,"result":null,"error":[21,"Stale job",null]})", "stale", 21},
      {R"({"id":4,"result":null,"error":[21,"Job not found",null]})", "stale", 21},
      {R"({"id":4,"result":null,"error":[21,"low difficulty share",null]})", "low_difficulty", 21},
      {R"({"id":4,"result":null,"error":[23,"Share above target",null]})", "low_difficulty", 23},
      {R"({"jsonrpc":"2.0","id":4,"error":{"code":22,"message":"DUPLICATE share"}})", "duplicate", 22},
      {R"({"id":4,"result":null,"error":{"code":-1,"message":"Unauthorised worker"}})", "unauthorized", -1},
      {R"({"id":4,"result":null,"error":"Stale share"})", "stale", 0},
      {R"({"id":4,"result":null,"error":[21,"",null]})", "stale", 21},
      {R"({"id":4,"result":null,"error":[22," ",null]})", "duplicate", 22},
      {R"({"jsonrpc":"2.0","id":4,"error":{"code":23}})", "low_difficulty", 23},
      {R"({"id":4,"result":null,"error":[24,null,null]})", "unauthorized", 24},
      {R"({"id":4,"result":null,"error":[20,"Invalid nonce",null]})", "other", 20},
      {R"({"id":4,"result":null,"error":[-5,"",null]})", "other", -5},
      {R"({"jsonrpc":"2.0","id":4,"error":{"code":-32601,"message":""}})", "other", -32601},
      {R"({"id":4,"result":null,"error":{}})", "other", 0},
  };
  for (const Row &row : rows) {
    VLJsonRpcMessage *answer = Parse(row.answer);
    ASSERT_NE(answer, nullptr) << row.answer;
    ShareVerdict verdict = StratumReadVerdict(answer);
    EXPECT_EQ(verdict.accepted ? "accepted" : RejectReasonLabel(verdict.reason), std::string(row.verdict))
        << row.answer;
    std::string text;
    int64_t code = 0;
    PoolErrorParts(answer, text, code);
    EXPECT_EQ(code, row.code) << row.answer;
    VLJsonRpcMessageRelease(answer);
  }
}

struct Context final : StratumContext {
  StratumShareCounters counters;
  std::string verdict;
  StratumShareCounters *ShareCounters(uint64_t) override { return &counters; }
  void OnShareAnswered(const PendingShare &share, const ShareVerdict &answer) override {
    verdict = std::to_string(share.id) + ":" + (answer.accepted ? "accepted" : RejectReasonLabel(answer.reason));
  }
};

constexpr double kNow = 100;
const std::string kHash(64, 'a');
const std::string kJob = "\"" + kHash + "\",1,\"" + kHash + "\",true]";
// Targets of difficulty 2 and 4.
const std::string kTarget2 = "\"000000007fff8" + std::string(51, '0') + "\"";
const std::string kTarget4 = "\"000000003fffc" + std::string(51, '0') + "\"";

class SessionLines : public ::testing::Test {
 protected:
  void SetUp() override {
    context.link.clock = [] { return kNow; };
    context.account = "wallet.rig";
    context.password = "x";
    context.poolHost = "127.0.0.1";
    context.poolPort = 3333;
    client = VLJsonRpcClientCreate();
    VLJsonRpcClientSetUserData(client, &context);
    VLJsonRpcClientSetMessageCallback(client, OnStratumMessage);
    connected = false;
    VLJsonRpcClientSetConnectedCallback(client, [](VLJsonRpcClient *, void *) { connected = true; });
    VLRef host(VLStringCreate("127.0.0.1", 0));
    ASSERT_TRUE(VLJsonRpcClientConnectTcp(client, host.get(), listener.Port()));
    peer = std::make_unique<net_test::Peer>(listener.Accept());
    for (int i = 0; i < 1000 && !connected; i++) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_TRUE(connected);
  }
  void TearDown() override { VLJsonRpcClientDestroy(client); }

  // The session as the row found it: in `state`, difficulty 0.5, extranonce1
  // a1a2a3a4 with 12 bytes of extranonce2, job j0; with share `pending`
  // under way unless 0.
  void Reset(uint32_t state, uint64_t pending) {
    context.stratumState = state;
    context.difficulty = 0.5;
    context.extranonce1 = {0xa1, 0xa2, 0xa3, 0xa4};
    context.extranonce2Size = 12;
    auto job = std::make_shared<StratumJob>();
    job->jobId = "j0";
    context.SetCurrentJob(job);
    context.counters.sharesAccepted = 0;
    context.counters.sharesRejected = 0;
    context.verdict = "-";
    StratumLink &link = context.link;
    link.closeAsked = kCloseNone;
    link.reconnectAt = -1;
    link.redirectPort = 0;
    link.messageNotice = link.redirectNotice = {};
    link.pendingShares.clear();
    if (pending) link.pendingShares.push_back({pending, kNow, 0, 0, 0.5, context.LinkNumber()});
  }

  // What the session holds, in one line.
  std::string Outcome() {
    char text[512];
    std::string extranonce;
    for (uint8_t byte : context.extranonce1) {
      char pair[3];
      snprintf(pair, sizeof pair, "%02x", byte);
      extranonce += pair;
    }
    double at = context.link.reconnectAt;
    std::string redirect =
        at < 0 ? "-" : std::to_string(context.link.redirectPort.load()) + "@" + std::to_string(std::lround(at - kNow));
    snprintf(text, sizeof text, "%s d=%g en=%s/%llu job=%s %s close=%u redirect=%s",
             StratumStateName(context.stratumState), context.difficulty, extranonce.c_str(),
             static_cast<unsigned long long>(context.extranonce2Size), context.CurrentJob()->jobId.c_str(),
             context.verdict.c_str(), context.link.closeAsked.load(), redirect.c_str());
    return text;
  }

  // Feeds the lines to the session and returns the first line it sent back,
  // "" for none: a marker sent behind them shows where its answers end.
  // `logged` gets the last line the session logged, "" for none.
  std::string Feed(const std::string &lines, std::string &logged) {
    std::string text = lines + "\n";
    size_t before = log.All().size();
    VLJsonRpcClientReceive(client, reinterpret_cast<const uint8_t *>(text.data()), static_cast<uint32_t>(text.size()));
    std::vector<testing_support::LogLine> lines_logged = log.All();
    logged = lines_logged.size() > before ? lines_logged.back().message : "";
    VLRef method(VLStringCreate("marker", 0));
    VLJsonRpcMessage *marker = VLJsonRpcNotificationCreate(method.get(), VLJsonRpcVersion2);
    VLJsonRpcClientSend(client, marker);
    VLJsonRpcMessageRelease(marker);
    const std::string end = R"({"jsonrpc":"2.0","method":"marker"})";
    std::string all;
    for (int i = 0; i < 50 && all.find(end, received) == std::string::npos; i++) {
      all = peer->Read(all.size() + 1, std::chrono::milliseconds(100));
    }
    size_t at = all.find(end, received);
    EXPECT_NE(at, std::string::npos);
    std::string answers = all.substr(received, at - received);
    received = at + end.size() + 1;
    return answers.substr(0, answers.find('\n'));
  }

  struct Row {
    uint32_t state;
    uint64_t pending;  // the id of a share under way, 0 for none
    std::string lines;
    std::string outcome;
    std::string answer;  // the first line sent back
    std::string logged;  // a part of the last log line, "" for none
  };
  void Check(const Row *rows, size_t count) {
    for (size_t i = 0; i < count; i++) {
      const Row &row = rows[i];
      SCOPED_TRACE(row.lines);
      Reset(row.state, row.pending);
      std::string last;
      EXPECT_EQ(Feed(row.lines, last), row.answer);
      EXPECT_EQ(Outcome(), row.outcome);
      if (row.logged.empty()) {
        EXPECT_EQ(last.rfind("Received Message", 0) == 0 ? "" : last, "");
      } else {
        EXPECT_NE(last.find(row.logged), std::string::npos) << last;
      }
    }
  }

  testing_support::LogLines log{VLLogLevelInfo};
  Context context;
  VLJsonRpcClient *client = nullptr;
  net_test::Listener listener;
  std::unique_ptr<net_test::Peer> peer;
  size_t received = 0;
  static inline std::atomic<bool> connected{false};
};

TEST_F(SessionLines, NotificationsAreTakenWhateverTheirIdAndAnswersOnlyByTheirs) {
  const std::string mining = "Mining d=0.5 en=a1a2a3a4/12 job=j0 - close=0 redirect=-";
  const Row rows[] = {
      {Mining, 0, R"({"id":0,"method":"mining.set_target","params":[)" + kTarget2 + "]}",
       "Mining d=2 en=a1a2a3a4/12 job=j0 - close=0 redirect=-", "", "Setting difficulty to 2.00"},
      {Mining, 0, R"({"id":7,"method":"mining.set_difficulty","params":[4]})",
       "Mining d=4 en=a1a2a3a4/12 job=j0 - close=0 redirect=-", "", "Setting difficulty to 4.00"},
      {Mining, 0, R"({"id":"s","method":"mining.set_extranonce","params":["0a0b0c0d0e",11]})",
       "Mining d=0.5 en=0a0b0c0d0e/11 job=j0 - close=0 redirect=-", "", "Updated extranonce"},
      {Mining, 4, R"({"id":4,"method":"mining.notify","params":["j1",)" + kJob + "}",
       "Mining d=0.5 en=a1a2a3a4/12 job=j1 - close=0 redirect=-", "", ""},
      {Mining, 0, R"({"method":"mining.notify","params":["00a1b2c3d4e5f607",)" + kJob + "}",
       "Mining d=0.5 en=a1a2a3a4/12 job=00a1b2c3d4e5f607 - close=0 redirect=-", "", ""},
      // Answers: each to the share of its id; none to a share not under way.
      {Mining, 4, R"({"id":4,"result":true,"error":null})",
       "Mining d=0.5 en=a1a2a3a4/12 job=j0 4:accepted close=0 redirect=-", "", "Share Accepted!"},
      {Mining, 5, R"({"id":4,"result":true,"error":null})", mining, "", ""},
      {Mining, 0, R"({"id":4,"result":null,"error":[21,"Stale job",null]})", mining, "", ""},
      {Mining, 9, R"({"id":9,"result":false,"error":null})",
       "Mining d=0.5 en=a1a2a3a4/12 job=j0 9:none_given close=0 redirect=-", "", "Share was rejected (none given)"},
      {Mining, 0, R"({"id":2,"result":true,"error":null})", mining, "", ""},
      {Mining, 0, R"({"id":12,"method":"mining.unknown","params":[]})", mining, "", ""},
      // Both target messages: the last one received wins, in either order.
      {Authorizing, 0,
       R"({"id":null,"method":"mining.set_difficulty","params":[4]})"
       "\n"
       R"({"id":0,"method":"mining.set_target","params":[)" +
           kTarget2 + "]}",
       "Authorizing d=2 en=a1a2a3a4/12 job=j0 - close=0 redirect=-", "", "Setting difficulty to 2.00"},
      {Authorizing, 0,
       R"({"id":0,"method":"mining.set_target","params":[)" + kTarget2 +
           "]}\n"
           R"({"id":null,"method":"mining.set_difficulty","params":[4]})",
       "Authorizing d=4 en=a1a2a3a4/12 job=j0 - close=0 redirect=-", "", "Setting difficulty to 4.00"},
      {Authorizing, 0, R"({"id":2,"result":null,"error":[20,"Not supported",null]})",
       "Authorizing d=0.5 en=a1a2a3a4/12 job=j0 - close=0 redirect=-", "", ""},
      {Authorizing, 0, R"({"id":3,"result":true,"error":null})", mining, "", "Stratum state Authorized -> Mining"},
      {Authorizing, 0, R"({"id":3,"result":false,"error":null})",
       "Authorizing d=0.5 en=a1a2a3a4/12 job=j0 - close=1 redirect=-", "",
       "Pool refused authorisation for wallet.rig: no reason given"},
      {Authorizing, 0, R"({"id":3,"result":null,"error":[-3,"Bad \u001b[2J worker",null]})",
       "Authorizing d=0.5 en=a1a2a3a4/12 job=j0 - close=1 redirect=-", "",
       "Pool refused authorisation for wallet.rig: Bad \\u001b[2J worker (-3)"},
  };
  Check(rows, std::size(rows));
}

TEST_F(SessionLines, SubscriptionsInEveryShapeAreTakenAndAnExtranonceThatDoesNotFitEndsTheConnection) {
  const std::string authorize = R"({"jsonrpc":"2.0","id":2,"method":"mining.extranonce.subscribe","params":[]})";
  const std::string kept = "Subscribing d=0.5 en=a1a2a3a4/12 job=j0 - close=2 redirect=-";
  const Row rows[] = {
      {Subscribing, 0, R"({"id":1,"result":[null,"0a0b0c0d0e",11],"error":null})",
       "Authorizing d=0.5 en=0a0b0c0d0e/11 job= - close=0 redirect=-", authorize, "Subscribed -> Authorizing"},
      {Subscribing, 0, R"({"id":1,"result":[[],"",16],"error":null})",
       "Authorizing d=0.5 en=/16 job= - close=0 redirect=-", authorize, "Subscribed -> Authorizing"},
      {Subscribing, 0,
       R"({"id":1,"result":[[["mining.notify","ae6812eb4cd7735a"]],"0102030405060708090a0b",5],"error":null})",
       "Authorizing d=0.5 en=0102030405060708090a0b/5 job= - close=0 redirect=-", authorize,
       "Subscribed -> Authorizing"},
      {Subscribing, 0, R"({"jsonrpc":"2.0","id":1,"result":["5f1c2a3b","c1c2c3c4",12]})",
       "Authorizing d=0.5 en=c1c2c3c4/12 job= - close=0 redirect=-", authorize, "Subscribed -> Authorizing"},
      {Subscribing, 0,
       R"({"id":1,"result":[[["mining.set_difficulty","0.25"],["mining.notify","1"]],"c1c2c3c4",12],"error":null})",
       "Authorizing d=0.25 en=c1c2c3c4/12 job= - close=0 redirect=-", authorize, "Subscribed -> Authorizing"},
      {Subscribing, 0, R"({"id":1,"result":[["mining.set_difficulty",0.125],"c1c2c3c4",12],"error":null})",
       "Authorizing d=0.125 en=c1c2c3c4/12 job= - close=0 redirect=-", authorize, "Subscribed -> Authorizing"},
      {Subscribing, 0, R"({"id":1,"result":[null,"0a0b0c0d0e",12],"error":null})", kept, "",
       "Refused the subscription of extranonce1 \"0a0b0c0d0e\" and extranonce2 size 12: 5 bytes leave no room for "
       "12 bytes of the nonce; reconnecting"},
      {Subscribing, 0, R"({"id":1,"result":[null,"000102030405060708090a0b0c0d0e",1],"error":null})", kept, "",
       "15 bytes leave no room for 5 bytes of the nonce; reconnecting"},
      {Subscribing, 0, R"({"id":1,"result":[null,"zz",4],"error":null})", kept, "",
       "\"zz\" and extranonce2 size 4: not hex"},
      {Subscribing, 0, R"({"id":1,"result":true,"error":null})",
       "Subscribing d=0.5 en=a1a2a3a4/12 job=j0 - close=0 redirect=-", "", "Failed to subscribe"},
      {Subscribing, 0, R"({"id":1,"method":"mining.notify","params":["j1",)" + kJob + "}",
       "Subscribing d=0.5 en=a1a2a3a4/12 job=j0 - close=0 redirect=-", "", ""},
  };
  Check(rows, std::size(rows));
}

TEST_F(SessionLines, PoolRequestsAreAnsweredAndAReconnectIsFollowedOnlyToThePoolsOwnHost) {
  const std::string mining = "Mining d=0.5 en=a1a2a3a4/12 job=j0 - close=0 redirect=";
  const std::string version = std::string("\"ombry-miner/") + OmbryVersion() + "\"";
  const Row rows[] = {
      {Mining, 0, R"({"id":9,"method":"client.get_version","params":[]})", mining + "-",
       R"({"id":9,"result":)" + version + R"(,"error":null})", ""},
      {Mining, 0, R"({"jsonrpc":"2.0","id":"v","method":"client.get_version"})", mining + "-",
       R"({"jsonrpc":"2.0","id":"v","result":)" + version + "}", ""},
      {Subscribing, 0, R"({"id":3,"method":"mining.ping"})",
       "Subscribing d=0.5 en=a1a2a3a4/12 job=j0 - close=0 redirect=-", R"({"id":3,"result":"pong","error":null})", ""},
      {Mining, 0, R"({"id":null,"method":"mining.ping"})", mining + "-", "", ""},
      {Disconnected, 0, R"({"id":5,"method":"mining.ping"})",
       "Disconnected d=0.5 en=a1a2a3a4/12 job=j0 - close=0 redirect=-", "",
       "Ignoring unexpected stratum message mining.ping"},
      {Mining, 0, R"({"id":null,"method":"client.show_message","params":["Pay \u001b[2Jday"]})", mining + "-", "",
       "Message from the pool: Pay \\u001b[2Jday"},
      {Mining, 0, R"({"id":null,"method":"client.show_message","params":[")" + std::string(600, 'm') + "\"]}",
       mining + "-", "", "mmm... (600 bytes)"},
      {Mining, 0, R"({"id":null,"method":"client.reconnect","params":["127.0.0.1",3334,5]})", mining + "3334@5", "",
       "The pool asked to reconnect to 127.0.0.1:3334 in 5 s; following"},
      {Mining, 0, R"({"id":null,"method":"client.reconnect","params":[]})", mining + "3333@0", "",
       "to 127.0.0.1:3333 in 0 s; following"},
      {Mining, 0, R"({"id":null,"method":"client.reconnect","params":["","4444","2"]})", mining + "4444@2", "",
       "to 127.0.0.1:4444 in 2 s; following"},
      {Mining, 0, R"({"id":null,"method":"client.reconnect","params":["evil.example.org",3333,0]})", mining + "-", "",
       "Refused the pool's request to reconnect to evil.example.org:3333: not the pool's own host; mining on"},
      {Mining, 0, R"({"id":null,"method":"client.reconnect","params":["127.0.0.1\u001b[2J",3333]})", mining + "-", "",
       "reconnect to 127.0.0.1\\u001b[2J:3333: not the pool's own host"},
      {Mining, 0, R"({"id":null,"method":"client.reconnect","params":[null,70000]})", mining + "-", "",
       "Refused the pool's request to reconnect: port 70000 is no port; mining on"},
      {Mining, 0, R"({"id":null,"method":"client.reconnect","params":[null,null,86400]})", mining + "-", "",
       "a wait of 86400 s is not 0 to 600 s"},
      {Mining, 0, R"({"id":null,"method":"client.reconnect","params":[7]})", mining + "-", "", "host 7 is no name"},
  };
  Check(rows, std::size(rows));
}

}  // namespace
