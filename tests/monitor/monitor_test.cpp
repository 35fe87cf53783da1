// The monitoring server's limits against real loop-back clients, the
// effective rate's windows, and the metrics that alert rules select on.
#include <gtest/gtest.h>
#include <netinet/tcp.h>

#include <cmath>
#include <fstream>
#include <sstream>
#include <string>
#include <tuple>

#include "monitor/api.h"
#include "monitor/effective_rate.h"
#include "monitor/http_pages.h"
#include "monitor/ledger.h"
#include "monitor/metrics.h"
#include "monitor/tcp_server.h"
#include "net/loopback_peer.h"

namespace {

using net_test::Peer;

int ConnectFd(uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = net_test::Loopback(port);
  if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) return fd;
  close(fd);
  return -1;
}
Peer Connect(uint16_t port) { return Peer(ConnectFd(port)); }

// Answers a request that ends in a line feed with `size` bytes.
struct Server {
  Server(size_t size, TcpServer::Limits limits, const std::string &where = "0")
      : server([](const std::string &request) { return !request.empty() && request.back() == '\n'; },
               [size](const std::string &, const std::string &) { return std::string(size, 'a'); }, limits) {
    std::string error;
    EXPECT_TRUE(server.Start(where, error)) << error;
  }
  TcpServer server;
};

// Each limit against a client that would be answered without it: a request
// within the size limit is answered and one byte more is not, though it comes
// whole and at once; two clients hold both places, so a third with a whole
// request is closed unanswered, and a place once free serves a newcomer.
TEST(MonitorServerTest, ClientsOverALimitAreCutOffUnanswered) {
  Server server(5, {2, 1024, 60});
  const uint16_t port = server.server.Port();
  {
    Peer inside = Connect(port);
    inside.Write(std::string(1023, 'x') + "\n");
    EXPECT_EQ(inside.Read(5), "aaaaa");
    Peer over = Connect(port);
    over.Write(std::string(1024, 'x') + "\n");
    EXPECT_TRUE(over.WaitForEnd());
    EXPECT_EQ(over.Read(1), "");
  }
  Peer first = Connect(port);
  Peer second = Connect(port);
  Peer third = Connect(port);
  third.Write("summary\n");
  EXPECT_TRUE(third.WaitForEnd());
  EXPECT_EQ(third.Read(1), "");
  first.Close();
  std::string answer;
  for (int attempt = 0; attempt < 100 && answer.empty(); attempt++) {
    Peer next = Connect(port);
    next.Write("summary\n");
    answer = next.Read(5);
  }
  EXPECT_EQ(answer, "aaaaa");
}

// A client that sends nothing, or never ends its request, is let go after the
// time limit without a word.
TEST(MonitorServerTest, ASilentClientIsCutOffAfterTheTimeLimit) {
  Server server(5, {2, 1024, 0.5});
  Peer silent = Connect(server.server.Port());
  Peer unfinished = Connect(server.server.Port());
  unfinished.Write("summ");
  EXPECT_TRUE(silent.WaitForEnd());
  EXPECT_TRUE(unfinished.WaitForEnd());
  EXPECT_EQ(silent.Read(1) + unfinished.Read(1), "");
}

// The TCP state of our end: established while the server holds the
// connection, close-wait once the server has closed it.
int TcpState(int fd) {
  tcp_info info{};
  socklen_t length = sizeof info;
  return getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &length) == 0 ? info.tcpi_state : -1;
}

TEST(MonitorServerTest, AClientThatDoesNotReadItsAnswerHoldsUpNoOther) {
  // Answers far larger than a socket's buffers and a long limit: a server
  // that sent inline would serve the reader only after giving up on the
  // stalled client.
  constexpr size_t kAnswer = 16 << 20;
  Server large(kAnswer, {4, 1024, 120});
  int stalled = ConnectFd(large.server.Port());
  ASSERT_EQ(send(stalled, "devs\n", 5, 0), 5);
  Peer reader = Connect(large.server.Port());
  reader.Write("devs\n");
  EXPECT_EQ(reader.Read(kAnswer).size(), kAnswer);
  EXPECT_TRUE(reader.WaitForEnd());
  EXPECT_EQ(TcpState(stalled), TCP_ESTABLISHED);  // still being served
  close(stalled);
}

// The local address of the socket listening on `port`, as the kernel lists it
// (hex, in network order), or empty.
std::string ListeningAddress(uint16_t port) {
  std::ifstream table("/proc/net/tcp");
  char wanted[8];
  snprintf(wanted, sizeof wanted, ":%04X", port);
  for (std::string line; std::getline(table, line);) {
    std::istringstream fields(line);
    std::string slot, local, remote, state;
    fields >> slot >> local >> remote >> state;
    if (state == "0A" && local.size() == 13 && local.substr(8) == wanted) return local.substr(0, 8);
  }
  return "";
}

