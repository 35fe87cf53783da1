#include "rig/governor.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <utility>
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
  for (auto [model, hz] : {std::pair{1u, 300000000u}, {10u, 125000000u}, {6u, 200000000u}, {3u, 125000000u}})
    EXPECT_EQ(RefClockHz(MakeWorker(model)), hz);
  for (auto [model, times] : {std::pair{1u, 16}, {8u, 9}, {2u, 0}}) EXPECT_EQ(MmcmMultiplier(MakeWorker(model)), times);
  for (auto [model, count] : {std::pair{10u, 20u}, {7u, 10u}, {8u, 5u}, {5u, 3u}, {4u, 1u}})
    EXPECT_EQ(CoreCount(model), count);
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
  SensorReadings hot{85.5, 90.0, 0.85};
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

TEST(SensorValidityTest, AReadingTheHardwareCannotGiveIsNone) {
  for (double celsius : {-279.4, -40.5, 125.5}) EXPECT_TRUE(std::isnan(ValidCoreTemperature(celsius))) << celsius;
  for (double volts : {0.0, 0.49, 1.51}) EXPECT_TRUE(std::isnan(ValidVccint(volts))) << volts;
  EXPECT_EQ(ValidCoreTemperature(125.0), 125.0);
  EXPECT_EQ(ValidVccint(0.5), 0.5);
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
