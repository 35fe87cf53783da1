// One addressable FPGA behind a device path, and the one door to its
// registers. A device path can hold several FPGAs; each is opened as its own
// device with a sub-device index that shifts all of its addresses.
//
// A device belongs to one thread at a time (the scan, then its worker), so
// nothing here takes a lock, and the register path neither locks nor
// allocates: it is one positioned 4-byte transfer.
#pragma once

#include <cstdint>
#include <string>

#include "board/device_file.h"

constexpr uint32_t kMaxChannels = 1;  // only channel 0 is ever looked at
constexpr uint32_t kSubDeviceRegisterShift = 17;
constexpr uint32_t kSubDeviceDmaShift = 36;
constexpr uint64_t kDmaChunkBytes = 8388608;  // largest single transfer handed to the driver

struct BRYLDMAChannel {
  BRYLDMAFile *h2c = nullptr;
  BRYLDMAFile *c2h = nullptr;
};

struct BRYLDMADevice {
  std::string path;
  uint64_t subDeviceIndex = 0;  // 0 for the primary FPGA
  bool isStreaming = false;     // AXI stream design rather than memory mapped
  uint32_t channelCount = 0;
  uint32_t streamTestCycles = 0;
  BRYLDMAFile *controlFile = nullptr;
  BRYLDMAFile *userFile = nullptr;  // null when the design has none
  BRYLDMAChannel channels[kMaxChannels];
  bool useDmaForRegisters = false;  // registers go through channel 0

  // Health, for the board's one thread. Register reads that failed since the
  // last good one, and what the log has said of them: the first failure is
  // said, later ones are counted and said at most every 10 s.
  uint64_t failedReadsInARow = 0;
  uint64_t failedReadsUntold = 0;
  uint64_t lastFailedAddress = 0;
  int64_t failuresToldAt = -1;  // monotonic seconds; -1 before the first failure
  // A wait on the hardware that ran out (e.g. the MMCM stayed busy); null
  // while none has.
  const char *stuckWait = nullptr;
};

// Null when the control file or a complete DMA channel pair is missing.
BRYLDMADevice *BRYLDMADeviceOpen(const std::string &path, uint64_t subDeviceIndex);
// Null does nothing. The user file is deliberately left open for the rest of
// the process, so a user file may outlive its device.
void BRYLDMADeviceClose(BRYLDMADevice *device);

// `file` is the device's userFile for board registers (null on a device
// without one, meaning registers by DMA) or its controlFile. A failed read
// (fewer than 4 bytes) returns 0 and is counted in failedReadsInARow; a write
// is true when exactly 4 bytes went through.
uint32_t BRYLDMADeviceRead(BRYLDMADevice *device, BRYLDMAFile *file, uint64_t address);
bool BRYLDMADeviceWrite(BRYLDMADevice *device, BRYLDMAFile *file, uint64_t address, uint32_t value);

// DMA on a channel pair, in chunks of at most kDmaChunkBytes. Returns the
// total transferred; a failed chunk shows only as a total below `size`.
uint64_t BRYLDMADeviceDmaWrite(BRYLDMADevice *device, uint32_t channel, uint64_t address, const void *buffer,
                               uint64_t size);
uint64_t BRYLDMADeviceDmaRead(BRYLDMADevice *device, uint32_t channel, uint64_t address, void *buffer, uint64_t size);
