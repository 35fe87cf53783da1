// Simulated boards behind the board layer for the flash tests: a card list,
// an opened device, and views of the controller's wire and the flash chip.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "board/dma_device.h"
#include "flash/xil_io.h"
#include "sim/in_process.h"
#include "sim/spi.h"
#include "support/sim_boards.h"

class SimBoardTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (BRYLDMADevice *device : devices_) BRYLDMADeviceClose(device);
    devices_.clear();
    deviceFileToFlash = nullptr;
    boards_.reset();
  }

  // Runs `body` on xdma0's FPGA under the card's lock.
  template <typename Body>
  auto OnFpga(Body body) {
    return boards_->Find("xdma0")->WithFpga(0, [&](sim::Fpga *fpga) { return body(*fpga); });
  }

  // Installs the boards of `list` and records every SPI frame of xdma0.
  void Start(const std::string &list) {
    boards_ = std::make_unique<sim::InProcessBoards>("/ombry-flash-test");
    std::string error;
    ASSERT_TRUE(boards_->AddList(list, &error)) << error;
    boards_->Install();
    OnFpga([](sim::Fpga &fpga) { return fpga.Spi()->SetRecording(true); });
  }

  BRYLDMADevice *Open() {
    BRYLDMADevice *device = BRYLDMADeviceOpen(boards_->DevicePath("xdma0"), 0);
    EXPECT_NE(device, nullptr);
    if (device) devices_.push_back(device);
    return device;
  }

  std::vector<sim::SpiFrame> Frames() {
    return OnFpga([](sim::Fpga &f) { return f.Spi()->TakeFrames(); });
  }
  std::vector<uint8_t> FlashBytes(uint64_t address, uint64_t count) {
    return OnFpga([&](sim::Fpga &f) { return f.Flash()->Read(address, count); });
  }
  uint64_t Ignored() {
    return OnFpga([](sim::Fpga &f) { return f.Flash()->Ignored(); });
  }

  std::unique_ptr<sim::InProcessBoards> boards_;
  std::vector<BRYLDMADevice *> devices_;
};

// Frames that carry `command` as their first byte.
inline std::vector<sim::SpiFrame> FramesOf(const std::vector<sim::SpiFrame> &frames, uint8_t command) {
  std::vector<sim::SpiFrame> matching;
  for (const sim::SpiFrame &frame : frames) {
    if (!frame.out.empty() && frame.out[0] == command) matching.push_back(frame);
  }
  return matching;
}

// The 4-byte addresses of the frames that carry `command`, in order.
inline std::vector<uint32_t> Addresses(const std::vector<sim::SpiFrame> &frames, uint8_t command) {
  std::vector<uint32_t> addresses;
  for (const sim::SpiFrame &frame : FramesOf(frames, command)) {
    const std::vector<uint8_t> &out = frame.out;
    addresses.push_back(uint32_t(out.at(1)) << 24 | uint32_t(out.at(2)) << 16 | uint32_t(out.at(3)) << 8 | out.at(4));
  }
  return addresses;
}

// Bytes that are never all 0xFF within a page, unless asked for.
inline std::vector<uint8_t> RandomImage(size_t size, uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<uint8_t> image(size);
  for (uint8_t &byte : image) byte = static_cast<uint8_t>(random());
  return image;
}

// An empty ./bitstreams/ tree, one folder per model, under `root`.
inline void MakeBitstreamTree(const std::filesystem::path &root) {
  for (const char *folder : {"O101", "1525", "O215", "O21F", "CV13", "JC33", "JC35", "JC37", "JC39", "NV01", "OMPR",
                             "RK33", "RK35", "RK37"}) {
    std::filesystem::create_directories(root / "bitstreams" / (std::string("CKB-") + folder));
  }
}
