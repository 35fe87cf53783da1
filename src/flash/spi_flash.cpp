#include "flash/spi_flash.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>

#include "flash/xil_io.h"

namespace {

void Fail(const std::string &message) { throw std::runtime_error(message); }

}  // namespace

SPIFlash::SPIFlash() = default;

SPIFlash::~SPIFlash() {
  // A flash that never got as far as initialising has no controller to stop.
  if (spi.IsReady == XIL_COMPONENT_IS_READY) {
    XSpi_Stop(&spi);
    XSpi_Reset(&spi);
  }
  progressCallbacks.clear();
}

void SPIFlash::AddProgressCallback(ProgressCallback callback) { progressCallbacks.push_back(std::move(callback)); }

void SPIFlash::BeginCommand(uint8_t command) {
  sendBuffer[0] = command;
  commandLength = 1;
}

void SPIFlash::AppendBytes(const uint8_t *bytes, size_t count) {
  if (count + commandLength >= kBufferSize + 1) Fail("Attempt to write too many bytes");
  std::copy(bytes, bytes + count, sendBuffer + commandLength);
  commandLength += count;
}

void SPIFlash::AppendAddress(uint32_t address) {
  const uint8_t bytes[4] = {static_cast<uint8_t>(address >> 24), static_cast<uint8_t>(address >> 16),
                            static_cast<uint8_t>(address >> 8), static_cast<uint8_t>(address)};
  AppendBytes(bytes, sizeof bytes);
}

const uint8_t *SPIFlash::Execute(size_t readCount, double timeoutSeconds) {
  if (commandLength == 0) Fail("No command specified");
  if (readCount + commandLength - 1 > kBufferSize - 1) Fail("Attempt to read/write too many bytes");
  // Every command first waits out the one before it.
  WaitReady(timeoutSeconds);
  int status = XSpi_Transfer(&spi, sendBuffer, readCount ? receiveBuffer : nullptr,
                             static_cast<unsigned>(commandLength + readCount));
  if (status != XST_SUCCESS) {
    Fail("SPI transaction failed code " + std::to_string(status) + " cmd " + std::to_string(sendBuffer[0]));
  }
  const uint8_t *result = readCount ? receiveBuffer + commandLength : nullptr;
  commandLength = 0;
  return result;
}

uint8_t SPIFlash::ReadStatus() {
  uint8_t out[2] = {kReadStatus, 0};
  uint8_t in[2] = {};
  int status = XSpi_Transfer(&spi, out, in, sizeof out);
  if (status != XST_SUCCESS) { Fail("SPI transaction failed getting status register code " + std::to_string(status)); }
  return in[1];
}

void SPIFlash::WaitReady(double timeoutSeconds) {
  // No sleep: the chip's program time is shorter than a few transfers.
  auto start = std::chrono::steady_clock::now();
  for (;;) {
    if (!(ReadStatus() & kStatusBusy)) return;
    std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    if (elapsed.count() > timeoutSeconds) Fail("Timeout waiting for flash ready");
  }
}

void SPIFlash::CheckNoError(const std::string &what) {
  WaitReady(kTimeoutSeconds);
  if (ReadStatus() & kStatusErrors) Fail("Flash indicated an error while " + what);
}

void SPIFlash::WriteEnable() {
  BeginCommand(kWriteEnable);
  Execute(0, kTimeoutSeconds);
}

void SPIFlash::EraseSector(uint32_t address) {
  BeginCommand(kSectorErase4);
  AppendAddress(address);
  Execute(0, kTimeoutSeconds);
}

void SPIFlash::WriteConfiguration(uint8_t value) {
  WriteEnable();
  BeginCommand(kWriteConfiguration);
  AppendBytes(&value, 1);
  Execute(0, kTimeoutSeconds);
}

void SPIFlash::ClearStatus() {
  BeginCommand(flashFamily == 1 ? kClearStatusFamily1 : kClearStatus);
  Execute(0, kTimeoutSeconds);
}

void SPIFlash::ReportProgress(const std::string &message, double fraction) {
  SPIFlashProgress progress;
  progress.message = message;
  progress.fraction = fraction;
  for (const ProgressCallback &callback : progressCallbacks) callback(progress);
}

