#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "foundation/json.h"
#include "foundation/object.h"
#include "foundation/show.h"

namespace {

uint32_t Count(const VLObject *obj) { return obj->refcount.load(); }

TEST(Ownership, ContainersRetainWhatTheyHoldAndReleaseWhatLeaves) {
  VLRef item(VLStringCreate("x", 0)), other(VLStringCreate("y", 0)), key(VLStringCreate("k", 0));
  VLRef array(VLArrayCreate(0));
  VLArrayAppend(array.get(), item.get());
  VLArrayAppend(array.get(), item.get());
  EXPECT_EQ(Count(item.get()), 3u);
  VLArrayRemoveAt(array.get(), 0);
  VLArrayRemoveAt(array.get(), 5);  // past the end: nothing
  VLArraySetAt(array.get(), 0, other.get());
  VLArraySetAt(array.get(), 3, item.get());  // past the end: nothing
  EXPECT_EQ(Count(item.get()), 1u);
  EXPECT_EQ(Count(other.get()), 2u);

  VLRef dictionary(VLDictionaryCreate(1));
  VLDictionarySet(dictionary.get(), item.get(), key.get());
  EXPECT_EQ(Count(key.get()), 2u);
  VLDictionaryRemove(dictionary.get(), key.get());
  EXPECT_EQ(Count(key.get()), 1u);
  EXPECT_EQ(Count(item.get()), 1u);

  {
    VLRef inner(VLArrayCreateWith(item.get(), nullptr));
    VLRef outer(VLDictionaryCreateWith(inner.get(), item.get(), nullptr));
    EXPECT_EQ(Count(item.get()), 3u);
  }
  EXPECT_EQ(Count(item.get()), 1u);  // the last release released the contents

  // Null pointers are accepted everywhere and stored nowhere.
  VLObjectRelease(nullptr);
  VLArrayAppend(array.get(), nullptr);
  EXPECT_EQ(VLArrayCount(array.get()), 1u);
  EXPECT_EQ(VLArrayGet(array.get(), 1), nullptr);
}

TEST(PinnedConstants, AreFoundAgainAndIgnoreCounting) {
  static const char kText[] = "pinned";
  static const char kSameText[] = "pinned";
  VLObject *a = VLStringConstant(kText);
  EXPECT_EQ(VLStringConstant(kText), a);
  EXPECT_NE(VLStringConstant(kSameText), a);  // found by address, not contents
  VLObjectRelease(a);
  VLObjectRelease(a);
  VLObjectRetain(a);
  EXPECT_EQ(Count(a), 0u);
  EXPECT_STREQ(VLStringChars(a), "pinned");
  EXPECT_EQ(VLStringChars(a), kText);  // used in place, not copied
  VLStringAppend(a, "more", 0);       // a constant is never changed
  EXPECT_STREQ(VLStringChars(a), "pinned");

  VLObject *yes = VLNumberConstant(VLNumberBool, 7, 0, 0.0);
  EXPECT_EQ(VLNumberConstant(VLNumberBool, 1, 0, 0.0), yes);
  EXPECT_NE(VLNumberConstant(VLNumberUInt32, 1, 0, 0.0), yes);
  EXPECT_EQ(VLNumberConstant(VLNumberInt32, 99, static_cast<uint32_t>(-3), 0.0),
            VLNumberConstant(VLNumberInt32, 0, static_cast<uint32_t>(-3), 0.0));
  EXPECT_EQ(VLNumberConstant(VLNumberReal, 0, 0, 4.0), VLNumberConstant(VLNumberReal, 0, 0, 4.0));
  // A real with a fraction never matches its own entry again.
  EXPECT_NE(VLNumberConstant(VLNumberReal, 0, 0, 0.5), VLNumberConstant(VLNumberReal, 0, 0, 0.5));
  EXPECT_EQ(VLNumberConstant(9, 0, 0, 0.0), nullptr);

  // A copy is an ordinary, counted value.
  VLRef copy(VLObjectCopy(yes));
  EXPECT_EQ(copy.get()->pinned, 0u);
  EXPECT_EQ(Count(copy.get()), 1u);
  EXPECT_TRUE(VLNumberGetBool(copy.get()));
}

TEST(PinnedConstants, StayValidAndUniqueWhenPoolsGrow) {
  std::vector<VLObject *> first;
  for (uint64_t i = 0; i < 450; ++i) first.push_back(VLNumberConstant(VLNumberUInt64, 1000000 + i, 0, 0.0));
  std::set<VLObject *> distinct(first.begin(), first.end());
  EXPECT_EQ(distinct.size(), first.size());
  for (uint64_t i = 0; i < 450; ++i) {
    ASSERT_EQ(VLNumberConstant(VLNumberUInt64, 1000000 + i, 0, 0.0), first[i]);
    ASSERT_EQ(VLNumberGetUInt64(first[i]), 1000000 + i);
  }
  static char texts[400][8];
  std::vector<VLObject *> strings;
  for (int i = 0; i < 400; ++i) {
    snprintf(texts[i], sizeof texts[i], "s%d", i);
    strings.push_back(VLStringConstant(texts[i]));
  }
  for (int i = 0; i < 400; ++i) {
    ASSERT_EQ(VLStringConstant(texts[i]), strings[i]);
    ASSERT_STREQ(VLStringChars(strings[i]), texts[i]);
  }
}

TEST(PinnedConstants, AreSharedSafelyAcrossThreads) {
  constexpr int kThreads = 8;
  static char texts[64][8];
  for (int i = 0; i < 64; ++i) snprintf(texts[i], sizeof texts[i], "t%d", i);
  std::vector<std::vector<VLObject *>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &seen] {
      for (int round = 0; round < 50; ++round) {
        for (uint32_t i = 0; i < 64; ++i) {
          VLObject *number = VLNumberConstant(VLNumberUInt32, 5000 + i, 0, 0.0);
          VLObject *text = VLStringConstant(texts[i]);
          VLObjectRetain(number);
          VLObjectRelease(text);
          if (round == 0) {
            seen[t].push_back(number);
            seen[t].push_back(text);
          }
        }
      }
    });
  }
  for (auto &thread : threads) thread.join();
  for (int t = 1; t < kThreads; ++t) EXPECT_EQ(seen[t], seen[0]);
  for (VLObject *constant : seen[0]) EXPECT_EQ(Count(constant), 0u);
}

