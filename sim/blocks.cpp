#include "sim/blocks.h"

#include <algorithm>
#include <cmath>
#include <map>

#include "sim/iic.h"

namespace sim {

namespace {

// Presence bits at 0x0020 for sub-devices 1, 2 and 3.
constexpr uint32_t kPresenceBits[kMaxFpgas] = {0, 1u << 4, 1u << 19, 1u << 29};

bool HasPresenceRegister(const Fpga &fpga) {
  return fpga.Primary() && (fpga.Setup().model == 8 || fpga.Setup().model == 9);
}

// Registers at 0x0000: identity, layout, bitstream; in layout 1 also the DNA,
// the board word and the clock control; on models 8 and 9 the sub-device
// presence and its probe.
class IdentityBlock : public RegisterBlock {
 public:
  explicit IdentityBlock(Fpga &fpga) : fpga_(fpga) {}

  uint32_t Read(uint32_t offset) override {
    const FpgaSetup &setup = fpga_.Setup();
    switch (offset) {
      case 0x00: return setup.identityWord;
      case 0x04: return setup.layout;
      case 0x08: return setup.bitstream;
    }
    if (fpga_.Layout1()) {
      switch (offset) {
        case 0x0C: return setup.wide ? 0 : setup.dna[2];
        case 0x10: return setup.dna[1];
        case 0x14: return setup.dna[0];
        case 0x18: return setup.boardWord;
        case 0x4C: return fpga_.Register004C();
      }
    }
    if (offset == 0x20 && HasPresenceRegister(fpga_)) return probed_ ? Presence() : 0;
    return 0;
  }

  void Write(uint32_t offset, uint32_t value) override {
    if (offset == 0x4C && fpga_.Layout1()) fpga_.Register004C() = value;
    // The presence word is valid once a probe has been asked for.
    if (offset == 0x50 && HasPresenceRegister(fpga_) && value == 1) probed_ = true;
  }

 private:
  uint32_t Presence() const {
    uint32_t word = 0;
    for (uint32_t i = 1; i < kMaxFpgas; i++) {
      if (fpga_.SubDevices() & (1u << i)) word |= kPresenceBits[i];
    }
    return word;
  }

  Fpga &fpga_;
  bool probed_ = false;
};

// Read-only words at fixed offsets, such as the DNA of layout 0.
class ConstantBlock : public RegisterBlock {
 public:
  explicit ConstantBlock(std::map<uint32_t, uint32_t> words) : words_(std::move(words)) {}
  uint32_t Read(uint32_t offset) override {
    auto it = words_.find(offset);
    return it == words_.end() ? 0 : it->second;
  }
  void Write(uint32_t, uint32_t) override {}

 private:
  std::map<uint32_t, uint32_t> words_;
};

// 0x2000: the board word (the wide family's exact model in bits 4 to 2) and
// 0x2008, the clock control and identity LED register.
class BoardControlBlock : public RegisterBlock {
 public:
  explicit BoardControlBlock(Fpga &fpga) : fpga_(fpga) {}

  uint32_t Read(uint32_t offset) override {
    const FpgaSetup &setup = fpga_.Setup();
    if (offset == 0x000) return setup.wide ? (setup.boardWord & ~0x1Cu) | (setup.modelBits << 2) : setup.boardWord;
    if (offset == 0x008) return fpga_.Register2008();
    return 0;
  }

  void Write(uint32_t offset, uint32_t value) override {
    if (offset == 0x008) fpga_.Register2008() = value;
  }

 private:
  Fpga &fpga_;
};

// A converter's output code: rounded and held within its range.
uint32_t Code(double value, double limit) {
  return static_cast<uint32_t>(std::clamp(std::lround(value), 0L, static_cast<long>(limit)));
}

// 12-bit supply code: full scale is 3 V.
uint32_t SupplyCode(double volts) { return Code(volts * 4096.0 / 3.0, 4095); }

// The wide family's XADC at 0x3000: status registers from 0x200, the
// configuration and sequencer registers from 0x300. Results are 12 bits in
// bits 15 to 4. Auxiliary channel 6 converts only once the sequencer selects
// it; without full averaging the readings wander by a few codes.
class XadcBlock : public RegisterBlock {
 public:
  static constexpr uint32_t kTemperature = 0x200;
  static constexpr uint32_t kVccInt = 0x204;
  static constexpr uint32_t kVccAux = 0x208;
  static constexpr uint32_t kAux6 = 0x258;
  static constexpr uint32_t kConfig0 = 0x300;
  static constexpr uint32_t kSequencerAux = 0x324;

