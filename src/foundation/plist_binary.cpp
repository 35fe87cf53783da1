// The binary property-list reader. Every read is bounds-checked, and since
// object references can form cycles or share sub-trees, nesting and the
// number of objects built are both limited.
#include <bit>
#include <cstring>

#include "foundation/object_internal.h"
#include "foundation/plist.h"
#include "foundation/text.h"

namespace {

const char kEmptyText[] = "";

class BinaryPlist {
 public:
  BinaryPlist(const uint8_t *bytes, uint64_t length) : bytes_(bytes), length_(length), budget_(8 * length + 64) {}

  VLObject *ReadRoot() {
    const uint8_t *trailer = bytes_ + length_ - 32;
    offset_width_ = trailer[6];
    reference_width_ = trailer[7];
    if (offset_width_ == 0 || offset_width_ > 8 || reference_width_ == 0 || reference_width_ > 8) return nullptr;
    if (!ReadBigEndian(length_ - 24, 8, &object_count_) || !ReadBigEndian(length_ - 8, 8, &table_offset_)) {
      return nullptr;
    }
    // The trailer's top-object number is not used: the root is the object
    // at byte 8.
    return Read(8, 0);
  }

 private:
  bool ReadBigEndian(uint64_t at, uint32_t width, uint64_t *value) const {
    if (at > length_ || width > length_ - at) return false;
    uint64_t result = 0;
    for (uint32_t i = 0; i < width; ++i) result = (result << 8) | bytes_[at + i];
    *value = result;
    return true;
  }

  // A reference that doesn't lead to an object before the offset table
  // resolves to offset 0.
  uint64_t Resolve(uint64_t reference) const {
    if (reference >= object_count_ || reference > (UINT64_MAX - table_offset_) / offset_width_) return 0;
    uint64_t offset = 0;
    if (!ReadBigEndian(table_offset_ + reference * offset_width_, offset_width_, &offset)) return 0;
    return offset < table_offset_ && offset < length_ ? offset : 0;
  }

  VLObject *Read(uint64_t offset, uint32_t depth) {
    if (depth > kVLBinaryPlistMaxDepth || budget_ == 0 || offset >= length_) return nullptr;
    --budget_;
    uint8_t marker = bytes_[offset];
    uint32_t high = marker >> 4;
    uint32_t low = marker & 15;
    uint64_t at = offset + 1;
    uint64_t count = low;
    if (low == 15 && (high == 4 || high == 5 || high == 6 || high == 10 || high == 12 || high == 13)) {
      // The length follows as an integer object of 1 << (its low nibble) bytes.
      if (at >= length_) return nullptr;
      uint32_t width = 1u << (bytes_[at] & 15);
      if (width > 8 || !ReadBigEndian(at + 1, width, &count)) return nullptr;
      at += 1 + width;
    }
    switch (high) {
      case 0:
        if (low == 8) return VLNumberConstant(VLNumberBool, 0, 0, 0.0);
        if (low == 9) return VLNumberConstant(VLNumberBool, 1, 0, 0.0);
        if (low == 0) return VLStringCreate("<Unhandled Null>", 0);
        return nullptr;
      case 1: {
        uint64_t width = uint64_t{1} << low;
        if (at > length_ || width > length_ - at) return nullptr;
        uint64_t value = 0;
        for (uint64_t i = 0; i < width; ++i) value = (value << 8) | bytes_[at + i];
        if (width == 8) return VLNumberCreateUInt64(value);
        return VLNumberCreateUInt32(static_cast<uint32_t>(value));
      }
      case 2: {
        uint64_t bits = 0;
        if (low == 2 && ReadBigEndian(at, 4, &bits)) {
          return VLNumberCreateReal(std::bit_cast<float>(static_cast<uint32_t>(bits)));
        }
        if (low == 3 && ReadBigEndian(at, 8, &bits)) return VLNumberCreateReal(std::bit_cast<double>(bits));
        return nullptr;
      }
      case 3: return VLStringCreate("<Unhandled Date>", 0);
      case 4:
        if (at > length_ || count > length_ - at) return nullptr;
        return VLDataCreate(bytes_ + at, static_cast<uint32_t>(count));
      case 5: {
        if (at > length_ || count > length_ - at) return nullptr;
        VLObject *string = VLStringCreateWithCapacity(static_cast<uint32_t>(count));
        VLStringAppendBytes(string, reinterpret_cast<const char *>(bytes_ + at), static_cast<uint32_t>(count));
        return string;
      }
      case 6: {
        if (at > length_ || count > (length_ - at) / 2) return nullptr;
        VLObject *string = count ? VLStringFromUtf16(bytes_ + at, static_cast<uint32_t>(count), 2) : nullptr;
        return string ? string : VLStringConstant(kEmptyText);
      }
      case 8: return VLStringCreate("<Unhandled UID>", 0);
      case 10:
      case 12: return ReadArray(at, count, depth);
      case 13: return ReadDictionary(at, count, depth);
      default: return nullptr;
    }
  }

  bool ReferencesFit(uint64_t at, uint64_t count) const {
    return at <= length_ && count <= (length_ - at) / reference_width_;
  }

  VLObject *Member(uint64_t at, uint32_t depth) {
    uint64_t reference = 0;
    ReadBigEndian(at, reference_width_, &reference);
    return Read(Resolve(reference), depth + 1);
  }

  VLObject *ReadArray(uint64_t at, uint64_t count, uint32_t depth) {
    if (!ReferencesFit(at, count)) return nullptr;
    VLObject *array = VLArrayCreate(static_cast<uint32_t>(count));
    for (uint64_t i = 0; i < count; ++i) {
      VLObject *item = Member(at + i * reference_width_, depth);
      if (!item) {
        VLObjectRelease(array);
        return nullptr;
      }
      VLArrayAppend(array, item);
      VLObjectRelease(item);
    }
    return array;
  }

  VLObject *ReadDictionary(uint64_t at, uint64_t count, uint32_t depth) {
    if (count > length_ || !ReferencesFit(at, 2 * count)) return nullptr;
    VLObject *dictionary = VLDictionaryCreate(static_cast<uint32_t>(count));
    for (uint64_t i = 0; i < count; ++i) {
      VLObject *key = Member(at + i * reference_width_, depth);
      VLObject *value = key ? Member(at + (count + i) * reference_width_, depth) : nullptr;
      if (!value) {
        VLObjectRelease(key);
        VLObjectRelease(dictionary);
        return nullptr;
      }
      VLDictionarySet(dictionary, value, key);
      VLObjectRelease(value);
      VLObjectRelease(key);
    }
    return dictionary;
  }

  const uint8_t *bytes_;
  uint64_t length_;
  uint64_t budget_;
  uint32_t offset_width_ = 0;
  uint32_t reference_width_ = 0;
  uint64_t object_count_ = 0;
  uint64_t table_offset_ = 0;
};

}  // namespace

VLObject *VLPlistBinaryRead(const uint8_t *bytes, uint64_t length) {
  if (!bytes || length < 40 || memcmp(bytes, "bplist0", 7) != 0) return nullptr;
  return BinaryPlist(bytes, length).ReadRoot();
}