TEST(SharedValues, CountsStayExactUnderConcurrentRetainAndRelease) {
  VLObject *shared = VLStringCreate("shared", 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([shared] {
      for (int i = 0; i < 20000; ++i) {
        VLObjectRetain(shared);
        VLObjectRelease(shared);
      }
    });
  }
  for (auto &thread : threads) thread.join();
  EXPECT_EQ(Count(shared), 1u);
  VLObjectRelease(shared);
}

// Left operand, right operand, expected.
struct EqualCase {
  VLObject *left;
  VLObject *right;
  bool equal;
};

TEST(Equality, TheLeftOperandsKindDecides) {
  VLRef u_max(VLNumberCreateUInt32(4294967295u)), i_minus1(VLNumberCreateInt32(static_cast<uint32_t>(-1)));
  VLRef i_one(VLNumberCreateInt32(1)), r_one(VLNumberCreateReal(1.0)), r_one_half(VLNumberCreateReal(1.5));
  VLRef r_minus1(VLNumberCreateReal(-1.0)), b_true(VLNumberCreateBool(1)), b_false(VLNumberCreateBool(0));
  VLRef u_two(VLNumberCreateUInt32(2)), r_nan(VLNumberCreateReal(NAN)), r_zero(VLNumberCreateReal(0.0));
  VLRef l_one(VLNumberCreateUInt64(1)), l_one_b(VLNumberCreateUInt64(1)), l_big(VLNumberCreateUInt64(1ull << 32));
  VLRef u_zero(VLNumberCreateUInt32(0));
  std::vector<EqualCase> cases = {
      {i_minus1.get(), u_max.get(), true},     // same 32-bit pattern
      {u_max.get(), i_minus1.get(), true},
      {i_one.get(), r_one_half.get(), true},   // an integer truncates a real
      {r_one_half.get(), i_one.get(), false},  // a real doesn't truncate
      {r_one.get(), i_one.get(), true},
      {r_minus1.get(), i_minus1.get(), true},   // kind 1 read as signed
      {r_minus1.get(), u_max.get(), false},     // kind 0 read as unsigned
      {b_true.get(), u_two.get(), true},        // both non-zero
      {u_two.get(), b_true.get(), false},       // an integer never equals a boolean
      {i_one.get(), b_true.get(), false},
      {b_true.get(), r_nan.get(), true},        // NaN counts as non-zero
      {b_false.get(), r_zero.get(), true},
      {b_true.get(), l_one.get(), false},
      {r_one.get(), b_true.get(), false},
      {l_one.get(), l_one_b.get(), true},
      {l_one.get(), i_one.get(), false},        // 64-bit equals only 64-bit
      {i_one.get(), l_one.get(), false},
      {l_big.get(), u_zero.get(), false},
      {r_nan.get(), r_nan.get(), true},         // the same pointer
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    EXPECT_EQ(VLObjectEqual(cases[i].left, cases[i].right), cases[i].equal)
        << "case " << i << ": " << Show(cases[i].left) << " vs " << Show(cases[i].right);
  }
  VLRef n1(VLNumberCreateReal(NAN));
  EXPECT_FALSE(VLObjectEqual(r_nan.get(), n1.get()));
}

