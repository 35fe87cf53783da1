#include "sim/config.h"

#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "sim/iic.h"
#include "sim/models.h"

namespace sim {

namespace {

constexpr uint32_t kDefaultModel = 7;

bool ParseUnsigned(const std::string &text, uint64_t *value) {
  if (text.empty() || text[0] == '-') return false;
  char *end = nullptr;
  errno = 0;
  *value = strtoull(text.c_str(), &end, 0);
  return errno == 0 && end && *end == '\0';
}

bool ParseU32(const std::string &text, uint32_t *value) {
  uint64_t wide;
  if (!ParseUnsigned(text, &wide) || wide > 0xFFFFFFFFull) return false;
  *value = static_cast<uint32_t>(wide);
  return true;
}

bool ParseHexWord(const std::string &text, uint32_t *value) {
  if (text.empty() || text.size() > 10) return false;
  std::string digits = text.rfind("0x", 0) == 0 ? text.substr(2) : text;
  if (digits.empty() || digits.size() > 8) return false;
  char *end = nullptr;
  *value = static_cast<uint32_t>(strtoul(digits.c_str(), &end, 16));
  return *end == '\0';
}

bool ParseDouble(const std::string &text, double *value) {
  if (text.empty()) return false;
  char *end = nullptr;
  *value = strtod(text.c_str(), &end);
  return *end == '\0';
}

bool ParseBool(const std::string &text, bool *value) {
  if (text == "1" || text == "on" || text == "yes") return *value = true, true;
  if (text == "0" || text == "off" || text == "no") return *value = false, true;
  return false;
}

std::vector<std::string> Split(const std::string &text, char separator) {
  std::vector<std::string> parts;
  std::string part;
  std::istringstream stream(text);
  while (std::getline(stream, part, separator)) parts.push_back(part);
  return parts;
}

bool Fail(std::string *error, const std::string &message) {
  if (error) *error = message;
  return false;
}

bool BadValue(std::string *error, const std::string &key, const std::string &value) {
  return Fail(error, "bad value for " + key + ": '" + value + "'");
}

uint32_t IdentityWord(const std::string &text) {
  uint32_t word = 0;
  for (char c : text) word = (word << 8) | static_cast<uint8_t>(c);
  return word;
}

void ApplyModel(FpgaSetup &fpga, const ModelInfo &info) {
  fpga.model = info.model;
  fpga.identityWord = IdentityWord(info.identity);
  fpga.wide = info.wide;
  fpga.modelBits = WideModelBits(info.model);
  fpga.cores = info.cores;
  fpga.referenceHz = info.referenceHz;
  fpga.multiplier = info.multiplier;
  fpga.coolLimitMHz = info.coolLimitMHz;
  fpga.thermal.vccintNominal = info.wide ? 1.0 : 0.85;
}

// A DNA that differs per card and sub-device, for boards that don't set one.
void DeriveDna(FpgaSetup &fpga, const std::string &name, uint32_t index) {
  uint64_t hash = 1469598103934665603ull;
  for (char c : name) hash = (hash ^ static_cast<uint8_t>(c)) * 1099511628211ull;
  fpga.dna[0] = static_cast<uint32_t>(hash >> 32) + index;
  fpga.dna[1] = static_cast<uint32_t>(hash);
  fpga.dna[2] = 0x00C0FFEEu ^ (index << 24);
}

std::string Trim(const std::string &text) {
  size_t begin = text.find_first_not_of(" \t\r\n");
  if (begin == std::string::npos) return {};
  size_t end = text.find_last_not_of(" \t\r\n");
  return text.substr(begin, end - begin + 1);
}

}  // namespace

CardSetup DefaultCard(const std::string &name) {
  CardSetup card;
  card.name = name;
  for (uint32_t i = 0; i < kMaxFpgas; i++) {
    ApplyModel(card.fpga[i], *FindModel(kDefaultModel));
    DeriveDna(card.fpga[i], name, i);
  }
  return card;
}

bool SplitTimedValue(const std::string &text, std::string *value, TimedSetting *timing, std::string *error) {
  size_t at = text.find('@');
  if (at == std::string::npos) return false;
  *value = text.substr(0, at);
  std::string trigger = text.substr(at + 1);
  double number = 0;
  bool seconds = !trigger.empty() && trigger.back() == 's';
  if (seconds) trigger.pop_back();
  if (!ParseDouble(trigger, &number) || number < 0) {
    if (error) *error = "bad trigger '@" + text.substr(at + 1) + "': a count of accesses, or seconds as 12s";
    *value = "";
    return true;
  }
  if (seconds) {
    timing->afterSeconds = number;
  } else {
    timing->afterAccesses = static_cast<uint64_t>(number);
  }
  return true;
}

bool ApplyRuntimeSetting(FpgaSetup &fpga, const std::string &key, const std::string &value, std::string *error) {
  Faults &faults = fpga.faults;
  ThermalModel &thermal = fpga.thermal;
  bool flag;
  double number;
  if (key == "short_read" || key == "short_write" || key == "write_fail") {
    if (!ParseBool(value, &flag)) return BadValue(error, key, value);
    if (key == "short_read") faults.shortRead = flag;
    if (key == "short_write") faults.shortWrite = flag;
    if (key == "write_fail") faults.writeFail = flag;
    return true;
  }
  if (key == "slow_read") {
    uint32_t micros;
    if (!ParseU32(value, &micros) || micros > 1000000) return BadValue(error, key, value);
    faults.slowReadMicros = micros;
    return true;
  }
  if (key == "sensor_glitch" || key == "max_clock") {
    if (!ParseDouble(value, &number) || number < 0.0 || (key == "sensor_glitch" && number > 1.0)) {
      return BadValue(error, key, value);
    }
    if (key == "sensor_glitch") faults.sensorGlitch = number;
    if (key == "max_clock") fpga.maxClockMHz = number;
    return true;
  }
  if (key == "read_fail" || key == "read_error" || key == "all_ones" || key == "mmcm_stuck" || key == "flash_stuck" ||
      key == "erase_error" || key == "program_error" || key == "worn") {
    if (!ParseBool(value, &flag)) return BadValue(error, key, value);
    if (key == "read_fail") faults.readFail = flag;
    if (key == "read_error") faults.readError = flag;
    if (key == "all_ones") faults.allOnes = flag;
    if (key == "mmcm_stuck") faults.mmcmStuck = flag;
    if (key == "flash_stuck") faults.flashStuck = flag;
    if (key == "erase_error") faults.eraseError = flag;
    if (key == "program_error") faults.programError = flag;
    if (key == "worn") faults.wornCells = flag;
    return true;
  }
  if (key == "hot" || key == "vrm_hot") {
    std::optional<double> &target = key == "hot" ? faults.coreTemperature : faults.vrmTemperature;
    if (value == "off") return target.reset(), true;
    if (!ParseDouble(value, &number)) return BadValue(error, key, value);
    target = number;
    return true;
  }
  if (key == "invalid_nonces") {
    if (ParseBool(value, &flag)) return faults.invalidNonces = flag ? 1.0 : 0.0, true;
    if (!ParseDouble(value, &number) || !(number >= 0.0 && number <= 1.0)) return BadValue(error, key, value);
    faults.invalidNonces = number;
    return true;
  }
  if (key == "ones_nonces") {
    if (!ParseBool(value, &flag)) return BadValue(error, key, value);
    faults.onesNonces = flag;
    return true;
  }
  if (key == "ratecap") {
    if (value == "off") return fpga.search.rateCapMHs = 0.0, true;
    if (!ParseDouble(value, &number) || !(number >= 0.0 && number < 1e9)) return BadValue(error, key, value);
    fpga.search.rateCapMHs = number;
    return true;
  }
  if (key == "skew") {
    uint32_t skew;
    if (value == "auto") return fpga.search.skew = -1, true;
    if (!ParseU32(value, &skew) || skew > 1000) return BadValue(error, key, value);
    fpga.search.skew = static_cast<int>(skew);
    return true;
  }
  if (key.rfind("i2c_", 0) == 0) return ApplyI2cSetting(fpga, key, value, error);
  if (key == "faults") {
    if (value != "none") return BadValue(error, key, value);
    faults = Faults{};
    return true;
  }
  double *field = key == "sag"       ? &faults.vccintSag
                  : key == "ambient" ? &thermal.ambient
                  : key == "heat"    ? &thermal.coreHeat
                  : key == "vrmheat" ? &thermal.vrmHeat
                  : key == "lag"     ? &thermal.lagSeconds
                  : key == "vccint"  ? &thermal.vccintNominal
                  : key == "sagrate" ? &thermal.vccintSagRate
                  : key == "vccaux"  ? &thermal.vccaux
                                     : nullptr;
  if (!field) return Fail(error, "unknown setting: " + key);
  if (!ParseDouble(value, &number)) return BadValue(error, key, value);
  if (key == "lag" && number < 0) return BadValue(error, key, value);
  *field = number;
  return true;
}

bool ApplyFpgaSetting(FpgaSetup &fpga, const std::string &key, const std::string &value, std::string *error) {
  uint32_t number = 0;
  if (key == "model") {
    const ModelInfo *info = ParseU32(value, &number) ? FindModel(number) : nullptr;
    if (!info) return BadValue(error, key, value);
    ApplyModel(fpga, *info);
    return true;
  }
  if (key == "identity") {
    uint32_t word;
    if (value.size() == 4) {
      std::string text = value;
      for (char &c : text) c = c == '_' ? ' ' : c;
      // A known identity brings its model's family, cores and clock along.
      if (const ModelInfo *info = FindModel(ModelOfIdentity(text))) ApplyModel(fpga, *info);
      word = IdentityWord(text);
    } else if (value.rfind("0x", 0) != 0 || !ParseHexWord(value, &word)) {
      return BadValue(error, key, value);
    }
    fpga.identityWord = word;
    return true;
  }
  if (key == "dna") {
    auto words = Split(value, ',');
    if (words.size() < 2 || words.size() > 3) return BadValue(error, key, value);
    uint32_t dna[3] = {};
    for (size_t i = 0; i < words.size(); i++) {
      if (!ParseHexWord(words[i], &dna[i])) return BadValue(error, key, value);
    }
    for (size_t i = 0; i < 3; i++) fpga.dna[i] = dna[i];
    fpga.dnaSet = true;
    return true;
  }
  if (key == "bitstream" || key == "boardword") {
    if (!ParseHexWord(value, &number)) return BadValue(error, key, value);
    (key == "bitstream" ? fpga.bitstream : fpga.boardWord) = number;
    return true;
  }
  if (key == "flags" || key == "id" || key == "major" || key == "minor") {
    if (!ParseU32(value, &number) || number > 0xFF) return BadValue(error, key, value);
    int shift = key == "flags" ? 24 : key == "id" ? 16 : key == "major" ? 8 : 0;
    fpga.bitstream = (fpga.bitstream & ~(0xFFu << shift)) | (number << shift);
    return true;
  }
  if (key == "modelbits") {
    if (!ParseU32(value, &number) || number > 7) return BadValue(error, key, value);
    fpga.modelBits = number;
    return true;
  }
  if (key == "layout" || key == "cores" || key == "mult" || key == "divclk") {
    if (!ParseU32(value, &number)) return BadValue(error, key, value);
    if (key == "mult" && number > 0xFF) return BadValue(error, key, value);
    if (key == "divclk" && number > 0xFF) return BadValue(error, key, value);
    (key == "layout"  ? fpga.layout
     : key == "cores" ? fpga.cores
     : key == "mult"  ? fpga.multiplier
                      : fpga.inputDivider) = number;
    return true;
  }
  if (key == "flash" || key == "ckb_image") {
    if (value.empty()) return BadValue(error, key, value);
    (key == "flash" ? fpga.flash.file : fpga.flash.ckbImage) = value;
    return true;
  }
  if (key == "flash_size") {
    uint64_t bytes;
    // Whole sectors, and within the 4-byte address range.
    if (!ParseUnsigned(value, &bytes) || bytes == 0 || bytes % 65536 != 0 || bytes > (1ull << 32)) {
      return BadValue(error, key, value);
    }
    fpga.flash.size = bytes;
    return true;
  }
  if (key == "erase_busy" || key == "program_busy") {
    if (!ParseU32(value, &number)) return BadValue(error, key, value);
    (key == "erase_busy" ? fpga.flash.eraseBusyPolls : fpga.flash.programBusyPolls) = number;
    return true;
  }
  if (key == "engine") {
    if (value == "own")
      fpga.search.engine = SearchEngine::Own;
    else if (value == "shared")
      fpga.search.engine = SearchEngine::Shared;
    else if (value == "off")
      fpga.search.engine = SearchEngine::Off;
    else
      return BadValue(error, key, value);
    return true;
  }
  if (key == "refclock") {
    uint64_t hz;
    if (!ParseUnsigned(value, &hz)) return BadValue(error, key, value);
    fpga.referenceHz = hz;
    return true;
  }
  return ApplyRuntimeSetting(fpga, key, value, error);
}

bool ApplyCardSetting(CardSetup &card, const std::string &key, const std::string &value, std::string *error) {
  bool flag;
  uint32_t number;
  if (key == "user" || key == "streaming") {
    if (!ParseBool(value, &flag)) return BadValue(error, key, value);
    (key == "user" ? card.userFile : card.streaming) = flag;
    return true;
  }
  if (key == "dma") {
    if (value == "both")
      card.h2c = card.c2h = true;
    else if (value == "none")
      card.h2c = card.c2h = false;
    else if (value == "h2c")
      card.h2c = true, card.c2h = false;
    else if (value == "c2h")
      card.h2c = false, card.c2h = true;
    else
      return BadValue(error, key, value);
    return true;
  }
  if (key == "channels") {
    if (!ParseU32(value, &number) || number > 4) return BadValue(error, key, value);
    card.channels = number;
    return true;
  }
  if (key == "subdevices") {
    uint32_t mask = 0;
    if (value != "none") {
      for (const std::string &part : Split(value, ',')) {
        if (!ParseU32(part, &number) || number < 1 || number >= kMaxFpgas) return BadValue(error, key, value);
        mask |= 1u << number;
      }
    }
    card.subDevices = mask;
    return true;
  }
  return ApplyFpgaSetting(card.fpga[0], key, value, error);
}

bool ParseCommand(const std::string &line, Command *command, std::string *error) {
  std::istringstream stream(line);
  std::string target;
  if (!(stream >> target)) return Fail(error, "empty command");
  *command = Command{};
  size_t dot = target.find('.');
  command->card = target.substr(0, dot);
  if (command->card.empty()) return Fail(error, "no board named in '" + target + "'");
  if (dot != std::string::npos) {
    uint32_t index;
    if (!ParseU32(target.substr(dot + 1), &index) || index < 1 || index >= kMaxFpgas) {
      return Fail(error, "bad sub-device in '" + target + "'");
    }
    command->fpga = index;
  }
  std::string word;
  while (stream >> word) {
    size_t equals = word.find('=');
    if (equals == std::string::npos || equals == 0) return Fail(error, "expected key=value, got '" + word + "'");
    command->settings.emplace_back(word.substr(0, equals), word.substr(equals + 1));
  }
  return true;
}

namespace {

// A "key=value@trigger" setting is checked now and kept for the card to apply
// later. True when the setting was such; `ok` tells whether it was good.
bool DeferTimed(CardSetup &card, uint32_t fpga, const std::string &key, const std::string &value, bool *ok,
                std::string *message) {
  TimedSetting timing;
  std::string plain;
  if (!SplitTimedValue(value, &plain, &timing, message)) return false;
  FpgaSetup probe = card.fpga[fpga];
  *ok = !plain.empty() && ApplyRuntimeSetting(probe, key, plain, message);
  timing.fpga = fpga;
  timing.key = key;
  timing.value = plain;
  if (*ok) card.timed.push_back(timing);
  return true;
}

}  // namespace

std::optional<std::vector<CardSetup>> ParseBoardList(const std::string &text, std::string *error) {
  std::vector<CardSetup> cards;
  std::vector<std::pair<int, Command>> subDeviceLines;
  auto findCard = [&cards](const std::string &name) -> CardSetup * {
    for (CardSetup &card : cards) {
      if (card.name == name) return &card;
    }
    return nullptr;
  };
  int lineNumber = 0;
  for (const std::string &raw : Split(text, '\n')) {
    lineNumber++;
    std::string line = Trim(raw.substr(0, raw.find('#')));
    if (line.empty()) continue;
    Command command;
    std::string message;
    if (!ParseCommand(line, &command, &message)) {
      Fail(error, "line " + std::to_string(lineNumber) + ": " + message);
      return std::nullopt;
    }
    if (command.fpga != 0) {
      subDeviceLines.emplace_back(lineNumber, std::move(command));
      continue;
    }
    CardSetup *card = findCard(command.card);
    if (!card) card = &cards.emplace_back(DefaultCard(command.card));
    for (const auto &[key, value] : command.settings) {
      bool ok = true;
      if (!DeferTimed(*card, 0, key, value, &ok, &message)) ok = ApplyCardSetting(*card, key, value, &message);
      if (!ok) {
        Fail(error, "line " + std::to_string(lineNumber) + ": " + message);
        return std::nullopt;
      }
    }
  }
  // Sub-devices start as copies of their primary, each with its own DNA.
  for (CardSetup &card : cards) {
    for (uint32_t i = 1; i < kMaxFpgas; i++) {
      card.fpga[i] = card.fpga[0];
      if (card.fpga[0].dnaSet)
        card.fpga[i].dna[0] += i;
      else
        DeriveDna(card.fpga[i], card.name, i);
      // Each FPGA has its own flash chip, so its own contents file. Appended
      // in two steps: g++ 12 at -O3 sees a false overlap in "." + number.
      if (!card.fpga[i].flash.file.empty()) {
        card.fpga[i].flash.file += '.';
        card.fpga[i].flash.file += std::to_string(i);
      }
    }
  }
  for (auto &[lineNumber, command] : subDeviceLines) {
    CardSetup *card = findCard(command.card);
    std::string where = "line " + std::to_string(lineNumber) + ": ";
    if (!card) {
      Fail(error, where + "no board " + command.card);
      return std::nullopt;
    }
    if (!(card->subDevices & (1u << command.fpga))) {
      Fail(error, where + command.card + " has no sub-device " + std::to_string(command.fpga));
      return std::nullopt;
    }
    std::string message;
    for (const auto &[key, value] : command.settings) {
      bool ok = true;
      if (!DeferTimed(*card, command.fpga, key, value, &ok, &message)) {
        ok = ApplyFpgaSetting(card->fpga[command.fpga], key, value, &message);
      }
      if (!ok) {
        Fail(error, where + message);
        return std::nullopt;
      }
    }
  }
  return cards;
}

}  // namespace sim
