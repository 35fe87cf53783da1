#include "rig/scan.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "board/device_file.h"
#include "board/dma_device.h"
#include "board/pci_address.h"
#include "board/registers.h"
#include "foundation/escape.h"
#include "foundation/logger.h"
#include "foundation/console_io.h"

namespace {

constexpr const char *kTag = "Miner";
constexpr size_t kIdentityCopyBytes = 32;

// Sub-device discovery: the board raises one presence bit per further FPGA
// once it has found it, which can take a few probes.
constexpr int kSubDeviceProbes = 10;
constexpr auto kSubDeviceProbeWait = std::chrono::milliseconds(2000);
constexpr uint32_t kSubDevice1Present = 0x10;
constexpr uint32_t kSubDevice2Present = 0x80000;
constexpr uint32_t kSubDevice3Present = 0x20000000;
constexpr uint32_t kAllSubDevicesPresent = kSubDevice1Present | kSubDevice2Present | kSubDevice3Present;

using DeviceHandle = std::unique_ptr<BRYLDMADevice, BRYLDMADeviceCloser>;

uint32_t ProbeSubDevices(BRYLDMADevice *device) {
  uint32_t presence = 0;
  for (int probe = 0; probe < kSubDeviceProbes; probe++) {
    BRYLDMADeviceWrite(device, device->userFile, kRegSubDeviceProbe, 1);
    std::this_thread::sleep_for(kSubDeviceProbeWait);
    presence = BRYLDMADeviceRead(device, device->userFile, kRegSubDevicePresence);
    if ((presence & kAllSubDevicesPresent) == kAllSubDevicesPresent) break;
  }
  return presence;
}

}  // namespace

bool HasSubDevices(BoardModel model) { return model == 8 || model == 9; }

void ScanDevice(FlashOfferFlags &flags, MiningContext &context, bool recovery, const std::string &whitelist,
                const std::vector<std::string> &paths, uint64_t index, uint64_t subDevice) {
  auto number = static_cast<unsigned long long>(index) + 1;
  const std::string &path = paths[index];
  if (!whitelist.empty() && whitelist != path) {
    VL_LOG(VLLogLevelError, kTag, "  Device %llu: Filtered due to whitelist", number);
    return;
  }

  DeviceHandle device(BRYLDMADeviceOpen(path, subDevice));
  if (!device) {
    LOG_COLOR(ConsoleColorRed, VLLogLevelError, kTag, "  Device %llu: Failed to open device", number);
    return;
  }
  const char *modelString = GetModelString(device.get());
  if (modelString == nullptr) {
    LOG_COLOR(ConsoleColorRed, VLLogLevelError, kTag, "  Device %llu: Failed to get identity", number);
    return;
  }
  std::string identity(modelString, strnlen(modelString, kIdentityCopyBytes));

  BoardModel model = ResolveBoardModel(device.get(), identity);
  if (model == 0) {
    LOG_COLOR(ConsoleColorRed, VLLogLevelError, kTag, "  Device %llu: Not a supported model (%s)", number,
              VLEscapeControl(identity).c_str());
    return;
  }
  uint32_t layoutVersion = ReadLayoutVersion(device.get());
  // Copied: the sub-device scans below rewrite the shared result buffer.
  std::string dna = GetBoardDNA(device.get(), IsNarrowFamily(model), layoutVersion);

  if (subDevice == 0 && HasSubDevices(model)) {
    // Further FPGAs get their lines and workers before the primary one.
    uint32_t presence = ProbeSubDevices(device.get());
    if (presence & kSubDevice3Present) ScanDevice(flags, context, recovery, whitelist, paths, index, 3);
    if (presence & kSubDevice2Present) ScanDevice(flags, context, recovery, whitelist, paths, index, 2);
    if (presence & kSubDevice1Present) ScanDevice(flags, context, recovery, whitelist, paths, index, 1);
  }

  BitstreamInfo bitstream = DecodeBitstreamWord(BRYLDMADeviceRead(device.get(), device->userFile, kRegBitstream));
  std::string boardWord = GetBoardWord(device.get(), layoutVersion);
  LOG_COLOR(bitstream.compatible ? ConsoleColorGreen : ConsoleColorYellow, VLLogLevelError, kTag,
            "  Device %llu: %s (%s:%s) running %s (%u) bitstream Version %i.%03i%s", number,
            VLEscapeControl(identity).c_str(), dna.c_str(), boardWord.c_str(), bitstream.name, bitstream.id,
            static_cast<int>(bitstream.major), static_cast<int>(bitstream.minor),
            bitstream.compatible ? "" : " \x1b[1;31mis not compatible\x1b[0m");

  if (bitstream.compatible && !recovery) {
    auto worker = std::make_unique<Worker>();
    worker->device = std::move(device);
    worker->deviceIndex = index;
    worker->layoutVersion = layoutVersion;
    worker->model = model;
    worker->modelName = identity;
    worker->dna = dna;
    worker->pciAddress = BRYLDMAPciAddress(path);
    worker->bitstreamName = bitstream.name;
    context.workers.push_back(std::move(worker));
    return;
  }
  OfferFlash(flags, context.flashCatalogue, device.get(), model, index);
}

void ScanDevices(MiningContext &context, bool recovery, const std::string &whitelist) {
  SetConsoleColor(ConsoleColorNormal);
  VL_LOG(VLLogLevelInfo, kTag, "Scanning for devices...");
  std::optional<std::vector<std::string>> paths = BRYLDMAGetDevices();
  if (!paths || paths->empty()) {
    LOG_COLOR(ConsoleColorRed, VLLogLevelError, kTag,
              "Failed to get a valid list of device paths. Is BRYLDMA (driver) installed?");
    exit(1);  // NOLINT(concurrency-mt-unsafe): no other thread of the run has started
  }
  LOG_COLOR(ConsoleColorGreen, VLLogLevelInfo, kTag,
            "Found %llu BRYLDMA devices:", static_cast<unsigned long long>(paths->size()));

  FlashOfferFlags flags;
  // A stop asked for during the scan ends it at the next board.
  for (uint64_t index = 0; index < paths->size() && g_runState == RunStateRunning; index++) {
    ScanDevice(flags, context, recovery, whitelist, *paths, index, 0);
  }
  FinishFlashOffers(flags);
}
