// Equality between values, as container searches apply it.
#include <bit>
#include <cmath>
#include <cstring>

#include "foundation/object.h"
#include "foundation/object_internal.h"
#include "foundation/truncate.h"

namespace {

uint32_t Low32(const VLObject *n) { return static_cast<uint32_t>(n->number.bits); }
double Real(const VLObject *n) { return std::bit_cast<double>(n->number.bits); }

// The left operand's kind decides the comparison, so the relation is not
// symmetric: a boolean on the left can equal an integer, an integer on the
// left never equals a boolean, and an integer on the left truncates a real.
bool NumbersEqual(const VLObject *a, const VLObject *b) {
  uint32_t right = b->number.kind;
  switch (a->number.kind) {
    case VLNumberUInt32:
    case VLNumberInt32:
      if (right == VLNumberUInt32 || right == VLNumberInt32) return Low32(a) == Low32(b);
      if (right == VLNumberReal) return Low32(a) == VLTruncateUInt32(Real(b));
      return false;
    case VLNumberUInt64:
      return right == VLNumberUInt64 && a->number.bits == b->number.bits && a->number.high == b->number.high;
    case VLNumberBool: {
      bool left = Low32(a) != 0;
      if (right == VLNumberUInt32 || right == VLNumberInt32 || right == VLNumberBool) return left == (Low32(b) != 0);
      if (right == VLNumberReal) return left == (Real(b) != 0.0);  // NaN is non-zero
      return false;
    }
    case VLNumberReal:
      if (right == VLNumberUInt32) return Real(a) == static_cast<double>(Low32(b));
      if (right == VLNumberInt32) return Real(a) == static_cast<double>(static_cast<int32_t>(Low32(b)));
      if (right == VLNumberReal) return Real(a) == Real(b);
      return false;
    default: return false;
  }
}

}  // namespace

bool VLObjectEqual(const VLObject *a, const VLObject *b) {
  if (a == b) return true;
  if (!a || !b) return false;
  if (a->type == VLTypeNumber && b->type == VLTypeNumber) return NumbersEqual(a, b);
  if (VLIsString(a) && VLIsString(b)) return strcmp(a->string.chars, b->string.chars) == 0;
  if (a->type == VLTypeData && b->type == VLTypeData) {
    return a->data.length == b->data.length &&
           (a->data.length == 0 || memcmp(a->data.bytes, b->data.bytes, a->data.length) == 0);
  }
  if (a->type == VLTypeNull && b->type == VLTypeNull) return true;
  return false;
}
