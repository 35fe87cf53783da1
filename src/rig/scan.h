// Finding the boards: one line per board, a Worker for each usable one, and
// the flash offer for the others.
#pragma once

#include <string>
#include <vector>

#include "flash/flash_offer.h"
#include "rig/run_records.h"

// Models whose device path holds further FPGAs behind the primary one.
bool HasSubDevices(BoardModel model);

// Walks the driver's device paths and scans each. Ends the process with code
// 1 when there is no device list or it is empty.
void ScanDevices(MiningContext &context, bool recovery, const std::string &whitelist);

// One device path (and, for `subDevice` above 0, one further FPGA on it). A
// compatible board in a normal run becomes a Worker; any other board that
// could be identified goes to the flash offer, and is closed afterwards.
void ScanDevice(FlashOfferFlags &flags, MiningContext &context, bool recovery, const std::string &whitelist,
                const std::vector<std::string> &paths, uint64_t index, uint64_t subDevice);
