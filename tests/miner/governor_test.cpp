#include "miner/governor.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

std::unique_ptr<Worker> NewWorker(BoardModel model) {
  auto worker = std::make_unique<Worker>();
  worker->model = model;
  worker->enabled = true;
  return worker;
}
const Worker &MakeWorker(BoardModel model) {
  static std::vector<std::unique_ptr<Worker>> kept;
  kept.push_back(NewWorker(model));
  return *kept.back();
}

TEST(GovernorTablesTest, ClocksMultipliersAndCoresFollowTheModel) {
  EXPECT_EQ(RefClockHz(MakeWorker(1)), 300000000u);
  EXPECT_EQ(RefClockHz(MakeWorker(10)), 125000000u);
  EXPECT_EQ(RefClockHz(MakeWorker(6)), 200000000u);
  EXPECT_EQ(RefClockHz(MakeWorker(3)), 125000000u);
  EXPECT_EQ(MmcmMultiplier(MakeWorker(1)), 16);
  EXPECT_EQ(MmcmMultiplier(MakeWorker(8)), 9);
  EXPECT_EQ(MmcmMultiplier(MakeWorker(2)), 0);
  EXPECT_EQ(CoreCount(10), 20u);
  EXPECT_EQ(CoreCount(7), 10u);
  EXPECT_EQ(CoreCount(8), 5u);
  EXPECT_EQ(CoreCount(5), 3u);
  EXPECT_EQ(CoreCount(4), 1u);
  EXPECT_DOUBLE_EQ(CookingVccintLimit(MakeWorker(2)), 0.75);
  EXPECT_DOUBLE_EQ(RecoveryVccintLimit(MakeWorker(2)), 0.8);
  EXPECT_DOUBLE_EQ(RecoveryVccintLimit(MakeWorker(10)), 0.0);
}

TEST(GovernorTablesTest, TuningStepsOnlyWhileEnabledAndActive) {
  auto owned = NewWorker(10);
  Worker &worker = *owned;
  EXPECT_EQ(ClockStep(worker), 25000000u);
  worker.tuning = TuningActive;
  EXPECT_EQ(ClockStep(worker), 50000u);
  worker.enabled = false;
  EXPECT_EQ(ClockStep(worker), 25000000u);
  worker.enabled = true;
  worker.tuning = TuningDone;
  EXPECT_EQ(ClockStep(worker), 25000000u);
}

TEST(ThermalRuleTest, ThrottleRisesWhileCookingAndFallsOnlyPastTheDeadBand) {
  ThermalLimits wide{0.75, 0.8};
  SensorReadings cool{70.0, 90.0, 0.85};
  SensorReadings hot{86.0, 90.0, 0.85};
  SensorReadings warm{82.0, 90.0, 0.85};      // dead band: neither cooking nor recovered
  SensorReadings vrmEdge{70.0, 105.0, 0.85};  // exactly 105 isn't cooking
  SensorReadings vrmNoRecovery{70.0, 98.0, 0.85};
  SensorReadings sagging{70.0, 90.0, 0.74};
  SensorReadings sagRecovering{70.0, 90.0, 0.78};  // above cooking, below recovery

  EXPECT_EQ(NextThrottleMHz(hot, wide, 0, 100000000), 1u);
  EXPECT_EQ(NextThrottleMHz(sagging, wide, 3, 100000000), 4u);
  EXPECT_EQ(NextThrottleMHz(warm, wide, 3, 100000000), 3u);
  EXPECT_EQ(NextThrottleMHz(sagRecovering, wide, 3, 100000000), 3u);
  EXPECT_FALSE(IsCooking(vrmEdge, wide));
  EXPECT_EQ(NextThrottleMHz(vrmNoRecovery, wide, 3, 100000000), 3u);
  EXPECT_EQ(NextThrottleMHz(cool, wide, 3, 100000000), 2u);
  EXPECT_EQ(NextThrottleMHz(cool, wide, 0, 100000000), 0u);
  // The throttle stops growing once it covers the whole target.
  EXPECT_EQ(NextThrottleMHz(hot, wide, 100, 100000000), 100u);
  EXPECT_EQ(NextThrottleMHz(hot, wide, 99, 100000000), 100u);
}

TEST(ClockWalkTest, StepsUpToTheTargetAndOvershootsOnTheWayDown) {
  const uint64_t step = 25000000;
  EXPECT_EQ(NextClockHz(100000000, 200000000, step), 125000000u);
  EXPECT_EQ(NextClockHz(190000000, 200000000, step), 200000000u);
  EXPECT_EQ(NextClockHz(100000000, 90000000, step), 75000000u);  // not clamped at 90 MHz
  EXPECT_EQ(NextClockHz(75000000, 90000000, step), 90000000u);   // and climbs back
  EXPECT_EQ(NextClockHz(20000000, 0, step), 0u);                 // below one step: the desired clock
  EXPECT_EQ(NextClockHz(25000000, 0, step), 0u);
}

TEST(DesiredClockTest, FloorAppliesToTheWishNotToThrottling) {
  auto owned = NewWorker(10);
  Worker &worker = *owned;
  worker.targetClockHz = 50000000;
  EXPECT_EQ(DesiredClockHz(worker, 25000000, 0, 1), 100000000u);
  EXPECT_EQ(worker.targetClockHz, 50000000u);  // the stored wish is kept

  worker.targetClockHz = 100000000;
  EXPECT_EQ(DesiredClockHz(worker, 25000000, 1, 1), 99000000u);
  EXPECT_EQ(DesiredClockHz(worker, 25000000, 100, 1), 0u);

  worker.tuning = TuningActive;
  EXPECT_EQ(DesiredClockHz(worker, 50000, 0, 1000), 100000000u);
  EXPECT_EQ(worker.targetClockHz, 100050000u);
  EXPECT_EQ(DesiredClockHz(worker, 50000, 0, 1001), 100050000u);
  EXPECT_EQ(worker.targetClockHz, 100050000u);

  worker.enabled = false;
  EXPECT_EQ(DesiredClockHz(worker, 25000000, 0, 1000), 0u);
}

}  // namespace
