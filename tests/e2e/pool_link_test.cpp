// The miner against pools that misbehave the way real pools and networks do:
// what the pool received, and what the operator was told.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>

#include "e2e/miner_run.h"

namespace e2e {
namespace {

constexpr const char *kTwoBoards = "xdma0 model=7\nxdma1 model=2\n";

// Settings for the pool's first connection alone; later ones behave. The
// files go with the test process.
std::vector<std::string> FirstConnection(const std::string &settings, std::vector<std::string> options) {
  static struct Scripts {
    std::vector<std::string> paths;
    ~Scripts() {
      for (const std::string &path : paths) std::remove(path.c_str());
    }
  } scripts;
  std::string path = testing::TempDir() + "ombry-pool-script-" + std::to_string(getpid()) + "-" +
                     std::to_string(scripts.paths.size()) + ".json";
  scripts.paths.push_back(path);
  std::ofstream(path) << "{\"connections\":[" << settings << "]}";
  options.insert(options.end(), {"--script", path});
  return options;
}

uint64_t AcceptedWithin(MinerRun &run, std::chrono::seconds time) {
  run.Pump(std::chrono::duration_cast<std::chrono::milliseconds>(time));
  return run.Pool("accepted");
}

// The boards' search is capped, so both runs find shares at the same pace
// whatever else the machine is doing.
TEST(PoolLink, LinesCutAtRandomBytesMineLikeWholeOnes) {
  const char *capped = "xdma0 model=7 ratecap=1\nxdma1 model=2 ratecap=1\n";
  const std::vector<std::string> pool = {"--difficulty", "0.0002", "--notify-interval", "3", "--seed", "5"};
  uint64_t clean = 0;
  {
    MinerRun run(capped, pool);
    ASSERT_TRUE(run.Start());
    ASSERT_TRUE(run.Until([&] { return run.Pool("accepted") >= 1; }));
    clean = AcceptedWithin(run, 15s);
  }
  std::vector<std::string> split = pool;
  split.insert(split.end(), {"--split-lines", "2", "--split-random", "--split-delay", "0.03"});
  MinerRun run(capped, split);
  ASSERT_TRUE(run.Start());
  ASSERT_TRUE(run.Until([&] { return run.Pool("accepted") >= 1; })) << run.Output();
  uint64_t cut = AcceptedWithin(run, 15s);
  EXPECT_GE(cut * 10, clean * 6) << "clean " << clean << ", split " << cut;
  EXPECT_EQ(WrongfullyRejected(run.PoolProcess()), 0u);
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
    run.Child().Type("q");
    EXPECT_EQ(run.Child().Wait(), 0);
  }
}

TEST(PoolLink, RefusedConnectionsAreRetriedWithGrowingPauses) {
  MinerRun run(kTwoBoards, {"--difficulty", "0.002", "--notify-interval", "2", "--refuse-for", "6"});
  ASSERT_TRUE(run.Start());
  ASSERT_TRUE(run.Until([&] { return run.Pool("accepted") >= 1; })) << run.Output();
  // Pauses of at most 1, 2 and 4 s fill the first 6 s with few attempts, not
  // one a second.
  size_t attempts = run.Count("Stratum state Idle -> Connecting");
  EXPECT_GE(attempts, 3u);
  EXPECT_LE(attempts, 6u);
  run.Child().Type("q");
  EXPECT_EQ(run.Child().Wait(), 0);
}

}  // namespace
}  // namespace e2e
