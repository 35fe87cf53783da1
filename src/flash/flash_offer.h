// Offering boards that can't mine as they are for reprogramming.
#pragma once

#include <cstdint>

#include "board/dma_device.h"
#include "board/registers.h"
#include "flash/flash_catalogue.h"

// Shared by all boards of one scan, so that the operator is asked once.
struct FlashOfferFlags {
  bool asked = false;
  bool consent = false;
  bool flashed = false;
};

// One flashing candidate of the scan: a board that isn't compatible, or any
// board in a recovery run. The operator is asked once per run; silence is no.
// A board whose core is hotter than 50 C is refused. `index` is the board's
// position in the device list; messages show it counted from 1. The device
// stays the caller's.
void OfferFlash(FlashOfferFlags &flags, const FlashCatalogue &catalogue, BRYLDMADevice *device, BoardModel model,
                uint64_t index);

// The end of the scan's flash offers: after any board was flashed, the
// power-cycle warning and a wait for Enter of at most 30 seconds.
void FinishFlashOffers(const FlashOfferFlags &flags);
