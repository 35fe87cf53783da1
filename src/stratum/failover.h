// Several pools: the miner mines on one at a time, moves on to the next when
// the active one keeps failing, refuses the login or goes silent, and returns
// to the primary once it has been up for a while.
#pragma once

#include <memory>
#include <string>

#include "net/json_rpc.h"
#include "stratum/stratum_context.h"

// Makes pool `index` the active one: the next connection goes there.
void StratumUsePool(StratumContext &context, uint32_t index);

// Makes pool `index` the active one at the operator's word, with one line
// naming both pools and `reason`; nothing when it is the active one already.
// The caller drops the connection.
void StratumSwitchTo(StratumContext &context, uint32_t index, const std::string &reason);

// Starts a connection to pool `pool` on `client`, over TLS when the pool says
// so. False when the connection could not even be started.
bool StratumOpen(VLJsonRpcClient *client, const PoolEndpoint &pool);

// The console loop's verdict on a lost connection: counts it against the
// active pool and, when the pool is to be given up and there is another,
// switches with one line naming both and the reason. True when it switched;
// the caller then connects at once, unless every pool has been tried since a
// connection last mined (switchesSinceMined), when the pauses go on growing.
bool StratumFailOver(StratumContext &context);

// While a backup mines: tries the primary every primaryRetryInterval in the
// background (connect, subscribe, authorize). True once it has stayed up for
// failbackDelay, with the reason to give: the caller then closes the
// backup's connection and switches back (StratumSwitchTo).
bool StratumWatchPrimary(StratumContext &context, double now, std::string &reason);

// Ends a background try of the primary, if one runs.
void StratumStopProbe(StratumContext &context);
