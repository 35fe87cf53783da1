// The register blocks of a simulated FPGA, each written from the board's
// register map. MapStandardBlocks() lays out what every board has; the hash
// core and MMCM blocks are public so that engines and tests can reach their
// state.
#pragma once

#include <array>
#include <cstdint>

#include "sim/fpga.h"

namespace sim {

// Identity, layout, bitstream word, DNA and board word in both layouts,
// sub-device presence, clock control, the XADC or SYSMON, the hash core
// block at 0x4000 and the MMCM at 0x6000.
void MapStandardBlocks(Fpga &fpga);

// One hash core group at 0x4000. Its registers latch what the host writes;
// the search itself is an engine that drives PostResult().
class HashCoreBlock : public RegisterBlock {
 public:
  static constexpr uint32_t kControl = 0x6C;
  static constexpr uint32_t kHold = 1u << 16;
  static constexpr uint32_t kFlags = 0xF000;
  static constexpr uint32_t kCounterLow = 0x1DC;
  static constexpr uint32_t kCounterHigh = 0x1E0;

  explicit HashCoreBlock(Fpga &fpga) : fpga_(fpga) {}
  uint32_t Read(uint32_t offset) override;
  void Write(uint32_t offset, uint32_t value) override;

  bool Held() const { return control_ & kHold; }
  // The last value the host wrote at `offset` (nonce block, midstate, target).
  uint32_t Latched(uint32_t offset) const { return words_[offset / 4]; }
  // Reports `value` in result slot `slot` (0 to 3) and raises its flag.
  void PostResult(uint32_t slot, uint32_t value);
  uint32_t Flags() const { return flags_; }

 private:
  Fpga &fpga_;
  std::array<uint32_t, 1024> words_{};
  std::array<uint32_t, 4> results_{};
  uint32_t control_ = 0;
  uint32_t flags_ = 0;
};

// The MMCM's dynamic reconfiguration registers at 0x6000. Written dividers
// take effect when 3 is written to the load register, which then reads busy
// for a few polls.
class MmcmBlock : public RegisterBlock {
 public:
  static constexpr uint32_t kStatus = 0x004;
  static constexpr uint32_t kFeedback = 0x200;
  static constexpr uint32_t kOutput = 0x208;
  static constexpr uint32_t kLoad = 0x25C;
  static constexpr int kBusyPolls = 3;

  explicit MmcmBlock(Fpga &fpga);
  uint32_t Read(uint32_t offset) override;
  void Write(uint32_t offset, uint32_t value) override;

  // The output frequency of the loaded configuration.
  double OutputHz() const;
  uint32_t LoadedFeedback() const { return loadedFeedback_; }
  uint32_t LoadedOutput() const { return loadedOutput_; }
  uint32_t Loads() const { return loads_; }

 private:
  Fpga &fpga_;
  std::array<uint32_t, 1024> words_{};
  uint32_t loadedFeedback_;
  uint32_t loadedOutput_;
  int busyPolls_ = 0;
  uint32_t loads_ = 0;
};

}  // namespace sim
