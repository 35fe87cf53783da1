// What the pool may ask of a session it has connected, answered or honoured:
// client.get_version (the miner's name and version), client.show_message
// (logged, escaped), mining.ping, and client.reconnect, followed only to the
// pool's own host, since a pool must not be able to send a farm elsewhere.
// Everything in them is checked and bounded like any line from the pool.
#pragma once

#include "net/json_rpc.h"
#include "stratum/message_kind.h"
#include "stratum/stratum_context.h"

// The seconds a client.reconnect may ask the miner to wait; a longer wait is
// refused.
constexpr double kLongestReconnectWait = 600;
// The longest pool message shown, in bytes; the rest is cut.
constexpr size_t kPoolMessageBytes = 512;

// For a message of a kind IsPoolRequest() admits. Runs on the receive thread.
void StratumAnswerPoolRequest(VLJsonRpcClient *client, VLJsonRpcMessage *message, PoolMessageKind kind,
                              StratumContext &context);
