// The one dynamic value type: a tagged, reference-counted number, string,
// byte block, array, dictionary or null. Everything that comes from or goes
// to the outside (pool messages, JSON-RPC, the saved configuration) crosses
// the program as these values.
//
// Ownership, the same for every operation:
//  1. Create, Copy, Parse, Serialize, Describe and Split return one reference
//     that the caller owns and must give back with VLObjectRelease.
//  2. VLArrayGet, the VLDictionaryGet family and VLDictionaryKeyAt return a
//     borrowed pointer, valid while the container holds the value.
//  3. Containers retain what is put into them and release what leaves them:
//     create, insert, release.
//  4. Constants (VLNumberConstant, VLStringConstant) are pinned: retain and
//     release do nothing to them, so generic code need not tell them apart.
//  5. Retaining or releasing a null pointer does nothing.
//
// A null pointer is the only failure value, and every operation accepts one
// (returning 0, false or null). Only the reference count is thread-safe;
// a value is used by one thread at a time or is read-only while shared.
// No operation recurses by the nesting depth of a value, so a deeply nested
// value from a peer cannot exhaust a thread's stack.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

enum VLType : uint32_t {
  VLTypeNumber = 1,
  VLTypeString = 2,
  VLTypeData = 3,
  VLTypeArray = 4,
  VLTypeDictionary = 5,
  VLTypeNull = 6,
  VLTypeEditString = 7,  // reserved: no operation here creates one
  VLTypeRange = 8,
  VLTypeRichText = 9,  // reserved: no operation here creates one
};

enum VLNumberKind : uint32_t {
  VLNumberUInt32 = 0,
  VLNumberInt32 = 1,
  VLNumberReal = 2,
  VLNumberBool = 3,
  VLNumberUInt64 = 4,
};

// One record type for every tag. Read it through the functions below; the
// fields are visible so that tests and the readers in this library can see
// capacities, but nothing outside the library should write them.
struct VLObject {
  uint32_t type = 0;
  std::atomic<uint32_t> refcount{0};
  uint32_t pinned = 0;  // 1: a shared constant whose count is never touched
  union {
    struct {
      uint32_t kind;
      uint64_t bits;  // the real's bit pattern, or the integer's low 32 bits
      uint32_t high;  // upper half of a 64-bit integer
    } number;
    struct {
      uint32_t length;    // without the terminator
      uint32_t capacity;  // characters that fit before growing (block holds one more)
      uint8_t flag;
      char *chars;  // always zero-terminated
    } string;
    struct {
      uint32_t length;
      uint32_t capacity;
      uint8_t *bytes;
    } data;
    struct {
      uint32_t count;
      uint32_t capacity;
      VLObject **items;
    } array;
    struct {
      uint32_t count;
      uint32_t capacity;
      VLObject **keys;
      VLObject **values;  // parallel to keys
    } dictionary;
    struct {
      uint32_t kind;
      uint32_t location;
      uint32_t length;
    } range;
  };

  VLObject() : number{0, 0, 0} {}
};

// ---- Values in general ----------------------------------------------------

// The tag, or 0 for a null pointer.
uint32_t VLObjectType(const VLObject *obj);
// Adds one reference unless pinned; returns `obj`.
VLObject *VLObjectRetain(VLObject *obj);
// Drops one reference unless pinned; the last one destroys the value and
// releases what it contains.
void VLObjectRelease(VLObject *obj);
// Deep copy into fresh, unpinned values. Items that cannot be copied are
// skipped; a null pointer copies to null.
VLObject *VLObjectCopy(const VLObject *obj);
// Equality as dictionaries and arrays search by it. Not symmetric between
// number kinds: the left operand's kind decides how the two are compared.
// Containers are equal only to themselves.
bool VLObjectEqual(const VLObject *a, const VLObject *b);
// A readable multi-line dump, for error reports.
VLObject *VLObjectDescribe(const VLObject *obj);

// ---- Null and numbers -----------------------------------------------------

