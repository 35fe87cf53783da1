// Bounded formatting, counting and splitting of text.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "foundation/object_internal.h"
#include "foundation/text.h"

std::string VLThousands(uint64_t value) {
  // Built from the right in a buffer: 20 digits and 6 commas at most.
  char text[32];
  char *at = text + sizeof text;
  *--at = '\0';
  int digits = 0;
  do {
    if (digits > 0 && digits % 3 == 0) *--at = ',';
    *--at = static_cast<char>('0' + value % 10);
    value /= 10;
    digits++;
  } while (value != 0);
  return at;
}

size_t VLFormatBuffer(char *buffer, size_t size, const char *format, ...) {
  if (!buffer || size == 0) return 0;
  va_list args;
  va_start(args, format);
  vsnprintf(buffer, size, format, args);
  va_end(args);
  size_t length = strlen(buffer);
  if (length + 1 < size) buffer[length + 1] = '\0';
  return length;
}

uint32_t VLTextCount(const char *text, const char *separator) {
  if (!text || !separator) return 0;
  size_t width = strlen(separator);
  if (width == 0) return 0;
  uint32_t count = 0;
  for (const char *at = text; *at; ++at) {
    if (strncmp(at, separator, width) == 0) ++count;
  }
  return count;
}

VLObject *VLTextSplit(const char *text, const char *separator) {
  if (!text) return nullptr;
  uint32_t count = VLTextCount(text, separator);
  if (count == 0) {
    VLObject *whole = VLArrayCreate(1);
    VLObject *copy = VLStringCreate(text, 0);
    VLArrayAppend(whole, copy);
    VLObjectRelease(copy);
    return whole;
  }
  size_t width = strlen(separator);
  VLObject *pieces = VLArrayCreate(count + 1);
  auto take = [&](const char *start, size_t length) {
    if (length == 0 || length > kVLSplitPieceLimit) return;
    VLObject *piece = VLStringCreate(start, static_cast<uint32_t>(length));
    VLArrayAppend(pieces, piece);
    VLObjectRelease(piece);
  };
  const char *start = text;
  const char *at = text;
  while (*at) {
    if (strncmp(at, separator, width) == 0) {
      take(start, static_cast<size_t>(at - start));
      at += width;
      start = at;
    } else {
      ++at;
    }
  }
  take(start, static_cast<size_t>(at - start));
  return pieces;
}

VLObject *VLStringSplit(const VLObject *string, const char *separator) {
  return VLTextSplit(VLStringChars(string), separator);
}

std::string VLErrorText(int error) {
  char buffer[256];
  // The GNU form: returns either `buffer` or a static text of its own.
  return strerror_r(error, buffer, sizeof buffer);
}
