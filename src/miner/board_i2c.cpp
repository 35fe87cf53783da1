#include "miner/board_i2c.h"

void BoardI2CBringUp(I2CController &controller, BoardModel model) {
  if (model != kI2CRegulatorModel) return;
  controller.Reset();
  controller.Send(kI2CBringUpDevice, {0x01, 0xFF}, kI2CEndWithStop);
}

void BoardI2CTelemetry(I2CController &controller, Worker &worker) {
  if (worker.model != kI2CRegulatorModel) return;
  double result = 0.0;
  for (uint8_t address : kI2CRegulatorSensors) {
    double reading = ReadBoardTemperature(controller, address);
    double stored = worker.vrmTemperature;
    // On a tie the stored value stands.
    result = reading > stored ? reading : stored;
  }
  if (result != 0.0) worker.vrmTemperature = result;
}
