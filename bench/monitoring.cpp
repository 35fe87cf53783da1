// Monitoring figures: what one API or metrics scrape costs the miner, as the
// answer alone (snapshot of an eight-board run, reply text) and as a whole
// request over loop-back through the server thread.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <cstdlib>

#include "rig/monitoring.h"
#include "monitor/api.h"
#include "monitor/http_pages.h"
#include "monitor/metrics.h"
#include "monitor/tcp_server.h"
#include "stratum/session.h"

namespace {

constexpr size_t kBoards = 8;

// An eight-board run with a pool and some answered shares.
struct EightBoards {
  EightBoards() {
    context.pools.resize(2);
    context.pools[0].host = "pool.example";
    context.pools[1].host = "backup.example";
    for (size_t i = 0; i < kBoards; i++) {
      auto worker = std::make_unique<Worker>();
      worker->id = i;
      worker->enabled = true;
      worker->modelName = "RK35";
      worker->coreTemperature = 61.5;
      worker->vrmTemperature = 70.0;
      worker->vccint = 0.85;
      worker->currentClockHz = 250000000;
      context.workers.push_back(std::move(worker));
    }
    double now = StratumMonotonicSeconds();
    context.ledger.Open(kBoards, 2, now - 600);
    for (int share = 0; share < 2000; share++) {
      context.ledger.ShareAnswered(share % kBoards, 0, 4.0, share % 50 != 0, now - 600 + share * 0.3, 0);
    }
  }
  MiningContext context;
};

EightBoards &Run() {
  static EightBoards *run = new EightBoards;
  return *run;
}

ApiActions NoActions() {
  ApiActions actions;
  actions.enable = actions.disable = [](uint64_t) { return std::string(); };
  actions.switchPool = [](uint32_t) { return std::string(); };
  actions.quit = [] {};
  return actions;
}

void BM_ApiDevsAnswer(benchmark::State &state) {
  ApiActions actions = NoActions();
  for (auto _ : state) {
    RunSnapshot snapshot = TakeRunSnapshot(Run().context, StratumMonotonicSeconds());
    benchmark::DoNotOptimize(ApiReply("{\"command\":\"devs\"}", false, snapshot, actions, "ombry-miner", 0));
  }
}
BENCHMARK(BM_ApiDevsAnswer)->Unit(benchmark::kMicrosecond);

void BM_MetricsAnswer(benchmark::State &state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(MetricsText(TakeRunSnapshot(Run().context, StratumMonotonicSeconds()), "1"));
  }
}
BENCHMARK(BM_MetricsAnswer)->Unit(benchmark::kMicrosecond);

// A whole request: connect, send, the server thread answers, read to close.
void Scrape(benchmark::State &state, TcpServer::Complete complete, TcpServer::Answer answer,
            const std::string &request) {
  TcpServer server(std::move(complete), std::move(answer));
  std::string error;
  if (!server.Start("127.0.0.1:0", error)) {
    state.SkipWithError(error.c_str());
    return;
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(server.Port());
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  char buffer[65536];
  for (auto _ : state) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) abort();
    (void)!write(fd, request.data(), request.size());
    size_t total = 0;
    for (ssize_t n; (n = read(fd, buffer, sizeof buffer)) > 0;) total += static_cast<size_t>(n);
    close(fd);
    benchmark::DoNotOptimize(total);
  }
}

void BM_ApiDevsScrapeOverLoopback(benchmark::State &state) {
  ApiActions actions = NoActions();
  Scrape(
      state, ApiRequestComplete,
      [&](const std::string &request, const std::string &) {
        return ApiReply(request, false, TakeRunSnapshot(Run().context, StratumMonotonicSeconds()), actions,
                        "ombry-miner", 0);
      },
      "{\"command\":\"devs\"}");
}
BENCHMARK(BM_ApiDevsScrapeOverLoopback)->Unit(benchmark::kMicrosecond);

void BM_MetricsScrapeOverLoopback(benchmark::State &state) {
  Scrape(
      state, HttpRequestComplete,
      [](const std::string &request, const std::string &) {
        HttpContent content;
        content.metrics = [] { return MetricsText(TakeRunSnapshot(Run().context, StratumMonotonicSeconds()), "1"); };
        return HttpAnswer(request, content);
      },
      "GET /metrics HTTP/1.1\r\nHost: rig\r\n\r\n");
}
BENCHMARK(BM_MetricsScrapeOverLoopback)->Unit(benchmark::kMicrosecond);

}  // namespace
