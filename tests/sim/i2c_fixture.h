// A simulated board installed behind the device-file seam, with its I2C
// controller driven by the production driver and its bus open to inspection.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "board/dma_device.h"
#include "board/i2c.h"
#include "board/registers.h"
#include "sim/iic.h"
#include "sim/in_process.h"

namespace i2c_test {

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
  std::vector<sim::RecordingDevice::Transfer> Recorded() {
    return WithIic([](sim::IicBlock &iic) {
      auto *device = iic.Device<sim::RecordingDevice>(0x2C);
      return device ? device->Transfers() : std::vector<sim::RecordingDevice::Transfer>{};
    });
  }
  bool BusBusy() {
    return WithIic([](sim::IicBlock &iic) { return iic.BusBusy(); });
  }

 private:
  sim::InProcessBoards boards_;
  BRYLDMADevice *device_ = nullptr;
  std::unique_ptr<I2CController> controller_;
};

}  // namespace i2c_test
