// Backup pools and TLS: the miner leaves a failing primary for the next pool,
// comes back once the primary has been up a while, and never sends a share to
// a pool other than the one whose job it solves (each pool would reject it).
#include <gtest/gtest.h>

#include "e2e/miner_run.h"
#include "support/test_certificates.h"

namespace e2e {
namespace {

// Each pool's job ids start with its seed, so a share sent to the wrong pool
// shows by its job id.
std::vector<std::string> EasyPool(const char *seed, std::vector<std::string> more = {}) {
  std::vector<std::string> options = {"--difficulty", "0.002", "--notify-interval", "2",
                                      "--seed",       seed,    "--job-prefix",      std::string(seed) + "-"};
  options.insert(options.end(), more.begin(), more.end());
  return options;
}

// Every share the pool got solves one of its own jobs, and none was refused
// for anything but crossing a new job.
void ExpectOnlyOwnShares(const testing_support::TestPool &pool, const char *seed) {
  for (const std::string &job : SubmittedJobIds(pool)) EXPECT_EQ(job.rfind(std::string(seed) + "-", 0), 0u) << job;
  EXPECT_EQ(WrongfullyRejected(pool), 0u) << pool.Stats();
}

std::string Url(const testing_support::TestPool &pool, const char *scheme = "stratum+tcp") {
  return std::string(scheme) + "://127.0.0.1:" + std::to_string(pool.Port());
}

TEST(Failover, ABackupTakesOverFromAStoppedPrimaryAndHandsBackWhenItReturns) {
  testing_support::TestPool backup(EasyPool("2"));
  MinerRun run(kTwoBoards, EasyPool("1"));
  ASSERT_TRUE(run.Start({"--pool", Url(backup), "--failback-delay", "4", "--primary-retry", "2", "--api-listen",
                         "127.0.0.1:0", "--api-allow", "127.0.0.1"}));
  ASSERT_TRUE(run.Until([&] { return run.Pool("accepted") >= 1; }));
  const uint16_t port = run.PoolProcess().Port();

  run.PoolProcess().Stop();
  ASSERT_TRUE(run.Until([&] { return PoolCount(backup, "accepted") >= 1; })) << run.Output();
  EXPECT_EQ(run.Count("its connection failed 3 times in a row"), 1u);

  testing_support::TestPool primary(EasyPool("3", {"--port", std::to_string(port)}));
  ASSERT_EQ(primary.Port(), port);
  ASSERT_TRUE(run.Until([&] { return PoolCount(primary, "accepted") >= 1; })) << run.Output();
  EXPECT_EQ(run.Count("the primary pool has been back for 4 s"), 1u);

  // The operator moves the rig to the backup through the API.
  uint64_t onBackup = PoolCount(backup, "accepted");
  EXPECT_EQ(Api(PortAfter(run, "JSON API listening on port "), "switchpool|1")["STATUS"][0]["STATUS"], "S");
  ASSERT_TRUE(run.Until([&] { return PoolCount(backup, "accepted") > onBackup; }, 30s)) << run.Output();
  EXPECT_EQ(run.Count("Switching from pool stratum+tcp://127.0.0.1:" + std::to_string(port) + " to pool " +
                      Url(backup) + ": the operator asked for it"),
            1u);

  EXPECT_EQ(run.Quit(), 0);
  ExpectOnlyOwnShares(run.PoolProcess(), "1");
  ExpectOnlyOwnShares(backup, "2");
  ExpectOnlyOwnShares(primary, "3");
}

TEST(Failover, ARefusedLoginOrASilentPoolIsLeftAtOnceForTheNextOfThree) {
  struct Case {
    std::vector<std::string> primary;
    const char *reason;
  };
  const Case cases[] = {
      {{"--authorize", "error"}, "it refused the login"},
      {{"--silent-after", "1"}, "it went silent"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.reason);
    testing_support::TestPool down(EasyPool("4"));
    down.Stop();  // the second pool is gone too: the third takes over
    testing_support::TestPool third(EasyPool("5"));
    MinerRun run(kTwoBoards, EasyPool("6", c.primary));
    ASSERT_TRUE(run.Start({"--pool", Url(down), "--pool", Url(third), "--pool-silence", "3", "--failback-delay", "0",
                           "--api-listen", "127.0.0.1:0"}));
    ASSERT_TRUE(run.Until([&] { return PoolCount(third, "accepted") >= 2; })) << run.Output();
    // Without --api-allow nobody may change the run, this machine included;
    // anybody may read.
    uint16_t api = PortAfter(run, "JSON API listening on port ");
    EXPECT_EQ(Api(api, "switchpool|0")["STATUS"][0]["Msg"], "Access denied");
    EXPECT_EQ(Api(api, "pools")["POOLS"][2]["Stratum Active"], true);
    EXPECT_EQ(run.Count(std::string(c.reason)), 1u);
    EXPECT_EQ(run.Count("Switching from pool"), 2u);
    ExpectOnlyOwnShares(third, "5");
    EXPECT_EQ(run.Quit(), 0);
  }
}

TEST(Failover, TlsPoolsAreCheckedAgainstTheirCaOrAPinnedCertificate) {
  const auto &certs = testing_support::MakeTestCertificates();
  const std::vector<std::string> tls = {"--tls-cert", certs.certFile, "--tls-key", certs.keyFile};
  struct Case {
    std::vector<std::string> miner;
    bool mines;
    const char *host = "127.0.0.1";
  };
  const Case cases[] = {
      {{"--tls-ca", certs.caFile}, true},
      {{"--tls-fingerprint", certs.fingerprint}, true},
      {{"--tls-fingerprint", "127.0.0.1=" + std::string(64, '0')}, false},
      {{}, false},                                       // the system's store doesn't know the test CA
      {{"--tls-ca", certs.caFile}, false, "localhost"},  // a name the certificate doesn't carry
  };
  for (const Case &c : cases) {
    SCOPED_TRACE((c.miner.empty() ? "system store" : c.miner[1]) + " for " + c.host);
    testing_support::TestPool plain(EasyPool("7"));
    MinerRun run(kTwoBoards, EasyPool("8", tls));
    std::vector<std::string> options = c.miner;
    options.insert(options.end(), {"--pool", Url(plain), "--failback-delay", "0"});
    ASSERT_TRUE(run.Start(options, "stratum+ssl", c.host));
    if (c.mines) {
      ASSERT_TRUE(run.Until([&] { return run.Pool("accepted") >= 2; })) << run.Output();
      EXPECT_EQ(run.Count("TLS with"), 0u);
    } else {
      // Three refused handshakes, each said with the pool and the reason, then the plain backup.
      ASSERT_TRUE(run.Until([&] { return PoolCount(plain, "accepted") >= 1; })) << run.Output();
      EXPECT_EQ(
          run.Count("TLS with " + std::string(c.host) + ":" + std::to_string(run.PoolProcess().Port()) + " failed: "),
          3u);
      EXPECT_EQ(run.Pool("accepted"), 0u);
    }
    EXPECT_EQ(run.Quit(), 0);
  }
}

}  // namespace
}  // namespace e2e
