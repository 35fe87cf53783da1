// The pool's verdict on a share, read from its answer. `result: false` with
// no error is a rejection without a reason; a rejection's reason is told by
// its text first and by its code only when the text is empty, because CKB
// pools use code 21 for a share of too low difficulty where other Stratum
// pools mean a stale job.
#pragma once

#include <cstdint>
#include <string>

struct VLJsonRpcMessage;

enum class RejectReason : uint32_t {
  Stale,  // stale, or its job not found
  LowDifficulty,
  Duplicate,
  Unauthorized,
  Other,
  NoneGiven,  // result false, and no error
};
constexpr uint32_t kRejectReasonCount = 6;

// The label monitoring shows ("stale", "low_difficulty", "duplicate",
// "unauthorized", "other", "none_given") and the words a log line uses.
const char *RejectReasonLabel(RejectReason reason);
const char *RejectReasonWords(RejectReason reason);

struct ShareVerdict {
  bool accepted = true;
  RejectReason reason = RejectReason::Other;  // when rejected
};

ShareVerdict StratumReadVerdict(const VLJsonRpcMessage *answer);

// The pool's words in an error answer, whichever form it has: a 2.0 error
// object, the common [code, "text", data] array, an object of a 1.0 peer, or
// a bare string. `text` comes escaped, empty when there is none; `code` is 0
// when the pool gave none, and keeps its sign.
void PoolErrorParts(const VLJsonRpcMessage *answer, std::string &text, int64_t &code);
