// Arrays: a counted block of retained value pointers that grows by 8 items.
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "foundation/object.h"
#include "foundation/object_internal.h"

namespace {

bool IsArray(const VLObject *obj) { return VLIsType(obj, VLTypeArray); }

void MakeRoom(VLObject *array) {
  if (array->array.count < array->array.capacity) return;
  uint32_t capacity = array->array.count + 8;
  array->array.items = static_cast<VLObject **>(realloc(array->array.items, capacity * kVLSlotSize));
  array->array.capacity = capacity;
}

}  // namespace

VLObject *VLArrayCreate(uint32_t capacity) {
  VLObject *array = VLObjectAllocate(VLTypeArray);
  array->array.capacity = capacity;
  array->array.items = static_cast<VLObject **>(calloc(capacity ? capacity : 1, kVLSlotSize));
  return array;
}

VLObject *VLArrayCreateWith(VLObject *first, ...) {
  VLObject *array = VLArrayCreate(1);
  va_list args;
  va_start(args, first);
  for (VLObject *item = first; item; item = va_arg(args, VLObject *)) VLArrayAppend(array, item);
  va_end(args);
  return array;
}

uint32_t VLArrayCount(const VLObject *array) { return IsArray(array) ? array->array.count : 0; }

VLObject *VLArrayGet(const VLObject *array, uint32_t index) {
  if (!IsArray(array) || index >= array->array.count) return nullptr;
  return array->array.items[index];
}

void VLArrayAppend(VLObject *array, VLObject *obj) {
  if (!IsArray(array) || !obj) return;
  MakeRoom(array);
  array->array.items[array->array.count++] = VLObjectRetain(obj);
}

void VLArrayInsert(VLObject *array, VLObject *obj, uint32_t index) {
  if (!IsArray(array) || !obj || index > array->array.count) return;
  MakeRoom(array);
  VLObject **items = array->array.items;
  memmove(items + index + 1, items + index, (array->array.count - index) * kVLSlotSize);
  items[index] = VLObjectRetain(obj);
  array->array.count++;
}

void VLArrayRemoveAt(VLObject *array, uint32_t index) {
  if (!IsArray(array) || index >= array->array.count) return;
  VLObject **items = array->array.items;
  VLObject *removed = items[index];
  memmove(items + index, items + index + 1, (array->array.count - index - 1) * kVLSlotSize);
  array->array.count--;
  VLObjectRelease(removed);
}

void VLArraySetAt(VLObject *array, uint32_t index, VLObject *obj) {
  if (!IsArray(array) || !obj || index >= array->array.count) return;
  VLObject *old = array->array.items[index];
  array->array.items[index] = VLObjectRetain(obj);
  VLObjectRelease(old);
}

uint32_t VLArrayIndexOf(const VLObject *array, const VLObject *obj) {
  if (!IsArray(array) || !obj) return kVLNotFound;
  for (uint32_t i = 0; i < array->array.count; ++i) {
    if (VLObjectEqual(obj, array->array.items[i])) return i;
  }
  return kVLNotFound;
}

bool VLArrayContains(const VLObject *array, const VLObject *obj) { return VLArrayIndexOf(array, obj) != kVLNotFound; }
