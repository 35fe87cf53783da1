// The simulated-board miner as an operator starts it.
#include <gtest/gtest.h>

#include <fstream>

#include "support/process.h"
#include "support/sim_boards.h"

using miner_testing::SimMiner;
using testing_support::RunProcess;

namespace {

TEST(SimMiner, NeedsAReadableBoardList) {
  auto none = RunProcess({SimMiner(), "dump"});
  EXPECT_EQ(none.exitCode, 1);
  EXPECT_NE(none.err.find("set OMBRY_SIM_BOARDS"), std::string::npos);

  miner_testing::ScratchDir dir;
  std::ofstream(dir.Path() / "boards.txt") << "xdma0\nxdma1 layout\n";
  auto bad = RunProcess({SimMiner(), "dump"}, {"OMBRY_SIM_BOARDS=" + (dir.Path() / "boards.txt").string()});
  EXPECT_EQ(bad.exitCode, 1);
  EXPECT_NE(bad.err.find("line 2: expected key=value, got 'layout'"), std::string::npos) << bad.err;
}

}  // namespace
