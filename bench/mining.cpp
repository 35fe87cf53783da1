// The miner's reaction times against in-process simulated boards, with this
// benchmark playing the pool over loopback TCP:
//   NotifyToJobLoad/<boards>   from the mining.notify line leaving the pool to
//                              the last register write of the job load (the
//                              release of the cores), first and last board
//   FlagToSubmit/<boards>      from a result flag rising on a board to the
//                              mining.submit line reaching the pool
//   WorkerCpu/<boards>         processor time of the worker threads per board
//                              while they mine (the simulator's search runs
//                              on threads of its own and isn't counted)
// The boards search slowly (50 kH/s each): the benchmark posts the results
// itself, so that it knows when each flag rose.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "board/dma_device.h"
#include "hash/eaglesong.h"
#include "rig/run_records.h"
#include "rig/worker.h"
#include "sim/blocks.h"
#include "sim/in_process.h"
#include "stratum/session.h"
#include "stratum/share.h"

namespace {

using Clock = std::chrono::steady_clock;

// The pool's side of one connection: answers the handshake, then sends what
// the benchmark asks for and stamps each mining.submit line as it arrives.
class LoopbackPool {
 public:
  LoopbackPool() {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(listener_, reinterpret_cast<sockaddr *>(&address), sizeof address);
    listen(listener_, 1);
    socklen_t length = sizeof address;
    getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &length);
    port_ = ntohs(address.sin_port);
  }
  ~LoopbackPool() {
    if (connection_ >= 0) shutdown(connection_, SHUT_RDWR);
    if (reader_.joinable()) reader_.join();
    if (connection_ >= 0) close(connection_);
    close(listener_);
  }
  uint16_t Port() const { return port_; }

  // Accepts the miner and answers subscribe, extranonce subscribe and
  // authorize in order; then reads on its own thread.
  void Serve(double difficulty) {
    connection_ = accept(listener_, nullptr, nullptr);
    std::string pending;
    int answered = 0;
    while (answered < 3) {
      char buffer[4096];
      ssize_t got = recv(connection_, buffer, sizeof buffer, 0);
      if (got <= 0) return;
      pending.append(buffer, static_cast<size_t>(got));
      for (size_t end; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1)) {
        std::string line = pending.substr(0, end);
        if (line.find("\"mining.subscribe\"") != std::string::npos) {
          Send(R"({"id":1,"result":[[["mining.notify","0001"]],"a1a2a3a4",12],"error":null})");
        } else if (line.find("mining.extranonce.subscribe") != std::string::npos) {
          Send(R"({"id":2,"result":true,"error":null})");
        } else if (line.find("mining.authorize") != std::string::npos) {
          Send(R"({"id":3,"result":true,"error":null})");
          char text[128];
          snprintf(text, sizeof text, R"({"id":null,"method":"mining.set_difficulty","params":[%.12f]})", difficulty);
          Send(text);
        }
        answered++;
      }
    }
    reader_ = std::thread([this] { Read(); });
  }

  void Notify(uint32_t serial) {
    char header[65];
    for (int i = 0; i < 8; i++) snprintf(header + 8 * i, 9, "%08x", serial * 2654435761u + static_cast<uint32_t>(i));
    std::string line = R"({"id":null,"method":"mining.notify","params":["job)" + std::to_string(serial) + R"(",")" +
                       header + R"(",1000,")" + std::string(64, '0') + R"(",true]})";
    Send(line);
  }

  uint64_t Submits() const { return submits_.load(); }
  Clock::time_point LastSubmitAt() const { return Clock::time_point(Clock::duration(lastSubmitAt_.load())); }

 private:
  void Send(const std::string &line) {
    std::string framed = line + "\n";
    (void)send(connection_, framed.data(), framed.size(), MSG_NOSIGNAL);
  }
  void Read() {
    std::string pending;
    for (;;) {
      char buffer[4096];
      ssize_t got = recv(connection_, buffer, sizeof buffer, 0);
      if (got <= 0) return;
      auto now = Clock::now();
      pending.append(buffer, static_cast<size_t>(got));
      for (size_t end; (end = pending.find('\n')) != std::string::npos; pending.erase(0, end + 1)) {
        if (pending.substr(0, end).find("\"mining.submit\"") != std::string::npos) {
          lastSubmitAt_.store(now.time_since_epoch().count());
          submits_.fetch_add(1);
        }
      }
    }
  }

  int listener_ = -1;
  int connection_ = -1;
  uint16_t port_ = 0;
  std::thread reader_;
  std::atomic<uint64_t> submits_{0};
  std::atomic<Clock::rep> lastSubmitAt_{0};
};