TEST(MonitorServerTest, APortAloneListensOnThisMachineOnly) {
  const std::pair<const char *, const char *> rows[] = {
      {"0", "0100007F"}, {":0", "0100007F"}, {"localhost:0", "0100007F"}, {"0.0.0.0:0", "00000000"}};
  for (const auto &[where, address] : rows) {
    Server server(5, {}, where);
    EXPECT_EQ(ListeningAddress(server.server.Port()), address) << where;
  }
  std::string error;
  TcpServer server([](const std::string &) { return true; },
                   [](const std::string &, const std::string &) { return std::string(); });
  EXPECT_FALSE(server.Start("pool.example:4028", error));
  EXPECT_FALSE(server.Start("127.0.0.1:70000", error));
}

TEST(EffectiveRateTest, AcceptedSharesStandForTheirDifficultyOverEachWindow) {
  const double perShare = std::ldexp(1.0, 48) / 65535.0;
  EXPECT_DOUBLE_EQ(HashesPerShare(2), 2 * perShare);

  EffectiveRate rate;
  rate.Add(10, 1);
  rate.Add(50, 2);
  rate.Add(58, 0.5);
  // A run 60 s old: the minute window is the whole run, the 15 minutes too.
  EXPECT_DOUBLE_EQ(rate.PerSecond(60, 60, 0), 3.5 * perShare / 60);
  EXPECT_DOUBLE_EQ(rate.PerSecond(60, 900, 0), 3.5 * perShare / 60);
  EXPECT_DOUBLE_EQ(rate.PerSecond(60, 5, 0), 0.5 * perShare / 5);
  EXPECT_DOUBLE_EQ(rate.PerSecond(60, 5, 60), 0);  // no time has passed

  // Shares older than 15 minutes leave the windows, not the total.
  rate.Add(1000, 1);
  EXPECT_DOUBLE_EQ(rate.PerSecond(1000, 900, 0), perShare / 900);
  EXPECT_DOUBLE_EQ(rate.TotalHashes(), 4.5 * perShare);
}

// Each answer is credited to its board, its pool and the run; jobs and
// reconnects to their pool; an answer for no known board still counts in all.
TEST(LedgerTest, EveryCounterMonitoringShowsMovesWithWhatItCounts) {
  RunLedger ledger;
  ledger.Open(2, 2, 0);
  ledger.ShareAnswered(1, 1, 1, true, 5, 1005);
  ledger.ShareAnswered(1, 1, 1, false, 6, 1006);
  ledger.ShareAnswered(0, 0, 1, false, 7, 1007);
  ledger.ShareAnswered(9, 0, 1, true, 8, 1008);
  ledger.Job(1, 1009);
  ledger.Job(1, 1010);
  ledger.Reconnect(1);
  using Counts = std::pair<uint64_t, uint64_t>;  // accepted, rejected
  auto counts = [](const ShareTally &tally) { return Counts(tally.accepted, tally.rejected); };
  EXPECT_EQ(counts(ledger.Total()), Counts(2, 2));
  EXPECT_EQ(counts(ledger.Board(0)), Counts(0, 1));
  EXPECT_EQ(counts(ledger.Board(1)), Counts(1, 1));
  EXPECT_EQ(counts(ledger.Pool(0)), Counts(1, 1));
  PoolTally second = ledger.Pool(1);
  EXPECT_EQ(counts(second), Counts(1, 1));
  EXPECT_EQ(second.lastShareTime, 1005);  // the last accepted one
  EXPECT_EQ(second.jobs, 2u);
  EXPECT_EQ(second.lastJobTime, 1010);
  EXPECT_EQ(second.reconnects, 1u);
  EXPECT_EQ(ledger.Pool(0).jobs + ledger.Pool(0).reconnects, 0u);
}

