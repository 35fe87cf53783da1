// Operations on text and byte blocks beyond the basic value functions:
// bounded formatting, splitting, hex, base64 and UTF-16.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "foundation/object.h"

// Formats into `buffer`, cut to `size`, and returns strlen of the result. The
// byte after the terminator is cleared too when it lies inside `size`.
// The system's text for an errno value, safe to call from any thread.
std::string VLErrorText(int error);

// A count with thousands separated by commas, as "1,000".
std::string VLThousands(uint64_t value);

size_t VLFormatBuffer(char *buffer, size_t size, const char *format, ...) __attribute__((format(printf, 3, 4)));

// Occurrences of `separator` in `text`, overlapping ones included ("aa"
// occurs twice in "aaa"). An empty separator occurs nowhere.
uint32_t VLTextCount(const char *text, const char *separator);

// The pieces between separators, as a new array of new strings. Empty pieces
// are dropped; text without a separator gives one item, the whole text. A
// piece longer than kVLSplitPieceLimit bytes is refused (dropped): lines
// that long are never sent by a well-behaved peer.
VLObject *VLTextSplit(const char *text, const char *separator);
constexpr uint32_t kVLSplitPieceLimit = 4096;

// strlen(text) / 2 byte pairs into a new zero-terminated block that the caller
// frees with free(). A trailing odd digit is ignored. Bad digits aren't
// detected: as the first of a pair one counts as 15, as the second it makes
// the whole byte 0xFF.
uint8_t *VLHexDecode(const char *text);

// Standard alphabet with '=' padding. The text is followed by a line feed and
// a zero byte, which `out_length` doesn't count. Free with free().
char *VLBase64Encode(const uint8_t *bytes, size_t length, size_t *out_length);
// Decodes groups of four; '=' and bytes outside the alphabet count as 0, and
// nothing is rejected. The caller removes blanks first. Free with free().
uint8_t *VLBase64Decode(const char *text, size_t length, size_t *out_length);

// UTF-16 to UTF-8. Mode 0 gives null, mode 1 reads units in host order, mode 2
// big-endian. A high surrogate without a low one gives null.
VLObject *VLStringFromUtf16(const void *units, uint32_t count, uint32_t mode);
