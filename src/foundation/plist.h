// Property-list readers. They are reached only when a peer sends such bytes,
// so they are told briefly and are hardened rather than complete.
#pragma once

#include <cstdint>

#include "foundation/object.h"

// XML property list: dict, key, string, array, integer, real, true, false and
// data elements, matched by the beginning of the tag name. No entity decoding.
VLObject *VLPlistXmlRead(const char *bytes, uint32_t length);

// Binary property list ("bplist0"). The root is the object at byte 8. Nesting
// deeper than kVLBinaryPlistMaxDepth, or more objects than a budget
// proportional to the input, gives null: references can form cycles and
// shared sub-trees, and no real document comes near either limit.
VLObject *VLPlistBinaryRead(const uint8_t *bytes, uint64_t length);
constexpr uint32_t kVLBinaryPlistMaxDepth = 256;
