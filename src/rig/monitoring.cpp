#include "rig/monitoring.h"

#include <algorithm>
#include <cmath>
#include <ctime>

#include "foundation/build_info.h"
#include "board/registers.h"
#include "foundation/logger.h"
#include "rig/governor.h"
#include "rig/worker.h"
#include "monitor/api.h"
#include "monitor/http_pages.h"
#include "monitor/metrics.h"
#include "monitor/tcp_server.h"
#include "stratum/session.h"

namespace {

constexpr const char *kTag = "Monitor";
constexpr double kSummaryPeriod = 300;

double Mhs(double hashesPerSecond) { return hashesPerSecond / 1e6; }

std::string BoardStatus(const Worker &worker) {
  if (!worker.enabled) return worker.takenOut ? "Dead" : "Disabled";
  return std::isnan(worker.coreTemperature.load()) ? "Sick" : "Alive";
}

const char *TuningName(uint32_t tuning) {
  switch (tuning) {
    case TuningActive: return "Active";
    case TuningDone: return "Done";
    default: return "Off";
  }
}

}  // namespace

BoardSnapshot TakeBoardSnapshot(MiningContext &context, size_t index, double now) {
  Worker &worker = *context.workers[index];
  BoardSnapshot board;
  board.id = index + 1;
  board.model = worker.modelName.substr(0, worker.modelName.find_last_not_of(' ') + 1);
  board.path = worker.device ? worker.device->path : "";
  board.dna = worker.dna;
  board.pciAddress = worker.pciAddress;
  board.enabled = worker.enabled;
  board.status = BoardStatus(worker);
  board.temperature = worker.coreTemperature;
  board.vrmTemperature = HasRegulatorSensor(worker.model) ? worker.vrmTemperature.load() : std::nan("");
  board.vccint = worker.vccint;
  board.clockMHz = static_cast<double>(worker.currentClockHz.load()) / 1e6;
  board.targetMHz = static_cast<double>(worker.targetClockHz.load()) / 1e6;
  board.throttleMHz = static_cast<double>(worker.throttleMHz.load());
  board.tuning = TuningName(worker.tuning);
  // What the clock delivers now; the console's table shows the same figure.
  board.nominalMHs = worker.enabled ? board.clockMHz * static_cast<double>(CoreCount(worker.model)) : 0;
  RateWindows rates = context.ledger.BoardRates(index, now);
  board.mhs1m = Mhs(rates.m1);
  board.mhs5m = Mhs(rates.m5);
  board.mhs15m = Mhs(rates.m15);
  ShareTally tally = context.ledger.Board(index);
  board.found = worker.found;
  board.accepted = tally.accepted;
  board.rejected = tally.rejected;
  board.hardwareErrors = worker.invalid;
  board.lastShareTime = tally.lastShareTime;
  double since = worker.miningSince;
  board.elapsed = worker.enabled && since >= 0 ? now - since : 0;
  return board;
}

namespace {

std::vector<std::pair<std::string, std::string>> RunConfig(const MiningContext &context) {
  const RunOptions &options = context.options;
  std::vector<std::pair<std::string, std::string>> config = {
      {"API Listen", options.apiListen.empty() ? "off" : options.apiListen},
      {"Metrics Listen", options.metricsListen.empty() ? "off" : options.metricsListen},
      {"Log File", options.logFile.empty() ? "off" : options.logFile},
      {"Pool Silence", std::to_string(static_cast<int64_t>(options.poolSilenceSeconds))},
      {"Share Timeout", std::to_string(static_cast<int64_t>(options.shareTimeoutSeconds))},
      {"Failback Delay", std::to_string(static_cast<int64_t>(context.failbackDelay))},
  };
  std::string allowed;
  for (const std::string &address : options.apiAllow) allowed += (allowed.empty() ? "" : ",") + address;
  config.emplace_back("API Allow", allowed.empty() ? "none" : allowed);
  // The pool password is never shown, whatever it is.
  config.emplace_back("Password", "***");
  return config;
}

}  // namespace

void MiningContext::OnShareAnswered(const PendingShare &share, bool accepted) {
  ledger.ShareAnswered(share.worker, share.pool, share.difficulty, accepted, StratumMonotonicSeconds(),
                       static_cast<int64_t>(time(nullptr)));
}

