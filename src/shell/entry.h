// Entry and run control: the mode of the run, the process-wide services, and
// the order in which the run starts and stops.
#pragma once

#include <cstdint>

int MinerMain(int argc, char **argv);

// Brings up the process-wide services: console output and signals, the
// random seed and the locale.
void SystemInit();

// Console control events: a stop request holds the event's thread until main
// has finished its shutdown.
bool ConsoleCtrlHandler(uint32_t event);
