// The miner against pools that misbehave the way real pools and networks do:
// what the pool received, and what the operator was told.
#include <gtest/gtest.h>

#include <fstream>

#include "e2e/miner_run.h"

namespace e2e {
namespace {

// Settings for the pool's first connection alone; later ones behave. The
// files go with the test process.
std::vector<std::string> FirstConnection(const std::string &settings, std::vector<std::string> options) {
  static miner_testing::ScratchDir scripts;
  static int count = 0;
  std::string path = (scripts.Path() / (std::to_string(count++) + ".json")).string();
  std::ofstream(path) << "{\"connections\":[" << settings << "]}";
  options.insert(options.end(), {"--script", path});
  return options;
}

// A pool that refuses connections for its first 6 s is retried with growing
// pauses; then lines cut at random bytes, with pauses between the pieces,
// arrive whole: none is dropped, the connection holds, and shares on several
// jobs are accepted.
TEST(PoolLink, RefusedConnectionsAreRetriedWithGrowingPausesAndCutLinesArriveWhole) {
  MinerRun run(kTwoBoards, {"--difficulty", "0.002", "--notify-interval", "2", "--refuse-for", "6", "--split-lines",
                            "2", "--split-random", "--split-delay", "0.03"});
  ASSERT_TRUE(run.Start());
  ASSERT_TRUE(run.Until([&] { return run.Pool("accepted") >= 6 && run.SubmittedJobs().size() >= 3; })) << run.Output();
  // Pauses of at most 1, 2 and 4 s fill the first 6 s with few attempts, not
  // one a second.
  size_t attempts = run.Count("Stratum state Idle -> Connecting");
  EXPECT_GE(attempts, 3u);
  EXPECT_LE(attempts, 6u);
  EXPECT_EQ(run.Count("Dropped"), 0u);
  EXPECT_EQ(run.Pool("connections"), 1u);
  EXPECT_EQ(WrongfullyRejected(run.PoolProcess()), 0u);
  EXPECT_EQ(run.Quit(), 0);
}

TEST(PoolLink, SilentStalledOrRefusingPoolsAreLeftAndMiningGoesOn) {
  struct Case {
    const char *firstConnection;
    std::vector<std::string> minerOptions;
    const char *line;
  };
  const Case cases[] = {
      {R"({"silent_after":1})", {"--pool-silence", "4"}, "No line from the pool for 4 s; reconnecting"},
      {R"({"subscribe":"silent"})", {}, "The pool did not answer mining.subscribe within 10 s; reconnecting"},
      {R"({"authorize":"error"})", {}, "Pool refused authorisation for wallet.rig: Unauthorized worker (24)"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.line);
    MinerRun run(kTwoBoards, FirstConnection(c.firstConnection, {"--difficulty", "0.002", "--notify-interval", "2"}));
    ASSERT_TRUE(run.Start(c.minerOptions));
    ASSERT_TRUE(run.Until([&] { return run.Pool("connections") >= 2 && run.Pool("accepted") >= 2; })) << run.Output();
    EXPECT_EQ(run.Count(c.line), 1u);
    EXPECT_EQ(run.Quit(), 0);
  }
}

}  // namespace
}  // namespace e2e