// N boards of model 7 with their workers on threads this rig joins, mining
// against the loopback pool.
class MiningRig {
 public:
  MiningRig(int boards, double difficulty) : simulated_("/bench-mining") {
    std::string list;
    // A slow search: the workers measure a hash rate and size their reloads
    // by it as on real boards, and nothing the boards find by themselves is
    // near a share.
    for (int i = 0; i < boards; i++) list += "xdma" + std::to_string(i) + " model=7 ratecap=0.05\n";
    std::string error;
    simulated_.AddList(list, &error);
    simulated_.Install();
    simulated_.StartSearch();
    context_.poolHost = "127.0.0.1";
    context_.poolPort = pool_.Port();
    context_.account = "bench.rig";
    context_.password = "x";
    std::thread serve([&] { pool_.Serve(difficulty); });
    auto client = std::shared_ptr<VLJsonRpcClient>(VLJsonRpcClientCreate(), VLJsonRpcClientDestroy);
    context_.ExchangeClient(client);
    StratumConnect(client.get(), context_);
    serve.join();
    WaitFor([&] { return context_.stratumState == Mining; });
    pool_.Notify(0);
    WaitFor([&] {
      auto job = context_.CurrentJob();
      return job && !job->jobId.empty();
    });

    for (int i = 0; i < boards; i++) {
      auto worker = std::make_unique<Worker>();
      worker->id = static_cast<uint64_t>(i);
      worker->device.reset(BRYLDMADeviceOpen(simulated_.DevicePath("xdma" + std::to_string(i)), 0));
      worker->model = 7;
      worker->layoutVersion = 1;
      worker->enabled = true;
      // One clock step above the start: until its first step a worker
      // reloads its board every 20 ms.
      worker->targetClockHz = 125000000;
      context_.workers.push_back(std::move(worker));
      cards_.push_back(simulated_.Find("xdma" + std::to_string(i)));
    }
    for (int i = 0; i < boards; i++) {
      threads_.emplace_back(WorkerMain, new WorkerThreadArgs{static_cast<uint64_t>(i), &context_});
    }
    for (auto &worker : context_.workers) {
      WaitFor([&] { return worker->state == WorkerStateRunning && worker->currentClockHz == worker->targetClockHz; });
    }
    WaitFor([&] { return AllLoaded(Midstate(context_.CurrentJob())); });
  }
  ~MiningRig() {
    for (auto &worker : context_.workers) worker->enabled = false;
    for (auto &thread : threads_) thread.join();
    context_.workers.clear();  // their devices close before the boards go
    StratumShutdown(context_);
    simulated_.Uninstall();
  }

  LoopbackPool &Pool() { return pool_; }
  MiningContext &Context() { return context_; }
  sim::Card &Card(size_t board) { return *cards_[board]; }
  std::vector<std::thread> &Threads() { return threads_; }

  static uint32_t Midstate(const std::shared_ptr<StratumJob> &job) {
    uint32_t header[8], midstate[16];
    memcpy(header, job->headerHash.data(), sizeof header);
    EaglesongMidstate(header, midstate);
    return midstate[15];
  }
  bool Loaded(size_t board, uint32_t lastMidstateWord) {
    return cards_[board]->WithFpga(0, [&](sim::Fpga *fpga) {
      return fpga->HashCore()->Latched(sim::HashCoreBlock::kMidstate + 60) == lastMidstateWord &&
             !fpga->HashCore()->Held();
    });
  }
  bool AllLoaded(uint32_t lastMidstateWord) {
    for (size_t board = 0; board < cards_.size(); board++) {
      if (!Loaded(board, lastMidstateWord)) return false;
    }
    return true;
  }

