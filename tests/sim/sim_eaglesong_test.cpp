// The simulator's own Eaglesong against the published vectors.
#include "sim/eaglesong.h"

#include <gtest/gtest.h>

#include "support/eaglesong_vectors.h"

namespace {

using testing_support::BytesOfHex;

TEST(SimEaglesongTest, PublishedVectorsOfAnyLength) {
  const auto vectors = testing_support::PublishedEaglesongVectors();
  ASSERT_GE(vectors.size(), 9u);
  for (const auto &[input, output] : vectors) {
    std::vector<uint8_t> message = BytesOfHex(input);
    uint8_t digest[32];
    sim::Hash(message.data(), message.size(), digest);
    EXPECT_EQ(std::vector<uint8_t>(digest, digest + 32), BytesOfHex(output)) << input;
  }
}

}  // namespace
