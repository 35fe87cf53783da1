// The simulator's own behaviour: the board list format, the thermal model,
// the blocks' register semantics, and the way its nodes can be opened.
#include <cerrno>
#include <cmath>
#include <cstring>
#include <set>

#include "board_fixture.h"
#include "sim/blocks.h"
#include "sim/config.h"

using board_test::Boards;
using board_test::ManualClock;
using sim::Node;

namespace {

uint32_t Read32(sim::Card &card, uint64_t position) {
  uint32_t value = 0;
  EXPECT_EQ(card.Read(Node::User, 0, position, &value, 4), 4);
  return value;
}

void Write32(sim::Card &card, uint64_t position, uint32_t value) {
  EXPECT_EQ(card.Write(Node::User, 0, position, &value, 4), 4);
}

TEST(BoardList, ParsesCardsSubDevicesAndReportsErrorsByLine) {
  std::string error;
  auto cards = sim::ParseBoardList(
      "# rack\n"
      "xdma3 model=9 subdevices=1,3 dna=00000010,00000020,00000030  # comment\n"
      "xdma3.3 bitstream=0x000C0005 hot=90\n"
      "xdma3 layout=0\n"
      "\n"
      "xdma4 identity=215_ modelbits=3 user=0 dma=none\n",
      &error);
  ASSERT_TRUE(cards) << error;
  ASSERT_EQ(cards->size(), 2u);
  const sim::CardSpec &rack = (*cards)[0];
  EXPECT_EQ(rack.subDevices, (1u << 1) | (1u << 3));
  EXPECT_EQ(rack.fpga[0].layout, 0u);
  // Sub-devices copy the primary as finally configured, with their own DNA.
  EXPECT_EQ(rack.fpga[3].layout, 0u);
  EXPECT_EQ(rack.fpga[3].bitstream, 0x000C0005u);
  EXPECT_EQ(rack.fpga[1].bitstream, 0x000C0004u);
  EXPECT_NE(rack.fpga[1].dna[0], rack.fpga[0].dna[0]);
  EXPECT_EQ(rack.fpga[3].faults.coreTemperature.value_or(0), 90.0);
  EXPECT_FALSE(rack.fpga[0].faults.coreTemperature.has_value());
  const sim::CardSpec &odd = (*cards)[1];
  EXPECT_EQ(odd.fpga[0].identityWord, 0x32313520u);
  EXPECT_TRUE(odd.fpga[0].wide);
  EXPECT_EQ(odd.fpga[0].modelBits, 3u);
  EXPECT_FALSE(odd.userFile || odd.h2c || odd.c2h);

  const std::pair<const char *, const char *> bad[] = {
      {"xdma0 model=12", "line 1: bad value for model: '12'"},
      {"xdma0\nxdma0 colour=red", "line 2: unknown setting: colour"},
      {"xdma0 layout", "line 1: expected key=value, got 'layout'"},
      {"xdma0 subdevices=1\nxdma0.2 hot=80", "line 2: xdma0 has no sub-device 2"},
      {"xdma0.4 hot=1", "line 1: bad sub-device in 'xdma0.4'"},
      {"xdma0 dna=1234", "line 1: bad value for dna: '1234'"},
      {"xdma0 identity=TOOLONG", "line 1: bad value for identity: 'TOOLONG'"},
  };
  for (const auto &[text, message] : bad) {
    EXPECT_FALSE(sim::ParseBoardList(text, &error)) << text;
    EXPECT_EQ(error, message);
  }
}

TEST(BoardList, OnlyFaultsAndThermalSettingsChangeWhileRunning) {
  Boards boards("xdma0");
  std::string error;
  EXPECT_FALSE(boards.InProcess().RunCommand("xdma0 model=2", &error));
  EXPECT_EQ(error, "unknown setting: model");
  EXPECT_FALSE(boards.InProcess().RunCommand("xdma5 hot=90", &error));
  EXPECT_EQ(error, "no board xdma5");
  EXPECT_FALSE(boards.InProcess().RunCommand("xdma0.1 hot=90", &error));
  EXPECT_TRUE(boards.InProcess().RunCommand("xdma0 hot=90 vrm_hot=off lag=0", &error)) << error;
}

TEST(Thermal, TemperaturesFollowClockTimesCoresWithALag) {
  ManualClock clock;
  Boards boards("xdma0 model=7 ambient=30 heat=4 vrmheat=6 lag=2 vccint=0.9 sagrate=0.01", clock.Source());
  sim::Card &card = boards.Card("xdma0");
  sim::Fpga &fpga = boards.Fpga("xdma0");
  // 10 cores at the power-on 100 MHz: 1 GHz of load once running.
  Write32(card, 0x004C, 3);
  EXPECT_DOUBLE_EQ(fpga.HashClockHz(), 1e8);
  EXPECT_NEAR(fpga.VccInt(), 0.9 - 0.01, 1e-12);  // the sag comes at once
  clock.now += 2.0;
  card.Describe();  // lets the time pass
  double follow = 1.0 - std::exp(-1.0);
  EXPECT_NEAR(fpga.CoreTemperature(), 30.0 + 4.0 * follow, 1e-9);
  EXPECT_NEAR(fpga.VrmTemperature(), 30.0 + 6.0 * follow, 1e-9);
  clock.now += 100.0;
  card.Describe();
  EXPECT_NEAR(fpga.CoreTemperature(), 34.0, 1e-9);

  // Forced readings override the model; clearing them returns to it.
  boards.Run("xdma0 hot=97 vrm_hot=110 sag=0.2");
  EXPECT_EQ(fpga.CoreTemperature(), 97.0);
  EXPECT_EQ(fpga.VrmTemperature(), 110.0);
  EXPECT_NEAR(fpga.VccInt(), 0.69, 1e-12);
  boards.Run("xdma0 faults=none");
  EXPECT_NEAR(fpga.CoreTemperature(), 34.0, 1e-9);

  // Clock off: back towards ambient.
  Write32(card, 0x004C, 2);
  clock.now += 100.0;
  card.Describe();
  EXPECT_NEAR(fpga.CoreTemperature(), 30.0, 1e-9);
  EXPECT_NEAR(fpga.VccInt(), 0.9, 1e-12);
}

TEST(XadcModel, AuxiliaryChannelNeedsTheSequencerAndAveragingSteadiesReadings) {
  Boards boards("xdma0 model=4 vrm_hot=100 hot=60");
  sim::Card &card = boards.Card("xdma0");
  EXPECT_EQ(Read32(card, 0x3258), 0u);
  Write32(card, 0x3324, 1u << 6);
  EXPECT_NE(Read32(card, 0x3258), 0u);
  EXPECT_EQ(Read32(card, 0x3324), 1u << 6);

  std::set<uint32_t> wandering, steady;
  for (int i = 0; i < 50; i++) wandering.insert(Read32(card, 0x3200));
  Write32(card, 0x3300, 0x3000);
  for (int i = 0; i < 50; i++) steady.insert(Read32(card, 0x3200));
  EXPECT_GT(wandering.size(), 1u);
  EXPECT_EQ(steady.size(), 1u);
  EXPECT_EQ(*steady.begin() & 0xF, 0u);  // 12 bits in bits 15 to 4
  // The narrow family's sensors live elsewhere.
  EXPECT_EQ(Read32(card, 0x3400), 0u);
}

TEST(MmcmModel, LoadAppliesDividersAndReadsBusyForAFewPolls) {
  Boards boards("xdma0 model=7 layout=0");
  sim::Card &card = boards.Card("xdma0");
  sim::Fpga &fpga = boards.Fpga("xdma0");
  EXPECT_NEAR(fpga.MmcmOutputHz(), 1e8, 1.0);  // power-on clock
  Write32(card, 0x6208, 9);                     // 200 MHz x 9 / 9
  EXPECT_NEAR(fpga.MmcmOutputHz(), 1e8, 1.0);   // not before the load
  Write32(card, 0x625C, 1);
  EXPECT_EQ(fpga.Mmcm()->Loads(), 0u);
  Write32(card, 0x625C, 3);
  EXPECT_DOUBLE_EQ(fpga.MmcmOutputHz(), 2e8);
  for (int i = 0; i < sim::MmcmBlock::kBusyPolls; i++) EXPECT_EQ(Read32(card, 0x625C), 1u);
  EXPECT_EQ(Read32(card, 0x625C), 0u);
  EXPECT_EQ(Read32(card, 0x6208), 9u);

  // No clock reaches the cores in reset or disabled.
  EXPECT_EQ(fpga.HashClockHz(), 0.0);
  EXPECT_EQ(Read32(card, 0x6004), 0u);
  Write32(card, 0x2008, 2);
  EXPECT_EQ(Read32(card, 0x6004), 1u);
  EXPECT_EQ(fpga.HashClockHz(), 0.0);
  Write32(card, 0x2008, 3);
  EXPECT_DOUBLE_EQ(fpga.HashClockHz(), 2e8);

  boards.Run("xdma0 mmcm_stuck=1");
  for (int i = 0; i < 10; i++) EXPECT_EQ(Read32(card, 0x625C), 1u);
}

TEST(HashCoreModel, RegistersLatchAndFlagsClearOnAcknowledge) {
  Boards boards("xdma0");
  sim::Card &card = boards.Card("xdma0");
  sim::HashCoreBlock &core = *boards.Fpga("xdma0").HashCore();
  Write32(card, 0x406C, 0x10000);
  EXPECT_TRUE(core.Held());
  Write32(card, 0x4024, 0x11223344);
  Write32(card, 0x4080, 0xDEADBEEF);
  EXPECT_EQ(core.Latched(0x24), 0x11223344u);
  EXPECT_EQ(Read32(card, 0x4080), 0xDEADBEEFu);
  Write32(card, 0x406C, 0);
  EXPECT_FALSE(core.Held());

  core.PostResult(0, 0xAAAA0000);
  core.PostResult(2, 0xCCCC0002);
  uint32_t control = Read32(card, 0x406C);
  EXPECT_EQ(control & 0xF000, (1u << 12) | (1u << 14));
  EXPECT_EQ(Read32(card, 0x407C), 0xAAAA0000u);  // slot i at 0x7C - 4i
  EXPECT_EQ(Read32(card, 0x4074), 0xCCCC0002u);
  Write32(card, 0x4070, 5);  // result slots don't take writes
  EXPECT_EQ(Read32(card, 0x4070), 0u);
  // Writing a flag back as 1 keeps it; as 0 acknowledges it.
  Write32(card, 0x406C, control & ~(1u << 12));
  EXPECT_EQ(Read32(card, 0x406C) & 0xF000, 1u << 14);
  Write32(card, 0x406C, 0xF000);
  EXPECT_EQ(Read32(card, 0x406C) & 0xF000, 1u << 14);
  Write32(card, 0x406C, 0);
  EXPECT_EQ(Read32(card, 0x406C) & 0xF000, 0u);
}

TEST(SubDeviceModel, PresenceAppearsAfterAProbeAndWindowsAreSeparate) {
  Boards boards("xdma0 model=9 subdevices=1,3\nxdma0.3 bitstream=0x00FF0102\nxdma1 model=7 subdevices=1");
  sim::Card &card = boards.Card("xdma0");
  EXPECT_EQ(Read32(card, 0x20), 0u);
  Write32(card, 0x50, 1);
  EXPECT_EQ(Read32(card, 0x20), (1u << 4) | (1u << 29));
  EXPECT_EQ(Read32(card, 0x60008), 0x00FF0102u);
  EXPECT_EQ(Read32(card, 0x40008), 0u);  // sub-device 2 is absent
  EXPECT_EQ(Read32(card, 0x60020), 0u);  // only the primary reports presence
  // A model without sub-devices has no presence register.
  sim::Card &plain = boards.Card("xdma1");
  Write32(plain, 0x50, 1);
  EXPECT_EQ(Read32(plain, 0x20), 0u);

  // Through DMA, an FPGA's bridge answers only for its own window.
  uint32_t value = 0;
  EXPECT_EQ(card.Read(Node::C2H, 0, (3ull << 36) + 0x60008, &value, 4), 4);
  EXPECT_EQ(value, 0x00FF0102u);
  EXPECT_EQ(card.Read(Node::C2H, 0, (3ull << 36) + 0x8, &value, 4), 4);
  EXPECT_EQ(value, 0u);
  EXPECT_EQ(card.Read(Node::C2H, 0, 0x60008, &value, 4), 4);
  EXPECT_EQ(value, 0u);
}

TEST(NodeAccess, DirectionIsEnforcedAndMissingNodesDontOpen) {
  Boards boards("xdma0 user=0 channels=2\nxdma1 dma=c2h");
  sim::InProcessBoards &backend = boards.InProcess();
  int error = 0;
  EXPECT_LT(backend.Open("/ombry-test/xdma0_c2h_1", BRYLDMAAccess::ReadWrite, &error), 0);
  EXPECT_EQ(error, EACCES);
  EXPECT_LT(backend.Open("/ombry-test/xdma0_h2c_0", BRYLDMAAccess::Read, &error), 0);
  EXPECT_EQ(error, EACCES);
  EXPECT_LT(backend.Open("/ombry-test/xdma0_user", BRYLDMAAccess::ReadWrite, &error), 0);
  EXPECT_EQ(error, ENOENT);
  EXPECT_LT(backend.Open("/ombry-test/xdma1_h2c_0", BRYLDMAAccess::Write, &error), 0);
  EXPECT_LT(backend.Open("/elsewhere/xdma1_control", BRYLDMAAccess::ReadWrite, &error), 0);
  int64_t handle = backend.Open("/ombry-test/xdma0_h2c_1", BRYLDMAAccess::Write, &error);
  ASSERT_GE(handle, 0);
  backend.Close(handle);

  std::vector<std::string> names;
  EXPECT_TRUE(backend.ListDirectory("/ombry-test/", &names, &error));
  EXPECT_EQ(names, (std::vector<std::string>{"xdma0_control", "xdma0_h2c_0", "xdma0_c2h_0", "xdma0_h2c_1",
                                             "xdma0_c2h_1", "xdma1_control", "xdma1_user", "xdma1_c2h_0"}));
  names.clear();
  EXPECT_TRUE(backend.ListDirectory("/dev", &names, &error));
  EXPECT_TRUE(names.empty());
  // Register writes are whole aligned words.
  uint16_t half = 1;
  EXPECT_EQ(boards.Card("xdma1").Write(Node::User, 0, 0x4C, &half, 2), -EINVAL);
}

}  // namespace
