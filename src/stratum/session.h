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

// One look at the state from the console loop: connects from Idle, and after
// a loss builds a fresh client on the eleventh poll, counting in `retryCount`.
void StratumPoll(StratumContext &context, uint64_t &retryCount);

// Ends the connection at the end of the run; the pool is told nothing.
void StratumShutdown(StratumContext &context);