VLObject *VLNullCreate();                     // a fresh heap null, not a shared one
VLObject *VLNumberCreateBool(uint8_t value);  // stores 1 for any non-zero value
VLObject *VLNumberCreateReal(double value);
VLObject *VLNumberCreateInt32(uint32_t value);
VLObject *VLNumberCreateUInt32(uint32_t value);
VLObject *VLNumberCreateUInt64(uint64_t value);
// A pinned number shared by the whole process, for booleans and small ids.
// The argument that counts depends on `kind`: `value` for kinds 0, 3 and 4,
// `int32_value` for kind 1, `real_value` for kind 2. A real with a fraction
// is never found again and takes a new entry on each call. Null for an
// unknown kind. Thread-safe.
VLObject *VLNumberConstant(uint32_t kind, uint64_t value, uint32_t int32_value, double real_value);
uint32_t VLNumberGetKind(const VLObject *number);

// Conversions from a number or a string (decimal text). None sign-extends a
// number of kind 1: -1 of kind 1 reads as 4294967295 through GetInt64 and
// GetReal. A value that must keep its sign is read with GetInt32 and taken
// as 32 bits: `(int32_t)VLNumberGetInt32(obj)`. Other tags give 0.
bool VLNumberGetBool(const VLObject *obj);
double VLNumberGetReal(const VLObject *obj);
int64_t VLNumberGetInt32(const VLObject *obj);
int64_t VLNumberGetInt64(const VLObject *obj);
uint64_t VLNumberGetUInt64(const VLObject *obj);

// ---- Arrays ---------------------------------------------------------------

VLObject *VLArrayCreate(uint32_t capacity);
// Items up to a terminating null pointer; each is retained.
VLObject *VLArrayCreateWith(VLObject *first, ...);
uint32_t VLArrayCount(const VLObject *array);
// Borrowed; null for an index at or past the count.
VLObject *VLArrayGet(const VLObject *array, uint32_t index);
// Retains `obj` (a null `obj` is not stored); a full block grows by 8 items.
void VLArrayAppend(VLObject *array, VLObject *obj);
// Shifts later items up; an index past the count does nothing.
void VLArrayInsert(VLObject *array, VLObject *obj, uint32_t index);
void VLArrayRemoveAt(VLObject *array, uint32_t index);
void VLArraySetAt(VLObject *array, uint32_t index, VLObject *obj);
bool VLArrayContains(const VLObject *array, const VLObject *obj);
// The first index whose item is VLObjectEqual to `obj`, or kVLNotFound.
uint32_t VLArrayIndexOf(const VLObject *array, const VLObject *obj);
constexpr uint32_t kVLNotFound = 0x7fffffff;
// Orders string items without regard to case; other items compare as equal.
void VLArraySort(VLObject *array);
// Orders dictionaries by their string value for `key`.
void VLArraySortByKey(VLObject *array, const char *key);

// ---- Dictionaries ---------------------------------------------------------
// Keys stay in insertion order and are searched linearly.

VLObject *VLDictionaryCreate(uint32_t capacity);
// Pairs, value first, up to a terminating null pointer.
VLObject *VLDictionaryCreateWith(VLObject *value, ...);
// Note the order: value before key. An entry whose key matches keeps its
// place and its first key object; only the value is replaced. A boolean key
// and a number key never share an entry, while 1 and 1.0 do.
void VLDictionarySet(VLObject *dictionary, VLObject *value, VLObject *key);
// Borrowed value for the first key that is VLObjectEqual to `key`.
VLObject *VLDictionaryGet(const VLObject *dictionary, const VLObject *key);
// Borrowed value for the first string key equal to `name` by strcmp.
VLObject *VLDictionaryGetByName(const VLObject *dictionary, const char *name);
// As VLDictionaryGet, but the tag and, for numbers, the kind must match too.
VLObject *VLDictionaryGetExact(const VLObject *dictionary, const VLObject *key);
void VLDictionaryRemove(VLObject *dictionary, const VLObject *key);
void VLDictionaryRemoveByName(VLObject *dictionary, const char *name);
uint32_t VLDictionaryCount(const VLObject *dictionary);
// Borrowed; null for an index at or past the count.
VLObject *VLDictionaryKeyAt(const VLObject *dictionary, uint32_t index);
VLObject *VLDictionaryValueAt(const VLObject *dictionary, uint32_t index);
// Appends all keys, in order.
void VLDictionaryCopyKeys(const VLObject *dictionary, VLObject *array);
// Appends all keys, then all values.
void VLDictionaryFlatten(const VLObject *dictionary, VLObject *array);

