#include "board/i2c.h"

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

constexpr std::chrono::seconds kBusFreeTimeout{1};
// A status change on a live bus takes a few byte times (about 0.1 ms a byte at
// 100 kHz); one that hasn't come after this long never will.
constexpr std::chrono::milliseconds kStatusTimeout{50};

// Spins until `done`, and gives up with the design's exception after the
// limit, so that a controller that stopped answering can't hang its caller.
template <typename Done>
void Await(Done done, const char *what) {
  auto deadline = std::chrono::steady_clock::now() + kStatusTimeout;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      throw std::runtime_error(std::string("Waiting for I2C ") + what + " timed out");
    }
  }
}

// The interrupt bits that end a byte loop early: lost arbitration, a missing
// acknowledge, and the bus going idle under us.
constexpr uint32_t kSendStopMask = kI2CIsrArbitrationLost | kI2CIsrTransmitError | kI2CIsrBusNotBusy;
// Receiving, the controller raises the transmit error bit itself when it
// leaves the last byte unacknowledged, so that bit can't end the last byte.
constexpr uint32_t kReceiveStopMask = kSendStopMask;
constexpr uint32_t kReceiveLastStopMask = kI2CIsrArbitrationLost | kI2CIsrBusNotBusy;
constexpr uint32_t kReceiveClearMask = kI2CIsrArbitrationLost | kI2CIsrTransmitError | kI2CIsrRxFifoFull;

}  // namespace

I2CController::I2CController(BRYLDMADevice *device, uint64_t baseAddress) : device(device), baseAddress(baseAddress) {}

uint32_t I2CController::Read(uint32_t offset) {
  return BRYLDMADeviceRead(device, device->userFile, baseAddress + offset);
}

void I2CController::Write(uint32_t offset, uint32_t value) {
  BRYLDMADeviceWrite(device, device->userFile, baseAddress + offset, value);
}

void I2CController::Reset() { Write(kI2CSoftReset, kI2CSoftResetKey); }

void I2CController::WriteAddress(uint8_t address, bool read) {
  Write(kI2CTxFifo, static_cast<uint8_t>((address << 1) | (read ? 1 : 0)));
}

// Writing a 1 clears a bit, so only bits that are set and named are written.
void I2CController::ClearInterrupts(uint32_t mask) { Write(kI2CIsr, Read(kI2CIsr) & mask); }

void I2CController::WaitForBusFree() {
  auto deadline = std::chrono::steady_clock::now() + kBusFreeTimeout;
  for (;;) {
    if (!(Read(kI2CStatus) & kI2CStatusBusBusy)) return;
    std::this_thread::sleep_for(std::chrono::nanoseconds(1000));
    if (std::chrono::steady_clock::now() >= deadline) {
      throw std::runtime_error("Waiting for I2C bus to get free timed out");
    }
  }
}

uint32_t I2CController::Send(uint8_t address, const std::vector<uint8_t> &bytes, uint32_t option) {
  WaitForBusFree();
  if (Read(kI2CControl) & kI2CControlRepeatedStart) {
    // A repeated start is pending: we still own the bus, and the address
    // byte is what the controller waits for.
    WriteAddress(address, false);
  } else {
    WriteAddress(address, false);
    ClearInterrupts(kI2CIsrArbitrationLost | kI2CIsrTransmitError | kI2CIsrTxFifoEmpty);
    Write(kI2CControl, kI2CControlEnable | kI2CControlMaster | kI2CControlTransmit);
    Await([&] { return (Read(kI2CStatus) & kI2CStatusBusBusy) != 0; }, "start");
    ClearInterrupts(kI2CIsrBusNotBusy);
  }

  uint32_t left = SendBytes(bytes, option);

  uint32_t control = Read(kI2CControl);
  if (!(control & kI2CControlRepeatedStart)) {
    // Still master after an early end: dropping master makes the stop.
    if (control & kI2CControlMaster) Write(kI2CControl, control & ~kI2CControlMaster);
    if (Read(kI2CStatus) & kI2CStatusAddressedAsSlave) {
      Write(kI2CControl, 0);
    } else {
      Await([&] { return (Read(kI2CStatus) & kI2CStatusBusBusy) == 0; }, "stop");
    }
  }
  return static_cast<uint32_t>(bytes.size()) - left;
}

