// The pool's job and difficulty messages, turned into StratumJob records and
// numbers that workers use without touching JSON. All run on the receive
// thread.
#pragma once

#include <cstdint>
#include <vector>

#include "foundation/object.h"
#include "net/json_rpc.h"
#include "stratum/stratum_context.h"

// Every value is checked first (stratum/pool_values.h): one the miner can't
// use is refused with a warning that names it, and the last good one stays.

// mining.notify: builds a job from [job id, header hash, -, previous hash,
// clean] and publishes it. Before authorisation the generation is left for
// the step to Mining to raise.
void StratumProcessJob(VLJsonRpcMessage *message, StratumContext &context, bool preAuthorization);

void StratumSetDifficulty(VLJsonRpcMessage *message, StratumContext &context);
void StratumSetTarget(VLJsonRpcMessage *message, StratumContext &context);
void StratumSetExtranonce(VLJsonRpcMessage *message, StratumContext &context);

// The subscribe answer's extranonce1 and extranonce2 size, and a difficulty
// of its subscription list (where a numeric string counts as a number).
// False when refused.
bool StratumTakeExtranonce(const VLObject *extranonce1, const VLObject *size, StratumContext &context);
bool StratumTakeDifficulty(const VLObject *value, StratumContext &context);
