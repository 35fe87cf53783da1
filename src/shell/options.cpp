#include "shell/options.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "monitor/tcp_server.h"
#include "net/tls_link.h"
#include "stratum/pool_endpoint.h"

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

const std::vector<CommandLineOption> kOptions = {
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
     "serve Prometheus metrics at /metrics and the status page at / here (off unless given; a port alone is on "
     "127.0.0.1)",
     SetMetricsListen},
    {"log-file", "PATH", "also write every line to this file, time-stamped; reopened on SIGUSR1",
     [](CommandLine &line, const std::string &value, std::string &) {
       line.options.logFile = value;
       return true;
     }},
    {"verbose", nullptr, "also log every line sent to and received from the pool",
     [](CommandLine &line, const std::string &, std::string &) { return line.options.verbose = true; }},
};

}  // namespace

const char *const kPositionalNames[7] = {"algorithm", "host", "port", "wallet", "password", "clock", "device"};

const std::vector<CommandLineOption> &CommandLineOptions() { return kOptions; }

const CommandLineOption *FindCommandLineOption(const std::string &name) {
  for (const CommandLineOption &option : kOptions) {
    if (name == option.name) return &option;
  }
  return nullptr;
}

bool ParseSeconds(const std::string &text, double &seconds) {
  if (text.empty() || text.find_first_not_of("0123456789.") != std::string::npos) return false;
  errno = 0;
  char *end = nullptr;
  double value = strtod(text.c_str(), &end);
  if (errno != 0 || end != text.c_str() + text.size() || !std::isfinite(value)) return false;
  seconds = value;
  return true;
}
