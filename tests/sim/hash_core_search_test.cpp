// The simulated hash core driven through its registers as a host drives it.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

#include "sim/hash_engine.h"
#include "tests/sim/hash_core_host.h"

namespace hashcore_test {
namespace {

// Model 7: ten cores, so skews up to 4 either way.
class HashCoreSearch : public ::testing::Test {
 protected:
  explicit HashCoreSearch(const std::string &list = "xdma0 model=7") : host(list) {
    host.Boards().StartSearch();
    device = host.Open("xdma0");
  }
  uint32_t Flags() { return (HashCoreHost::Read(device, kControl) >> 12) & 0xF; }
  uint32_t Slot(uint32_t i) { return HashCoreHost::Read(device, kCore + 0x7C - 4 * i); }
  bool Valid(const Job &job, uint32_t value) { return !Readings(job, value, sim::DefaultSkew(10), job.target).empty(); }

  HashCoreHost host;
  BRYLDMADevice *device;
};

TEST_F(HashCoreSearch, ReportsValuesThatWorkBackToACoreAndSkewUnderTheTarget) {
  // Hard enough that a value is explained by chance less than once in a hundred.
  const Job job = SampleJob(1, 0x0000FFFFFFFFFFFFull);
  HashCoreHost::LoadJob(device, job);
  std::set<uint32_t> cores;
  std::set<int> skews;
  for (uint32_t value : HashCoreHost::Collect(device, 12)) {
    auto readings = Readings(job, value, sim::DefaultSkew(10), job.target);
    auto real = std::find_if(readings.begin(), readings.end(), [](auto &reading) { return reading.first < 10; });
    ASSERT_NE(real, readings.end()) << std::hex << value << " is no find of the board's ten cores";
    cores.insert(real->first);
    skews.insert(real->second);
  }
  // Twelve finds all from one core or with one skew: cores or skew unmodelled.
  EXPECT_GE(cores.size(), 2u);
  EXPECT_GE(skews.size(), 2u);
}

// With two cores and no skew, the reports over the positions run are exactly
// the test's own hits, less those dropped while all four slots were full.
TEST(HashCoreSearchTwoCores, ReportsEveryHitOfThePositionsItRan) {
  HashCoreHost host("xdma0 model=7 cores=2 skew=0");
  host.Boards().StartSearch();
  BRYLDMADevice *device = host.Open("xdma0");
  const Job job = SampleJob(2, 0x003FFFFFFFFFFFFFull);
  HashCoreHost::LoadJob(device, job);
  auto values = HashCoreHost::Collect(device, 0, [&] { return host.Position("xdma0") >= 6000; });
  HashCoreHost::Write(device, kControl, kHold | 0xF000);  // hold, keeping the flags
  for (uint32_t value : HashCoreHost::Intake(device)) values.push_back(value);
  const uint64_t positions = host.Position("xdma0");
  const sim::HashCoreBlock::SearchStats stats = host.Stats("xdma0");

  std::map<uint32_t, int> hits;
  size_t hitCount = 0;
  for (uint32_t p = 0; p < positions; p++) {
    for (uint32_t core = 0; core < 2; core++) {
      if (HashTop64(job, core, p) <= job.target) hits[p + 43]++, hitCount++;
    }
  }
  for (uint32_t value : values) ASSERT_GT(hits[value]--, 0) << std::hex << value << " is no hit";
  EXPECT_EQ(values.size(), stats.reported);
  EXPECT_EQ(values.size() + stats.dropped, hitCount);
  EXPECT_EQ(stats.hashes, positions * 2);
}

TEST_F(HashCoreSearch, HoldStopsTheSearchAndTheNextLoadStartsTheCounterAfresh) {
  // About one hash in sixteen is a hit, so any batch in flight holds some.
  HashCoreHost::LoadJob(device, SampleJob(3, 0x0FFFFFFFFFFFFFFFull));
  ASSERT_TRUE(HashCoreHost::WaitFor([&] { return host.Position("xdma0") >= 30000; }));
  HashCoreHost::Write(device, kControl, kHold);  // acknowledges all flags too
  const uint64_t held = host.Position("xdma0");
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(host.Position("xdma0"), held);
  EXPECT_EQ(Flags(), 0u) << "a result computed before the hold came in after it";

  // A find in about 1600 positions: a counter started afresh reports below
  // where the last load stopped, one that went on reports above.
  const Job next = SampleJob(4, 0x0003FFFFFFFFFFFFull);
  HashCoreHost::LoadJob(device, next);
  uint32_t lowest = UINT32_MAX;
  for (uint32_t value : HashCoreHost::Collect(device, 4)) {
    EXPECT_TRUE(Valid(next, value)) << std::hex << value << " is not of the job loaded";
    lowest = std::min(lowest, value);
  }
  EXPECT_LT(lowest, held) << "the counter went on from the last load";
}

TEST_F(HashCoreSearch, RunsOnlyWithTheClockEnabledAndOutOfReset) {
  HashCoreHost::Write(device, kClockControl, 0);
  HashCoreHost::LoadJob(device, SampleJob(5, 0));
  for (uint32_t control : {0u, 2u /* disabled */, 1u /* in reset */}) {
    HashCoreHost::Write(device, kClockControl, control);
    const uint64_t stopped = host.Position("xdma0");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(host.Position("xdma0"), stopped) << "clock control " << control;
    HashCoreHost::Write(device, kClockControl, 3);
    ASSERT_TRUE(HashCoreHost::WaitFor([&] { return host.Position("xdma0") > stopped; }));
  }
}

TEST_F(HashCoreSearch, FullSlotsKeepTheirValuesUntilEachIsAcknowledged) {
  HashCoreHost::LoadJob(device, SampleJob(6, 0x0FFFFFFFFFFFFFFFull));
  ASSERT_TRUE(HashCoreHost::WaitFor([&] { return Flags() == 0xF && host.Stats("xdma0").dropped > 0; }));
  const uint32_t before[4] = {Slot(0), Slot(1), Slot(2), Slot(3)};
  const uint64_t dropped = host.Stats("xdma0").dropped;
  ASSERT_TRUE(HashCoreHost::WaitFor([&] { return host.Stats("xdma0").dropped > dropped; }));
  for (uint32_t i = 0; i < 4; i++) EXPECT_EQ(Slot(i), before[i]) << "slot " << i << " overwritten";

  // Slot 2 alone acknowledged: it takes the next find, the others stay.
  HashCoreHost::Write(device, kControl, HashCoreHost::Read(device, kControl) & ~(1u << 14));
  ASSERT_TRUE(HashCoreHost::WaitFor([&] { return Flags() == 0xF; }));
  EXPECT_NE(Slot(2), before[2]);
  for (uint32_t i : {0u, 1u, 3u}) EXPECT_EQ(Slot(i), before[i]) << "slot " << i;
}

TEST_F(HashCoreSearch, FaultsReportInvalidOrAllOnesValuesAndClearAtRunTime) {
  const Job job = SampleJob(7, 0x0003FFFFFFFFFFFFull);
  host.Command("xdma0 invalid_nonces=on");
  HashCoreHost::LoadJob(device, job);
  for (uint32_t value : HashCoreHost::Collect(device, 6)) {
    // No reading a host could try reaches even difficulty one.
    EXPECT_TRUE(Readings(job, value, sim::DefaultSkew(10) + 1, 0x0000FFFFFFFFFFFFull).empty()) << std::hex << value;
  }
  host.Command("xdma0 invalid_nonces=off ones_nonces=on");
  HashCoreHost::LoadJob(device, job);
  for (uint32_t value : HashCoreHost::Collect(device, 6)) EXPECT_EQ(value, 0xFFFFFFFFu);
  host.Command("xdma0 faults=none");
  HashCoreHost::LoadJob(device, job);
  for (uint32_t value : HashCoreHost::Collect(device, 6)) EXPECT_TRUE(Valid(job, value)) << std::hex << value;
}

}  // namespace
}  // namespace hashcore_test
