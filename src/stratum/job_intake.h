// The pool's job and difficulty messages, turned into StratumJob records and
// numbers that workers use without touching JSON. All run on the receive
// thread.
#pragma once

#include <cstdint>
#include <vector>

#include "foundation/object.h"
#include "net/json_rpc.h"
#include "stratum/stratum_context.h"

// Decodes a hex string value (an "0x" prefix is skipped); empties `out` when
// there is nothing to decode.
void HexToBytes(const VLObject *value, std::vector<uint8_t> &out);
std::vector<uint8_t> HexToBytes(const VLObject *value);

// mining.notify: builds a job from [job id, header hash, -, previous hash,
// clean] and publishes it. Before authorisation the generation is left for
// the step to Mining to raise.
void StratumProcessJob(VLJsonRpcMessage *message, StratumContext &context, bool preAuthorization);

void StratumSetDifficulty(VLJsonRpcMessage *message, StratumContext &context);
void StratumSetTarget(VLJsonRpcMessage *message, StratumContext &context);
void StratumSetExtranonce(VLJsonRpcMessage *message, StratumContext &context);
