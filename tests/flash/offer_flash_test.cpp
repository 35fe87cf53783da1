// The operator's side of flashing: consent typed at a terminal, silence, a
// hot board, a model without an image, and the closing power-cycle notice.
// Each run is a child on a pseudo-terminal with its own simulated boards,
// offering every board in turn as the scan does, and ending as the scan ends.
#include <poll.h>
#include <unistd.h>

#include <fstream>

#include "board/registers.h"
#include "foundation/console.h"
#include "foundation/logger.h"
#include "flash/flash_catalogue.h"
#include "flash/flash_offer.h"
#include "support/process.h"
#include "tests/flash/sim_board.h"

namespace {

using testing_support::PtyProcess;

constexpr const char *kConsentPrompt = "Press 'n' to skip flashing.";
constexpr const char *kEnterPrompt = "Press <Enter> to continue";

// True when the file holds `image` from `offset` on.
bool Holds(const std::filesystem::path &path, size_t offset, const std::vector<uint8_t> &image) {
  std::ifstream in(path, std::ios::binary);
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  return bytes.size() >= offset + image.size() && std::equal(image.begin(), image.end(), bytes.begin() + offset);
}

size_t Count(const std::string &text, const std::string &part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) count++;
  return count;
}

class OfferFlashTest : public ::testing::Test {
 protected:
  void SetUp() override {
    MakeBitstreamTree(root_);
    narrowImage_ = RandomImage(70000, 20);  // more than the smallest chip holds
    wideImage_ = RandomImage(2000, 21);
    WriteImage("RK35", narrowImage_);
    WriteImage("O215", wideImage_);
    // xdma0: model 7, image at 0. xdma1: model 3, image in the update region.
    boards_ = "xdma0 model=7 bitstream=0x00FF0001 hot=49.995 flash_size=0x800000 flash=" + Flash(0).string() + "\n" +
              "xdma1 identity=215_ modelbits=6 flash_size=0x800000 flash=" + Flash(1).string() + "\n";
  }

  void WriteImage(const std::string &folder, const std::vector<uint8_t> &image) {
    std::ofstream out(root_ / "bitstreams" / ("CKB-" + folder) / "static.bin", std::ios::binary);
    out.write(reinterpret_cast<const char *>(image.data()), static_cast<std::streamsize>(image.size()));
  }
  std::filesystem::path Flash(int board) { return root_ / ("flash" + std::to_string(board)); }

  // The child: every board of `boards_` offered in order, then the closing
  // step. Exits 0 when a board was flashed, 3 when none was.
  std::unique_ptr<PtyProcess> Run() {
    return std::make_unique<PtyProcess>(std::vector<std::string>{}, std::vector<std::string>{}, [this] {
      std::filesystem::current_path(root_);
      setvbuf(stdout, nullptr, _IOLBF, 0);  // as the miner runs
      VLLogEnableConsole();
      VLLogInit(VLLogLevelInfo);
      VLConsoleBeginKeys();
      // A key typed ahead is pending before the question is asked.
      pollfd input{STDIN_FILENO, POLLIN, 0};
      if (keyTypedAhead_ && poll(&input, 1, 10000) != 1) return 2;
      sim::InProcessBoards boards("/ombry-offer-test");
      std::string error;
      if (!boards.AddList(boards_, &error)) return 2;
      boards.Install();
      FlashCatalogue catalogue;
      LoadFlashCatalogue(catalogue);
      FlashOfferFlags flags;
      for (uint64_t index = 0; boards.Find("xdma" + std::to_string(index)); index++) {
        BRYLDMADevice *device = BRYLDMADeviceOpen(boards.DevicePath("xdma" + std::to_string(index)), 0);
        if (!device) return 2;
        BoardModel model = ResolveBoardModel(device, GetModelString(device));
        OfferFlash(flags, catalogue, device, model, index);
        BRYLDMADeviceClose(device);
      }
      FinishFlashOffers(flags);
      return flags.flashed ? 0 : 3;
    });
  }

