// Hex, base64 and UTF-16 conversions.
#include <array>
#include <cstdlib>
#include <cstring>

#include "foundation/object_internal.h"
#include "foundation/text.h"

namespace {

// -1 for a byte that isn't a hex digit.
int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

constexpr char kBase64Alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Built at compile time: a table filled on first use would be written by
// concurrent first callers.
constexpr std::array<uint8_t, 256> MakeBase64Reverse() {
  std::array<uint8_t, 256> table{};
  for (uint8_t i = 0; i < 64; ++i) table[static_cast<uint8_t>(kBase64Alphabet[i])] = i;
  return table;
}
constexpr std::array<uint8_t, 256> kBase64Reverse = MakeBase64Reverse();

void AppendUtf8(VLObject *string, uint32_t point) {
  char bytes[4];
  uint32_t length;
  if (point < 0x80) {
    bytes[0] = static_cast<char>(point);
    length = 1;
  } else if (point < 0x800) {
    bytes[0] = static_cast<char>(0xC0 | (point >> 6));
    bytes[1] = static_cast<char>(0x80 | (point & 0x3F));
    length = 2;
  } else if (point < 0x10000) {
    bytes[0] = static_cast<char>(0xE0 | (point >> 12));
    bytes[1] = static_cast<char>(0x80 | ((point >> 6) & 0x3F));
    bytes[2] = static_cast<char>(0x80 | (point & 0x3F));
    length = 3;
  } else {
    bytes[0] = static_cast<char>(0xF0 | (point >> 18));
    bytes[1] = static_cast<char>(0x80 | ((point >> 12) & 0x3F));
    bytes[2] = static_cast<char>(0x80 | ((point >> 6) & 0x3F));
    bytes[3] = static_cast<char>(0x80 | (point & 0x3F));
    length = 4;
  }
  VLStringAppendBytes(string, bytes, length);
}

}  // namespace

uint8_t *VLHexDecode(const char *text) {
  if (!text) return nullptr;
  size_t pairs = strlen(text) / 2;
  auto *bytes = static_cast<uint8_t *>(malloc(pairs + 1));
  for (size_t i = 0; i < pairs; ++i) {
    int high = HexValue(text[2 * i]);
    int low = HexValue(text[2 * i + 1]);
    if (high < 0) high = 15;
    bytes[i] = low < 0 ? 0xFF : static_cast<uint8_t>((high << 4) | low);
  }
  bytes[pairs] = 0;
  return bytes;
}

VLObject *VLDataFromHexString(const VLObject *string) {
  const char *text = VLStringChars(string);
  if (!text || !*text) return nullptr;
  if (strlen(text) > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) text += 2;
  uint8_t *bytes = VLHexDecode(text);
  VLObject *data = VLDataCreate(bytes, static_cast<uint32_t>(strlen(text) / 2));
  free(bytes);
  return data;
}

char *VLBase64Encode(const uint8_t *bytes, size_t length, size_t *out_length) {
  size_t encoded = (length + 2) / 3 * 4;
  auto *text = static_cast<char *>(malloc(encoded + 2));
  if (!text) return nullptr;
  size_t out = 0;
  for (size_t i = 0; i < length; i += 3) {
    uint32_t group = static_cast<uint32_t>(bytes[i]) << 16;
    if (i + 1 < length) group |= static_cast<uint32_t>(bytes[i + 1]) << 8;
    if (i + 2 < length) group |= bytes[i + 2];
    text[out++] = kBase64Alphabet[(group >> 18) & 63];
    text[out++] = kBase64Alphabet[(group >> 12) & 63];
    text[out++] = i + 1 < length ? kBase64Alphabet[(group >> 6) & 63] : '=';
    text[out++] = i + 2 < length ? kBase64Alphabet[group & 63] : '=';
  }
  text[out] = '\n';
  text[out + 1] = '\0';
  if (out_length) *out_length = encoded;
  return text;
}

uint8_t *VLBase64Decode(const char *text, size_t length, size_t *out_length) {
  if (!text) return nullptr;
  // The length rule of the format's writers; text that isn't a whole number
  // of groups decodes to a length of its own making, never beyond the input.
  int64_t decoded = static_cast<int64_t>((length + 3) / 4 * 3) - static_cast<int64_t>(length % 4);
  if (length >= 1 && text[length - 1] == '=') --decoded;
  if (length >= 2 && text[length - 2] == '=') --decoded;
  if (decoded < 0) decoded = 0;
  auto *bytes = static_cast<uint8_t *>(malloc(static_cast<size_t>(decoded) + 1));
  if (!bytes) return nullptr;
  size_t out = 0;
  auto total = static_cast<size_t>(decoded);
  for (size_t i = 0; i < length && out < total; i += 4) {
    uint32_t group = 0;
    for (size_t j = 0; j < 4; ++j) {
      uint8_t value = i + j < length ? kBase64Reverse[static_cast<uint8_t>(text[i + j])] : 0;
      group = (group << 6) | value;
    }
    for (int shift = 16; shift >= 0 && out < total; shift -= 8) bytes[out++] = static_cast<uint8_t>(group >> shift);
  }
  if (out_length) *out_length = out;
  return bytes;
}

VLObject *VLStringFromUtf16(const void *units, uint32_t count, uint32_t mode) {
  if (mode == 0 || (!units && count) || count > (UINT32_MAX - 2) / 8) return nullptr;
  auto *raw = static_cast<const uint8_t *>(units);
  auto unit_at = [&](uint32_t i) -> uint32_t {
    uint16_t unit;
    memcpy(&unit, raw + 2 * static_cast<size_t>(i), 2);
    if (mode == 2) unit = static_cast<uint16_t>((unit >> 8) | (unit << 8));
    return unit;
  };
  VLObject *string = VLStringCreateWithCapacity(count * 8);
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t point = unit_at(i);
    if (point >= 0xD800 && point < 0xDC00) {
      uint32_t low = i + 1 < count ? unit_at(i + 1) : 0;
      if (low < 0xDC00 || low >= 0xE000) {
        VLObjectRelease(string);
        return nullptr;
      }
      point = 0x10000 + ((point - 0xD800) << 10) + (low - 0xDC00);
      ++i;
    }
    AppendUtf8(string, point);
  }
  return string;
}
