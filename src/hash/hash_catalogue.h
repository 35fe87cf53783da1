// Names of the further hash functions that stand beside Eaglesong. The order
// is the one settled fact about this table; no running code reads it.
#pragma once

#include <cstddef>

inline constexpr size_t kHashCatalogueCount = 17;

extern const char *const HashCatalogueNames[kHashCatalogueCount];
