// The option table: every --option the miner takes, its help line and how its
// value is checked and stored. The command line and the settings file both
// read options through it, so an option exists in both or in neither.
#pragma once

#include <string>
#include <vector>

#include "rig/run_options.h"

struct CommandLine {
  // The program name followed by the positional words, in order.
  std::vector<std::string> positional;
  // The settings file named by --config, if any.
  std::string configFile;
  RunOptions options;
  bool showHelp = false;
  bool showVersion = false;
};

// One option: its name without the dashes, the name of its value (null for
// a flag), the line of help, and how its value is taken. `apply` returns
// false with `error` set for a value it refuses. A repeatable option adds a
// value each time it is given; the others take the last.
struct CommandLineOption {
  const char *name;
  const char *valueName;
  const char *help;
  bool (*apply)(CommandLine &line, const std::string &value, std::string &error);
  bool repeatable = false;
};

// The positional words by the names a settings file gives them, in order.
extern const char *const kPositionalNames[7];

// Every option, in the order --help lists them.
const std::vector<CommandLineOption> &CommandLineOptions();

// The option called `name` (without the dashes), or null.
const CommandLineOption *FindCommandLineOption(const std::string &name);

// Strict number forms for option values: the whole word must be the number.
bool ParseSeconds(const std::string &text, double &seconds);
