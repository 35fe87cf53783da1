// A compact, typed rendering of a value for test expectations: numbers carry
// their kind (u32, i32, real, bool, u64) and strings are escaped as a log line
// would show them, so one string states both structure and exact types.
#pragma once

#include <bit>
#include <cinttypes>
#include <cstdio>
#include <string>

#include "foundation/escape.h"
#include "foundation/object.h"

inline std::string Show(const VLObject *obj) {
  char buffer[64];
  switch (VLObjectType(obj)) {
    case VLTypeNumber: {
      uint64_t low = obj->number.bits & 0xFFFFFFFF;
      switch (obj->number.kind) {
        case VLNumberUInt32: snprintf(buffer, sizeof buffer, "u32:%" PRIu64, low); break;
        case VLNumberInt32: snprintf(buffer, sizeof buffer, "i32:%d", static_cast<int32_t>(low)); break;
        case VLNumberReal:
          snprintf(buffer, sizeof buffer, "real:%.17g", std::bit_cast<double>(obj->number.bits));
          break;
        case VLNumberBool: return low ? "true" : "false";
        default: snprintf(buffer, sizeof buffer, "u64:%" PRIu64, (uint64_t{obj->number.high} << 32) | low);
      }
      return buffer;
    }
    case VLTypeString: return "\"" + VLEscapeControl(obj) + "\"";
    case VLTypeArray: {
      std::string text = "[";
      for (uint32_t i = 0; i < VLArrayCount(obj); ++i) text += (i ? "," : "") + Show(VLArrayGet(obj, i));
      return text + "]";
    }
    case VLTypeDictionary: {
      std::string text = "{";
      for (uint32_t i = 0; i < VLDictionaryCount(obj); ++i) {
        text += (i ? "," : "") + Show(VLDictionaryKeyAt(obj, i)) + ":" + Show(VLDictionaryValueAt(obj, i));
      }
      return text + "}";
    }
    case VLTypeNull: return "null";
    default: return "tag" + std::to_string(VLObjectType(obj));
  }
}