// ---- Strings ----------------------------------------------------------------

// Copies `length` bytes; 0 means strlen(text). Capacity equals the length.
VLObject *VLStringCreate(const char *text, uint32_t length);
VLObject *VLStringCreateWithCapacity(uint32_t capacity);
// At most 4095 characters; longer text is cut silently.
VLObject *VLStringCreateFormat(const char *format, ...) __attribute__((format(printf, 1, 2)));
// A pinned string that uses `text` itself, found again by its address (not
// its contents): meant for literals. Thread-safe.
VLObject *VLStringConstant(const char *text);
const char *VLStringChars(const VLObject *string);  // null for null
uint32_t VLStringLength(const VLObject *string);
// Appends the first `length` bytes of `text` (0: all of it), stopping early at
// a zero byte. Grows by whole KiB of the shortfall. A pinned string is never
// changed.
void VLStringAppend(VLObject *string, const char *text, uint32_t length);
// At most 32767 characters per call; a zero byte from "%c" ends the text.
void VLStringAppendFormat(VLObject *string, const char *format, ...) __attribute__((format(printf, 2, 3)));
// Case-free comparison: 0 less, 1 equal, 2 greater. A null string counts as empty.
uint32_t VLStringCompareText(const VLObject *a, const VLObject *b);
// Pieces between separators, empty ones dropped (see VLTextSplit).
VLObject *VLStringSplit(const VLObject *string, const char *separator);
// A copy without blanks, tabs, line ends and bytes from 128 up, wherever they
// stand (inside quoted text too). Null for null.
VLObject *VLStringRemoveWhitespace(const VLObject *string);

// ---- Data -------------------------------------------------------------------

VLObject *VLDataCreate(const void *bytes, uint32_t length);  // capacity equals the length
VLObject *VLDataCreateWithCapacity(uint32_t capacity);
uint8_t *VLDataBytes(const VLObject *data);
uint32_t VLDataLength(const VLObject *data);
// Sets the length after the caller has filled the bytes; held to the capacity.
void VLDataSetLength(VLObject *data, uint32_t length);
void VLDataAppend(VLObject *data, const void *bytes, uint32_t length);
// Hex text (an optional 0x prefix) to bytes, leniently: see VLHexDecode.
// Null for a null or empty string.
VLObject *VLDataFromHexString(const VLObject *string);

// ---- Range --------------------------------------------------------------------

VLObject *VLRangeCreate(uint32_t location, uint32_t length);

// ---- Ownership helper ------------------------------------------------------------

// Holds one reference and gives it back when it goes out of scope.
//   VLRef doc(VLJsonWrite(settings));          // adopts the new reference
//   VLRef kept = VLRef::Retain(borrowed);      // takes a reference of its own
class VLRef {
 public:
  VLRef() = default;
  explicit VLRef(VLObject *owned) : obj_(owned) {}
  static VLRef Retain(VLObject *borrowed) { return VLRef(VLObjectRetain(borrowed)); }
  ~VLRef() { VLObjectRelease(obj_); }
  VLRef(VLRef &&other) noexcept : obj_(other.Take()) {}
  VLRef &operator=(VLRef &&other) noexcept {
    if (this != &other) Reset(other.Take());
    return *this;
  }
  VLRef(const VLRef &) = delete;
  VLRef &operator=(const VLRef &) = delete;

  VLObject *get() const { return obj_; }
  explicit operator bool() const { return obj_ != nullptr; }
  // Gives up ownership without releasing.
  VLObject *Take() {
    VLObject *obj = obj_;
    obj_ = nullptr;
    return obj;
  }
  void Reset(VLObject *owned = nullptr) {
    VLObject *old = obj_;
    obj_ = owned;
    VLObjectRelease(old);
  }

 private:
  VLObject *obj_ = nullptr;
};
