// The AXI IIC controller at 0x9000 and the bus behind it, written from the
// controller's register description: soft reset, control, status, interrupt
// status (write one to clear; the FIFO and bus-idle bits are levels that come
// back while their condition holds; strictly a written 1 toggles a bit, so a
// 1 written over a clear bit sets it), a 16-byte FIFO each way, start, stop,
// repeated start, acknowledge, arbitration and transmit errors.
//
// Time on the bus is counted in accesses to the controller: each register
// access moves the bus one step, and a byte (with its acknowledge) takes
// `i2cByteTicks` steps. So a host that polls always sees progress, and a host
// that writes its settings in the wrong order sees the bus act on the old
// ones, as real hardware would. With 0 the bus is infinitely fast: before
// each access it runs until it needs the host, which exposes a setting made
// too late however short the delay. The controller keeps a transcript of what
// happened on the wire and a list of protocol errors, for tests.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sim/fpga.h"

namespace sim {

// One device on the bus, seen from the wire.
class I2cDevice {
 public:
  virtual ~I2cDevice() = default;
  // A start or repeated start with this device's address; false: no acknowledge.
  virtual bool Begin(bool read) = 0;
  // A byte from the master; false: not acknowledged.
  virtual bool WriteByte(uint8_t byte) = 0;
  // The next byte the device drives for the master.
  virtual uint8_t ReadByte() = 0;
  // A stop, or a repeated start, ended the device's part.
  virtual void End() {}
};

// A sensor with a register pointer: a write sets the pointer (further bytes
// are taken and ignored), a read returns the 16-bit register most
// significant byte first, repeating. Register 0x05 is the temperature: a
// 13-bit two's complement count of sixteenths of a degree in bits 12 to 0,
// and alert flags in bits 15 (at or above critical), 14 (above upper) and 13
// (below lower). Other registers read 0.
class TemperatureSensor : public I2cDevice {
 public:
  static constexpr uint8_t kTemperatureRegister = 0x05;
  static constexpr double kCritical = 95.0;
  static constexpr double kUpper = 85.0;
  static constexpr double kLower = 0.0;

  explicit TemperatureSensor(std::function<double()> temperature) : temperature_(std::move(temperature)) {}

  // The register word for a temperature, in the sensor's format.
  static uint16_t Encode(double celsius);

  bool Begin(bool read) override;
  bool WriteByte(uint8_t byte) override;
  uint8_t ReadByte() override;

  uint8_t Pointer() const { return pointer_; }
  uint32_t BytesRead() const { return bytesRead_; }

 private:
  std::function<double()> temperature_;
  uint8_t pointer_ = 0;
  bool expectPointer_ = false;
  uint16_t latched_ = 0;
  uint32_t readIndex_ = 0;
  uint32_t bytesRead_ = 0;
};

// A device that takes whatever it is written and keeps each write transfer,
// with whether the MMCM was already out of reset at its start (the device
// must be set while the clock is still held). Reads return 0.
class RecordingDevice : public I2cDevice {
 public:
  struct Transfer {
    std::vector<uint8_t> bytes;
    bool clockOutOfReset;
  };

  explicit RecordingDevice(std::function<bool()> clockOutOfReset) : clockOutOfReset_(std::move(clockOutOfReset)) {}

  bool Begin(bool read) override;
  bool WriteByte(uint8_t byte) override;
  uint8_t ReadByte() override { return 0; }

  const std::vector<Transfer> &Transfers() const { return transfers_; }

 private:
  std::function<bool()> clockOutOfReset_;
  std::vector<Transfer> transfers_;
  bool writing_ = false;
};

class IicBlock : public RegisterBlock {
 public:
  // Register offsets.
  static constexpr uint32_t kGie = 0x01C;
  static constexpr uint32_t kIsr = 0x020;
  static constexpr uint32_t kIer = 0x028;
  static constexpr uint32_t kSoftReset = 0x040;
  static constexpr uint32_t kControl = 0x100;
  static constexpr uint32_t kStatus = 0x104;
  static constexpr uint32_t kTxFifo = 0x108;
  static constexpr uint32_t kRxFifo = 0x10C;
  static constexpr uint32_t kOwnAddress = 0x110;
  static constexpr uint32_t kTxOccupancy = 0x114;
  static constexpr uint32_t kRxOccupancy = 0x118;
  static constexpr uint32_t kTenBitAddress = 0x11C;
  static constexpr uint32_t kRxPirq = 0x120;
  static constexpr uint32_t kGpo = 0x124;

  static constexpr uint32_t kSoftResetKey = 0x0A;
  static constexpr size_t kFifoDepth = 16;

