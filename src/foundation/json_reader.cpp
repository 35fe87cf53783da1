// The JSON reader: a forgiving scanner over a terminated copy of the input.
// Containers are tracked on an explicit stack (tree_builder.h), so a peer
// that sends a million opening brackets costs heap, not a socket thread's
// stack.
#include <cstdlib>
#include <cstring>

#include "foundation/json.h"
#include "foundation/object_internal.h"
#include "foundation/tree_builder.h"
#include "foundation/truncate.h"

namespace {

int HexValue(unsigned char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

class Scanner {
 public:
  Scanner(const char *text, uint64_t length) : at_(text), remaining_(length) {}

  // Seeks the next value. kEnd (the container's end or the input's) comes
  // with no value; a leaf comes as kValue with a new value; an opening
  // bracket is consumed and reported.
  VLScanFound Seek(VLObject **value) {
    *value = nullptr;
    while (remaining_ > 0) {
      char c = *at_;
      switch (c) {
        case '{': Advance(); return VLScanFound::kDictionary;
        case '[': Advance(); return VLScanFound::kArray;
        case '"':
          Advance();
          *value = ScanString();
          return *value ? VLScanFound::kValue : VLScanFound::kEnd;
        case ']':
        case '}': Advance(); return VLScanFound::kEnd;
        case '-':
        case 't':
        case 'T':
        case 'f':
        case 'F':
        case 'n':
        case 'N': *value = ScanNumber(); return *value ? VLScanFound::kValue : VLScanFound::kEnd;
        default:
          if (IsDigit(c)) {
            *value = ScanNumber();
            return *value ? VLScanFound::kValue : VLScanFound::kEnd;
          }
          Advance();  // blanks, commas, colons and anything unknown
      }
    }
    return VLScanFound::kEnd;
  }

 private:
  void Advance() {
    ++at_;
    --remaining_;
  }

  // From after the opening quote to the first quote that isn't escaped; a
  // string cut off by the end of the input is lost.
  VLObject *ScanString() {
    const char *start = at_;
    while (remaining_ > 0) {
      char c = *at_;
      if (c == '"') {
        VLObject *string = VLStringJsonUnescape(start, static_cast<uint32_t>(at_ - start));
        Advance();
        return string;
      }
      Advance();
      if (c != '\\') continue;
      if (remaining_ == 0) return nullptr;
      char escaped = *at_;
      Advance();
      if (escaped != 'u') continue;
      // Up to four hex digits; the first other byte ends the escape and is
      // taken as content, even a quote.
      for (int digit = 0; digit < 4 && remaining_ > 0; ++digit) {
        bool hex = HexValue(static_cast<unsigned char>(*at_)) >= 0;
        Advance();
        if (!hex) break;
      }
    }
    return nullptr;
  }

  // Numbers and literals run over digits and '.' from their first byte; the
  // byte that ends them is left for the enclosing scan, which is how the rest
  // of "true", "false" and "null" is skipped.
  VLObject *ScanNumber() {
    const char *start = at_;
    bool real = false;
    Advance();
    while (remaining_ > 0 && (IsDigit(*at_) || *at_ == '.')) {
      if (*at_ == '.') real = true;
      Advance();
    }
    if (remaining_ == 0) return nullptr;
    switch (*start) {
      case 't':
      case 'T': return VLNumberConstant(VLNumberBool, 1, 0, 0.0);
      case 'f':
      case 'F': return VLNumberConstant(VLNumberBool, 0, 0, 0.0);
      case 'n':
      case 'N': return VLNullCreate();
      default: break;
    }
    // strtod reads what a "%lf" scan reads, exponent included, and the copy
    // is terminated, so it cannot run past the input.
    double d = strtod(start, nullptr);
    if (real) return VLNumberCreateReal(d);
    if (d < 0) return VLNumberCreateInt32(static_cast<uint32_t>(VLTruncateInt32(d)));
    return VLNumberCreateUInt64(VLTruncateUInt64(d));
  }

  const char *at_;
  uint64_t remaining_;
};

}  // namespace

VLObject *VLJsonRead(const char *bytes, uint32_t length) {
  if (!bytes) return nullptr;
  char *copy = static_cast<char *>(malloc(static_cast<size_t>(length) + 1));
  memcpy(copy, bytes, length);
  copy[length] = '\0';
  Scanner scanner(copy, length);
  VLObject *result = VLBuildTree([&](VLObject **value) { return scanner.Seek(value); });
  free(copy);
  return result;
}

VLObject *VLStringJsonUnescape(const char *text, uint32_t length) {
  // No escape writes more bytes than it reads, so the length is enough room.
  VLObject *string = VLStringCreateWithCapacity(length);
  char *out = string->string.chars;
  uint32_t written = 0;
  // Zero bytes are never written: the text is also read as a C string.
  auto put = [&](uint32_t byte) {
    if ((byte & 0xFF) != 0) out[written++] = static_cast<char>(byte & 0xFF);
  };
  uint32_t i = 0;
  while (i < length) {
    auto c = static_cast<unsigned char>(text[i++]);
    if (c != '\\') {
      put(c);
      continue;
    }
    if (i >= length) break;
    auto escaped = static_cast<unsigned char>(text[i++]);
    switch (escaped) {
      case 'b': put(8); break;
      case 'f':
        put(20);  // the program's fixed value, not a form feed
        break;
      case 'n': put(10); break;
      case 'r':
        put(19);  // the program's fixed value, not a carriage return
        break;
      case 't': put(9); break;
      case 'u': {
        if (length - i < 4) {
          // Too short: dropped together with the byte after the 'u'.
          if (i < length) ++i;
          break;
        }
        uint32_t v = 0;
        for (int k = 0; k < 4; ++k) {
          auto digit = static_cast<unsigned char>(text[i++]);
          int hex = HexValue(digit);
          v = v * 16 + static_cast<uint32_t>(hex >= 0 ? hex : digit);
        }
        // Raw bytes, not UTF-8: a high byte first when the value is above 191.
        if (v > 191) put(v >> 8);
        put(v);
        break;
      }
      default: put(escaped);
    }
  }
  out[written] = '\0';
  string->string.length = written;
  return string;
}
