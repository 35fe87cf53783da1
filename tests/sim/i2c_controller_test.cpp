// The production I2C driver against the simulated controller: what goes on
// the wire for each kind of transfer, at several bus speeds, and how the
// driver comes out of a missing acknowledge, a lost arbitration and a bus
// that stays busy.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "board/dma_device.h"
#include "board/i2c.h"
#include "board/registers.h"
#include "sim/iic.h"
#include "sim/in_process.h"

namespace {

// A simulated board behind the device-file seam, its I2C controller driven by
// the production driver and its bus open to inspection.
class I2cBoard {
 public:
  explicit I2cBoard(const std::string &settings = "model=6") : boards_("/ombry-i2c-test") {
    // The driver's polls have no time limit, so a driver or model fault
    // shows as a hang; the alarm ends the test binary instead.
    alarm(60);
    std::string error;
    if (!boards_.AddList("xdma0 " + settings, &error)) ADD_FAILURE() << "board list: " << error;
    boards_.Install();
    device_ = BRYLDMADeviceOpen(boards_.DevicePath("xdma0"), 0);
    if (!device_) ADD_FAILURE() << "the simulated board didn't open";
    controller_ = std::make_unique<I2CController>(device_, kRegI2CBase);
  }
  ~I2cBoard() {
    BRYLDMADeviceClose(device_);
    alarm(0);
  }

  I2CController &Controller() { return *controller_; }

  // Run-time settings, as the simulator's command line takes them.
  void Set(const std::string &settings) {
    std::string error;
    if (!boards_.RunCommand("xdma0 " + settings, &error)) ADD_FAILURE() << settings << ": " << error;
  }
  template <typename Body>
  auto WithIic(Body body) {
    return boards_.Find("xdma0")->WithFpga(0, [&](sim::Fpga *fpga) { return body(*fpga->Iic()); });
  }
  std::string Transcript() {
    return WithIic([](sim::IicBlock &iic) { return iic.TakeTranscript(); });
  }
  std::vector<std::string> ProtocolErrors() {
    return WithIic([](sim::IicBlock &iic) { return iic.TakeProtocolErrors(); });
  }
  bool BusBusy() {
    return WithIic([](sim::IicBlock &iic) { return iic.BusBusy(); });
  }

