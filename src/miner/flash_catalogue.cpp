#include "miner/flash_catalogue.h"

// Placeholder until flashing lands: the catalogue stays empty.
void LoadFlashCatalogue(MiningContext &) {}