void MiningContext::OnJob(uint32_t pool) { ledger.Job(pool, static_cast<int64_t>(time(nullptr))); }

void MiningContext::OnReconnect(uint32_t pool) { ledger.Reconnect(pool); }

RunSnapshot TakeRunSnapshot(MiningContext &context, double now) {
  RunSnapshot run;
  run.elapsed = now - context.ledger.Start();
  for (size_t i = 0; i < context.workers.size(); i++) {
    run.boards.push_back(TakeBoardSnapshot(context, i, now));
    const BoardSnapshot &board = run.boards.back();
    run.nominalMHs += board.nominalMHs;
    run.found += board.found;
    run.hardwareErrors += board.hardwareErrors;
  }
  RateWindows rates = context.ledger.TotalRates(now);
  run.mhsAverage = Mhs(rates.average);
  run.mhs5s = Mhs(rates.s5);
  run.mhs1m = Mhs(rates.m1);
  run.mhs5m = Mhs(rates.m5);
  run.mhs15m = Mhs(rates.m15);
  ShareTally total = context.ledger.Total();
  run.accepted = total.accepted;
  run.rejected = total.rejected;
  run.lastShareTime = total.lastShareTime;
  run.droppedWhileDisconnected = context.sharesDroppedWhileDisconnected.load();

  std::shared_ptr<StratumJob> job = context.CurrentJob();
  uint32_t active = context.activePool;
  bool mining = context.stratumState == Mining;
  for (uint32_t i = 0; i < context.pools.size(); i++) {
    PoolSnapshot pool;
    pool.priority = i;
    pool.url = context.pools[i].Name();
    pool.user = context.pools[i].user;
    pool.active = i == active;
    pool.alive = pool.active ? mining : context.probe.upSince >= 0 && i == 0;
    pool.difficulty = job && job->pool == i ? job->difficulty : 0;
    PoolTally tally = context.ledger.Pool(i);
    pool.jobs = tally.jobs;
    pool.accepted = tally.accepted;
    pool.rejected = tally.rejected;
    // The pool's reasons are not told apart yet.
    pool.rejectedByReason = {{"other", tally.rejected}};
    pool.reconnects = tally.reconnects;
    pool.lastShareTime = tally.lastShareTime;
    pool.lastJobTime = tally.lastJobTime;
    run.pools.push_back(pool);
  }
  run.config = RunConfig(context);
  return run;
}

std::string SummaryLine(const RunSnapshot &run) {
  char line[256];
  snprintf(line, sizeof line,
           "Effective %.2f / %.2f / %.2f MH/s over 1 / 5 / 15 min (nominal %.2f); accepted %llu, rejected %llu, "
           "invalid %llu, dropped %llu",
           run.mhs1m, run.mhs5m, run.mhs15m, run.nominalMHs, static_cast<unsigned long long>(run.accepted),
           static_cast<unsigned long long>(run.rejected), static_cast<unsigned long long>(run.hardwareErrors),
           static_cast<unsigned long long>(run.droppedWhileDisconnected));
  return line;
}

RunMonitoring::RunMonitoring(MiningContext &context) : context_(context) {}

RunMonitoring::~RunMonitoring() {
  // The servers go first: their threads read the records.
  api_.reset();
  metrics_.reset();
}

