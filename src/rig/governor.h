// The clock and thermal governor of one board: the start-up clock, the walk
// towards the wanted clock in steps, throttling of a board that runs too hot
// or sags, and the tuning search for the highest clock with correct nonces.
// Periods are counted in passes of the worker loop.
#pragma once

#include <cstdint>
#include <vector>

#include "board/i2c.h"
#include "board/registers.h"
#include "board/sensor_range.h"
#include "rig/run_records.h"

constexpr uint64_t kStartClockHz = 100000000;  // every board starts here
constexpr uint32_t kMmcmBase = 0x6000;

uint64_t RefClockHz(const Worker &worker);
uint8_t MmcmMultiplier(const Worker &worker);
uint64_t ClockStep(const Worker &worker);
double CookingVccintLimit(const Worker &worker);
double RecoveryVccintLimit(const Worker &worker);
uint64_t CoreCount(BoardModel model);
// Whether the model reads a regulator temperature: the wide family through
// the XADC, model 6 over I2C. The others have no such reading at all.
bool HasRegulatorSensor(BoardModel model);

// Holds the cores, takes the MMCM out of reset and starts the clock at
// kStartClockHz.
// `i2c` is the board's I2C bus, for the parts that model 6 has there.
void BringUpClock(std::vector<JobSlot> &slots, BRYLDMADevice *device, Worker &worker, const char *logTag,
                  uint64_t refClockHz, uint8_t mmcmMultiplier, I2CController &i2c);

struct SensorReadings {
  double coreTemperature;
  double vrmTemperature;
  double vccint;
};
struct ThermalLimits {
  double cookingVccint;
  double recoveryVccint;
};

// The thermal rule: whether the board cooks, and the throttle after this
// sensor pass. The throttle moves by at most 1 MHz a pass, and holds in the
// dead band between the cooking and the recovery thresholds.
bool IsCooking(const SensorReadings &readings, const ThermalLimits &limits);
uint64_t NextThrottleMHz(const SensorReadings &readings, const ThermalLimits &limits, uint64_t throttleMHz,
                         uint64_t targetClockHz);

// The regulator temperature of the wide family from auxiliary channel 6.
double VrmTemperatureFromAux6(uint32_t raw);

// Reads the sensors into the worker (NaN for no reading), stores the
// heartbeat and applies the thermal rule to `throttleMHz`, logging while the
// board cooks. Throws what the board's I2C bus throws.
void SensorPass(BRYLDMADevice *device, I2CController &i2c, Worker &worker, const char *logTag, uint64_t refClockHz,
                uint64_t &throttleMHz);

// The clock that may be reached in this pass.
uint64_t DesiredClockHz(Worker &worker, uint64_t step, uint64_t throttleMHz, uint64_t loopCount);

// The next clock on the way from `current` to `desired`. Steps down are not
// clamped at `desired`: the clock may overshoot and climb back.
uint64_t NextClockHz(uint64_t current, uint64_t desired, uint64_t step);

// Holds the cores, sets the next clock and records it with its nominal rate.
void TakeClockStep(std::vector<JobSlot> &slots, BRYLDMADevice *device, Worker &worker, uint64_t refClockHz,
                   uint8_t mmcmMultiplier, uint64_t nextClockHz, uint64_t cores);
