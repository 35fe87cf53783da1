#include "monitor/api.h"

#include <cmath>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "foundation/json_bounded.h"

namespace {

using Json = nlohmann::ordered_json;

// Status codes of the replies.
enum : int {
  kCodeSummary = 11,
  kCodeDevs = 9,
  kCodePools = 7,
  kCodeVersion = 22,
  kCodeConfig = 33,
  kCodeDone = 0,
  kCodeInvalidCommand = 14,
  kCodeBadParameter = 15,
  kCodeAccessDenied = 45,
};

Json Status(bool ok, int code, const std::string &message, const std::string &description, int64_t now) {
  return Json::array({Json{
      {"STATUS", ok ? "S" : "E"}, {"When", now}, {"Code", code}, {"Msg", message}, {"Description", description}}});
}

// A reading the board did not give is null, not a number; the others to the
// precision the sensors have.
Json Reading(double value, double scale) {
  return std::isnan(value) ? Json(nullptr) : Json(std::round(value * scale) / scale);
}

double Mhs(double value) { return std::round(value * 1000.0) / 1000.0; }

Json Summary(const RunSnapshot &run) {
  double answered = static_cast<double>(run.accepted + run.rejected);
  return Json::array(
      {Json{{"Elapsed", static_cast<int64_t>(run.elapsed)},
            {"MHS av", Mhs(run.mhsAverage)},
            {"MHS 5s", Mhs(run.mhs5s)},
            {"MHS 1m", Mhs(run.mhs1m)},
            {"MHS 5m", Mhs(run.mhs5m)},
            {"MHS 15m", Mhs(run.mhs15m)},
            {"Nominal MHS", Mhs(run.nominalMHs)},
            {"Found", run.found},
            {"Accepted", run.accepted},
            {"Rejected", run.rejected},
            {"Hardware Errors", run.hardwareErrors},
            {"Dropped While Disconnected", run.droppedWhileDisconnected},
            {"Pool Rejected%", answered > 0 ? 100.0 * static_cast<double>(run.rejected) / answered : 0.0},
            {"Last Share Time", run.lastShareTime}}});
}

Json Devs(const RunSnapshot &run) {
  Json devs = Json::array();
  for (const BoardSnapshot &board : run.boards) {
    devs.push_back(Json{{"ID", board.id},
                        {"Name", board.model},
                        {"Path", board.path},
                        {"DNA", board.dna},
                        {"PCI Address", board.pciAddress.empty() ? Json(nullptr) : Json(board.pciAddress)},
                        {"Enabled", board.enabled ? "Y" : "N"},
                        {"Status", board.status},
                        {"Temperature", Reading(board.temperature, 100)},
                        {"VRM Temperature", Reading(board.vrmTemperature, 100)},
                        {"VCCINT", Reading(board.vccint, 1000)},
                        {"Clock MHz", board.clockMHz},
                        {"Target MHz", board.targetMHz},
                        {"Tuning", board.tuning},
                        {"Nominal MHS", Mhs(board.nominalMHs)},
                        {"MHS 1m", Mhs(board.mhs1m)},
                        {"MHS 5m", Mhs(board.mhs5m)},
                        {"Found", board.found},
                        {"Accepted", board.accepted},
                        {"Rejected", board.rejected},
                        {"Hardware Errors", board.hardwareErrors},
                        {"Last Share Time", board.lastShareTime},
                        {"Device Elapsed", static_cast<int64_t>(board.elapsed)}});
  }
  return devs;
}

Json Pools(const RunSnapshot &run) {
  Json pools = Json::array();
  for (const PoolSnapshot &pool : run.pools) {
    pools.push_back(Json{{"POOL", pool.priority},
                         {"URL", pool.url},
                         {"User", pool.user},
                         {"Status", pool.alive ? "Alive" : "Dead"},
                         {"Stratum Active", pool.active},
                         {"Priority", pool.priority},
                         {"Difficulty", pool.difficulty},
                         {"Jobs", pool.jobs},
                         {"Accepted", pool.accepted},
                         {"Rejected", pool.rejected},
                         {"Reconnects", pool.reconnects},
                         {"Last Share Time", pool.lastShareTime},
                         {"Last Job Time", pool.lastJobTime}});
  }
  return pools;
}

// A request is held to the limits of every reader of the network: nesting,
// values and length.
constexpr VLJsonLimits kRequestLimits;

VLJsonRefusal CheckRequest(const std::string &text) {
  return VLJsonCheckObject(text.data(), text.size(), kRequestLimits);
}

bool Number(const std::string &text, uint64_t &value) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 9) return false;
  value = std::strtoull(text.c_str(), nullptr, 10);
  return true;
}

}  // namespace

