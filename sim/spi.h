// The configuration flash path of a simulated FPGA: an AXI Quad SPI
// controller in standard mode at 0x10000 (FIFOs of 256 bytes, manual or
// automatic slave select, master transaction inhibit, toggle-on-write
// interrupt status, soft reset) and the flash chip behind its slave select 0.
//
// The chip accepts the commands of both flash families: read status (0x05),
// write enable and disable (0x06, 0x04), 4-byte page program (0x12: bits are
// only cleared, the address wraps inside its page), 4-byte sector erase
// (0xDC), 4-byte read (0x13), clear status (0x30 and 0x50), write
// configuration (0x81) and identification read (0x9F). A command takes
// effect when the slave select rises. Erase and program leave the chip busy
// for a number of status reads, during which other commands are ignored.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "sim/config.h"
#include "sim/fpga.h"

namespace sim {

class FlashChip {
 public:
  static constexpr uint32_t kPageBytes = 256;
  static constexpr uint32_t kSectorBytes = 65536;
  static constexpr uint8_t kStatusBusy = 0x01;
  static constexpr uint8_t kStatusWriteEnabled = 0x02;
  static constexpr uint8_t kStatusEraseError = 0x20;
  static constexpr uint8_t kStatusProgramError = 0x40;

  // Loads the contents file when there is one; what it lacks reads erased.
  explicit FlashChip(const FlashChipSetup &setup);
  ~FlashChip();
  FlashChip(const FlashChip &) = delete;
  FlashChip &operator=(const FlashChip &) = delete;

  // The slave select line: true while the chip is selected. `setup` brings
  // the busy times and the faults in force.
  void Select(bool selected, const FpgaSetup &setup);
  // One byte each way while selected.
  uint8_t Exchange(uint8_t out, const FpgaSetup &setup);

  uint64_t Size() const { return size_; }
  std::vector<uint8_t> Read(uint64_t address, uint64_t count);
  uint8_t Status() const { return status_; }
  uint8_t Configuration() const { return configuration_; }
  // Commands that arrived while busy, or that the chip doesn't know.
  uint64_t Ignored() const { return ignored_; }

 private:
  uint8_t CapacityCode() const;
  void Execute(const FpgaSetup &setup);
  uint8_t *Contents();
  void Persist(uint64_t address, uint64_t count);

  std::string file_;
  uint64_t size_;
  std::vector<uint8_t> contents_;  // allocated at first use
  int fd_ = -1;
  bool selected_ = false;
  uint32_t index_ = 0;  // bytes of the current command so far
  uint8_t command_ = 0;
  uint32_t address_ = 0;
  std::array<uint8_t, kPageBytes> page_{};
  uint32_t dataBytes_ = 0;
  uint8_t configurationByte_ = 0;
  uint8_t status_ = 0;
  uint32_t busyPolls_ = 0;
  uint8_t configuration_ = 0;
  uint64_t ignored_ = 0;
};

// One slave-select frame as it went over the wire.
struct SpiFrame {
  std::vector<uint8_t> out;
  std::vector<uint8_t> in;
  uint32_t rounds = 0;  // times shifting started while the frame was open
};

class SpiBlock : public RegisterBlock {
 public:
  static constexpr uint32_t kBase = 0x10000;
  static constexpr uint32_t kSize = 0x1000;
  static constexpr uint32_t kFifoDepth = 256;

  explicit SpiBlock(Fpga &fpga);
  uint32_t Read(uint32_t offset) override;
  void Write(uint32_t offset, uint32_t value) override;

  // Keeps every frame from now on, for tests that look at the wire.
  void SetRecording(bool on);
  std::vector<SpiFrame> TakeFrames();
  // Register reads and writes of this block since power-on.
  uint64_t Accesses() const { return accesses_; }
  bool Selected() const { return selected_; }

 private:
  void Reset();
  void UpdateSelect(bool shifting);
  void Shift();

  Fpga &fpga_;
  uint32_t control_;
  uint32_t slaveSelect_;
  uint32_t interruptStatus_ = 0;
  uint32_t interruptEnable_ = 0;
  uint32_t globalInterrupt_ = 0;
  std::deque<uint8_t> transmit_;
  std::deque<uint8_t> receive_;
  bool selected_ = false;
  bool recording_ = false;
  std::unique_ptr<SpiFrame> frame_;
  std::vector<SpiFrame> frames_;
  uint64_t accesses_ = 0;
};

// Maps the controller into an FPGA's window.
void MapSpiBlock(Fpga &fpga);

// Where the flash holds the image that the FPGA loads at power-on: the update
// region on the wide family, the start elsewhere.
uint64_t BootAddress(const FpgaSetup &setup);
// At power-on: a flash that holds the configured CKB image at the boot
// address makes the FPGA come up running that bitstream.
void BootFromFlash(FpgaSetup &setup, FlashChip &flash);

}  // namespace sim
