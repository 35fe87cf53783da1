// A host written from the register map: it loads jobs, takes results in and
// works them back to core numbers and skews with the software hash, so the
// search is judged by nothing it computes itself.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "board/dma_device.h"
#include "hash/eaglesong.h"
#include "sim/blocks.h"
#include "sim/in_process.h"

namespace hashcore_test {

constexpr uint32_t kCore = 0x4000, kControl = 0x406C, kHold = 0x10000;
constexpr uint32_t kClockControl = 0x004C;  // layout 1: bit 0 enable, bit 1 out of reset

struct Job {
  std::array<uint32_t, 8> header{};
  std::array<uint32_t, 4> nonce{};
  uint64_t target = 0;
};

// Every nonce word in use, so that a word misplaced or XORed wrongly shows.
inline Job SampleJob(uint32_t seed, uint64_t target) {
  Job job{{}, {0x0a0b0c0d ^ seed, 0x10203040, 0x55aa00c0, 0x01000000 ^ (seed << 8)}, target};
  uint32_t x = seed;
  for (uint32_t &word : job.header) word = x = x * 1664525u + 1013904223u;
  return job;
}

// The top 64 bits of the hash as a number: what a board target bounds.
inline uint64_t HashTop64(const Job &job, uint32_t core, uint32_t counter) {
  const uint32_t words[4] = {job.nonce[0], job.nonce[1], job.nonce[2] ^ core, job.nonce[3] ^ counter};
  uint32_t digest[8];
  EaglesongHash48(job.header.data(), words, digest);
  EaglesongDigestNumber(digest, digest);
  return (uint64_t{digest[7]} << 32) | digest[6];
}

// Core numbers 0 to 63 and skews up to `maxSkew` either way whose hash of
// (reported - 43 + skew) is within `bound`, as {core, skew} pairs.
inline std::vector<std::pair<uint32_t, int>> Readings(const Job &job, uint32_t reported, int maxSkew, uint64_t bound) {
  std::vector<std::pair<uint32_t, int>> found;
  for (int skew = -maxSkew; skew <= maxSkew; skew++) {
    for (uint32_t core = 0; core < 64; core++) {
      if (HashTop64(job, core, reported - 43 + static_cast<uint32_t>(skew)) <= bound) found.push_back({core, skew});
    }
  }
  return found;
}

class HashCoreHost {
 public:
  explicit HashCoreHost(const std::string &boardList) : boards_("/hashcore-test") {
    std::string error;
    if (!boards_.AddList(boardList, &error)) ADD_FAILURE() << error;
    boards_.Install();
  }
  ~HashCoreHost() {
    boards_.StopSearch();
    for (BRYLDMADevice *device : devices_) BRYLDMADeviceClose(device);
  }
  sim::InProcessBoards &Boards() { return boards_; }
  void Command(const std::string &line) { EXPECT_TRUE(boards_.RunCommand(line, nullptr)) << line; }

  // Opens an FPGA and starts its clock at the MMCM's power-on frequency.
  BRYLDMADevice *Open(const std::string &card, uint64_t subDevice = 0) {
    BRYLDMADevice *device = BRYLDMADeviceOpen(boards_.DevicePath(card), subDevice);
    if (device) devices_.push_back(device), Write(device, kClockControl, 3);
    return device;
  }
  static uint32_t Read(BRYLDMADevice *d, uint32_t address) { return BRYLDMADeviceRead(d, d->userFile, address); }
  static void Write(BRYLDMADevice *d, uint32_t address, uint32_t value) {
    BRYLDMADeviceWrite(d, d->userFile, address, value);
  }

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

  // Reads the flagged slots from 0 up and acknowledges just those: a flag
  // raised since the read is written back as 1, and so kept.
  static std::vector<uint32_t> Intake(BRYLDMADevice *device) {
    std::vector<uint32_t> values;
    uint32_t control = Read(device, kControl);
    uint32_t flags = (control >> 12) & 0xF;
    for (uint32_t i = 0; i < 4; i++) {
      if (flags & (1u << i)) values.push_back(Read(device, kCore + 0x7C - 4 * i));
    }
    if (flags) Write(device, kControl, (control | 0xF000u) & ~(flags << 12));
    return values;
  }
  // Intakes until at least `count` values came, or `done` holds if given.
  static std::vector<uint32_t> Collect(BRYLDMADevice *device, size_t count, std::function<bool()> done = {}) {
    std::vector<uint32_t> values;
    EXPECT_TRUE(WaitFor([&] {
      for (uint32_t value : Intake(device)) values.push_back(value);
      return done ? done() : values.size() >= count;
    }));
    return values;
  }

  // The search's own record, read under the card's lock.
  sim::HashCoreBlock::SearchStats Stats(const std::string &card) {
    return boards_.Find(card)->WithFpga(0, [](sim::Fpga *fpga) { return fpga->HashCore()->Stats(); });
  }
  uint64_t Position(const std::string &card) {
    return boards_.Find(card)->WithFpga(0, [](sim::Fpga *fpga) { return fpga->HashCore()->Position(); });
  }

  // False after a minute: only there so that a fault can't hang the suite.
  static bool WaitFor(const std::function<bool()> &ready) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!ready()) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::microseconds(300));
    }
    return true;
  }

 private:
  sim::InProcessBoards boards_;
  std::vector<BRYLDMADevice *> devices_;
};

}  // namespace hashcore_test
