#include <gtest/gtest.h>
#include <pthread.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "foundation/json.h"
#include "foundation/object.h"
#include "foundation/text.h"
#include "foundation/show.h"

namespace {

std::string Serialize(const VLObject *obj) {
  VLRef text(VLObjectSerialize(obj, VLFormatJson));
  return text ? std::string(VLStringChars(text.get()), VLStringLength(text.get())) : "<null>";
}

using Cases = std::vector<std::pair<std::string, std::string>>;

void ExpectParses(const Cases &cases) {
  for (const auto &[input, expected] : cases) EXPECT_EQ(ParseShow(input), expected) << "input: " << input;
}

TEST(JsonReader, SkipsWhatItDoesNotKnowAndNeedsNoPunctuation) {
  ExpectParses({
      {R"({"a":1,"b":[true,null,"x"]})", R"({"a":u64:1,"b":[true,null,"x"]})"},
      {"[1 2 3]", "[u64:1,u64:2,u64:3]"},
      {"[1;2 ; @ 3]", "[u64:1,u64:2,u64:3]"},
      {R"({"a" "b" "c" "d"})", R"({"a":"b","c":"d"})"},
      {"[1,2}", "[u64:1,u64:2]"},  // a brace closes an array too
      {R"({"a":})", "{}"},
      {R"({"a":1,"a":2,"b":3})", R"({"a":u64:2,"b":u64:3})"},  // a duplicate keeps its place
      {R"({[1]:2})", "{[u64:1]:u64:2}"},                       // any value can be a key
  });
}

TEST(JsonReader, NumbersGoThroughADouble) {
  ExpectParses({
      {"[-5]", "[i32:-5]"},
      {"[-5000000000]", "[i32:-2147483648]"},
      {"[1.5, 2., -0.25]", "[real:1.5,real:2,real:-0.25]"},
      {"[1e5]", "[u64:100000,u64:5]"},  // the exponent is read, then scanned again
      {"[4294967296]", "[u64:4294967296]"},
      {"[9007199254740993]", "[u64:9007199254740992]"},  // precision ends at 2^53
      {"[9223372036854775808]", "[u64:9223372036854775808]"},
      {"[18446744073709551615]", "[u64:0]"},  // rounds up to 2^64, which wraps
      {"[007]", "[u64:7]"},
  });
}

TEST(JsonReader, StringEscapesKeepTheProgramsOwnDecoding) {
  ExpectParses({
      {R"(["\f\r"])", R"(["\x14\x13"])"},
      {R"(["\b\n\t\/\"\\\q"])", R"(["\x08\x0A\x09/"\q"])"},
      {R"(["\u00e9"])", R"(["\xE9"])"},
      {R"(["\u20ac"])", R"([" \xAC"])"},
      {R"(["\u00A9"])", R"(["\xA9"])"},  // below 192: one byte
      {R"(["\u0041\u0000B"])", R"(["AB"])"},
      // Inside \u a non-hex byte ends the escape as content, even a quote;
      // decoding then finds the escape too short and drops it with one byte.
      {R"(["a\u"b" "c"])", R"(["ab","c"])"},
      {R"(["ab\u12"])", "[]"},  // the closing quote was taken into the escape
      {"[\"caf\xC3\xA9\"]", R"(["caf\xC3\xA9"])"},
  });
}

