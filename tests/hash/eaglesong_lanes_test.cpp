#include "hash/eaglesong_lanes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <vector>

#include "hash/eaglesong.h"

namespace {

using Words8 = std::array<uint32_t, 8>;

// Digest as a number, compared by the test itself: most significant word first.
Words8 Number(const uint32_t digest[8]) {
  Words8 number;
  EaglesongDigestNumber(digest, number.data());
  return number;
}
bool AtMost(const Words8 &value, const Words8 &bound) {
  return !std::lexicographical_compare(bound.rbegin(), bound.rend(), value.rbegin(), value.rend());
}

class EaglesongLanes : public ::testing::TestWithParam<EaglesongLanePath> {
 protected:
  void SetUp() override {
    if (!EaglesongLanePathSupported(GetParam())) GTEST_SKIP() << "CPU lacks this path";
    ASSERT_EQ(EaglesongLanePathResolve(GetParam()), GetParam()) << "the path under test must really run";
    for (uint32_t &word : header) word = rng();
  }

  std::mt19937 rng{77};
  uint32_t header[8];
  const uint32_t word0 = 0x11223344;
  const uint32_t word1 = 0x55667788;

  Words8 ScalarDigest(const EaglesongNonceTail &tail) {
    const uint32_t nonce[4] = {word0, word1, tail.word2, tail.word3};
    Words8 digest;
    EaglesongHash48(header, nonce, digest.data());
    return digest;
  }
};

TEST_P(EaglesongLanes, BatchEqualsScalarInEveryLaneAndWritesNothingPastCount) {
  constexpr uint32_t kGuard = 0xdeadbeef;
  for (size_t count : std::initializer_list<size_t>{0, 1, 7, 8, 9, 15, 17, 64, 101}) {
    std::vector<std::array<uint32_t, 4>> nonces(count);
    for (auto &nonce : nonces) {
      for (uint32_t &word : nonce) word = rng();
    }
    std::vector<std::array<uint32_t, 8>> digests(count + 3);
    for (auto &digest : digests) digest.fill(kGuard);

    EaglesongHash48Batch(header, reinterpret_cast<const uint32_t(*)[4]>(nonces.data()), count,
                         reinterpret_cast<uint32_t(*)[8]>(digests.data()), GetParam());

    for (size_t i = 0; i < count; ++i) {
      uint32_t expected[8];
      EaglesongHash48(header, nonces[i].data(), expected);
      ASSERT_EQ(0, std::memcmp(expected, digests[i].data(), sizeof(expected))) << "count " << count << " lane " << i;
    }
    for (size_t i = count; i < digests.size(); ++i) {
      for (uint32_t word : digests[i]) ASSERT_EQ(word, kGuard) << "count " << count << " wrote entry " << i;
    }
  }
}

TEST_P(EaglesongLanes, SearchFindsFirstCandidateWithinBound) {
  // The 1280 candidates of one reported nonce on a 20-core board, in the
  // order they are worked back: core number into word 2, the skewed counter
  // into word 3, core numbers innermost. A bound of 1/256 of the range gives
  // several hits at positions that nothing in the code knows about.
  std::vector<EaglesongNonceTail> tails;
  const uint32_t reported = rng();
  for (uint32_t t = 0; t < 20 * 64; ++t) {
    const uint32_t k = t / 64;
    const uint32_t skew = (k % 2 == 0) ? k / 2 : 0u - k / 2;
    tails.push_back({0x0a0b0c00 ^ (t % 64), 0x12345678 ^ (reported + skew - 43)});
  }
  const Words8 bound = {~0u, ~0u, ~0u, ~0u, ~0u, ~0u, ~0u, 0x00ffffff};

  size_t expected = tails.size();
  for (size_t i = 0; i < tails.size() && expected == tails.size(); ++i) {
    if (AtMost(Number(ScalarDigest(tails[i]).data()), bound)) expected = i;
  }
  ASSERT_LT(expected, tails.size()) << "seed gives no hit; pick another";

  // From every start offset across one group of sixteen, so the hit lands in
  // each lane position of every path.
  for (size_t skip = 0; skip < 16 && skip <= expected; ++skip) {
    Words8 digest{};
    const size_t found = EaglesongSearch48(header, word0, word1, tails.data() + skip, tails.size() - skip, bound.data(),
                                           digest.data(), GetParam());
    ASSERT_EQ(found + skip, expected) << "skip " << skip;
    EXPECT_EQ(digest, ScalarDigest(tails[expected]));
  }
}

TEST_P(EaglesongLanes, SearchBoundIsInclusiveAndComparesAllWords) {
  // 21 candidates: the best one is put in the partial last group.
  std::vector<EaglesongNonceTail> tails(21);
  for (EaglesongNonceTail &tail : tails) tail = {static_cast<uint32_t>(rng()), static_cast<uint32_t>(rng())};
  size_t best = 0;
  for (size_t i = 1; i < tails.size(); ++i) {
    if (AtMost(Number(ScalarDigest(tails[i]).data()), Number(ScalarDigest(tails[best]).data()))) best = i;
  }
  std::swap(tails[best], tails[19]);
  const Words8 minimum = Number(ScalarDigest(tails[19]).data());

  Words8 digest{};
  EXPECT_EQ(
      EaglesongSearch48(header, word0, word1, tails.data(), tails.size(), minimum.data(), digest.data(), GetParam()),
      19u)
      << "a digest equal to the bound is within it";
  EXPECT_EQ(Number(digest.data()), minimum);

  // One below the minimum in the lowest word: nothing qualifies, and the
  // digest buffer is left alone.
  Words8 below = minimum;
  for (size_t i = 0; i < 8 && below[i]-- == 0; ++i) {}
  Words8 untouched;
  untouched.fill(0x5a5a5a5a);
  Words8 out = untouched;
  EXPECT_EQ(EaglesongSearch48(header, word0, word1, tails.data(), tails.size(), below.data(), out.data(), GetParam()),
            tails.size());
  EXPECT_EQ(out, untouched);

  // The top word alone is not enough: same top word, lower words zero.
  Words8 topOnly{};
  topOnly[7] = minimum[7];
  EXPECT_EQ(EaglesongSearch48(header, word0, word1, tails.data(), tails.size(), topOnly.data(), nullptr, GetParam()),
            tails.size());
}

INSTANTIATE_TEST_SUITE_P(Paths, EaglesongLanes,
                         ::testing::Values(EaglesongLanePath::Portable, EaglesongLanePath::Avx2,
                                           EaglesongLanePath::Avx512),
                         [](const ::testing::TestParamInfo<EaglesongLanePath> &info) {
                           return std::string(EaglesongLanePathName(info.param));
                         });

}  // namespace
