// The JSON writer and its exact layout: every value's text starts with two
// blanks per depth, keys included, and a key's text ends in '":' with no line
// end, so an entry's value carries the indent again after the colon. The
// saved configuration is written in this layout, and JSON-RPC lines are this
// text with the blanks and line ends removed.
#include <bit>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "foundation/json.h"
#include "foundation/object_internal.h"
#include "foundation/text.h"

namespace {

void Append(VLObject *out, const char *text, uint32_t length) { VLStringAppendBytes(out, text, length); }
void Append(VLObject *out, const char *text) { VLStringAppendBytes(out, text, static_cast<uint32_t>(strlen(text))); }

// The layout: the saved configuration's, or one line with no blanks outside
// strings.
struct Layout {
  bool compact;
  void Indent(VLObject *out, uint32_t depth) const {
    if (!compact) VLStringAppendRepeated(out, ' ', uint64_t{2} * depth);
  }
  // `text` followed by a line end, which the compact layout leaves out.
  void Line(VLObject *out, const char *text) const {
    Append(out, text);
    if (!compact) Append(out, "\n", 1);
  }
};

void WriteNumber(VLObject *out, const VLObject *number) {
  char text[256];  // a number's text is held to 255 characters
  uint64_t bits = number->number.bits;
  switch (number->number.kind) {
    case VLNumberUInt32: snprintf(text, sizeof text, "%u", static_cast<uint32_t>(bits)); break;
    case VLNumberInt32: snprintf(text, sizeof text, "%i", static_cast<int32_t>(static_cast<uint32_t>(bits))); break;
    case VLNumberReal: snprintf(text, sizeof text, "%f", std::bit_cast<double>(bits)); break;
    case VLNumberBool: snprintf(text, sizeof text, "%s", bits ? "true" : "false"); break;
    case VLNumberUInt64:
      snprintf(text, sizeof text, "%" PRIu64, (static_cast<uint64_t>(number->number.high) << 32) | (bits & 0xFFFFFFFF));
      break;
    default: return;
  }
  Append(out, text);
}

struct Frame {
  const VLObject *container;
  uint32_t depth;
  uint32_t next;  // arrays: items begun; dictionaries: keys and values begun
};

// Writes the indent and a leaf's whole text, or a container's opening (and
// leaves a frame for the rest). Returns whether the value is complete.
bool Begin(VLObject *out, const VLObject *value, uint32_t depth, bool key, std::vector<Frame> &stack,
           const Layout &layout) {
  layout.Indent(out, depth);
  switch (value->type) {
    case VLTypeNumber: WriteNumber(out, value); return true;
    case VLTypeString:
    case VLTypeEditString: {
      VLObject *escaped = VLStringJsonEscape(value->string.chars, value->string.length);
      Append(out, "\"", 1);
      Append(out, escaped->string.chars, escaped->string.length);
      Append(out, key ? "\":" : "\"");
      VLObjectRelease(escaped);
      return true;
    }
    case VLTypeData: {
      size_t length = 0;
      char *text = VLBase64Encode(value->data.bytes, value->data.length, &length);
      Append(out, "\"", 1);
      Append(out, text, static_cast<uint32_t>(length));
      Append(out, "\"", 1);
      free(text);
      return true;
    }
    case VLTypeArray:
      layout.Line(out, "[");
      stack.push_back({value, depth, 0});
      return false;
    case VLTypeDictionary:
      layout.Line(out, "{");
      stack.push_back({value, depth, 0});
      return false;
    case VLTypeNull: Append(out, "null"); return true;
    case VLTypeRange: {
      char text[64];
      snprintf(text, sizeof text, "\"{%i, %i}\"", static_cast<int32_t>(value->range.location),
               static_cast<int32_t>(value->range.length));
      Append(out, text);
      return true;
    }
    default: return true;  // rich text writes nothing
  }
}

// After a member of `frame` is complete: the separator, unless that member was
// a key.
void Separate(VLObject *out, const Frame &frame, const Layout &layout) {
  if (frame.container->type == VLTypeArray) {
    layout.Line(out, frame.next < frame.container->array.count ? "," : "");
  } else if (frame.next % 2 == 0) {
    layout.Line(out, frame.next < 2 * frame.container->dictionary.count ? "," : "");
  }
}

VLObject *Write(const VLObject *root, const Layout &layout) {
  VLObject *out = VLStringCreateWithCapacity(0);
  std::vector<Frame> stack;
  Begin(out, root, 0, false, stack, layout);
  while (!stack.empty()) {
    size_t top = stack.size() - 1;
    const VLObject *container = stack[top].container;
    uint32_t depth = stack[top].depth;
    uint32_t index = stack[top].next;
    const VLObject *member = nullptr;
    bool key = false;
    if (container->type == VLTypeArray) {
      if (index < container->array.count) member = container->array.items[index];
    } else if (index < 2 * container->dictionary.count) {
      key = index % 2 == 0;
      member = key ? container->dictionary.keys[index / 2] : container->dictionary.values[index / 2];
    }
    if (member) {
      stack[top].next++;
      if (Begin(out, member, depth + 1, key, stack, layout)) Separate(out, stack[top], layout);
      continue;
    }
    layout.Indent(out, depth);
    Append(out, container->type == VLTypeArray ? "]" : "}");
    stack.pop_back();
    if (!stack.empty()) Separate(out, stack.back(), layout);
  }
  layout.Line(out, "");
  return out;
}

}  // namespace

VLObject *VLObjectSerialize(const VLObject *obj, uint32_t format) {
  if (!obj || format != VLFormatJson) return nullptr;
  return VLJsonWrite(obj);
}

VLObject *VLJsonWrite(const VLObject *root) { return Write(root, Layout{false}); }

VLObject *VLJsonWriteCompact(const VLObject *root) { return Write(root, Layout{true}); }

VLObject *VLStringJsonEscape(const char *text, uint32_t length) {
  VLObject *escaped = VLStringCreateWithCapacity(length);
  uint32_t plain = 0;  // start of the run of bytes that need no escape
  for (uint32_t i = 0; i < length; ++i) {
    auto byte = static_cast<unsigned char>(text[i]);
    if (byte >= 32 && byte != '"' && byte != '\\') continue;
    Append(escaped, text + plain, i - plain);
    plain = i + 1;
    if (byte < 32) {
      char code[7];
      snprintf(code, sizeof code, "\\u%04X", byte);
      Append(escaped, code, 6);
    } else {
      Append(escaped, byte == '"' ? "\\\"" : "\\\\", 2);
    }
  }
  Append(escaped, text + plain, length - plain);
  return escaped;
}
