#include "rig/pool_upkeep.h"

#include "stratum/session.h"

void KeepPoolConnection(MiningContext &context) { StratumPoll(context); }
