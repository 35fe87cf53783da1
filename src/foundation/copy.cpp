// Deep copies. Containers are walked with an explicit stack, so the depth of
// a value costs heap rather than call stack.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "foundation/object.h"
#include "foundation/object_internal.h"

namespace {

bool Copyable(const VLObject *obj) {
  switch (obj->type) {
    case VLTypeNumber:
    case VLTypeString:
    case VLTypeData:
    case VLTypeArray:
    case VLTypeDictionary:
    case VLTypeNull:
    case VLTypeRange: return true;
    default: return false;  // edit strings and rich text copy to nothing
  }
}

struct Frame {
  const VLObject *source;
  VLObject *copy;
  uint32_t next;
};

// Copies a leaf outright; for a container makes an empty one of the same
// capacity and leaves a frame to fill it. `obj` must be Copyable.
VLObject *Start(const VLObject *obj, std::vector<Frame> &stack) {
  switch (obj->type) {
    case VLTypeNumber: {
      VLObject *copy = VLObjectAllocate(VLTypeNumber);
      copy->number = obj->number;
      return copy;
    }
    case VLTypeString: {
      VLObject *copy = VLStringCreateWithCapacity(obj->string.length);
      VLStringAppendBytes(copy, obj->string.chars, obj->string.length);
      return copy;
    }
    case VLTypeData: return VLDataCreate(obj->data.bytes, obj->data.length);
    case VLTypeNull: return VLNullCreate();
    case VLTypeRange: return VLRangeCreate(obj->range.location, obj->range.length);
    case VLTypeArray: {
      VLObject *copy = VLArrayCreate(obj->array.capacity);
      stack.push_back({obj, VLObjectRetain(copy), 0});
      return copy;
    }
    case VLTypeDictionary: {
      VLObject *copy = VLDictionaryCreate(obj->dictionary.capacity);
      stack.push_back({obj, VLObjectRetain(copy), 0});
      return copy;
    }
    default: return nullptr;
  }
}

void Finish(std::vector<Frame> &stack) {
  VLObject *copy = stack.back().copy;
  stack.pop_back();
  VLObjectRelease(copy);
}

}  // namespace

VLObject *VLObjectCopy(const VLObject *obj) {
  if (!obj || !Copyable(obj)) return nullptr;
  std::vector<Frame> stack;
  VLObject *root = Start(obj, stack);
  while (!stack.empty()) {
    size_t top = stack.size() - 1;
    const VLObject *source = stack[top].source;
    VLObject *copy = stack[top].copy;
    uint32_t index = stack[top].next++;
    // A container copy is linked into its parent before it is filled, and
    // filled from its own frame later. The frame holds a reference of its own
    // until then.
    if (source->type == VLTypeArray) {
      if (index >= source->array.count) {
        Finish(stack);
        continue;
      }
      const VLObject *item = source->array.items[index];
      if (!Copyable(item)) continue;
      VLObject *child = Start(item, stack);
      VLArrayAppend(copy, child);
      VLObjectRelease(child);
    } else {
      if (index >= source->dictionary.count) {
        Finish(stack);
        continue;
      }
      const VLObject *key = source->dictionary.keys[index];
      const VLObject *value = source->dictionary.values[index];
      if (!Copyable(key) || !Copyable(value)) continue;
      VLObject *key_copy = Start(key, stack);
      VLObject *value_copy = Start(value, stack);
      VLDictionarySet(copy, value_copy, key_copy);
      VLObjectRelease(value_copy);
      VLObjectRelease(key_copy);
    }
  }
  return root;
}
