// Host-side Eaglesong speed, one thread (so every rate is per core):
//   Hash48            single 48-byte hashes, two permutations each
//   Search1280/<path> the candidates of one reported nonce on a 20-core board
//                     (20 x 64), none within the bound, so all are hashed;
//                     the time per iteration is the time for all 1280;
//                     paths: 1 portable, 2 AVX2, 3 AVX-512
// Run in this order, each search also shows `vs_scalar`, its candidate rate
// over the Hash48 rate measured just before it.
#include <benchmark/benchmark.h>

#include <time.h>

#include <cstdint>
#include <vector>

#include "hash/eaglesong.h"
#include "hash/eaglesong_lanes.h"

namespace {

constexpr uint32_t kHeader[8] = {0x8a1b2c3d, 0x4e5f6071, 0x8293a4b5, 0xc6d7e8f9,
                                 0x0a1b2c3d, 0x4e5f6a7b, 0x8c9dae0f, 0x10213243};
constexpr uint32_t kCores = 20;
constexpr size_t kCandidates = kCores * 64;

double g_scalarHashesPerSecond = 0;

// Rate of the loop it wraps, by this thread's CPU time (as the rate
// counters use), for the cross-benchmark ratio. The cores are shared, so wall
// time would count other processes.
class RateClock {
 public:
  RateClock() : start_(Now()) {}
  double PerSecond(double items) const {
    const double elapsed = Now() - start_;
    return elapsed > 0 ? items / elapsed : 0;
  }

 private:
  static double Now() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
  }
  double start_;
};

// Candidates in the order a reported nonce is worked back: core numbers
// innermost, then the skew 0, 0, +1, -1, ...
std::vector<EaglesongNonceTail> IntakeTails(uint32_t word2, uint32_t word3, uint32_t reported) {
  std::vector<EaglesongNonceTail> tails;
  for (uint32_t t = 0; t < kCandidates; ++t) {
    const uint32_t k = t / 64;
    const uint32_t skew = (k % 2 == 0) ? k / 2 : 0u - k / 2;
    tails.push_back({word2 ^ (t % 64), word3 ^ (reported + skew - 43)});
  }
  return tails;
}

void Hash48(benchmark::State &state) {
  uint32_t nonce[4] = {0x01020304, 0x05060708, 0, 0};
  uint32_t digest[8];
  RateClock clock;
  for (auto _ : state) {
    ++nonce[3];
    EaglesongHash48(kHeader, nonce, digest);
    benchmark::DoNotOptimize(digest);
  }
  g_scalarHashesPerSecond = clock.PerSecond(static_cast<double>(state.iterations()));
  state.counters["hashes/s"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(Hash48);

void Search1280(benchmark::State &state) {
  const auto path = static_cast<EaglesongLanePath>(state.range(0));
  if (!EaglesongLanePathSupported(path)) {
    state.SkipWithError("path not supported by this CPU");
    return;
  }
  state.SetLabel(EaglesongLanePathName(path));
  const uint32_t bound[8] = {};  // nothing qualifies: the worst case, an invalid nonce
  const std::vector<EaglesongNonceTail> tails = IntakeTails(0x0a0b0c00, 0x0d0e0f10, 0x1000);
  size_t found = 0;
  RateClock clock;
  for (auto _ : state) {
    found += EaglesongSearch48(kHeader, 0x01020304, 0x05060708, tails.data(), tails.size(), bound, nullptr, path);
  }
  benchmark::DoNotOptimize(found);
  const double candidates = static_cast<double>(state.iterations() * kCandidates);
  state.counters["candidates/s"] = benchmark::Counter(candidates, benchmark::Counter::kIsRate);
  if (g_scalarHashesPerSecond > 0) state.counters["vs_scalar"] = clock.PerSecond(candidates) / g_scalarHashesPerSecond;
}
BENCHMARK(Search1280)
    ->Arg(static_cast<int>(EaglesongLanePath::Portable))
    ->Arg(static_cast<int>(EaglesongLanePath::Avx2))
    ->Arg(static_cast<int>(EaglesongLanePath::Avx512))
    ->Unit(benchmark::kMicrosecond);

}  // namespace
