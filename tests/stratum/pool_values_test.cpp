// Values from the pool as the session takes them in: what the miner can't
// mine with is refused with one warning that names it, and the last good
// value stays; what it can is taken, exponents and all.
#include "stratum/pool_values.h"

#include <gtest/gtest.h>

#include <string>

#include "net/json_rpc.h"
#include "stratum/session.h"
#include "support/log_lines.h"

namespace {

struct Context final : StratumContext {
  StratumShareCounters counters;
  StratumShareCounters *ShareCounters(uint64_t) override { return &counters; }
};

const std::string kHash(64, 'a');

class PoolValuesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    context.account = "wallet.rig";
    context.password = "x";
    context.stratumState = Mining;
    context.difficulty = 0.5;
    context.extranonce1 = {0xa1, 0xa2, 0xa3, 0xa4};
    context.extranonce2Size = 12;
    auto job = std::make_shared<StratumJob>();
    job->jobId = "j0";
    context.SetCurrentJob(job);
    client = VLJsonRpcClientCreate();
    VLJsonRpcClientSetUserData(client, &context);
    VLJsonRpcClientSetMessageCallback(client, OnStratumMessage);
  }
  void TearDown() override { VLJsonRpcClientDestroy(client); }

  void Send(const std::string &method, const std::string &params) {
    std::string line = R"({"id":null,"method":")" + method + R"(","params":)" + params + "}\n";
    VLJsonRpcClientReceive(client, reinterpret_cast<const uint8_t *>(line.data()), static_cast<uint32_t>(line.size()));
  }
  // The session's values as one line, to see that a refusal changed nothing.
  std::string Values() {
    std::string text = std::to_string(context.difficulty) + " " + std::to_string(context.extranonce2Size) + " ";
    for (uint8_t byte : context.extranonce1) text += std::to_string(byte) + ".";
    return text + " " + context.CurrentJob()->jobId;
  }

  testing_support::LogLines log{VLLogLevelInfo};
  Context context;
  VLJsonRpcClient *client = nullptr;
};

TEST_F(PoolValuesTest, WhatCannotBeMinedWithIsRefusedByNameAndTheLastGoodValueStays) {
  const std::string job = "\"" + kHash + "\",1,\"" + kHash + "\",true]";
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
      {"mining.notify [7," + job, "Refused job 7 from the pool: no job id; keeping job \"j0\""},
      {"mining.notify [\"\"," + job, "Refused job \"\" from the pool: no job id"},
      {"mining.notify [\"j 1\"," + job, "characters that can't be sent back"},
      {"mining.notify [\"" + std::string(129, 'j') + "\"," + job, "a job id of over 128 characters"},
  };
  const std::string before = Values();
  for (const auto &[message, warning] : cases) {
    size_t space = message.find(' ');
    size_t lines = log.All().size();
    Send(message.substr(0, space), message.substr(space + 1));
    std::vector<testing_support::LogLine> all = log.All();
    ASSERT_GT(all.size(), lines) << message;
    EXPECT_NE(all.back().message.find(warning), std::string::npos) << all.back().message;
    EXPECT_EQ(all.back().level, VLLogLevelWarning);
    EXPECT_EQ(Values(), before) << message;
  }
  EXPECT_EQ(log.Count("Refused"), std::size(cases));
}

TEST_F(PoolValuesTest, GoodValuesAreTakenAsTheNumbersTheyAre) {
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
