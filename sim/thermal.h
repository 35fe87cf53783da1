// How a board's temperatures and core voltage follow its load: the load is
// the hash clock times the number of cores, the temperatures approach their
// steady value for that load with a first-order lag, and VCCINT sags in
// proportion to the load at once.
#pragma once

#include "sim/config.h"

namespace sim {

class Thermal {
 public:
  explicit Thermal(const ThermalModel &setup);

  // Lets `seconds` pass at `loadGHz` (clock in GHz times cores).
  void Advance(double seconds, double loadGHz, const ThermalModel &setup);

  double CoreTemperature() const { return core_; }
  double VrmTemperature() const { return vrm_; }
  static double VccInt(const ThermalModel &setup, double loadGHz, double extraSag);

 private:
  double core_;
  double vrm_;
};

}  // namespace sim
