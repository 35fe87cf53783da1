// Case-free ordering of string arrays and of dictionaries by a string member.
#include <cctype>
#include <utility>

#include "foundation/object.h"
#include "foundation/object_internal.h"

namespace {

// Difference of the first differing bytes after lower-casing, of which only
// the low 8 bits count, as a signed number. Anything but two strings compares
// as equal.
int CompareStrings(const VLObject *a, const VLObject *b) {
  if (!VLIsString(a) || !VLIsString(b)) return 0;
  auto *x = reinterpret_cast<const unsigned char *>(a->string.chars);
  auto *y = reinterpret_cast<const unsigned char *>(b->string.chars);
  int difference = 0;
  for (;; ++x, ++y) {
    difference = tolower(*x) - tolower(*y);
    if (difference != 0 || *x == 0) break;
  }
  return static_cast<int8_t>(static_cast<uint8_t>(difference));
}

// Middle item as pivot, moved to the front; the left scan passes items that
// don't compare greater, the right scan items that do. The smaller side is
// sorted by recursion and the larger by looping, which bounds the stack.
template <typename Compare>
void QuickSort(VLObject **items, int64_t low, int64_t high, Compare compare) {
  while (low < high) {
    std::swap(items[low], items[low + (high - low) / 2]);
    VLObject *pivot = items[low];
    int64_t left = low + 1;
    int64_t right = high;
    for (;;) {
      while (left <= right && compare(items[left], pivot) <= 0) ++left;
      while (left <= right && compare(items[right], pivot) > 0) --right;
      if (left >= right) break;
      std::swap(items[left], items[right]);
    }
    std::swap(items[low], items[right]);
    if (right - low < high - right) {
      QuickSort(items, low, right - 1, compare);
      low = right + 1;
    } else {
      QuickSort(items, right + 1, high, compare);
      high = right - 1;
    }
  }
}

}  // namespace

void VLArraySort(VLObject *array) {
  if (!VLIsType(array, VLTypeArray) || array->array.count < 2) return;
  QuickSort(array->array.items, 0, array->array.count - 1, CompareStrings);
}

void VLArraySortByKey(VLObject *array, const char *key) {
  if (!VLIsType(array, VLTypeArray) || array->array.count < 2 || !key) return;
  QuickSort(array->array.items, 0, array->array.count - 1, [key](const VLObject *a, const VLObject *b) {
    return CompareStrings(VLDictionaryGetByName(a, key), VLDictionaryGetByName(b, key));
  });
}
