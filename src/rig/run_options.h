// The run's settings beyond the positional words, as the command line and
// the settings file give them. Defaults are the values a run without options
// has.
#pragma once

#include <string>
#include <vector>

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
  // The pool link's raw lines on the console and in the log (the Verbose level).
  bool verbose = false;
};
