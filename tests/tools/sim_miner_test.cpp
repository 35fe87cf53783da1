// The simulated-board miner as an operator starts it.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "support/process.h"
#include "support/sim_boards.h"

using miner_testing::SimMiner;
using testing_support::RunProcess;

namespace {

std::string WriteList(const std::string &name, const std::string &text) {
  auto path = std::filesystem::temp_directory_path() / name;
  std::ofstream(path) << text;
  return path.string();
}

TEST(SimMiner, NeedsAReadableBoardList) {
  auto none = RunProcess({SimMiner(), "dump"});
  EXPECT_EQ(none.exitCode, 1);
  EXPECT_NE(none.err.find("set OMBRY_SIM_BOARDS"), std::string::npos);

  auto bad = RunProcess({SimMiner(), "dump"},
                        {"OMBRY_SIM_BOARDS=" + WriteList("ombry-bad-boards.txt", "xdma0\nxdma1 layout\n")});
  EXPECT_EQ(bad.exitCode, 1);
  EXPECT_NE(bad.err.find("line 2: expected key=value, got 'layout'"), std::string::npos) << bad.err;
}

}  // namespace
