#include "shell/command_line.h"

#include <fmt/format.h>

#include <set>

#include "foundation/build_info.h"
#include "hash/eaglesong_lanes.h"
#include "shell/config_file.h"
#include "stratum/pool_endpoint.h"

namespace {

// The pool host of a mining run may be a URL; a bad one ends the run before
// anything starts.
bool CheckPoolWord(const CommandLine &line, std::string &error) {
  if (line.positional.size() < 6 || !LooksLikePoolUrl(line.positional[2])) return true;
  PoolEndpoint scratch;
  scratch.port = 1;
  if (ParsePoolUrl(line.positional[2], scratch, error)) return true;
  error = "pool host: " + error;
  return false;
}

}  // namespace

bool ParseCommandLine(int argc, char **argv, CommandLine &line, std::string &error) {
  line.positional.assign(argv, argv + (argc > 0 ? 1 : 0));
  std::set<std::string> given;
  for (int i = 1; i < argc; i++) {
    std::string word = argv[i];
    if (word.rfind("--", 0) != 0) {
      line.positional.push_back(word);
      continue;
    }
    std::string name = word.substr(2);
    std::string value;
    bool inlineValue = false;
    if (size_t equals = name.find('='); equals != std::string::npos) {
      value = name.substr(equals + 1);
      name.resize(equals);
      inlineValue = true;
    }
    const CommandLineOption *option = FindCommandLineOption(name);
    if (option == nullptr) {
      error = "unknown option --" + name + " (--help lists them)";
      return false;
    }
    if (option->valueName == nullptr && inlineValue) {
      error = "option --" + name + " takes no value";
      return false;
    }
    if (option->valueName != nullptr && !inlineValue) {
      if (i + 1 >= argc) {
        error = "option --" + name + " needs a value (" + option->valueName + ")";
        return false;
      }
      value = argv[++i];
    }
    std::string why;
    if (!option->apply(line, value, why)) {
      error = fmt::format("option --{} '{}': {}", name, value, why);
      return false;
    }
    given.insert(name);
  }
  if (line.configFile.empty()) return CheckPoolWord(line, error);

  // The settings file fills in what the command line leaves out.
  ConfigFileSettings settings;
  if (!ReadConfigFile(line.configFile, settings, error)) return false;
  for (const auto &[name, values] : settings.options) {
    if (given.count(name) != 0) continue;
    const CommandLineOption *option = FindCommandLineOption(name);
    for (const std::string &value : values) {
      std::string why;
      if (!option->apply(line, value, why)) {
        error = fmt::format("settings file {}, key '{}' '{}': {}", line.configFile, name, value, why);
        return false;
      }
    }
  }
  if (!settings.positional.empty()) {
    size_t last = static_cast<size_t>(settings.positional.rbegin()->first);
    for (size_t position = line.positional.size(); position <= last; position++) {
      auto entry = settings.positional.find(static_cast<int>(position));
      // A gap before a later word: no forced clock is written as 0.
      line.positional.push_back(entry != settings.positional.end() ? entry->second : "0");
    }
  }
  return CheckPoolWord(line, error);
}

void PrintUsage(FILE *out) {
  fprintf(out,
          "Usage: ombry-miner <algorithm> <pool host> <pool port> <wallet> <password> [clock MHz] [device] "
          "[options]\n"
          "   or: ombry-miner recovery | dump [options]\n"
          "\n"
          "Positional arguments:\n"
          "  algorithm   ckb; or recovery (flash boards, mine nothing) or dump (do nothing)\n"
          "  pool host   the Stratum pool's name or address\n"
          "  pool port   the pool's TCP port\n"
          "  wallet      the account to mine for (wallet.rig)\n"
          "  password    the pool password, often x\n"
          "  clock MHz   optional: a fixed clock for every board\n"
          "  device      optional: one device path; only that board is used\n"
          "\n"
          "Options are --name value or --name=value and may stand anywhere on the line.\n"
          "\n"
          "Options:\n");
  // Two spaces part an option from its help, or the help goes on the next
  // line: the manual page is made from this text and needs the gap.
  constexpr int kColumn = 26;
  for (const CommandLineOption &option : CommandLineOptions()) {
    std::string left = std::string("--") + option.name;
    if (option.valueName != nullptr) left += std::string(" ") + option.valueName;
    if (left.size() < kColumn) {
      fprintf(out, "  %-*s %s\n", kColumn, left.c_str(), option.help);
    } else {
      fprintf(out, "  %s\n  %-*s %s\n", left.c_str(), kColumn, "", option.help);
    }
  }
  fprintf(out,
          "\n"
          "Environment:\n"
          "  OMBRY_DEVICE_DIR   where to look for the boards' device nodes (default /dev)\n"
          "  VL_LOG_TRACE       any value: log everything\n"
          "  NO_COLOR           any value: no colour codes, even on a terminal\n"
          "  CLICOLOR_FORCE     1: colour codes even into a pipe or file\n"
          "\n"
          "Exit codes:\n"
          "  0  a normal end, a dump run, a recovery run, --help, --version\n"
          "  1  bad or too few arguments, a log file that cannot be opened, a missing bitstreams/ folder,\n"
          "     no board ready, an unknown algorithm, a watchdog termination\n");
}

void PrintVersion(FILE *out) {
  fprintf(out, "ombry-miner %s\n", OmbryVersion());
  fprintf(out, "commit %s, %s, %s build\n", OmbryBuildCommit(), OmbryBuildCompiler(), OmbryBuildType());
  fprintf(out, "Eaglesong search: %s (compiled in: %s)\n",
          EaglesongLanePathName(EaglesongLanePathResolve(EaglesongLanePath::Auto)), EaglesongLanePathsCompiled());
}
