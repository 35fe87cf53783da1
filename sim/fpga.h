// One simulated FPGA: a 128 KiB register window made of blocks, each block a
// handler for its own range, and the state that several blocks share (the
// clock control word, the MMCM's output, the thermal model, the cycle
// counter). Later blocks (the I2C controller at 0x9000, the SPI controller at
// 0x10000) plug in with Map().
//
// Not thread-safe by itself: the card that holds it serialises all access.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "sim/config.h"
#include "sim/thermal.h"

namespace sim {

class RegisterBlock {
 public:
  virtual ~RegisterBlock() = default;
  // Offsets are relative to the block's base, 4-byte aligned.
  virtual uint32_t Read(uint32_t offset) = 0;
  virtual void Write(uint32_t offset, uint32_t value) = 0;
};

class HashCoreBlock;
class MmcmBlock;
class IicBlock;
class FlashChip;
class SpiBlock;

// Seconds on some monotonic clock.
using TimeSource = std::function<double()>;
double SteadySeconds();

class Fpga {
 public:
  static constexpr uint32_t kWindowBytes = 0x20000;

  // `flash` carries the flash chip over a power cycle; null makes a new one
  // from `setup.flash`.
  Fpga(const FpgaSetup &setup, bool primary, uint32_t subDevices, TimeSource time,
       std::shared_ptr<FlashChip> flash = nullptr);
  ~Fpga();

  // A register of this window; unmapped addresses read 0 and ignore writes.
  uint32_t Read(uint32_t address);
  void Write(uint32_t address, uint32_t value);

  // Adds a block over [base, base + size); it must not overlap another.
  void Map(uint32_t base, uint32_t size, std::unique_ptr<RegisterBlock> block);

  FpgaSetup &Setup() { return setup_; }
  const FpgaSetup &Setup() const { return setup_; }
  bool Primary() const { return primary_; }
  uint32_t SubDevices() const { return subDevices_; }
  bool Layout1() const { return setup_.layout == 1; }

  // The register that holds the clock bits: 0x004C in layout 1, else 0x2008.
  uint32_t &ClockControlWord() { return Layout1() ? reg004C_ : reg2008_; }
  uint32_t &Register2008() { return reg2008_; }
  uint32_t &Register004C() { return reg004C_; }
  bool ClockEnabled() const;
  bool OutOfReset() const;
  // What the MMCM puts out from its loaded dividers, and what reaches the
  // hash cores: nothing unless enabled and out of reset.
  double MmcmOutputHz() const;
  double HashClockHz() const;
  // The load that heats the board: clock in GHz times cores.
  double LoadGHz() const;

  // Brings the time-dependent state (temperatures, cycle count) up to now.
  void Tick();
  double CoreTemperature() const;
  double VrmTemperature() const;
  double VccInt() const;
  // The highest clock that still gives correct nonces: the board list's
  // max_clock, or the model's limit for a cool board at its nominal voltage,
  // lowered by heat and by a sagging VCCINT.
  double MaxGoodClockHz() const;
  // True for the sensor reads that the sensor_glitch fault spoils.
  bool SensorGlitch();
  double VccAux() const { return setup_.thermal.vccaux; }
  uint64_t Cycles() const { return static_cast<uint64_t>(cycles_); }

  HashCoreBlock *HashCore() const { return hashCore_; }
  MmcmBlock *Mmcm() const { return mmcm_; }
  IicBlock *Iic() const { return iic_; }
  SpiBlock *Spi() const { return spi_; }
  FlashChip *Flash() const { return flash_.get(); }
  const std::shared_ptr<FlashChip> &SharedFlash() const { return flash_; }

 private:
  struct Mapping {
    uint32_t base;
    uint32_t size;
    std::unique_ptr<RegisterBlock> block;
  };
  Mapping *Find(uint32_t address);

  FpgaSetup setup_;
  bool primary_;
  uint32_t subDevices_;
  uint32_t glitchDraw_ = 7;
  TimeSource time_;
  double lastTick_;
  double cycles_ = 0.0;
  Thermal thermal_;
  uint32_t reg2008_ = 0;
  uint32_t reg004C_ = 0;
  std::vector<Mapping> blocks_;
  HashCoreBlock *hashCore_ = nullptr;
  MmcmBlock *mmcm_ = nullptr;
  IicBlock *iic_ = nullptr;
  std::shared_ptr<FlashChip> flash_;
  SpiBlock *spi_ = nullptr;
};

}  // namespace sim
