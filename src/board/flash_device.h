// Writes one image into a board's configuration flash through the board
// itself: the SPI controller of the bitstream that the FPGA runs now, over
// the device's user file. The new image takes effect after a power cycle.
#pragma once

#include <cstdint>

#include "board/dma_device.h"
#include "board/spi_flash.h"

// Flash types: where the image goes and in which order it is written.
enum : uint32_t {
  FlashTypeUpdateRegion = 0,  // at 0x680000, the first page written last
  FlashTypeWhole = 1,         // at 0, in one pass
};

constexpr uint32_t kFlashControllerOffset = 0x10000;
constexpr uint32_t kFlashUpdateRegionAddress = 0x680000;

// True when the image was written. Throws what the flash library throws,
// with the controller stopped; the flash is then partly written.
bool FlashDevice(BRYLDMADevice *device, uint32_t flashType, const uint8_t *data, uint64_t size, uint64_t attempts,
                 uint8_t flashFamily);

// Rewrites the current console line with the message and the percentage.
void PrintFlashProgress(const SPIFlashProgress &progress);
