#include "miner/pool_upkeep.h"

// Placeholder until the Stratum session lands: there is no client to build,
// so the run mines nothing and the state stays as main set it.
void KeepPoolConnection(MiningContext &, uint64_t &) {}
