// The flash flow end to end against a simulated board: the image lands where
// the flash type says, in the order it says.
#include <functional>

#include "flash/flash_device.h"
#include "flash/spi_flash.h"
#include "support/capture.h"
#include "tests/flash/sim_board.h"

namespace {

class FlashDeviceTest : public SimBoardTest {
 protected:
  // Runs the flow with its console output kept out of the test's; true when
  // the image was written and read back.
  bool Flash(
      BRYLDMADevice *device, uint32_t type, const std::vector<uint8_t> &image, uint64_t attempts = 3,
      uint8_t family = 1, const std::function<bool()> &mayErase = [] { return true; }) {
    testing_support::StreamCapture capture;
    result_ = FlashDevice(device, type, image.data(), image.size(), attempts, family, mayErase);
    output_ = capture.Out();
    return result_.outcome == FlashOutcome::Written;
  }
  FlashResult result_;
  std::string output_;
};

TEST_F(FlashDeviceTest, WholeImageGoesToTheStartInOnePass) {
  Start("xdma0 model=7 flash_size=0x800000\n");
  std::vector<uint8_t> image = RandomImage(200000, 10);
  std::fill(image.begin() + 4096, image.begin() + 8192, 0xFF);
  ASSERT_TRUE(Flash(Open(), FlashTypeWhole, image, 3, 0));
  EXPECT_EQ(FlashBytes(0, image.size()), image);
  EXPECT_EQ(FlashBytes(image.size(), 0x10000), std::vector<uint8_t>(0x10000, 0xFF));  // rest of the last sector
  auto addresses = Addresses(Frames(), SPIFlash::kPageProgram4);
  ASSERT_FALSE(addresses.empty());
  EXPECT_EQ(addresses.front(), 0u);
  EXPECT_TRUE(std::is_sorted(addresses.begin(), addresses.end()));
  EXPECT_EQ(Ignored(), 0u);
  EXPECT_NE(output_.find("\rWrote 200000 bytes (100.0%)"), std::string::npos);
}

TEST_F(FlashDeviceTest, UpdateRegionImageWritesItsFirstPageLast) {
  Start("xdma0 model=3 identity=215_ modelbits=6 flash_size=0x800000\n");
  std::vector<uint8_t> image = RandomImage(1000, 11);
  ASSERT_TRUE(Flash(Open(), FlashTypeUpdateRegion, image));
  auto frames = Frames();
  EXPECT_EQ(Addresses(frames, SPIFlash::kSectorErase4), std::vector<uint32_t>{0x680000});
  EXPECT_EQ(Addresses(frames, SPIFlash::kPageProgram4),
            (std::vector<uint32_t>{0x680100, 0x680200, 0x680300, 0x680000}));
  EXPECT_EQ(FramesOf(frames, SPIFlash::kPageProgram4)[2].out.size(), 5u + 232u);
  EXPECT_EQ(FlashBytes(0x680000, image.size()), image);
  EXPECT_EQ(FlashBytes(0, 0x1000), std::vector<uint8_t>(0x1000, 0xFF));

  // A larger image: still one header write, and it comes last.
  image = RandomImage(300000, 12);
  ASSERT_TRUE(Flash(devices_[0], FlashTypeUpdateRegion, image));
  auto addresses = Addresses(Frames(), SPIFlash::kPageProgram4);
  EXPECT_EQ(std::count(addresses.begin(), addresses.end(), 0x680000u), 1);
  EXPECT_EQ(addresses.back(), 0x680000u);
  EXPECT_EQ(FlashBytes(0x680000, image.size()), image);
}

// Every way a flash can go wrong ends in a result that says so: refused
// before anything changed, or incomplete, never written.
TEST_F(FlashDeviceTest, FailuresAreNeverReportedAsSuccess) {
  struct Case {
    const char *board;
    size_t imageSize;
    uint64_t attempts;
    bool mayErase;
    FlashOutcome outcome;
    const char *reason;
  };
  // 8 MiB chips: one byte too many is refused before any erase.
  const Case cases[] = {
      {"", 0x800001, 3, true, FlashOutcome::NotStarted, "does not fit the flash"},
      {"", 4096, 3, false, FlashOutcome::NotStarted, "erasing was not safe"},
      {"", 0, 3, true, FlashOutcome::NotStarted, "does not fit the flash"},
      {"program_error=1", 4096, 2, true, FlashOutcome::Incomplete, "error while writing"},
      {"erase_error=1", 4096, 1, true, FlashOutcome::Incomplete, "error while erasing"},
      {"worn=1", 4096, 2, true, FlashOutcome::Incomplete, "read back differently"},
      {"flash_stuck=1", 4096, 1, true, FlashOutcome::NotStarted, "Timeout waiting for flash ready"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(std::string(c.board) + " image of " + std::to_string(c.imageSize));
    Start(std::string("xdma0 model=7 flash_size=0x800000 ") + c.board + "\n");
    std::vector<uint8_t> image = RandomImage(c.imageSize, 16);
    EXPECT_FALSE(Flash(Open(), FlashTypeWhole, image, c.attempts, 0, [&] { return c.mayErase; }));
    EXPECT_EQ(result_.outcome, c.outcome);
    EXPECT_NE(result_.reason.find(c.reason), std::string::npos) << result_.reason;
    if (c.outcome == FlashOutcome::NotStarted) { EXPECT_TRUE(FramesOf(Frames(), SPIFlash::kSectorErase4).empty()); }
    TearDown();
  }
}

}  // namespace
