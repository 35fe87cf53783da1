// The operator console's state for one run: which worker the keys act on and
// when the next status table is due. MainLoop owns one on its stack.
#pragma once

#include <cstdint>

#include "rig/run_records.h"

struct ConsoleSession {
  explicit ConsoleSession(MiningContext &miningContext) : context(miningContext) {}

  MiningContext &context;
  // -1 for all workers, else a worker number counted from 1. Digits are not
  // checked against the number of workers, so it may name no worker at all.
  int64_t targetDevice = -1;
  bool quickRefresh = false;  // the next table is due at a multiple of 20 passes, not 50
  uint64_t passCount = 0;
  bool vrmWarning = false;  // the banner is due in this pass
};