TEST(Equality, ComparesTextBytesAndNothingInsideContainers) {
  VLRef a(VLStringCreate("abc", 0)), b(VLStringCreate("abc", 0)), c(VLStringCreate("abd", 0));
  VLRef d1(VLDataCreate("\0\1", 2)), d2(VLDataCreate("\0\1", 2)), d3(VLDataCreate("\0", 1));
  VLRef n1(VLNullCreate()), n2(VLNullCreate());
  VLRef e1(VLArrayCreate(0)), e2(VLArrayCreate(0));
  EXPECT_TRUE(VLObjectEqual(a.get(), b.get()));
  EXPECT_FALSE(VLObjectEqual(a.get(), c.get()));
  EXPECT_TRUE(VLObjectEqual(d1.get(), d2.get()));
  EXPECT_FALSE(VLObjectEqual(d1.get(), d3.get()));
  EXPECT_FALSE(VLObjectEqual(a.get(), d1.get()));
  EXPECT_TRUE(VLObjectEqual(n1.get(), n2.get()));
  EXPECT_FALSE(VLObjectEqual(e1.get(), e2.get()));
  EXPECT_FALSE(VLObjectEqual(a.get(), nullptr));
  EXPECT_TRUE(VLObjectEqual(nullptr, nullptr));
}

TEST(Dictionary, SetKeepsTheFirstKeyObjectAndTheEntrysPlace) {
  VLRef dictionary(VLDictionaryCreate(1));
  VLRef a1(VLStringCreate("a", 0)), a2(VLStringCreate("a", 0)), b(VLStringCreate("b", 0));
  VLRef v1(VLNumberCreateUInt32(1)), v2(VLNumberCreateUInt32(2));
  VLDictionarySet(dictionary.get(), v1.get(), a1.get());
  VLDictionarySet(dictionary.get(), v1.get(), b.get());
  EXPECT_EQ(dictionary.get()->dictionary.capacity, 9u);  // grew by 8 from 1
  VLDictionarySet(dictionary.get(), v2.get(), a2.get());
  EXPECT_EQ(VLDictionaryKeyAt(dictionary.get(), 0), a1.get());
  EXPECT_EQ(Count(a2.get()), 1u);  // the passed key was neither stored nor retained
  EXPECT_EQ(Count(v1.get()), 2u);
  EXPECT_EQ(Show(dictionary.get()), R"({"a":u32:2,"b":u32:1})");

  uint32_t before = Count(v2.get());
  VLDictionarySet(dictionary.get(), v2.get(), a1.get());  // the value already stored
  EXPECT_EQ(Count(v2.get()), before);
}

