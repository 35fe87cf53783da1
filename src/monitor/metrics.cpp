#include "monitor/metrics.h"

#include <cmath>
#include <cstdio>
#include <sstream>

namespace {

// A label value with backslash, quote and line feed escaped.
std::string Label(const std::string &value) {
  std::string out;
  for (char c : value) {
    if (c == '\\' || c == '"') out += '\\';
    if (c == '\n') {
      out += "\\n";
      continue;
    }
    out += c;
  }
  return out;
}

class Exposition {
 public:
  void Family(const char *name, const char *type, const char *help) {
    out_ << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' ' << type << '\n';
  }
  // A sample; a value the board did not give (NaN) is left out.
  void Sample(const char *name, const std::string &labels, double value) {
    if (std::isnan(value)) return;
    char number[64];
    snprintf(number, sizeof number, "%.17g", value);
    out_ << name;
    if (!labels.empty()) out_ << '{' << labels << '}';
    out_ << ' ' << number << '\n';
  }
  std::string Text() const { return out_.str(); }

 private:
  std::ostringstream out_;
};

std::string BoardLabels(const BoardSnapshot &board) {
  return "board=\"" + std::to_string(board.id) + "\",model=\"" + Label(board.model) + "\"";
}

std::string PoolLabels(const PoolSnapshot &pool) {
  return "pool=\"" + std::to_string(pool.priority) + "\",url=\"" + Label(pool.url) + "\"";
}

}  // namespace

std::string MetricsText(const RunSnapshot &run, const std::string &version) {
  Exposition e;
  e.Family("ombry_build_info", "gauge", "The miner's version.");
  e.Sample("ombry_build_info", "version=\"" + Label(version) + "\"", 1);
  e.Family("ombry_uptime_seconds", "gauge", "Seconds since the run started.");
  e.Sample("ombry_uptime_seconds", "", run.elapsed);

  struct BoardGauge {
    const char *name;
    const char *help;
    double BoardSnapshot::*field;
    double scale;
  };
  const BoardGauge gauges[] = {
      {"ombry_board_temperature_celsius", "Core temperature.", &BoardSnapshot::temperature, 1},
      {"ombry_board_vrm_temperature_celsius", "Regulator temperature.", &BoardSnapshot::vrmTemperature, 1},
      {"ombry_board_vccint_volts", "Core voltage.", &BoardSnapshot::vccint, 1},
      {"ombry_board_clock_hertz", "Hash clock.", &BoardSnapshot::clockMHz, 1e6},
      {"ombry_board_target_clock_hertz", "Hash clock the board is brought to.", &BoardSnapshot::targetMHz, 1e6},
      {"ombry_board_throttle_hertz", "Clock the thermal rule holds back from the target; 0 when not throttled.",
       &BoardSnapshot::throttleMHz, 1e6},
  };
  for (const BoardGauge &gauge : gauges) {
    e.Family(gauge.name, "gauge", gauge.help);
    for (const BoardSnapshot &board : run.boards)
      e.Sample(gauge.name, BoardLabels(board), board.*gauge.field * gauge.scale);
  }
  e.Family("ombry_board_enabled", "gauge", "1 while the board may mine.");
  for (const BoardSnapshot &board : run.boards) e.Sample("ombry_board_enabled", BoardLabels(board), board.enabled);
  // Every state is served, 0 or 1, so that a state's series exists before
  // a board enters it.
  struct State {
    const char *status;
    const char *label;
  };
  const State states[] = {{"Alive", "alive"}, {"Sick", "sick"}, {"Dead", "dead"}, {"Disabled", "disabled"}};
  e.Family("ombry_board_state", "gauge",
           "1 for the board's state: alive, sick (mining without a valid temperature), dead (taken out for a "
           "fault) or disabled.");
  for (const BoardSnapshot &board : run.boards) {
    for (const State &state : states) {
      e.Sample("ombry_board_state", BoardLabels(board) + ",state=\"" + state.label + "\"",
               board.status == state.status);
    }
  }

  e.Family("ombry_board_hashrate_hashes_per_second", "gauge",
           "Nominal rate from the clock, and effective rates from accepted shares.");
  for (const BoardSnapshot &board : run.boards) {
    std::string labels = BoardLabels(board);
    e.Sample("ombry_board_hashrate_hashes_per_second", labels + ",kind=\"nominal\"", board.nominalMHs * 1e6);
    e.Sample("ombry_board_hashrate_hashes_per_second", labels + ",kind=\"effective_1m\"", board.mhs1m * 1e6);
    e.Sample("ombry_board_hashrate_hashes_per_second", labels + ",kind=\"effective_5m\"", board.mhs5m * 1e6);
    e.Sample("ombry_board_hashrate_hashes_per_second", labels + ",kind=\"effective_15m\"", board.mhs15m * 1e6);
  }
  e.Family("ombry_hashrate_hashes_per_second", "gauge", "The whole run's rates.");
  e.Sample("ombry_hashrate_hashes_per_second", "kind=\"nominal\"", run.nominalMHs * 1e6);
  e.Sample("ombry_hashrate_hashes_per_second", "kind=\"effective_5m\"", run.mhs5m * 1e6);

  e.Family("ombry_nonces_found_total", "counter", "Nonces a board reported that verified as solutions.");
  for (const BoardSnapshot &board : run.boards) e.Sample("ombry_nonces_found_total", BoardLabels(board), board.found);
  e.Family("ombry_shares_total", "counter", "Shares by what became of them.");
  for (const BoardSnapshot &board : run.boards) {
    std::string labels = BoardLabels(board);
    e.Sample("ombry_shares_total", labels + ",result=\"accepted\"", board.accepted);
    e.Sample("ombry_shares_total", labels + ",result=\"rejected\"", board.rejected);
    e.Sample("ombry_shares_total", labels + ",result=\"invalid\"", board.hardwareErrors);
  }
  e.Sample("ombry_shares_total", "board=\"all\",model=\"\",result=\"dropped\"", run.droppedWhileDisconnected);

  e.Family("ombry_pool_up", "gauge", "1 while the pool's connection works.");
  for (const PoolSnapshot &pool : run.pools) e.Sample("ombry_pool_up", PoolLabels(pool), pool.alive);
  e.Family("ombry_pool_active", "gauge", "1 for the pool being mined on.");
  for (const PoolSnapshot &pool : run.pools) e.Sample("ombry_pool_active", PoolLabels(pool), pool.active);
  e.Family("ombry_pool_difficulty", "gauge", "The pool's share difficulty.");
  for (const PoolSnapshot &pool : run.pools) e.Sample("ombry_pool_difficulty", PoolLabels(pool), pool.difficulty);
  e.Family("ombry_pool_shares_rejected_total", "counter", "Shares the pool rejected, by the reason it gave.");
  for (const PoolSnapshot &pool : run.pools) {
    for (const auto &[reason, count] : pool.rejectedByReason) {
      e.Sample("ombry_pool_shares_rejected_total", PoolLabels(pool) + ",reason=\"" + Label(reason) + "\"",
               static_cast<double>(count));
    }
  }
  e.Family("ombry_pool_reconnects_total", "counter", "Connections made to the pool after the first.");
  for (const PoolSnapshot &pool : run.pools) {
    e.Sample("ombry_pool_reconnects_total", PoolLabels(pool), static_cast<double>(pool.reconnects));
  }
  return e.Text();
}
