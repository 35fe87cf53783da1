// The XML property-list reader: a scanner over tags in the manner of the JSON
// reader, on a terminated copy, with nesting kept on the heap.
#include <cstdlib>
#include <cstring>
#include <string>

#include "foundation/object_internal.h"
#include "foundation/plist.h"
#include "foundation/text.h"
#include "foundation/tree_builder.h"
#include "foundation/truncate.h"

namespace {

class XmlScanner {
 public:
  XmlScanner(const char *text, uint64_t length) : at_(text), remaining_(length) {}

  VLScanFound Seek(VLObject **value) {
    *value = nullptr;
    for (;;) {
      const char *name;
      size_t name_length;
      if (!ReadTag(&name, &name_length)) return VLScanFound::kEnd;
      auto is = [&](const char *word) { return strncmp(name, word, strlen(word)) == 0; };
      if (name_length > 0 && name[0] == '/') return VLScanFound::kEnd;
      // Names are matched by their beginning, in this order, so "dict/"
      // opens a dictionary like "dict" does.
      if (is("dict")) return VLScanFound::kDictionary;
      if (is("key") || is("string"))
        return Leaf(value, [](const char *text, size_t length) { return VLStringCreateBytes(text, length); });
      if (is("array")) return VLScanFound::kArray;
      if (is("integer"))
        return Leaf(value, [](const char *text, size_t) {
          return VLNumberCreateUInt32(VLTruncateUInt32(strtod(text, nullptr)));
        });
      if (is("real"))
        return Leaf(value, [](const char *text, size_t) { return VLNumberCreateReal(strtod(text, nullptr)); });
      if (is("true") || is("false")) {
        VLObject *constant = VLNumberConstant(VLNumberBool, is("true") ? 1 : 0, 0, 0.0);
        if (name[name_length - 1] == '/') {
          *value = constant;
          return VLScanFound::kValue;
        }
        return Leaf(value, [constant](const char *, size_t) { return constant; });
      }
      if (is("data")) return Leaf(value, DecodeData);
      // Anything else (declaration, document type, plist) is skipped.
    }
  }

 private:
  static VLObject *VLStringCreateBytes(const char *text, size_t length) {
    VLObject *string = VLStringCreateWithCapacity(static_cast<uint32_t>(length));
    VLStringAppendBytes(string, text, static_cast<uint32_t>(length));
    return string;
  }

  static VLObject *DecodeData(const char *text, size_t length) {
    std::string packed;
    for (size_t i = 0; i < length; ++i) {
      if (text[i] != '\r' && text[i] != '\n' && text[i] != ' ' && text[i] != '\t') packed += text[i];
    }
    size_t decoded_length = 0;
    uint8_t *decoded = VLBase64Decode(packed.data(), packed.size(), &decoded_length);
    VLObject *data = VLDataCreate(decoded, static_cast<uint32_t>(decoded_length));
    free(decoded);
    return data;
  }

  void Advance() {
    ++at_;
    --remaining_;
  }

  // Finds the next '<' and the name up to '>'; leaves the position after it.
  bool ReadTag(const char **name, size_t *length) {
    while (remaining_ > 0 && *at_ != '<') Advance();
    if (remaining_ == 0) return false;
    Advance();
    *name = at_;
    while (remaining_ > 0 && *at_ != '>') Advance();
    if (remaining_ == 0) return false;
    *length = static_cast<size_t>(at_ - *name);
    Advance();
    return true;
  }

  // A leaf's text runs to the next '<'; the scan then goes on past the
  // closing tag's '>'. Cut off by the end of the input, the leaf is lost.
  template <typename Make>
  VLScanFound Leaf(VLObject **value, Make make) {
    const char *text = at_;
    while (remaining_ > 0 && *at_ != '<') Advance();
    size_t length = static_cast<size_t>(at_ - text);
    while (remaining_ > 0 && *at_ != '>') Advance();
    if (remaining_ == 0) return VLScanFound::kEnd;
    Advance();
    *value = make(text, length);
    return VLScanFound::kValue;
  }

  const char *at_;
  uint64_t remaining_;
};

}  // namespace

VLObject *VLPlistXmlRead(const char *bytes, uint32_t length) {
  if (!bytes) return nullptr;
  char *copy = static_cast<char *>(malloc(static_cast<size_t>(length) + 1));
  memcpy(copy, bytes, length);
  copy[length] = '\0';
  XmlScanner scanner(copy, length);
  VLObject *result = VLBuildTree([&](VLObject **value) { return scanner.Seek(value); });
  free(copy);
  return result;
}
