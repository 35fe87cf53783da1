// Dictionaries: parallel blocks of keys and values in insertion order,
// searched linearly. No message or configuration has more than a handful of
// keys, and the order is what the writer reproduces.
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "foundation/object.h"
#include "foundation/object_internal.h"

namespace {

bool IsDictionary(const VLObject *obj) { return VLIsType(obj, VLTypeDictionary); }

bool SameKind(const VLObject *a, const VLObject *b) {
  if (a == nullptr || b == nullptr) return a == b;
  if (a->type != b->type) return false;
  if (a->type != VLTypeNumber) return true;
  // 1 and 1.0 share an entry; a boolean shares only with a boolean.
  return a->number.kind == b->number.kind || (a->number.kind != VLNumberBool && b->number.kind != VLNumberBool);
}

template <typename Match>
int64_t Find(const VLObject *dictionary, Match matches) {
  if (!IsDictionary(dictionary)) return -1;
  for (uint32_t i = 0; i < dictionary->dictionary.count; ++i) {
    if (matches(dictionary->dictionary.keys[i])) return i;
  }
  return -1;
}

bool NameMatches(const VLObject *key, const char *name) {
  return VLIsString(key) && strcmp(key->string.chars, name) == 0;
}

void RemoveAt(VLObject *dictionary, int64_t found) {
  if (found < 0) return;
  auto index = static_cast<uint32_t>(found);
  VLObject *key = dictionary->dictionary.keys[index];
  VLObject *value = dictionary->dictionary.values[index];
  uint32_t after = dictionary->dictionary.count - index - 1;
  memmove(dictionary->dictionary.keys + index, dictionary->dictionary.keys + index + 1, after * kVLSlotSize);
  memmove(dictionary->dictionary.values + index, dictionary->dictionary.values + index + 1, after * kVLSlotSize);
  dictionary->dictionary.count--;
  VLObjectRelease(value);
  VLObjectRelease(key);
}

}  // namespace

VLObject *VLDictionaryCreate(uint32_t capacity) {
  VLObject *dictionary = VLObjectAllocate(VLTypeDictionary);
  uint32_t slots = capacity ? capacity : 1;
  dictionary->dictionary.capacity = capacity;
  dictionary->dictionary.keys = static_cast<VLObject **>(calloc(slots, kVLSlotSize));
  dictionary->dictionary.values = static_cast<VLObject **>(calloc(slots, kVLSlotSize));
  return dictionary;
}

VLObject *VLDictionaryCreateWith(VLObject *value, ...) {
  VLObject *dictionary = VLDictionaryCreate(1);
  va_list args;
  va_start(args, value);
  while (value) {
    VLObject *key = va_arg(args, VLObject *);
    if (!key) break;
    VLDictionarySet(dictionary, value, key);
    value = va_arg(args, VLObject *);
  }
  va_end(args);
  return dictionary;
}

void VLDictionarySet(VLObject *dictionary, VLObject *value, VLObject *key) {
  if (!IsDictionary(dictionary) || !value || !key) return;
  int64_t found =
      Find(dictionary, [&](const VLObject *stored) { return VLObjectEqual(key, stored) && SameKind(key, stored); });
  auto &d = dictionary->dictionary;
  if (found >= 0) {
    // The stored key and the entry's place stay; only the value changes.
    VLObject *&slot = d.values[found];
    if (slot == value) return;
    VLObject *old = slot;
    slot = VLObjectRetain(value);
    VLObjectRelease(old);
    return;
  }
  if (d.count == d.capacity) {
    uint32_t capacity = d.count + 8;
    d.keys = static_cast<VLObject **>(realloc(d.keys, capacity * kVLSlotSize));
    d.values = static_cast<VLObject **>(realloc(d.values, capacity * kVLSlotSize));
    d.capacity = capacity;
  }
  d.keys[d.count] = VLObjectRetain(key);
  d.values[d.count] = VLObjectRetain(value);
  d.count++;
}

VLObject *VLDictionaryGet(const VLObject *dictionary, const VLObject *key) {
  if (!key) return nullptr;
  int64_t found = Find(dictionary, [&](const VLObject *stored) { return VLObjectEqual(key, stored); });
  return found < 0 ? nullptr : dictionary->dictionary.values[found];
}

VLObject *VLDictionaryGetByName(const VLObject *dictionary, const char *name) {
  if (!name) return nullptr;
  int64_t found = Find(dictionary, [&](const VLObject *stored) { return NameMatches(stored, name); });
  return found < 0 ? nullptr : dictionary->dictionary.values[found];
}

VLObject *VLDictionaryGetExact(const VLObject *dictionary, const VLObject *key) {
  if (!key) return nullptr;
  int64_t found = Find(dictionary, [&](const VLObject *stored) {
    if (stored->type != key->type) return false;
    if (key->type == VLTypeNumber && stored->number.kind != key->number.kind) return false;
    return VLObjectEqual(key, stored);
  });
  return found < 0 ? nullptr : dictionary->dictionary.values[found];
}

void VLDictionaryRemove(VLObject *dictionary, const VLObject *key) {
  if (!key) return;
  RemoveAt(dictionary, Find(dictionary, [&](const VLObject *stored) { return VLObjectEqual(key, stored); }));
}

void VLDictionaryRemoveByName(VLObject *dictionary, const char *name) {
  if (!name) return;
  RemoveAt(dictionary, Find(dictionary, [&](const VLObject *stored) { return NameMatches(stored, name); }));
}

uint32_t VLDictionaryCount(const VLObject *dictionary) {
  return IsDictionary(dictionary) ? dictionary->dictionary.count : 0;
}

VLObject *VLDictionaryKeyAt(const VLObject *dictionary, uint32_t index) {
  if (!IsDictionary(dictionary) || index >= dictionary->dictionary.count) return nullptr;
  return dictionary->dictionary.keys[index];
}

VLObject *VLDictionaryValueAt(const VLObject *dictionary, uint32_t index) {
  if (!IsDictionary(dictionary) || index >= dictionary->dictionary.count) return nullptr;
  return dictionary->dictionary.values[index];
}

void VLDictionaryCopyKeys(const VLObject *dictionary, VLObject *array) {
  for (uint32_t i = 0; i < VLDictionaryCount(dictionary); ++i) VLArrayAppend(array, dictionary->dictionary.keys[i]);
}

void VLDictionaryFlatten(const VLObject *dictionary, VLObject *array) {
  VLDictionaryCopyKeys(dictionary, array);
  for (uint32_t i = 0; i < VLDictionaryCount(dictionary); ++i) VLArrayAppend(array, dictionary->dictionary.values[i]);
}
