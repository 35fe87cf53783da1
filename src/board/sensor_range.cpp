#include "board/sensor_range.h"

#include <limits>

namespace {

double Within(double value, double lowest, double highest) {
  return value >= lowest && value <= highest ? value : std::numeric_limits<double>::quiet_NaN();
}

}  // namespace

double ValidCoreTemperature(double celsius) { return Within(celsius, -40.0, 125.0); }
double ValidVrmTemperature(double celsius) { return Within(celsius, -40.0, 150.0); }
double ValidVccint(double volts) { return Within(volts, 0.5, 1.5); }
