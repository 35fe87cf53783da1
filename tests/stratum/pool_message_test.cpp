// The session's reading of every kind of line a pool sends, table by table:
// what a line is, what the session then holds, what it answers and what it
// logs. Lines go in as the receive path delivers them; answers go out over a
// real connection to a loop-back peer.
#include "stratum/message_kind.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "foundation/build_info.h"
#include "net/json_rpc.h"
#include "net/loopback_peer.h"
#include "stratum/session.h"
#include "stratum/share_verdict.h"
#include "support/log_lines.h"
#include "support/wait_until.h"

namespace {

VLJsonRpcMessage *Parse(const std::string &line) {
  return VLJsonRpcMessageParseLine(line.data(), line.size(), nullptr);
}

TEST(PoolMessage, AMethodMakesANotificationWhateverItsIdAndOnlyAnswersGoByTheirId) {
  using K = PoolMessageKind;
  const std::pair<std::string, PoolMessageKind> rows[] = {
      {R"({"id":4,"method":"mining.notify","params":[]})", K::Notify},
      {R"({"id":7,"method":"mining.set_difficulty","params":[]})", K::SetDifficulty},
      {R"({"id":"x1","method":"mining.set_extranonce","params":[]})", K::SetExtranonce},
      {R"({"id":1,"method":"client.get_version"})", K::GetVersion},
      {R"({"id":3,"method":"mining.ping"})", K::Ping},
      {R"({"id":2,"method":"Mining.Notify","params":[]})", K::OtherMethod},
      {R"({"id":2,"result":true,"error":null})", K::ExtranonceSubscribeAnswer},
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
// A target of difficulty 2.
const std::string kTarget2 = "\"000000007fff8" + std::string(51, '0') + "\"";

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
    ASSERT_TRUE(testing_support::WaitUntil([] { return connected.load(); }));
  }
  void TearDown() override { VLJsonRpcClientDestroy(client); }

  // The session as the row finds it: in `state`, difficulty 0.5, extranonce1
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
  std::string Holds() {
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
    snprintf(text, sizeof text, "%s d=%g en=%s/%llu job=%s answer=%s close=%u redirect=%s",
             StratumStateName(context.stratumState), context.difficulty, extranonce.c_str(),
             static_cast<unsigned long long>(context.extranonce2Size), context.CurrentJob()->jobId.c_str(),
             context.verdict.c_str(), context.link.closeAsked.load(), redirect.c_str());
    return text;
  }
  // The parts of what the session holds that differ from `before`, "" for none.
  std::string Changes(const std::string &before) {
    std::istringstream was(before), now(Holds());
    std::string changed, a, b;
    while (was >> a && now >> b) changed += a == b ? "" : (changed.empty() ? "" : " ") + b;
    return changed;
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
    std::string changed;  // what the session holds after, where it differs from before
    std::string answer;   // the first line sent back
    std::string logged;   // a part of the last log line, "" for none
  };
  void Check(const Row *rows, size_t count) {
    for (size_t i = 0; i < count; i++) {
      const Row &row = rows[i];
      SCOPED_TRACE(row.lines);
      Reset(row.state, row.pending);
      const std::string before = Holds();
      std::string last;
      EXPECT_EQ(Feed(row.lines, last), row.answer);
      EXPECT_EQ(Changes(before), row.changed);
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
  const std::string setTarget2 = R"({"id":0,"method":"mining.set_target","params":[)" + kTarget2 + "]}";
  const std::string setDifficulty4 = R"({"id":null,"method":"mining.set_difficulty","params":[4]})";
  const std::string refused = "Pool refused authorisation for wallet.rig: ";
  const Row rows[] = {
      {Mining, 4, R"({"id":4,"method":"mining.notify","params":["j1",)" + kJob + "}", "job=j1", "", ""},
      // Answers: each to the share of its id; none to a share not under way.
      {Mining, 4, R"({"id":4,"result":true,"error":null})", "answer=4:accepted", "", "Share Accepted!"},
      {Mining, 5, R"({"id":4,"result":true,"error":null})", "", "", ""},
      {Mining, 9, R"({"id":9,"result":false,"error":null})", "answer=9:none_given", "",
       "Share was rejected (none given)"},
      {Mining, 0, R"({"id":12,"method":"mining.unknown","params":[]})", "", "", ""},
      // Both target messages: the last one received wins, in either order.
      {Authorizing, 0, setDifficulty4 + "\n" + setTarget2, "d=2", "", "Setting difficulty to 2.00"},
      {Authorizing, 0, setTarget2 + "\n" + setDifficulty4, "d=4", "", "Setting difficulty to 4.00"},
      {Authorizing, 0, R"({"id":2,"result":null,"error":[20,"Not supported",null]})", "", "", ""},
      {Authorizing, 0, R"({"id":3,"result":true,"error":null})", "Mining", "", "Stratum state Authorized -> Mining"},
      {Authorizing, 0, R"({"id":3,"result":false,"error":null})", "close=1", "", refused + "no reason given"},
      {Authorizing, 0, R"({"id":3,"result":null,"error":[-3,"Bad \u001b[2J worker",null]})", "close=1", "",
       refused + "Bad \\u001b[2J worker (-3)"},
  };
  Check(rows, std::size(rows));
}

TEST_F(SessionLines, SubscriptionsInEveryShapeAreTakenAndAnExtranonceThatDoesNotFitEndsTheConnection) {
  const std::string authorize = R"({"jsonrpc":"2.0","id":2,"method":"mining.extranonce.subscribe","params":[]})";
  const std::string subscribed = "Subscribed -> Authorizing";
  const Row rows[] = {
      {Subscribing, 0, R"({"id":1,"result":[[],"",16],"error":null})", "Authorizing en=/16 job=", authorize,
       subscribed},
      {Subscribing, 0,
       R"({"id":1,"result":[[["mining.notify","ae6812eb4cd7735a"]],"0102030405060708090a0b",5],"error":null})",
       "Authorizing en=0102030405060708090a0b/5 job=", authorize, subscribed},
      {Subscribing, 0,
       R"({"id":1,"result":[[["mining.set_difficulty","0.25"],["mining.notify","1"]],"c1c2c3c4",12],"error":null})",
       "Authorizing d=0.25 en=c1c2c3c4/12 job=", authorize, subscribed},
      {Subscribing, 0, R"({"id":1,"result":[["mining.set_difficulty",0.125],"c1c2c3c4",12],"error":null})",
       "Authorizing d=0.125 en=c1c2c3c4/12 job=", authorize, subscribed},
      {Subscribing, 0, R"({"id":1,"result":[null,"0a0b0c0d0e",12],"error":null})", "close=2", "",
       "Refused the subscription of extranonce1 \"0a0b0c0d0e\" and extranonce2 size 12: 5 bytes leave no room for "
       "12 bytes of the nonce; reconnecting"},
      {Subscribing, 0, R"({"id":1,"result":[null,"zz",4],"error":null})", "close=2", "",
       "\"zz\" and extranonce2 size 4: not hex"},
      {Subscribing, 0, R"({"id":1,"result":true,"error":null})", "", "", "Failed to subscribe"},
      {Subscribing, 0, R"({"id":1,"method":"mining.notify","params":["j1",)" + kJob + "}", "", "", ""},
  };
  Check(rows, std::size(rows));
}

TEST_F(SessionLines, PoolRequestsAreAnsweredAndAReconnectIsFollowedOnlyToThePoolsOwnHost) {
  const std::string version = std::string("\"ombry-miner/") + OmbryVersion() + "\"";
  const std::string reconnect = R"({"id":null,"method":"client.reconnect","params":)";
  const std::string refused = "Refused the pool's request to reconnect";
  const Row rows[] = {
      {Mining, 0, R"({"id":9,"method":"client.get_version","params":[]})", "",
       R"({"id":9,"result":)" + version + R"(,"error":null})", ""},
      {Mining, 0, R"({"jsonrpc":"2.0","id":"v","method":"client.get_version"})", "",
       R"({"jsonrpc":"2.0","id":"v","result":)" + version + "}", ""},
      {Subscribing, 0, R"({"id":3,"method":"mining.ping"})", "", R"({"id":3,"result":"pong","error":null})", ""},
      {Mining, 0, R"({"id":null,"method":"mining.ping"})", "", "", ""},
      {Disconnected, 0, R"({"id":5,"method":"mining.ping"})", "", "",
       "Ignoring unexpected stratum message mining.ping"},
      {Mining, 0, R"({"id":null,"method":"client.show_message","params":["Pay \u001b[2Jday"]})", "", "",
       "Message from the pool: Pay \\u001b[2Jday"},
      {Mining, 0, R"({"id":null,"method":"client.show_message","params":[")" + std::string(600, 'm') + "\"]}", "", "",
       "mmm... (600 bytes)"},
      {Mining, 0, reconnect + R"(["127.0.0.1",3334,5]})", "redirect=3334@5", "",
       "The pool asked to reconnect to 127.0.0.1:3334 in 5 s; following"},
      {Mining, 0, reconnect + "[]}", "redirect=3333@0", "", "to 127.0.0.1:3333 in 0 s; following"},
      {Mining, 0, reconnect + R"(["","4444","2"]})", "redirect=4444@2", "", "to 127.0.0.1:4444 in 2 s; following"},
      {Mining, 0, reconnect + R"(["evil\u001b[2J.example.org",3333,0]})", "", "",
       refused + " to evil\\u001b[2J.example.org:3333: not the pool's own host; mining on"},
      {Mining, 0, reconnect + "[null,70000]}", "", "", refused + ": port 70000 is no port; mining on"},
      {Mining, 0, reconnect + "[null,null,86400]}", "", "", "a wait of 86400 s is not 0 to 600 s"},
      {Mining, 0, reconnect + "[7]}", "", "", "host 7 is no name"},
  };
  Check(rows, std::size(rows));
}

// Values from the pool as the session takes them in: what the miner can't
// mine with is refused with one warning that names it, and the last good
// value stays; what it can is taken, exponents and all.
class PoolValuesTest : public SessionLines {
 protected:
  static std::string Notification(const std::string &method, const std::string &params) {
    return R"({"id":null,"method":")" + method + R"(","params":)" + params + "}";
  }
  void Send(const std::string &method, const std::string &params) {
    std::string logged;
    Feed(Notification(method, params), logged);
  }
};

TEST_F(PoolValuesTest, WhatCannotBeMinedWithIsRefusedByNameAndTheLastGoodValueStays) {
  const std::pair<std::string, std::string> cases[] = {
      {"mining.set_difficulty [-1]",
       "Refused difficulty -1 from the pool: not a finite number above zero; keeping 0.5"},
      {"mining.set_difficulty [0]", "Refused difficulty 0 from the pool: not a finite number above zero"},
      {"mining.set_difficulty [1e-400]", "Refused difficulty 0 from the pool: not a finite number above zero"},
      {"mining.set_difficulty [2e-10]",
       "Refused difficulty 2e-10 from the pool: so small that its target exceeds 256 bits"},
      {"mining.set_difficulty [\"8\"]", "Refused difficulty \"8\" from the pool: not a number"},
      {"mining.set_difficulty [true]", "Refused difficulty true from the pool: not a number"},
      {"mining.set_target [\"" + std::string(64, '0') + "\"]",
       "Refused target \"" + std::string(64, '0') + "\" from the pool: all zeros; keeping difficulty 0.5"},
      {"mining.set_target [\"" + std::string(64, 'f') + "\"]",
       "from the pool: so small that its target exceeds 256 bits"},
      {"mining.set_target [\"0g" + std::string(62, '0') + "\"]", "from the pool: not hex"},
      {"mining.set_target [\"" + std::string(62, '0') + "\"]", "from the pool: not 64 hex digits"},
      {"mining.set_extranonce [\"" + std::string(34, '1') + "\",4]",
       "Refused extranonce1 \"" + std::string(34, '1') +
           "\" from the pool: 17 bytes leave no room for 5 bytes of the nonce; keeping \"a1a2a3a4\""},
      {"mining.set_extranonce [\"" + std::string(24, '1') + "\",4]", "12 bytes leave no room for 5 bytes"},
      {"mining.set_extranonce [\"1111\",15]", "2 bytes leave no room for 15 bytes of the nonce"},
      {"mining.set_extranonce [\"111\",4]", "an odd number of hex digits"},
      {"mining.set_extranonce [\"1111\",-4]", "an extranonce2 size of -4 bytes"},
      {"mining.notify [\"j1\",\"zz" + kHash.substr(2) + "\",1,\"" + kHash + "\",true]",
       "Refused job \"j1\" from the pool: header hash \"zz" + kHash.substr(2) + "\" is not hex; keeping job \"j0\""},
      {"mining.notify [\"j1\",\"" + kHash + "\",1,\"" + kHash + "00\",true]",
       "Refused job \"j1\" from the pool: previous hash \"" + kHash + "00\" is not 64 hex digits"},
      {"mining.notify [7," + kJob, "Refused job 7 from the pool: no job id; keeping job \"j0\""},
      {"mining.notify [\"\"," + kJob, "Refused job \"\" from the pool: no job id"},
      {"mining.notify [\"j 1\"," + kJob, "characters that can't be sent back"},
      {"mining.notify [\"" + std::string(129, 'j') + "\"," + kJob, "a job id of over 128 characters"},
  };
  std::vector<Row> rows;
  for (const auto &[message, warning] : cases) {
    size_t space = message.find(' ');
    rows.push_back({Mining, 0, Notification(message.substr(0, space), message.substr(space + 1)), "", "", warning});
  }
  Check(rows.data(), rows.size());
  size_t warnings = 0;
  for (const auto &line : log.All())
    warnings += line.level == VLLogLevelWarning && line.message.rfind("Refused ", 0) == 0;
  EXPECT_EQ(warnings, std::size(cases));
}

TEST_F(PoolValuesTest, GoodValuesAreTakenAsTheNumbersTheyAre) {
  Reset(Mining, 0);
  Send("mining.set_difficulty", "[1e-05]");
  EXPECT_EQ(context.difficulty, 1e-05);
  Send("mining.set_difficulty", "[2.5E+3]");
  EXPECT_EQ(context.difficulty, 2500);
  Send("mining.set_target", "[\"0x00000000ffff" + std::string(52, '0') + "\"]");
  EXPECT_EQ(context.difficulty, 1);
  Send("mining.set_extranonce", "[\"0102030405060708090a0b\",5]");
  EXPECT_EQ(context.extranonce1.size(), 11u);
  Send("mining.notify", "[\"j~1\",\"0x" + kHash + "\",null,\"" + kHash + "\",true]");
  EXPECT_EQ(context.CurrentJob()->jobId, "j~1");
  EXPECT_EQ(context.CurrentJob()->difficulty, 1);
  EXPECT_EQ(context.CurrentJob()->extranonce.size(), 11u);  // the new extranonce
  const std::string longest(128, 'j');
  Send("mining.notify", "[\"" + longest + "\",\"" + kHash + "\",null,\"" + kHash + "\",true]");
  EXPECT_EQ(context.CurrentJob()->jobId, longest);
  EXPECT_EQ(log.Count("Refused"), 0u);
}

}  // namespace
