#pragma once

#include "miner/run_records.h"

// Loads the flash images under ./bitstreams/ into the context.
void LoadFlashCatalogue(MiningContext &context);
