// Strings and byte blocks, and their one growth rule: a block grows by whole
// KiB of what it lacks, not by doubling. Messages are short and appended to a
// few times, so this keeps blocks small without reallocating on every append.
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "foundation/object.h"
#include "foundation/object_internal.h"

namespace {

constexpr uint64_t kGrowthUnit = 1024;

uint64_t RoundUpToUnit(uint64_t amount) { return (amount + kGrowthUnit - 1) / kGrowthUnit * kGrowthUnit; }

bool Writable(const VLObject *string) { return VLIsType(string, VLTypeString) && !string->pinned; }

}  // namespace

// The string's block always holds capacity + 1 bytes, so the terminator fits
// even in a string created with capacity equal to its length.
void VLStringReserve(VLObject *string, uint64_t adding) {
  auto &s = string->string;
  int64_t shortfall = static_cast<int64_t>(adding) - (static_cast<int64_t>(s.capacity) - s.length) + 1;
  if (shortfall <= 0) return;
  uint64_t capacity = s.capacity + RoundUpToUnit(static_cast<uint64_t>(shortfall));
  s.chars = static_cast<char *>(realloc(s.chars, capacity + 1));
  s.capacity = static_cast<uint32_t>(capacity);
}

void VLStringAppendBytes(VLObject *string, const char *bytes, uint32_t length) {
  if (!Writable(string)) return;
  VLStringReserve(string, length);
  auto &s = string->string;
  if (length) memcpy(s.chars + s.length, bytes, length);
  s.length += length;
  s.chars[s.length] = '\0';
}

void VLStringAppendRepeated(VLObject *string, char byte, uint64_t count) {
  if (!Writable(string) || count == 0) return;
  VLStringReserve(string, count);
  auto &s = string->string;
  memset(s.chars + s.length, byte, count);
  s.length += static_cast<uint32_t>(count);
  s.chars[s.length] = '\0';
}

VLObject *VLStringCreate(const char *text, uint32_t length) {
  if (!text) text = "";
  if (length == 0) length = static_cast<uint32_t>(strlen(text));
  VLObject *string = VLObjectAllocate(VLTypeString);
  string->string.capacity = length;
  string->string.chars = static_cast<char *>(malloc(length + 1));
  memcpy(string->string.chars, text, length);
  string->string.chars[length] = '\0';
  string->string.length = length;
  return string;
}

VLObject *VLStringCreateWithCapacity(uint32_t capacity) {
  VLObject *string = VLObjectAllocate(VLTypeString);
  string->string.capacity = capacity + 1;
  string->string.chars = static_cast<char *>(calloc(static_cast<size_t>(capacity) + 2, 1));
  return string;
}

VLObject *VLStringCreateFormat(const char *format, ...) {
  char buffer[4096];
  va_list args;
  va_start(args, format);
  vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  return VLStringCreate(buffer, 0);
}

const char *VLStringChars(const VLObject *string) { return VLIsString(string) ? string->string.chars : nullptr; }

uint32_t VLStringLength(const VLObject *string) { return VLIsString(string) ? string->string.length : 0; }

void VLStringAppend(VLObject *string, const char *text, uint32_t length) {
  if (!Writable(string) || !text) return;
  uint64_t requested = length ? length : strlen(text);
  // Room is made for what was asked, but copying stops at a zero byte.
  VLStringReserve(string, requested);
  VLStringAppendBytes(string, text, static_cast<uint32_t>(strnlen(text, requested)));
}

void VLStringAppendFormat(VLObject *string, const char *format, ...) {
  if (!Writable(string)) return;
  char buffer[32768];
  va_list args;
  va_start(args, format);
  vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  VLStringAppend(string, buffer, 0);
}

uint32_t VLStringCompareText(const VLObject *a, const VLObject *b) {
  const char *x = VLIsString(a) ? a->string.chars : "";
  const char *y = VLIsString(b) ? b->string.chars : "";
  int order = strcasecmp(x, y);
  return order < 0 ? 0 : order == 0 ? 1 : 2;
}

VLObject *VLStringRemoveWhitespace(const VLObject *string) {
  if (!VLIsString(string)) return nullptr;
  VLObject *result = VLStringCreateWithCapacity(string->string.length);
  char *out = result->string.chars;
  uint32_t kept = 0;
  for (uint32_t i = 0; i < string->string.length; ++i) {
    auto byte = static_cast<unsigned char>(string->string.chars[i]);
    if (byte == ' ' || byte == '\n' || byte == '\t' || byte == '\r' || byte >= 0x80) continue;
    out[kept++] = static_cast<char>(byte);
  }
  out[kept] = '\0';
  result->string.length = kept;
  return result;
}

// ---- Data ----

VLObject *VLDataCreate(const void *bytes, uint32_t length) {
  VLObject *data = VLDataCreateWithCapacity(length);
  if (length && bytes) memcpy(data->data.bytes, bytes, length);
  data->data.length = bytes ? length : 0;
  return data;
}

VLObject *VLDataCreateWithCapacity(uint32_t capacity) {
  VLObject *data = VLObjectAllocate(VLTypeData);
  data->data.capacity = capacity;
  data->data.bytes = static_cast<uint8_t *>(malloc(capacity ? capacity : 1));
  return data;
}

uint8_t *VLDataBytes(const VLObject *data) { return VLIsType(data, VLTypeData) ? data->data.bytes : nullptr; }

uint32_t VLDataLength(const VLObject *data) { return VLIsType(data, VLTypeData) ? data->data.length : 0; }

void VLDataSetLength(VLObject *data, uint32_t length) {
  if (!VLIsType(data, VLTypeData)) return;
  data->data.length = length < data->data.capacity ? length : data->data.capacity;
}

void VLDataAppend(VLObject *data, const void *bytes, uint32_t length) {
  if (!VLIsType(data, VLTypeData) || !bytes || length == 0) return;
  auto &d = data->data;
  int64_t shortfall = static_cast<int64_t>(length) - (static_cast<int64_t>(d.capacity) - d.length);
  if (shortfall > 0) {
    uint64_t capacity = d.capacity + RoundUpToUnit(static_cast<uint64_t>(shortfall));
    d.bytes = static_cast<uint8_t *>(realloc(d.bytes, capacity));
    d.capacity = static_cast<uint32_t>(capacity);
  }
  memcpy(d.bytes + d.length, bytes, length);
  d.length += length;
}
