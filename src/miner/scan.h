#pragma once

#include <string>

#include "miner/run_records.h"

// Finds the boards, prints one line per board and gives each compatible one a
// Worker. In a recovery run every board goes to the flash offer instead.
void ScanDevices(MiningContext &context, bool recovery, const std::string &whitelist);
