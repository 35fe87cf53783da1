#include "rig/governor.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <tuple>
#include <utility>
#include <vector>

#include "sim/in_process.h"

namespace {

std::unique_ptr<Worker> NewWorker(BoardModel model, TuningState tuning = TuningOff, bool enabled = true) {
  auto worker = std::make_unique<Worker>();
  worker->model = model;
  worker->tuning = tuning;
  worker->enabled = enabled;
  return worker;
}

TEST(GovernorTablesTest, ClocksMultipliersCoresAndStepsFollowTheModelAndTuning) {
  for (auto [model, hz] : {std::pair{1u, 300000000u}, {10u, 125000000u}, {6u, 200000000u}, {3u, 125000000u}})
    EXPECT_EQ(RefClockHz(*NewWorker(model)), hz);
  for (auto [model, times] : {std::pair{1u, 16}, {8u, 9}, {2u, 0}}) EXPECT_EQ(MmcmMultiplier(*NewWorker(model)), times);
  for (auto [model, count] : {std::pair{10u, 20u}, {7u, 10u}, {8u, 5u}, {5u, 3u}, {4u, 1u}})
    EXPECT_EQ(CoreCount(model), count);
  EXPECT_DOUBLE_EQ(CookingVccintLimit(*NewWorker(2)), 0.75);
  EXPECT_DOUBLE_EQ(RecoveryVccintLimit(*NewWorker(2)), 0.8);
  EXPECT_DOUBLE_EQ(RecoveryVccintLimit(*NewWorker(10)), 0.0);
  // Tuning steps finely only while the board is enabled and the run active.
  EXPECT_EQ(ClockStep(*NewWorker(10, TuningActive)), 50000u);
  for (auto [tuning, enabled] : {std::pair{TuningOff, true}, {TuningActive, false}, {TuningDone, true}})
    EXPECT_EQ(ClockStep(*NewWorker(10, tuning, enabled)), 25000000u) << tuning << enabled;
}

// Every threshold of the thermal rule just inside and just outside: a
// reading cooks (the throttle grows by 1 MHz), holds in the dead band, or has
// recovered (it shrinks by 1 MHz). Each row moves one reading off a cool
// board's; the wide family's VCCINT limits are 0.75 V and 0.8 V, the narrow
// family's 0.5 V and none.
TEST(ThermalRuleTest, EachThresholdCooksHoldsOrRecoversAtItsEdge) {
  // Core and regulator temperature, VCCINT, wide family, throttle after (from 3 MHz).
  const std::tuple<double, double, double, bool, uint64_t> rows[] = {
      {85.01, 90.0, 0.85, true, 4},  {85.0, 90.0, 0.85, true, 3},   {80.01, 90.0, 0.85, true, 3},
      {80.0, 90.0, 0.85, true, 2},   {70.0, 105.01, 0.85, true, 4}, {70.0, 105.0, 0.85, true, 3},
      {70.0, 98.0, 0.85, true, 3},   {70.0, 97.99, 0.85, true, 2},  {70.0, 90.0, 0.749, true, 4},
      {70.0, 90.0, 0.75, true, 3},   {70.0, 90.0, 0.799, true, 3},  {70.0, 90.0, 0.8, true, 2},
      {70.0, 90.0, 0.499, false, 4}, {70.0, 90.0, 0.5, false, 2},
  };
  for (const auto &[core, vrm, vccint, wide, throttleAfter] : rows) {
    SCOPED_TRACE(testing::Message() << core << " C, " << vrm << " C, " << vccint << " V");
    SensorReadings readings{core, vrm, vccint};
    ThermalLimits limits = wide ? ThermalLimits{0.75, 0.8} : ThermalLimits{0.5, 0.0};
    EXPECT_EQ(NextThrottleMHz(readings, limits, 3, 100000000), throttleAfter);
    EXPECT_EQ(IsCooking(readings, limits), throttleAfter == 4);
  }
  // Nothing to recover from at 0; the throttle stops growing once it covers
  // the whole target.
  SensorReadings cool{70.0, 90.0, 0.85}, hot{85.5, 90.0, 0.85};
  EXPECT_EQ(NextThrottleMHz(cool, {0.75, 0.8}, 0, 100000000), 0u);
  EXPECT_EQ(NextThrottleMHz(hot, {0.75, 0.8}, 100, 100000000), 100u);
  EXPECT_EQ(NextThrottleMHz(hot, {0.75, 0.8}, 99, 100000000), 100u);
}

// The range each sensor can give, at both ends; outside it is no reading.
TEST(SensorValidityTest, AReadingTheHardwareCannotGiveIsNone) {
  // Each check, the lowest and highest reading it takes, and a step beyond.
  const std::tuple<double (*)(double), double, double, double> rows[] = {{ValidCoreTemperature, -40.0, 125.0, 0.01},
                                                                         {ValidVrmTemperature, -40.0, 150.0, 0.01},
                                                                         {ValidVccint, 0.5, 1.5, 0.001}};
  for (const auto &[valid, lowest, highest, beyond] : rows) {
    SCOPED_TRACE(highest);
    EXPECT_EQ(valid(lowest), lowest);
    EXPECT_EQ(valid(highest), highest);
    EXPECT_TRUE(std::isnan(valid(lowest - beyond)));
    EXPECT_TRUE(std::isnan(valid(highest + beyond)));
  }
}

// A sensor pass shows what the board's converters read, to within half a
// code, and throttles on it, on both families: just over 85 C cooks.
TEST(SensorPassTest, ShowsWhatTheConvertersReadAndThrottlesOnIt) {
  // The board, its model, the core temperature and its converter's code, the
  // regulator temperature (none on the narrow family) and VCCINT.
  const std::tuple<const char *, BoardModel, double, double, double, double> rows[] = {
      {"xdma0 model=2 hot=85.1 vrm_hot=104.5 vccint=0.95 sagrate=0", 2, 85.1, 503.975 / 4096, 104.5, 0.95},
      {"xdma0 model=7 hot=85.01 vccint=0.87 sagrate=0", 7, 85.01, 507.592131 / 65536, NAN, 0.87},
  };
  for (const auto &[board, model, core, coreCode, vrm, vccint] : rows) {
    SCOPED_TRACE(board);
    sim::InProcessBoards boards("/ombry-sensor-test");
    std::string error;
    ASSERT_TRUE(boards.AddList(board, &error)) << error;
    boards.Install();
    BRYLDMADevice *device = BRYLDMADeviceOpen(boards.DevicePath("xdma0"), 0);
    ASSERT_NE(device, nullptr);
    // As the worker starts a wide board: the regulator channel, averaged.
    BRYLDMADeviceWrite(device, device->userFile, kRegXadcSequencer, kXadcSequencerAux6);
    BRYLDMADeviceWrite(device, device->userFile, kRegXadcConfig0, kXadcConfig0Averaging);
    I2CController i2c(device, kRegI2CBase);
    auto worker = NewWorker(model);
    worker->targetClockHz = 100000000;
    uint64_t throttleMHz = 0;
    SensorPass(device, i2c, *worker, "Test", RefClockHz(*worker), throttleMHz);
    EXPECT_NEAR(worker->coreTemperature, core, coreCode / 2);
    EXPECT_NEAR(worker->vccint, vccint, 3.0 / 4096 / 2);
    if (!std::isnan(vrm)) { EXPECT_NEAR(worker->vrmTemperature, vrm, 1.90575 * 400 / 4096 / 2); }
    EXPECT_EQ(throttleMHz, 1u);
    BRYLDMADeviceClose(device);
  }
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
  auto worker = NewWorker(10);
  worker->targetClockHz = 50000000;
  EXPECT_EQ(DesiredClockHz(*worker, 25000000, 0, 1), 100000000u);
  EXPECT_EQ(worker->targetClockHz, 50000000u);  // the stored wish is kept

  worker->targetClockHz = 100000000;
  EXPECT_EQ(DesiredClockHz(*worker, 25000000, 1, 1), 99000000u);
  EXPECT_EQ(DesiredClockHz(*worker, 25000000, 100, 1), 0u);

  worker->tuning = TuningActive;
  EXPECT_EQ(DesiredClockHz(*worker, 50000, 0, 1000), 100000000u);
  EXPECT_EQ(worker->targetClockHz, 100050000u);
  EXPECT_EQ(DesiredClockHz(*worker, 50000, 0, 1001), 100050000u);
  EXPECT_EQ(worker->targetClockHz, 100050000u);

  worker->enabled = false;
  EXPECT_EQ(DesiredClockHz(*worker, 25000000, 0, 1000), 0u);
}

}  // namespace
