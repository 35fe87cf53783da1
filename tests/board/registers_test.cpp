// The register map and identity operations against simulated boards built
// from the same map, independently of this code.
#include "board/registers.h"

#include "board_fixture.h"
#include "sim/blocks.h"

using board_test::Boards;
using board_test::Device;
using board_test::Positions;

namespace {

void WriteReg(Device &device, uint32_t address, uint32_t value) {
  BRYLDMADeviceWrite(device.get(), device->userFile, address, value);
}

TEST(BoardIdentity, WideFamilyModelComesFromBoardWordBits) {
  struct Case {
    const char *identity;
    uint32_t bits;
    BoardModel model;
  };
  for (const Case &c :
       {Case{"101_", 7, 4}, Case{"101_", 6, 3}, Case{"215+", 5, 2}, Case{"215_", 3, 0}, Case{"215_", 0, 0}}) {
    Boards boards(std::string("xdma0 identity=") + c.identity + " modelbits=" + std::to_string(c.bits) +
                  " boardword=0xffffffe3");
    auto device = boards.Open("xdma0");
    ASSERT_TRUE(device);
    EXPECT_EQ(ResolveBoardModel(device.get(), GetModelString(device.get())), c.model) << c.identity << c.bits;
  }
  // The narrow family never looks at the board word for its model.
  Boards boards("xdma0 identity=1525 layout=0");
  auto device = boards.Open("xdma0");
  boards.Card("xdma0").SetTracing(true);
  EXPECT_EQ(ResolveBoardModel(device.get(), "1525"), 1u);
  EXPECT_TRUE(boards.Card("xdma0").TakeTrace().empty());
}

TEST(BoardIdentity, DnaAndBoardWordInBothLayouts) {
  Boards boards(
      "narrow1 model=7 layout=1 dna=01234567,89abcdef,00c0ffee boardword=cafe0001\n"
      "narrow0 model=7 layout=0 dna=01234567,89abcdef,00c0ffee boardword=cafe0001\n"
      "old     model=7 layout=0xffffffff dna=01234567,89abcdef,00c0ffee boardword=cafe0001\n"
      "wide1   model=2 layout=1 dna=01234567,89abcdef boardword=cafe0001\n"
      "wide0   model=2 layout=0 dna=01234567,89abcdef boardword=cafe0001\n");
  for (const char *name : {"narrow1", "narrow0", "old"}) {
    auto device = boards.Open(name);
    ASSERT_TRUE(device);
    uint32_t layout = ReadLayoutVersion(device.get());
    EXPECT_EQ(layout, std::string(name) == "narrow1" ? 1u : 0u) << name;
    EXPECT_STREQ(GetBoardDNA(device.get(), true, layout), "0123456789abcdef00c0ffee") << name;
    EXPECT_STREQ(GetBoardWord(device.get(), layout), "cafe0001") << name;
  }
  auto wide1 = boards.Open("wide1");
  boards.Card("wide1").SetTracing(true);
  EXPECT_STREQ(GetBoardDNA(wide1.get(), false, 1), "0123456789abcdef");
  // Words 0 and 1 only, word 0 first; the third word isn't read unless asked.
  EXPECT_EQ(Positions(boards.Card("wide1").TakeTrace()), (std::vector<uint64_t>{0x14, 0x10}));
  EXPECT_STREQ(GetBoardWord(wide1.get(), 1), "cafe0001");
  // Layout 0 shows the board word at 0x2000, exact-model bits included.
  auto wide0 = boards.Open("wide0");
  EXPECT_STREQ(GetBoardDNA(wide0.get(), false, 0), "0123456789abcdef");
  EXPECT_STREQ(GetBoardWord(wide0.get(), 0), "cafe0015");
  EXPECT_STREQ(GetBitstreamVersionString(wide0.get()), "0x000c0004");

  EXPECT_THROW(GetBoardDNA(wide0.get(), false, 2), int);
  EXPECT_THROW(GetBoardWord(wide0.get(), 2), int);
  EXPECT_THROW(SetMmcmClockEnable(wide0.get(), true, 2), int);
  EXPECT_THROW(SetMmcmReset(wide0.get(), true, 2), int);
}

TEST(BoardIdentity, BitstreamWordAndCompatibility) {
  BitstreamInfo ckb = DecodeBitstreamWord(0x000C0004);
  EXPECT_STREQ(ckb.name, "CKB");
  EXPECT_EQ(ckb.id, 12u);
  EXPECT_TRUE(ckb.compatible);
  EXPECT_FALSE(DecodeBitstreamWord(0x000C0005).compatible);
  EXPECT_FALSE(DecodeBitstreamWord(0x000C0104).compatible);
  EXPECT_FALSE(DecodeBitstreamWord(0x00070004).compatible);
  EXPECT_STREQ(DecodeBitstreamWord(0x80630000).name, "Factory test");
  EXPECT_STREQ(DecodeBitstreamWord(0x7F630000).name, "Unknown");
  EXPECT_EQ(DecodeBitstreamWord(0x12345678).flags, 0x12u);
  EXPECT_EQ(DecodeBitstreamWord(0x12345678).minor, 0x78u);
}

class MmcmTest : public ::testing::Test {
 protected:
  static constexpr uint64_t kRef = 200000000;
  Boards boards_{"xdma0 model=7\nxdma1 model=2\nxdma2 model=7 divclk=0"};
  Device device_ = boards_.Open("xdma0");
  sim::MmcmBlock &mmcm_ = *boards_.Fpga("xdma0").Mmcm();
};

TEST_F(MmcmTest, FractionalDividerAndClamps) {
  // d = 12345: 12 in bits 7-0, 345 split over bits 15-8 and 17-16.
  uint64_t reached = SetMmcmClockHz(device_.get(), kRef, kRegMmcmBase, 145808019, 9, true);
  EXPECT_EQ(reached, 145808019u);
  EXPECT_EQ(mmcm_.LoadedOutput(), 0x1590Cu);
  EXPECT_NEAR(mmcm_.OutputHz(), static_cast<double>(reached), 1.0);
  EXPECT_EQ(GetMmcmClockHz(device_.get(), kRef, kRegMmcmBase), reached);

  // Target 0 is the slowest divider, 255.999, and keeps the word's top bits.
  WriteReg(device_, kRegMmcmBase + kMmcmOutputConfig, 0xABC00000u | 7);
  EXPECT_EQ(SetMmcmClockHz(device_.get(), kRef, kRegMmcmBase, 0, 0, true), 7031277u);
  EXPECT_EQ(mmcm_.LoadedOutput(), 0xABC3E7FFu);
  EXPECT_EQ(SetMmcmClockHz(device_.get(), kRef, kRegMmcmBase, 1000, 0, false), 7031277u);

  // Beyond the reachable range the divider clamps to 0.001.
  EXPECT_EQ(SetMmcmClockHz(device_.get(), kRef, kRegMmcmBase, 5000000000000ull, 0, true), 1800000000000u);
  EXPECT_EQ(mmcm_.LoadedOutput() & 0x3FFFF, 0x100u);
}

TEST_F(MmcmTest, WaitPollsTheBusyBitAroundTheLoad) {
  sim::Card &card = boards_.Card("xdma0");
  card.SetTracing(true);
  SetMmcmClockHz(device_.get(), kRef, kRegMmcmBase, 150000000, 9, true);
  // The load register's accesses in order: polls, the load, and the polls
  // until the MMCM is no longer busy.
  std::string accesses;
  for (const auto &access : card.TakeTrace()) {
    if (access.position == 0x625C) accesses += access.write ? 'W' : 'R';
  }
  const size_t load = accesses.find('W');
  ASSERT_NE(load, std::string::npos) << accesses;
  EXPECT_GE(load, 1u) << accesses;
  EXPECT_EQ(accesses.substr(load), "W" + std::string(sim::MmcmBlock::kBusyPolls + 1, 'R'));

  SetMmcmClockHz(device_.get(), kRef, kRegMmcmBase, 150000000, 9, false);
  for (const auto &access : card.TakeTrace()) EXPECT_FALSE(!access.write && access.position == 0x625C);
}

TEST_F(MmcmTest, AStuckBusyBitEndsTheWaitWithoutALoadAndMarksTheDevice) {
  boards_.Run("xdma0 mmcm_stuck=1");
  EXPECT_EQ(SetMmcmClockHz(device_.get(), kRef, kRegMmcmBase, 100000000, 9, true), 0u);
  EXPECT_EQ(mmcm_.Loads(), 0u);  // nothing is written into a busy MMCM
  EXPECT_STREQ(device_->stuckWait, "the clock (MMCM) stayed busy for 100 ms");
}

}  // namespace
