// A host for the hash core tests, written from the register map alone: it
// opens a simulated board through the board layer, starts its clock, loads a
// job in the order the core requires and takes results in with their
// acknowledgement. Its own check of a reported value works the value back to
// a core number and skew with the software hash, so that the simulator's
// search is judged by nothing it computes itself.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "board/dma_device.h"
#include "hash/eaglesong.h"
#include "sim/blocks.h"
#include "sim/in_process.h"

namespace hashcore_test {

// Hash core block registers, from the map.
constexpr uint32_t kCore = 0x4000;
constexpr uint32_t kControl = kCore + 0x6C;
constexpr uint32_t kHold = 0x10000;
// Clock control in layout 1: bit 0 enables the MMCM clock, bit 1 takes it out of reset.
constexpr uint32_t kClockControl = 0x004C;

// Generous bound for waits, only there so that a fault can't hang the suite.
constexpr auto kPatience = std::chrono::seconds(60);

struct Job {
  std::array<uint32_t, 8> header{};
  std::array<uint32_t, 4> nonce{};  // as written to +0x00 to +0x0C
  uint64_t target = 0;              // +0x80 high word, +0x84 low word
};

// The top 64 bits of the digest read as a number, which is what a board
// target bounds.
inline uint64_t HashTop64(const Job &job, uint32_t coreNumber, uint32_t counter) {
  const uint32_t words[4] = {job.nonce[0], job.nonce[1], job.nonce[2] ^ coreNumber, job.nonce[3] ^ counter};
  uint32_t digest[8];
  uint32_t number[8];
  EaglesongHash48(job.header.data(), words, digest);
  EaglesongDigestNumber(digest, number);
  return (uint64_t{number[7]} << 32) | number[6];
}

struct Reading {
  uint32_t coreNumber;
  int skew;
};

// Every core number from 0 to 63 and every skew up to `maxSkew` either way
// whose hash of (reported - 43 + skew) is within `bound`.
inline std::vector<Reading> Readings(const Job &job, uint32_t reported, int maxSkew, uint64_t bound) {
  std::vector<Reading> found;
  for (int skew = -maxSkew; skew <= maxSkew; skew++) {
    uint32_t counter = reported - 43 + static_cast<uint32_t>(skew);
    for (uint32_t core = 0; core < 64; core++) {
      if (HashTop64(job, core, counter) <= bound) found.push_back({core, skew});
    }
  }
  return found;
}

class HashCoreHost {
 public:
  explicit HashCoreHost(const std::string &boardList, const std::string &directory = "/hashcore-test")
      : boards_(directory) {
    std::string error;
    if (!boards_.AddList(boardList, &error)) ADD_FAILURE() << "board list: " << error;
    boards_.Install();
  }
  ~HashCoreHost() {
    boards_.StopSearch();
    for (BRYLDMADevice *device : devices_) BRYLDMADeviceClose(device);
  }

  sim::InProcessBoards &Boards() { return boards_; }

  BRYLDMADevice *Open(const std::string &card, uint64_t subDevice = 0) {
    BRYLDMADevice *device = BRYLDMADeviceOpen(boards_.DevicePath(card), subDevice);
    EXPECT_NE(device, nullptr) << card;
    if (device) devices_.push_back(device);
    return device;
  }

  static uint32_t Read(BRYLDMADevice *device, uint32_t address) {
    return BRYLDMADeviceRead(device, device->userFile, address);
  }
  static void Write(BRYLDMADevice *device, uint32_t address, uint32_t value) {
    EXPECT_TRUE(BRYLDMADeviceWrite(device, device->userFile, address, value)) << std::hex << address;
  }

  // Out of reset, clock enabled, at the MMCM's power-on frequency.
  static void StartClock(BRYLDMADevice *device) { Write(device, kClockControl, 3); }

  static void LoadJob(BRYLDMADevice *device, const Job &job) {
    Write(device, kControl, kHold);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    Write(device, kCore + 0x64, 0);
    Write(device, kCore + 0x80, static_cast<uint32_t>(job.target >> 32));
    Write(device, kCore + 0x84, static_cast<uint32_t>(job.target));
    for (uint32_t i = 0; i < 4; i++) Write(device, kCore + 4 * i, job.nonce[i]);
    uint32_t midstate[16];
    EaglesongMidstate(job.header.data(), midstate);
    for (uint32_t i = 0; i < 16; i++) Write(device, kCore + 0x24 + 4 * i, midstate[i]);
    Write(device, kControl, 0);
  }

  // One intake: read the flags, the flagged slots from 0 up, acknowledge.
  // Only the flags read are written back as 0; one raised since the read is
  // written as 1 and so kept, which lets the tests account for every value.
  static std::vector<uint32_t> Intake(BRYLDMADevice *device) {
    std::vector<uint32_t> values;
    uint32_t control = Read(device, kControl);
    uint32_t flags = (control >> 12) & 0xF;
    if (flags == 0) return values;
    for (uint32_t i = 0; i < 4; i++) {
      if (flags & (1u << i)) values.push_back(Read(device, kCore + 0x7C - 4 * i));
    }
    Write(device, kControl, (control | 0xF000u) & ~(flags << 12));
    return values;
  }

  // Intakes until `count` values came, or the patience ran out.
  static std::vector<uint32_t> Collect(BRYLDMADevice *device, size_t count) {
    std::vector<uint32_t> values;
    auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (values.size() < count && std::chrono::steady_clock::now() < deadline) {
      std::vector<uint32_t> more = Intake(device);
      values.insert(values.end(), more.begin(), more.end());
      if (more.empty()) std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    EXPECT_GE(values.size(), count) << "the core reported too little in time";
    return values;
  }

  // The search's own record of a core, read under the card's lock.
  template <typename Body>
  auto WithCore(const std::string &card, uint32_t fpga, Body body) {
    return boards_.Find(card)->WithFpga(fpga, [&](sim::Fpga *chip) { return body(*chip->HashCore()); });
  }

  uint64_t Position(const std::string &card, uint32_t fpga = 0) {
    return WithCore(card, fpga, [](sim::HashCoreBlock &core) { return core.Position(); });
  }
  sim::HashCoreBlock::SearchStats Stats(const std::string &card, uint32_t fpga = 0) {
    return WithCore(card, fpga, [](sim::HashCoreBlock &core) { return core.Stats(); });
  }

  // Waits until `ready` holds, or the patience ran out.
  static bool WaitFor(const std::function<bool()> &ready) {
    auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!ready()) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  }

 private:
  sim::InProcessBoards boards_;
  std::vector<BRYLDMADevice *> devices_;
};

// A job with every nonce word in use, so that a word in the wrong place or
// XORed with the wrong value shows.
inline Job SampleJob(uint32_t seed, uint64_t target) {
  Job job;
  uint32_t x = seed * 2654435761u + 1;
  for (uint32_t &word : job.header) word = x = x * 1664525u + 1013904223u;
  job.nonce = {0x0a0b0c0d ^ seed, 0x10203040, 0x55aa00c0, 0x01000000 ^ (seed << 8)};
  job.target = target;
  return job;
}

}  // namespace hashcore_test
