#include "flash/flash_device.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <vector>

#include "flash/xil_io.h"
#include "foundation/logger.h"
#include "foundation/vltime.h"

namespace {

constexpr const char *kTag = "DMA_DEVICE";
// Where an unknown flash type would write; no caller passes one.
constexpr uint32_t kOtherTypeAddress = 0x10000;

uint32_t ImageAddress(uint32_t flashType) {
  switch (flashType) {
    case FlashTypeUpdateRegion: return kFlashUpdateRegionAddress;
    case FlashTypeWhole: return 0;
    default: return kOtherTypeAddress;
  }
}

double SecondsSince(int64_t start) { return static_cast<double>(VLTimeElapsedMicros(VLTimeNow(), start)) / 1000000.0; }

void TimedWrite(SPIFlash &flash, const char *what, uint32_t address, const uint8_t *data, uint64_t size) {
  VL_LOG(VLLogLevelInfo, kTag, "%s", what);
  int64_t start = VLTimeNow();
  flash.Write(address, data, size);
  printf("\n");
  VL_LOG(VLLogLevelInfo, kTag, "Programmed in %.3fs", SecondsSince(start));
}

}  // namespace

void PrintFlashProgress(const SPIFlashProgress &progress) {
  printf("\r%s (%.1f%%)", progress.message.c_str(), progress.fraction * 100.0);
  fflush(stdout);
}

namespace {

// One erase, write and read-back pass. Throws what the flash library throws;
// false when the chip reads back other than the image.
bool WriteAndCheck(SPIFlash &flash, uint32_t flashType, uint32_t address, const uint8_t *data, uint64_t size) {
  VL_LOG(VLLogLevelInfo, kTag, "Erasing...");
  int64_t start = VLTimeNow();
  flash.Erase(address, size);
  printf("\n");
  VL_LOG(VLLogLevelInfo, kTag, "Erased in %.3fs", SecondsSince(start));

  if (flashType == FlashTypeWhole) {
    TimedWrite(flash, "Programming...", address, data, size);
  } else {
    // The first page goes last, so that an interrupted write leaves no valid
    // header in front of a partial image.
    if (size > SPIFlash::kPageSize) {
      TimedWrite(flash, "Programming initial...", address + SPIFlash::kPageSize, data + SPIFlash::kPageSize,
                 size - SPIFlash::kPageSize);
    }
    // A header page always goes out whole; a shorter image is padded as
    // erased flash rather than read past its end.
    uint8_t header[SPIFlash::kPageSize];
    std::fill(std::begin(header), std::end(header), 0xFF);
    std::copy(data, data + std::min<uint64_t>(size, SPIFlash::kPageSize), header);
    TimedWrite(flash, "Programming final...", address, header, SPIFlash::kPageSize);
  }

  VL_LOG(VLLogLevelInfo, kTag, "Reading back...");
  std::vector<uint8_t> back(size);
  flash.Read(address, back.data(), size);
  printf("\n");
  auto differ = std::mismatch(back.begin(), back.end(), data);
  if (differ.first == back.end()) return true;
  VL_LOG(VLLogLevelError, kTag, "The flash reads back differently at offset %llu",
         static_cast<unsigned long long>(differ.first - back.begin()));
  return false;
}

}  // namespace

FlashResult FlashDevice(BRYLDMADevice *device, uint32_t flashType, const uint8_t *data, uint64_t size,
                        uint64_t attempts, uint8_t flashFamily, const std::function<bool()> &mayErase) {
  FlashResult result;
  VL_LOG(VLLogLevelInfo, kTag, "Attempting to flash device with type: %i.", static_cast<int>(flashType));
  // No DMA fallback here: the controller is reached through the user file only.
  if (!device->userFile) {
    VL_LOG(VLLogLevelInfo, kTag, "User File not found.");
    result.reason = "the board has no user file";
    return result;
  }
  uint32_t address = ImageAddress(flashType);
  deviceFileToFlash = device->userFile;

  uint64_t base = (device->subDeviceIndex << kSubDeviceRegisterShift) + kFlashControllerOffset;
  XSpi_Config config{};
  config.DeviceId = 0;
  config.BaseAddress = base;
  config.HasFifos = 1;
  config.SlaveOnly = 0;
  config.NumSlaveBits = 1;
  config.DataWidth = 8;
  config.SpiMode = 2;
  config.AxiInterface = 0;
  config.AxiFullBaseAddress = static_cast<uint32_t>(base);
  config.XipMode = 0;
  config.Use_Startup = 1;
  config.DevicePath = BRYLDMAFilePath(device->userFile).c_str();

  VL_LOG(VLLogLevelInfo, kTag, "Initializing flash...");
  SPIFlash flash;
  flash.AddProgressCallback(PrintFlashProgress);
  try {
    flash.Init(config, flashFamily);
    uint64_t capacity = flash.Capacity();
    if (capacity == 0) {
      result.reason = "the flash chip's size is unknown";
      return result;
    }
    // In 64 bits: a size near 4 GiB must not wrap past the address check.
    if (size == 0 || uint64_t{address} + size > capacity) {
      result.reason = "the image of " + std::to_string(size) + " bytes at " + std::to_string(address) +
                      " does not fit the flash of " + std::to_string(capacity) + " bytes";
      return result;
    }
  } catch (const std::runtime_error &error) {
    result.reason = error.what();
    return result;
  }

  for (uint64_t attempt = 0; attempt < attempts; attempt++) {
    if (!mayErase()) {
      result.reason = "erasing was not safe";
      return result;
    }
    try {
      result.outcome = FlashOutcome::Incomplete;
      if (WriteAndCheck(flash, flashType, address, data, size)) {
        result.outcome = FlashOutcome::Written;
        return result;
      }
      result.reason = "the flash read back differently";
    } catch (const std::runtime_error &error) {
      printf("\n");
      VL_LOG(VLLogLevelError, kTag, "%s", error.what());
      result.reason = error.what();
    }
  }
  return result;
}
