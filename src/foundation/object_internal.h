// Helpers shared by the value implementation files; not for use outside the
// library.
#pragma once

#include <cstddef>
#include <cstdint>

#include "foundation/object.h"

// Arrays and dictionaries hold their values in blocks of pointer slots.
constexpr size_t kVLSlotSize = sizeof(VLObject *);  // NOLINT(bugprone-sizeof-expression): a slot is a pointer

// A fresh record of `type` with one reference, contents zeroed.
VLObject *VLObjectAllocate(uint32_t type);

// Makes room for `adding` more characters (plus the terminator) by the
// library's one growth rule: whole KiB of the shortfall.
void VLStringReserve(VLObject *string, uint64_t adding);

// Appends bytes exactly as given, without looking for a zero byte.
void VLStringAppendBytes(VLObject *string, const char *bytes, uint32_t length);

// Appends `count` copies of `byte`, for indents.
void VLStringAppendRepeated(VLObject *string, char byte, uint64_t count);

inline bool VLIsString(const VLObject *obj) {
  return obj && (obj->type == VLTypeString || obj->type == VLTypeEditString);
}
inline bool VLIsType(const VLObject *obj, uint32_t type) { return obj && obj->type == type; }
