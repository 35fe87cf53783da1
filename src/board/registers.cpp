#include "board/registers.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "foundation/logger.h"

namespace {

constexpr const char *kTag = "BRYL_Reg";
constexpr size_t kStringBufferSize = 128;

struct ModelName {
  const char *identity;
  BoardModel model;
};
constexpr ModelName kModelNames[] = {
    {"1525", 1},  {"101 ", 2}, {"215 ", 3}, {"215+", 4},  {"OMPR", 5},  {"RK33", 6},  {"RK35", 7},
    {"RK37", 11}, {"JC33", 8}, {"JC35", 9}, {"JC37", 11}, {"JC39", 11}, {"CV13", 10}, {"NV01", 11},
};

struct BitstreamName {
  uint32_t id;
  const char *name;
};
constexpr BitstreamName kBitstreamNames[] = {
    {0, "Factory test"}, {2, "Zen protocol"}, {7, "Tribus"}, {10, "X16r"}, {12, "CKB"}, {255, "Shell"},
};
constexpr uint32_t kCompatibleId = 12;
constexpr uint32_t kCompatibleMajor = 0;
constexpr uint32_t kCompatibleMinor = 4;

// Output divider, in thousandths, within 0.001 and 255.999.
constexpr uint64_t kDividerSlowest = 255999;

uint32_t Read(BRYLDMADevice *device, uint64_t address) { return BRYLDMADeviceRead(device, device->userFile, address); }

bool Write(BRYLDMADevice *device, uint64_t address, uint32_t value) {
  return BRYLDMADeviceWrite(device, device->userFile, address, value);
}

uint32_t ClockControlAddress(uint32_t layoutVersion) {
  if (layoutVersion > 1) throw 1;
  return layoutVersion == 1 ? kRegClockControlLayout1 : kRegClockControl;
}

// The MMCM's fixed-point fields, in thousandths.
uint64_t FeedbackThousandths(uint32_t feedback) {
  return ((feedback >> 8) & 0xFF) * 1000ull + ((feedback >> 16) & 0x3FF);
}
uint64_t OutputThousandths(uint32_t output) { return (output & 0xFF) * 1000ull + ((output >> 8) & 0x3FF); }
uint64_t InputDivider(uint32_t feedback) { return feedback & 0xFF; }

// A healthy MMCM is busy for microseconds; one still busy after this long is
// stuck, or the board is gone.
constexpr auto kMmcmBusyLimit = std::chrono::milliseconds(100);

// False, with the device marked, when the MMCM stays busy past the limit.
bool WaitWhileMmcmBusy(BRYLDMADevice *device, uint32_t base) {
  auto deadline = std::chrono::steady_clock::now() + kMmcmBusyLimit;
  while (Read(device, base + kMmcmLoad) & kMmcmLoadBusy) {
    if (std::chrono::steady_clock::now() >= deadline) {
      device->stuckWait = "the clock (MMCM) stayed busy for 100 ms";
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace

bool IsWideFamily(BoardModel model) { return model == 2 || model == 3 || model == 4; }
bool IsNarrowFamily(BoardModel model) { return !IsWideFamily(model); }

BoardModel ModelNameTable(const std::string &identity) {
  for (const ModelName &entry : kModelNames) {
    if (identity == entry.identity) return entry.model;
  }
  return 0;
}

const char *ModelDirectoryAliasTable(BoardModel model) {
  switch (model) {
    case 2: return "O101";
    case 3: return "O215";
    case 4: return "O21F";
    default: return nullptr;
  }
}

int FlashImageDigitTable(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'A' && digit <= 'G') return digit - 'A' + 10;
  return -1;
}

const char *BitstreamNameTable(uint32_t id) {
  for (const BitstreamName &entry : kBitstreamNames) {
    if (entry.id == id) return entry.name;
  }
  return nullptr;
}

BoardModel ResolveBoardModel(BRYLDMADevice *device, const std::string &identity) {
  BoardModel model = ModelNameTable(identity);
  if (!IsWideFamily(model)) return model;
  // The identity names only the family; the board word names the model.
  switch ((Read(device, kRegBoardWord) >> 2) & 7) {
    case 7: return 4;
    case 6: return 3;
    case 5: return 2;
    default: return 0;
  }
}

uint32_t ReadLayoutVersion(BRYLDMADevice *device) {
  uint32_t layout = Read(device, kRegLayoutVersion);
  return layout == 0xFFFFFFFF ? 0 : layout;
}

BitstreamInfo DecodeBitstreamWord(uint32_t word) {
  BitstreamInfo info{};
  info.flags = word >> 24;
  info.id = (word >> 16) & 0xFF;
  info.major = (word >> 8) & 0xFF;
  info.minor = word & 0xFF;
  info.name = BitstreamNameTable(info.id);
  bool known = info.name != nullptr;
  if (!known) info.name = (info.flags & 0x80) ? "Factory test" : "Unknown";
  info.compatible =
      known && info.id == kCompatibleId && info.major == kCompatibleMajor && info.minor == kCompatibleMinor;
  return info;
}

const char *GetModelString(BRYLDMADevice *device) {
  static char buffer[kStringBufferSize];
  memset(buffer, 0, sizeof buffer);
  uint32_t word = Read(device, kRegModelIdentity);
  // A zero byte ends the text early, as "%c" writes it like any other.
  snprintf(buffer, sizeof buffer, "%c%c%c%c", static_cast<char>(word >> 24), static_cast<char>(word >> 16),
           static_cast<char>(word >> 8), static_cast<char>(word));
  return buffer;
}

const char *GetBoardDNA(BRYLDMADevice *device, bool withThirdWord, uint32_t layoutVersion) {
  static char buffer[kStringBufferSize];
  if (layoutVersion > 1) throw 1;
  memset(buffer, 0, sizeof buffer);
  bool layout1 = layoutVersion == 1;
  uint32_t word0 = Read(device, layout1 ? kRegDnaWord0Layout1 : kRegDnaWord0Layout0);
  uint32_t word1 = Read(device, layout1 ? kRegDnaWord1Layout1 : kRegDnaWord1Layout0);
  if (withThirdWord) {
    uint32_t word2 = Read(device, layout1 ? kRegDnaWord2Layout1 : kRegDnaWord2Layout0);
    snprintf(buffer, sizeof buffer, "%08x%08x%08x", word0, word1, word2);
  } else {
    snprintf(buffer, sizeof buffer, "%08x%08x", word0, word1);
  }
  return buffer;
}

const char *GetBoardWord(BRYLDMADevice *device, uint32_t layoutVersion) {
  static char buffer[kStringBufferSize];
  if (layoutVersion > 1) throw 1;
  memset(buffer, 0, sizeof buffer);
  snprintf(buffer, sizeof buffer, "%08x", Read(device, layoutVersion == 1 ? kRegBoardWordLayout1 : kRegBoardWord));
  return buffer;
}

const char *GetBitstreamVersionString(BRYLDMADevice *device) {
  static char buffer[kStringBufferSize];
  memset(buffer, 0, sizeof buffer);
  snprintf(buffer, sizeof buffer, "0x%08x", Read(device, kRegBitstream));
  return buffer;
}

bool SetIdentityLEDSetting(BRYLDMADevice *device, OmbryIdentityLEDSetting setting) {
  uint32_t word = Read(device, kRegClockControl);
  constexpr uint32_t both = kClockControlLed30 | kClockControlLed31;
  // The bit patterns are not the values' binary forms; all ones is off.
  switch (setting) {
    case OmbryIdentityLEDSettingOff: word |= both; break;
    case OmbryIdentityLEDSetting34: word &= ~both; break;
    case OmbryIdentityLEDSetting22: word = (word & ~both) | kClockControlLed31; break;
    case OmbryIdentityLEDSettingFast: word = (word & ~both) | kClockControlLed30; break;
    default: break;
  }
  return Write(device, kRegClockControl, word);
}

OmbryIdentityLEDSetting GetIdentityLEDSetting(BRYLDMADevice *device) {
  uint32_t word = Read(device, kRegClockControl);
  bool bit30 = word & kClockControlLed30;
  bool bit31 = word & kClockControlLed31;
  if (bit30 && bit31) return OmbryIdentityLEDSettingOff;
  if (bit31) return OmbryIdentityLEDSetting22;
  if (bit30) return OmbryIdentityLEDSettingFast;
  return OmbryIdentityLEDSetting34;
}

const char *IdentityLEDSettingName(OmbryIdentityLEDSetting setting) {
  switch (setting) {
    case OmbryIdentityLEDSettingOff: return "OmbryIdentityLEDSettingOff";
    case OmbryIdentityLEDSetting34: return "OmbryIdentityLEDSetting34";
    case OmbryIdentityLEDSetting22: return "OmbryIdentityLEDSetting22";
    case OmbryIdentityLEDSettingFast: return "OmbryIdentityLEDSettingFast";
    default: return "Unknown";
  }
}

void LogIdentityMode(BRYLDMADevice *device) {
  VL_LOG(VLLogLevelInfo, kTag, "Identity Mode: %s.", IdentityLEDSettingName(GetIdentityLEDSetting(device)));
}

double GetCoreTemperature(BRYLDMADevice *device, bool narrowFamily) {
  if (narrowFamily) {
    double raw = Read(device, kRegSysmonTemperature);
    return raw * 507.592131 / 65536.0 - 279.4265768;
  }
  double raw = Read(device, kRegXadcTemperature) >> 4;
  return raw * 503.975 / 4096.0 - 273.15;
}

double GetVccInt(BRYLDMADevice *device, bool narrowFamily) {
  double raw = Read(device, narrowFamily ? kRegSysmonVccInt : kRegXadcVccInt) >> 4;
  return raw * 3.0 / 4096.0;
}

double GetVccAux(BRYLDMADevice *device, bool narrowFamily) {
  double raw = Read(device, narrowFamily ? kRegSysmonVccAux : kRegXadcVccAux) >> 4;
  return raw * 3.0 / 4096.0;
}

uint64_t GetMmcmClockHz(BRYLDMADevice *device, uint64_t referenceHz, uint32_t base) {
  uint32_t feedback = Read(device, base + kMmcmFeedbackConfig);
  uint32_t output = Read(device, base + kMmcmOutputConfig);
  uint64_t f = FeedbackThousandths(feedback);
  uint64_t d = OutputThousandths(output);
  uint64_t v = InputDivider(feedback);
  // A failed board reads 0 here; it must not take the process (and with it
  // the other boards' ramp-down) away with a division fault.
  if (d == 0 || v == 0) {
    VL_LOG(VLLogLevelError, kTag, "MMCM divider read as 0 at 0x%04x, clock taken as 0 Hz", base);
    return 0;
  }
  return referenceHz * 1000 * f / d / v / 1000;
}

uint64_t SetMmcmClockHz(BRYLDMADevice *device, uint64_t referenceHz, uint32_t base, uint64_t targetHz,
                        uint8_t multiplier, bool wait) {
  uint32_t feedback = Read(device, base + kMmcmFeedbackConfig);
  uint32_t output = Read(device, base + kMmcmOutputConfig);
  if (multiplier != 0) feedback = (feedback & ~0xFF00u) | (static_cast<uint32_t>(multiplier) << 8);

  uint64_t n = referenceHz * 1000 * FeedbackThousandths(feedback);
  uint64_t v = InputDivider(feedback);
  if (v == 0) {
    VL_LOG(VLLogLevelError, kTag, "MMCM divider read as 0 at 0x%04x, clock taken as 0 Hz", base);
    return 0;
  }
  uint64_t d = targetHz != 0 ? n / targetHz / v / 1000 : kDividerSlowest;
  if (d > kDividerSlowest) d = kDividerSlowest;
  if (d == 0) d = 1;
  uint64_t reached = n / d / v / 1000;

  uint32_t whole = static_cast<uint32_t>(d / 1000);
  uint32_t fraction = static_cast<uint32_t>(d % 1000);
  output = (output & 0xFFFC0000u) | whole | ((fraction & 0xFF) << 8) | (((fraction >> 8) & 3) << 16);

  // A new setting is never written into an MMCM that is still busy.
  if (wait && !WaitWhileMmcmBusy(device, base)) return 0;
  if (multiplier != 0) Write(device, base + kMmcmFeedbackConfig, feedback);
  Write(device, base + kMmcmOutputConfig, output);
  Write(device, base + kMmcmLoad, kMmcmLoadApply);
  if (wait && !WaitWhileMmcmBusy(device, base)) return 0;
  return reached;
}

bool SetMmcmClockEnable(BRYLDMADevice *device, bool enable, uint32_t layoutVersion) {
  uint32_t address = ClockControlAddress(layoutVersion);
  uint32_t word = Read(device, address);
  word = enable ? word | kClockControlEnable : word & ~kClockControlEnable;
  return Write(device, address, word);
}

bool SetMmcmReset(BRYLDMADevice *device, bool inReset, uint32_t layoutVersion) {
  uint32_t address = ClockControlAddress(layoutVersion);
  uint32_t word = Read(device, address);
  // The bit holds the MMCM out of reset when set.
  word = inReset ? word & ~kClockControlOutOfReset : word | kClockControlOutOfReset;
  Write(device, address, word);
  return true;
}

uint64_t GetCoreCounter(BRYLDMADevice *device) {
  uint64_t low = Read(device, kRegCoreCounterLow);
  uint64_t high = Read(device, kRegCoreCounterHigh);
  return (high << 32) | low;
}

std::vector<std::string> ModelIdentities() {
  std::vector<std::string> identities;
  for (const ModelName &entry : kModelNames) identities.emplace_back(entry.identity);
  return identities;
}
