#include "hash/hash_catalogue.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

// The order is all that is settled about this table, so it is pinned here.
TEST(HashCatalogue, SeventeenDistinctNamesInTheirFixedOrder) {
  const char *const expected[] = {"blake", "bmw512", "groestl",   "jh512",  "keccak", "skein",
                                  "luffa", "cube",   "shavite",   "simd",   "echo",   "hamsi",
                                  "fugue", "shabal", "whirlpool", "sha512", "tiger"};
  static_assert(std::size(expected) == kHashCatalogueCount);
  std::set<std::string> seen;
  for (size_t i = 0; i < kHashCatalogueCount; ++i) {
    EXPECT_STREQ(HashCatalogueNames[i], expected[i]) << "index " << i;
    seen.insert(HashCatalogueNames[i]);
  }
  EXPECT_EQ(seen.size(), kHashCatalogueCount);
}
