// Real-to-integer conversions with fixed results for every input. A plain C++
// cast is undefined for NaN and out-of-range values; these give what the x86
// truncating instructions give, which the value conversions rely on.
#pragma once

#include <cmath>
#include <cstdint>

// To signed 32 bits; NaN and out-of-range values give INT32_MIN.
inline int32_t VLTruncateInt32(double d) {
  if (!(d > -2147483649.0 && d < 2147483648.0)) return INT32_MIN;
  return static_cast<int32_t>(d);
}

// To signed 64 bits; NaN and out-of-range values give INT64_MIN.
inline int64_t VLTruncateInt64(double d) {
  if (!(d >= -9223372036854775808.0 && d < 9223372036854775808.0)) return INT64_MIN;
  return static_cast<int64_t>(d);
}

// To unsigned 64 bits: values from 2^63 up are taken down by 2^63 and the top
// bit added back, so 2^64 and above come out wrapped (2^64 gives 0).
inline uint64_t VLTruncateUInt64(double d) {
  constexpr double kTwo63 = 9223372036854775808.0;
  if (d >= kTwo63) return static_cast<uint64_t>(VLTruncateInt64(d - kTwo63)) + 0x8000000000000000ull;
  return static_cast<uint64_t>(VLTruncateInt64(d));
}

// To unsigned 32 bits: the low half of the 64-bit truncation.
inline uint32_t VLTruncateUInt32(double d) { return static_cast<uint32_t>(VLTruncateInt64(d)); }
