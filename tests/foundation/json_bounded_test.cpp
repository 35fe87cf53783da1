// The strict, bounded reader that takes JSON from the network.
#include "foundation/json_bounded.h"

#include <gtest/gtest.h>

#include <string>

#include "foundation/show.h"

namespace {

std::string Read(const std::string &text, const VLJsonLimits &limits = {}) {
  VLJsonRefusal why = VLJsonRefusal::kNone;
  VLRef value(VLJsonReadObject(text.data(), text.size(), limits, &why));
  EXPECT_EQ(value.get() == nullptr, why != VLJsonRefusal::kNone) << text.substr(0, 80);
  EXPECT_EQ(VLJsonCheckObject(text.data(), text.size(), limits), why) << text.substr(0, 80);
  return value ? Show(value.get()) : VLJsonRefusalText(why, limits);
}

std::string Nested(size_t levels) { return std::string(levels, '[') + std::string(levels, ']'); }

// {"a":[0,...]} holds `zeros` + 3 values: the object, its key and the array.
std::string Zeros(size_t zeros) {
  std::string text = "{\"a\":[0";
  for (size_t i = 1; i < zeros; i++) text += ",0";
  return text + "]}";
}

TEST(BoundedJson, OnlyOneObjectWithinTheLimitsIsRead) {
  // Property lists, an array, a number, nothing, one cut off, two, a trailing
  // comma, a raw control character in a string, bytes that are not UTF-8, and
  // a number out of range.
  for (const char *text :
       {"bplist00\xd1\x01\x02\x51\x61\x51\x62", "<?xml version=\"1.0\"?><plist><dict/></plist>", "[1,2]", "5", "",
        "{\"a\":1", "{\"a\":1} {\"b\":2}", "{\"a\":1,}", "{\"a\":\"\x1b[2J\"}", "{\"a\":\"\xff\"}", "{\"a\":1e999}"}) {
    EXPECT_EQ(Read(text), "not a JSON object") << text;
  }
  const std::pair<std::string, std::string> cases[] = {
      {" {\"a\":" + Nested(63) + "}\r", "{\"a\":" + Nested(63) + "}"},
      {"{\"a\":" + Nested(64) + "}", "nested deeper than 64 levels"},
      {"{\"a\":" + std::string(1 << 20, '[') + "}", "over 1048576 bytes"},
      {"{\"a\":" + std::string((1 << 20) - 10, '[') + "}", "nested deeper than 64 levels"},
      {Zeros(100000 - 2), "more than 100,000 values"},
  };
  for (const auto &[text, expected] : cases) EXPECT_EQ(Read(text), expected) << text.substr(0, 80);
  EXPECT_EQ(Read(Zeros(100000 - 3)).substr(0, 12), "{\"a\":[u64:0,");  // exactly at the limit
}

TEST(BoundedJson, NumbersAndStringsAreWhatTheyWrite) {
  const std::pair<const char *, const char *> cases[] = {
      {R"({"d":1e-05})", R"({"d":real:1.0000000000000001e-05})"},
      {R"({"d":2.5E+3})", R"({"d":real:2500})"},
      {R"({"d":[1e5]})", R"({"d":[real:100000]})"},  // one number, not two
      {R"({"d":[-1,-5000000000,18446744073709551615,1.5]})",
       R"({"d":[i32:-1,real:-5000000000,u64:18446744073709551615,real:1.5]})"},
      {R"({"d":[true,false,null]})", R"({"d":[true,false,null]})"},
      {R"({"s":"\f\r\u00e9\u0000x\ud83d\ude00"})", "{\"s\":\"\\u000c\\u000d\u00e9x\U0001F600\"}"},
      {R"({"a":1,"b":2,"a":3})", R"({"a":u64:3,"b":u64:2})"},  // a repeated key keeps its first place
  };
  for (const auto &[text, expected] : cases) EXPECT_EQ(Read(text), expected) << text;
}

TEST(BoundedJson, AFloodOfKeysIsReadWhole) {
  std::string text = "{";
  for (int i = 0; i < 49000; i++) text += (i ? ",\"k" : "\"k") + std::to_string(i) + "\":" + std::to_string(i);
  text += "}";
  VLRef value(VLJsonReadObject(text.data(), text.size(), {}, nullptr));
  ASSERT_EQ(VLDictionaryCount(value.get()), 49000u);
  EXPECT_EQ(VLNumberGetUInt64(VLDictionaryGetByName(value.get(), "k48999")), 48999u);
}

}  // namespace
