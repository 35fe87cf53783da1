#include "sim/thermal.h"

#include <algorithm>
#include <cmath>

namespace sim {

Thermal::Thermal(const ThermalModel &setup) : core_(setup.ambient), vrm_(setup.ambient) {}

void Thermal::Advance(double seconds, double loadGHz, const ThermalModel &setup) {
  double coreTarget = setup.ambient + setup.coreHeat * loadGHz;
  double vrmTarget = setup.ambient + setup.vrmHeat * loadGHz;
  double follow = setup.lagSeconds <= 0.0 ? 1.0 : 1.0 - std::exp(-std::max(seconds, 0.0) / setup.lagSeconds);
  core_ += (coreTarget - core_) * follow;
  vrm_ += (vrmTarget - vrm_) * follow;
}

double Thermal::VccInt(const ThermalModel &setup, double loadGHz, double extraSag) {
  return std::max(0.0, setup.vccintNominal - setup.vccintSagRate * loadGHz - extraSag);
}

}  // namespace sim
