// Shared by the board tests: simulated boards installed behind the
// device-file seam for the length of a test, and the log.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "board/dma_device.h"
#include "foundation/logger.h"
#include "support/log_lines.h"
#include "sim/in_process.h"

namespace board_test {

using LogRecorder = testing_support::LogLines;

struct DeviceCloser {
  void operator()(BRYLDMADevice *device) const { BRYLDMADeviceClose(device); }
};
using Device = std::unique_ptr<BRYLDMADevice, DeviceCloser>;

// Boards from a board list, installed for the test's lifetime.
class Boards {
 public:
  explicit Boards(const std::string &list) : boards_("/ombry-test") {
    std::string error;
    if (!boards_.AddList(list, &error)) ADD_FAILURE() << "board list: " << error;
    boards_.Install();
  }
  Device Open(const std::string &name, uint64_t subDevice = 0) {
    return Device(BRYLDMADeviceOpen(boards_.DevicePath(name), subDevice));
  }
  sim::Card &Card(const std::string &name) { return *boards_.Find(name); }
  sim::Fpga &Fpga(const std::string &name, uint32_t index = 0) {
    return *Card(name).WithFpga(index, [](sim::Fpga *fpga) { return fpga; });
  }
  void Run(const std::string &command) {
    std::string error;
    if (!boards_.RunCommand(command, &error)) ADD_FAILURE() << command << ": " << error;
  }

 private:
  sim::InProcessBoards boards_;
};

// Accesses of one kind in a trace.
inline std::vector<sim::Access> Filter(const std::vector<sim::Access> &trace, sim::Node node, bool write) {
  std::vector<sim::Access> out;
  for (const sim::Access &access : trace) {
    if (access.node == node && access.write == write) out.push_back(access);
  }
  return out;
}

// Where each access of a trace went.
inline std::vector<uint64_t> Positions(const std::vector<sim::Access> &accesses) {
  std::vector<uint64_t> positions;
  for (const sim::Access &access : accesses) positions.push_back(access.position);
  return positions;
}

}  // namespace board_test
