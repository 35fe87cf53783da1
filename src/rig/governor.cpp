#include "rig/governor.h"

#include <chrono>
#include <cmath>
#include <limits>
#include <thread>

#include "foundation/logger.h"
#include "foundation/vltime.h"
#include "rig/board_i2c.h"
#include "foundation/console_io.h"

using namespace std::chrono_literals;

namespace {

constexpr uint64_t kNormalStepHz = 25000000;
constexpr uint64_t kTuningStepHz = 50000;
constexpr double kCookingCoreTemperature = 85.0;
constexpr double kRecoveryCoreTemperature = 80.0;
constexpr double kCookingVrmTemperature = 105.0;
constexpr double kRecoveryVrmTemperature = 98.0;

void HoldCores(BRYLDMADevice *device, const std::vector<JobSlot> &slots) {
  for (const JobSlot &slot : slots) BRYLDMADeviceWrite(device, device->userFile, slot.base + kSlotControl, kSlotHold);
}

}  // namespace

uint64_t RefClockHz(const Worker &worker) {
  if (worker.model == 1) return 300000000;
  if (worker.model == 10) return 125000000;
  if (IsNarrowFamily(worker.model)) return 200000000;
  return 125000000;
}

uint8_t MmcmMultiplier(const Worker &worker) {
  switch (worker.model) {
    case 1: return 16;
    case 6:
    case 7:
    case 8:
    case 9: return 9;
    default: return 0;  // the board keeps its own
  }
}

uint64_t ClockStep(const Worker &worker) {
  return worker.enabled && worker.tuning == TuningActive ? kTuningStepHz : kNormalStepHz;
}

double CookingVccintLimit(const Worker &worker) { return IsWideFamily(worker.model) ? 0.75 : 0.5; }
double RecoveryVccintLimit(const Worker &worker) { return IsWideFamily(worker.model) ? 0.8 : 0.0; }

bool HasRegulatorSensor(BoardModel model) { return IsWideFamily(model) || model == kI2CRegulatorModel; }

uint64_t CoreCount(BoardModel model) {
  switch (model) {
    case 10: return 20;
    case 1: return 12;
    case 7:
    case 9: return 10;
    case 6:
    case 8: return 5;
    case 5: return 3;
    default: return 1;
  }
}

void BringUpClock(std::vector<JobSlot> &slots, BRYLDMADevice *device, Worker &worker, const char *logTag,
                  uint64_t refClockHz, uint8_t mmcmMultiplier, I2CController &i2c) {
  HoldCores(device, slots);
  std::this_thread::sleep_for(500ms);
  BoardI2CBringUp(i2c, worker.model);

  VL_LOG(VLLogLevelInfo, logTag, "Getting MMCM out of reset");
  SetMmcmClockEnable(device, false, worker.layoutVersion);
  SetMmcmReset(device, false, worker.layoutVersion);
  std::this_thread::sleep_for(10ms);

  VL_LOG(VLLogLevelInfo, logTag, "Clock before soft ramp: %llu Hz",
         static_cast<unsigned long long>(GetMmcmClockHz(device, refClockHz, kMmcmBase)));
  worker.currentClockHz = kStartClockHz;

  VL_LOG(VLLogLevelInfo, logTag, "Enabling MMCM clock");
  SetMmcmClockEnable(device, true, worker.layoutVersion);
  VL_LOG(VLLogLevelInfo, logTag, "Setting MMCM clock");
  SetMmcmClockHz(device, refClockHz, kMmcmBase, worker.currentClockHz, mmcmMultiplier, true);
  std::this_thread::sleep_for(5ms);
}

bool IsCooking(const SensorReadings &readings, const ThermalLimits &limits) {
  return readings.vccint < limits.cookingVccint || readings.coreTemperature > kCookingCoreTemperature ||
         readings.vrmTemperature > kCookingVrmTemperature;
}

