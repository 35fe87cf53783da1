#include "console/status_table.h"

#include <cmath>
#include <cstdio>

#include "foundation/logger.h"
#include "board/registers.h"
#include "foundation/console_io.h"
#include "rig/monitoring.h"
#include "stratum/stratum_context.h"

namespace {

constexpr const char *kTag = "Miner";
constexpr const char *kRed = "\x1b[1;31m";
constexpr const char *kYellow = "\x1b[1;33m";
constexpr const char *kPlain = "";

constexpr uint64_t kStaleHeartbeatSeconds = 5;
constexpr double kVrmWarningCelsius = 125.0;

const char *AboveColor(double value, double red, double yellow) {
  if (value > red) return kRed;
  if (value > yellow) return kYellow;
  return kPlain;
}

const char *BelowColor(double value, double red, double yellow) {
  if (value < red) return kRed;
  if (value < yellow) return kYellow;
  return kPlain;
}

// A sensor value as the table shows it: "--", right-aligned in the same
// width, for a value the board did not give (NaN).
struct Reading {
  char text[16];
  Reading(double value, const char *format) {
    if (std::isnan(value)) {
      int width = 0;
      sscanf(format, "%%%d", &width);
      snprintf(text, sizeof text, "%*s", width, "--");
    } else {
      snprintf(text, sizeof text, format, value);
    }
  }
};

struct StateLine {
  ConsoleColor color;
  const char *format;
};

// Indexed by WorkerState. The last text is what a running worker shows once
// its heartbeat stops; a live one is a table row instead.
constexpr StateLine kStateLines[] = {
    {ConsoleColorYellow, "Worker %llu: Started waiting for work %llu seconds ago"},
    {ConsoleColorYellow, "Worker %llu: Started initializing %llu seconds ago"},
    {ConsoleColorYellow, "Worker %llu: Started waiting for DMA %llu seconds ago"},
    {ConsoleColorYellow, "Worker %llu: Started working on DMA %llu seconds ago"},
    {ConsoleColorYellow, "Worker %llu: Started final mining preparation %llu seconds ago"},
    {ConsoleColorRed, "Worker %llu: Heart stopped %llu seconds ago"},
};

void PrintStateLine(uint32_t state, unsigned long long number, unsigned long long ageSeconds) {
  // The record's state is only ever set from WorkerState; anything else is
  // printed as the stopped heart rather than read past the table.
  if (state >= std::size(kStateLines)) state = WorkerStateRunning;
  const StateLine &line = kStateLines[state];
  SetConsoleColor(line.color);
  // The formats come from the table above; each has two %llu.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  VL_LOG(VLLogLevelInfo, kTag, line.format, number, ageSeconds);
#pragma GCC diagnostic pop
  SetConsoleColor(ConsoleColorNormal);
}

struct CounterDelta {
  unsigned long long value;
  unsigned long long sinceShown;
};

// Takes the counter as it stands now, remembers it as shown, and returns it
// with its growth since the previous row.
CounterDelta TakeCounter(const Relaxed<uint64_t> &counter, Relaxed<uint64_t> &shown) {
  uint64_t now = counter;
  uint64_t before = shown;
  shown = now;
  return {now, now - before};
}

struct RowRates {
  double vrmTemperature;
  double nominalMHs;
  double effectiveMHs;
};

// One row; returns what it showed, so that the banner and the totals agree
// with what the operator sees. Readings and rates are the monitoring
// snapshot's, so the table, the API and the metrics never disagree; the
// counters are the worker's own, with their growth since the last row.
RowRates PrintRow(Worker &worker, const BoardSnapshot &board) {
  bool wide = IsWideFamily(worker.model);
  double vccintRed = wide ? 0.73 : 0.0;
  double vccintYellow = wide ? 0.74 : 0.0;

  ShownCounters &shown = worker.shownCounters;
  CounterDelta found = TakeCounter(worker.found, shown.found);
  CounterDelta invalid = TakeCounter(worker.invalid, shown.invalid);
  TakeCounter(worker.belowBoardTarget, shown.belowBoardTarget);  // kept in step, not shown
  CounterDelta accepted = TakeCounter(worker.sharesAccepted, shown.sharesAccepted);
  CounterDelta rejected = TakeCounter(worker.sharesRejected, shown.sharesRejected);

  Reading core(board.temperature, "%4.1f");
  Reading vrm(board.vrmTemperature, "%5.1f");
  Reading volts(board.vccint, "%4.2f");
  VL_LOG(VLLogLevelInfo, kTag,
         "%2llu |  %s | %s%s C\x1b[0m | %s%s C\x1b[0m | %s%s V\x1b[0m |  %3.0f / %3.0f  | %12.2f | %14.2f | "
         "%5llu (+%2llu) | %5llu (+%2llu) | %5llu (+%2llu) | %5llu (+%2llu)",
         static_cast<unsigned long long>(board.id), worker.modelName.c_str(), AboveColor(board.temperature, 75.0, 70.0),
         core.text, AboveColor(board.vrmTemperature, 120.0, 110.0), vrm.text,
         BelowColor(board.vccint, vccintRed, vccintYellow), volts.text, board.clockMHz, board.targetMHz,
         board.nominalMHs, board.mhs1m, found.value, found.sinceShown, accepted.value, accepted.sinceShown,
         invalid.value, invalid.sinceShown, rejected.value, rejected.sinceShown);
  return {board.vrmTemperature, board.nominalMHs, board.mhs1m};
}

}  // namespace

