#include "miner/flash_offer.h"

#include "foundation/logger.h"

// Placeholder until flashing lands. The flash catalogue is empty until then,
// and with no image for any model an offer ends where the real one does in
// that case, so nothing is ever flashed and there is nothing to finish.
void OfferFlash(FlashOfferFlags &, MiningContext &, BRYLDMADevice *, BoardModel, uint64_t index) {
  VL_LOG(VLLogLevelError, "Miner", "No flash data found for device %llu", static_cast<unsigned long long>(index + 1));
}

void FinishFlashOffers(const FlashOfferFlags &) {}
