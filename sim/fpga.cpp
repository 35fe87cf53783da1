#include "sim/fpga.h"

#include <algorithm>

#include <chrono>
#include <stdexcept>

#include "sim/blocks.h"
#include "sim/iic.h"
#include "sim/spi.h"

namespace sim {

double SteadySeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

Fpga::Fpga(const FpgaSetup &setup, bool primary, uint32_t subDevices, TimeSource time, std::shared_ptr<FlashChip> flash)
    : setup_(setup),
      primary_(primary),
      subDevices_(subDevices),
      time_(time ? std::move(time) : TimeSource(SteadySeconds)),
      lastTick_(time_()),
      thermal_(setup.thermal),
      flash_(flash ? std::move(flash) : std::make_shared<FlashChip>(setup.flash)) {
  // Power-on: the FPGA loads what its flash holds.
  BootFromFlash(setup_, *flash_);
  MapStandardBlocks(*this);
  MapSpiBlock(*this);
  for (const Mapping &mapping : blocks_) {
    if (auto *core = dynamic_cast<HashCoreBlock *>(mapping.block.get()); core && !hashCore_) hashCore_ = core;
    if (auto *mmcm = dynamic_cast<MmcmBlock *>(mapping.block.get()); mmcm && !mmcm_) mmcm_ = mmcm;
    if (auto *iic = dynamic_cast<IicBlock *>(mapping.block.get()); iic && !iic_) iic_ = iic;
    if (auto *spi = dynamic_cast<SpiBlock *>(mapping.block.get()); spi && !spi_) spi_ = spi;
  }
}

Fpga::~Fpga() = default;

void Fpga::Map(uint32_t base, uint32_t size, std::unique_ptr<RegisterBlock> block) {
  for (const Mapping &mapping : blocks_) {
    if (base < mapping.base + mapping.size && mapping.base < base + size) {
      throw std::logic_error("overlapping register blocks");
    }
  }
  blocks_.push_back({base, size, std::move(block)});
}

Fpga::Mapping *Fpga::Find(uint32_t address) {
  for (Mapping &mapping : blocks_) {
    if (address >= mapping.base && address - mapping.base < mapping.size) return &mapping;
  }
  return nullptr;
}

uint32_t Fpga::Read(uint32_t address) {
  Tick();
  address &= ~3u;
  Mapping *mapping = Find(address);
  return mapping ? mapping->block->Read(address - mapping->base) : 0;
}

void Fpga::Write(uint32_t address, uint32_t value) {
  Tick();
  address &= ~3u;
  if (Mapping *mapping = Find(address)) mapping->block->Write(address - mapping->base, value);
}

bool Fpga::ClockEnabled() const { return (Layout1() ? reg004C_ : reg2008_) & 1u; }
bool Fpga::OutOfReset() const { return (Layout1() ? reg004C_ : reg2008_) & 2u; }

double Fpga::MmcmOutputHz() const { return mmcm_ ? mmcm_->OutputHz() : 0.0; }

double Fpga::HashClockHz() const { return ClockEnabled() && OutOfReset() ? MmcmOutputHz() : 0.0; }

double Fpga::LoadGHz() const { return HashClockHz() * setup_.cores / 1e9; }

void Fpga::Tick() {
  double now = time_();
  double seconds = now - lastTick_;
  if (seconds < 0) seconds = 0;
  lastTick_ = now;
  // The clock that ran since the last access is the one set then.
  double hz = HashClockHz();
  cycles_ += hz * seconds;
  thermal_.Advance(seconds, LoadGHz(), setup_.thermal);
}

double Fpga::CoreTemperature() const {
  return setup_.faults.coreTemperature ? *setup_.faults.coreTemperature : thermal_.CoreTemperature();
}

double Fpga::VrmTemperature() const {
  return setup_.faults.vrmTemperature ? *setup_.faults.vrmTemperature : thermal_.VrmTemperature();
}

double Fpga::VccInt() const { return Thermal::VccInt(setup_.thermal, LoadGHz(), setup_.faults.vccintSag); }

double Fpga::MaxGoodClockHz() const {
  if (setup_.maxClockMHz > 0) return setup_.maxClockMHz * 1e6;
  // Hotter silicon and a sagging supply both slow the logic down.
  double heat = std::max(0.0, CoreTemperature() - 60.0) * 1e6;
  double sag = std::max(0.0, setup_.thermal.vccintNominal - VccInt()) * 400e6;
  return std::max(0.0, setup_.coolLimitMHz * 1e6 - heat - sag);
}

bool Fpga::SensorGlitch() {
  if (!(setup_.faults.sensorGlitch > 0)) return false;
  glitchDraw_ = glitchDraw_ * 1103515245u + 12345u;
  return static_cast<double>((glitchDraw_ >> 8) & 0xFFFF) / 65536.0 < setup_.faults.sensorGlitch;
}

}  // namespace sim
