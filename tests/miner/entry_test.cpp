// The binary run as an operator would: modes, exit codes, and the messages on
// the streams they belong to.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "support/process.h"

using testing_support::BuiltProgram;
using testing_support::RunProcess;

namespace {

std::string Miner() { return BuiltProgram("src/miner/ombry-miner"); }

// The miner reads ./bitstreams/ at start and ends when it is missing; runs
// start in the checkout, which ships the tree.
class CheckoutDirectory : public ::testing::Environment {
  void SetUp() override {
    // Non-fatal: a fatal failure here would turn every test into a skip.
    const char *source = getenv("OMBRY_SOURCE_DIR");
    EXPECT_NE(source, nullptr) << "run the tests through ctest";
    if (source) {
      EXPECT_EQ(chdir(source), 0);
    }
  }
};
const auto *const kCheckoutDirectory = ::testing::AddGlobalTestEnvironment(new CheckoutDirectory);

// A device directory with no boards in it, so that no run touches /dev.
std::string EmptyDeviceDir() {
  auto dir = std::filesystem::temp_directory_path() / "ombry-no-boards";
  std::filesystem::create_directories(dir);
  return "OMBRY_DEVICE_DIR=" + dir.string();
}

TEST(EntryTest, NoArgumentsAsksForParameters) {
  auto result = RunProcess({Miner()}, {EmptyDeviceDir()});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.err, "E/Miner        : Not enough parameters. Please check the provided example file "
                        "(start.bat / start.sh).\n");
  // The colour brackets the line on standard output.
  EXPECT_EQ(result.out, "\x1b[1;31m\x1b[0m");
}

TEST(EntryTest, UnknownWordWithFewArgumentsAsksForParameters) {
  auto result = RunProcess({Miner(), "ckb", "pool", "3333"}, {EmptyDeviceDir()});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.err.find("Not enough parameters"), std::string::npos);
}

TEST(EntryTest, DumpEndsAtOnceWithoutLogging) {
  auto result = RunProcess({Miner(), "dump"}, {EmptyDeviceDir()});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "");
}

const char *kNoDeviceList = "E/Miner        : Failed to get a valid list of device paths. Is BRYLDMA (driver) installed?\n";

TEST(EntryTest, RecoveryWithNoBoardsStartsLoggingAndFindsNoDeviceList) {
  auto result = RunProcess({Miner(), "recovery"}, {EmptyDeviceDir()});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.out.find("I/LOGGER       : Log level set to Info\n"), std::string::npos);
  EXPECT_NE(result.out.find("I/Miner        : Starting miner\n"), std::string::npos);
  EXPECT_EQ(result.err, kNoDeviceList);
}

TEST(EntryTest, RecoveryWithFullArgumentsIsNotARecoveryRun) {
  auto result = RunProcess({Miner(), "recovery", "pool", "3333", "wallet", "x"}, {EmptyDeviceDir()});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.err.find("E/Miner        : Exiting"), std::string::npos);
}

TEST(EntryTest, NoBoardsEndTheRunWithCodeOne) {
  auto result = RunProcess({Miner(), "ckb", "pool.example.org", "3333", "wallet", "x"}, {EmptyDeviceDir()});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.err, kNoDeviceList);
  // It ends before the watchdog starts.
  EXPECT_EQ(result.out.find("Watchdog"), std::string::npos);
}

TEST(EntryTest, TraceEnvironmentRaisesTheLogLevel) {
  auto result = RunProcess({Miner(), "recovery"}, {EmptyDeviceDir(), "VL_LOG_TRACE=1"});
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_NE(result.out.find("Log level set to Trace"), std::string::npos);
}

}  // namespace
