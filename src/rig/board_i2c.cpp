#include "rig/board_i2c.h"

#include <cmath>

#include "board/sensor_range.h"

void BoardI2CBringUp(I2CController &controller, BoardModel model) {
  if (model != kI2CRegulatorModel) return;
  controller.Reset();
  controller.Send(kI2CBringUpDevice, {0x01, 0xFF}, kI2CEndWithStop);
}

void BoardI2CTelemetry(I2CController &controller, Worker &worker) {
  if (worker.model != kI2CRegulatorModel) return;
  double result = 0.0;
  for (uint8_t address : kI2CRegulatorSensors) {
    // A reading no sensor can give (a glitch, a failed transfer) is left out.
    double reading = ValidVrmTemperature(ReadBoardTemperature(controller, address));
    if (std::isnan(reading)) continue;
    double stored = std::isnan(worker.vrmTemperature) ? 0.0 : worker.vrmTemperature.load();
    // On a tie the stored value stands.
    result = reading > stored ? reading : stored;
  }
  if (result != 0.0) worker.vrmTemperature = result;
}
