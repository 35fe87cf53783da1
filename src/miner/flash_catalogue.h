// The flash images on disk, and the consent and safety steps that a board
// passes before its flash is rewritten. Main thread only, during the scan.
#pragma once

#include <cstdint>

#include "miner/run_records.h"

// Maps "./bitstreams/CKB-<directory name>/static.bin" of every model into
// `staticImages`, and every file named only in the characters 0 to 9 and A
// to G into `flashImages`. A missing model directory throws
// std::filesystem::filesystem_error, which ends the run: the checkout ships
// every directory.
void LoadFlashCatalogue(MiningContext &context);

// One flashing candidate of the scan: a board that isn't compatible, or any
// board in a recovery run. `asked`, `consent` and `flashed` are the scan's
// flags, shared by all boards of the run, so the operator is asked once.
// `index` is the board's position in the device list; messages show it
// counted from 1.
void OfferFlash(bool &asked, bool &consent, bool &flashed, MiningContext &context, BRYLDMADevice *device,
                BoardModel model, uint64_t index);

// The end of the scan: after any board was flashed, the power-cycle warning
// and a wait for Enter of at most 30 seconds.
void FinishFlashing(bool flashed);
