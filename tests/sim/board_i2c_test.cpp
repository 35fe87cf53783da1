// The worker's two I2C steps on a simulated model 6 board: the bring-up
// write, and the regulator reading that only 0x1F moves and only upwards.
#include "miner/board_i2c.h"

#include "i2c_fixture.h"

namespace i2c_test {
namespace {

TEST(BoardI2CBringUp, Model6GetsAResetAndItsTwoBytesWhileTheClockIsHeld) {
  I2cBoard board("model=6");
  BoardI2CBringUp(board.Controller(), 6);
  EXPECT_EQ(board.Transcript(), "reset S @58+ w01+ wFF+ P");
  auto recorded = board.Recorded();
  ASSERT_EQ(recorded.size(), 1u);
  EXPECT_EQ(recorded[0].bytes, (std::vector<uint8_t>{0x01, 0xFF}));
  EXPECT_FALSE(recorded[0].clockOutOfReset);
}

TEST(BoardI2CBringUp, OtherModelsLeaveTheBusAlone) {
  I2cBoard board("model=7");
  BoardI2CBringUp(board.Controller(), 7);
  Worker worker;
  worker.model = 7;
  worker.vrmTemperature = 12.5;
  BoardI2CTelemetry(board.Controller(), worker);
  EXPECT_EQ(worker.vrmTemperature, 12.5);
  EXPECT_EQ(board.Transcript(), "");
}

TEST(BoardI2CTelemetry, OnlyTheSensorAt1FMovesTheFieldAndOnlyUpwards) {
  I2cBoard board("model=6 i2c_temp_18=90 i2c_temp_19=80 i2c_temp_1f=50");
  Worker worker;
  worker.model = 6;

  // The hotter sensors are read, in order, and change nothing. (90 C carries
  // the above-upper flag, 0x4000.)
  BoardI2CTelemetry(board.Controller(), worker);
  EXPECT_EQ(worker.vrmTemperature, 50.0);
  EXPECT_EQ(board.Transcript(),
            "S @30+ w05+ P S @31+ r45+ rA0- P "
            "S @32+ w05+ P S @33+ r05+ r00- P "
            "S @3E+ w05+ P S @3F+ r03+ r20- P");

  // A cooler reading leaves the highest one seen.
  board.Set("i2c_temp_1f=40.5");
  BoardI2CTelemetry(board.Controller(), worker);
  EXPECT_EQ(worker.vrmTemperature, 50.0);

  board.Set("i2c_temp_1f=107.25");
  BoardI2CTelemetry(board.Controller(), worker);
  EXPECT_EQ(worker.vrmTemperature, 107.25);
  board.Set("i2c_temp_1f=off vrm_hot=60");
  BoardI2CTelemetry(board.Controller(), worker);
  EXPECT_EQ(worker.vrmTemperature, 107.25);
}

TEST(BoardI2CTelemetry, FollowsTheRegulatorAndSkipsAZeroResult) {
  I2cBoard board("model=6 vrm_hot=99.5");
  Worker worker;
  worker.model = 6;
  BoardI2CTelemetry(board.Controller(), worker);
  EXPECT_EQ(worker.vrmTemperature, 99.5);

  // With the field below zero, a 0 C reading at 0x1F makes the result 0,
  // which is not stored, whatever the other two read.
  I2cBoard cold("model=6 i2c_temp_18=30 i2c_temp_19=20 i2c_temp_1f=0");
  worker.vrmTemperature = -5.0;
  BoardI2CTelemetry(cold.Controller(), worker);
  EXPECT_EQ(worker.vrmTemperature, -5.0);
  // A sensor that doesn't answer reads 0 the same way.
  cold.Set("i2c_temp_1f=25 i2c_nak=0x1F");
  BoardI2CTelemetry(cold.Controller(), worker);
  EXPECT_EQ(worker.vrmTemperature, -5.0);
}

}  // namespace
}  // namespace i2c_test
