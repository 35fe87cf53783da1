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
// the search itself is an engine (sim/hash_engine.h) that reads the latched
// job and reports through Report() or PostResult(). All of it is guarded by
// the card's lock, which the engine takes like the host does.
class HashCoreBlock : public RegisterBlock {
 public:
  static constexpr uint32_t kNonceBlock = 0x00;  // four words
  static constexpr uint32_t kMidstate = 0x24;    // sixteen words
  static constexpr uint32_t kControl = 0x6C;
  static constexpr uint32_t kTargetHigh = 0x80;
  static constexpr uint32_t kTargetLow = 0x84;
  static constexpr uint32_t kHold = 1u << 16;
  static constexpr uint32_t kFlags = 0xF000;
  static constexpr uint32_t kResultSlots = 4;
  static constexpr uint32_t kCounterLow = 0x1DC;
  static constexpr uint32_t kCounterHigh = 0x1E0;

  // What the search has done since power-on.
  struct SearchStats {
    uint64_t hashes = 0;
    uint64_t reported = 0;
    uint64_t dropped = 0;  // found while all four slots still waited for the host
  };

  explicit HashCoreBlock(Fpga &fpga) : fpga_(fpga) {}
  uint32_t Read(uint32_t offset) override;
  void Write(uint32_t offset, uint32_t value) override;

  bool Held() const { return control_ & kHold; }
  // The last value the host wrote at `offset` (nonce block, midstate, target).
  uint32_t Latched(uint32_t offset) const { return words_[offset / 4]; }
  // Reports `value` in result slot `slot` (0 to 3) and raises its flag.
  void PostResult(uint32_t slot, uint32_t value);
  uint32_t Flags() const { return flags_; }

  // Moves on at every hold and every release, so that the search can tell
  // that a batch it computed belongs to a load that is gone.
  uint64_t Epoch() const { return epoch_; }
  // Counter positions run since the core was last released; each position
  // is one nonce on every core.
  uint64_t Position() const { return position_; }
  void Advance(uint64_t positions, uint64_t hashes);
  // Puts `value` in the lowest free result slot; false, and counted as
  // dropped, when all four still wait for the host's acknowledgement.
  bool Report(uint32_t value);
  const SearchStats &Stats() const { return stats_; }

 private:
  Fpga &fpga_;
  std::array<uint32_t, 1024> words_{};
  std::array<uint32_t, kResultSlots> results_{};
  uint32_t control_ = 0;
  uint32_t flags_ = 0;
  uint64_t epoch_ = 0;
  uint64_t position_ = 0;
  SearchStats stats_;
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
