#include "sim/card.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <thread>

#include "sim/blocks.h"
#include "sim/iic.h"

namespace sim {

namespace {

constexpr uint64_t kFpgaDmaMask = (1ull << Card::kFpgaDmaShift) - 1;
constexpr uint32_t kWindowShift = 17;
// Control register 0, the H2C channel 0 identifier; bit 15 marks a stream design.
constexpr uint32_t kChannelIdentifier = 0x1FC00006;
constexpr uint32_t kStreamFlag = 1u << 15;
constexpr uint64_t kPageBytes = 4096;

// What a faulty read gives instead of data, or nothing for a healthy FPGA.
bool FaultedRead(const Faults &faults, uint8_t *buffer, uint64_t size, int64_t *result) {
  if (faults.readError) return *result = -EIO, true;
  if (faults.readFail) return *result = 0, true;
  if (faults.allOnes) {
    memset(buffer, 0xFF, size);
    return *result = static_cast<int64_t>(size), true;
  }
  return false;
}

// Words of a register space, read one at a time and cut to the byte range.
template <typename ReadWord>
void ReadWords(uint64_t position, uint8_t *buffer, uint64_t size, ReadWord readWord) {
  uint64_t end = position + size;
  for (uint64_t address = position & ~3ull; address < end; address += 4) {
    uint32_t value = readWord(address);
    uint8_t bytes[4];
    memcpy(bytes, &value, 4);
    for (uint64_t i = 0; i < 4; i++) {
      uint64_t at = address + i;
      if (at >= position && at < end) buffer[at - position] = bytes[i];
    }
  }
}

}  // namespace

Card::Card(const CardSetup &setup, TimeSource time) : setup_(setup), time_(time) {
  fpgas_[0] = std::make_unique<Fpga>(setup.fpga[0], true, setup.subDevices, time);
  for (uint32_t i = 1; i < kMaxFpgas; i++) {
    if (setup.subDevices & (1u << i)) fpgas_[i] = std::make_unique<Fpga>(setup.fpga[i], false, 0, time);
  }
  started_ = Now();
  for (TimedSetting timed : setup.timed) {
    timed.afterSeconds += started_;
    pending_.push_back(timed);
  }
}

double Card::Now() const {
  if (time_) return time_();
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void Card::Advance() {
  accesses_++;
  if (pending_.empty()) return;
  double now = Now();
  for (size_t i = 0; i < pending_.size();) {
    const TimedSetting &timed = pending_[i];
    if (accesses_ >= timed.afterAccesses && now >= timed.afterSeconds) {
      std::string ignored;
      ApplyLocked(timed.fpga, timed.key, timed.value, &ignored);
      pending_.erase(pending_.begin() + static_cast<long>(i));
    } else {
      i++;
    }
  }
}

bool Card::VanishedLocked() const { return vanishedUntil_ >= 0 && Now() < vanishedUntil_; }

bool Card::Vanished() {
  std::lock_guard<std::mutex> guard(lock_);
  return VanishedLocked();
}

uint32_t Card::FpgaOf(Node node, uint64_t position) const {
  uint64_t index = 0;
  if (node == Node::User) index = position >> kWindowShift;
  if (node == Node::C2H || node == Node::H2C) index = position >> kFpgaDmaShift;
  return static_cast<uint32_t>(index < kMaxFpgas ? index : 0);
}

bool Card::HasNode(Node node, uint32_t channel) const {
  switch (node) {
    case Node::Control: return true;
    case Node::User: return setup_.userFile;
    case Node::H2C: return setup_.h2c && channel < setup_.channels;
    case Node::C2H: return setup_.c2h && channel < setup_.channels;
  }
  return false;
}

const Faults &Card::FaultsOf(uint32_t fpgaIndex) const {
  static const Faults healthy;
  if (fpgaIndex < kMaxFpgas && fpgas_[fpgaIndex]) return fpgas_[fpgaIndex]->Setup().faults;
  return healthy;
}

int64_t Card::Read(Node node, uint32_t channel, uint64_t position, void *buffer, uint64_t size) {
  int64_t result;
  uint32_t delayMicros;
  {
    std::lock_guard<std::mutex> guard(lock_);
    Advance();
    if (VanishedLocked()) return -ENODEV;
    const Faults &faults = FaultsOf(FpgaOf(node, position));
    delayMicros = faults.slowReadMicros;
    result = ReadLocked(node, channel, position, static_cast<uint8_t *>(buffer), size);
    if (result > 1 && faults.shortRead) result -= 1;
  }
  // Slow, not blocking: other users of the card go on meanwhile.
  if (delayMicros) std::this_thread::sleep_for(std::chrono::microseconds(delayMicros));
  return result;
}

int64_t Card::ReadLocked(Node node, uint32_t channel, uint64_t position, uint8_t *bytes, uint64_t size) {
  if (tracing_) trace_.push_back({node, channel, position, size, false});
  if (!HasNode(node, channel) || node == Node::H2C) return -EBADF;
  int64_t faulted;
  switch (node) {
    case Node::Control:
      if (FaultedRead(FaultsOf(0), bytes, size, &faulted)) return faulted;
      ReadWords(position, bytes, size, [this](uint64_t address) -> uint32_t {
        if (address == 0) return kChannelIdentifier | (setup_.streaming ? kStreamFlag : 0);
        auto it = controlRegisters_.find(address);
        return it == controlRegisters_.end() ? 0 : it->second;
      });
      return static_cast<int64_t>(size);
    case Node::User: {
      uint64_t index = position >> kWindowShift;
      if (index < kMaxFpgas && FaultedRead(FaultsOf(static_cast<uint32_t>(index)), bytes, size, &faulted)) {
        return faulted;
      }
      return ReadRegisters(static_cast<uint32_t>(index < kMaxFpgas ? index : kMaxFpgas), position, bytes, size);
    }
    case Node::C2H: {
      uint64_t index = position >> kFpgaDmaShift;
      if (index < kMaxFpgas && FaultedRead(FaultsOf(static_cast<uint32_t>(index)), bytes, size, &faulted)) {
        return faulted;
      }
      uint64_t local = position & kFpgaDmaMask;
      if (local >= kRegisterSpan) return ReadMemory(position, bytes, size);
      // Only the FPGA's own window answers through its DMA bridge.
      if ((local >> kWindowShift) != index) {
        memset(bytes, 0, size);
        return static_cast<int64_t>(size);
      }
      return ReadRegisters(static_cast<uint32_t>(index), local, bytes, size);
    }
    case Node::H2C: break;
  }
  return -EBADF;
}

int64_t Card::Write(Node node, uint32_t channel, uint64_t position, const void *buffer, uint64_t size) {
  std::lock_guard<std::mutex> guard(lock_);
  Advance();
  if (VanishedLocked()) return -ENODEV;
  const Faults &faults = FaultsOf(FpgaOf(node, position));
  if (faults.writeFail && node != Node::Control) return -EIO;
  // A short write moves nothing of a register: the word is not whole.
  if (faults.shortWrite && size > 1 && node != Node::Control) return static_cast<int64_t>(size - 1);
  return WriteLocked(node, channel, position, static_cast<const uint8_t *>(buffer), size);
}

int64_t Card::WriteLocked(Node node, uint32_t channel, uint64_t position, const uint8_t *bytes, uint64_t size) {
  if (tracing_) trace_.push_back({node, channel, position, size, true});
  if (!HasNode(node, channel) || node == Node::C2H) return -EBADF;
  switch (node) {
    case Node::Control:
      if (position % 4 != 0 || size % 4 != 0) return -EINVAL;
      for (uint64_t i = 0; i < size; i += 4) {
        uint32_t value;
        memcpy(&value, bytes + i, 4);
        if (position + i != 0) controlRegisters_[position + i] = value;
      }
      return static_cast<int64_t>(size);
    case Node::User: {
      uint64_t index = position >> kWindowShift;
      return WriteRegisters(static_cast<uint32_t>(index < kMaxFpgas ? index : kMaxFpgas), position, bytes, size);
    }
    case Node::H2C: {
      uint64_t index = position >> kFpgaDmaShift;
      uint64_t local = position & kFpgaDmaMask;
      if (local >= kRegisterSpan) return WriteMemory(position, bytes, size);
      if ((local >> kWindowShift) != index) return static_cast<int64_t>(size);
      return WriteRegisters(static_cast<uint32_t>(index), local, bytes, size);
    }
    case Node::C2H: break;
  }
  return -EBADF;
}

int64_t Card::ReadRegisters(uint32_t fpgaIndex, uint64_t position, uint8_t *buffer, uint64_t size) {
  Fpga *fpga = fpgaIndex < kMaxFpgas ? fpgas_[fpgaIndex].get() : nullptr;
  uint64_t windowBase = uint64_t(fpgaIndex) << kWindowShift;
  ReadWords(position, buffer, size, [&](uint64_t address) -> uint32_t {
    // Nothing answers outside a present FPGA's window.
    if (!fpga || address < windowBase || address - windowBase >= Fpga::kWindowBytes) return 0;
    return fpga->Read(static_cast<uint32_t>(address - windowBase));
  });
  return static_cast<int64_t>(size);
}

int64_t Card::WriteRegisters(uint32_t fpgaIndex, uint64_t position, const uint8_t *buffer, uint64_t size) {
  if (position % 4 != 0 || size % 4 != 0) return -EINVAL;
  Fpga *fpga = fpgaIndex < kMaxFpgas ? fpgas_[fpgaIndex].get() : nullptr;
  uint64_t windowBase = uint64_t(fpgaIndex) << kWindowShift;
  for (uint64_t i = 0; i < size; i += 4) {
    uint64_t address = position + i;
    if (!fpga || address < windowBase || address - windowBase >= Fpga::kWindowBytes) continue;
    uint32_t value;
    memcpy(&value, buffer + i, 4);
    fpga->Write(static_cast<uint32_t>(address - windowBase), value);
  }
  return static_cast<int64_t>(size);
}

int64_t Card::ReadMemory(uint64_t address, uint8_t *buffer, uint64_t size) {
  for (uint64_t done = 0; done < size;) {
    uint64_t at = address + done;
    uint64_t offset = at % kPageBytes;
    uint64_t chunk = std::min(size - done, kPageBytes - offset);
    auto it = memory_.find(at / kPageBytes);
    if (it == memory_.end())
      memset(buffer + done, 0, chunk);
    else
      memcpy(buffer + done, it->second->data() + offset, chunk);
    done += chunk;
  }
  return static_cast<int64_t>(size);
}

int64_t Card::WriteMemory(uint64_t address, const uint8_t *buffer, uint64_t size) {
  for (uint64_t done = 0; done < size;) {
    uint64_t at = address + done;
    uint64_t offset = at % kPageBytes;
    uint64_t chunk = std::min(size - done, kPageBytes - offset);
    auto &page = memory_[at / kPageBytes];
    if (!page) {
      if (memory_.size() * kPageBytes > kMemoryLimit) {
        memory_.erase(at / kPageBytes);
        return done ? static_cast<int64_t>(done) : -ENOSPC;
      }
      page = std::make_unique<std::array<uint8_t, kPageBytes>>();
      page->fill(0);
    }
    memcpy(page->data() + offset, buffer + done, chunk);
    done += chunk;
  }
  return static_cast<int64_t>(size);
}

bool Card::Apply(const Command &command, std::string *error) {
  std::lock_guard<std::mutex> guard(lock_);
  Fpga *fpga = command.fpga < kMaxFpgas ? fpgas_[command.fpga].get() : nullptr;
  if (!fpga) {
    if (error) *error = setup_.name + " has no sub-device " + std::to_string(command.fpga);
    return false;
  }
  // Settle the thermal state under the old settings before they change.
  fpga->Tick();
  for (const auto &[key, value] : command.settings) {
    TimedSetting timed;
    std::string plain;
    if (SplitTimedValue(value, &plain, &timed, error)) {
      if (plain.empty()) return false;
      FpgaSetup probe = fpga->Setup();
      if (key != "vanish" && key != "power_cycle" && !ApplyRuntimeSetting(probe, key, plain, error)) return false;
      timed.fpga = command.fpga;
      timed.key = key;
      timed.value = plain;
      timed.afterAccesses += accesses_;
      timed.afterSeconds += Now();
      pending_.push_back(timed);
      continue;
    }
    if (!ApplyLocked(command.fpga, key, value, error)) return false;
  }
  return true;
}

bool Card::ApplyLocked(uint32_t fpgaIndex, const std::string &key, const std::string &value, std::string *error) {
  Fpga *fpga = fpgas_[fpgaIndex].get();
  if (key == "power_cycle") {
    if (value != "1") {
      if (error) *error = "bad value for power_cycle: '" + value + "'";
      return false;
    }
    PowerCycleLocked();
    return true;
  }
  if (key == "vanish") {
    double seconds = 0;
    if (value == "on") {
      vanishedUntil_ = std::numeric_limits<double>::infinity();
    } else if (value == "off") {
      vanishedUntil_ = -1.0;
    } else {
      char *end = nullptr;
      seconds = strtod(value.c_str(), &end);
      if (value.empty() || *end != '\0' || !(seconds >= 0)) {
        if (error) *error = "bad value for vanish: '" + value + "'";
        return false;
      }
      vanishedUntil_ = Now() + seconds;
    }
    return true;
  }
  return ApplyRuntimeSetting(fpga->Setup(), key, value, error);
}

void Card::PowerCycle() {
  std::lock_guard<std::mutex> guard(lock_);
  PowerCycleLocked();
}

void Card::PowerCycleLocked() {
  for (uint32_t i = 0; i < kMaxFpgas; i++) {
    if (!fpgas_[i]) continue;
    FpgaSetup setup = setup_.fpga[i];
    setup.faults = fpgas_[i]->Setup().faults;
    std::shared_ptr<FlashChip> flash = fpgas_[i]->SharedFlash();
    fpgas_[i] = std::make_unique<Fpga>(setup, i == 0, i == 0 ? setup_.subDevices : 0, time_, std::move(flash));
  }
}

void Card::SetTracing(bool on) {
  std::lock_guard<std::mutex> guard(lock_);
  tracing_ = on;
  if (!on) trace_.clear();
}

std::vector<Access> Card::TakeTrace() {
  std::lock_guard<std::mutex> guard(lock_);
  std::vector<Access> trace;
  trace.swap(trace_);
  return trace;
}

std::string Card::Describe() {
  std::lock_guard<std::mutex> guard(lock_);
  std::string text;
  char line[512];
  snprintf(line, sizeof line, "%s user=%d h2c=%d c2h=%d channels=%u streaming=%d\n", setup_.name.c_str(),
           setup_.userFile, setup_.h2c, setup_.c2h, setup_.channels, setup_.streaming);
  text += line;
  for (uint32_t i = 0; i < kMaxFpgas; i++) {
    Fpga *fpga = fpgas_[i].get();
    if (!fpga) continue;
    fpga->Tick();
    const FpgaSetup &setup = fpga->Setup();
    const Faults &faults = setup.faults;
    snprintf(line, sizeof line,
             "  %s.%u model=%u layout=0x%x bitstream=0x%08x clock=%.0f enabled=%d reset=%d"
             " core=%.2f vrm=%.2f vccint=%.3f faults:%s%s%s%s%s%s%s%s%s%s%s\n",
             setup_.name.c_str(), i, setup.model, setup.layout, setup.bitstream, fpga->HashClockHz(),
             fpga->ClockEnabled(), !fpga->OutOfReset(), fpga->CoreTemperature(), fpga->VrmTemperature(), fpga->VccInt(),
             faults.readFail ? " read_fail" : "", faults.readError ? " read_error" : "",
             faults.allOnes ? " all_ones" : "", faults.coreTemperature ? " hot" : "",
             faults.vrmTemperature ? " vrm_hot" : "", faults.vccintSag > 0 ? " sag" : "",
             faults.mmcmStuck ? " mmcm_stuck" : "", faults.flashStuck ? " flash_stuck" : "",
             faults.eraseError ? " erase_error" : "", faults.programError ? " program_error" : "",
             faults.wornCells ? " worn" : "");
    text += line;
    if (const HashCoreBlock *core = fpga->HashCore()) {
      const HashCoreBlock::SearchStats &stats = core->Stats();
      const char *engine = setup.search.engine == SearchEngine::Own      ? "own"
                           : setup.search.engine == SearchEngine::Shared ? "shared"
                                                                         : "off";
      snprintf(line, sizeof line,
               "    search engine=%s ratecap=%g skew=%s held=%d position=%llu hashes=%llu reported=%llu"
               " dropped=%llu flags=0x%x invalid_nonces=%g ones_nonces=%d\n",
               engine, setup.search.rateCapMHs,
               setup.search.skew < 0 ? "auto" : std::to_string(setup.search.skew).c_str(), core->Held(),
               static_cast<unsigned long long>(core->Position()), static_cast<unsigned long long>(stats.hashes),
               static_cast<unsigned long long>(stats.reported), static_cast<unsigned long long>(stats.dropped),
               core->Flags() >> 12, faults.invalidNonces, faults.onesNonces);
      text += line;
    }
    text += DescribeIic(*fpga);
  }
  return text;
}

}  // namespace sim
