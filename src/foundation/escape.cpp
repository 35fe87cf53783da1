#include "foundation/escape.h"

#include <cstdio>
#include <cstring>

namespace {

// The length of the valid UTF-8 sequence at `at`, or 0 when it is none
// (overlong forms and surrogates included).
size_t Utf8Length(const unsigned char *at, size_t left) {
  unsigned char lead = at[0];
  size_t length;
  unsigned char low = 0x80, high = 0xBF;  // the second byte's range
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (left < length || at[1] < low || at[1] > high) return 0;
  for (size_t i = 2; i < length; i++) {
    if (at[i] < 0x80 || at[i] > 0xBF) return 0;
  }
  return length;
}

// The code point of a two- or three-byte sequence that must be escaped
// (a C1 control or a mark that reorders text), or 0.
unsigned EscapedCodePoint(const unsigned char *at, size_t length) {
  unsigned code = 0;
  if (length == 2) code = ((at[0] & 0x1Fu) << 6) | (at[1] & 0x3Fu);
  if (length == 3) code = ((at[0] & 0x0Fu) << 12) | ((at[1] & 0x3Fu) << 6) | (at[2] & 0x3Fu);
  bool control = code >= 0x80 && code <= 0x9F;
  bool reorders = (code >= 0x202A && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
  return control || reorders ? code : 0;
}

// A colour sequence at `at`: ESC [ digits and semicolons m. Its length, or 0.
size_t ColourLength(const char *at, size_t left) {
  if (left < 3 || at[0] != '\x1b' || at[1] != '[') return 0;
  for (size_t i = 2; i < left; i++) {
    if (at[i] == 'm') return i + 1;
    if (!((at[i] >= '0' && at[i] <= '9') || at[i] == ';')) return 0;
  }
  return 0;
}

// Hands the escaped text to `emit(bytes, length, divisible)` piece by piece
// until it returns false. Only a run of plain text is divisible; an escape, a
// colour or a UTF-8 sequence must stay whole.
template <typename Emit>
void Escape(const char *text, size_t length, bool keepColour, Emit emit) {
  char escape[16];
  size_t i = 0;
  while (i < length) {
    auto byte = static_cast<unsigned char>(text[i]);
    if (byte >= 0x20 && byte < 0x7F) {
      size_t run = i + 1;
      while (run < length && static_cast<unsigned char>(text[run]) >= 0x20 &&
             static_cast<unsigned char>(text[run]) < 0x7F) {
        run++;
      }
      if (!emit(text + i, run - i, true)) return;
      i = run;
      continue;
    }
    size_t piece = 1;
    bool shown = false;
    if (byte < 0x20 || byte == 0x7F) {
      size_t colour = keepColour ? ColourLength(text + i, length - i) : 0;
      if (colour > 0) {
        piece = colour;
        shown = true;
      } else {
        snprintf(escape, sizeof escape, "\\u%04x", byte);
      }
    } else {
      auto *at = reinterpret_cast<const unsigned char *>(text + i);
      piece = Utf8Length(at, length - i);
      if (piece == 0) {
        piece = 1;
        snprintf(escape, sizeof escape, "\\x%02x", byte);
      } else if (unsigned code = EscapedCodePoint(at, piece)) {
        snprintf(escape, sizeof escape, "\\u%04x", code);
      } else {
        shown = true;
      }
    }
    if (!(shown ? emit(text + i, piece, false) : emit(escape, strlen(escape), false))) return;
    i += piece;
  }
}

}  // namespace

std::string VLEscapeControl(std::string_view text, size_t limit) {
  std::string out;
  size_t shown = text.size() < limit ? text.size() : limit;
  out.reserve(shown);
  Escape(text.data(), shown, false, [&](const char *bytes, size_t length, bool) {
    out.append(bytes, length);
    return true;
  });
  if (shown < text.size()) out += "... (" + std::to_string(text.size()) + " bytes)";
  return out;
}

std::string VLEscapeControl(const char *text, size_t limit) {
  return text ? VLEscapeControl(std::string_view(text), limit) : "(null)";
}

std::string VLEscapeControl(const VLObject *string, size_t limit) {
  if (VLObjectType(string) != VLTypeString) return "(null)";
  return VLEscapeControl(std::string_view(VLStringChars(string), VLStringLength(string)), limit);
}

size_t VLEscapeInto(char *out, size_t size, const char *text, size_t length, bool keepColour) {
  if (size == 0) return 0;
  size_t written = 0;
  Escape(text, length, keepColour, [&](const char *bytes, size_t count, bool divisible) {
    if (written + count + 1 > size) {
      if (divisible) {
        count = size - 1 - written;
        memcpy(out + written, bytes, count);
        written += count;
      }
      return false;
    }
    memcpy(out + written, bytes, count);
    written += count;
    return true;
  });
  out[written] = '\0';
  return written;
}
