#include "hash/eaglesong.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>
#include <vector>

#include "sim/eaglesong.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Digest = std::array<uint8_t, 32>;

// Digest words as bytes, least significant first.
Digest BytesOf(const uint32_t words[8]) {
  Digest out;
  for (size_t i = 0; i < 32; ++i) out[i] = static_cast<uint8_t>(words[i / 4] >> (8 * (i % 4)));
  return out;
}

// The simulator's sponge shares no code with the library and takes any
// length; its own test holds it to the published vectors.
Digest Sponge(const Bytes &message) {
  Digest out;
  sim::Hash(message.data(), message.size(), out.data());
  return out;
}

// The 48-byte message that EaglesongHash48 hashes: the header's bytes as they
// lie in memory, then each nonce word's number big-endian.
Bytes Message48(const uint32_t input[8], const uint32_t nonce[4]) {
  Bytes message(48);
  std::memcpy(message.data(), input, 32);
  for (int i = 0; i < 4; ++i) {
    const uint32_t big = htonl(nonce[i]);
    std::memcpy(message.data() + 32 + 4 * i, &big, 4);
  }
  return message;
}

}  // namespace

TEST(EaglesongRandom, Hash48AndMidstateAgreeWithTheGeneralSponge) {
  std::mt19937 rng{20240611};
  for (int round = 0; round < 300; ++round) {
    uint32_t input[8];
    uint32_t nonce[4] = {};
    for (uint32_t &word : input) word = rng();
    // All-zero nonce words in the first round: the delimiter still applies.
    for (uint32_t &word : nonce) word = round == 0 ? 0 : rng();
    uint32_t digest[8];
    EaglesongHash48(input, nonce, digest);
    ASSERT_EQ(BytesOf(digest), Sponge(Message48(input, nonce))) << "case " << round;

    // Midstate, nonce XOR and one more permutation give the hash.
    uint32_t mid[16];
    EaglesongMidstate(input, mid);
    uint32_t state[16];
    std::memcpy(state, mid, sizeof(state));
    for (int i = 0; i < 4; ++i) state[i] ^= nonce[i];
    EaglesongPermutation(state);
    EXPECT_EQ(0, std::memcmp(state, digest, sizeof(digest))) << "case " << round;
  }
}
