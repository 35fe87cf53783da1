#include "miner/pool_upkeep.h"

#include "stratum/session.h"

void KeepPoolConnection(MiningContext &context, uint64_t &retryCount) { StratumPoll(context, retryCount); }
