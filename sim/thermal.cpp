#include "sim/thermal.h"

#include <algorithm>
#include <cmath>

namespace sim {

Thermal::Thermal(const ThermalSpec &spec) : core_(spec.ambient), vrm_(spec.ambient) {}

void Thermal::Advance(double seconds, double loadGHz, const ThermalSpec &spec) {
  double coreTarget = spec.ambient + spec.coreHeat * loadGHz;
  double vrmTarget = spec.ambient + spec.vrmHeat * loadGHz;
  double follow = spec.lagSeconds <= 0.0 ? 1.0 : 1.0 - std::exp(-std::max(seconds, 0.0) / spec.lagSeconds);
  core_ += (coreTarget - core_) * follow;
  vrm_ += (vrmTarget - vrm_) * follow;
}

double Thermal::VccInt(const ThermalSpec &spec, double loadGHz, double extraSag) {
  return std::max(0.0, spec.vccintNominal - spec.vccintSagRate * loadGHz - extraSag);
}

}  // namespace sim
