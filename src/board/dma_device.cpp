#include "board/dma_device.h"

#include <algorithm>

#include "foundation/logger.h"
#include "foundation/text.h"
#include "foundation/vltime.h"

namespace {

constexpr const char *kTag = "DMA_DEVICE";
// Bit 15 of the channel identifier in control register 0.
constexpr uint32_t kStreamFlag = 1u << 15;

uint64_t RegisterAddress(const BRYLDMADevice *device, const BRYLDMAFile *file, uint64_t address) {
  if (file == device->userFile) return address + (device->subDeviceIndex << kSubDeviceRegisterShift);
  return address;
}

}  // namespace

BRYLDMADevice *BRYLDMADeviceOpen(const std::string &path, uint64_t subDeviceIndex) {
  auto *device = new BRYLDMADevice{};
  VLTimeInit();
  device->subDeviceIndex = subDeviceIndex;
  device->streamTestCycles = 50;
  device->path = path;

  device->controlFile = BRYLDMAFileOpen(path, BRYLDMAFileControl, 0);
  if (!device->controlFile) {
    VL_LOG(VLLogLevelInfo, kTag, "Failed to create control device file.");
    BRYLDMADeviceClose(device);
    return nullptr;
  }

  device->userFile = BRYLDMAFileOpen(path, BRYLDMAFileUser, 0);
  if (!device->userFile) {
    VL_LOG(VLLogLevelInfo, kTag, "User file not available, will use DMA instead");
    device->useDmaForRegisters = true;
  }

  // The channels are not open yet; this read goes to the control file, which
  // never takes the DMA path.
  uint32_t channelId = BRYLDMADeviceRead(device, device->controlFile, 0);
  device->isStreaming = (channelId & kStreamFlag) != 0;
  if (device->isStreaming) {
    VL_LOG(VLLogLevelVerbose, kTag, "Detected XDMA AXI-ST design. (STREAMING)");
  } else {
    VL_LOG(VLLogLevelVerbose, kTag, "Detected XDMA AXI-MM design. (MEMORY MAPPED)");
  }

  uint32_t count = 0;
  for (uint32_t i = 0; i < kMaxChannels; i++) {
    BRYLDMAFile *h2c = BRYLDMAFileOpen(path, BRYLDMAFileH2C, i);
    BRYLDMAFile *c2h = BRYLDMAFileOpen(path, BRYLDMAFileC2H, i);
    if (h2c && c2h) {
      VL_LOG(VLLogLevelVerbose, kTag, "Found h2c_%i and c2h_%i.", static_cast<int>(i), static_cast<int>(i));
      device->channels[i].h2c = h2c;
      device->channels[i].c2h = c2h;
      count++;
    } else {
      // Half a pair only happens on a broken driver; its handle is left open.
      BRYLDMAFileKeepForProcess(h2c);
      BRYLDMAFileKeepForProcess(c2h);
    }
  }
  device->channelCount = count;
  VL_LOG(VLLogLevelVerbose, kTag, "found total number of channels: %i", static_cast<int>(count));
  if (count != 0) return device;

  VL_LOG(VLLogLevelInfo, kTag, "No DMA channels found!");
  BRYLDMADeviceClose(device);
  return nullptr;
}

void BRYLDMADeviceClose(BRYLDMADevice *device) {
  if (!device) return;
  BRYLDMAFileClose(device->controlFile);
  device->controlFile = nullptr;
  for (BRYLDMAChannel &channel : device->channels) {
    BRYLDMAFileClose(channel.h2c);
    BRYLDMAFileClose(channel.c2h);
    channel = {};
  }
  // The user file stays open for the process's life, by design.
  BRYLDMAFileKeepForProcess(device->userFile);
  delete device;
}

namespace {

constexpr int64_t kFailureReportSeconds = 10;

// A failing board would otherwise write a line per read, thousands a second.
void NoteFailedRead(BRYLDMADevice *device, uint64_t address) {
  device->failedReadsInARow++;
  device->lastFailedAddress = address;
  auto now = static_cast<int64_t>(VLTimeSeconds());
  if (device->failuresToldAt < 0) {
    VL_LOG(VLLogLevelInfo, kTag, "read control failed. %08llx", static_cast<unsigned long long>(address));
    device->failuresToldAt = now;
    return;
  }
  device->failedReadsUntold++;
  if (now - device->failuresToldAt >= kFailureReportSeconds) {
    VL_LOG(VLLogLevelInfo, kTag, "read control failed at 0x%llx, %s times in the last 10 s",
           static_cast<unsigned long long>(address), VLThousands(device->failedReadsUntold).c_str());
    device->failedReadsUntold = 0;
    device->failuresToldAt = now;
  }
}

}  // namespace

uint32_t BRYLDMADeviceRead(BRYLDMADevice *device, BRYLDMAFile *file, uint64_t address) {
  address = RegisterAddress(device, file, address);
  uint32_t value = 0;
  uint64_t count;
  if (file == device->userFile && device->useDmaForRegisters) {
    count = BRYLDMADeviceDmaRead(device, 0, address, &value, sizeof value);
  } else {
    count = BRYLDMAFileRead(file, address, &value, sizeof value);
  }
  if (count == sizeof value) {
    device->failedReadsInARow = 0;
    return value;
  }
  // Short reads are failures too: their value is not the register's.
  NoteFailedRead(device, address);
  return 0;
}

bool BRYLDMADeviceWrite(BRYLDMADevice *device, BRYLDMAFile *file, uint64_t address, uint32_t value) {
  address = RegisterAddress(device, file, address);
  uint64_t count;
  if (file == device->userFile && device->useDmaForRegisters) {
    count = BRYLDMADeviceDmaWrite(device, 0, address, &value, sizeof value);
  } else {
    count = BRYLDMAFileWrite(file, address, &value, sizeof value);
  }
  return count == sizeof value;
}

uint64_t BRYLDMADeviceDmaWrite(BRYLDMADevice *device, uint32_t channel, uint64_t address, const void *buffer,
                               uint64_t size) {
  address += device->subDeviceIndex << kSubDeviceDmaShift;
  const auto *bytes = static_cast<const uint8_t *>(buffer);
  uint64_t total = 0;
  while (size != 0) {
    uint64_t chunk = std::min(size, kDmaChunkBytes);
    total += BRYLDMAFileWrite(device->channels[channel].h2c, address, bytes, chunk);
    // The whole chunk is passed over whatever went through.
    address += chunk;
    bytes += chunk;
    size -= chunk;
  }
  return total;
}

uint64_t BRYLDMADeviceDmaRead(BRYLDMADevice *device, uint32_t channel, uint64_t address, void *buffer, uint64_t size) {
  address += device->subDeviceIndex << kSubDeviceDmaShift;
  auto *bytes = static_cast<uint8_t *>(buffer);
  uint64_t total = 0;
  while (size != 0) {
    uint64_t chunk = std::min(size, kDmaChunkBytes);
    total += BRYLDMAFileRead(device->channels[channel].c2h, address, bytes, chunk);
    address += chunk;
    bytes += chunk;
    size -= chunk;
  }
  return total;
}
