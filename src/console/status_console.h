#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "console/console_session.h"
#include "rig/run_records.h"

// The main thread's loop: keys, pool connection upkeep and the status table,
// until the run stops. Raises `watchdogCounter` once per pass; `eachPass`, if
// given, runs once per pass after the pool upkeep.
void MainLoop(MiningContext &context, std::atomic<uint64_t> &watchdogCounter,
              const std::function<void()> &eachPass = {});

// The part of a pass after its sleep: counts the pass, prints the table when
// it is due and the VRM banner when that table asks for it, and feeds the
// watchdog.
void FinishConsolePass(ConsoleSession &session, std::atomic<uint64_t> &watchdogCounter);
