#include "sim/spi.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>

namespace sim {

namespace {

// Controller registers.
constexpr uint32_t kGlobalInterrupt = 0x1C;
constexpr uint32_t kInterruptStatus = 0x20;
constexpr uint32_t kInterruptEnable = 0x28;
constexpr uint32_t kSoftReset = 0x40;
constexpr uint32_t kControl = 0x60;
constexpr uint32_t kStatus = 0x64;
constexpr uint32_t kTransmit = 0x68;
constexpr uint32_t kReceive = 0x6C;
constexpr uint32_t kSlaveSelect = 0x70;

constexpr uint32_t kSoftResetKey = 0x0A;

// Control bits.
constexpr uint32_t kLoopback = 0x001;
constexpr uint32_t kEnable = 0x002;
constexpr uint32_t kMaster = 0x004;
constexpr uint32_t kTransmitReset = 0x020;
constexpr uint32_t kReceiveReset = 0x040;
constexpr uint32_t kManualSelect = 0x080;
constexpr uint32_t kInhibit = 0x100;
constexpr uint32_t kControlBits = 0x3FF;
constexpr uint32_t kControlAtReset = kManualSelect | kInhibit;

// Status bits.
constexpr uint32_t kReceiveEmpty = 0x01;
constexpr uint32_t kReceiveFull = 0x02;
constexpr uint32_t kTransmitEmpty = 0x04;
constexpr uint32_t kTransmitFull = 0x08;
constexpr uint32_t kSlaveModeSelect = 0x20;  // high while nobody selects this controller as a slave

// Interrupt status bits.
constexpr uint32_t kTransmitDrained = 0x04;
constexpr uint32_t kTransmitOverrun = 0x20;
constexpr uint32_t kReceiveOverrun = 0x10;

// Chip commands.
constexpr uint8_t kReadStatus = 0x05;
constexpr uint8_t kWriteEnable = 0x06;
constexpr uint8_t kWriteDisable = 0x04;
constexpr uint8_t kPageProgram4 = 0x12;
constexpr uint8_t kRead4 = 0x13;
constexpr uint8_t kClearStatusA = 0x30;
constexpr uint8_t kClearStatusB = 0x50;
constexpr uint8_t kWriteConfiguration = 0x81;
constexpr uint8_t kReadIdentification = 0x9F;
constexpr uint8_t kSectorErase4 = 0xDC;
// Maker and type; the third byte, the size, comes from the chip's own size.
constexpr uint8_t kIdentification[] = {0x5A, 0x20, 0x19};

// What a bus with nobody driving it reads.
constexpr uint8_t kIdleLine = 0xFF;

constexpr uint64_t kUpdateRegionAddress = 0x680000;
constexpr uint32_t kCkbBitstream = 0x000C0004;

}  // namespace

FlashChip::FlashChip(const FlashChipSetup &setup) : file_(setup.file), size_(setup.size) {
  if (file_.empty()) return;
  std::ifstream in(file_, std::ios::binary);
  if (!in) return;
  uint8_t *contents = Contents();
  in.read(reinterpret_cast<char *>(contents), static_cast<std::streamsize>(size_));
}

FlashChip::~FlashChip() {
  if (fd_ >= 0) close(fd_);
}

uint8_t *FlashChip::Contents() {
  if (contents_.empty()) contents_.assign(size_, 0xFF);
  return contents_.data();
}

std::vector<uint8_t> FlashChip::Read(uint64_t address, uint64_t count) {
  if (address >= size_) return {};
  count = std::min(count, size_ - address);
  const uint8_t *contents = Contents();
  return std::vector<uint8_t>(contents + address, contents + address + count);
}

void FlashChip::Persist(uint64_t address, uint64_t count) {
  if (file_.empty()) return;
  if (fd_ < 0) {
    fd_ = open(file_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0) {
      perror(file_.c_str());
      return;
    }
    // The file holds the whole chip from the first change on.
    address = 0;
    count = size_;
  }
  if (pwrite(fd_, Contents() + address, count, static_cast<off_t>(address)) != static_cast<ssize_t>(count)) {
    perror(file_.c_str());
  }
}

void FlashChip::Select(bool selected, const FpgaSetup &setup) {
  if (selected == selected_) return;
  selected_ = selected;
  if (selected) {
    index_ = 0;
    address_ = 0;
    dataBytes_ = 0;
    page_.fill(0xFF);
    return;
  }
  // The command takes effect as the select line rises.
  if (index_ > 0) Execute(setup);
}

// The size code of the identification: 2^code bytes up to 32 MiB (0x19),
// then 0x20 for 64 MiB on, as the chips write it.
uint8_t FlashChip::CapacityCode() const {
  uint8_t bits = 0;
  while ((uint64_t{1} << (bits + 1)) <= size_) bits++;
  return bits <= 0x19 ? bits : static_cast<uint8_t>(0x20 + (bits - 26));
}

uint8_t FlashChip::Exchange(uint8_t out, const FpgaSetup &setup) {
  if (!selected_) return kIdleLine;
  uint32_t position = index_++;
  if (position == 0) {
    command_ = out;
    return kIdleLine;
  }
  uint32_t after = position - 1;  // bytes after the command byte
  switch (command_) {
    case kReadStatus: {
      bool stuck = setup.faults.flashStuck;
      uint8_t value = status_ | (stuck ? kStatusBusy : 0);
      // Erase and program times are counted in status reads.
      if ((status_ & kStatusBusy) && busyPolls_ > 0 && --busyPolls_ == 0) {
        status_ &= static_cast<uint8_t>(~(kStatusBusy | kStatusWriteEnabled));
      }
      return value;
    }
    case kReadIdentification:
      if (after == 2) return CapacityCode();
      return after < sizeof kIdentification ? kIdentification[after] : 0;
    case kRead4:
      if (after < 4) {
        address_ = (address_ << 8) | out;
        return kIdleLine;
      }
      return Contents()[(address_ + (after - 4)) % size_];
    case kPageProgram4:
      if (after < 4) {
        address_ = (address_ << 8) | out;
      } else {
        // Inside the page only: past its end the address wraps to its start.
        page_[(address_ + dataBytes_) % kPageBytes] = out;
        dataBytes_++;
      }
      return kIdleLine;
    case kSectorErase4:
      if (after < 4) address_ = (address_ << 8) | out;
      return kIdleLine;
    case kWriteConfiguration:
      if (after == 0) configurationByte_ = out;
      return kIdleLine;
    default: return kIdleLine;
  }
}

void FlashChip::Execute(const FpgaSetup &setup) {
  bool busy = (status_ & kStatusBusy) || setup.faults.flashStuck;
  if (command_ == kReadStatus) return;
  if (busy) {
    ignored_++;
    return;
  }
  bool writeEnabled = status_ & kStatusWriteEnabled;
  // The write enable latch stays set while the chip is busy and clears when
  // the operation ends.
  auto startBusy = [this](uint32_t polls) {
    if (polls == 0) {
      status_ &= static_cast<uint8_t>(~kStatusWriteEnabled);
      return;
    }
    status_ |= kStatusBusy;
    busyPolls_ = polls;
  };
  switch (command_) {
    case kWriteEnable: status_ |= kStatusWriteEnabled; return;
    case kWriteDisable: status_ &= static_cast<uint8_t>(~kStatusWriteEnabled); return;
    case kClearStatusA:
    case kClearStatusB: status_ &= static_cast<uint8_t>(~(kStatusEraseError | kStatusProgramError)); return;
    case kReadIdentification:
    case kRead4: return;
    case kWriteConfiguration:
      if (!writeEnabled || index_ < 2) break;
      configuration_ = configurationByte_;
      status_ &= static_cast<uint8_t>(~kStatusWriteEnabled);
      return;
    case kPageProgram4: {
      if (!writeEnabled || index_ <= 5) break;
      uint64_t base = (address_ & ~uint64_t(kPageBytes - 1)) % size_;
      uint8_t *contents = Contents();
      // A failing program leaves the second half of the page as it was.
      // Worn cells fail silently: only a read back finds them.
      uint32_t programmed = setup.faults.programError ? kPageBytes / 2
                            : setup.faults.wornCells  ? kPageBytes - 1
                                                      : kPageBytes;
      for (uint32_t i = 0; i < programmed; i++) contents[base + i] &= page_[i];
      Persist(base, kPageBytes);
      startBusy(setup.flash.programBusyPolls);
      if (setup.faults.programError) status_ |= kStatusProgramError;
      return;
    }
    case kSectorErase4: {
      if (!writeEnabled || index_ < 5) break;
      uint64_t base = (address_ & ~uint64_t(kSectorBytes - 1)) % size_;
      // A failing erase leaves the sector's first 4 KiB as they were.
      uint32_t skipped = setup.faults.eraseError ? 4096 : 0;
      std::fill_n(Contents() + base + skipped, kSectorBytes - skipped, 0xFF);
      Persist(base, kSectorBytes);
      startBusy(setup.flash.eraseBusyPolls);
      if (setup.faults.eraseError) status_ |= kStatusEraseError;
      return;
    }
    default: break;
  }
  // Unknown, incomplete, or not write-enabled.
  ignored_++;
}

SpiBlock::SpiBlock(Fpga &fpga) : fpga_(fpga) { Reset(); }

void SpiBlock::Reset() {
  control_ = kControlAtReset;
  slaveSelect_ = ~0u;
  interruptStatus_ = 0;
  interruptEnable_ = 0;
  globalInterrupt_ = 0;
  transmit_.clear();
  receive_.clear();
  UpdateSelect(false);
}

void SpiBlock::SetRecording(bool on) {
  recording_ = on;
  if (!on) frames_.clear();
}

std::vector<SpiFrame> SpiBlock::TakeFrames() {
  std::vector<SpiFrame> frames;
  frames.swap(frames_);
  return frames;
}

void SpiBlock::UpdateSelect(bool shifting) {
  bool driving = (control_ & kEnable) && (control_ & kMaster);
  bool requested = !(slaveSelect_ & 1);
  // Manual select follows the register; otherwise the line is low only while
  // the controller shifts.
  bool selected = driving && requested && ((control_ & kManualSelect) || shifting);
  if (selected == selected_) return;
  selected_ = selected;
  FlashChip *flash = fpga_.Flash();
  if (selected) {
    if (recording_) frame_ = std::make_unique<SpiFrame>();
    flash->Select(true, fpga_.Setup());
  } else {
    flash->Select(false, fpga_.Setup());
    if (frame_) frames_.push_back(std::move(*frame_));
    frame_.reset();
  }
}

void SpiBlock::Shift() {
  bool running = (control_ & kEnable) && (control_ & kMaster) && !(control_ & kInhibit);
  if (!running || transmit_.empty()) return;
  UpdateSelect(true);
  if (frame_) frame_->rounds++;
  FlashChip *flash = fpga_.Flash();
  while (!transmit_.empty()) {
    uint8_t out = transmit_.front();
    transmit_.pop_front();
    uint8_t in = selected_ ? flash->Exchange(out, fpga_.Setup()) : kIdleLine;
    if (control_ & kLoopback) in = out;
    if (frame_) {
      frame_->out.push_back(out);
      frame_->in.push_back(in);
    }
    if (receive_.size() < kFifoDepth)
      receive_.push_back(in);
    else
      interruptStatus_ |= kReceiveOverrun;
  }
  interruptStatus_ |= kTransmitDrained;
  UpdateSelect(false);
}

uint32_t SpiBlock::Read(uint32_t offset) {
  accesses_++;
  switch (offset) {
    case kGlobalInterrupt: return globalInterrupt_;
    case kInterruptStatus: return interruptStatus_;
    case kInterruptEnable: return interruptEnable_;
    case kControl: return control_;
    case kStatus: {
      uint32_t status = kSlaveModeSelect;
      if (receive_.empty()) status |= kReceiveEmpty;
      if (receive_.size() >= kFifoDepth) status |= kReceiveFull;
      if (transmit_.empty()) status |= kTransmitEmpty;
      if (transmit_.size() >= kFifoDepth) status |= kTransmitFull;
      return status;
    }
    case kReceive: {
      if (receive_.empty()) return 0;
      uint8_t value = receive_.front();
      receive_.pop_front();
      return value;
    }
    case kSlaveSelect: return slaveSelect_;
    default: return 0;
  }
}

void SpiBlock::Write(uint32_t offset, uint32_t value) {
  accesses_++;
  switch (offset) {
    case kGlobalInterrupt: globalInterrupt_ = value & 0x80000000u; return;
    case kInterruptStatus: interruptStatus_ ^= value; return;  // toggle on write
    case kInterruptEnable: interruptEnable_ = value; return;
    case kSoftReset:
      if (value == kSoftResetKey) Reset();
      return;
    case kControl:
      // The FIFO resets act once and read back as 0.
      if (value & kTransmitReset) transmit_.clear();
      if (value & kReceiveReset) receive_.clear();
      control_ = value & kControlBits & ~(kTransmitReset | kReceiveReset);
      UpdateSelect(false);
      Shift();
      return;
    case kTransmit:
      if (transmit_.size() < kFifoDepth)
        transmit_.push_back(static_cast<uint8_t>(value));
      else
        interruptStatus_ |= kTransmitOverrun;
      Shift();
      return;
    case kSlaveSelect:
      slaveSelect_ = value;
      UpdateSelect(false);
      return;
    default: return;
  }
}

void MapSpiBlock(Fpga &fpga) { fpga.Map(SpiBlock::kBase, SpiBlock::kSize, std::make_unique<SpiBlock>(fpga)); }

uint64_t BootAddress(const FpgaSetup &setup) { return setup.wide ? kUpdateRegionAddress : 0; }

void BootFromFlash(FpgaSetup &setup, FlashChip &flash) {
  if (setup.flash.ckbImage.empty()) return;
  std::ifstream in(setup.flash.ckbImage, std::ios::binary);
  if (!in) return;
  std::vector<uint8_t> image((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  uint64_t address = BootAddress(setup);
  if (image.empty() || address + image.size() > flash.Size()) return;
  if (flash.Read(address, image.size()) == image) setup.bitstream = kCkbBitstream;
}

}  // namespace sim
