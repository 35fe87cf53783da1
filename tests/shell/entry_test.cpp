// The binary run as an operator would: modes, exit codes, and the messages on
// the streams they belong to.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "support/sim_boards.h"
#include "support/process.h"

using miner_testing::SimBoardList;
using miner_testing::SimMiner;
using testing_support::BuiltProgram;
using testing_support::RunProcess;

namespace {

std::string Miner() { return BuiltProgram("bin/ombry-miner"); }

// A device directory with no boards in it, so that no run touches /dev.
std::string EmptyDeviceDir() {
  auto dir = std::filesystem::temp_directory_path() / "ombry-no-boards";
  std::filesystem::create_directories(dir);
  return "OMBRY_DEVICE_DIR=" + dir.string();
}

TEST(EntryTest, TooFewArgumentsAskForParameters) {
  for (std::vector<std::string> args : {std::vector<std::string>{}, {"ckb", "pool", "3333"}}) {
    args.insert(args.begin(), Miner());
    auto result = RunProcess(args, {EmptyDeviceDir()});
    EXPECT_EQ(result.exitCode, 1) << args.size();
    EXPECT_EQ(result.err,
              "E/Miner        : Not enough parameters. Please check the provided example file "
              "(start.bat / start.sh).\n");
    // No colour codes into a pipe.
    EXPECT_EQ(result.out, "");
  }
}

TEST(EntryTest, ColourCodesOnlyOnATerminalWithoutNoColor) {
  for (bool noColor : {false, true}) {
    std::vector<std::string> env = {EmptyDeviceDir()};
    if (noColor) env.push_back("NO_COLOR=1");
    testing_support::PtyProcess child({Miner(), "ckb"}, env);
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_NE(child.Output().find("Not enough parameters"), std::string::npos);
    EXPECT_EQ(child.Output().find("\x1b[1;31m") != std::string::npos, !noColor) << child.Output();
  }
  // A board that is not compatible is said so in red on a terminal; in a pipe
  // the same line comes plain.
  SimBoardList boards("xdma0 model=7 bitstream=0x000C0005\n");
  auto piped = RunProcess({SimMiner(), "recovery"}, boards.Env());
  EXPECT_NE(piped.err.find("bitstream Version 0.005 is not compatible\n"), std::string::npos) << piped.err;
  EXPECT_EQ((piped.out + piped.err).find('\x1b'), std::string::npos);
}

TEST(EntryTest, NoReadyBoardEndsTheRunWithCodeOne) {
  SimBoardList boards("xdma0 model=7 bitstream=0x000C0005\nxdma1 identity=ZZZZ\n");
  auto result = RunProcess({SimMiner(), "ckb", "pool.example.org", "3333", "wallet", "x"}, boards.Env());
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.err.find("E/Miner        : No device is ready for mining, exiting\n"), std::string::npos);
  // It ends before the watchdog or any worker starts.
  EXPECT_EQ(result.out.find("Watchdog"), std::string::npos);
  EXPECT_EQ(result.out.find("Worker"), std::string::npos);
}

}  // namespace
