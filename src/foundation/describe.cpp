// A readable dump of a value for error reports. Like the writer it keeps
// open containers on an explicit stack rather than recursing.
#include <bit>
#include <cinttypes>
#include <cstdio>
#include <vector>

#include "foundation/object.h"
#include "foundation/object_internal.h"

namespace {

void Append(VLObject *out, const char *text) { VLStringAppend(out, text, 0); }

struct Frame {
  const VLObject *container;
  uint32_t depth;
  uint32_t next;  // arrays: items begun; dictionaries: keys and values begun
};

// Writes the indent and a leaf, or a container's opening with a frame for the
// rest. Returns whether the value is complete.
bool Begin(VLObject *out, const VLObject *value, uint32_t depth, std::vector<Frame> &stack) {
  VLStringAppendRepeated(out, ' ', uint64_t{2} * depth);
  switch (VLObjectType(value)) {
    case VLTypeNumber: {
      uint64_t bits = value->number.bits;
      switch (value->number.kind) {
        case VLNumberUInt32: VLStringAppendFormat(out, "%u", static_cast<uint32_t>(bits)); break;
        case VLNumberInt32: VLStringAppendFormat(out, "%i", static_cast<int32_t>(static_cast<uint32_t>(bits))); break;
        case VLNumberReal: VLStringAppendFormat(out, "%f", std::bit_cast<double>(bits)); break;
        case VLNumberBool: Append(out, bits ? "true" : "false"); break;
        case VLNumberUInt64:
          VLStringAppendFormat(out, "%" PRIu64, (uint64_t{value->number.high} << 32) | (bits & 0xFFFFFFFF));
          break;
        default: break;
      }
      return true;
    }
    case VLTypeString:
    case VLTypeEditString: VLStringAppendBytes(out, value->string.chars, value->string.length); return true;
    case VLTypeData:
      VLStringAppendFormat(out, "<Data(%u)>: 0x", value->data.length);
      for (uint32_t i = 0; i < value->data.length; ++i) VLStringAppendFormat(out, "%02hhx", value->data.bytes[i]);
      return true;
    case VLTypeNull: Append(out, "(null)"); return true;
    case VLTypeRange:
      VLStringAppendFormat(out, "{%i, %i}", static_cast<int32_t>(value->range.location),
                           static_cast<int32_t>(value->range.length));
      return true;
    case VLTypeArray:
      Append(out, "Array (\n");
      stack.push_back({value, depth, 0});
      return false;
    case VLTypeDictionary:
      Append(out, "Dictionary {\n");
      stack.push_back({value, depth, 0});
      return false;
    default: return true;
  }
}

void AfterMember(VLObject *out, const Frame &frame) {
  bool key = frame.container->type == VLTypeDictionary && frame.next % 2 == 1;
  Append(out, key ? "  =>" : ",\n");
}

}  // namespace

VLObject *VLObjectDescribe(const VLObject *obj) {
  VLObject *out = VLStringCreateWithCapacity(0);
  std::vector<Frame> stack;
  Begin(out, obj, 0, stack);
  while (!stack.empty()) {
    size_t top = stack.size() - 1;
    const VLObject *container = stack[top].container;
    uint32_t index = stack[top].next;
    const VLObject *member = nullptr;
    uint32_t depth = stack[top].depth + 1;
    if (container->type == VLTypeArray) {
      if (index < container->array.count) member = container->array.items[index];
    } else if (index < 2 * container->dictionary.count) {
      bool key = index % 2 == 0;
      member = key ? container->dictionary.keys[index / 2] : container->dictionary.values[index / 2];
      if (!key) depth = 1;  // a value is written at depth 1, wherever its entry stands
    }
    if (member) {
      stack[top].next++;
      if (Begin(out, member, depth, stack)) AfterMember(out, stack[top]);
      continue;
    }
    VLStringAppendRepeated(out, ' ', uint64_t{2} * stack[top].depth);
    Append(out, container->type == VLTypeArray ? ")" : "}");
    stack.pop_back();
    if (!stack.empty()) AfterMember(out, stack.back());
  }
  Append(out, "\n");
  return out;
}
