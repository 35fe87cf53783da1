// Whatever a settings file holds: it is taken or refused with a reason that
// names the file, and what it gives is only positions 1 to 7 and options that
// take a value (one value unless the option repeats). Each value then goes
// through its option's own check, as the command line does with it.
#include <cstdint>
#include <string>

#include "fuzz_check.h"
#include "shell/config_file.h"
#include "shell/options.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string text(reinterpret_cast<const char *>(data), size);
  ConfigFileSettings settings;
  std::string error;
  bool taken = ReadConfigText(text, "farm.json", settings, error);
  Check(taken == error.empty());
  if (!taken) {
    Check(error.rfind("settings file farm.json", 0) == 0);
    return 0;
  }
  for (const auto &[position, word] : settings.positional) Check(position >= 1 && position <= 7);
  CommandLine line;
  for (const auto &[name, values] : settings.options) {
    const CommandLineOption *option = FindCommandLineOption(name);
    Check(option != nullptr && option->valueName != nullptr && name != "config");
    Check(option->repeatable || values.size() == 1);
    for (const std::string &value : values) {
      std::string why;
      if (!option->apply(line, value, why)) Check(!why.empty());
    }
  }
  return 0;
}
