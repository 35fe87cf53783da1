#include "miner/scan.h"

// Placeholder until the board layer lands: no board is found.
void ScanDevices(MiningContext &, bool, const std::string &) {}