TEST(Dictionary, NumberKeysShareAnEntryUnlessOneIsABoolean) {
  VLRef dictionary(VLDictionaryCreate(0));
  VLRef one(VLNumberCreateUInt32(1)), one_real(VLNumberCreateReal(1.0)), yes(VLNumberCreateBool(1));
  VLRef first(VLStringCreate("first", 0)), second(VLStringCreate("second", 0)), third(VLStringCreate("third", 0));
  VLDictionarySet(dictionary.get(), first.get(), one.get());
  VLDictionarySet(dictionary.get(), second.get(), one_real.get());
  VLDictionarySet(dictionary.get(), third.get(), yes.get());
  EXPECT_EQ(Show(dictionary.get()), R"({u32:1:"second",true:"third"})");
  // Plain lookup follows equality; the exact form also wants the kind.
  EXPECT_EQ(VLDictionaryGet(dictionary.get(), yes.get()), second.get());
  EXPECT_EQ(VLDictionaryGetExact(dictionary.get(), yes.get()), third.get());
  EXPECT_EQ(VLDictionaryGetExact(dictionary.get(), one_real.get()), nullptr);
}

TEST(Dictionary, LookupAndRemovalKeepOrder) {
  VLRef number_key(VLNumberCreateUInt32(7));
  VLRef dictionary(ReadJson(R"({"a":1,"b":2,"c":3})"));
  VLDictionarySet(dictionary.get(), VLStringConstant("seven"), number_key.get());
  EXPECT_EQ(VLNumberGetUInt64(VLDictionaryGetByName(dictionary.get(), "b")), 2u);
  EXPECT_EQ(VLDictionaryGetByName(dictionary.get(), "7"), nullptr);  // non-string keys are skipped
  EXPECT_EQ(VLDictionaryGetByName(dictionary.get(), "B"), nullptr);
  VLDictionaryRemoveByName(dictionary.get(), "b");
  VLDictionaryRemoveByName(dictionary.get(), "absent");
  EXPECT_EQ(Show(dictionary.get()), R"({"a":u64:1,"c":u64:3,u32:7:"seven"})");
  VLRef keys(VLArrayCreate(0));
  VLDictionaryFlatten(dictionary.get(), keys.get());
  EXPECT_EQ(Show(keys.get()), R"(["a","c",u32:7,u64:1,u64:3,"seven"])");
  EXPECT_EQ(VLDictionaryKeyAt(dictionary.get(), 3), nullptr);
}

TEST(Array, SearchInsertAndGrowth) {
  VLRef array(ReadJson(R"(["x",2,"z"])"));
  VLRef two(VLNumberCreateUInt64(2)), two32(VLNumberCreateUInt32(2));
  VLRef absent(VLStringCreate("q", 0)), y(VLStringCreate("y", 0));
  EXPECT_EQ(VLArrayIndexOf(array.get(), two.get()), 1u);
  // The reader's integers are 64-bit, which a 32-bit number on the left never equals.
  EXPECT_EQ(VLArrayIndexOf(array.get(), two32.get()), 0x7fffffffu);
  EXPECT_EQ(VLArrayIndexOf(array.get(), absent.get()), 0x7fffffffu);
  EXPECT_EQ(VLArrayIndexOf(array.get(), nullptr), 0x7fffffffu);
  EXPECT_FALSE(VLArrayContains(array.get(), absent.get()));
  VLArrayInsert(array.get(), y.get(), 2);
  VLArrayInsert(array.get(), y.get(), 9);  // past the end: nothing
  EXPECT_EQ(Show(array.get()), R"(["x",u64:2,"y","z"])");
  VLRef grow(VLArrayCreate(1));
  for (uint32_t i = 0; i < 10; ++i) VLArrayAppend(grow.get(), y.get());
  EXPECT_EQ(grow.get()->array.capacity, 17u);
}

