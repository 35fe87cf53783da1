// The register map and identity operations against simulated boards built
// from the same map, independently of this code.
#include "board/registers.h"

#include <chrono>
#include <cmath>
#include <thread>

#include "board_fixture.h"
#include "sim/blocks.h"

using board_test::Boards;
using board_test::Device;
using board_test::Filter;
using board_test::LogRecorder;
using board_test::ManualClock;
using sim::Node;

namespace {

uint32_t ReadReg(Device &device, uint32_t address) {
  return BRYLDMADeviceRead(device.get(), device->userFile, address);
}
void WriteReg(Device &device, uint32_t address, uint32_t value) {
  BRYLDMADeviceWrite(device.get(), device->userFile, address, value);
}

std::vector<uint64_t> Positions(const std::vector<sim::Access> &accesses) {
  std::vector<uint64_t> positions;
  for (const auto &access : accesses) positions.push_back(access.position);
  return positions;
}

TEST(BoardIdentity, EveryIdentityOfTheModelTable) {
  const std::pair<const char *, BoardModel> rows[] = {
      {"1525", 1}, {"101 ", 2}, {"215 ", 3}, {"215+", 4}, {"OMPR", 5},  {"RK33", 6},  {"RK35", 7},
      {"RK37", 11}, {"JC33", 8}, {"JC35", 9}, {"JC37", 11}, {"JC39", 11}, {"CV13", 10}, {"NV01", 11},
  };
  for (const auto &[identity, model] : rows) {
    std::string text = identity;
    for (char &c : text) c = c == ' ' ? '_' : c;
    Boards boards("xdma0 identity=" + text);
    auto device = boards.Open("xdma0");
    ASSERT_TRUE(device);
    std::string read = GetModelString(device.get());
    EXPECT_EQ(read, identity);
    EXPECT_EQ(ResolveBoardModel(device.get(), read), model) << identity;
  }
  EXPECT_EQ(ModelNameTable("1525 "), 0u);
  EXPECT_EQ(ModelNameTable("215"), 0u);
}

TEST(BoardIdentity, WideFamilyModelComesFromBoardWordBits) {
  struct Case {
    const char *identity;
    uint32_t bits;
    BoardModel model;
  };
  for (const Case &c : {Case{"101_", 7, 4}, Case{"101_", 6, 3}, Case{"215+", 5, 2}, Case{"215_", 3, 0},
                        Case{"215_", 0, 0}}) {
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

TEST(BoardIdentity, IdentityTextEndsAtAZeroByteAndAFailedReadIsEmpty) {
  Boards boards("xdma0 identity=0x4A430035\nxdma1 read_fail=1");
  auto device = boards.Open("xdma0");
  ASSERT_TRUE(device);
  EXPECT_STREQ(GetModelString(device.get()), "JC");
  auto failed = boards.Open("xdma1");
  ASSERT_TRUE(failed);
  EXPECT_STREQ(GetModelString(failed.get()), "");
  EXPECT_EQ(ResolveBoardModel(failed.get(), GetModelString(failed.get())), 0u);
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
  EXPECT_STREQ(DecodeBitstreamWord(0x80FF0000).name, "Shell");
  EXPECT_EQ(DecodeBitstreamWord(0x12345678).flags, 0x12u);
  EXPECT_EQ(DecodeBitstreamWord(0x12345678).minor, 0x78u);
  EXPECT_STREQ(ModelDirectoryAliasTable(4), "O21F");
  EXPECT_EQ(ModelDirectoryAliasTable(7), nullptr);
  EXPECT_EQ(FlashImageDigitTable('G'), 16);
  EXPECT_EQ(FlashImageDigitTable('H'), -1);
  EXPECT_EQ(FlashImageDigitTable('a'), -1);
}

TEST(BoardSensors, ConversionsMatchTheBoardsSensors) {
  Boards boards("narrow model=7 hot=85.5 sag=0.3\nwide model=2 hot=85.5 vrm_hot=101.25");
  auto narrow = boards.Open("narrow");
  EXPECT_NEAR(GetCoreTemperature(narrow.get(), true), 85.5, 0.01);
  EXPECT_NEAR(GetVccInt(narrow.get(), true), 0.85 - 0.3, 0.001);
  EXPECT_NEAR(GetVccAux(narrow.get(), true), 1.8, 0.001);

  auto wide = boards.Open("wide");
  // The worker's start-up: auxiliary channel 6 in the sequence, full averaging.
  WriteReg(wide, kRegXadcSequencer, ReadReg(wide, kRegXadcSequencer) | kXadcSequencerAux6);
  WriteReg(wide, kRegXadcConfig0, ReadReg(wide, kRegXadcConfig0) | kXadcConfig0Averaging);
  EXPECT_NEAR(GetCoreTemperature(wide.get(), false), 85.5, 0.13);
  EXPECT_NEAR(GetVccInt(wide.get(), false), 1.0, 0.001);
  double x = ReadReg(wide, kRegXadcAux6) >> 4;
  EXPECT_NEAR((x + 897.25) * 1.90575 / 4096.0 * 400.0 - 272.15, 101.25, 0.2);

  boards.Run("narrow read_fail=1");
  boards.Run("wide read_fail=1");
  EXPECT_DOUBLE_EQ(GetCoreTemperature(narrow.get(), true), -279.4265768);
  EXPECT_DOUBLE_EQ(GetCoreTemperature(wide.get(), false), -273.15);
  EXPECT_EQ(GetVccInt(wide.get(), false), 0.0);
}

class MmcmTest : public ::testing::Test {
 protected:
  static constexpr uint64_t kRef = 200000000;
  Boards boards_{"xdma0 model=7\nxdma1 model=2\nxdma2 model=7 divclk=0"};
  Device device_ = boards_.Open("xdma0");
  sim::MmcmBlock &mmcm_ = *boards_.Fpga("xdma0").Mmcm();
};

TEST_F(MmcmTest, HundredMegahertzExample) {
  EXPECT_EQ(SetMmcmClockHz(device_.get(), kRef, kRegMmcmBase, 100000000, 9, true), 100000000u);
  EXPECT_EQ(mmcm_.LoadedOutput(), 18u);  // divider 18.000
  EXPECT_EQ(mmcm_.LoadedFeedback() & 0xFFFF, 0x0901u);
  EXPECT_DOUBLE_EQ(mmcm_.OutputHz(), 1e8);
  EXPECT_EQ(GetMmcmClockHz(device_.get(), kRef, kRegMmcmBase), 100000000u);
}

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

TEST_F(MmcmTest, MultiplierZeroKeepsTheBoardsFeedbackWord) {
  auto wide = boards_.Open("xdma1");
  sim::Card &card = boards_.Card("xdma1");
  card.SetTracing(true);
  EXPECT_EQ(SetMmcmClockHz(wide.get(), 125000000, kRegMmcmBase, 100000000, 0, true), 100000000u);
  auto writes = Positions(Filter(card.TakeTrace(), Node::User, true));
  EXPECT_EQ(writes, (std::vector<uint64_t>{0x6208, 0x625C}));
  // A new multiplier goes in first; the divider is worked out with it.
  EXPECT_EQ(SetMmcmClockHz(wide.get(), 125000000, kRegMmcmBase, 100000000, 9, false), 100000000u);
  writes = Positions(Filter(card.TakeTrace(), Node::User, true));
  EXPECT_EQ(writes, (std::vector<uint64_t>{0x6200, 0x6208, 0x625C}));
  EXPECT_EQ(boards_.Fpga("xdma1").Mmcm()->LoadedFeedback() & 0xFFFF, 0x0901u);
  EXPECT_EQ(boards_.Fpga("xdma1").Mmcm()->LoadedOutput(), 11u | (250u << 8));
  EXPECT_DOUBLE_EQ(boards_.Fpga("xdma1").Mmcm()->OutputHz(), 1e8);
}

TEST_F(MmcmTest, WaitPollsTheBusyBitAroundTheLoad) {
  sim::Card &card = boards_.Card("xdma0");
  card.SetTracing(true);
  SetMmcmClockHz(device_.get(), kRef, kRegMmcmBase, 150000000, 9, true);
  auto trace = card.TakeTrace();
  size_t load = 0;
  for (size_t i = 0; i < trace.size(); i++) {
    if (trace[i].write && trace[i].position == 0x625C) load = i;
  }
  ASSERT_GT(load, 0u);
  size_t pollsBefore = 0, pollsAfter = 0;
  for (size_t i = 0; i < trace.size(); i++) {
    if (!trace[i].write && trace[i].position == 0x625C) (i < load ? pollsBefore : pollsAfter)++;
  }
  EXPECT_GE(pollsBefore, 1u);
  EXPECT_EQ(pollsAfter, static_cast<size_t>(sim::MmcmBlock::kBusyPolls) + 1);

  SetMmcmClockHz(device_.get(), kRef, kRegMmcmBase, 150000000, 9, false);
  for (const auto &access : card.TakeTrace()) EXPECT_FALSE(!access.write && access.position == 0x625C);
}

TEST_F(MmcmTest, StuckBusyBitHoldsTheCallerUntilItClears) {
  boards_.Run("xdma0 mmcm_stuck=1");
  sim::Card &card = boards_.Card("xdma0");
  card.SetTracing(true);
  std::thread setter([&] { SetMmcmClockHz(device_.get(), kRef, kRegMmcmBase, 100000000, 9, true); });
  size_t polls = 0;
  for (int i = 0; i < 5000 && polls < 20; i++) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    for (const auto &access : card.TakeTrace()) polls += !access.write && access.position == 0x625C;
  }
  EXPECT_GE(polls, 20u);
  EXPECT_EQ(mmcm_.Loads(), 0u);  // still waiting before the load
  boards_.Run("xdma0 mmcm_stuck=0");
  setter.join();
  EXPECT_EQ(mmcm_.Loads(), 1u);
}

TEST_F(MmcmTest, DividerOfZeroFromAFailedBoardIsNoDivisionFault) {
  LogRecorder log;
  boards_.Run("xdma0 read_fail=1");
  boards_.Card("xdma0").SetTracing(true);
  EXPECT_EQ(GetMmcmClockHz(device_.get(), kRef, kRegMmcmBase), 0u);
  EXPECT_EQ(SetMmcmClockHz(device_.get(), kRef, kRegMmcmBase, 100000000, 9, true), 0u);
  EXPECT_TRUE(Filter(boards_.Card("xdma0").TakeTrace(), Node::User, true).empty());
  EXPECT_EQ(log.Count("MMCM divider read as 0"), 2u);

  // A live board whose input divider is 0 is treated the same way.
  auto zero = boards_.Open("xdma2");
  EXPECT_EQ(GetMmcmClockHz(zero.get(), kRef, kRegMmcmBase), 0u);
  EXPECT_EQ(SetMmcmClockHz(zero.get(), kRef, kRegMmcmBase, 100000000, 0, true), 0u);
}

TEST(ClockControl, EnableAndResetBitsByLayout) {
  Boards boards("layout0 model=2 layout=0\nlayout1 model=2 layout=1");
  for (const char *name : {"layout0", "layout1"}) {
    auto device = boards.Open(name);
    sim::Fpga &fpga = boards.Fpga(name);
    uint32_t layout = ReadLayoutVersion(device.get());
    uint32_t clockRegister = layout == 1 ? kRegClockControlLayout1 : kRegClockControl;
    WriteReg(device, clockRegister, 0xC0000000u);
    SetMmcmClockHz(device.get(), 125000000, kRegMmcmBase, 100000000, 0, true);
    EXPECT_EQ(fpga.HashClockHz(), 0.0) << name;

    EXPECT_TRUE(SetMmcmReset(device.get(), false, layout));
    EXPECT_TRUE(SetMmcmClockEnable(device.get(), true, layout));
    EXPECT_EQ(ReadReg(device, clockRegister), 0xC0000003u) << name;
    EXPECT_DOUBLE_EQ(fpga.HashClockHz(), 1e8) << name;

    EXPECT_TRUE(SetMmcmClockEnable(device.get(), false, layout));
    EXPECT_EQ(fpga.HashClockHz(), 0.0) << name;
    EXPECT_TRUE(SetMmcmClockEnable(device.get(), true, layout));
    EXPECT_TRUE(SetMmcmReset(device.get(), true, layout));
    EXPECT_EQ(ReadReg(device, clockRegister), 0xC0000001u) << name;
    EXPECT_EQ(fpga.HashClockHz(), 0.0) << name;
  }
  // In layout 1 the clock bits live at 0x004C and 0x2008 keeps only the LED.
  auto device = boards.Open("layout1");
  EXPECT_EQ(ReadReg(device, kRegClockControl), 0u);
}

TEST(IdentityLed, ModesAreBitPatternsAndOtherBitsStay) {
  Boards boards("xdma0 model=3 layout=0");
  auto device = boards.Open("xdma0");
  EXPECT_EQ(GetIdentityLEDSetting(device.get()), OmbryIdentityLEDSetting34);  // all zeros is not off
  WriteReg(device, kRegClockControl, 3);
  const std::pair<OmbryIdentityLEDSetting, uint32_t> modes[] = {
      {OmbryIdentityLEDSettingOff, 0xC0000003u},
      {OmbryIdentityLEDSetting22, 0x80000003u},
      {OmbryIdentityLEDSettingFast, 0x40000003u},
      {OmbryIdentityLEDSetting34, 0x00000003u},
  };
  for (const auto &[mode, word] : modes) {
    EXPECT_TRUE(SetIdentityLEDSetting(device.get(), mode));
    EXPECT_EQ(ReadReg(device, kRegClockControl), word);
    EXPECT_EQ(GetIdentityLEDSetting(device.get()), mode);
  }
  SetIdentityLEDSetting(device.get(), OmbryIdentityLEDSettingFast);
  SetIdentityLEDSetting(device.get(), static_cast<OmbryIdentityLEDSetting>(7));
  EXPECT_EQ(ReadReg(device, kRegClockControl), 0x40000003u);
  EXPECT_STREQ(IdentityLEDSettingName(OmbryIdentityLEDSettingOff), "OmbryIdentityLEDSettingOff");
  EXPECT_STREQ(IdentityLEDSettingName(static_cast<OmbryIdentityLEDSetting>(7)), "Unknown");
  LogRecorder log;
  LogIdentityMode(device.get());
  EXPECT_TRUE(log.Has("BRYL_Reg", "Identity Mode: OmbryIdentityLEDSettingFast.", VLLogLevelInfo));
}

TEST(CoreCounter, CountsHashClockCyclesAcrossBothWords) {
  ManualClock clock;
  Boards boards("xdma0 model=7 layout=1", clock.Source());
  auto device = boards.Open("xdma0");
  SetMmcmClockHz(device.get(), 200000000, kRegMmcmBase, 100000000, 9, true);
  EXPECT_EQ(GetCoreCounter(device.get()), 0u);
  SetMmcmReset(device.get(), false, 1);
  SetMmcmClockEnable(device.get(), true, 1);
  clock.now += 50.0;
  EXPECT_EQ(GetCoreCounter(device.get()), 5000000000u);
  SetMmcmClockEnable(device.get(), false, 1);
  clock.now += 10.0;
  EXPECT_EQ(GetCoreCounter(device.get()), 5000000000u);
}

}  // namespace
