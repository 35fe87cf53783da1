#include "miner/command_line.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <set>

#include "foundation/build_info.h"
#include "miner/config_file.h"
#include "monitor/tcp_server.h"
#include "net/tls_link.h"
#include "stratum/pool_endpoint.h"
#include "hash/eaglesong_lanes.h"

namespace {

bool SetSecondsOrZero(double &field, const std::string &value, std::string &error) {
  double seconds = 0;
  if (!ParseSeconds(value, seconds)) {
    error = "needs a number of seconds, 0 or more";
    return false;
  }
  field = seconds;
  return true;
}

bool AddPool(CommandLine &line, const std::string &value, std::string &error) {
  PoolEndpoint scratch;
  if (!LooksLikePoolUrl(value)) {
    error = "needs a URL such as stratum+tcp://host:port";
    return false;
  }
  if (!ParsePoolUrl(value, scratch, error)) return false;
  line.options.backupPools.push_back(value);
  return true;
}

bool AddFingerprint(CommandLine &line, const std::string &value, std::string &error) {
  size_t equals = value.find('=');
  std::string pin;
  if (!TlsLink::NormalisePin(equals == std::string::npos ? value : value.substr(equals + 1), pin) || equals == 0) {
    error = "needs [HOST=] and 64 hex digits (a SHA-256 fingerprint)";
    return false;
  }
  line.options.tlsFingerprints.push_back(value);
  return true;
}

bool SetApiListen(CommandLine &line, const std::string &value, std::string &error) {
  if (!CheckListenAddress(value, error)) return false;
  line.options.apiListen = value;
  return true;
}

bool SetMetricsListen(CommandLine &line, const std::string &value, std::string &error) {
  if (!CheckListenAddress(value, error)) return false;
  line.options.metricsListen = value;
  return true;
}

bool AddApiAllow(CommandLine &line, const std::string &value, std::string &error) {
  if (!IsIPv4Address(value)) {
    error = "needs an IPv4 address";
    return false;
  }
  line.options.apiAllow.push_back(value);
  return true;
}

bool SetSeconds(double &field, const std::string &value, std::string &error) {
  double seconds = 0;
  if (!ParseSeconds(value, seconds) || seconds <= 0) {
    error = "needs a number of seconds above 0";
    return false;
  }
  field = seconds;
  return true;
}

const std::vector<OptionSpec> kOptions = {
    {"config", "FILE", "read settings from a JSON file; the command line overrides it",
     [](CommandLine &line, const std::string &value, std::string &) {
       line.configFile = value;
       return true;
     }},
    {"help", nullptr, "print this help and exit",
     [](CommandLine &line, const std::string &, std::string &) { return line.showHelp = true; }},
    {"version", nullptr, "print the version and the build and exit",
     [](CommandLine &line, const std::string &, std::string &) { return line.showVersion = true; }},
    {"pool-silence", "SECONDS", "reconnect when the pool sends nothing for this long while mining (90)",
     [](CommandLine &line, const std::string &value, std::string &error) {
       return SetSeconds(line.options.poolSilenceSeconds, value, error);
     }},
    {"share-timeout", "SECONDS", "reconnect when the pool leaves a share unanswered for this long (30)",
     [](CommandLine &line, const std::string &value, std::string &error) {
       return SetSeconds(line.options.shareTimeoutSeconds, value, error);
     }},
    {"pool", "URL", "a backup pool, stratum+tcp:// or stratum+ssl://[user[:password]@]host:port (repeatable)", AddPool,
     true},
    {"failback-delay", "SECONDS", "return to the primary pool once it has been up this long (120; 0: never)",
     [](CommandLine &line, const std::string &value, std::string &error) {
       return SetSecondsOrZero(line.options.failbackDelaySeconds, value, error);
     }},
    {"primary-retry", "SECONDS", "while a backup mines, try the primary pool this often (60)",
     [](CommandLine &line, const std::string &value, std::string &error) {
       return SetSeconds(line.options.primaryRetrySeconds, value, error);
     }},
    {"tls-fingerprint", "[HOST=]SHA256", "accept exactly this certificate from TLS pools (of HOST) (repeatable)",
     AddFingerprint, true},
    {"tls-ca", "FILE", "trust the roots in this PEM file for TLS pools instead of the system's",
     [](CommandLine &line, const std::string &value, std::string &) {
       line.options.tlsCaFile = value;
       return true;
     }},
    {"api-listen", "HOST:PORT", "serve the JSON API here (off unless given; a port alone is on 127.0.0.1, e.g. 4028)",
     SetApiListen},
    {"api-allow", "ADDRESS", "this IPv4 address may enable, disable, switchpool and quit (repeatable)", AddApiAllow,
     true},
    {"metrics-listen", "HOST:PORT",
     "serve Prometheus metrics at /metrics here (off unless given; a port alone is on 127.0.0.1)", SetMetricsListen},
    {"log-file", "PATH", "also write every line to this file, time-stamped; reopened on SIGUSR1",
     [](CommandLine &line, const std::string &value, std::string &) {
       line.options.logFile = value;
       return true;
     }},
};

const OptionSpec *FindOption(const std::string &name) {
  for (const OptionSpec &option : kOptions) {
    if (name == option.name) return &option;
  }
  return nullptr;
}

}  // namespace

const char *const kPositionalNames[7] = {"algorithm", "host", "port", "wallet", "password", "clock", "device"};

const std::vector<OptionSpec> &CommandLineOptions() { return kOptions; }

bool ParseSeconds(const std::string &text, double &seconds) {
  if (text.empty() || text.find_first_not_of("0123456789.") != std::string::npos) return false;
  errno = 0;
  char *end = nullptr;
  double value = strtod(text.c_str(), &end);
  if (errno != 0 || end != text.c_str() + text.size() || !std::isfinite(value)) return false;
  seconds = value;
  return true;
}

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
    const OptionSpec *option = FindOption(name);
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
      error = "option --" + name + " '" + value + "': " + why;
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
    const OptionSpec *option = FindOption(name);
    for (const std::string &value : values) {
      std::string why;
      if (!option->apply(line, value, why)) {
        error = "settings file " + line.configFile + ", key '" + name + "' '" + value + "': " + why;
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
  for (const OptionSpec &option : kOptions) {
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
