// The flash images on disk. Main thread only, at start.
#pragma once

#include <cstdint>

#include <map>
#include <vector>

#include "board/registers.h"
#include "flash/flash_image.h"

// The images by model: the loose ones, kept but not read again, and each
// model's "static.bin", mapped for the whole run.
struct FlashCatalogue {
  std::map<BoardModel, std::vector<FlashImage>> flashImages;
  std::map<BoardModel, FlashImage> staticImages;
};

// Maps "./bitstreams/CKB-<directory name>/static.bin" of every model into
// `staticImages`, and every file named only in the characters 0 to 9 and A
// to G into `flashImages`. Without a ./bitstreams folder at all it says so in
// one line and returns false: the run ends. A missing model directory throws
// std::filesystem::filesystem_error, which ends the run too: the checkout
// ships every directory.
bool LoadFlashCatalogue(FlashCatalogue &catalogue);
