// Readings the hardware can give. Anything else, the value of a failed read
// included, is no reading, kept as NaN: core -40 to 125 C, regulator -40 to
// 150 C, VCCINT 0.5 to 1.5 V.
#pragma once

double ValidCoreTemperature(double celsius);
double ValidVrmTemperature(double celsius);
double ValidVccint(double volts);
