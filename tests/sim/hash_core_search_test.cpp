// The simulated hash core searched through its registers, as a host drives
// it, with every reported value checked by the test's own software hash.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>

#include "sim/hash_engine.h"
#include "tests/sim/hash_core_host.h"

namespace hashcore_test {
namespace {

constexpr uint64_t kDifficultyOne = 0x0000FFFFFFFFFFFFull;

// A board of model 7: ten cores, layout 1.
class HashCoreSearch : public ::testing::Test {
 protected:
  explicit HashCoreSearch(const std::string &list = "xdma0 model=7") : host(list) {
    host.Boards().StartSearch();
    device = host.Open("xdma0");
  }

  uint32_t Flags() { return (HashCoreHost::Read(device, kControl) >> 12) & 0xF; }

  HashCoreHost host;
  BRYLDMADevice *device = nullptr;
};

TEST_F(HashCoreSearch, ReportsValuesThatWorkBackToACoreAndSkewUnderTheTarget) {
  ASSERT_NE(device, nullptr);
  const Job job = SampleJob(1, 0x0003FFFFFFFFFFFFull);
  HashCoreHost::StartClock(device);
  HashCoreHost::LoadJob(device, job);
  std::vector<uint32_t> values = HashCoreHost::Collect(device, 12);

  std::set<uint32_t> cores;
  std::set<int> skews;
  for (uint32_t value : values) {
    std::vector<Reading> readings = Readings(job, value, sim::DefaultSkew(10), job.target);
    ASSERT_FALSE(readings.empty()) << std::hex << "no core or skew explains " << value;
    auto real = std::find_if(readings.begin(), readings.end(), [](const Reading &r) { return r.coreNumber < 10; });
    ASSERT_NE(real, readings.end()) << "only a core the board lacks explains " << std::hex << value;
    cores.insert(real->coreNumber);
    skews.insert(real->skew);
  }
  // Twelve finds from one core, or all with one skew, would mean the cores
  // or the skew aren't modelled.
  EXPECT_GE(cores.size(), 2u);
  EXPECT_GE(skews.size(), 2u);
}

// With two cores and no skew, the values reported over the positions run
// are exactly the hits the test finds itself, less those dropped while all
// four slots were full.
class HashCoreSearchTwoCores : public HashCoreSearch {
 protected:
  HashCoreSearchTwoCores() : HashCoreSearch("xdma0 model=7 cores=2 skew=0") {}
};

TEST_F(HashCoreSearchTwoCores, ReportsEveryHitOfThePositionsItRan) {
  ASSERT_NE(device, nullptr);
  const Job job = SampleJob(2, 0x003FFFFFFFFFFFFFull);
  HashCoreHost::StartClock(device);
  HashCoreHost::LoadJob(device, job);
  std::vector<uint32_t> values;
  ASSERT_TRUE(HashCoreHost::WaitFor([&] {
    for (uint32_t value : HashCoreHost::Intake(device)) values.push_back(value);
    return host.Position("xdma0") >= 6000;
  }));
  // Hold with every flag written back as set, then take the pending ones in.
  HashCoreHost::Write(device, kControl, kHold | 0xF000);
  for (uint32_t value : HashCoreHost::Intake(device)) values.push_back(value);
  const uint64_t positions = host.Position("xdma0");
  const sim::HashCoreBlock::SearchStats stats = host.Stats("xdma0");

  std::map<uint32_t, int> hits;  // reported value expected, with multiplicity
  size_t hitCount = 0;
  for (uint32_t p = 0; p < positions; p++) {
    for (uint32_t core = 0; core < 2; core++) {
      if (HashTop64(job, core, p) <= job.target) hits[p + 43]++, hitCount++;
    }
  }
  ASSERT_GT(hitCount, 0u);
  for (uint32_t value : values) {
    ASSERT_GT(hits[value]--, 0) << std::hex << value << " is no hit of the positions run";
  }
  EXPECT_EQ(values.size(), stats.reported);
  EXPECT_EQ(values.size() + stats.dropped, hitCount);
  EXPECT_EQ(stats.hashes, positions * 2);
}

TEST_F(HashCoreSearch, HoldStopsTheSearchAndTheNextLoadStartsTheCounterAfresh) {
  ASSERT_NE(device, nullptr);
  // About one hash in sixteen is a hit: every batch in flight holds some.
  const Job first = SampleJob(3, 0x0FFFFFFFFFFFFFFFull);
  HashCoreHost::StartClock(device);
  HashCoreHost::LoadJob(device, first);
  ASSERT_TRUE(HashCoreHost::WaitFor([&] { return host.Position("xdma0") >= 10000; }));

  HashCoreHost::Write(device, kControl, kHold);  // acknowledges everything too
  const uint64_t held = host.Position("xdma0");
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(host.Position("xdma0"), held);
  EXPECT_EQ(Flags(), 0u) << "a result computed before the hold came in after it";

  const Job second = SampleJob(4, 0x0FFFFFFFFFFFFFFFull);
  HashCoreHost::LoadJob(device, second);
  std::vector<uint32_t> values = HashCoreHost::Collect(device, 4);
  uint32_t lowest = UINT32_MAX;
  for (uint32_t value : values) {
    std::vector<Reading> readings = Readings(second, value, sim::DefaultSkew(10), second.target);
    ASSERT_FALSE(readings.empty()) << std::hex << value << " doesn't belong to the job loaded";
    lowest = std::min(lowest, value - 43 + static_cast<uint32_t>(readings[0].skew));
  }
  // With a hit in about every second position, the first finds of a counter
  // that starts at 0 lie far below where the last load stopped.
  EXPECT_LT(lowest, 1000u) << "the counter went on from the previous load at " << held;
}

TEST_F(HashCoreSearch, RunsOnlyWithTheClockEnabledAndOutOfReset) {
  ASSERT_NE(device, nullptr);
  HashCoreHost::LoadJob(device, SampleJob(5, 0x0000FFFFFFFFFFFFull));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(host.Position("xdma0"), 0u) << "ran with the clock in reset and disabled";

  HashCoreHost::StartClock(device);
  ASSERT_TRUE(HashCoreHost::WaitFor([&] { return host.Position("xdma0") > 0; }));
  for (uint32_t control : {2u /* disabled */, 1u /* in reset */}) {
    HashCoreHost::Write(device, kClockControl, control);
    const uint64_t stopped = host.Position("xdma0");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(host.Position("xdma0"), stopped) << "clock control " << control;
    HashCoreHost::Write(device, kClockControl, 3);
    ASSERT_TRUE(HashCoreHost::WaitFor([&] { return host.Position("xdma0") > stopped; }));
  }
}

TEST_F(HashCoreSearch, FullSlotsKeepTheirValuesUntilEachIsAcknowledged) {
  ASSERT_NE(device, nullptr);
  const Job job = SampleJob(6, 0x0FFFFFFFFFFFFFFFull);
  HashCoreHost::StartClock(device);
  HashCoreHost::LoadJob(device, job);
  ASSERT_TRUE(HashCoreHost::WaitFor([&] { return Flags() == 0xF && host.Stats("xdma0").dropped > 0; }));

  auto slot = [&](uint32_t i) { return HashCoreHost::Read(device, kCore + 0x7C - 4 * i); };
  const uint32_t before[4] = {slot(0), slot(1), slot(2), slot(3)};
  for (uint32_t value : before) {
    EXPECT_FALSE(Readings(job, value, sim::DefaultSkew(10), job.target).empty()) << std::hex << value;
  }
  const uint64_t dropped = host.Stats("xdma0").dropped;
  ASSERT_TRUE(HashCoreHost::WaitFor([&] { return host.Stats("xdma0").dropped > dropped; }));
  for (uint32_t i = 0; i < 4; i++) EXPECT_EQ(slot(i), before[i]) << "slot " << i << " overwritten";

  // Acknowledge slot 2 alone: it takes the next find, the others stay.
  uint32_t control = HashCoreHost::Read(device, kControl);
  HashCoreHost::Write(device, kControl, control & ~(1u << 14));
  ASSERT_TRUE(HashCoreHost::WaitFor([&] { return Flags() == 0xF; }));
  EXPECT_NE(slot(2), before[2]);
  EXPECT_FALSE(Readings(job, slot(2), sim::DefaultSkew(10), job.target).empty());
  for (uint32_t i : {0u, 1u, 3u}) EXPECT_EQ(slot(i), before[i]) << "slot " << i;
}

TEST_F(HashCoreSearch, FaultsReportInvalidOrAllOnesValuesAndClearAtRunTime) {
  ASSERT_NE(device, nullptr);
  const Job job = SampleJob(7, 0x0003FFFFFFFFFFFFull);
  std::string error;
  HashCoreHost::StartClock(device);

  ASSERT_TRUE(host.Boards().RunCommand("xdma0 invalid_nonces=on", &error)) << error;
  HashCoreHost::LoadJob(device, job);
  for (uint32_t value : HashCoreHost::Collect(device, 6)) {
    // No reading a host could try makes it even difficulty one.
    EXPECT_TRUE(Readings(job, value, sim::DefaultSkew(10) + 1, kDifficultyOne).empty()) << std::hex << value;
  }

  ASSERT_TRUE(host.Boards().RunCommand("xdma0 invalid_nonces=off ones_nonces=on", &error)) << error;
  HashCoreHost::LoadJob(device, job);
  for (uint32_t value : HashCoreHost::Collect(device, 6)) EXPECT_EQ(value, 0xFFFFFFFFu);

  ASSERT_TRUE(host.Boards().RunCommand("xdma0 faults=none", &error)) << error;
  HashCoreHost::LoadJob(device, job);
  for (uint32_t value : HashCoreHost::Collect(device, 6)) {
    EXPECT_FALSE(Readings(job, value, sim::DefaultSkew(10), job.target).empty()) << std::hex << value;
  }
}

}  // namespace
}  // namespace hashcore_test
