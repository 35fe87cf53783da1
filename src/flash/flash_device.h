// Writes one image into a board's configuration flash through the board
// itself: the SPI controller of the bitstream that the FPGA runs now, over
// the device's user file. The new image takes effect after a power cycle.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "board/dma_device.h"
#include "flash/spi_flash.h"

// Flash types: where the image goes and in which order it is written.
enum : uint32_t {
  FlashTypeUpdateRegion = 0,  // at 0x680000, the first page written last
  FlashTypeWhole = 1,         // at 0, in one pass
};

constexpr uint32_t kFlashControllerOffset = 0x10000;
constexpr uint32_t kFlashUpdateRegionAddress = 0x680000;

enum class FlashOutcome {
  NotStarted,  // nothing on the chip was changed
  Written,     // written, read back and found equal
  Incomplete,  // erased or partly written: the board needs a new flash
};

struct FlashResult {
  FlashOutcome outcome = FlashOutcome::NotStarted;
  std::string reason;  // why it did not end Written
};

// Writes the image and reads it back, up to `attempts` times. Refuses before
// erasing an image that doesn't fit the chip. `mayErase` is asked right
// before every erase; false ends the flow there. A failure of the flash
// library (an error the chip flags, a time limit, a transfer) is caught and
// reported in the result.
FlashResult FlashDevice(BRYLDMADevice *device, uint32_t flashType, const uint8_t *data, uint64_t size,
                        uint64_t attempts, uint8_t flashFamily, const std::function<bool()> &mayErase);

// Rewrites the current console line with the message and the percentage.
void PrintFlashProgress(const SPIFlashProgress &progress);
