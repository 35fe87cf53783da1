#include "hash/eaglesong.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstring>
#include <random>
#include <vector>

#include "support/eaglesong_vectors.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Digest = std::array<uint8_t, 32>;

// A general-length sponge written independently of the library: the bit matrix
// walks the published rows bit by bit, and any message length is absorbed.
// Only the constant table is shared, and the published vectors vouch for it.
constexpr uint16_t kMatrixRows[16] = {0xf5f1, 0x7af9, 0x3d7d, 0x1ebf, 0xfaae, 0x88a7, 0xb1a2, 0xad21,
                                      0x5691, 0x2b49, 0x15a5, 0x0ad3, 0xf098, 0x784c, 0x3c26, 0xebe3};
constexpr int kRotations[16][2] = {{2, 4},   {13, 22}, {4, 19}, {3, 14}, {27, 31}, {3, 8},  {17, 26}, {3, 12},
                                   {18, 22}, {12, 18}, {4, 7},  {4, 31}, {12, 27}, {7, 17}, {7, 8},   {1, 13}};

void ReferencePermutation(uint32_t s[16]) {
  for (int r = 0; r < 43; ++r) {
    uint32_t t[16] = {};
    for (int i = 0; i < 16; ++i) {
      for (int j = 0; j < 16; ++j) {
        if ((kMatrixRows[i] >> (15 - j)) & 1) t[j] ^= s[i];
      }
    }
    for (int i = 0; i < 16; ++i) {
      s[i] = t[i] ^ std::rotl(t[i], kRotations[i][0]) ^ std::rotl(t[i], kRotations[i][1]);
      s[i] ^= EaglesongInjectionConstants[16 * r + i];
    }
    for (int j = 0; j < 16; j += 2) {
      s[j] = std::rotl(s[j] + s[j + 1], 8);
      s[j + 1] = std::rotl(s[j + 1], 24) + s[j];
    }
  }
}

// Digest words as bytes, least significant first.
Digest BytesOf(const uint32_t words[8]) {
  Digest out;
  for (size_t i = 0; i < 32; ++i) out[i] = static_cast<uint8_t>(words[i / 4] >> (8 * (i % 4)));
  return out;
}

// Rate 32 bytes, big-endian words, delimiter 0x06 right after the message. A
// word that the message ends in takes only the bytes present (and the
// delimiter), not shifted up to full width.
Digest ReferenceSponge(const Bytes &message) {
  uint32_t s[16] = {};
  const size_t blocks = message.size() / 32 + 1;
  for (size_t b = 0; b < blocks; ++b) {
    for (size_t j = 0; j < 8; ++j) {
      uint32_t word = 0;
      for (size_t k = 0; k < 4; ++k) {
        const size_t at = 32 * b + 4 * j + k;
        if (at < message.size()) {
          word = (word << 8) ^ message[at];
        } else if (at == message.size()) {
          word = (word << 8) ^ 0x06;
        }
      }
      s[j] ^= word;
    }
    ReferencePermutation(s);
  }
  return BytesOf(s);
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

TEST(EaglesongReference, PublishedVectorsOfAnyLength) {
  const auto vectors = testing_support::PublishedEaglesongVectors();
  ASSERT_GE(vectors.size(), 9u);  // 0, 1, 3, 14, 26, 62, 80, 128 and 130 bytes
  for (const auto &[input, output] : vectors) {
    const Digest digest = ReferenceSponge(testing_support::BytesOfHex(input));
    EXPECT_EQ(Bytes(digest.begin(), digest.end()), testing_support::BytesOfHex(output)) << "input " << input;
  }
}

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
    ASSERT_EQ(BytesOf(digest), ReferenceSponge(Message48(input, nonce))) << "case " << round;

    // Midstate, nonce XOR and one more permutation give the hash.
    uint32_t mid[16];
    EaglesongMidstate(input, mid);
    uint32_t state[16];
    std::memcpy(state, mid, sizeof(state));
    for (int i = 0; i < 4; ++i) state[i] ^= nonce[i];
    EaglesongPermutation(state);
    EXPECT_EQ(0, std::memcmp(state, digest, sizeof(digest))) << "case " << round;

    // The midstate is the absorbed header (big-endian words) after one
    // permutation, differing only by the delimiter in word 4.
    uint32_t plain[16] = {};
    for (int i = 0; i < 8; ++i) plain[i] = ntohl(input[i]);
    ReferencePermutation(plain);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(mid[i] ^ plain[i], i == 4 ? 6u : 0u) << "word " << i;
  }
}