  miner_testing::ScratchDir scratch_;
  const std::filesystem::path root_ = scratch_.Path();
  std::string boards_;
  bool keyTypedAhead_ = false;
  std::vector<uint8_t> narrowImage_;
  std::vector<uint8_t> wideImage_;
};

// The first board reads just under the 50 C limit and is flashed.
TEST_F(OfferFlashTest, ConsentFlashesEveryBoardAfterOneQuestion) {
  auto child = Run();
  ASSERT_TRUE(child->WaitFor(kConsentPrompt)) << child->Output();
  child->Type("y");
  ASSERT_TRUE(child->WaitFor(kEnterPrompt)) << child->Output();
  child->Type("\r");
  EXPECT_EQ(child->Wait(), 0) << child->Output();

  const std::string &out = child->Output();
  EXPECT_EQ(Count(out, kConsentPrompt), 1u);
  EXPECT_NE(out.find("Successfully flashed device 1, please power cycle it"), std::string::npos);
  EXPECT_NE(out.find("Successfully flashed device 2, please power cycle it"), std::string::npos);
  EXPECT_NE(out.find("*    power cycle. Make sure the host is powered off for    *"), std::string::npos);

  EXPECT_TRUE(Holds(Flash(0), 0, narrowImage_));
  EXPECT_TRUE(Holds(Flash(1), 0x680000, wideImage_));
}

TEST_F(OfferFlashTest, AKeyTypedBeforeTheQuestionIsNoConsent) {
  keyTypedAhead_ = true;
  auto child = Run();
  child->Type("y");
  ASSERT_TRUE(child->WaitFor(kConsentPrompt)) << child->Output();
  child->Type("n");
  EXPECT_EQ(child->Wait(), 3) << child->Output();
  EXPECT_FALSE(std::filesystem::exists(Flash(0)));
}

// A board is erased only while its core reads at most 50 C: checked before the
// first erase and again before every later one. A reading no sensor gives is
// no reading. A chip that fails, or is too small for the image, is never
// reported as flashed. The second board, a model without an image, is passed over.
TEST_F(OfferFlashTest, AHotFailingOrTooSmallBoardIsNeverReportedAsFlashed) {
  struct Case {
    const char *board;
    size_t erases;
    const char *told;
  };
  const Case cases[] = {
      {"hot=50.005", 0,
       "The core temperature of device 1 is 50.00 *C, which exceeds the flashing safety threshold. Refusing to flash"},
      {"hot=-279", 0, "The core temperature of device 1 can't be read. Refusing to flash"},
      // Hot from the middle of the first pass on; the worn chip reads back
      // wrong, and the second erase is refused.
      {"worn=1 hot=61@3000", 1, "The core temperature of device 1 is 61.00 *C"},
      {"program_error=1@3000", 3, "flash of device 1 is incomplete; the board needs a new flash before a power cycle"},
      {"flash_size=0x10000", 0,
       "Device 1 was not flashed: the image of 70000 bytes at 0 does not fit the flash of 65536 bytes"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.board);
    std::filesystem::remove(Flash(0));
    boards_ = std::string("xdma0 model=7 flash_size=0x800000 ") + c.board + " flash=" + Flash(0).string() + "\n" +
              "xdma1 model=1 flash_size=0x800000\n";
    auto child = Run();
    ASSERT_TRUE(child->WaitFor(kConsentPrompt)) << child->Output();
    child->Type("y");
    EXPECT_EQ(child->Wait(), 3) << child->Output();
    const std::string &out = child->Output();
    EXPECT_EQ(Count(out, "Erasing..."), c.erases) << out;
    EXPECT_EQ(Count(out, c.told), 1u) << out;
    EXPECT_EQ(out.find("Successfully flashed"), std::string::npos);
    EXPECT_NE(out.find("No flash data found for device 2"), std::string::npos);
  }
}

}  // namespace
