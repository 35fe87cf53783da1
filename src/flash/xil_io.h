// Register access for the SPI controller driver: one positioned 4-byte
// transfer on the board file that the flash flow names, and the driver's
// assertion. The file is process-wide, so only one controller is driven at a
// time, on the main thread, during the scan.
#pragma once

#include <cstdint>

#include "board/device_file.h"

// Set by the flash flow before the driver is used, and left set afterwards.
extern BRYLDMAFile *deviceFileToFlash;

// A failed read gives 0. Addresses already hold the sub-device window.
uint32_t Xil_In32(uint32_t address);
void Xil_Out32(uint32_t address, uint32_t value);

// Called with the source name and line of a failed driver check, before the
// process stops.
using Xil_AssertCallback = void (*)(const char *file, int line);
void Xil_AssertSetCallback(Xil_AssertCallback routine);

// A broken driver invariant: logs, calls the callback and ends the process.
// Valid calls never get here.
[[noreturn]] void Xil_Assert(const char *file, int line);

#define Xil_AssertCheck(expression)                    \
  do {                                                 \
    if (!(expression)) Xil_Assert(__FILE__, __LINE__); \
  } while (0)