uint64_t NextThrottleMHz(const SensorReadings &readings, const ThermalLimits &limits, uint64_t throttleMHz,
                         uint64_t targetClockHz) {
  if (IsCooking(readings, limits)) { return throttleMHz * 1000000 < targetClockHz ? throttleMHz + 1 : throttleMHz; }
  bool recovered = readings.vccint >= limits.recoveryVccint && readings.coreTemperature <= kRecoveryCoreTemperature &&
                   readings.vrmTemperature < kRecoveryVrmTemperature;
  return throttleMHz != 0 && recovered ? throttleMHz - 1 : throttleMHz;
}

double VrmTemperatureFromAux6(uint32_t raw) {
  double x = raw >> 4;
  return ((x + 897.25) * 1.90575 / 4096.0) * 400.0 - 272.15;
}

void SensorPass(BRYLDMADevice *device, I2CController &i2c, Worker &worker, const char *logTag, uint64_t refClockHz,
                uint64_t &throttleMHz) {
  bool narrow = IsNarrowFamily(worker.model);
  worker.coreTemperature = ValidCoreTemperature(GetCoreTemperature(device, narrow));
  worker.vccint = ValidVccint(GetVccInt(device, narrow));
  if (IsWideFamily(worker.model)) {
    worker.vrmTemperature =
        ValidVrmTemperature(VrmTemperatureFromAux6(BRYLDMADeviceRead(device, device->userFile, kRegXadcAux6)));
  }
  uint64_t measuredClockHz = GetMmcmClockHz(device, refClockHz, kMmcmBase);
  BoardI2CTelemetry(i2c, worker);
  worker.heartbeat.store(VLTimeSeconds());

  SensorReadings readings{worker.coreTemperature, worker.vrmTemperature, worker.vccint};
  ThermalLimits limits{CookingVccintLimit(worker), RecoveryVccintLimit(worker)};
  if (IsCooking(readings, limits)) {
    SetConsoleColor(ConsoleColorRed);
    VL_LOG(VLLogLevelInfo, logTag, "Warning: Cooking condition detected! Throttling clock");
    VL_LOG(VLLogLevelInfo, logTag, "VRM: %0.2f, Temp: %0.2f C, VCCINT: %0.2f V, Clock: %0.2f MHz",
           readings.vrmTemperature, readings.coreTemperature, readings.vccint,
           static_cast<double>(measuredClockHz) / 1000.0 / 1000.0);
    SetConsoleColor(ConsoleColorNormal);
  }
  throttleMHz = NextThrottleMHz(readings, limits, throttleMHz, worker.targetClockHz);
  worker.throttleMHz = throttleMHz;
}

uint64_t DesiredClockHz(Worker &worker, uint64_t step, uint64_t throttleMHz, uint64_t loopCount) {
  uint64_t desired = worker.targetClockHz < kStartClockHz ? kStartClockHz : worker.targetClockHz.load();
  if (!worker.enabled) return 0;
  if (throttleMHz == 0) {
    if (loopCount % 1000 == 0 && worker.tuning == TuningActive) worker.targetClockHz += step;
    return desired;
  }
  uint64_t throttleHz = throttleMHz * 1000000;
  return throttleHz < worker.targetClockHz ? worker.targetClockHz - throttleHz : 0;
}

uint64_t NextClockHz(uint64_t current, uint64_t desired, uint64_t step) {
  if (desired > current) return current + step < desired ? current + step : desired;
  return current < step ? desired : current - step;
}

void TakeClockStep(std::vector<JobSlot> &slots, BRYLDMADevice *device, Worker &worker, uint64_t refClockHz,
                   uint8_t mmcmMultiplier, uint64_t nextClockHz, uint64_t cores) {
  HoldCores(device, slots);
  std::this_thread::sleep_for(5ms);
  SetMmcmClockHz(device, refClockHz, kMmcmBase, nextClockHz, mmcmMultiplier, true);
  worker.currentClockHz = nextClockHz;
  worker.hashRateMHs = static_cast<double>(nextClockHz) / 1000.0 / 1000.0 * static_cast<double>(cores);
}
