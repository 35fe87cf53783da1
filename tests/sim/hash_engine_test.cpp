// The search engine's threads and its rate cap.
#include <dirent.h>
#include <gtest/gtest.h>

#include <thread>

#include "sim/hash_engine.h"
#include "tests/sim/hash_core_host.h"

namespace hashcore_test {
namespace {

size_t ThreadsInProcess() {
  size_t count = 0;
  DIR *dir = opendir("/proc/self/task");
  while (dirent *entry = dir ? readdir(dir) : nullptr) count += entry->d_name[0] != '.';
  if (dir) closedir(dir);
  return count;
}

TEST(HashEngine, ThreadPerBoardOrOneSharedAndNoneLeftBehind) {
  // xdma0 and its sub-device a thread each, xdma1 and xdma2 one together,
  // xdma3 none.
  HashCoreHost host("xdma0 model=9 subdevices=1\nxdma1 engine=shared\nxdma2 engine=shared\nxdma3 engine=off");
  // A sanitizer's runtime may add a thread of its own at the first thread
  // start; let that happen before counting.
  std::thread([] {}).join();
  const size_t before = ThreadsInProcess();
  host.Boards().StartSearch();
  EXPECT_EQ(ThreadsInProcess(), before + 3);

  const Job job = SampleJob(11, 0x0003FFFFFFFFFFFFull);
  for (auto [card, sub] : {std::pair{"xdma0", 1}, {"xdma2", 0}, {"xdma3", 0}}) {
    BRYLDMADevice *device = host.Open(card, sub);
    ASSERT_NE(device, nullptr);
    HashCoreHost::LoadJob(device, job);
    if (std::string(card) == "xdma3") continue;
    for (uint32_t value : HashCoreHost::Collect(device, 3)) {
      EXPECT_FALSE(Readings(job, value, sim::DefaultSkew(10), job.target).empty()) << card << std::hex << value;
    }
  }
  EXPECT_EQ(host.Position("xdma3"), 0u) << "a board with its search off searched";

  host.Boards().StopSearch();
  EXPECT_EQ(ThreadsInProcess(), before);
}

TEST(HashEngine, RateCapBoundsTheHashesAndChangesAtRunTime) {
  HashCoreHost host("xdma0 model=7 ratecap=0.05");
  host.Boards().StartSearch();
  BRYLDMADevice *device = host.Open("xdma0");
  // At most the cap, plus the 50 ms it may save up and one batch of 4096.
  auto checkCap = [&](double hashesPerSecond) {
    HashCoreHost::LoadJob(device, SampleJob(12, 0));
    const uint64_t start = host.Stats("xdma0").hashes;
    const auto begin = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const uint64_t hashes = host.Stats("xdma0").hashes - start;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    EXPECT_GT(hashes, 0u);
    EXPECT_LE(static_cast<double>(hashes), hashesPerSecond * (seconds + 0.05) + 4096.0) << seconds << " s";
  };
  checkCap(50000.0);
  host.Command("xdma0 ratecap=0.01");
  checkCap(10000.0);
}

}  // namespace
}  // namespace hashcore_test
