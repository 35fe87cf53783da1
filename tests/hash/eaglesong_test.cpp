#include "hash/eaglesong.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
using Digest = std::array<uint8_t, 32>;

// A general-length sponge written independently of the library: the bit matrix
// walks the published rows bit by bit, and any message length is absorbed.
// Only the constant table is shared, and the published vectors vouch for it.
constexpr uint16_t kMatrixRows[16] = {0xf5f1, 0x7af9, 0x3d7d, 0x1ebf, 0xfaae, 0x88a7, 0xb1a2, 0xad21,
                                      0x5691, 0x2b49, 0x15a5, 0x0ad3, 0xf098, 0x784c, 0x3c26, 0xebe3};
constexpr int kRotations[16][2] = {{2, 4},   {13, 22}, {4, 19}, {3, 14},  {27, 31}, {3, 8},  {17, 26}, {3, 12},
                                   {18, 22}, {12, 18}, {4, 7},  {4, 31},  {12, 27}, {7, 17}, {7, 8},   {1, 13}};

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
  Digest out;
  for (size_t i = 0; i < 32; ++i) out[i] = static_cast<uint8_t>(s[i / 4] >> (8 * (i % 4)));
  return out;
}

Bytes FromHex(const std::string &hex) {
  Bytes out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  return out;
}

std::string ToHex(const uint8_t *bytes, size_t length) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < length; ++i) {
    out += digits[bytes[i] >> 4];
    out += digits[bytes[i] & 15];
  }
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

std::string DigestHex(const uint32_t digest[8]) {
  uint8_t bytes[32];
  for (int i = 0; i < 32; ++i) bytes[i] = static_cast<uint8_t>(digest[i / 4] >> (8 * (i % 4)));
  return ToHex(bytes, 32);
}

struct Vector {
  const char *input;
  const char *output;
};

// Published vectors for messages of any length (the empty one is quoted
// with the permutation as well).
const Vector kPublishedVectors[] = {
    {"", "9e4452fc7aed93d7240b7b55263792befd1be09252b456401122ba71a56f62a0"},
    {"61",
     "34d81e6aa4551c99edba23e65b69af25b478f5e8233461a7a8c0eb3f40407c97"},
    {"616263",
     "1e93baa3ff9f8afa381430b7811d428c5b4514f39f6a78d00511b20305067b68"},
    {"6d65737361676520646967657374",
     "f1d33eb7907454979d67d06dd6995806e397941a8280a25cbabecb43496217e3"},
    {"6162636465666768696a6b6c6d6e6f707172737475767778797a",
     "e759b93888208f7df31f749590a7c59420deb04810bae49744cc43f4e3b8094f"},
    {"4142434445464748494a4b4c4d4e4f505152535455565758595a6162636465666768696a6b6c6d6e6f707172737475767778797a303132"
     "33343536373839",
     "2893d0188b08fdc50bad2e9854ff74210eb9805f20f15d7ee1f5410163bcd295"},
    {"31323334353637383930313233343536373839303132333435363738393031323334353637383930313233343536373839303132333435"
     "36373839303132333435363738393031323334353637383930",
     "5f68529f2cbea3c01ef570f0fe03e19c4fa0a1a366ab21fa75e686def0fb726a"},
    {"000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F202122232425262728292A2B2C2D2E2F30313233343536"
     "3738393A3B3C3D3E3F404142434445464748494A4B4C4D4E4F505152535455565758595A5B5C5D5E5F606162636465666768696A6B6C6D"
     "6E6F707172737475767778797A7B7C7D7E7F",
     "4bd70497c1045cbf2fbd946e55912ef76dc58c678812910518369911d79a5a46"},
    {"000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F202122232425262728292A2B2C2D2E2F30313233343536"
     "3738393A3B3C3D3E3F404142434445464748494A4B4C4D4E4F505152535455565758595A5B5C5D5E5F606162636465666768696A6B6C6D"
     "6E6F707172737475767778797A7B7C7D7E7F8081",
     "4f91345f65bd47fde7f83b534ae4f5d0af3d8129e479583ac3b2ff02f2e83c76"},
};

class EaglesongRandom : public ::testing::Test {
 protected:
  std::mt19937 rng{20240611};
  void Fill(uint32_t *words, size_t count) {
    for (size_t i = 0; i < count; ++i) words[i] = rng();
  }
};

}  // namespace

TEST(EaglesongReference, PublishedVectorsOfAnyLength) {
  for (const Vector &vector : kPublishedVectors) {
    const Digest digest = ReferenceSponge(FromHex(vector.input));
    EXPECT_EQ(ToHex(digest.data(), digest.size()), vector.output) << "input " << vector.input;
  }
}

TEST_F(EaglesongRandom, Hash48MatchesGeneralSponge) {
  for (int round = 0; round < 300; ++round) {
    uint32_t input[8];
    uint32_t nonce[4];
    Fill(input, 8);
    Fill(nonce, 4);
    if (round == 0) std::memset(nonce, 0, sizeof(nonce));  // the delimiter still applies
    uint32_t digest[8];
    EaglesongHash48(input, nonce, digest);
    const Digest expected = ReferenceSponge(Message48(input, nonce));
    ASSERT_EQ(DigestHex(digest), ToHex(expected.data(), expected.size())) << "case " << round;
  }
}

TEST_F(EaglesongRandom, MidstateRelations) {
  for (int round = 0; round < 50; ++round) {
    uint32_t input[8];
    uint32_t nonce[4];
    Fill(input, 8);
    Fill(nonce, 4);
    uint32_t mid[16];
    EaglesongMidstate(input, mid);

    // Midstate, nonce XOR and one more permutation give the hash.
    uint32_t state[16];
    std::memcpy(state, mid, sizeof(state));
    for (int i = 0; i < 4; ++i) state[i] ^= nonce[i];
    EaglesongPermutation(state);
    uint32_t digest[8];
    EaglesongHash48(input, nonce, digest);
    EXPECT_EQ(0, std::memcmp(state, digest, sizeof(digest))) << "case " << round;

    // The midstate is the absorbed header (big-endian words) after one
    // permutation, differing only by the delimiter in word 4.
    uint32_t plain[16] = {};
    for (int i = 0; i < 8; ++i) plain[i] = ntohl(input[i]);
    ReferencePermutation(plain);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(mid[i] ^ plain[i], i == 4 ? 6u : 0u) << "word " << i;
  }
}
