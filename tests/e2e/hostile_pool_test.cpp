// A pool, or someone on the path to it, sends hostile lines into a mining
// session: floods of keys, huge strings, values the miner can't mine with,
// terminal escapes. The miner lives, says what it refused, mines on after
// each line within 200 MB, and neither its screen nor its log carries a raw
// escape byte or the pool password.
#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>

#include "e2e/miner_run.h"

namespace e2e {
namespace {

constexpr const char *kPassword = "Pa55-s3cret";

std::string KeyFlood(size_t keys) {
  std::string params = "{";
  for (size_t i = 0; i < keys; i++) params += (i ? ",\"k" : "\"k") + std::to_string(i) + "\":0";
  return R"({"id":null,"method":"mining.noise","params":)" + params + "}}";
}

std::string Notification(const std::string &method, const std::string &params) {
  return R"({"id":null,"method":")" + method + R"(","params":)" + params + "}";
}

const std::string kHash(64, 'a');

// Resident peak of a process, in KiB; 0 when it can't be read.
uint64_t PeakKiB(int pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmHWM:", 0) == 0) return std::strtoull(line.c_str() + 6, nullptr, 10);
  }
  return 0;
}

TEST(HostilePool, NoLineExhaustsStopsOrFoolsTheRig) {
  struct Line {
    const char *name;
    std::string bytes;
    const char *told;  // what the miner says about it; empty: nothing in particular
  };
  const Line lines[] = {
      {"45,000 keys", KeyFlood(45000), ""},
      {"60,000 keys", KeyFlood(60000), "more than 100,000 values"},
      {"a string of a million bytes", Notification("client.show_message", "[\"" + std::string(1000000, 'x') + "\"]"),
       ""},
      {"a line over 1 MiB", Notification("client.show_message", "[\"" + std::string(1100000, 'x') + "\"]"),
       "over 1048576 bytes"},
      {"difficulty -1", Notification("mining.set_difficulty", "[-1]"),
       "Refused difficulty -1 from the pool: not a finite number above zero; keeping 0.0002"},
      {"difficulty 1e-300", Notification("mining.set_difficulty", "[1e-300]"),
       "Refused difficulty 1e-300 from the pool: so small that its target exceeds 256 bits"},
      {"all-zero target", Notification("mining.set_target", "[\"" + std::string(64, '0') + "\"]"),
       "from the pool: all zeros; keeping difficulty 0.0002"},
      {"header hash not hex",
       Notification("mining.notify", "[\"evil1\",\"zz" + kHash.substr(2) + "\",1,\"" + kHash + "\",true]"),
       "Refused job \"evil1\" from the pool: header hash \"zz"},
      {"extranonce1 of 17 bytes", Notification("mining.set_extranonce", "[\"" + std::string(34, '1') + "\",4]"),
       "Refused extranonce1 \"1111"},
      {"raw escapes in a method",
       "{\"id\":null,\"method\":\"\x1b[2J\x1b]0;pwned\x07\rI/Miner        : Share Accepted!\",\"params\":[]}",
       "Received Message: {\"id\":null,\"method\":\"\\u001b[2J\\u001b]0;pwned\\u0007\\u000dI/Miner"},
      {"escaped escapes in a method",
       Notification("\\u001b[2J\\u001b]0;pwned\\u0007\\r\\nI/Miner        : Share Accepted!", "[]"), ""},
  };
  miner_testing::ScratchDir inject;
  const char *capped = "xdma0 model=7 ratecap=1\nxdma1 model=2 ratecap=1\n";
  MinerRun run(capped, {"--difficulty", "0.0002", "--notify-interval", "2", "--seed", "7", "--inject-dir",
                        inject.Path().string()});
  run.password = kPassword;
  run.environment.push_back("NO_COLOR=1");
  std::filesystem::path logFile = run.WorkDir() / "miner.log";
  // Verbose: the raw lines are where an escape would show.
  ASSERT_TRUE(run.Start({"--log-file", logFile.string(), "--verbose"}));
  ASSERT_TRUE(run.Until([&] { return run.Pool("accepted") >= 2; })) << run.Output();

  int number = 0;
  for (const Line &line : lines) {
    SCOPED_TRACE(line.name);
    ASSERT_EQ(line.bytes.find('\n'), std::string::npos);
    size_t from = run.Output().size();
    uint64_t accepted = run.Pool("accepted");
    std::ofstream(inject.Path() / "next", std::ios::binary) << line.bytes;
    std::filesystem::rename(inject.Path() / "next", inject.Path() / (std::to_string(100 + number++) + ".line"));
    ASSERT_TRUE(run.Until([&] { return run.Pool("injected") == static_cast<uint64_t>(number); }));
    if (*line.told) {
      EXPECT_TRUE(run.Until([&] { return run.Output().find(line.told, from) != std::string::npos; }))
          << run.Output().substr(from, 4000);
    }
    // Mining goes on, on jobs the pool knows, at a difficulty it set.
    EXPECT_TRUE(run.Until([&] { return run.Pool("accepted") >= accepted + 2; })) << run.Output().substr(from, 4000);
  }
  EXPECT_EQ(WrongfullyRejected(run.PoolProcess()), 0u) << run.PoolProcess().Stats();
  // A dropped line names the pool it came from.
  EXPECT_GE(run.Count("Dropped a line from 127.0.0.1:" + std::to_string(run.PoolProcess().Port()) + ": "), 2u);
  uint64_t peak = PeakKiB(run.Child().Pid());
  EXPECT_GT(peak, 0u);
#if !defined(OMBRY_SANITIZE_ADDRESS) && !defined(OMBRY_SANITIZE_THREAD)
  // A sanitizer's shadow memory and quarantine would be counted too.
  EXPECT_LT(peak, 200u * 1024) << "peak " << peak << " KiB";
#endif

  EXPECT_EQ(run.Quit(), 0);
  std::string log = ReadFile(logFile);
  EXPECT_NE(log.find("Share Accepted!"), std::string::npos);
  for (const std::string *text : {&run.Output(), static_cast<const std::string *>(&log)}) {
    EXPECT_EQ(text->find(kPassword), std::string::npos);
    EXPECT_EQ(text->find('\x1b'), std::string::npos);
    EXPECT_EQ(text->find('\x07'), std::string::npos);
  }
  EXPECT_NE(log.find(R"("mining.authorize","params":["wallet.rig","***"])"), std::string::npos);
  // The pool got the password as it was given.
  bool sent = false;
  for (const std::string &line : run.PoolProcess().ClientLines()) sent |= line.find(kPassword) != std::string::npos;
  EXPECT_TRUE(sent);
}

}  // namespace
}  // namespace e2e
