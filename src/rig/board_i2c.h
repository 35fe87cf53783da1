// The worker's use of the board's I2C bus. Only model 6 has parts there: a
// device that must be set before its clock starts, and three regulator
// temperature sensors. Both calls do nothing on other models, so the worker
// can make them unconditionally. A bus that stays busy throws from inside
// (std::runtime_error), and that is left to end the process.
#pragma once

#include <cstdint>

#include "board/i2c.h"
#include "rig/run_records.h"

constexpr BoardModel kI2CRegulatorModel = 6;
constexpr uint8_t kI2CBringUpDevice = 0x2C;
constexpr uint8_t kI2CRegulatorSensors[] = {0x18, 0x19, 0x1F};

// During the clock bring-up, after the cores are held and before the MMCM
// leaves reset: a soft reset of the controller, then 0x01, 0xFF to 0x2C.
// Whether the device took them isn't looked at.
void BoardI2CBringUp(I2CController &controller, BoardModel model);

// In the sensor pass: reads the three sensors in order and raises
// `vrmTemperature` to what 0x1F reads when that is higher. Each reading is
// compared with the stored field, not with the one before it, so only 0x1F
// decides; the other two are read for their bus traffic alone. The field
// never falls while the worker runs, so one hot reading stays on show and
// keeps the governor throttling.
void BoardI2CTelemetry(I2CController &controller, Worker &worker);
