// The simulated hash cores' search speed on this machine: N boards of model 7
// (ten cores), each loaded with a job whose target nothing meets, searched for
// two seconds of wall time, on a thread per board or on one shared thread.
//   SearchRate/<boards>/<shared>   hashes_per_board and total, per second of
//                                  wall time; per_cpu_second, per second of
//                                  the process's processor time
// The wall-clock rates depend on whatever else runs on the machine, as they
// do beside a miner; the rate per processor second is the search's own.
#include <benchmark/benchmark.h>
#include <time.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

#include "hash/eaglesong.h"
#include "sim/blocks.h"
#include "sim/in_process.h"

namespace {

void WriteRegister(sim::Card &card, uint32_t address, uint32_t value) {
  card.Write(sim::Node::User, 0, address, &value, sizeof value);
}

// Clock on, and a job loaded as a host loads it, with a target of 0.
void LoadUnreachableJob(sim::Card &card) {
  WriteRegister(card, 0x004C, 3);
  WriteRegister(card, 0x406C, 0x10000);
  WriteRegister(card, 0x4064, 0);
  WriteRegister(card, 0x4080, 0);
  WriteRegister(card, 0x4084, 0);
  const uint32_t header[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  uint32_t midstate[16];
  EaglesongMidstate(header, midstate);
  for (uint32_t i = 0; i < 4; i++) WriteRegister(card, 0x4000 + 4 * i, 0x01020304u * (i + 1));
  for (uint32_t i = 0; i < 16; i++) WriteRegister(card, 0x4024 + 4 * i, midstate[i]);
  WriteRegister(card, 0x406C, 0);
}

double ProcessCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

uint64_t Hashes(sim::Card &card) {
  return card.WithFpga(0, [](sim::Fpga *fpga) { return fpga->HashCore()->Stats().hashes; });
}

void SearchRate(benchmark::State &state) {
  const int boards = static_cast<int>(state.range(0));
  const bool shared = state.range(1) != 0;
  sim::InProcessBoards simulated("/bench-hashcore");
  std::string list;
  for (int i = 0; i < boards; i++) {
    list += "xdma" + std::to_string(i) + " model=7 engine=" + (shared ? "shared" : "own") + "\n";
  }
  std::string error;
  if (!simulated.AddList(list, &error)) {
    state.SkipWithError(error.c_str());
    return;
  }
  for (int i = 0; i < boards; i++) LoadUnreachableJob(*simulated.Find("xdma" + std::to_string(i)));

  double seconds = 0.0;
  double cpuSeconds = 0.0;
  uint64_t hashes = 0;
  for (auto _ : state) {
    const double cpuBegin = ProcessCpuSeconds();
    simulated.StartSearch();
    const auto begin = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    simulated.StopSearch();
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    cpuSeconds += ProcessCpuSeconds() - cpuBegin;
    hashes = 0;
    for (int i = 0; i < boards; i++) hashes += Hashes(*simulated.Find("xdma" + std::to_string(i)));
  }
  state.counters["hashes_per_board"] = static_cast<double>(hashes) / boards / seconds;
  state.counters["total"] = static_cast<double>(hashes) / seconds;
  state.counters["per_cpu_second"] = cpuSeconds > 0 ? static_cast<double>(hashes) / cpuSeconds : 0.0;
}

BENCHMARK(SearchRate)
    ->ArgNames({"boards", "shared"})
    ->Args({1, 0})
    ->Args({2, 0})
    ->Args({2, 1})
    ->Args({4, 0})
    ->Args({4, 1})
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
