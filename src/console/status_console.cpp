#include "console/status_console.h"

#include <chrono>
#include <thread>

#include "foundation/vltime.h"
#include "foundation/console_io.h"
#include "console/key_commands.h"
#include "rig/pool_upkeep.h"
#include "console/status_table.h"

namespace {
constexpr auto kPassSleep = std::chrono::milliseconds(100);
constexpr uint64_t kTablePasses = 50;
constexpr uint64_t kQuickTablePasses = 20;
}  // namespace

void FinishConsolePass(ConsoleSession &session, std::atomic<uint64_t> &watchdogCounter) {
  session.passCount++;
  session.vrmWarning = false;
  // The count isn't reset by a quick refresh, so after '+' the table may come
  // at once if a multiple of 20 is near.
  uint64_t period = session.quickRefresh ? kQuickTablePasses : kTablePasses;
  if (session.passCount % period == 0) {
    PrintStatusTable(session, VLTimeSeconds());
    session.quickRefresh = false;
  }
  if (session.vrmWarning) PrintVrmBanner();
  watchdogCounter++;
}

void MainLoop(MiningContext &context, std::atomic<uint64_t> &watchdogCounter, const std::function<void()> &eachPass) {
  ConsoleSession session(context);
  while (g_runState == RunStateRunning) {
    KeepPoolConnection(context);
    if (eachPass) eachPass();
    ConsumeKeys([&](char key) { HandleKey(session, key); });
    std::this_thread::sleep_for(kPassSleep);
    FinishConsolePass(session, watchdogCounter);
  }
}
