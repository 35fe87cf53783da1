#include "miner/status_console.h"

#include <chrono>
#include <thread>

#include "miner/console_io.h"

// Placeholder until the operator console lands: 'q' stops the run.
void MainLoop(MiningContext &, std::atomic<uint64_t> &watchdogCounter) {
  while (g_runState == RunStateRunning) {
    ConsumeKeys([](char key) {
      if (key == 'q') g_runState = RunStateStopping;
    });
    watchdogCounter++;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
}