TEST(MetricsTest, StatesThrottleAndRejectReasonsAreSeriesAlertsCanSelect) {
  RunSnapshot run;
  run.boards.resize(2);
  run.boards[0] = {.id = 1, .model = "RK35", .status = "Dead", .throttleMHz = 0};
  run.boards[1] = {.id = 2, .model = "101", .status = "Alive", .throttleMHz = 3};
  run.pools.push_back({.priority = 1, .url = "stratum+tcp://b:1", .rejectedByReason = {{"other", 2}, {"a \"b\"", 1}}});
  std::string text = MetricsText(run, "1.0");
  for (const char *line : {
           "ombry_board_state{board=\"1\",model=\"RK35\",state=\"dead\"} 1\n",
           "ombry_board_state{board=\"1\",model=\"RK35\",state=\"alive\"} 0\n",
           "ombry_board_state{board=\"2\",model=\"101\",state=\"alive\"} 1\n",
           "ombry_board_throttle_hertz{board=\"1\",model=\"RK35\"} 0\n",
           "ombry_board_throttle_hertz{board=\"2\",model=\"101\"} 3000000\n",
           "ombry_pool_shares_rejected_total{pool=\"1\",url=\"stratum+tcp://b:1\",reason=\"other\"} 2\n",
           "ombry_pool_shares_rejected_total{pool=\"1\",url=\"stratum+tcp://b:1\",reason=\"a \\\"b\\\"\"} 1\n",
       }) {
    EXPECT_NE(text.find(line), std::string::npos) << line;
  }
}

// A request nested past the limit is answered at once, and refused.
TEST(ApiRequestTest, RequestsPastTheNestingLimitAreCompleteAndRefused) {
  const std::string deep = R"({"command":"summary","parameter":)" + std::string(64, '[') + std::string(64, ']') + "}";
  const std::string fits = R"({"command":"summary","parameter":)" + std::string(63, '[') + std::string(63, ']') + "}";
  ApiRequest request;
  EXPECT_TRUE(ApiRequestComplete(deep));
  EXPECT_FALSE(ParseApiRequest(deep, request));
  EXPECT_TRUE(ApiRequestComplete(fits));
  EXPECT_FALSE(ApiRequestComplete(fits.substr(0, fits.size() - 1)));
  EXPECT_FALSE(ParseApiRequest(fits, request));  // a parameter must be text or a number
  EXPECT_TRUE(ParseApiRequest(R"({"command":"summary","parameter":1})", request));
  EXPECT_EQ(request.command, "summary");
}

// Each path gets its own body and type, a body is made only when its path is
// asked for, and everything else is 404; the page loads nothing from elsewhere.
TEST(HttpPagesTest, EachPathGetsItsBodyAndEverythingElseIsNotFound) {
  int metricsMade = 0, statusMade = 0;
  HttpContent content;
  content.metrics = [&] { return metricsMade++, std::string("ombry_up 1\n"); };
  content.status = [&] { return statusMade++, std::string("{\"Miner\":\"m\"}"); };
  // Request, status, Content-Type (none for 404), metrics made, page served.
  const std::tuple<const char *, const char *, const char *, int, bool> cases[] = {
      {"GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n", "200 OK", "text/plain; version=0.0.4", 1, false},
      {"GET /status.json?t=1 HTTP/1.0\n\n", "200 OK", "application/json", 0, false},
      {"GET / HTTP/1.1\r\n\r\n", "200 OK", "text/html", 0, true},
      {"GET /index.html HTTP/1.1\r\n\r\n", "200 OK", "text/html", 0, true},
      {"POST / HTTP/1.1\r\n\r\n", "404 Not Found", nullptr, 0, false},
      {"GET /metrics HTTP/2\r\n\r\n", "404 Not Found", nullptr, 0, false},
      {"GET /metricsx HTTP/1.1\r\n\r\n", "404 Not Found", nullptr, 0, false},
      {"GET HTTP/1.1\r\n\r\n", "404 Not Found", nullptr, 0, false},
  };
  for (const auto &[request, status, type, metrics, page] : cases) {
    SCOPED_TRACE(request);
    int metricsBefore = metricsMade;
    std::string answer = HttpAnswer(request, content);
    EXPECT_EQ(answer.rfind(std::string("HTTP/1.1 ") + status + "\r\n", 0), 0u);
    std::string head = answer.substr(0, answer.find("\r\n\r\n"));
    std::string body = answer.substr(head.size() + 4);
    EXPECT_NE(head.find("Content-Length: " + std::to_string(body.size()) + "\r\n"), std::string::npos);
    if (type) { EXPECT_NE(head.find(std::string("Content-Type: ") + type), std::string::npos); }
    EXPECT_EQ(metricsMade - metricsBefore, metrics);
    EXPECT_EQ(body == StatusPage(), page);
  }
  EXPECT_EQ(statusMade, 1);
  EXPECT_NE(HttpAnswer("GET / HTTP/1.1\r\n\r\n", content).find("Content-Security-Policy: default-src 'none';"),
            std::string::npos);
  // Self-contained: no address of anything beyond the miner itself.
  for (const char *outside : {"http:", "https:", "//", "src=", "@import", "url("}) {
    EXPECT_EQ(StatusPage().find(outside), std::string::npos) << outside;
  }
}

}  // namespace
