// The search engine's threads, its rate cap and the board list keys that
// set it up.
#include <dirent.h>
#include <gtest/gtest.h>

#include <chrono>

#include "sim/config.h"
#include "sim/hash_engine.h"
#include "tests/sim/hash_core_host.h"

namespace hashcore_test {
namespace {

size_t ThreadsInProcess() {
  size_t count = 0;
  if (DIR *dir = opendir("/proc/self/task")) {
    while (dirent *entry = readdir(dir)) count += entry->d_name[0] != '.';
    closedir(dir);
  }
  return count;
}

TEST(HashEngine, ThreadPerBoardOrOneSharedAndNoneLeftBehind) {
  // xdma0 has a sub-device, each FPGA with its own thread; xdma1 and xdma2
  // share one; xdma3 has no search.
  HashCoreHost host(
      "xdma0 model=9 subdevices=1\n"
      "xdma1 engine=shared\n"
      "xdma2 engine=shared\n"
      "xdma3 engine=off\n");
  const size_t before = ThreadsInProcess();
  host.Boards().StartSearch();
  EXPECT_EQ(ThreadsInProcess(), before + 3);

  const Job job = SampleJob(11, 0x0003FFFFFFFFFFFFull);
  struct Target {
    const char *card;
    uint64_t subDevice;
  };
  for (Target target : {Target{"xdma0", 1}, Target{"xdma1", 0}, Target{"xdma2", 0}, Target{"xdma3", 0}}) {
    BRYLDMADevice *device = host.Open(target.card, target.subDevice);
    ASSERT_NE(device, nullptr);
    HashCoreHost::StartClock(device);
    HashCoreHost::LoadJob(device, job);
    if (std::string(target.card) == "xdma3") continue;
    for (uint32_t value : HashCoreHost::Collect(device, 3)) {
      EXPECT_FALSE(Readings(job, value, sim::DefaultSkew(10), job.target).empty())
          << target.card << "." << target.subDevice << std::hex << " reported " << value;
    }
  }
  EXPECT_EQ(host.Position("xdma3"), 0u);
  EXPECT_EQ(host.Position("xdma0"), 0u) << "the primary was never released with a clock";

  host.Boards().StopSearch();
  EXPECT_EQ(ThreadsInProcess(), before);
  // A second start after a stop works the same.
  host.Boards().StartSearch();
  EXPECT_EQ(ThreadsInProcess(), before + 3);
}

TEST(HashEngine, RateCapBoundsTheHashesAndChangesAtRunTime) {
  HashCoreHost host("xdma0 model=7 ratecap=0.05");
  host.Boards().StartSearch();
  BRYLDMADevice *device = host.Open("xdma0");
  ASSERT_NE(device, nullptr);
  HashCoreHost::StartClock(device);

  // The cap may be saved up for 50 ms at most, and a batch is 4096 hashes.
  auto measure = [&](double capHashesPerSecond) {
    HashCoreHost::LoadJob(device, SampleJob(12, 0));
    const uint64_t start = host.Stats("xdma0").hashes;
    const auto begin = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const uint64_t hashes = host.Stats("xdma0").hashes - start;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    EXPECT_LE(static_cast<double>(hashes), capHashesPerSecond * (seconds + 0.05) + 4096.0) << seconds << " s";
    return hashes;
  };
  EXPECT_GT(measure(50000.0), 0u);
  std::string error;
  ASSERT_TRUE(host.Boards().RunCommand("xdma0 ratecap=0.01", &error)) << error;
  measure(10000.0);
}

TEST(HashEngineConfig, SearchKeysParseAndTheEngineIsChosenOnlyAtStart) {
  std::string error;
  auto cards = sim::ParseBoardList(
      "xdma0 engine=shared ratecap=2.5 skew=3 invalid_nonces=0.25 ones_nonces=on\n"
      "xdma1 engine=off invalid_nonces=on ratecap=off skew=auto\n",
      &error);
  ASSERT_TRUE(cards) << error;
  const sim::FpgaSpec &first = (*cards)[0].fpga[0];
  EXPECT_EQ(first.search.engine, sim::SearchEngine::Shared);
  EXPECT_DOUBLE_EQ(first.search.rateCapMHs, 2.5);
  EXPECT_EQ(first.search.skew, 3);
  EXPECT_DOUBLE_EQ(first.faults.invalidNonces, 0.25);
  EXPECT_TRUE(first.faults.onesNonces);
  const sim::FpgaSpec &second = (*cards)[1].fpga[0];
  EXPECT_EQ(second.search.engine, sim::SearchEngine::Off);
  EXPECT_DOUBLE_EQ(second.faults.invalidNonces, 1.0);
  EXPECT_EQ(second.search.rateCapMHs, 0.0);
  EXPECT_EQ(second.search.skew, -1);

  for (const char *bad : {"engine=fast", "ratecap=-1", "ratecap=x", "skew=-2", "invalid_nonces=1.5",
                          "invalid_nonces=nan", "ones_nonces=2"}) {
    EXPECT_FALSE(sim::ParseBoardList(std::string("xdma0 ") + bad, &error)) << bad;
  }

  sim::FpgaSpec spec = first;
  EXPECT_TRUE(sim::ApplyRuntimeSetting(spec, "faults", "none", &error));
  EXPECT_EQ(spec.faults.invalidNonces, 0.0);
  EXPECT_FALSE(spec.faults.onesNonces);
  EXPECT_DOUBLE_EQ(spec.search.rateCapMHs, 2.5) << "the cap is no fault";
  EXPECT_FALSE(sim::ApplyRuntimeSetting(spec, "engine", "own", &error)) << "threads are laid out at start";
}

}  // namespace
}  // namespace hashcore_test
