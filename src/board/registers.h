// What a board looks like to the host: the register map, the identity of a
// board and its bitstream, sensor conversions, and the MMCM clock. Every value
// read from a board may be 0 (a failed read), and these operations take that
// into account only where a division would otherwise fault.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "board/dma_device.h"

using BoardModel = uint32_t;  // 0: not a supported model

// Register addresses, relative to an FPGA's own window.
constexpr uint32_t kRegModelIdentity = 0x0000;  // four ASCII characters, most significant first
constexpr uint32_t kRegLayoutVersion = 0x0004;  // 0 or 1; all ones on old bitstreams means 0
constexpr uint32_t kRegBitstream = 0x0008;      // flags, id, major, minor
constexpr uint32_t kRegDnaWord2Layout1 = 0x000C;
constexpr uint32_t kRegDnaWord1Layout1 = 0x0010;
constexpr uint32_t kRegDnaWord0Layout1 = 0x0014;
constexpr uint32_t kRegBoardWordLayout1 = 0x0018;
constexpr uint32_t kRegSubDevicePresence = 0x0020;  // models 8 and 9
constexpr uint32_t kRegClockControlLayout1 = 0x004C;
constexpr uint32_t kRegSubDeviceProbe = 0x0050;  // written 1 before each presence read
constexpr uint32_t kRegDnaWord0Layout0 = 0x1000;
constexpr uint32_t kRegDnaWord1Layout0 = 0x1008;
constexpr uint32_t kRegBoardWord = 0x2000;     // bits 4 to 2: the wide family's exact model
constexpr uint32_t kRegClockControl = 0x2008;  // clock bits in layout 0; the LED bits in both layouts
constexpr uint32_t kRegXadcTemperature = 0x3200;
constexpr uint32_t kRegXadcVccInt = 0x3204;
constexpr uint32_t kRegXadcVccAux = 0x3208;
constexpr uint32_t kRegXadcAux6 = 0x3258;  // regulator temperature on the wide family
constexpr uint32_t kRegXadcConfig0 = 0x3300;
constexpr uint32_t kRegXadcSequencer = 0x3324;
constexpr uint32_t kRegSysmonTemperature = 0x3400;
constexpr uint32_t kRegSysmonVccInt = 0x3404;
constexpr uint32_t kRegSysmonVccAux = 0x3408;
constexpr uint32_t kRegCoreCounterLow = 0x41DC;
constexpr uint32_t kRegCoreCounterHigh = 0x41E0;
constexpr uint32_t kRegMmcmBase = 0x6000;
constexpr uint32_t kRegDnaWord2Layout0 = 0x7000;
constexpr uint32_t kRegI2CBase = 0x9000;
constexpr uint32_t kRegSpiBase = 0x10000;

// Bits of the clock control register.
constexpr uint32_t kClockControlEnable = 1u << 0;
constexpr uint32_t kClockControlOutOfReset = 1u << 1;
constexpr uint32_t kClockControlLed30 = 1u << 30;
constexpr uint32_t kClockControlLed31 = 1u << 31;

// XADC set-up at worker start: auxiliary channel 6 in the sequence, full averaging.
constexpr uint32_t kXadcSequencerAux6 = 1u << 6;
constexpr uint32_t kXadcConfig0Averaging = 0x3000;

// Offsets in the MMCM block.
constexpr uint32_t kMmcmStatus = 0x004;
constexpr uint32_t kMmcmFeedbackConfig = 0x200;
constexpr uint32_t kMmcmOutputConfig = 0x208;
constexpr uint32_t kMmcmLoad = 0x25C;
constexpr uint32_t kMmcmLoadApply = 3;
constexpr uint32_t kMmcmLoadBusy = 1;

// One group of hash cores and its register block.
struct JobSlot {
  uint32_t base = 0;
  uint8_t nonceBlock[16] = {};
  uint32_t jobNonceWord = 0;
};
// Slots 0 and 1 lie at 0x4000 and 0x5000; from slot 2 on, the MMCM block at
// 0x6000 is stepped over.
constexpr uint32_t JobSlotBase(uint32_t index) { return index < 2 ? (index + 4) << 12 : (index + 5) << 12; }

