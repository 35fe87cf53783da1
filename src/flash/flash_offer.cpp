#include "flash/flash_offer.h"

#include <cmath>

#include "flash/flash_device.h"
#include "board/registers.h"
#include "foundation/logger.h"
#include "foundation/console.h"
#include "foundation/console_io.h"
#include "board/sensor_range.h"

namespace {

constexpr const char *kTag = "Miner";
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

void OfferFlash(FlashOfferFlags &flags, const FlashCatalogue &catalogue, BRYLDMADevice *device, BoardModel model,
                uint64_t index) {
  auto shown = static_cast<unsigned long long>(index + 1);
  FlashMode mode = FlashModeOf(model);

  auto image = catalogue.staticImages.find(model);
  if (image == catalogue.staticImages.end() || image->second.file.Size() == 0) {
    VL_LOG(VLLogLevelError, kTag, "No flash data found for device %llu", shown);
    return;
  }

  if (!flags.asked) {
    // Only a key pressed once the question shows counts as the answer.
    VLConsoleDiscardInput();
    PrintBanner(kConsentBanner);
    if (InterruptableDelay(kConsentSeconds, "yn") == 'y') flags.consent = true;
    // Asked once per run, whatever the answer; silence is no.
    flags.asked = true;
  }
  if (!flags.consent) {
    LOG_COLOR(ConsoleColorRed, VLLogLevelError, kTag, "User didn't consent for flashing, skipping device %llu", shown);
    return;
  }

  // Checked now and again right before every erase: a board whose sensor
  // can't be read is not known to be cool.
  auto coolEnough = [&] {
    double temperature = ValidCoreTemperature(GetCoreTemperature(device, IsNarrowFamily(model)));
    if (std::isnan(temperature)) {
      LOG_COLOR(ConsoleColorRed, VLLogLevelError, kTag,
                "The core temperature of device %llu can't be read. Refusing to flash", shown);
      return false;
    }
    if (temperature > kFlashTemperatureLimit) {
      LOG_COLOR(ConsoleColorRed, VLLogLevelError, kTag,
                "The core temperature of device %llu is %0.2f *C, which exceeds the flashing safety threshold. "
                "Refusing to flash",
                shown, temperature);
      return false;
    }
    return true;
  };
  if (!coolEnough()) return;

  VL_LOG(VLLogLevelInfo, kTag, "Flashing device %llu", shown);
  const MappedFile &file = image->second.file;
  FlashResult result =
      FlashDevice(device, mode.flashType, file.Data(), file.Size(), kFlashAttempts, mode.flashFamily, coolEnough);
  switch (result.outcome) {
    case FlashOutcome::Written:
      LOG_COLOR(ConsoleColorGreen, VLLogLevelError, kTag, "Successfully flashed device %llu, please power cycle it",
                shown);
      flags.flashed = true;
      break;
    case FlashOutcome::Incomplete:
      LOG_COLOR(ConsoleColorRed, VLLogLevelError, kTag, "%s", result.reason.c_str());
      LOG_COLOR(ConsoleColorRed, VLLogLevelError, kTag,
                "flash of device %llu is incomplete; the board needs a new flash before a power cycle", shown);
      break;
    case FlashOutcome::NotStarted:
      LOG_COLOR(ConsoleColorRed, VLLogLevelError, kTag, "Device %llu was not flashed: %s", shown,
                result.reason.c_str());
      break;
  }
}

void FinishFlashOffers(const FlashOfferFlags &flags) {
  if (!flags.flashed) return;
  PrintBanner(kPowerCycleBanner);
  VL_LOG(VLLogLevelInfo, kTag, "Press <Enter> to continue");
  // Any answer, or none, goes on.
  InterruptableDelay(kConsentSeconds, "\n\r");
}