void SPIFlash::Init(const XSpi_Config &configuration, uint8_t family) {
  std::lock_guard<std::mutex> guard(mutex);
  config = configuration;
  flashFamily = family;
  if (XSpi_CfgInitialize(&spi, &config, config.BaseAddress) != XST_SUCCESS) {
    Fail("Failed initializing flash library");
  }
  if (XSpi_SetOptions(&spi, XSP_MASTER_OPTION | XSP_MANUAL_SSELECT_OPTION) != XST_SUCCESS) {
    Fail("Failed configuring flash library");
  }
  if (XSpi_SetSlaveSelect(&spi, 1) != XST_SUCCESS) Fail("Failed configuring flash library");
  XSpi_Start(&spi);
  // Polled only: the controller must raise no interrupt.
  Xil_Out32(static_cast<uint32_t>(config.BaseAddress + XSP_DGIER_OFFSET), 0);
  if (flashFamily != 1) WriteConfiguration(0xEB);
}

void SPIFlash::Erase(uint32_t start, uint64_t size) {
  if (start & (kEraseAlignment - 1)) {
    Fail("Flash address must be on an even page of " + std::to_string(kEraseAlignment) + " bytes");
  }
  std::lock_guard<std::mutex> guard(mutex);
  ClearStatus();
  uint64_t offset = 0;
  uint64_t sectors = 0;
  while (offset < size) {
    WriteEnable();
    EraseSector(static_cast<uint32_t>(start + offset));
    CheckNoError("erasing the sector at " + std::to_string(start + offset));
    offset += kSectorSize;
    // Past 1.0 on a last sector that the size only partly covers.
    ReportProgress("Erased Sector", static_cast<double>(offset) / static_cast<double>(size));
    sectors++;
  }
  ReportProgress("Erased " + std::to_string(sectors) + " sectors", 1.0);
}

void SPIFlash::Write(uint32_t start, const uint8_t *data, uint64_t size) {
  std::lock_guard<std::mutex> guard(mutex);
  ClearStatus();
  uint32_t address = start;
  uint64_t offset = 0;
  while (offset < size) {
    uint64_t count = std::min<uint64_t>(kPageSize, size - offset);
    const uint8_t *page = data + offset;
    bool blank = std::all_of(page, page + count, [](uint8_t byte) { return byte == 0xFF; });
    if (!blank) {
      WriteEnable();
      BeginCommand(kPageProgram4);
      AppendAddress(address);
      AppendBytes(page, count);
      Execute(0, kTimeoutSeconds);
      CheckNoError("writing the page at " + std::to_string(address));
    }
    address += static_cast<uint32_t>(count);
    offset += count;
    ReportProgress("Wrote " + std::to_string(offset) + " bytes",
                   static_cast<double>(offset) / static_cast<double>(size));
  }
}

void SPIFlash::Read(uint32_t start, uint8_t *out, uint64_t size) {
  std::lock_guard<std::mutex> guard(mutex);
  uint64_t offset = 0;
  while (offset < size) {
    uint64_t count = std::min<uint64_t>(kPageSize, size - offset);
    BeginCommand(kRead4);
    AppendAddress(static_cast<uint32_t>(start + offset));
    const uint8_t *bytes = Execute(count, kTimeoutSeconds);
    std::copy(bytes, bytes + count, out + offset);
    offset += count;
    if (offset % kSectorSize == 0 || offset == size) {
      ReportProgress("Read back " + std::to_string(offset) + " bytes",
                     static_cast<double>(offset) / static_cast<double>(size));
    }
  }
}

uint64_t SPIFlash::Capacity() {
  std::lock_guard<std::mutex> guard(mutex);
  BeginCommand(kReadIdentification);
  const uint8_t *id = Execute(3, kTimeoutSeconds);
  // The third byte codes the size: 2^code bytes up to 0x19 (32 MiB); the
  // larger chips go on in decimal-looking steps (0x20 is 64 MiB).
  uint8_t code = id[2];
  if (code >= 0x10 && code <= 0x19) return uint64_t{1} << code;
  if (code >= 0x20 && code <= 0x22) return uint64_t{1} << (code - 0x20 + 26);
  return 0;
}
