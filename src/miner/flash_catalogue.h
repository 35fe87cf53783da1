// The flash images on disk. Main thread only, at start.
#pragma once

#include <cstdint>

#include "miner/run_records.h"

// Maps "./bitstreams/CKB-<directory name>/static.bin" of every model into
// `staticImages`, and every file named only in the characters 0 to 9 and A
// to G into `flashImages`. Without a ./bitstreams folder at all it says so in
// one line and returns false: the run ends. A missing model directory throws
// std::filesystem::filesystem_error, which ends the run too: the checkout
// ships every directory.
bool LoadFlashCatalogue(MiningContext &context);