TEST(JsonReader, ReadsWhatAPoolSends) {
  const std::string hash = "d1bc1f5eab1d8b6c8a2bd7e84e7e2fda0a8c8e0c5a2e7d2a6d5e4c3b2a190807";
  const std::string target = "0000ffff00000000000000000000000000000000000000000000000000000000";
  ExpectParses({
      {R"({"id":1,"result":[[["mining.set_difficulty","0.5"],["mining.notify","ae68"]],"08000002",4],"error":null})",
       R"({"id":u64:1,"result":[[["mining.set_difficulty","0.5"],["mining.notify","ae68"]],"08000002",u64:4],"error":null})"},
      {R"({"id":null,"method":"mining.notify","params":["1a2b",")" + hash + R"(",1234567,")" + hash + R"(",true]})",
       R"({"id":null,"method":"mining.notify","params":["1a2b",")" + hash + R"(",u64:1234567,")" + hash +
           R"(",true]})"},
      {R"({"id":null,"method":"mining.set_target","params":[")" + target + R"("]})",
       R"({"id":null,"method":"mining.set_target","params":[")" + target + R"("]})"},
      {R"({"id":4,"result":null,"error":[21,"Job not found",null]})",
       R"({"id":u64:4,"result":null,"error":[u64:21,"Job not found",null]})"},
      {R"({"id":5,"result":false,"error":{"code":-32601,"message":"Method not found"}})",
       R"({"id":u64:5,"result":false,"error":{"code":i32:-32601,"message":"Method not found"}})"},
      {"{\"id\":3,\"result\":true,\"error\":null}\r", R"({"id":u64:3,"result":true,"error":null})"},
  });
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
            "[\n"
            "  -7,\n"
            "  18446744073709551615,\n"
            "  4294967295,\n"
            "  \"AQL/\",\n"
            "  null,\n"
            "  \"{3, 4}\",\n"
            "  [\n"
            "  ],\n"
            "  {\n"
            "  }\n"
            "]\n");
  VLRef text(VLStringCreate("q\"b\\s/\x01\n\x1f\xc3\xa9", 0));
  EXPECT_EQ(Serialize(text.get()), "\"q\\\"b\\\\s/\\u0001\\u000A\\u001F\xc3\xa9\"\n");
  EXPECT_EQ(VLObjectSerialize(text.get(), VLFormatBinaryPlist), nullptr);
}

// Runs `body` on a thread whose stack was painted beforehand, and returns how
// many bytes of that stack it touched.
template <typename Body>
size_t StackUsedBy(Body body) {
  constexpr size_t kSize = 8 << 20;
  void *stack = nullptr;
  EXPECT_EQ(posix_memalign(&stack, 4096, kSize), 0);
  memset(stack, 0xA5, kSize);
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstack(&attributes, stack, kSize);
  pthread_t thread;
  auto run = [](void *argument) -> void * {
    (*static_cast<Body *>(argument))();
    return nullptr;
  };
  EXPECT_EQ(pthread_create(&thread, &attributes, run, &body), 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
  size_t untouched = 0;
  while (untouched < kSize && static_cast<uint8_t *>(stack)[untouched] == 0xA5) ++untouched;
  free(stack);
  return kSize - untouched;
}

std::string Nested(uint32_t depth, const char *inner) {
  return std::string(depth, '[') + inner + std::string(depth, ']');
}

uint32_t ArrayDepth(const VLObject *value) {
  uint32_t depth = 0;
  for (; VLObjectType(value) == VLTypeArray; value = VLArrayGet(value, 0)) ++depth;
  return depth;
}

// A peer controls the nesting of what the reader builds; nothing that walks a
// value may need stack in proportion to its depth.
TEST(DeepNesting, ReadingCopyingAndReleasingUseNoStackPerLevel) {
  uint32_t depth = 0;
  auto read_copy_release = [&depth](uint32_t levels) {
    std::string text = Nested(levels, "1") + std::string(levels, '{');  // and an unterminated flood
    return StackUsedBy([&] {
      VLRef parsed(VLJsonRead(text.data(), static_cast<uint32_t>(text.size())));
      VLRef copy(VLObjectCopy(parsed.get()));
      depth = ArrayDepth(copy.get());
      VLRef open_only(VLJsonRead(text.data() + 2 * levels + 1, levels));
      EXPECT_EQ(VLDictionaryCount(open_only.get()), 0u);  // no key was ever completed
    });
  };
  size_t shallow = read_copy_release(10);
  EXPECT_EQ(depth, 10u);
  size_t deep = read_copy_release(200000);
  EXPECT_EQ(depth, 200000u);
  EXPECT_LT(deep, shallow + 1024);
}

}  // namespace
