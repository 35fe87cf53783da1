#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

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

// What the pool transport and the board settings rely on: a key set again
// replaces its value where it stands, and lookup is by exact text.
TEST(Dictionary, ASetKeyReplacesItsValueInPlaceAndLookupIsByExactText) {
  VLRef dictionary(VLDictionaryCreate(1));
  VLRef a1(VLStringCreate("a", 0)), a2(VLStringCreate("a", 0)), b(VLStringCreate("b", 0));
  VLRef v1(VLNumberCreateUInt32(1)), v2(VLNumberCreateUInt32(2)), number_key(VLNumberCreateUInt32(7));
  VLDictionarySet(dictionary.get(), v1.get(), a1.get());
  VLDictionarySet(dictionary.get(), v1.get(), b.get());
  VLDictionarySet(dictionary.get(), v2.get(), a2.get());
  VLDictionarySet(dictionary.get(), VLStringConstant("seven"), number_key.get());
  EXPECT_EQ(Show(dictionary.get()), R"({"a":u32:2,"b":u32:1,u32:7:"seven"})");
  EXPECT_EQ(Count(a2.get()), 1u);  // the passed key was neither stored nor retained
  EXPECT_EQ(Count(v1.get()), 2u);
  EXPECT_EQ(VLDictionaryGetByName(dictionary.get(), "a"), v2.get());
  EXPECT_EQ(VLDictionaryGetByName(dictionary.get(), "7"), nullptr);  // non-string keys are skipped
  EXPECT_EQ(VLDictionaryGetByName(dictionary.get(), "A"), nullptr);
}

}  // namespace
