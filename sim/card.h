// One simulated board as its driver shows it: the control file, the user
// file (the register windows of the primary FPGA and its sub-devices, 128 KiB
// apart) and DMA channel pairs. DMA addresses carry the FPGA in bits 36 and
// up; in each FPGA's DMA space the register windows are mirrored at the same
// place as in the user file (so only its own window answers), and everything
// from 0x80000 up is card memory.
//
// Thread-safe: every access takes the card's lock, as front ends may serve
// several threads.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "sim/config.h"
#include "sim/fpga.h"

namespace sim {

enum class Node { Control, User, H2C, C2H };

struct Access {
  Node node;
  uint32_t channel;
  uint64_t position;
  uint64_t size;
  bool write;
};

class Card {
 public:
  static constexpr uint64_t kFpgaDmaShift = 36;
  static constexpr uint64_t kRegisterSpan = uint64_t(kMaxFpgas) * Fpga::kWindowBytes;
  static constexpr uint64_t kMemoryLimit = 256ull << 20;

  explicit Card(const CardSetup &setup, TimeSource time = nullptr);

  const std::string &Name() const { return setup_.name; }
  const CardSetup &Setup() const { return setup_; }
  bool HasNode(Node node, uint32_t channel) const;

  // Bytes transferred, or a negative errno value.
  int64_t Read(Node node, uint32_t channel, uint64_t position, void *buffer, uint64_t size);
  int64_t Write(Node node, uint32_t channel, uint64_t position, const void *buffer, uint64_t size);

  // Applies the settings of a command to this card's FPGA `fpga` while it
  // runs: faults and thermal behaviour, "power_cycle=1", which restarts the
  // whole card (see PowerCycle), and "vanish=<seconds>|on|off", which takes
  // the card's nodes away. A value with "@N" or "@Ts" takes effect after N
  // more accesses to the card, or T seconds.
  bool Apply(const Command &command, std::string *error);

  // True while the card's nodes are gone: opens fail with ENOENT, transfers
  // on open nodes with ENODEV.
  bool Vanished();

  // Restarts every FPGA as from power-on: registers, clocks and bitstream
  // come back from the card's description, a flash holding the CKB image
  // boots it, and the flash contents and faults in force stay.
  void PowerCycle();

  // Runs `body` on an FPGA (null when absent) under the card's lock.
  template <typename Body>
  auto WithFpga(uint32_t index, Body body) {
    std::lock_guard<std::mutex> guard(lock_);
    return body(index < kMaxFpgas ? fpgas_[index].get() : nullptr);
  }

  // A record of every transfer while tracing is on.
  void SetTracing(bool on);
  std::vector<Access> TakeTrace();

  // A few lines about the card's state, for people and tests.
  std::string Describe();

 private:
  int64_t ReadRegisters(uint32_t fpgaIndex, uint64_t position, uint8_t *buffer, uint64_t size);
  int64_t WriteRegisters(uint32_t fpgaIndex, uint64_t position, const uint8_t *buffer, uint64_t size);
  int64_t ReadMemory(uint64_t address, uint8_t *buffer, uint64_t size);
  int64_t WriteMemory(uint64_t address, const uint8_t *buffer, uint64_t size);
  int64_t ReadLocked(Node node, uint32_t channel, uint64_t position, uint8_t *bytes, uint64_t size);
  int64_t WriteLocked(Node node, uint32_t channel, uint64_t position, const uint8_t *bytes, uint64_t size);
  // The read fault of an FPGA as a result: 0 for none, else what a read returns.
  const Faults &FaultsOf(uint32_t fpgaIndex) const;
  // The FPGA a transfer at `position` of `node` reaches.
  uint32_t FpgaOf(Node node, uint64_t position) const;
  void PowerCycleLocked();
  double Now() const;
  // Counts one access and applies the timed settings that are due.
  void Advance();
  bool ApplyLocked(uint32_t fpga, const std::string &key, const std::string &value, std::string *error);
  bool VanishedLocked() const;

  CardSetup setup_;
  TimeSource time_;
  std::mutex lock_;
  std::unique_ptr<Fpga> fpgas_[kMaxFpgas];
  std::unordered_map<uint64_t, uint32_t> controlRegisters_;
  std::unordered_map<uint64_t, std::unique_ptr<std::array<uint8_t, 4096>>> memory_;
  bool tracing_ = false;
  std::vector<Access> trace_;
  uint64_t accesses_ = 0;
  double started_ = 0.0;
  std::vector<TimedSetting> pending_;
  double vanishedUntil_ = -1.0;  // seconds of Now(); infinity until vanish=off
};

}  // namespace sim
