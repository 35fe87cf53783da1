// Numbers: creation and the conversion table between kinds and from text.
#include <bit>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>

#include "foundation/object.h"
#include "foundation/object_internal.h"
#include "foundation/truncate.h"

namespace {

VLObject *CreateNumber(uint32_t kind, uint64_t bits, uint32_t high) {
  VLObject *number = VLObjectAllocate(VLTypeNumber);
  number->number = {kind, bits, high};
  return number;
}

uint32_t Low32(const VLObject *n) { return static_cast<uint32_t>(n->number.bits); }
uint64_t Full64(const VLObject *n) { return (static_cast<uint64_t>(n->number.high) << 32) | Low32(n); }
double Real(const VLObject *n) { return std::bit_cast<double>(n->number.bits); }

// Decimal text to a 32-bit long, saturating like the 32-bit C library the
// text conversions were made for.
int32_t TextToLong32(const char *text) {
  long long value = strtoll(text, nullptr, 10);
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(value);
}

}  // namespace

VLObject *VLNumberCreateBool(uint8_t value) { return CreateNumber(VLNumberBool, value ? 1 : 0, 0); }
VLObject *VLNumberCreateReal(double value) { return CreateNumber(VLNumberReal, std::bit_cast<uint64_t>(value), 0); }
VLObject *VLNumberCreateInt32(uint32_t value) { return CreateNumber(VLNumberInt32, value, 0); }
VLObject *VLNumberCreateUInt32(uint32_t value) { return CreateNumber(VLNumberUInt32, value, 0); }
VLObject *VLNumberCreateUInt64(uint64_t value) {
  return CreateNumber(VLNumberUInt64, static_cast<uint32_t>(value), static_cast<uint32_t>(value >> 32));
}

uint32_t VLNumberGetKind(const VLObject *number) { return VLIsType(number, VLTypeNumber) ? number->number.kind : 0; }

bool VLNumberGetBool(const VLObject *obj) {
  if (VLIsString(obj)) return TextToLong32(obj->string.chars) >= 1;
  if (!VLIsType(obj, VLTypeNumber)) return false;
  switch (obj->number.kind) {
    case VLNumberUInt32:
    case VLNumberInt32: return Low32(obj) != 0;
    case VLNumberReal: return Real(obj) != 0.0;  // NaN compares unequal, so it is true
    case VLNumberBool: return Low32(obj) != 0;
    case VLNumberUInt64: return Full64(obj) != 0;
    default: return false;
  }
}

double VLNumberGetReal(const VLObject *obj) {
  if (VLIsString(obj)) return atof(obj->string.chars);
  if (!VLIsType(obj, VLTypeNumber)) return 0.0;
  switch (obj->number.kind) {
    case VLNumberUInt32:
    case VLNumberInt32: return static_cast<double>(Low32(obj));
    case VLNumberReal: return Real(obj);
    case VLNumberBool: return Low32(obj) ? 1.0 : 0.0;
    case VLNumberUInt64: return static_cast<double>(Full64(obj));
    default: return 0.0;
  }
}

int64_t VLNumberGetInt32(const VLObject *obj) {
  if (VLIsString(obj)) return TextToLong32(obj->string.chars);
  if (!VLIsType(obj, VLTypeNumber)) return 0;
  switch (obj->number.kind) {
    case VLNumberUInt32:
    case VLNumberInt32: return Low32(obj);
    case VLNumberReal: return VLTruncateInt32(Real(obj));
    case VLNumberBool: return Low32(obj) ? 1 : 0;
    case VLNumberUInt64: return static_cast<int64_t>(Full64(obj));
    default: return 0;
  }
}

int64_t VLNumberGetInt64(const VLObject *obj) {
  if (VLIsString(obj)) return TextToLong32(obj->string.chars);
  if (!VLIsType(obj, VLTypeNumber)) return 0;
  switch (obj->number.kind) {
    case VLNumberUInt32:
    case VLNumberInt32: return Low32(obj);
    case VLNumberReal: return VLTruncateInt64(Real(obj));
    case VLNumberBool: return Low32(obj) ? 1 : 0;
    case VLNumberUInt64: return static_cast<int64_t>(Full64(obj));
    default: return 0;
  }
}

uint64_t VLNumberGetUInt64(const VLObject *obj) {
  if (VLIsString(obj)) return strtoull(obj->string.chars, nullptr, 10);
  if (!VLIsType(obj, VLTypeNumber)) return 0;
  switch (obj->number.kind) {
    case VLNumberUInt32:
    case VLNumberInt32: return Low32(obj);
    case VLNumberReal: return VLTruncateUInt64(Real(obj));
    case VLNumberBool: return Low32(obj) ? 1 : 0;
    case VLNumberUInt64: return Full64(obj);
    default: return 0;
  }
}
