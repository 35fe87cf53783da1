// Watching a run from outside: the JSON API and the metrics endpoint of the
// running miner against what the test pool itself counted, privileged
// commands by the client's address, and the log file through a rotation.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cctype>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "e2e/miner_run.h"

namespace e2e {
namespace {

using Json = nlohmann::json;

// The sum of the samples of `name` whose labels contain `label`, in a
// Prometheus text exposition (promtool lints its format in the fleet test).
double SumSamples(const std::string &text, const std::string &name, const std::string &label) {
  std::istringstream lines(text);
  double sum = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(name + "{", 0) == 0 && line.find(label) != std::string::npos) {
      sum += std::stod(line.substr(line.rfind(' ')));
    }
  }
  return sum;
}

TEST(Monitoring, TheApiAndTheMetricsAgreeWithThePoolAndOnlyAllowedAddressesCommand) {
  // Every 4th good share is refused as some pools do: result false, no error.
  MinerRun run(kTwoBoards, {"--difficulty", "0.002", "--reject-every", "4", "--reject-with", "none"});
  std::string logFile = run.WorkDir().string() + "/miner.log";
  ASSERT_TRUE(run.Start({"--api-listen", "127.0.0.1:0", "--api-allow", "127.0.0.1", "--metrics-listen", "127.0.0.1:0",
                         "--log-file", logFile}));
  ASSERT_TRUE(run.Until([&] { return run.Pool("accepted") >= 10; })) << run.Output();
  uint16_t api = PortAfter(run, "JSON API listening on port ");
  uint16_t metrics = PortAfter(run, "Metrics on port ");
  ASSERT_NE(api, 0);
  ASSERT_NE(metrics, 0);

  // Privileged commands by address: refused from 127.0.0.2, which may still
  // read, and done from 127.0.0.1. The password is never shown.
  EXPECT_EQ(Api(api, "version", "127.0.0.2")["STATUS"][0]["STATUS"], "S");
  EXPECT_EQ(Api(api, "config")["CONFIG"][0]["Password"], "***");
  Json refused = Api(api, R"({"command":"disable","parameter":"1"})", "127.0.0.2");
  EXPECT_EQ(refused["STATUS"][0]["STATUS"], "E");
  EXPECT_EQ(refused["STATUS"][0]["Code"], 45);
  EXPECT_EQ(refused["STATUS"][0]["Msg"], "Access denied");
  EXPECT_EQ(Api(api, "disable|3")["STATUS"][0]["STATUS"], "E");  // no such board
  EXPECT_EQ(Api(api, R"({"command":"disable","parameter":"1"})")["STATUS"][0]["STATUS"], "S");
  EXPECT_EQ(Api(api, "disable|2\n")["STATUS"][0]["STATUS"], "S");
  ASSERT_TRUE(run.Until([&] { return run.Count("I/Worker02     : Stopped") == 1; }, 30s)) << run.Output();
  ASSERT_EQ(run.Count("I/Worker01     : Stopped"), 1u);

  // Both boards stopped: once the pool has answered everything, its counts
  // and the API's must be the same, in the summary and board by board.
  Json summary, devs;
  ASSERT_TRUE(run.Until(
      [&] {
        run.Pump(500ms);
        summary = Api(api, "summary")["SUMMARY"][0];
        return run.Pool("submits") == run.Pool("accepted") + run.Pool("rejected") &&
               summary["Accepted"] == run.Pool("accepted") && summary["Rejected"] == run.Pool("rejected");
      },
      30s))
      << summary.dump() << "\n"
      << run.PoolProcess().Stats();
  devs = Api(api, "devs")["DEVS"];
  ASSERT_EQ(devs.size(), 2u);
  uint64_t boardAccepted = 0;
  for (const Json &board : devs) {
    EXPECT_EQ(board["Status"], "Disabled");
    EXPECT_LE(board["Accepted"].get<uint64_t>(), board["Found"].get<uint64_t>());
    EXPECT_GT(board["Accepted"].get<uint64_t>(), 0u);
    boardAccepted += board["Accepted"].get<uint64_t>();
  }
  EXPECT_EQ(boardAccepted, run.Pool("accepted"));
  EXPECT_GT(summary["MHS 1m"].get<double>(), 0);
  Json pools = Api(api, "pools")["POOLS"];
  ASSERT_EQ(pools.size(), 1u);
  EXPECT_EQ(pools[0]["Accepted"], run.Pool("accepted"));
  EXPECT_EQ(pools[0]["Status"], "Alive");
  EXPECT_GE(pools[0]["Jobs"].get<uint64_t>(), 1u);
  uint64_t byReason = 0;
  for (const auto &entry : pools[0]["Rejected By Reason"].items()) byReason += entry.value().get<uint64_t>();
  EXPECT_EQ(byReason, run.Pool("rejected"));
  EXPECT_GT(run.Pool("forced"), 0u);
  EXPECT_EQ(pools[0]["Rejected By Reason"]["none_given"], run.Pool("forced"));

  std::string scrape = Ask(metrics, "GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_EQ(scrape.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << scrape;
  std::string body = scrape.substr(scrape.find("\r\n\r\n") + 4);
  EXPECT_EQ(SumSamples(body, "ombry_shares_total", "result=\"accepted\""), static_cast<double>(run.Pool("accepted")));
  EXPECT_EQ(SumSamples(body, "ombry_pool_up", "pool=\"0\""), 1);
  EXPECT_EQ(SumSamples(body, "ombry_pool_shares_rejected_total", "reason=\"none_given\""),
            static_cast<double>(run.Pool("forced")));
  EXPECT_EQ(Ask(metrics, "GET /other HTTP/1.1\r\n\r\n").rfind("HTTP/1.1 404", 0), 0u);

  // The log file gets the console's lines, stamped and without colour, and
  // a rotation (rename, SIGUSR1) starts a new file.
  std::filesystem::rename(logFile, logFile + ".1");
  run.Child().Signal(SIGUSR1);
  EXPECT_EQ(Api(api, "enable|1")["STATUS"][0]["STATUS"], "S");
  ASSERT_TRUE(run.Until([&] { return run.Count("API: enabling device 1") == 1; }, 30s));
  ASSERT_TRUE(
      run.Until([&] { return std::filesystem::exists(logFile) && std::filesystem::file_size(logFile) > 0; }, 30s));
  std::ifstream rotated(logFile + ".1");
  std::string first;
  std::getline(rotated, first);
  // Stamped in UTC to the millisecond: "2026-11-24T18:58:24.123Z ".
  const std::string shape = "dddd-dd-ddTdd:dd:dd.dddZ ";  // d: any digit
  bool stamped = first.size() > shape.size();
  for (size_t i = 0; stamped && i < shape.size(); i++) {
    stamped = shape[i] == 'd' ? isdigit(static_cast<unsigned char>(first[i])) != 0 : first[i] == shape[i];
  }
  EXPECT_TRUE(stamped) << first;
  std::stringstream all;
  all << rotated.rdbuf();
  EXPECT_EQ(all.str().find('\x1b'), std::string::npos);
  EXPECT_NE(all.str().find("Share Accepted!"), std::string::npos);

  EXPECT_EQ(Api(api, "quit")["STATUS"][0]["STATUS"], "S");
  EXPECT_EQ(run.Child().Wait(), 0);
}

}  // namespace
}  // namespace e2e
