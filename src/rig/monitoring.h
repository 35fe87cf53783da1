// Monitoring beside the console: the JSON API and the Prometheus endpoint,
// each on a server thread of its own that answers from a snapshot of the
// run's records, and a summary line of the effective rates every 5 minutes.
// Privileged API commands are queued and carried out by the console loop, as
// keys are, so that no server thread ever touches a board or the pool link.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "rig/run_records.h"
#include "monitor/snapshot.h"

class TcpServer;

// The run as monitoring shows it at `now` (monotonic seconds, as
// StratumMonotonicSeconds gives them), and one board of it (index from 0).
RunSnapshot TakeRunSnapshot(MiningContext &context, double now);
BoardSnapshot TakeBoardSnapshot(MiningContext &context, size_t index, double now);

// One summary line of the run's rates and counts.
std::string SummaryLine(const RunSnapshot &run);

class RunMonitoring {
 public:
  explicit RunMonitoring(MiningContext &context);
  ~RunMonitoring();
  RunMonitoring(const RunMonitoring &) = delete;
  RunMonitoring &operator=(const RunMonitoring &) = delete;

  // Opens the run's accounts and starts the servers the options ask for. A
  // server that cannot listen is reported in one red line; mining goes on.
  void Start();
  // The console loop's part of each pass: queued commands, the summary.
  void Pass();
  // Ports the servers listen on (0 when off), for the operator and tests.
  uint16_t ApiPort() const;
  uint16_t MetricsPort() const;

 private:
  enum class CommandKind { Enable, Disable, SwitchPool, Quit };
  struct Command {
    CommandKind kind;
    uint64_t number;
  };
  std::string AnswerApi(const std::string &request, const std::string &peer);
  std::string Queue(CommandKind kind, uint64_t number);
  void Carry(const Command &command);

  MiningContext &context_;
  std::unique_ptr<TcpServer> api_;
  std::unique_ptr<TcpServer> metrics_;
  std::mutex queueLock_;
  std::vector<Command> queue_;
  double nextSummary_ = 0;
};