  // Control bits.
  static constexpr uint32_t kEnable = 0x01;
  static constexpr uint32_t kTxFifoReset = 0x02;
  static constexpr uint32_t kMaster = 0x04;
  static constexpr uint32_t kTransmit = 0x08;
  static constexpr uint32_t kNoAcknowledge = 0x10;
  static constexpr uint32_t kRepeatedStart = 0x20;
  static constexpr uint32_t kGeneralCall = 0x40;

  // Status bits.
  static constexpr uint32_t kAddressedAsSlave = 0x02;
  static constexpr uint32_t kBusBusy = 0x04;
  static constexpr uint32_t kTxFull = 0x10;
  static constexpr uint32_t kRxFull = 0x20;
  static constexpr uint32_t kRxEmpty = 0x40;
  static constexpr uint32_t kTxEmpty = 0x80;

  // Interrupt status bits.
  static constexpr uint32_t kArbitrationLost = 0x01;
  static constexpr uint32_t kTransmitError = 0x02;
  static constexpr uint32_t kTxFifoEmpty = 0x04;
  static constexpr uint32_t kRxFifoFull = 0x08;
  static constexpr uint32_t kBusNotBusy = 0x10;
  static constexpr uint32_t kTxFifoHalfEmpty = 0x80;

  explicit IicBlock(Fpga &fpga);
  ~IicBlock() override;

  uint32_t Read(uint32_t offset) override;
  void Write(uint32_t offset, uint32_t value) override;

  void Attach(uint8_t address, std::unique_ptr<I2cDevice> device);
  I2cDevice *DeviceAt(uint8_t address) const;
  template <typename T>
  T *Device(uint8_t address) const {
    return dynamic_cast<T *>(DeviceAt(address));
  }

  // What happened on the wire since the last call, as space-separated tokens:
  // "S" start, "Sr" repeated start, "P" stop, "@XX+" an address byte and its
  // acknowledge ('-': none), "wXX+" a byte written and the device's
  // acknowledge, "rXX-" a byte read and the master's acknowledge, "L" lost
  // arbitration, "reset" a soft reset.
  std::string TakeTranscript();
  // Host mistakes the controller noticed, in words, since the last call.
  std::vector<std::string> TakeProtocolErrors();

  bool BusBusy() const;

 private:
  enum class Phase { Idle, Starting, Waiting, Shifting, Stopping, Foreign };
  enum class Shift { Address, Transmit, Receive };

  void Step();
  bool Advance();  // false when the bus waits for the host
  bool Decide();
  void FinishByte();
  void BeginShift(Shift kind, uint8_t byte);
  void LoseArbitration();
  void EndTarget();
  void UpdateLevels();
  void WriteControl(uint32_t value);
  void SoftReset();
  void Note(std::string token);
  void Error(std::string text);
  uint32_t Status() const;
  uint32_t ByteTicks() const;

  Fpga &fpga_;
  std::map<uint8_t, std::unique_ptr<I2cDevice>> devices_;

  // Registers.
  uint32_t control_ = 0;
  uint32_t isr_ = 0;
  uint32_t ier_ = 0;
  uint32_t gie_ = 0;
  uint32_t pirq_ = 0;
  uint32_t ownAddress_ = 0;
  uint32_t tenBitAddress_ = 0;
  uint32_t gpo_ = 0;
  std::deque<uint8_t> tx_;
  std::deque<uint8_t> rx_;

  // The wire.
  Phase phase_ = Phase::Idle;
  uint32_t ticksLeft_ = 0;
  Shift shift_ = Shift::Address;
  uint8_t shiftByte_ = 0;
  bool forceNak_ = false;       // the byte being read is not acknowledged whatever TXAK says
  bool busy_ = false;           // a start was seen and no stop yet
  bool master_ = false;         // and it was ours
  bool addressNext_ = false;    // the next byte out is an address
  bool reading_ = false;        // the addressed device is sending
  bool held_ = false;           // a byte went unacknowledged: only a stop or repeated start may follow
  bool deviceDriving_ = false;  // receiving, and the device will drive another byte
  I2cDevice *target_ = nullptr;

  std::deque<std::string> transcript_;
  std::vector<std::string> errors_;
};

// The devices of a board whose regulators sit on the I2C bus: temperature
// sensors at 0x18, 0x19 and 0x1F, reading the regulator temperature less a
// small offset each (none at 0x1F), and a recording device at 0x2C.
void AttachRegulatorDevices(IicBlock &iic, Fpga &fpga);

// The settings that start with "i2c_"; false with a message for others.
bool ApplyI2cSetting(FpgaSetup &fpga, const std::string &key, const std::string &value, std::string *error);
// One indented line about the bus's faults and the recording device, or
// nothing when there is nothing to say.
std::string DescribeIic(Fpga &fpga);

}  // namespace sim
