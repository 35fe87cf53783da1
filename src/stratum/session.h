// The miner's side of one pool connection: a small state machine driven by
// the JSON-RPC client's three callbacks and by a poll from the console loop.
#pragma once

#include <cstdint>

#include "net/json_rpc.h"
#include "stratum/stratum_context.h"

const char *StratumStateName(uint32_t state);

// Logs "Stratum state <old> -> <new>", then stores the new state. The only
// writer of the state.
void StratumSetState(StratumContext &context, uint32_t state);

// Points the client's callbacks at the session and starts connecting.
void StratumConnect(VLJsonRpcClient *client, StratumContext &context);

// The client's callbacks; `userData` is the StratumContext.
void OnStratumConnected(VLJsonRpcClient *client, void *userData);
void OnStratumDisconnected(VLJsonRpcClient *client, void *userData);
void OnStratumMessage(VLJsonRpcClient *client, VLJsonRpcMessage *message, void *userData);

// One look at the link from the console loop: connects from Idle; closes and
// reconnects when a connect, a handshake answer, the pool's lines or a share's
// answer take longer than the link's limits, or the pool refused the login;
// and after a loss retries with a growing, jittered delay (StratumLink).
void StratumPoll(StratumContext &context);

// Moves the run to pool `index` at the operator's word: the connection to the
// active pool ends and the new pool's starts at once. The console loop's.
void StratumSwitchPool(StratumContext &context, uint32_t index);

// Ends the connection at the end of the run; the pool is told nothing.
void StratumShutdown(StratumContext &context);
