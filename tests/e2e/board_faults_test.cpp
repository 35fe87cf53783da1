// Boards that fail while the miner runs: each is taken out with one clear
// line and little else in the log, and the healthy board mines on. A tuning
// run on a board with a highest good clock ends next to it.
#include <gtest/gtest.h>

#include <algorithm>

#include "e2e/miner_run.h"

namespace e2e {
namespace {

const std::vector<std::string> kEasyPool = {"--difficulty", "0.002", "--notify-interval", "2"};

TEST(BoardFaults, AFailingBoardIsTakenOutWithOneLineAndTheOtherMinesOn) {
  struct Case {
    const char *fault;
    const char *cause;
  };
  const Case cases[] = {
      {"read_fail=1", "Worker 1: register reads keep failing"},
      {"vanish=on", "Worker 1: register reads keep failing"},  // fails as EIO does: with an error, not short
      {"mmcm_stuck=1", "Worker 1: the clock (MMCM) stayed busy for 100 ms"},
      {"hot=-279", "Worker 1: no valid core temperature for 5 s"},
      {"all_ones=1", "Worker 1 has crashed, disabling..."},  // off the bus: every nonce all ones
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.fault);
    MinerRun run("xdma0 model=7\nxdma1 model=7\n", kEasyPool);
    ASSERT_TRUE(run.Start());
    ASSERT_TRUE(run.Until([&] { return run.Pool("accepted") >= 2; })) << run.Output();
    // A stuck MMCM only shows at the next clock change, so the board is asked
    // for one.
    ASSERT_TRUE(run.Command(std::string("xdma0 ") + c.fault));
    if (std::string(c.fault) == "mmcm_stuck=1") run.Child().Type("1+");
    size_t from = run.Output().size();
    ASSERT_TRUE(run.Until([&] { return run.Count("I/Worker01     : Stopped", from) == 1; }, 30s)) << run.Output();
    EXPECT_EQ(run.Count(c.cause, from), 1u) << run.Output().substr(from);

    // The other board's shares keep coming, and the board taken out does not
    // hold up the end of the run.
    uint64_t accepted = run.Pool("accepted");
    ASSERT_TRUE(run.Until([&] { return run.Pool("accepted") >= accepted + 2; }, 60s));
    EXPECT_LE(std::count(run.Output().begin() + static_cast<std::ptrdiff_t>(from), run.Output().end(), '\n'), 300);
    EXPECT_EQ(run.Quit(), 0);
    EXPECT_EQ(run.Count("Waiting for workers to stop timed out"), 0u);
    EXPECT_EQ(run.Count("I/Worker02     : Stopped"), 1u);
  }
}

TEST(BoardFaults, TuningEndsNextToTheBoardsHighestGoodClock) {
  // Starts at 110 MHz, 0.3 MHz under the limit: a few 50 kHz tuning steps.
  MinerRun run("xdma0 model=7 max_clock=110.3\n", kEasyPool);
  ASSERT_TRUE(run.Start({"110"}));
  ASSERT_TRUE(run.Until([&] { return run.LastClock(1).first >= 109; })) << run.Output();
  run.Child().Type("t");
  ASSERT_TRUE(run.Until([&] { return run.Count("share was invalid") >= 1; }, 120s)) << run.Output();
  // The table shows whole megahertz; the saved settings show the target itself.
  ASSERT_TRUE(run.Until([&] {
    run.Child().Type("s");
    return run.Count("Saved active configuration to config.json") >= 1;
  }));
  EXPECT_GE(run.SavedClock(), 110.3 - 0.05 - 1.0) << ReadFile(run.WorkDir() / "config.json");
  EXPECT_LE(run.SavedClock(), 110.3 + 1.1);
  EXPECT_EQ(run.Quit(), 0);
}

}  // namespace
}  // namespace e2e
