#pragma once

#include <atomic>
#include <cstdint>

// Ends the process when `counter` stands still for five checks a second
// apart. Returns once the run has finished.
void WatchdogThread(std::atomic<uint64_t> *counter);