  explicit XadcBlock(Fpga &fpga) : fpga_(fpga) {}

  uint32_t Read(uint32_t offset) override {
    if (offset >= 0x300) return config_[(offset - 0x300) / 4];
    bool sensor = offset == kTemperature || offset == kVccInt || offset == kAux6;
    if (sensor && fpga_.SensorGlitch()) return 0xFFF0;  // a single wild reading
    switch (offset) {
      case kTemperature: return Result((fpga_.CoreTemperature() + 273.15) * 4096.0 / 503.975);
      case kVccInt: return Result(fpga_.VccInt() * 4096.0 / 3.0);
      case kVccAux: return Result(fpga_.VccAux() * 4096.0 / 3.0);
      case kAux6:
        if (!(config_[(kSequencerAux - 0x300) / 4] & (1u << 6))) return 0;
        return Result((fpga_.VrmTemperature() + 272.15) * 4096.0 / (1.90575 * 400.0) - 897.25);
    }
    return 0;
  }

  void Write(uint32_t offset, uint32_t value) override {
    if (offset >= 0x300) config_[(offset - 0x300) / 4] = value & 0xFFFF;
  }

 private:
  uint32_t Result(double code) {
    bool averaging = (config_[0] & 0x3000) == 0x3000;
    if (!averaging) {
      noise_ = noise_ * 1103515245u + 12345u;
      code += static_cast<int>((noise_ >> 16) % 5) - 2;
    }
    return Code(code, 4095) << 4;
  }

  Fpga &fpga_;
  std::array<uint32_t, 64> config_{};
  uint32_t noise_ = 1;
};

// The narrow family's SYSMON at 0x3400: the temperature as a 16-bit code, the
// supplies as 12 bits in bits 15 to 4.
class SysmonBlock : public RegisterBlock {
 public:
  explicit SysmonBlock(Fpga &fpga) : fpga_(fpga) {}

  uint32_t Read(uint32_t offset) override {
    if (offset <= 0x4 && fpga_.SensorGlitch()) return 0xFFFF;  // a single wild reading
    switch (offset) {
      case 0x0: return Code((fpga_.CoreTemperature() + 279.4265768) * 65536.0 / 507.592131, 65535);
      case 0x4: return SupplyCode(fpga_.VccInt()) << 4;
      case 0x8: return SupplyCode(fpga_.VccAux()) << 4;
    }
    return 0;
  }
  void Write(uint32_t, uint32_t) override {}

