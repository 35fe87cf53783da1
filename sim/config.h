// What a simulated board is: its files, its FPGAs and their identity, its
// thermal behaviour and its faults, and the small text format that describes
// a list of boards and changes faults while they run.
//
//   # one line per board; later keys override earlier ones
//   xdma0 model=7 layout=1 bitstream=0x000C0004
//   xdma1 model=9 subdevices=1,2,3 dna=01234567,89abcdef,00c0ffee
//   xdma1.2 bitstream=0x000C0005          # sub-device 2 of xdma1
//   xdma2 identity=215_ modelbits=3 user=0 # '_' stands for a space
//   xdma3 bitstream=0x00FF0001 flash=/tmp/xdma3.flash ckb_image=ckb.bin
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sim {

constexpr uint32_t kMaxFpgas = 4;  // the primary and sub-devices 1 to 3

// Faults on a board's I2C bus (the controller at 0x9000).
struct I2cFaults {
  bool busStuck = false;                   // another party holds the bus busy for good
  std::vector<uint32_t> noAcknowledge;     // 7-bit addresses that don't acknowledge
  uint32_t loseArbitration = 0;            // starts still to lose during their address
  std::map<uint32_t, double> temperature;  // forced sensor readings by 7-bit address
};

struct Faults {
  bool readFail = false;                  // reads transfer 0 bytes
  bool readError = false;                 // reads fail with EIO
  bool allOnes = false;                   // reads return all ones: fallen off the bus
  std::optional<double> coreTemperature;  // forced, degrees Celsius
  std::optional<double> vrmTemperature;   // forced, degrees Celsius
  double vccintSag = 0.0;                 // volts taken off VCCINT on top of the load sag
  bool mmcmStuck = false;                 // the MMCM load register stays busy
  I2cFaults i2c;
  bool flashStuck = false;    // the flash chip reads busy for ever
  bool eraseError = false;    // a sector erase sets the erase error bit
  bool programError = false;  // a page program sets the program error bit
  bool wornCells = false;     // a page program leaves its last byte as it was, with no error bit
  // The hash core's reports: this share of them (0 to 1) replaced by values
  // that no core found, or every one of them reported as all ones.
  double invalidNonces = 0.0;
  bool onesNonces = false;
  // The transport: reads and writes that move fewer bytes than asked, writes
  // that fail and change nothing, reads that take this long each.
  bool shortRead = false;
  bool shortWrite = false;
  bool writeFail = false;
  uint32_t slowReadMicros = 0;
  // This share (0 to 1) of sensor reads gives a single wild value.
  double sensorGlitch = 0.0;
};

// A setting that takes effect later: after this many more register accesses
// to its card, or this many seconds.
struct TimedSetting {
  uint32_t fpga = 0;
  std::string key;
  std::string value;
  uint64_t afterAccesses = 0;
  double afterSeconds = 0.0;
};

// Splits "value@N" or "value@Ts" into the value and its trigger; false for a
// value without '@'. `error` is set for a bad trigger.
bool SplitTimedValue(const std::string &text, std::string *value, TimedSetting *timing, std::string *error);

// The configuration flash behind the SPI controller at 0x10000.
struct FlashChipSetup {
  std::string file;               // contents, kept across restarts; empty: memory only
  uint64_t size = 32ull << 20;    // bytes
  std::string ckbImage;           // an image that, at the boot address, comes up as CKB 0.004
  uint32_t eraseBusyPolls = 6;    // status reads that a sector erase stays busy for
  uint32_t programBusyPolls = 2;  // the same for a page program
};

// How the hash core's search runs: on a thread of its own, on the one thread
// shared by all boards that ask for it, or not at all.
enum class SearchEngine { Own, Shared, Off };

struct SearchSetup {
  SearchEngine engine = SearchEngine::Own;
  double rateCapMHs = 0.0;  // hashes per second in millions, 0 for as fast as the machine goes
  int skew = -1;            // largest skew of a report either way; -1 for the core count's default
};

struct ThermalModel {
  double ambient = 35.0;         // degrees Celsius with the clock stopped
  double coreHeat = 5.0;         // degrees per GHz of clock times cores
  double vrmHeat = 7.0;          // the same for the regulator
  double lagSeconds = 3.0;       // time constant; 0 follows the load at once
  double vccintNominal = 0.85;   // volts, unloaded
  double vccintSagRate = 0.005;  // volts per GHz of clock times cores
  double vccaux = 1.8;
};

struct FpgaSetup {
  // The highest clock that gives correct nonces, in MHz; 0: from the model,
  // the core temperature and VCCINT.
  double maxClockMHz = 0.0;
  double coolLimitMHz = 250.0;  // the model's limit when cool, at nominal VCCINT
  uint32_t model = 0;
  uint32_t identityWord = 0;  // register 0x0000
  bool wide = false;          // XADC family rather than SYSMON
  uint32_t modelBits = 0;     // bits 4 to 2 of 0x2000 on the wide family
  uint32_t layout = 1;        // register 0x0004 as read
  uint32_t bitstream = 0x000C0004;
  uint32_t dna[3] = {};
  bool dnaSet = false;
  uint32_t boardWord = 0;
  uint32_t cores = 1;
  uint64_t referenceHz = 0;
  uint32_t multiplier = 0;  // MMCM feedback multiplier at power-on
  uint32_t inputDivider = 1;
  ThermalModel thermal;
  uint32_t i2cByteTicks = 16;  // controller accesses per I2C byte; 0: no time at all
  Faults faults;
  FlashChipSetup flash;
  SearchSetup search;
};

struct CardSetup {
  std::string name;  // the node prefix, e.g. "xdma0"
  bool userFile = true;
  bool h2c = true;
  bool c2h = true;
  uint32_t channels = 1;
  bool streaming = false;
  uint32_t subDevices = 0;  // bit k set: sub-device k present, k of 1 to 3
  FpgaSetup fpga[kMaxFpgas];
  std::vector<TimedSetting> timed;  // from the board list, counted from the card's start
};

// A card named `name` with the default model and everything derived from it.
CardSetup DefaultCard(const std::string &name);

// One "key=value". Each returns false with a message for an unknown key or a
// bad value. Fault and thermal keys are the ones that may change at run time.
bool ApplyCardSetting(CardSetup &card, const std::string &key, const std::string &value, std::string *error);
bool ApplyFpgaSetting(FpgaSetup &fpga, const std::string &key, const std::string &value, std::string *error);
bool ApplyRuntimeSetting(FpgaSetup &fpga, const std::string &key, const std::string &value, std::string *error);

// "xdma0 key=value ..." or "xdma0.2 key=value ...".
struct Command {
  std::string card;
  uint32_t fpga = 0;
  std::vector<std::pair<std::string, std::string>> settings;
};
bool ParseCommand(const std::string &line, Command *command, std::string *error);

// A whole board list; comments start with '#'. Sub-device lines apply after
// their card's own lines, on a copy of the primary with its own DNA.
std::optional<std::vector<CardSetup>> ParseBoardList(const std::string &text, std::string *error);

}  // namespace sim
