#include "console/status_table.h"

#include <cmath>
#include <cstdio>

#include "foundation/logger.h"
#include "board/registers.h"
#include "foundation/console_io.h"

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

struct RowReadings {
  double vrmTemperature;
  double hashRateMHs;
};

// One row; returns the readings it showed, so that the banner and the total
// agree with what the operator sees.
RowReadings PrintRow(Worker &worker, unsigned long long number) {
  double coreTemperature = worker.coreTemperature;
  double vrmTemperature = worker.vrmTemperature;
  double vccint = worker.vccint;
  double hashRateMHs = worker.hashRateMHs;
  bool wide = IsWideFamily(worker.model);
  double vccintRed = wide ? 0.73 : 0.0;
  double vccintYellow = wide ? 0.74 : 0.0;

  ShownCounters &shown = worker.shownCounters;
  CounterDelta found = TakeCounter(worker.found, shown.found);
  CounterDelta invalid = TakeCounter(worker.invalid, shown.invalid);
  TakeCounter(worker.belowBoardTarget, shown.belowBoardTarget);  // kept in step, not shown
  CounterDelta accepted = TakeCounter(worker.sharesAccepted, shown.sharesAccepted);
  CounterDelta rejected = TakeCounter(worker.sharesRejected, shown.sharesRejected);

  Reading core(coreTemperature, "%4.1f");
  Reading vrm(vrmTemperature, "%5.1f");
  Reading volts(vccint, "%4.2f");
  VL_LOG(VLLogLevelInfo, kTag,
         "%2llu |  %s | %s%s C\x1b[0m | %s%s C\x1b[0m | %s%s V\x1b[0m |  %3.0f / %3.0f  | %8.2f MH/s | "
         "%5llu (+%2llu) | %5llu (+%2llu) | %5llu (+%2llu) | %5llu (+%2llu)",
         number, worker.modelName.c_str(), AboveColor(coreTemperature, 75.0, 70.0), core.text,
         AboveColor(vrmTemperature, 120.0, 110.0), vrm.text, BelowColor(vccint, vccintRed, vccintYellow), volts.text,
         static_cast<double>(worker.currentClockHz.load()) / 1000.0 / 1000.0,
         static_cast<double>(worker.targetClockHz.load()) / 1000.0 / 1000.0, hashRateMHs, found.value, found.sinceShown,
         accepted.value, accepted.sinceShown, invalid.value, invalid.sinceShown, rejected.value, rejected.sinceShown);
  return {vrmTemperature, hashRateMHs};
}

}  // namespace

void PrintStatusTable(ConsoleSession &session, uint64_t nowSeconds) {
  VL_LOG(VLLogLevelInfo, kTag,
         "\x1b[1;97mId | Model | Core T |  VRM T  | VCCINT | Clock [MHz] |    Hashrate   |    Found    |   "
         "Accepted  |   Invalid   |   Rejected  \x1b[0m");
  VL_LOG(VLLogLevelInfo, kTag,
         "---+-------+--------+---------+--------+-------------+---------------+-------------+-------------+----"
         "---------+-------------");

  double totalMHs = 0.0;
  auto &workers = session.context.workers;
  for (size_t i = 0; i < workers.size(); i++) {
    Worker &worker = *workers[i];
    auto number = static_cast<unsigned long long>(i + 1);
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
    RowReadings shown = PrintRow(worker, number);
    if (shown.vrmTemperature > kVrmWarningCelsius) session.vrmWarning = true;
    totalMHs += shown.hashRateMHs;
  }
  LOG_COLOR(ConsoleColorGreen, VLLogLevelInfo, kTag, "Total Hashrate: %0.2f MH/s", totalMHs);
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