  template <typename Predicate>
  static void WaitFor(Predicate predicate) {
    auto deadline = Clock::now() + std::chrono::seconds(30);
    while (!predicate()) {
      if (Clock::now() > deadline) {
        fprintf(stderr, "bench_mining: the rig did not come up\n");
        abort();
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

 private:
  MiningContext context_;
  sim::InProcessBoards simulated_;
  LoopbackPool pool_;
  std::vector<sim::Card *> cards_;
  std::vector<std::thread> threads_;
};

void NotifyToJobLoad(benchmark::State &state) {
  const auto boards = static_cast<size_t>(state.range(0));
  MiningRig rig(static_cast<int>(boards), 1.0);
  uint32_t serial = 1;
  double firstSum = 0, lastSum = 0;
  for (auto _ : state) {
    // The header of the coming job, to know its midstate in advance.
    char headerText[65];
    for (int i = 0; i < 8; i++)
      snprintf(headerText + 8 * i, 9, "%08x", serial * 2654435761u + static_cast<uint32_t>(i));
    auto expected = std::make_shared<StratumJob>();
    for (int i = 0; i < 32; i++) {
      unsigned byte;
      sscanf(headerText + 2 * i, "%2x", &byte);
      expected->headerHash[static_cast<size_t>(i)] = static_cast<uint8_t>(byte);
    }
    uint32_t word = MiningRig::Midstate(expected);

    std::vector<double> seen(boards, 0.0);
    size_t remaining = boards;
    auto start = Clock::now();
    rig.Pool().Notify(serial++);
    while (remaining > 0) {
      for (size_t board = 0; board < boards; board++) {
        if (seen[board] == 0.0 && rig.Loaded(board, word)) {
          seen[board] = std::chrono::duration<double>(Clock::now() - start).count();
          remaining--;
        }
      }
      std::this_thread::yield();
    }
    double first = seen[0], last = seen[0];
    for (double s : seen) {
      first = std::min(first, s);
      last = std::max(last, s);
    }
    firstSum += first;
    lastSum += last;
    state.SetIterationTime(last);
  }
  auto n = static_cast<double>(state.iterations());
  state.counters["first_board_ms"] = firstSum / n * 1e3;
  state.counters["last_board_ms"] = lastSum / n * 1e3;
}

// A counter value whose hash, on core 0 with the slot's nonce block, meets
// the job's target; searched from `from` on.
uint32_t FindShareCounter(const StratumJob &job, const uint32_t block[4], uint32_t from) {
  uint32_t header[8];
  memcpy(header, job.headerHash.data(), sizeof header);
  for (uint32_t counter = from;; counter++) {
    uint32_t words[4], digest[8], hash[8];
    CandidateNonceWords(block, 0, counter, words);
    EaglesongHash48(header, words, digest);
    EaglesongDigestNumber(digest, hash);
    if (JudgeHash(hash, job.target, job.target).code == CandidateShare) return counter;
  }
}

void FlagToSubmit(benchmark::State &state) {
  const auto boards = static_cast<size_t>(state.range(0));
  // About one hash in 65536 is a share (the least any hash needs), so that
  // finding one costs the benchmark little; the miner's work per result
  // doesn't depend on it.
  MiningRig rig(static_cast<int>(boards), 1.0 / 65536.0);
  std::shared_ptr<StratumJob> job = rig.Context().CurrentJob();
  uint32_t from = 1000;
  size_t board = 0;
  for (auto _ : state) {
    sim::Card &card = rig.Card(board);
    board = (board + 1) % boards;
    // A worker may reload its board while the benchmark searches (a clock
    // step, a refresh); a result for a load that is gone is invalid and
    // sends nothing, so such a round is tried again.
    bool sent = false;
    for (int attempt = 0; attempt < 5 && !sent; attempt++) {
      uint32_t block[4];
      auto readBlock = [&](uint32_t words[4]) {
        card.WithFpga(0, [&](sim::Fpga *fpga) {
          for (uint32_t i = 0; i < 4; i++)
            words[i] = fpga->HashCore()->Latched(sim::HashCoreBlock::kNonceBlock + 4 * i);
          return 0;
        });
      };
      readBlock(block);
      uint32_t counter = FindShareCounter(*job, block, from);
      from = counter + 1;
      uint32_t now[4];
      readBlock(now);
      if (memcmp(now, block, sizeof now) != 0) continue;
      uint64_t before = rig.Pool().Submits();
      auto start = Clock::now();
      card.WithFpga(0, [&](sim::Fpga *fpga) {
        fpga->HashCore()->PostResult(0, counter + 43);
        return 0;
      });
      auto deadline = start + std::chrono::seconds(2);
      while (rig.Pool().Submits() == before && Clock::now() < deadline) std::this_thread::yield();
      if (rig.Pool().Submits() == before) continue;
      state.SetIterationTime(std::chrono::duration<double>(rig.Pool().LastSubmitAt() - start).count());
      sent = true;
    }
    if (!sent) {
      state.SkipWithError("no mining.submit reached the pool");
      break;
    }
  }
}

double ThreadCpuSeconds(std::thread &thread) {
  clockid_t clock;
  pthread_getcpuclockid(thread.native_handle(), &clock);
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void WorkerCpu(benchmark::State &state) {
  const auto boards = static_cast<size_t>(state.range(0));
  MiningRig rig(static_cast<int>(boards), 1.0);
  double cpu = 0, wall = 0;
  for (auto _ : state) {
    double before = 0;
    for (auto &thread : rig.Threads()) before += ThreadCpuSeconds(thread);
    auto start = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    double after = 0;
    for (auto &thread : rig.Threads()) after += ThreadCpuSeconds(thread);
    cpu += after - before;
    wall += elapsed;
    state.SetIterationTime(elapsed);
  }
  state.counters["cpu_percent_per_board"] = cpu / wall / static_cast<double>(boards) * 100.0;
}

}  // namespace

BENCHMARK(NotifyToJobLoad)->Arg(1)->Arg(4)->Arg(16)->Iterations(50)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(FlagToSubmit)->Arg(1)->Arg(4)->Arg(16)->Iterations(50)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(WorkerCpu)->Arg(1)->Arg(4)->Arg(16)->Iterations(3)->UseManualTime()->Unit(benchmark::kSecond);
