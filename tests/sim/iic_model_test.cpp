// The simulated I2C controller on its own, driven register by register the
// way a faulty host might, to show that it exposes such a host rather than
// going along with it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/config.h"
#include "sim/fpga.h"
#include "sim/iic.h"

namespace {

using sim::IicBlock;
constexpr uint32_t kStartRead = IicBlock::kEnable | IicBlock::kMaster;
constexpr uint32_t kStartWrite = kStartRead | IicBlock::kTransmit;

class RawIic {
 public:
  RawIic() : fpga_(Model6(), true, 0, nullptr) {}
  uint32_t Read(uint32_t offset) { return fpga_.Read(0x9000 + offset); }
  void Write(uint32_t offset, uint32_t value) { fpga_.Write(0x9000 + offset, value); }
  // Polls until `done` holds; false after 1000 status reads.
  template <typename Done>
  bool WaitUntil(Done done) {
    for (int i = 0; i < 1000; i++) {
      if (done(Read(IicBlock::kStatus), Read(IicBlock::kIsr))) return true;
    }
    return false;
  }
  std::string Transcript() { return fpga_.Iic()->TakeTranscript(); }
  std::vector<std::string> Errors() { return fpga_.Iic()->TakeProtocolErrors(); }

 private:
  static sim::FpgaSpec Model6() {
    sim::FpgaSpec setup;
    std::string error;
    EXPECT_TRUE(sim::ApplyFpgaSetting(setup, "model", "6", &error)) << error;
    return setup;
  }
  sim::Fpga fpga_;
};

bool Idle(uint32_t status, uint32_t) { return !(status & IicBlock::kBusBusy); }

TEST(IicModel, SoftResetTakesOnlyItsKeyAndRestoresResetValues) {
  RawIic iic;
  iic.Write(IicBlock::kRxPirq, 5);
  iic.Write(IicBlock::kControl, IicBlock::kEnable | IicBlock::kTransmit);
  iic.Write(IicBlock::kSoftReset, 0x05);
  EXPECT_EQ(iic.Read(IicBlock::kRxPirq), 5u);
  EXPECT_EQ(iic.Errors(), std::vector<std::string>{"soft reset written without its key"});

  iic.Write(IicBlock::kSoftReset, IicBlock::kSoftResetKey);
  EXPECT_EQ(iic.Read(IicBlock::kRxPirq), 0u);
  EXPECT_EQ(iic.Read(IicBlock::kControl), 0u);
  EXPECT_EQ(iic.Read(IicBlock::kStatus), IicBlock::kTxEmpty | IicBlock::kRxEmpty);
  EXPECT_EQ(iic.Read(IicBlock::kIsr), IicBlock::kTxFifoEmpty | IicBlock::kTxFifoHalfEmpty | IicBlock::kBusNotBusy);
}

TEST(IicModel, InterruptBitsToggleOnWriteAndLevelsComeBack) {
  RawIic iic;
  iic.Write(IicBlock::kTxFifo, 0xA0);  // nobody at 0x50
  iic.Write(IicBlock::kControl, kStartWrite);
  ASSERT_TRUE(iic.WaitUntil([](uint32_t, uint32_t isr) { return isr & IicBlock::kTransmitError; }));
  EXPECT_EQ(iic.Transcript(), "S @A0-");

  iic.Write(IicBlock::kIsr, IicBlock::kTransmitError);
  EXPECT_FALSE(iic.Read(IicBlock::kIsr) & IicBlock::kTransmitError);
  // A 1 written over a clear bit sets it: hosts write back what they read.
  iic.Write(IicBlock::kIsr, IicBlock::kTransmitError);
  EXPECT_TRUE(iic.Read(IicBlock::kIsr) & IicBlock::kTransmitError);
  // The FIFO is empty, so its bit can't be cleared.
  iic.Write(IicBlock::kIsr, IicBlock::kTxFifoEmpty);
  EXPECT_TRUE(iic.Read(IicBlock::kIsr) & IicBlock::kTxFifoEmpty);

  // The missing acknowledge holds the bus until master is dropped.
  EXPECT_FALSE(iic.WaitUntil(Idle));
  iic.Write(IicBlock::kControl, IicBlock::kEnable);
  ASSERT_TRUE(iic.WaitUntil(Idle));
  EXPECT_EQ(iic.Transcript(), "P");
}

TEST(IicModel, EndingAReadAfterAnAcknowledgedByteCostsAnotherByte) {
  RawIic iic;
  iic.Write(IicBlock::kTxFifo, 0x3F);
  iic.Write(IicBlock::kControl, kStartRead);
  ASSERT_TRUE(iic.WaitUntil([](uint32_t, uint32_t isr) { return isr & IicBlock::kRxFifoFull; }));
  // The receive FIFO at its depth holds the bus: nothing more comes in.
  EXPECT_FALSE(iic.WaitUntil(Idle));
  EXPECT_EQ(iic.Transcript(), "S @3F+ r00+");
  // Too late for that byte: it was acknowledged when it ended.
  iic.Write(IicBlock::kControl, kStartRead | IicBlock::kNoAcknowledge);
  iic.Write(IicBlock::kControl, IicBlock::kEnable);
  ASSERT_TRUE(iic.WaitUntil(Idle));
  EXPECT_EQ(iic.Transcript(), "r00- P");
  EXPECT_EQ(iic.Errors().size(), 1u);
  EXPECT_EQ(iic.Read(IicBlock::kRxOccupancy), 1u);  // two bytes wait in the FIFO
}

TEST(IicModel, ARepeatedStartTakesWhatTheFifoHoldsAsTheAddress) {
  RawIic iic;
  iic.Write(IicBlock::kTxFifo, 0x58);
  iic.Write(IicBlock::kControl, kStartWrite);
  // Asked for while data still waits in the FIFO.
  iic.Write(IicBlock::kTxFifo, 0x01);
  iic.Write(IicBlock::kTxFifo, 0xFF);
  iic.Write(IicBlock::kControl, kStartWrite | IicBlock::kRepeatedStart);
  ASSERT_TRUE(iic.WaitUntil([](uint32_t, uint32_t isr) { return isr & IicBlock::kTransmitError; }));
  EXPECT_EQ(iic.Transcript(), "S @58+ Sr @01-");
  EXPECT_FALSE(iic.Read(IicBlock::kControl) & IicBlock::kRepeatedStart);
}

}  // namespace
