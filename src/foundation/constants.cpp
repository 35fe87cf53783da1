// The two pools of pinned constants. Entries live in blocks that never move
// and are never freed, so a pointer handed out stays valid for the whole
// process; a mutex makes claiming an entry safe from any thread.
#include <bit>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "foundation/object.h"
#include "foundation/truncate.h"

namespace {

class ConstantPool {
 public:
  ConstantPool(uint32_t first_block, uint32_t later_blocks) : first_(first_block), later_(later_blocks) {}

  // Returns the first entry in use that `matches`, or claims a new one and
  // lets `fill` set it up. Called with the lock held.
  template <typename Match, typename Fill>
  VLObject *FindOrClaim(Match matches, Fill fill) {
    std::lock_guard<std::mutex> hold(lock_);
    for (auto &block : blocks_) {
      for (uint32_t i = 0; i < block.used; ++i) {
        if (matches(block.entries[i])) return &block.entries[i];
      }
    }
    if (blocks_.empty() || blocks_.back().used == blocks_.back().size) {
      uint32_t size = blocks_.empty() ? first_ : later_;
      blocks_.push_back(Block{std::make_unique<VLObject[]>(size), size, 0});
    }
    Block &block = blocks_.back();
    VLObject &entry = block.entries[block.used++];
    entry.pinned = 1;
    entry.refcount.store(0, std::memory_order_relaxed);
    fill(entry);
    return &entry;
  }

 private:
  struct Block {
    std::unique_ptr<VLObject[]> entries;
    uint32_t size;
    uint32_t used;
  };
  std::mutex lock_;
  std::vector<Block> blocks_;
  uint32_t first_;
  uint32_t later_;
};

// Constructed on first use and never destroyed: constants may be used by
// threads that outlive static destruction.
ConstantPool &NumberPool() {
  static auto *pool = new ConstantPool(200, 100);
  return *pool;
}

ConstantPool &StringPool() {
  static auto *pool = new ConstantPool(300, 100);
  return *pool;
}

}  // namespace

VLObject *VLNumberConstant(uint32_t kind, uint64_t value, uint32_t int32_value, double real_value) {
  if (kind > VLNumberUInt64) return nullptr;
  uint64_t bits = 0;
  uint32_t high = 0;
  switch (kind) {
    case VLNumberUInt32: bits = static_cast<uint32_t>(value); break;
    case VLNumberInt32: bits = int32_value; break;
    case VLNumberReal: bits = std::bit_cast<uint64_t>(real_value); break;
    case VLNumberBool: bits = value != 0; break;
    case VLNumberUInt64:
      bits = static_cast<uint32_t>(value);
      high = static_cast<uint32_t>(value >> 32);
      break;
  }
  auto matches = [&](const VLObject &entry) {
    if (entry.number.kind != kind) return false;
    if (kind == VLNumberReal) {
      // An entry is found by its whole-number part only, so a real with a
      // fraction never matches itself and takes a fresh entry each time.
      double stored = std::bit_cast<double>(entry.number.bits);
      return static_cast<double>(VLTruncateUInt32(stored)) == real_value;
    }
    return entry.number.bits == bits && entry.number.high == high;
  };
  return NumberPool().FindOrClaim(matches, [&](VLObject &entry) {
    entry.type = VLTypeNumber;
    entry.number = {kind, bits, high};
  });
}

VLObject *VLStringConstant(const char *text) {
  if (!text) return nullptr;
  auto matches = [&](const VLObject &entry) { return entry.string.chars == text; };
  return StringPool().FindOrClaim(matches, [&](VLObject &entry) {
    entry.type = VLTypeString;
    uint32_t length = static_cast<uint32_t>(strlen(text));
    entry.string.length = length;
    entry.string.capacity = length + 1;
    entry.string.flag = 0;
    // Pinned strings are never written or freed, so the caller's text is used
    // in place.
    entry.string.chars = const_cast<char *>(text);
  });
}