void PrintStatusTable(ConsoleSession &session, uint64_t nowSeconds) {
  VL_LOG(VLLogLevelInfo, kTag,
         "\x1b[1;97mId | Model | Core T |  VRM T  | VCCINT | Clock [MHz] | Nominal MH/s | Effective MH/s |    "
         "Found    |   Accepted  |   Invalid   |   Rejected  \x1b[0m");
  VL_LOG(VLLogLevelInfo, kTag,
         "---+-------+--------+---------+--------+-------------+--------------+----------------+-------------+----"
         "---------+-------------+-------------");

  double nominalMHs = 0.0;
  double effectiveMHs = 0.0;
  double snapshotTime = StratumMonotonicSeconds();
  auto &workers = session.context.workers;
  for (size_t i = 0; i < workers.size(); i++) {
    Worker &worker = *workers[i];
    auto number = static_cast<unsigned long long>(i) + 1;
    if (!worker.enabled) {
      LOG_COLOR(ConsoleColorYellow, VLLogLevelInfo, kTag, "Worker %llu: Offline (Disabled)", number);
      continue;
    }
    uint64_t heartbeat = worker.heartbeat.load();
    // A heartbeat from the future can't happen on a monotonic clock; if it
    // did, the worker is plainly alive.
    if (nowSeconds > heartbeat && nowSeconds - heartbeat > kStaleHeartbeatSeconds) {
      PrintStateLine(worker.state, number, nowSeconds - heartbeat);
      continue;
    }
    RowRates shown = PrintRow(worker, TakeBoardSnapshot(session.context, i, snapshotTime));
    if (shown.vrmTemperature > kVrmWarningCelsius) session.vrmWarning = true;
    nominalMHs += shown.nominalMHs;
    effectiveMHs += shown.effectiveMHs;
  }
  LOG_COLOR(ConsoleColorGreen, VLLogLevelInfo, kTag, "Total Hashrate: %0.2f MH/s (effective %0.2f MH/s)", nominalMHs,
            effectiveMHs);
}

void PrintVrmBanner() {
  static constexpr const char *kLines[] = {
      "",
      "************************************************************",
      "*                         WARNING!                         *",
      "*  At least one VRM is over the maximum rated temperature  *",
      "*      for continuous operation, which will lead to a      *",
      "*         shorter lifetime and / or sudden failure.        *",
      "************************************************************",
      "",
  };
  for (const char *line : kLines) LOG_COLOR(ConsoleColorRed, VLLogLevelInfo, kTag, "%s", line);
}
