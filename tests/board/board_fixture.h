// Shared by the board tests: a log recorder, and simulated boards installed
// behind the device-file seam for the length of a test.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "board/dma_device.h"
#include "foundation/logger.h"
#include "sim/in_process.h"

namespace board_test {

struct LogLine {
  uint32_t level;
  std::string tag;
  std::string message;
};

// Records every log line, at every level, while it lives.
class LogRecorder {
 public:
  LogRecorder() {
    VLLogSetLevel(VLLogLevelTrace);
    VLLogSetCallback(Record, this);
  }
  ~LogRecorder() {
    VLLogSetCallback(nullptr, nullptr);
    VLLogSetLevel(VLLogLevelInfo);
  }
  bool Has(const std::string &tag, const std::string &message, uint32_t level = 0) const {
    std::lock_guard<std::mutex> guard(lock_);
    for (const LogLine &line : lines_) {
      if (line.tag == tag && line.message == message && (level == 0 || line.level == level)) return true;
    }
    return false;
  }
  size_t Count(const std::string &message) const {
    std::lock_guard<std::mutex> guard(lock_);
    size_t count = 0;
    for (const LogLine &line : lines_) count += line.message.find(message) != std::string::npos;
    return count;
  }

 private:
  static void Record(uint32_t level, const char *tag, const char *message, void *context) {
    auto *self = static_cast<LogRecorder *>(context);
    std::lock_guard<std::mutex> guard(self->lock_);
    self->lines_.push_back({level, tag, message});
  }
  mutable std::mutex lock_;
  std::vector<LogLine> lines_;
};

struct DeviceCloser {
  void operator()(BRYLDMADevice *device) const { BRYLDMADeviceClose(device); }
};
using Device = std::unique_ptr<BRYLDMADevice, DeviceCloser>;

// Boards from a board list, installed for the test's lifetime.
class Boards {
 public:
  explicit Boards(const std::string &list, sim::TimeSource time = nullptr) : boards_("/ombry-test", std::move(time)) {
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
  sim::InProcessBoards &InProcess() { return boards_; }

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

// A clock for the simulator that moves only when told to.
struct ManualClock {
  double now = 0.0;
  sim::TimeSource Source() {
    return [this] { return now; };
  }
};

}  // namespace board_test