uint32_t I2CController::SendBytes(const std::vector<uint8_t> &bytes, uint32_t option) {
  uint32_t left = static_cast<uint32_t>(bytes.size());
  size_t next = 0;
  while (left > 0) {
    uint32_t status = 0;
    Await([&] { return ((status = Read(kI2CIsr)) & (kSendStopMask | kI2CIsrTxFifoEmpty)) != 0; }, "transmit");
    if (status & kSendStopMask) return left;
    if (left > 1) {
      Write(kI2CTxFifo, bytes[next]);
    } else if (option == kI2CEndWithStop) {
      // Master is dropped before the last byte goes in: the controller sends
      // what its FIFO holds and then makes the stop.
      Write(kI2CControl, kI2CControlEnable | kI2CControlTransmit);
      Write(kI2CTxFifo, bytes[next]);
    } else {
      // The repeated start may only be asked for once the last byte has left
      // the FIFO, or that byte would go out as the next address.
      Write(kI2CTxFifo, bytes[next]);
      ClearInterrupts(kI2CIsrTxFifoEmpty);
      Await([&] { return (Read(kI2CIsr) & kI2CIsrTxFifoEmpty) != 0; }, "transmit");
      Write(kI2CControl, kI2CControlEnable | kI2CControlMaster | kI2CControlTransmit | kI2CControlRepeatedStart);
    }
    ClearInterrupts(kI2CIsrTxFifoEmpty);
    next++;
    left--;
  }
  // An empty send never dropped master, so no stop is coming here; the
  // caller's clean-up makes it instead.
  if (option == kI2CEndWithStop && !bytes.empty()) {
    Await([&] { return (Read(kI2CIsr) & kI2CIsrBusNotBusy) != 0; }, "stop");
  }
  return 0;
}

uint32_t I2CController::Receive(uint8_t address, uint8_t *buffer, uint32_t count, uint32_t option) {
  // Asking for nothing would leave the controller acknowledging bytes with
  // no way to end the read cleanly, so the bus isn't touched at all.
  if (count == 0) return 0;

  ClearInterrupts(kReceiveClearMask);
  Write(kI2CRxFifoPirq, 0);

  uint32_t control = Read(kI2CControl);
  if (control & kI2CControlRepeatedStart) {
    // The acknowledge setting must be in place before the address goes out:
    // a single byte is the last one and is not acknowledged.
    control &= ~kI2CControlTransmit;
    if (count == 1) control |= kI2CControlNoAcknowledge;
    Write(kI2CControl, control);
    WriteAddress(address, true);
  } else {
    WriteAddress(address, true);
    Write(kI2CControl, kI2CControlEnable | kI2CControlMaster | (count == 1 ? kI2CControlNoAcknowledge : 0));
    Await([&] { return (Read(kI2CStatus) & kI2CStatusBusBusy) != 0; }, "start");
    ClearInterrupts(kI2CIsrBusNotBusy);
  }

  uint32_t left = ReceiveBytes(buffer, count, option);

  if (!(Read(kI2CControl) & kI2CControlRepeatedStart)) Write(kI2CControl, 0);
  WaitForBusFree();
  return count - left;
}

uint32_t I2CController::ReceiveBytes(uint8_t *buffer, uint32_t count, uint32_t option) {
  uint32_t left = count;
  while (left > 0) {
    uint32_t stopMask = left == 1 ? kReceiveLastStopMask : kReceiveStopMask;
    uint32_t status = 0;
    Await([&] { return ((status = Read(kI2CIsr)) & (kI2CIsrRxFifoFull | stopMask)) != 0; }, "receive");
    if (!(status & kI2CIsrRxFifoFull)) return left;
    uint32_t control = Read(kI2CControl);
    if (left == 1 && option == kI2CEndWithStop) Write(kI2CControl, kI2CControlEnable);
    // The controller holds the next byte back until this one is read, so the
    // setting made now decides the acknowledge of the last byte.
    if (left == 2) Write(kI2CControl, control | kI2CControlNoAcknowledge);
    *buffer++ = static_cast<uint8_t>(Read(kI2CRxFifo));
    if (left == 1 && option == kI2CEndWithRepeatedStart) {
      Write(kI2CControl, kI2CControlEnable | kI2CControlMaster | kI2CControlRepeatedStart);
    }
    ClearInterrupts(kReceiveClearMask);
    left--;
  }
  if (option == kI2CEndWithStop) {
    Await([&] { return (Read(kI2CIsr) & kI2CIsrBusNotBusy) != 0; }, "stop");
  }
  return 0;
}

double ReadBoardTemperature(I2CController &controller, uint8_t address) {
  controller.Send(address, {kSensorTemperatureRegister}, kI2CEndWithStop);
  uint8_t bytes[2] = {0, 0};
  controller.Receive(address, bytes, 2, kI2CEndWithStop);
  return DecodeBoardTemperature(bytes[0], bytes[1]);
}

double DecodeBoardTemperature(uint8_t upper, uint8_t lower) {
  if (upper & 0x10) {
    upper %= 16;
    return 256.0 - (upper * 16.0 + lower / 16.0);
  }
  return lower / 16.0 + (upper & 0x1F) * 16.0;
}
