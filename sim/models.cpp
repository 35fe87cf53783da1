#include "sim/models.h"

namespace sim {

namespace {

constexpr ModelInfo kModels[] = {
    // model identity wide cores reference multiplier cool limit
    {1, "1525", false, 12, 300000000, 16, 240}, {2, "101 ", true, 1, 125000000, 8, 330},
    {3, "215 ", true, 1, 125000000, 8, 320},    {4, "215+", true, 1, 125000000, 8, 340},
    {5, "OMPR", false, 3, 200000000, 5, 260},   {6, "RK33", false, 5, 200000000, 9, 250},
    {7, "RK35", false, 10, 200000000, 9, 240},  {8, "JC33", false, 5, 200000000, 9, 250},
    {9, "JC35", false, 10, 200000000, 9, 240},  {10, "CV13", false, 20, 125000000, 8, 220},
    {11, "RK37", false, 1, 200000000, 5, 260},
};

struct IdentityModel {
  const char *identity;
  uint32_t model;
};
constexpr IdentityModel kIdentities[] = {
    {"1525", 1},  {"101 ", 2}, {"215 ", 3}, {"215+", 4},  {"OMPR", 5},  {"RK33", 6},  {"RK35", 7},
    {"RK37", 11}, {"JC33", 8}, {"JC35", 9}, {"JC37", 11}, {"JC39", 11}, {"CV13", 10}, {"NV01", 11},
};

}  // namespace

const ModelInfo *FindModel(uint32_t model) {
  for (const ModelInfo &info : kModels) {
    if (info.model == model) return &info;
  }
  return nullptr;
}

uint32_t ModelOfIdentity(const std::string &identity) {
  for (const IdentityModel &entry : kIdentities) {
    if (identity == entry.identity) return entry.model;
  }
  return 0;
}

uint32_t WideModelBits(uint32_t model) {
  switch (model) {
    case 2: return 5;
    case 3: return 6;
    case 4: return 7;
    default: return 0;
  }
}

}  // namespace sim
