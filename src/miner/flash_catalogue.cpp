#include "miner/flash_catalogue.h"

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "board/flash_device.h"
#include "board/registers.h"
#include "foundation/logger.h"
#include "miner/console_io.h"

namespace {

constexpr const char *kTag = "Miner";
constexpr const char *kStaticImageName = "static.bin";
// Address space that one model's loose images may take.
constexpr uint64_t kModelImageBudget = 0x100000000ull;
constexpr double kFlashTemperatureLimit = 50.0;
constexpr uint64_t kConsentSeconds = 30;
constexpr uint64_t kFlashAttempts = 3;

constexpr const char *kConsentBanner[] = {
    "",
    "************************************************************",
    "*                         WARNING!                         *",
    "*  The program may flash devices determined to be in need  *",
    "*   of flashing. A power cycle is needed after flashing.   *",
    "*                                                          *",
    "*            Press 'y' to consent to flashing.             *",
    "*               Press 'n' to skip flashing.                *",
    "************************************************************",
    "",
};

constexpr const char *kPowerCycleBanner[] = {
    "",
    "************************************************************",
    "*                         WARNING!                         *",
    "*    Your freshly flashed devices will only work after a   *",
    "*    power cycle. Make sure the host is powered off for    *",
    "*    at least 10 seconds to ensure correct operation!      *",
    "************************************************************",
    "",
};

template <size_t N>
void PrintBanner(const char *const (&lines)[N]) {
  for (const char *line : lines) LOG_COLOR(ConsoleColorRed, VLLogLevelInfo, kTag, "%s", line);
}

// The directory of a model's images: its alias, or else its identity.
std::filesystem::path ModelDirectory(const std::string &identity, BoardModel model) {
  const char *alias = ModelDirectoryAliasTable(model);
  return std::filesystem::path("./bitstreams") / ("CKB-" + (alias ? std::string(alias) : identity));
}

// The slot numbers that a file name spells, or false when a character isn't
// one of the digits.
bool SlotsOfName(const std::string &name, std::vector<uint8_t> *slots) {
  for (char c : name) {
    int digit = FlashImageDigitTable(c);
    if (digit < 0) return false;
    slots->push_back(static_cast<uint8_t>(digit));
  }
  return !name.empty();
}

// Walks the sorted list once: an image that would take the total past the
// budget is dropped, and the walk goes on with the next.
void KeepWithinBudget(std::vector<FlashImage> &images) {
  std::vector<FlashImage> kept;
  uint64_t total = 0;
  for (FlashImage &image : images) {
    if (total + image.file.Size() > kModelImageBudget) continue;
    total += image.file.Size();
    kept.push_back(std::move(image));
  }
  images = std::move(kept);
}

struct FlashMode {
  uint32_t flashType;
  uint8_t flashFamily;
};

FlashMode FlashModeOf(BoardModel model) {
  if (IsWideFamily(model)) return {FlashTypeUpdateRegion, 1};
  if (model == 6) return {FlashTypeWhole, 1};
  return {FlashTypeWhole, 0};
}

}  // namespace

void LoadFlashCatalogue(MiningContext &context) {
  std::vector<std::string> identities = ModelIdentities();
  std::sort(identities.begin(), identities.end());
  for (const std::string &identity : identities) {
    BoardModel model = ModelNameTable(identity);
    // Throws for a missing directory; nothing catches it.
    std::vector<std::filesystem::path> files;
    for (const auto &entry : std::filesystem::directory_iterator(ModelDirectory(identity, model))) {
      if (entry.is_regular_file()) files.push_back(entry.path());
    }
    // A stable order, whatever order the file system lists them in.
    std::sort(files.begin(), files.end());

    std::vector<FlashImage> &images = context.flashImages[model];
    for (const std::filesystem::path &path : files) {
      std::string name = path.filename().string();
      if (name == kStaticImageName) {
        // Of identities that share a model, the first with a file counts.
        context.staticImages.emplace(model, FlashImage{MappedFile(path), {}});
        continue;
      }
      std::vector<uint8_t> slots;
      if (!SlotsOfName(name, &slots)) continue;
      images.push_back(FlashImage{MappedFile(path), std::move(slots)});
    }
    std::stable_sort(images.begin(), images.end(),
                     [](const FlashImage &a, const FlashImage &b) { return a.slots.size() < b.slots.size(); });
    KeepWithinBudget(images);
    if (images.empty()) context.flashImages.erase(model);
  }
}

void OfferFlash(bool &asked, bool &consent, bool &flashed, MiningContext &context, BRYLDMADevice *device,
                BoardModel model, uint64_t index) {
  auto shown = static_cast<unsigned long long>(index + 1);
  FlashMode mode = FlashModeOf(model);

  auto image = context.staticImages.find(model);
  if (image == context.staticImages.end() || image->second.file.Size() == 0) {
    VL_LOG(VLLogLevelError, kTag, "No flash data found for device %llu", shown);
    return;
  }

  if (!asked) {
    PrintBanner(kConsentBanner);
    if (InterruptableDelay(kConsentSeconds, "yn") == 'y') consent = true;
    // Asked once per run, whatever the answer; silence is no.
    asked = true;
  }
  if (!consent) {
    LOG_COLOR(ConsoleColorRed, VLLogLevelError, kTag, "User didn't consent for flashing, skipping device %llu",
              shown);
    return;
  }

  double temperature = GetCoreTemperature(device, IsNarrowFamily(model));
  if (temperature > kFlashTemperatureLimit) {
    LOG_COLOR(ConsoleColorRed, VLLogLevelError, kTag,
              "The core temperature of device %llu is %0.2f *C, which exceeds the flashing safety threshold. "
              "Refusing to flash",
              shown, temperature);
    return;
  }

  VL_LOG(VLLogLevelInfo, kTag, "Flashing device %llu", shown);
  const MappedFile &file = image->second.file;
  if (FlashDevice(device, mode.flashType, file.Data(), file.Size(), kFlashAttempts, mode.flashFamily)) {
    LOG_COLOR(ConsoleColorGreen, VLLogLevelError, kTag, "Successfully flashed device %llu, please power cycle it",
              shown);
    flashed = true;
  } else {
    // The flow can't tell "nothing to do" from a failure, hence one colour.
    LOG_COLOR(ConsoleColorGreen, VLLogLevelError, kTag, "Device %llu did not need flashing or failed", shown);
  }
}

void FinishFlashing(bool flashed) {
  if (!flashed) return;
  PrintBanner(kPowerCycleBanner);
  VL_LOG(VLLogLevelInfo, kTag, "Press <Enter> to continue");
  // Any answer, or none, goes on.
  InterruptableDelay(kConsentSeconds, "\n\r");
}
