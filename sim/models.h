// The board models the simulator knows, written from the boards' own
// documentation: identity text, family, hash cores and the MMCM's reference
// clock and feedback multiplier at power-on.
#pragma once

#include <cstdint>
#include <string>

namespace sim {

struct ModelInfo {
  uint32_t model;        // 1 to 11
  const char *identity;  // the first identity text of the model
  bool wide;             // XADC, 2-word DNA, exact model in 0x2000 bits 4 to 2
  uint32_t cores;
  uint64_t referenceHz;
  uint32_t multiplier;  // MMCM feedback multiplier at power-on
  // The highest clock that still gives correct nonces on a cool board (60 C
  // and below) at its nominal VCCINT, in MHz.
  uint32_t coolLimitMHz;
};

// Null for a number that is no model.
const ModelInfo *FindModel(uint32_t model);
// The model of an identity text, 0 when unknown. The wide family's identities
// name only the family; the board's exact model comes from its board word.
uint32_t ModelOfIdentity(const std::string &identity);
// Bits 4 to 2 of the board word for a wide-family model, 0 for others.
uint32_t WideModelBits(uint32_t model);

}  // namespace sim
