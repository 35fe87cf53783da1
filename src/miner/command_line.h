// The command line: seven positional arguments as ever, and options beside
// them. A word that starts with "--" is an option, anywhere on the line, and
// takes the next word as its value unless it is a flag; every other word is
// positional. A line of positional words alone runs exactly as before.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

// What the options set. Defaults are the values a run without options has.
struct RunOptions {
  // Pool link: no line from the pool for this long while mining, or no answer
  // to a share for this long, closes the connection and reconnects.
  double poolSilenceSeconds = 90;
  double shareTimeoutSeconds = 30;
  // Backup pools (URLs), in order after the primary of the positional words.
  std::vector<std::string> backupPools;
  // Failback: how long the primary must stay up before the miner returns to
  // it (0: never), and how often it is tried while a backup mines.
  double failbackDelaySeconds = 120;
  double primaryRetrySeconds = 60;
  // TLS: pinned certificate fingerprints ("HEX" for every TLS pool, or
  // "HOST=HEX" for one host) and a file of trusted roots.
  std::vector<std::string> tlsFingerprints;
  std::string tlsCaFile;
  // Monitoring: the JSON API and the metrics endpoint ("HOST:PORT", empty:
  // off), the addresses that may use the API's privileged commands, and a
  // log file beside the console.
  std::string apiListen;
  std::vector<std::string> apiAllow;
  std::string metricsListen;
  std::string logFile;
};

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
struct OptionSpec {
  const char *name;
  const char *valueName;
  const char *help;
  bool (*apply)(CommandLine &line, const std::string &value, std::string &error);
  bool repeatable = false;
};

// The positional words by the names a settings file gives them, in order.
extern const char *const kPositionalNames[7];

// Every option, in the order --help lists them.
const std::vector<OptionSpec> &CommandLineOptions();

// Splits argv into positional words and options, and fills in from the
// settings file of --config what the command line leaves out. Returns false
// with `error` naming the word or key for an unknown option, a missing value
// or a bad one.
bool ParseCommandLine(int argc, char **argv, CommandLine &line, std::string &error);

// The text of --help and --version.
void PrintUsage(FILE *out);
void PrintVersion(FILE *out);

// Strict number forms for option values: the whole word must be the number.
bool ParseSeconds(const std::string &text, double &seconds);
