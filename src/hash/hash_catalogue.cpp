#include "hash/hash_catalogue.h"

// All 512-bit digests except "tiger" (192 bits), as each published function
// gives them from its own initial values.
const char *const HashCatalogueNames[kHashCatalogueCount] = {
    "blake", "bmw512", "groestl", "jh512", "keccak", "skein",     "luffa",  "cube",  "shavite",
    "simd",  "echo",   "hamsi",   "fugue", "shabal", "whirlpool", "sha512", "tiger",
};
