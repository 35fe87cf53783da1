// Offering boards that can't mine as they are for reprogramming.
#pragma once

#include <cstdint>

#include "miner/run_records.h"

// Shared by all boards of one scan, so that the operator is asked once.
struct FlashOfferFlags {
  bool asked = false;
  bool consent = false;
  bool flashed = false;
};

// One flashing candidate from the scan. The device stays the caller's.
void OfferFlash(FlashOfferFlags &flags, MiningContext &context, BRYLDMADevice *device, BoardModel model,
                uint64_t index);

// The end of the scan's flash offers: tells the operator to power-cycle
// freshly flashed boards.
void FinishFlashOffers(const FlashOfferFlags &flags);
