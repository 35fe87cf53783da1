// Arbitrary bytes, as a peer could send them, through VLObjectParse: the JSON,
// XML and binary property-list paths are all reachable from the first bytes.
// Whatever comes back is then copied, written and described, and checked for
// consistency.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "foundation/json.h"
#include "foundation/object.h"

namespace {

void Check(bool condition) {
  if (!condition) abort();
}

// Deepest nesting, without recursion.
uint32_t Depth(const VLObject *root) {
  uint32_t deepest = 0;
  std::vector<std::pair<const VLObject *, uint32_t>> pending{{root, 1}};
  while (!pending.empty()) {
    auto [value, depth] = pending.back();
    pending.pop_back();
    if (depth > deepest) deepest = depth;
    for (uint32_t i = 0; i < VLArrayCount(value); ++i) pending.push_back({VLArrayGet(value, i), depth + 1});
    for (uint32_t i = 0; i < VLDictionaryCount(value); ++i) {
      pending.push_back({VLDictionaryKeyAt(value, i), depth + 1});
      pending.push_back({VLDictionaryValueAt(value, i), depth + 1});
    }
  }
  return deepest;
}

// Both null (no text) or both the same bytes.
bool SameText(const VLObject *a, const VLObject *b) {
  if (!a || !b) return a == b;
  return VLStringLength(a) == VLStringLength(b) && memcmp(VLStringChars(a), VLStringChars(b), VLStringLength(a)) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > UINT32_MAX) return 0;
  VLRef bytes(VLDataCreate(data, static_cast<uint32_t>(size)));
  VLRef value(VLObjectParse(bytes.get()));
  if (!value) return 0;
  VLRef copy(VLObjectCopy(value.get()));
  Check(VLObjectType(copy.get()) == VLObjectType(value.get()));
  // Written text grows with the square of the depth; deep values are only
  // read, copied and released.
  if (Depth(value.get()) > 200) return 0;
  VLRef text(VLObjectSerialize(value.get(), VLFormatJson));
  VLRef copy_text(VLObjectSerialize(copy.get(), VLFormatJson));
  Check(SameText(text.get(), copy_text.get()));
  VLRef description(VLObjectDescribe(value.get()));
  Check(description && VLStringLength(description.get()) > 0);
  // One pass through the writer normalises a value (kinds, precision, text
  // that a real writes as "inf"); after that, writing and reading again is
  // a fixed point.
  VLRef once(VLObjectParse(text.get()));
  VLRef once_text(VLObjectSerialize(once.get(), VLFormatJson));
  VLRef twice(VLObjectParse(once_text.get()));
  VLRef twice_text(VLObjectSerialize(twice.get(), VLFormatJson));
  Check(SameText(once_text.get(), twice_text.get()));
  VLRef wire(VLStringRemoveWhitespace(text.get()));
  VLRef from_wire(VLObjectParse(wire.get()));
  if (VLObjectType(value.get()) == VLTypeArray || VLObjectType(value.get()) == VLTypeDictionary) {
    Check(VLObjectType(from_wire.get()) == VLObjectType(value.get()));
  }
  return 0;
}