TEST(Conversions, NothingIsSignExtended) {
  VLRef minus1(VLNumberCreateInt32(static_cast<uint32_t>(-1)));
  EXPECT_EQ(VLNumberGetInt64(minus1.get()), 4294967295);
  EXPECT_EQ(VLNumberGetUInt64(minus1.get()), 4294967295u);
  EXPECT_EQ(VLNumberGetReal(minus1.get()), 4294967295.0);
  EXPECT_EQ(static_cast<int32_t>(VLNumberGetInt32(minus1.get())), -1);
  EXPECT_TRUE(VLNumberGetBool(minus1.get()));
}

TEST(Conversions, FollowTheTableForEveryKind) {
  VLRef real(VLNumberCreateReal(-2.75)), huge(VLNumberCreateReal(3e9)), two64(VLNumberCreateReal(18446744073709551616.0));
  VLRef two63(VLNumberCreateReal(9223372036854775808.0)), nan(VLNumberCreateReal(NAN));
  VLRef yes(VLNumberCreateBool(7)), wide(VLNumberCreateUInt64(0x100000000ull)), zero(VLNumberCreateUInt64(0));
  EXPECT_EQ(yes.get()->number.bits, 1u);
  EXPECT_EQ(VLNumberGetInt32(real.get()), -2);
  EXPECT_EQ(VLNumberGetInt64(real.get()), -2);
  EXPECT_EQ(VLNumberGetInt32(huge.get()), INT32_MIN);  // out of 32-bit range
  EXPECT_EQ(VLNumberGetInt64(huge.get()), 3000000000);
  EXPECT_EQ(VLNumberGetUInt64(two63.get()), 9223372036854775808ull);
  EXPECT_EQ(VLNumberGetUInt64(two64.get()), 0u);
  EXPECT_TRUE(VLNumberGetBool(nan.get()));
  EXPECT_EQ(VLNumberGetReal(yes.get()), 1.0);
  EXPECT_EQ(VLNumberGetInt64(yes.get()), 1);
  EXPECT_TRUE(VLNumberGetBool(wide.get()));  // only the high half is set
  EXPECT_FALSE(VLNumberGetBool(zero.get()));
  EXPECT_EQ(VLNumberGetReal(wide.get()), 4294967296.0);
  EXPECT_EQ(VLNumberGetInt32(wide.get()), 0x100000000);

  auto text = [](const char *t) { return VLRef(VLStringCreate(t, 0)); };
  EXPECT_FALSE(VLNumberGetBool(text("0").get()));
  EXPECT_TRUE(VLNumberGetBool(text("2").get()));
  EXPECT_FALSE(VLNumberGetBool(text("-1").get()));
  EXPECT_EQ(VLNumberGetReal(text("2.5x").get()), 2.5);
  EXPECT_EQ(VLNumberGetInt64(text("-12").get()), -12);
  EXPECT_EQ(VLNumberGetInt64(text("99999999999").get()), INT32_MAX);  // a 32-bit text conversion
  EXPECT_EQ(VLNumberGetUInt64(text("99999999999").get()), 99999999999u);

  VLRef array(VLArrayCreate(0));
  EXPECT_EQ(VLNumberGetUInt64(array.get()), 0u);
  EXPECT_EQ(VLNumberGetReal(nullptr), 0.0);
  EXPECT_FALSE(VLNumberGetBool(nullptr));
}

