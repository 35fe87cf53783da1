#include "rig/watchdog.h"

#include <chrono>
#include <thread>

#include "foundation/compat.h"
#include "foundation/console.h"
#include "foundation/logger.h"
#include "rig/run_records.h"

namespace {
constexpr const char *kTag = "Watchdog";
constexpr uint64_t kMissesToStrike = 5;
}  // namespace

void WatchdogThread(std::atomic<uint64_t> *counter) {
  VLThreadSetName("watchdog");
  VL_LOG(VLLogLevelInfo, kTag, "Preparing");
  std::this_thread::sleep_for(std::chrono::milliseconds(5000));
  VL_LOG(VLLogLevelInfo, kTag, "Starting");

  uint64_t lastSeen = 0;
  uint64_t missed = 0;
  for (;;) {
    if (g_runState > RunStateStopping) {
      VL_LOG(VLLogLevelInfo, kTag, "Exiting");
      return;
    }
    uint64_t value = counter->load(std::memory_order_seq_cst);
    if (value == lastSeen) {
      VL_LOG(VLLogLevelInfo, kTag, "Missed update");
      if (++missed == kMissesToStrike) break;
    } else {
      lastSeen = value;
      missed = 0;
      // The main loop moves: the service manager's watchdog is fed from here.
      VLServiceNotifyAlive();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  }
  VL_LOG(VLLogLevelInfo, kTag, "Asking Windows to pull the plug");
  // Standard output is line buffered, so nothing logged is lost; a flush
  // here could block behind the very write that hangs the main thread.
  VLProcessTerminate(1);
}
