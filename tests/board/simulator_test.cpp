// The simulator's board list: cards, sub-devices and errors by line.
#include "board_fixture.h"
#include "sim/blocks.h"
#include "sim/config.h"

namespace {

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
  const sim::CardSetup &rack = (*cards)[0];
  EXPECT_EQ(rack.subDevices, (1u << 1) | (1u << 3));
  EXPECT_EQ(rack.fpga[0].layout, 0u);
  // Sub-devices copy the primary as finally configured, with their own DNA.
  EXPECT_EQ(rack.fpga[3].layout, 0u);
  EXPECT_EQ(rack.fpga[3].bitstream, 0x000C0005u);
  EXPECT_EQ(rack.fpga[1].bitstream, 0x000C0004u);
  EXPECT_NE(rack.fpga[1].dna[0], rack.fpga[0].dna[0]);
  EXPECT_EQ(rack.fpga[3].faults.coreTemperature.value_or(0), 90.0);
  EXPECT_FALSE(rack.fpga[0].faults.coreTemperature.has_value());
  const sim::CardSetup &odd = (*cards)[1];
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

}  // namespace
