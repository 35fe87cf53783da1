// JSON as a peer sends it, read strictly and within limits: one JSON object (RFC
// 8259, nothing before or after but blanks), no deeper than the depth limit,
// with no more values than the value limit (keys count, and so do
// containers), no longer than the byte limit. Anything else is refused whole.
//
// The parse needs no recursion, and its memory is the line's and about 100
// bytes for each value: some 10 MB at the value limit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "foundation/object.h"

struct VLJsonLimits {
  uint32_t depth = 64;
  uint32_t values = 100000;
  size_t bytes = size_t{1} << 20;
};

enum class VLJsonRefusal : uint32_t {
  kNone = 0,
  kNotJson,    // not well-formed JSON (a property list, text, a cut line)
  kNotObject,  // JSON, but not an object
  kTooLong,
  kTooDeep,
  kTooManyValues,
};

// "not a JSON object", "nested deeper than 64 levels", ... for log lines.
std::string VLJsonRefusalText(VLJsonRefusal why, const VLJsonLimits &limits);

// The object as a new dictionary, or null with the reason in `why` (may be
// null). Numbers are the numbers written: integers from 0 up are
// VLNumberUInt64, negative ones VLNumberInt32 (a real below -2^31), and a
// fraction or an exponent makes a real ("1e-05" is 0.00001). Strings are
// UTF-8 with every escape decoded, zero bytes left out. A repeated key keeps
// its first place and takes the last value.
VLObject *VLJsonReadObject(const char *bytes, size_t length, const VLJsonLimits &limits, VLJsonRefusal *why);

// The same test without building anything: kNone when `bytes` hold one JSON
// object within the limits. For readers that build their own tree.
VLJsonRefusal VLJsonCheckObject(const char *bytes, size_t length, const VLJsonLimits &limits);
