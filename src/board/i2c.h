// The board's AXI IIC controller, run by polling (its interrupt line is never
// enabled), and the temperature sensors behind it. Used by a board's worker
// thread alone: there is no lock, and two threads must not share a
// controller.
//
// The register writes below follow the controller's documented sequences step
// for step; their order is what makes a transfer work, so keep it. Only the
// bus-free wait has a time limit. A bus that hangs in the middle of a transfer
// hangs the caller, and the watchdog is what ends that.
#pragma once

#include <cstdint>
#include <vector>

#include "board/dma_device.h"

// Register offsets from the controller's base. Each is 32 bits wide with data
// in the low 8 bits.
constexpr uint32_t kI2CIsr = 0x020;        // interrupt status; writing a bit as 1 clears it
constexpr uint32_t kI2CSoftReset = 0x040;  // write kI2CSoftResetKey
constexpr uint32_t kI2CControl = 0x100;
constexpr uint32_t kI2CStatus = 0x104;
constexpr uint32_t kI2CTxFifo = 0x108;  // the address byte goes here too
constexpr uint32_t kI2CRxFifo = 0x10C;
constexpr uint32_t kI2CRxFifoPirq = 0x120;  // receive-full depth, minus one
constexpr uint32_t kI2CSoftResetKey = 0x0A;

// Control bits.
constexpr uint32_t kI2CControlEnable = 0x01;
constexpr uint32_t kI2CControlMaster = 0x04;  // MSMS: set makes a start, cleared makes a stop
constexpr uint32_t kI2CControlTransmit = 0x08;
constexpr uint32_t kI2CControlNoAcknowledge = 0x10;  // the next received byte is not acknowledged
constexpr uint32_t kI2CControlRepeatedStart = 0x20;

// Status bits.
constexpr uint32_t kI2CStatusAddressedAsSlave = 0x02;
constexpr uint32_t kI2CStatusBusBusy = 0x04;

// Interrupt status bits.
constexpr uint32_t kI2CIsrArbitrationLost = 0x01;
constexpr uint32_t kI2CIsrTransmitError = 0x02;
constexpr uint32_t kI2CIsrTxFifoEmpty = 0x04;
constexpr uint32_t kI2CIsrRxFifoFull = 0x08;
constexpr uint32_t kI2CIsrBusNotBusy = 0x10;

// How a transfer ends.
constexpr uint32_t kI2CEndWithStop = 0;
constexpr uint32_t kI2CEndWithRepeatedStart = 1;

class I2CController {
 public:
  I2CController(BRYLDMADevice *device, uint64_t baseAddress);

  void Reset();
  // Both return the number of bytes that went through; a missing acknowledge
  // or a lost arbitration ends a transfer early and shows only there. Both
  // throw std::runtime_error when the bus stays busy for a second.
  uint32_t Send(uint8_t address, const std::vector<uint8_t> &bytes, uint32_t option);
  uint32_t Receive(uint8_t address, uint8_t *buffer, uint32_t count, uint32_t option);

 private:
  uint32_t Read(uint32_t offset);
  void Write(uint32_t offset, uint32_t value);
  void WriteAddress(uint8_t address, bool read);
  void ClearInterrupts(uint32_t mask);
  void WaitForBusFree();
  // Both return how many bytes were left when the loop stopped.
  uint32_t SendBytes(const std::vector<uint8_t> &bytes, uint32_t option);
  uint32_t ReceiveBytes(uint8_t *buffer, uint32_t count, uint32_t option);

  BRYLDMADevice *device;  // borrowed
  uint64_t baseAddress;
};

// The temperature sensor's register that holds the current reading.
constexpr uint8_t kSensorTemperatureRegister = 0x05;

// Points the sensor at its temperature register and reads the two bytes. A
// short read decodes whatever the buffer held, which starts as zeros.
double ReadBoardTemperature(I2CController &controller, uint8_t address);
// The sensor's two bytes to degrees Celsius. Bit 4 of the upper byte is the
// sign, bits 7 to 5 are alert flags and are dropped. With the sign set the
// result is 256 less the 12-bit value, so a reading below zero comes out as
// the same number of degrees above zero; the thermal rules only act on the
// hot end, where the sign is never set.
double DecodeBoardTemperature(uint8_t upper, uint8_t lower);
