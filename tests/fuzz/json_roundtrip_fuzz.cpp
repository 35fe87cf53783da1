// Values built from the fuzzer's bytes are written as JSON and read back. The
// result must match the value after the reader's known normalisation: 32-bit
// integers and non-negative signed ones come back as 64-bit integers, reals
// as their six-decimal text reads, 64-bit integers through a double, data as
// its base64 text.
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "foundation/json.h"
#include "foundation/object.h"
#include "foundation/text.h"
#include "foundation/truncate.h"

namespace {

void Check(bool condition) {
  if (!condition) abort();
}

std::string Text(FuzzedDataProvider &input, size_t limit) {
  std::string text = input.ConsumeRandomLengthString(limit);
  // A zero byte can't survive: the writer's \u0000 reads back as nothing, and
  // keys compare as C strings.
  for (char &c : text) c = c ? c : '0';
  return text;
}

VLObject *Build(FuzzedDataProvider &input, uint32_t depth, uint32_t &budget) {
  if (budget == 0) return VLNullCreate();
  --budget;
  uint32_t choice = input.ConsumeIntegralInRange<uint32_t>(0, depth < 12 ? 10 : 8);
  switch (choice) {
    case 0: return VLNumberCreateUInt32(input.ConsumeIntegral<uint32_t>());
    case 1: return VLNumberCreateInt32(input.ConsumeIntegral<uint32_t>());
    case 2: {
      double real = input.ConsumeFloatingPointInRange<double>(-1e15, 1e15);
      return VLNumberCreateReal(real);
    }
    case 3: return VLNumberCreateBool(input.ConsumeIntegral<uint8_t>());
    case 4: return VLNumberCreateUInt64(input.ConsumeIntegral<uint64_t>());
    case 5: {
      std::string text = Text(input, 64);
      VLObject *string = VLStringCreateWithCapacity(static_cast<uint32_t>(text.size()));
      VLStringAppend(string, text.c_str(), static_cast<uint32_t>(text.size()));
      return string;
    }
    case 6: {
      std::string bytes = input.ConsumeRandomLengthString(32);
      return VLDataCreate(bytes.data(), static_cast<uint32_t>(bytes.size()));
    }
    case 7:
    case 8: return VLNullCreate();
    case 9: {
      VLObject *array = VLArrayCreate(input.ConsumeIntegralInRange<uint32_t>(0, 4));
      uint32_t count = input.ConsumeIntegralInRange<uint32_t>(0, 6);
      for (uint32_t i = 0; i < count; ++i) {
        VLObject *item = Build(input, depth + 1, budget);
        VLArrayAppend(array, item);
        VLObjectRelease(item);
      }
      return array;
    }
    default: {
      VLObject *dictionary = VLDictionaryCreate(input.ConsumeIntegralInRange<uint32_t>(0, 4));
      uint32_t count = input.ConsumeIntegralInRange<uint32_t>(0, 6);
      for (uint32_t i = 0; i < count; ++i) {
        std::string name = Text(input, 16);
        VLObject *key = VLStringCreateWithCapacity(static_cast<uint32_t>(name.size()));
        VLStringAppend(key, name.c_str(), static_cast<uint32_t>(name.size()));
        VLObject *value = Build(input, depth + 1, budget);
        VLDictionarySet(dictionary, value, key);
        VLObjectRelease(value);
        VLObjectRelease(key);
      }
      return dictionary;
    }
  }
}

bool SameString(const VLObject *read, const char *text, size_t length) {
  return VLObjectType(read) == VLTypeString && VLStringLength(read) == length &&
         memcmp(VLStringChars(read), text, length) == 0;
}

bool IsU64(const VLObject *read, uint64_t value) {
  return VLObjectType(read) == VLTypeNumber && VLNumberGetKind(read) == VLNumberUInt64 &&
         VLNumberGetUInt64(read) == value;
}

// Whether `read` is what reading `written`'s text must give. Depth is bounded
// by the builder, so recursion is fine here.
bool Matches(const VLObject *written, const VLObject *read) {
  switch (VLObjectType(written)) {
    case VLTypeNumber: {
      uint32_t low = static_cast<uint32_t>(VLNumberGetInt32(written));
      switch (VLNumberGetKind(written)) {
        case VLNumberUInt32: return IsU64(read, low);
        case VLNumberInt32:
          if (static_cast<int32_t>(low) >= 0) return IsU64(read, low);
          return VLObjectType(read) == VLTypeNumber && VLNumberGetKind(read) == VLNumberInt32 &&
                 static_cast<int32_t>(VLNumberGetInt32(read)) == static_cast<int32_t>(low);
        case VLNumberReal: {
          char text[256];
          snprintf(text, sizeof text, "%f", VLNumberGetReal(written));
          return VLObjectType(read) == VLTypeNumber && VLNumberGetKind(read) == VLNumberReal &&
                 VLNumberGetReal(read) == strtod(text, nullptr);
        }
        case VLNumberBool:
          return VLObjectType(read) == VLTypeNumber && VLNumberGetKind(read) == VLNumberBool &&
                 VLNumberGetBool(read) == VLNumberGetBool(written);
        default: return IsU64(read, VLTruncateUInt64(static_cast<double>(VLNumberGetUInt64(written))));
      }
    }
    case VLTypeString: return SameString(read, VLStringChars(written), VLStringLength(written));
    case VLTypeData: {
      size_t length = 0;
      char *base64 = VLBase64Encode(VLDataBytes(written), VLDataLength(written), &length);
      bool same = SameString(read, base64, length);
      free(base64);
      return same;
    }
    case VLTypeNull: return VLObjectType(read) == VLTypeNull;
    case VLTypeArray:
      if (VLObjectType(read) != VLTypeArray || VLArrayCount(read) != VLArrayCount(written)) return false;
      for (uint32_t i = 0; i < VLArrayCount(written); ++i) {
        if (!Matches(VLArrayGet(written, i), VLArrayGet(read, i))) return false;
      }
      return true;
    case VLTypeDictionary:
      if (VLObjectType(read) != VLTypeDictionary || VLDictionaryCount(read) != VLDictionaryCount(written)) return false;
      for (uint32_t i = 0; i < VLDictionaryCount(written); ++i) {
        if (!Matches(VLDictionaryKeyAt(written, i), VLDictionaryKeyAt(read, i)) ||
            !Matches(VLDictionaryValueAt(written, i), VLDictionaryValueAt(read, i))) {
          return false;
        }
      }
      return true;
    default: return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  FuzzedDataProvider input(data, size);
  uint32_t budget = 400;
  // The reader takes only containers and strings at the top level.
  VLRef value(input.ConsumeBool() ? VLArrayCreate(1) : VLDictionaryCreate(1));
  VLRef member(Build(input, 1, budget));
  if (VLObjectType(value.get()) == VLTypeArray) {
    VLArrayAppend(value.get(), member.get());
  } else {
    VLRef key(VLStringCreate("k", 0));
    VLDictionarySet(value.get(), member.get(), key.get());
  }
  VLRef text(VLObjectSerialize(value.get(), VLFormatJson));
  Check(text && VLStringChars(text.get())[VLStringLength(text.get()) - 1] == '\n');
  VLRef read(VLObjectParse(text.get()));
  Check(Matches(value.get(), read.get()));
  return 0;
}
