// The JSON writer, as the pool's requests and the stored board settings use it.
#include <gtest/gtest.h>

#include <string>

#include "foundation/json.h"
#include "foundation/object.h"

namespace {

std::string Serialize(const VLObject *obj) {
  VLRef text(VLObjectSerialize(obj, VLFormatJson));
  return text ? std::string(VLStringChars(text.get()), VLStringLength(text.get())) : "<null>";
}

TEST(JsonWriter, WritesEachTagInItsOwnForm) {
  VLRef empty_array(VLArrayCreate(0));
  VLRef empty_dictionary(VLDictionaryCreate(0));
  VLRef minus(VLNumberCreateInt32(static_cast<uint32_t>(-7)));
  VLRef big(VLNumberCreateUInt64(18446744073709551615ull));
  VLRef unsigned32(VLNumberCreateUInt32(4294967295u));
  VLRef bytes(VLDataCreate("\x01\x02\xff", 3));
  VLRef null_value(VLNullCreate());
  VLRef range(VLRangeCreate(3, 4));
  VLRef items(VLArrayCreateWith(minus.get(), big.get(), unsigned32.get(), bytes.get(), null_value.get(), range.get(),
                                empty_array.get(), empty_dictionary.get(), nullptr));
  EXPECT_EQ(Serialize(items.get()),
            "[\n  -7,\n  18446744073709551615,\n  4294967295,\n  \"AQL/\",\n  null,\n  \"{3, 4}\",\n"
            "  [\n  ],\n  {\n  }\n]\n");
  VLRef text(VLStringCreate("q\"b\\s/\x01\n\x1f\xc3\xa9", 0));
  EXPECT_EQ(Serialize(text.get()), "\"q\\\"b\\\\s/\\u0001\\u000A\\u001F\xc3\xa9\"\n");
}

}  // namespace