bool ParseApiRequest(const std::string &text, ApiRequest &request) {
  size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return false;
  if (text[first] == '{') {
    if (CheckRequest(text) != VLJsonRefusal::kNone) return false;
    Json document = Json::parse(text, nullptr, false);
    if (document.is_discarded() || !document.is_object()) return false;
    auto command = document.find("command");
    if (command == document.end() || !command->is_string()) return false;
    request.command = command->get<std::string>();
    auto parameter = document.find("parameter");
    if (parameter != document.end()) {
      if (parameter->is_string()) {
        request.parameter = parameter->get<std::string>();
      } else if (parameter->is_number_integer()) {
        request.parameter = parameter->dump();
      } else if (!parameter->is_null()) {
        return false;
      }
    }
  } else {
    std::string line = text.substr(first);
    line.erase(line.find_last_not_of(" \t\r\n") + 1);
    size_t bar = line.find('|');
    request.command = line.substr(0, bar);
    request.parameter = bar == std::string::npos ? "" : line.substr(bar + 1);
  }
  return !request.command.empty() && request.command.size() <= 64 &&
         request.command.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789_") == std::string::npos;
}

bool ApiRequestComplete(const std::string &text) {
  size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return false;
  // JSON that is whole, or past a limit (it is answered at once, and refused).
  if (text[first] == '{') return CheckRequest(text) != VLJsonRefusal::kNotJson;
  // A plain name is short and comes in one piece; clients send it without a
  // line feed and wait for the answer.
  return true;
}

std::string ApiReply(const std::string &text, bool privileged, const RunSnapshot &snapshot, const ApiActions &actions,
                     const std::string &description, int64_t now) {
  ApiRequest request;
  Json reply = Json::object();
  auto status = [&](bool ok, int code, const std::string &message) {
    reply["STATUS"] = Status(ok, code, message, description, now);
  };
  if (!ParseApiRequest(text, request)) {
    status(false, kCodeInvalidCommand, "Invalid command");
    return reply.dump();
  }
  const std::string &command = request.command;
  if (command == "summary") {
    status(true, kCodeSummary, "Summary");
    reply["SUMMARY"] = Summary(snapshot);
  } else if (command == "devs") {
    status(true, kCodeDevs, std::to_string(snapshot.boards.size()) + " board(s)");
    reply["DEVS"] = Devs(snapshot);
  } else if (command == "pools") {
    status(true, kCodePools, std::to_string(snapshot.pools.size()) + " pool(s)");
    reply["POOLS"] = Pools(snapshot);
  } else if (command == "version") {
    status(true, kCodeVersion, "Version");
    reply["VERSION"] = Json::array({Json{{"Miner", description}, {"API", "1.0"}}});
  } else if (command == "config") {
    status(true, kCodeConfig, "Config");
    Json config = Json::object();
    config["Boards"] = snapshot.boards.size();
    config["Pools"] = snapshot.pools.size();
    for (const auto &[key, value] : snapshot.config) config[key] = value;
    reply["CONFIG"] = Json::array({config});
  } else if (command == "enable" || command == "disable" || command == "switchpool" || command == "quit") {
    if (!privileged) {
      status(false, kCodeAccessDenied, "Access denied");
      return reply.dump();
    }
    uint64_t number = 0;
    if (command != "quit" && !Number(request.parameter, number)) {
      status(false, kCodeBadParameter, "Missing or bad parameter");
      return reply.dump();
    }
    std::string refused;
    if (command == "enable") refused = actions.enable(number);
    if (command == "disable") refused = actions.disable(number);
    if (command == "switchpool") refused = actions.switchPool(static_cast<uint32_t>(number));
    if (command == "quit") actions.quit();
    if (refused.empty()) {
      status(true, kCodeDone, command == "quit" ? "Quitting" : command + " " + request.parameter);
    } else {
      status(false, kCodeBadParameter, refused);
    }
  } else {
    status(false, kCodeInvalidCommand, "Invalid command");
  }
  return reply.dump();
}

std::string StatusJson(const RunSnapshot &snapshot, const std::string &description, int64_t now) {
  return Json{{"Miner", description},
              {"When", now},
              {"SUMMARY", Summary(snapshot)},
              {"DEVS", Devs(snapshot)},
              {"POOLS", Pools(snapshot)}}
      .dump();
}
