#include "stratum/share_verdict.h"

#include <algorithm>
#include <cctype>
#include <string_view>

#include "foundation/escape.h"
#include "net/json_rpc.h"

namespace {

// Text of an error that is longer than this is cut; a reason is in its words.
constexpr size_t kErrorTextBytes = 256;

struct Words {
  const char *part;  // lower case
  RejectReason reason;
};

// In this order: the first part found in the text decides.
constexpr Words kReasonWords[] = {
    {"stale", RejectReason::Stale},
    {"job not found", RejectReason::Stale},
    {"unknown job", RejectReason::Stale},
    {"no such job", RejectReason::Stale},
    {"low difficulty", RejectReason::LowDifficulty},
    {"low-difficulty", RejectReason::LowDifficulty},
    {"low diff", RejectReason::LowDifficulty},
    {"difficulty too low", RejectReason::LowDifficulty},
    {"above target", RejectReason::LowDifficulty},
    {"high-hash", RejectReason::LowDifficulty},
    {"duplicate", RejectReason::Duplicate},
    {"unauthori", RejectReason::Unauthorized},
    {"not authori", RejectReason::Unauthorized},
};

// The common Stratum codes, for an error that says nothing else.
RejectReason ReasonOfCode(int64_t code) {
  switch (code) {
    case 21: return RejectReason::Stale;
    case 22: return RejectReason::Duplicate;
    case 23: return RejectReason::LowDifficulty;
    case 24:
    case 25: return RejectReason::Unauthorized;
    default: return RejectReason::Other;
  }
}

RejectReason ReasonOfText(const std::string &text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (const Words &words : kReasonWords) {
    if (lower.find(words.part) != std::string::npos) return words.reason;
  }
  return RejectReason::Other;
}

bool Blank(const std::string &text) {
  return std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isspace(c); });
}

// A whole number as the pool wrote it, sign and all.
int64_t SignedNumber(const VLObject *value) {
  if (VLObjectType(value) != VLTypeNumber) return 0;
  switch (VLNumberGetKind(value)) {
    case VLNumberInt32: return static_cast<int32_t>(VLNumberGetInt32(value));
    case VLNumberBool: return 0;
    default: return VLNumberGetInt64(value);
  }
}

std::string Text(const VLObject *value) {
  return VLObjectType(value) == VLTypeString ? VLEscapeControl(value, kErrorTextBytes) : "";
}

}  // namespace

const char *RejectReasonLabel(RejectReason reason) {
  switch (reason) {
    case RejectReason::Stale: return "stale";
    case RejectReason::LowDifficulty: return "low_difficulty";
    case RejectReason::Duplicate: return "duplicate";
    case RejectReason::Unauthorized: return "unauthorized";
    case RejectReason::NoneGiven: return "none_given";
    default: return "other";
  }
}

const char *RejectReasonWords(RejectReason reason) {
  switch (reason) {
    case RejectReason::Stale: return "stale";
    case RejectReason::LowDifficulty: return "low difficulty";
    case RejectReason::Duplicate: return "duplicate";
    case RejectReason::Unauthorized: return "unauthorised";
    case RejectReason::NoneGiven: return "none given";
    default: return "other";
  }
}

void PoolErrorParts(const VLJsonRpcMessage *answer, std::string &text, int64_t &code) {
  text.clear();
  code = 0;
  if (!VLJsonRpcMessageIsError(answer)) return;
  if (VLJsonRpcMessageVersion(answer) == VLJsonRpcVersion2) {
    code = VLJsonRpcMessageErrorCode(answer);
    text = Text(VLJsonRpcMessageErrorMessage(answer));
    return;
  }
  const VLObject *error = VLJsonRpcMessageErrorObject(answer);
  switch (VLObjectType(error)) {
    case VLTypeArray:
      code = SignedNumber(VLArrayGet(error, 0));
      text = Text(VLArrayGet(error, 1));
      break;
    case VLTypeDictionary:
      code = SignedNumber(VLDictionaryGetByName(error, "code"));
      text = Text(VLDictionaryGetByName(error, "message"));
      break;
    default: text = Text(error); break;
  }
}

ShareVerdict StratumReadVerdict(const VLJsonRpcMessage *answer) {
  ShareVerdict verdict;
  if (!VLJsonRpcMessageIsError(answer)) {
    // No error: only an explicit false result is a rejection.
    const VLObject *result = VLJsonRpcMessageResult(answer);
    if (VLObjectType(result) == VLTypeNumber && !VLNumberGetBool(result)) {
      verdict.accepted = false;
      verdict.reason = RejectReason::NoneGiven;
    }
    return verdict;
  }
  verdict.accepted = false;
  std::string text;
  int64_t code = 0;
  PoolErrorParts(answer, text, code);
  verdict.reason = Blank(text) ? ReasonOfCode(code) : ReasonOfText(text);
  return verdict;
}
