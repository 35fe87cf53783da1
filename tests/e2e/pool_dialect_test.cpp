// The miner against pools that speak as real pools do, and against one that
// drops the link every few lines, each mining side by side with a clean pool:
// both search the same job with the same extranonce on boards of the same
// capped rate, so they find the same shares, and a dialect may cost only the
// shares its own turns (a reconnect, say) take time from. Shares are counted
// from the moment both miners mine.
#include <gtest/gtest.h>

#include <algorithm>

#include "e2e/miner_run.h"

namespace e2e {
namespace {

// The cap, not the machine, must set the rate: a cap the machine cannot keep
// (two miners' simulated searches, a sanitizer, tests beside) turns the
// comparison into one of CPU shares. A low cap and an easy difficulty keep
// shares coming at the same pace for a fifth of the search.
constexpr const char *kCapped = "xdma0 model=7 ratecap=0.1\nxdma1 model=2 ratecap=0.1\n";
constexpr uint64_t kCleanShares = 30;

std::vector<std::string> PoolOptions(const std::string &extranonce1, std::vector<std::string> more) {
  std::vector<std::string> options = {"--difficulty",  "0.00002",   "--notify-interval", "600", "--seed", "7",
                                      "--extranonce1", extranonce1, "--resend-job"};
  options.insert(options.end(), more.begin(), more.end());
  return options;
}

// The shares each pool accepted while both miners mined: from the moment
// both have a first share until the clean pool has kCleanShares more. The
// start, which a loaded machine can stretch for either miner, is left out;
// that a dialect's unanswered requests never hold the start up is for the
// session's own tests to show.
void MineSideBySide(MinerRun &clean, MinerRun &other, uint64_t *cleanShares, uint64_t *otherShares) {
  ASSERT_TRUE(clean.Start());
  ASSERT_TRUE(other.Start());
  ASSERT_TRUE(clean.Until([&] {
    other.Pump(50ms);
    return clean.Pool("accepted") >= 1 && other.Pool("accepted") >= 1;
  })) << other.Output();
  uint64_t cleanFrom = clean.Pool("accepted"), otherFrom = other.Pool("accepted");
  ASSERT_TRUE(clean.Until([&] {
    other.Pump(50ms);
    return clean.Pool("accepted") >= cleanFrom + kCleanShares;
  })) << clean.Output();
  *cleanShares = clean.Pool("accepted") - cleanFrom;
  *otherShares = other.Pool("accepted") - otherFrom;
}

struct Dialect {
  const char *profile;
  const char *extranonce1;
  const char *count;  // a count the pool must show above 0, "" for none
  const char *line;   // a line the miner must have said, "" for none
};

void PrintTo(const Dialect &dialect, std::ostream *out) { *out << dialect.profile; }

class PoolDialect : public ::testing::TestWithParam<Dialect> {};

TEST_P(PoolDialect, MinesAtLeastFourFifthsOfACleanRunWithNoShareRejected) {
  const Dialect &dialect = GetParam();
  MinerRun clean(kCapped, PoolOptions(dialect.extranonce1, {}));
  MinerRun other(kCapped, PoolOptions(dialect.extranonce1, {"--profile", dialect.profile}));
  uint64_t cleanShares = 0, shares = 0;
  MineSideBySide(clean, other, &cleanShares, &shares);
  EXPECT_GE(shares * 10, cleanShares * 8) << "clean " << cleanShares << ", " << dialect.profile << " " << shares;
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
// job is searched on in fresh nonces.
TEST(PoolLink, APoolThatDropsEveryFewLinesStillGetsMostSharesAndNoDuplicates) {
  MinerRun clean(kCapped, PoolOptions("a1a2a3a4", {}));
  MinerRun flapping(kCapped, PoolOptions("a1a2a3a4", {"--close-after", "12"}));
  uint64_t cleanShares = 0, shares = 0;
  MineSideBySide(clean, flapping, &cleanShares, &shares);
  EXPECT_GE(shares * 10, cleanShares * 4) << "clean " << cleanShares << ", flapping " << shares;
  EXPECT_GE(flapping.Pool("connections"), 3u);
  EXPECT_EQ(flapping.Pool("duplicate"), 0u) << flapping.PoolProcess().Stats();
}

}  // namespace
}  // namespace e2e