void RunMonitoring::Start() {
  double now = StratumMonotonicSeconds();
  context_.ledger.Open(context_.workers.size(), context_.pools.size(), now);
  nextSummary_ = now + kSummaryPeriod;
  const RunOptions &options = context_.options;
  std::string error;
  if (!options.apiListen.empty()) {
    api_ = std::make_unique<TcpServer>(ApiRequestComplete, [this](const std::string &request, const std::string &peer) {
      return AnswerApi(request, peer);
    });
    if (api_->Start(options.apiListen, error)) {
      VL_LOG(VLLogLevelInfo, kTag, "JSON API listening on port %u", static_cast<unsigned>(api_->Port()));
    } else {
      VL_LOG(VLLogLevelError, kTag, "JSON API is off: %s", error.c_str());
      api_.reset();
    }
  }
  if (!options.metricsListen.empty()) {
    HttpContent content;
    content.metrics = [this] {
      return MetricsText(TakeRunSnapshot(context_, StratumMonotonicSeconds()), OmbryVersion());
    };
    content.status = [this] {
      return StatusJson(TakeRunSnapshot(context_, StratumMonotonicSeconds()),
                        std::string("ombry-miner ") + OmbryVersion(), static_cast<int64_t>(time(nullptr)));
    };
    metrics_ = std::make_unique<TcpServer>(
        HttpRequestComplete,
        [content](const std::string &request, const std::string &) { return HttpAnswer(request, content); });
    if (metrics_->Start(options.metricsListen, error)) {
      VL_LOG(VLLogLevelInfo, kTag, "Metrics on port %u at /metrics, status page at /",
             static_cast<unsigned>(metrics_->Port()));
    } else {
      VL_LOG(VLLogLevelError, kTag, "Metrics are off: %s", error.c_str());
      metrics_.reset();
    }
  }
}

uint16_t RunMonitoring::ApiPort() const { return api_ ? api_->Port() : 0; }
uint16_t RunMonitoring::MetricsPort() const { return metrics_ ? metrics_->Port() : 0; }

std::string RunMonitoring::AnswerApi(const std::string &request, const std::string &peer) {
  const std::vector<std::string> &allowed = context_.options.apiAllow;
  bool privileged = std::find(allowed.begin(), allowed.end(), peer) != allowed.end();
  ApiActions actions;
  actions.enable = [this](uint64_t board) { return Queue(CommandKind::Enable, board); };
  actions.disable = [this](uint64_t board) { return Queue(CommandKind::Disable, board); };
  actions.switchPool = [this](uint32_t pool) { return Queue(CommandKind::SwitchPool, pool); };
  actions.quit = [this] { Queue(CommandKind::Quit, 0); };
  return ApiReply(request, privileged, TakeRunSnapshot(context_, StratumMonotonicSeconds()), actions,
                  std::string("ombry-miner ") + OmbryVersion(), static_cast<int64_t>(time(nullptr)));
}

std::string RunMonitoring::Queue(CommandKind kind, uint64_t number) {
  bool board = kind == CommandKind::Enable || kind == CommandKind::Disable;
  if (board && (number < 1 || number > context_.workers.size())) return "No board " + std::to_string(number);
  if (kind == CommandKind::SwitchPool && number >= context_.pools.size()) return "No pool " + std::to_string(number);
  std::lock_guard<std::mutex> guard(queueLock_);
  queue_.push_back({kind, number});
  return "";
}

void RunMonitoring::Carry(const Command &command) {
  if (g_runState != RunStateRunning) return;
  switch (command.kind) {
    case CommandKind::Enable: {
      Worker &worker = *context_.workers[command.number - 1];
      VL_LOG(VLLogLevelInfo, kTag, "API: enabling device %llu", static_cast<unsigned long long>(command.number));
      worker.takenOut = false;
      worker.enabled = true;
      // Unlike the key, never a second thread beside one that still runs.
      if (worker.threadsLive.load() == 0) StartWorkerThread(context_, command.number - 1);
      break;
    }
    case CommandKind::Disable:
      VL_LOG(VLLogLevelInfo, kTag, "API: disabling device %llu", static_cast<unsigned long long>(command.number));
      context_.workers[command.number - 1]->enabled = false;
      break;
    case CommandKind::SwitchPool: StratumSwitchPool(context_, static_cast<uint32_t>(command.number)); break;
    case CommandKind::Quit:
      VL_LOG(VLLogLevelInfo, kTag, "API: quitting miner, shutting down devices...");
      g_runState = RunStateStopping;
      break;
  }
}

void RunMonitoring::Pass() {
  std::vector<Command> commands;
  {
    std::lock_guard<std::mutex> guard(queueLock_);
    commands.swap(queue_);
  }
  for (const Command &command : commands) Carry(command);
  double now = StratumMonotonicSeconds();
  if (now >= nextSummary_) {
    nextSummary_ = now + kSummaryPeriod;
    VL_LOG(VLLogLevelInfo, kTag, "%s", SummaryLine(TakeRunSnapshot(context_, now)).c_str());
  }
}
