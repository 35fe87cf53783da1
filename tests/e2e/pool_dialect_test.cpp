// The miner against pools that speak as real pools do, and against one that
// drops the link every few lines: each must take the miner's shares, none
// rejected. How fast a dialect lets the miner mine is for bench/pool_link.py
// to measure; a test that compares two runs' share counts counts the
// machine's load and the shares' random arrival as much as the dialect.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "e2e/miner_run.h"

namespace e2e {
namespace {

// A low cap and an easy difficulty: shares come steadily for little search,
// so that the boards' simulated search does not crowd the miner off a loaded
// machine.
constexpr const char *kCapped = "xdma0 model=7 ratecap=0.1\nxdma1 model=2 ratecap=0.1\n";
constexpr uint64_t kShares = 15;

std::vector<std::string> PoolOptions(const std::string &extranonce1, std::vector<std::string> more) {
  std::vector<std::string> options = {"--difficulty",  "0.00002",   "--notify-interval", "600", "--seed", "7",
                                      "--extranonce1", extranonce1, "--resend-job"};
  options.insert(options.end(), more.begin(), more.end());
  return options;
}

struct Dialect {
  const char *profile;
  const char *extranonce1;
  const char *count;  // a count the pool must show above 0, "" for none
  const char *line;   // a line the miner must have said, "" for none
};

void PrintTo(const Dialect &dialect, std::ostream *out) { *out << dialect.profile; }

class PoolDialect : public ::testing::TestWithParam<Dialect> {};

TEST_P(PoolDialect, TheMinersSharesAreTakenAndNoneIsRejected) {
  const Dialect &dialect = GetParam();
  MinerRun other(kCapped, PoolOptions(dialect.extranonce1, {"--profile", dialect.profile}));
  ASSERT_TRUE(other.Start());
  ASSERT_TRUE(other.Until([&] { return other.Pool("accepted") >= kShares; })) << other.Output();
  EXPECT_EQ(other.Pool("rejected"), 0u) << other.PoolProcess().Stats();
  if (*dialect.count) { EXPECT_GT(other.Pool(dialect.count), 0u) << other.PoolProcess().Stats(); }
  if (*dialect.line) { EXPECT_GE(other.Count(dialect.line), 1u) << other.Output(); }
}

INSTANTIATE_TEST_SUITE_P(
    Profiles, PoolDialect,
    ::testing::Values(Dialect{"ckb-empty", "a1a2a3a4", "", ""}, Dialect{"null-subscription", "a1a2a3a4", "", ""},
                      Dialect{"session-id", "0a0b0c0d0e", "", ""}, Dialect{"notify-pair", "a1a2a3a4", "", ""},
                      Dialect{"pool-requests", "a1a2a3a4", "client.get_version", "Message from the pool: Hello"},
                      Dialect{"reconnect-elsewhere", "a1a2a3a4", "",
                              "Refused the pool's request to reconnect to pool.elsewhere.example"}),
    [](const auto &info) {
      std::string name = info.param.profile;
      std::replace(name.begin(), name.end(), '-', '_');
      return name;
    });

// A pool that takes shares but drops the connection every 12 lines: each
// session mines, so each new one comes after the first pause, and the same
// job is searched on in fresh nonces, so no share is sent twice.
TEST(PoolLink, APoolThatDropsEveryFewLinesStillGetsSharesAndNoDuplicates) {
  MinerRun flapping(kCapped, PoolOptions("a1a2a3a4", {"--close-after", "12"}));
  ASSERT_TRUE(flapping.Start());
  ASSERT_TRUE(flapping.Until([&] { return flapping.Pool("connections") >= 3 && flapping.Pool("accepted") >= kShares; }))
      << flapping.PoolProcess().Stats();
  EXPECT_EQ(flapping.Pool("rejected"), 0u) << flapping.PoolProcess().Stats();
  EXPECT_EQ(flapping.Pool("duplicate"), 0u) << flapping.PoolProcess().Stats();
}

}  // namespace
}  // namespace e2e
