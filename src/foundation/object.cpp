// Life cycle of values: allocation, reference counting and destruction.
#include <cstdlib>
#include <vector>

#include "foundation/object.h"
#include "foundation/object_internal.h"

VLObject *VLObjectAllocate(uint32_t type) {
  auto *obj = new VLObject();
  obj->type = type;
  obj->refcount.store(1, std::memory_order_relaxed);
  return obj;
}

uint32_t VLObjectType(const VLObject *obj) { return obj ? obj->type : 0; }

VLObject *VLObjectRetain(VLObject *obj) {
  if (obj && !obj->pinned) obj->refcount.fetch_add(1, std::memory_order_relaxed);
  return obj;
}

namespace {

// True when this call dropped the last reference.
bool DropReference(VLObject *obj) {
  if (!obj || obj->pinned) return false;
  return obj->refcount.fetch_sub(1, std::memory_order_acq_rel) == 1;
}

}  // namespace

void VLObjectRelease(VLObject *obj) {
  if (!DropReference(obj)) return;
  // Values that reached zero wait here instead of on the call stack, so a
  // value nested a million levels deep is destroyed in constant stack space.
  std::vector<VLObject *> doomed{obj};
  while (!doomed.empty()) {
    VLObject *dead = doomed.back();
    doomed.pop_back();
    switch (dead->type) {
      case VLTypeString:
      case VLTypeEditString: free(dead->string.chars); break;
      case VLTypeData: free(dead->data.bytes); break;
      case VLTypeArray:
        for (uint32_t i = dead->array.count; i-- > 0;) {
          if (DropReference(dead->array.items[i])) doomed.push_back(dead->array.items[i]);
        }
        free(dead->array.items);
        break;
      case VLTypeDictionary:
        for (uint32_t i = dead->dictionary.count; i-- > 0;) {
          if (DropReference(dead->dictionary.values[i])) doomed.push_back(dead->dictionary.values[i]);
          if (DropReference(dead->dictionary.keys[i])) doomed.push_back(dead->dictionary.keys[i]);
        }
        free(dead->dictionary.keys);
        free(dead->dictionary.values);
        break;
      default: break;
    }
    delete dead;
  }
}

VLObject *VLNullCreate() { return VLObjectAllocate(VLTypeNull); }

VLObject *VLRangeCreate(uint32_t location, uint32_t length) {
  VLObject *range = VLObjectAllocate(VLTypeRange);
  range->range = {0, location, length};
  return range;
}
