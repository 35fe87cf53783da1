// The SPI controller driver and the flash library against the simulated
// controller and chip: what goes over the wire, what the chip ends up
// holding, and the failures the library reports.
#include <stdexcept>

#include "flash/spi_flash.h"
#include "flash/xspi.h"
#include "tests/flash/sim_board.h"

namespace {

constexpr uint64_t kControllerBase = 0x10000;

constexpr XSpi_Config kFlashConfig{.BaseAddress = kControllerBase,
                                   .HasFifos = 1,
                                   .NumSlaveBits = 1,
                                   .DataWidth = 8,
                                   .SpiMode = 2,
                                   .AxiFullBaseAddress = kControllerBase,
                                   .Use_Startup = 1};

// Whole commands through the driver: a page program of 261 bytes takes two
// FIFO rounds, with the chip selected throughout.
class SpiFlashTest : public SimBoardTest {
 protected:
  void Init(uint8_t family) {
    Start("xdma0 model=7 erase_busy=3 program_busy=2\n");
    deviceFileToFlash = Open()->userFile;
    flash_.Init(kFlashConfig, family);
    Frames();
  }

  SPIFlash flash_;
};

TEST_F(SpiFlashTest, PagesGoOutAsSizedCommandsAndBlankPagesAreSkipped) {
  Init(1);
  std::vector<uint8_t> data = RandomImage(3 * 256 + 17, 2);
  std::fill(data.begin() + 256, data.begin() + 512, 0xFF);  // the second page is blank
  flash_.Write(0x100, data.data(), data.size());

  auto frames = Frames();
  EXPECT_EQ(FramesOf(frames, SPIFlash::kClearStatusFamily1).size(), 1u);
  auto programs = FramesOf(frames, SPIFlash::kPageProgram4);
  ASSERT_EQ(programs.size(), 3u);
  EXPECT_EQ(Addresses(frames, SPIFlash::kPageProgram4), (std::vector<uint32_t>{0x100, 0x300, 0x400}));
  EXPECT_EQ(programs[0].out.size(), 261u);
  EXPECT_EQ(programs[0].rounds, 2u);
  EXPECT_EQ(programs[2].out.size(), 22u);  // a last page of 17 bytes
  EXPECT_EQ(FramesOf(frames, SPIFlash::kWriteEnable).size(), 3u);
  EXPECT_EQ(FlashBytes(0x100, data.size()), data);
  EXPECT_EQ(Ignored(), 0u);  // every command waited for the one before
}

TEST_F(SpiFlashTest, EraseChecksAlignmentAndCountsWholeSectors) {
  Init(0);
  try {
    flash_.Erase(0x10000, 65536);
    FAIL() << "an unaligned erase went through";
  } catch (const std::runtime_error &e) {
    EXPECT_STREQ(e.what(), "Flash address must be on an even page of 262144 bytes");
  }
  EXPECT_TRUE(Frames().empty());

  flash_.Erase(0x680000, 0);
  EXPECT_TRUE(FramesOf(Frames(), SPIFlash::kSectorErase4).empty());

  std::vector<uint8_t> data = RandomImage(256, 3);
  flash_.Write(0x50000, data.data(), data.size());
  flash_.Erase(0x40000, 65537);
  auto frames = Frames();
  EXPECT_EQ(FramesOf(frames, SPIFlash::kClearStatus).size(), 2u);  // family 0's clear, once per call
  EXPECT_EQ(Addresses(frames, SPIFlash::kSectorErase4), (std::vector<uint32_t>{0x40000, 0x50000}));
  EXPECT_EQ(FlashBytes(0x50000, 256), std::vector<uint8_t>(256, 0xFF));
  // The erase kept the chip busy, and the library polled it out.
  bool sawBusy = false;
  for (const auto &frame : FramesOf(frames, SPIFlash::kReadStatus)) sawBusy |= (frame.in.at(1) & 1) != 0;
  EXPECT_TRUE(sawBusy);
}

}  // namespace
