#include "stratum/pool_values.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "foundation/escape.h"
#include "foundation/json.h"
#include "foundation/logger.h"
#include "stratum/targets.h"

namespace {

constexpr const char *kTag = "Miner";
constexpr size_t kShownBytes = 96;

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string NumberText(const VLObject *number) {
  char text[40];
  switch (VLNumberGetKind(number)) {
    case VLNumberBool: return VLNumberGetBool(number) ? "true" : "false";
    case VLNumberInt32: snprintf(text, sizeof text, "%d", static_cast<int32_t>(VLNumberGetInt32(number))); break;
    case VLNumberReal: snprintf(text, sizeof text, "%.10g", VLNumberGetReal(number)); break;
    default: snprintf(text, sizeof text, "%llu", static_cast<unsigned long long>(VLNumberGetUInt64(number))); break;
  }
  return text;
}

// A number as the double it stands for; a kind-1 number keeps its sign.
double NumberValue(const VLObject *number) {
  if (VLNumberGetKind(number) == VLNumberInt32) return static_cast<int32_t>(VLNumberGetInt32(number));
  return VLNumberGetReal(number);
}

}  // namespace

std::string PoolValueText(const VLObject *value) {
  switch (VLObjectType(value)) {
    case 0: return "(nothing)";
    case VLTypeNumber: return NumberText(value);
    default: {
      VLRef text(VLJsonWriteCompact(value));
      return VLEscapeControl(std::string_view(VLStringChars(text.get()), VLStringLength(text.get())), kShownBytes);
    }
  }
}

void RefusePoolValue(const char *what, const VLObject *value, const std::string &why, const std::string &kept) {
  VL_LOG(VLLogLevelWarning, kTag, "Refused %s %s from the pool: %s; keeping %s", what, PoolValueText(value).c_str(),
         why.c_str(), kept.c_str());
}

bool ReadDifficulty(const VLObject *value, bool textAllowed, double &difficulty, std::string &why) {
  double number;
  if (VLObjectType(value) == VLTypeNumber && VLNumberGetKind(value) != VLNumberBool) {
    number = NumberValue(value);
  } else if (textAllowed && VLObjectType(value) == VLTypeString && VLStringLength(value) > 0) {
    char *end = nullptr;
    number = strtod(VLStringChars(value), &end);
    if (*end != '\0') {
      why = "not a number";
      return false;
    }
  } else {
    why = "not a number";
    return false;
  }
  if (!std::isfinite(number) || number <= 0) {
    why = "not a finite number above zero";
    return false;
  }
  // The target is difficulty one's divided by the difficulty; from 2^256 up it
  // has no 256-bit form.
  if (kDifficultyOneTarget / number >= 0x1p256) {
    why = "so small that its target exceeds 256 bits";
    return false;
  }
  difficulty = number;
  return true;
}

bool ReadHex(const VLObject *value, std::vector<uint8_t> &bytes, std::string &why) {
  if (VLObjectType(value) != VLTypeString) {
    why = "not a string";
    return false;
  }
  std::string_view text(VLStringChars(value), VLStringLength(value));
  if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) text.remove_prefix(2);
  if (text.size() % 2 != 0) {
    why = "an odd number of hex digits";
    return false;
  }
  std::vector<uint8_t> decoded(text.size() / 2);
  for (size_t i = 0; i < decoded.size(); i++) {
    int high = HexDigit(text[2 * i]), low = HexDigit(text[2 * i + 1]);
    if (high < 0 || low < 0) {
      why = "not hex";
      return false;
    }
    decoded[i] = static_cast<uint8_t>(high << 4 | low);
  }
  bytes = std::move(decoded);
  return true;
}

bool ReadHash32(const VLObject *value, std::array<uint8_t, 32> &bytes, std::string &why) {
  std::vector<uint8_t> decoded;
  if (!ReadHex(value, decoded, why)) return false;
  if (decoded.size() != bytes.size()) {
    why = "not 64 hex digits";
    return false;
  }
  std::copy(decoded.begin(), decoded.end(), bytes.begin());
  return true;
}

bool ReadJobId(const VLObject *value, std::string &jobId, std::string &why) {
  if (VLObjectType(value) != VLTypeString || VLStringLength(value) == 0) {
    why = "no job id";
    return false;
  }
  std::string_view text(VLStringChars(value), VLStringLength(value));
  if (text.size() > kMaxJobIdLength) {
    why = "a job id of over " + std::to_string(kMaxJobIdLength) + " characters";
    return false;
  }
  for (char c : text) {
    if (c <= ' ' || c >= 0x7F) {
      why = "a job id with blanks or characters that can't be sent back";
      return false;
    }
  }
  jobId.assign(text);
  return true;
}

bool ReadExtranonce(const VLObject *extranonce1, const VLObject *size, std::vector<uint8_t> &bytes,
                    uint64_t &extranonce2Size, std::string &why) {
  std::vector<uint8_t> decoded;
  if (!ReadHex(extranonce1, decoded, why)) return false;
  double count = VLObjectType(size) == VLTypeNumber && VLNumberGetKind(size) != VLNumberBool ? NumberValue(size) : -1;
  if (count < 0 || count > static_cast<double>(kNonceBytes) || count != std::floor(count)) {
    why = "an extranonce2 size of " + PoolValueText(size) + " bytes";
    return false;
  }
  auto wanted = static_cast<uint64_t>(count);
  size_t room = kNonceBytes - std::min(decoded.size(), kNonceBytes);
  if (decoded.size() > kNonceBytes || room < wanted || room < kMinerNonceBytes) {
    why = std::to_string(decoded.size()) + " bytes leave no room for " +
          std::to_string(std::max<uint64_t>(wanted, kMinerNonceBytes)) + " bytes of the nonce";
    return false;
  }
  bytes = std::move(decoded);
  extranonce2Size = wanted;
  return true;
}