// Offsets in a hash core block.
constexpr uint32_t kSlotNonceBlock = 0x00;  // four words, word i at +4i
constexpr uint32_t kSlotMidstate = 0x24;    // sixteen words
constexpr uint32_t kSlotClear = 0x64;       // written 0 at each job load
constexpr uint32_t kSlotControl = 0x6C;     // hold bit, result flags in bits 15 to 12
constexpr uint32_t kSlotResultBase = 0x7C;  // result slot i at +0x7C - 4i
constexpr uint32_t kSlotTargetHigh = 0x80;
constexpr uint32_t kSlotTargetLow = 0x84;
constexpr uint32_t kSlotHold = 0x10000;
constexpr uint32_t kSlotFlagsMask = 0xF000;
constexpr uint32_t SlotResultOffset(uint32_t index) { return kSlotResultBase - 4 * index; }

bool IsWideFamily(BoardModel model);
bool IsNarrowFamily(BoardModel model);

// The static tables.
// Identity text (four characters, spaces included) to model; 0 when unknown.
BoardModel ModelNameTable(const std::string &identity);
// Directory name used in place of the identity for bitstreams; null when none.
const char *ModelDirectoryAliasTable(BoardModel model);
// "0" to "9" and "A" to "G" to 0 to 16; -1 for any other character.
int FlashImageDigitTable(char digit);
// The bitstream's name, or null when the id is not in the table.
const char *BitstreamNameTable(uint32_t id);

// The model of a board from its identity text: the table, then for the wide
// family the exact model from bits 4 to 2 of the board word at 0x2000.
BoardModel ResolveBoardModel(BRYLDMADevice *device, const std::string &identity);
// Register 0x0004, with all ones read as 0.
uint32_t ReadLayoutVersion(BRYLDMADevice *device);

// The bitstream word at 0x0008, taken apart.
struct BitstreamInfo {
  uint32_t flags;
  uint32_t id;
  uint32_t major;
  uint32_t minor;
  const char *name;  // "Factory test" or "Unknown" for an id not in the table
  bool compatible;   // exactly "CKB" 0.004
};
BitstreamInfo DecodeBitstreamWord(uint32_t word);

// The string results point into one static buffer per operation, rewritten at
// each call: copy before calling the same operation again. Only the scan
// calls them.
const char *GetModelString(BRYLDMADevice *device);
// Throws the integer 1 for a layout version above 1.
const char *GetBoardDNA(BRYLDMADevice *device, bool withThirdWord, uint32_t layoutVersion);
const char *GetBoardWord(BRYLDMADevice *device, uint32_t layoutVersion);
const char *GetBitstreamVersionString(BRYLDMADevice *device);

enum OmbryIdentityLEDSetting : uint32_t {
  OmbryIdentityLEDSettingOff = 0,
  OmbryIdentityLEDSetting34 = 1,
  OmbryIdentityLEDSetting22 = 2,
  OmbryIdentityLEDSettingFast = 3,
};
bool SetIdentityLEDSetting(BRYLDMADevice *device, OmbryIdentityLEDSetting setting);
OmbryIdentityLEDSetting GetIdentityLEDSetting(BRYLDMADevice *device);
const char *IdentityLEDSettingName(OmbryIdentityLEDSetting setting);
void LogIdentityMode(BRYLDMADevice *device);

// Sensors, in degrees Celsius and volts.
double GetCoreTemperature(BRYLDMADevice *device, bool narrowFamily);
double GetVccInt(BRYLDMADevice *device, bool narrowFamily);
double GetVccAux(BRYLDMADevice *device, bool narrowFamily);

// The MMCM output clock for a reference clock, in Hz. A divider read as 0
// (a failed board) is logged and gives 0 rather than a division fault.
uint64_t GetMmcmClockHz(BRYLDMADevice *device, uint64_t referenceHz, uint32_t base);
// Sets the output divider for `targetHz` (0: the lowest clock) and, with a
// non-zero multiplier, the feedback multiplier. Returns the frequency reached.
// With `wait`, polls the load register's busy bit before and after, without a
// time limit.
uint64_t SetMmcmClockHz(BRYLDMADevice *device, uint64_t referenceHz, uint32_t base, uint64_t targetHz,
                        uint8_t multiplier, bool wait);
// Both throw the integer 1 for a layout version above 1.
bool SetMmcmClockEnable(BRYLDMADevice *device, bool enable, uint32_t layoutVersion);
bool SetMmcmReset(BRYLDMADevice *device, bool inReset, uint32_t layoutVersion);

// The 64-bit counter, low word first; a carry between the reads is not guarded.
uint64_t GetCoreCounter(BRYLDMADevice *device);

// Every identity text of ModelNameTable, in table order, for walks over all
// models (the flash catalogue).
std::vector<std::string> ModelIdentities();