TEST(Copy, IsDeepAndIndependent) {
  VLRef source(ReadJson(R"({"a":[1,"x",{"b":null}],"c":-2.5})"));
  VLRef bytes(VLDataCreate("\x00\x01", 2)), range(VLRangeCreate(1, 2));
  VLArrayAppend(VLDictionaryGetByName(source.get(), "a"), bytes.get());
  VLArrayAppend(VLDictionaryGetByName(source.get(), "a"), range.get());
  VLRef copy(VLObjectCopy(source.get()));
  std::string before = Show(source.get());
  EXPECT_EQ(Show(copy.get()), before);
  EXPECT_NE(VLDictionaryGetByName(copy.get(), "a"), VLDictionaryGetByName(source.get(), "a"));
  VLArrayRemoveAt(VLDictionaryGetByName(source.get(), "a"), 0);
  EXPECT_EQ(Show(copy.get()), before);
  EXPECT_EQ(VLObjectCopy(nullptr), nullptr);
}

TEST(Describe, WritesTheReadableDump) {
  VLRef value(ReadJson(R"({"code":-1,"list":[true,"x",{"k":2.5}],"none":null})"));
  VLRef bytes(VLDataCreate("\x0a\xff", 2));
  VLDictionarySet(value.get(), bytes.get(), VLStringConstant("raw"));
  VLRef text(VLObjectDescribe(value.get()));
  EXPECT_STREQ(VLStringChars(text.get()),
               "Dictionary {\n"
               "  code  =>  -1,\n"
               "  list  =>  Array (\n"
               "    true,\n"
               "    x,\n"
               "    Dictionary {\n"
               "      k  =>  2.500000,\n"
               "    },\n"
               "  ),\n"  // a dictionary's value is written at depth 1, wherever it stands
               "  none  =>  (null),\n"
               "  raw  =>  <Data(2)>: 0x0aff,\n"
               "}\n");
}

TEST(Sort, OrdersTextWithoutRegardToCase) {
  VLRef array(ReadJson(R"(["pear","Apple","banana","apple","Cherry"])"));
  VLArraySort(array.get());
  std::string shown = Show(array.get());
  // The two apples are equal to the sort, so either may come first.
  EXPECT_TRUE(shown == R"(["Apple","apple","banana","Cherry","pear"])" ||
              shown == R"(["apple","Apple","banana","Cherry","pear"])")
      << shown;

  // Only the low 8 bits of a difference count: 'a' - 0xE9 is -136, read as +120.
  VLRef high(VLArrayCreateWith(VLStringConstant("\xE9"), VLStringConstant("a"), nullptr));
  VLArraySort(high.get());
  EXPECT_EQ(Show(high.get()), R"(["\xE9","a"])");

  VLRef people(ReadJson(R"([{"n":"bo"},{"n":"Al"},{"x":1},{"n":"cy"}])"));
  VLArraySortByKey(people.get(), "n");
  std::vector<std::string> names;
  for (uint32_t i = 0; i < VLArrayCount(people.get()); ++i) {
    const char *name = VLStringChars(VLDictionaryGetByName(VLArrayGet(people.get(), i), "n"));
    if (name) names.push_back(name);
  }
  EXPECT_EQ(names, (std::vector<std::string>{"Al", "bo", "cy"}));
}

TEST(Sort, LargeArraysEndOrdered) {
  VLRef array(VLArrayCreate(0));
  std::vector<std::string> texts;
  uint32_t seed = 12345;
  for (int i = 0; i < 3000; ++i) {
    seed = seed * 1103515245 + 12345;
    texts.push_back(std::to_string(seed % 1000));  // many duplicates
    VLRef s(VLStringCreate(texts.back().c_str(), 0));
    VLArrayAppend(array.get(), s.get());
  }
  VLArraySort(array.get());
  std::sort(texts.begin(), texts.end());
  for (uint32_t i = 0; i < texts.size(); ++i) ASSERT_EQ(VLStringChars(VLArrayGet(array.get(), i)), texts[i]);
}

}  // namespace
