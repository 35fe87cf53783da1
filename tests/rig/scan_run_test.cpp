// The miner binary against in-process simulated boards: the device lines of
// the scan, the worker assignment, the whitelist, and the console driven on a
// terminal to the end of a run.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "support/sim_boards.h"
#include "support/process.h"

using miner_testing::SimBoardList;
using miner_testing::SimMiner;
using testing_support::RunProcess;

namespace {

constexpr const char *kGreen = "\x1b[1;32m\x1b[0m";
constexpr const char *kYellow = "\x1b[1;33m\x1b[0m";
constexpr const char *kRed = "\x1b[1;31m\x1b[0m";

// One card per model family and layout, a card with three sub-devices of
// which one runs an old bitstream, and boards that can't mine.
constexpr const char *kMixedBoards = R"(
xdma0 model=7 layout=1 dna=01234567,89abcdef,00c0ffee boardword=0x00001234
xdma1 model=3 layout=0 dna=aaaa0001,bbbb0002
xdma2 model=1 layout=0xffffffff dna=01010101,02020202,03030303 bitstream=0x000C0005
xdma3 model=9 subdevices=1,2,3 dna=10000000,20000000,30000000
xdma3.1 dna=10000001,20000001,30000001
xdma3.2 dna=10000002,20000002,30000002 bitstream=0x02000101
xdma3.3 dna=10000003,20000003,30000003
xdma4 identity=ZZZZ
xdma5 identity=215_ modelbits=3
xdma6 model=5 dna=60000000,60000001,60000002 bitstream=0x80630001
xdma7 model=6 dna=70000000,70000001,70000002 bitstream=0x000A0002
)";

// A device line of the scan, followed by the offer that finds no image for it.
std::string Offered(int device, const std::string &board, const std::string &bitstream, bool compatible = true) {
  std::string line = "E/Miner        :   Device " + std::to_string(device) + ": " + board + " running " + bitstream;
  if (!compatible) line += " \x1b[1;31mis not compatible\x1b[0m";
  return line + "\nE/Miner        : No flash data found for device " + std::to_string(device) + "\n";
}

TEST(ScanRunTest, DeviceLinesNameEachBoardAndItsBitstreamInOrder) {
  SimBoardList boards(kMixedBoards);
  // A recovery run scans and offers every board for flashing, then ends.
  auto env = boards.Env();
  env.push_back("CLICOLOR_FORCE=1");
  auto result = RunProcess({SimMiner(), "recovery"}, env);
  EXPECT_EQ(result.exitCode, 0);
  const std::string ckb = "CKB (12) bitstream Version 0.004";
  EXPECT_EQ(
      result.err,
      Offered(1, "RK35 (0123456789abcdef00c0ffee:00001234)", ckb) +
          Offered(2, "215  (aaaa0001bbbb0002:00000018)", ckb) +
          Offered(3, "1525 (010101010202020203030303:00000000)", "CKB (12) bitstream Version 0.005", false) +
          // Sub-devices 3, 2 and 1 come before their card's primary FPGA.
          Offered(4, "JC35 (100000032000000330000003:00000000)", ckb) +
          Offered(4, "JC35 (100000022000000230000002:00000000)", "Factory test (0) bitstream Version 1.001", false) +
          Offered(4, "JC35 (100000012000000130000001:00000000)", ckb) +
          Offered(4, "JC35 (100000002000000030000000:00000000)", ckb) +
          "E/Miner        :   Device 5: Not a supported model (ZZZZ)\n"
          // Known identity, but the exact-model bits name no model.
          "E/Miner        :   Device 6: Not a supported model (215 )\n" +
          // An id outside the table with the flag byte's top bit set.
          Offered(7, "OMPR (600000006000000160000002:00000000)", "Factory test (99) bitstream Version 0.001", false) +
          Offered(8, "RK33 (700000007000000170000002:00000000)", "X16r (10) bitstream Version 0.002", false) +
          "E/Miner        : Exiting\n");
  // Each device line is bracketed by its colour on standard output (asked
  // for into the pipe by CLICOLOR_FORCE).
  std::string colours = std::string(kGreen) + kGreen + kYellow + kGreen + kYellow + kGreen + kGreen + kRed + kRed +
                        kYellow + kYellow + kGreen;
  const std::string found = "I/Miner        : Found 8 BRYLDMA devices:\n\x1b[0m";
  ASSERT_NE(result.out.find(found), std::string::npos) << result.out;
  EXPECT_EQ(result.out.substr(result.out.find(found) + found.size()), colours);
}

}  // namespace