 private:
  sim::InProcessBoards boards_;
  BRYLDMADevice *device_ = nullptr;
  std::unique_ptr<I2CController> controller_;
};

// The two bytes that a sensor at 25.25 C sends: 404 sixteenths.
constexpr const char *kRead2525 = "r01+ r94-";

TEST(I2CTransfer, EachKindOfTransferPutsTheRightSequenceOnTheWire) {
  // 4 accesses per byte is the fastest bus relative to the host on which
  // the driver's write order still holds.
  for (int ticks : {4, 16, 64}) {
    SCOPED_TRACE("byte ticks " + std::to_string(ticks));
    I2cBoard board("model=6 i2c_temp_1f=25.25 i2c_temp_18=-1 i2c_byte_ticks=" + std::to_string(ticks));
    I2CController &i2c = board.Controller();
    uint8_t bytes[2] = {};

    EXPECT_EQ(i2c.Send(0x2C, {0x01, 0xFF}, kI2CEndWithStop), 2u);
    EXPECT_EQ(board.Transcript(), "S @58+ w01+ wFF+ P");

    // Pointer write, stop, then a two-byte read whose last byte alone goes
    // unacknowledged.
    EXPECT_EQ(ReadBoardTemperature(i2c, 0x1F), 25.25);
    EXPECT_EQ(board.Transcript(), std::string("S @3E+ w05+ P S @3F+ ") + kRead2525 + " P");

    // Pointer write joined to the read by a repeated start.
    EXPECT_EQ(i2c.Send(0x1F, {0x05}, kI2CEndWithRepeatedStart), 1u);
    EXPECT_EQ(i2c.Receive(0x1F, bytes, 2, kI2CEndWithStop), 2u);
    EXPECT_EQ(bytes[1], 0x94);
    EXPECT_EQ(board.Transcript(), std::string("S @3E+ w05+ Sr @3F+ ") + kRead2525 + " P");

    // The same with a single byte: its acknowledge is set up on the
    // repeated-start path before the address goes out. The sensor at 0x18
    // reads -1 C: 0x1FF0 with its below-lower flag.
    EXPECT_EQ(i2c.Send(0x18, {0x05}, kI2CEndWithRepeatedStart), 1u);
    EXPECT_EQ(i2c.Receive(0x18, bytes, 1, kI2CEndWithStop), 1u);
    EXPECT_EQ(board.Transcript(), "S @30+ w05+ Sr @31+ r3F- P");

    EXPECT_EQ(board.ProtocolErrors(), std::vector<std::string>{});
    EXPECT_FALSE(board.BusBusy());
  }
}

TEST(I2CAcknowledge, AnUnansweredAddressEndsTheTransferAndLeavesNothingBehind) {
  I2cBoard board("model=6 i2c_nak=0x2C,0x19 i2c_temp_1f=40");
  I2CController &i2c = board.Controller();

  EXPECT_LT(i2c.Send(0x2C, {0x01, 0xFF}, kI2CEndWithStop), 2u);
  EXPECT_EQ(board.Transcript(), "S @58- P");
  EXPECT_FALSE(board.BusBusy());

  // A sensor that doesn't answer decodes the untouched zero buffer.
  EXPECT_EQ(ReadBoardTemperature(i2c, 0x19), 0.0);
  EXPECT_EQ(board.Transcript(), "S @32- P S @33- P");

  // No byte of the failed transfers is left in a FIFO to spoil the next.
  board.Set("i2c_nak=none");
  EXPECT_EQ(i2c.Send(0x2C, {0x01, 0xFF}, kI2CEndWithStop), 2u);
  EXPECT_EQ(ReadBoardTemperature(i2c, 0x1F), 40.0);
  EXPECT_EQ(board.Transcript(), "S @58+ w01+ wFF+ P S @3E+ w05+ P S @3F+ r02+ r80- P");
  EXPECT_EQ(board.ProtocolErrors(), std::vector<std::string>{});
}

TEST(I2CAcknowledge, LostArbitrationEndsTheTransferEarlyAndTheNextOneWorks) {
  I2cBoard board("model=6 i2c_arb_lost=1");
  EXPECT_LT(board.Controller().Send(0x2C, {0x01, 0xFF}, kI2CEndWithStop), 2u);
  EXPECT_EQ(board.Transcript(), "S L");
  EXPECT_FALSE(board.BusBusy());
  EXPECT_EQ(board.Controller().Send(0x2C, {0x01, 0xFF}, kI2CEndWithStop), 2u);
  EXPECT_EQ(board.Transcript(), "S @58+ w01+ wFF+ P");
}

TEST(I2CBusBusy, AWaitThatOutlastsASecondThrowsWithItsMessage) {
  I2cBoard board("model=6 i2c_busy=on");
  I2CController &i2c = board.Controller();
  auto expectTimeout = [](auto transfer) {
    try {
      transfer();
      ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error &error) {
      EXPECT_STREQ(error.what(), "Waiting for I2C bus to get free timed out");
    }
  };
  expectTimeout([&] { i2c.Send(0x2C, {0x01, 0xFF}, kI2CEndWithStop); });
  EXPECT_EQ(board.Transcript(), "");
  // A receive starts without waiting, loses the bus to whoever holds it, and
  // times out in its closing wait.
  uint8_t bytes[2];
  expectTimeout([&] { i2c.Receive(0x1F, bytes, 2, kI2CEndWithStop); });
  EXPECT_EQ(board.Transcript(), "L");

  board.Set("i2c_busy=off");
  EXPECT_EQ(i2c.Send(0x2C, {0x01, 0xFF}, kI2CEndWithStop), 2u);
}

// A sensor's two bytes: sixteenths of a degree below bit 4 of the upper
// byte, which marks the sign, with flags in bits 7 to 5.
TEST(I2CSensor, TwoBytesDecodeToDegrees) {
  struct Row {
    uint8_t upper, lower;
    double celsius;
  };
  const Row rows[] = {{0x01, 0x94, 25.25}, {0xC1, 0x94, 25.25}, {0x06, 0xE1, 110.0625},
                      {0x00, 0x00, 0.0},   {0x1F, 0xF0, 1.0},   {0x1E, 0x00, 32.0}};
  for (const Row &row : rows) EXPECT_EQ(DecodeBoardTemperature(row.upper, row.lower), row.celsius) << +row.upper;
}

}  // namespace