 private:
  Fpga &fpga_;
};

// The divider fields of the MMCM, as fixed-point numbers with a fraction in
// thousandths.
double Multiplier(uint32_t feedback) { return ((feedback >> 8) & 0xFF) + ((feedback >> 16) & 0x3FF) / 1000.0; }
double InputDivider(uint32_t feedback) { return feedback & 0xFF; }
double OutputDivider(uint32_t output) { return (output & 0xFF) + ((output >> 8) & 0x3FF) / 1000.0; }

// Output divider word for the power-on clock of about 100 MHz.
uint32_t PowerOnOutput(const FpgaSetup &setup) {
  if (setup.inputDivider == 0) return 10;
  double vco = static_cast<double>(setup.referenceHz) * setup.multiplier / setup.inputDivider;
  long thousandths = std::clamp(std::lround(vco / 100e6 * 1000.0), 1000L, 255999L);
  return static_cast<uint32_t>(thousandths / 1000) | static_cast<uint32_t>(thousandths % 1000) << 8;
}

}  // namespace

uint32_t HashCoreBlock::Read(uint32_t offset) {
  if (offset == kControl) return (control_ & ~kFlags) | flags_;
  if (offset >= 0x70 && offset <= 0x7C) return results_[(0x7C - offset) / 4];
  if (offset == kCounterLow) return static_cast<uint32_t>(fpga_.Cycles());
  if (offset == kCounterHigh) return static_cast<uint32_t>(fpga_.Cycles() >> 32);
  return words_[offset / 4];
}

void HashCoreBlock::Write(uint32_t offset, uint32_t value) {
  if (offset == kControl) {
    // A flag written back as 0 is acknowledged; the host cannot raise one.
    flags_ &= value & kFlags;
    bool wasHeld = Held();
    control_ = value & ~kFlags;
    if (wasHeld != Held()) {
      epoch_++;
      // A release starts the counter afresh for the job just loaded.
      if (!Held()) position_ = 0;
    }
    return;
  }
  if (offset >= 0x70 && offset <= 0x7C) return;
  words_[offset / 4] = value;
}

void HashCoreBlock::PostResult(uint32_t slot, uint32_t value) {
  results_[slot & 3] = value;
  flags_ |= 1u << (12 + (slot & 3));
}

void HashCoreBlock::Advance(uint64_t positions, uint64_t hashes) {
  position_ += positions;
  stats_.hashes += hashes;
}

bool HashCoreBlock::Report(uint32_t value) {
  for (uint32_t slot = 0; slot < kResultSlots; slot++) {
    if (flags_ & (1u << (12 + slot))) continue;
    PostResult(slot, value);
    stats_.reported++;
    return true;
  }
  stats_.dropped++;
  return false;
}

MmcmBlock::MmcmBlock(Fpga &fpga) : fpga_(fpga) {
  const FpgaSetup &setup = fpga.Setup();
  words_[kFeedback / 4] = (setup.inputDivider & 0xFF) | (setup.multiplier & 0xFF) << 8;
  words_[kOutput / 4] = PowerOnOutput(setup);
  loadedFeedback_ = words_[kFeedback / 4];
  loadedOutput_ = words_[kOutput / 4];
}

uint32_t MmcmBlock::Read(uint32_t offset) {
  if (offset == kLoad) {
    if (fpga_.Setup().faults.mmcmStuck) return 1;
    if (busyPolls_ > 0) {
      busyPolls_--;
      return 1;
    }
    return 0;
  }
  if (offset == kStatus) return fpga_.OutOfReset() && busyPolls_ == 0 && OutputHz() > 0 ? 1 : 0;
  return words_[offset / 4];
}

void MmcmBlock::Write(uint32_t offset, uint32_t value) {
  if (offset == kLoad) {
    if ((value & 3) == 3) {
      loadedFeedback_ = words_[kFeedback / 4];
      loadedOutput_ = words_[kOutput / 4];
      busyPolls_ = kBusyPolls;
      loads_++;
    }
    return;
  }
  if (offset == kStatus) return;
  words_[offset / 4] = value;
}

double MmcmBlock::OutputHz() const {
  double input = InputDivider(loadedFeedback_);
  double output = OutputDivider(loadedOutput_);
  if (input == 0 || output == 0) return 0.0;
  return static_cast<double>(fpga_.Setup().referenceHz) * Multiplier(loadedFeedback_) / input / output;
}

void MapStandardBlocks(Fpga &fpga) {
  const FpgaSetup &setup = fpga.Setup();
  bool layout1 = fpga.Layout1();
  fpga.Map(0x0000, 0x1000, std::make_unique<IdentityBlock>(fpga));
  if (!layout1) {
    fpga.Map(
        0x1000, 0x1000,
        std::make_unique<ConstantBlock>(std::map<uint32_t, uint32_t>{{0x000, setup.dna[0]}, {0x008, setup.dna[1]}}));
  }
  if (!layout1 || setup.wide) fpga.Map(0x2000, 0x1000, std::make_unique<BoardControlBlock>(fpga));
  if (setup.wide) {
    fpga.Map(0x3000, 0x400, std::make_unique<XadcBlock>(fpga));
  } else {
    fpga.Map(0x3400, 0x100, std::make_unique<SysmonBlock>(fpga));
  }
  fpga.Map(0x4000, 0x1000, std::make_unique<HashCoreBlock>(fpga));
  fpga.Map(0x6000, 0x1000, std::make_unique<MmcmBlock>(fpga));
  // Every design has the I2C controller; only model 6 has parts on its bus.
  auto iic = std::make_unique<IicBlock>(fpga);
  if (setup.model == 6) AttachRegulatorDevices(*iic, fpga);
  fpga.Map(0x9000, 0x1000, std::move(iic));
  if (!layout1 && !setup.wide) {
    fpga.Map(0x7000, 0x1000, std::make_unique<ConstantBlock>(std::map<uint32_t, uint32_t>{{0x000, setup.dna[2]}}));
  }
}

}  // namespace sim
