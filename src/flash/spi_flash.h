// The configuration flash chip's command language over the SPI controller:
// 64 KiB sector erase, 256-byte page program, status polling. It knows
// nothing of boards or bitstreams; the flash flow says where and what.
// Failures throw std::runtime_error; flash error bits only show as a warning
// on the progress line.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <mutex>
#include <string>
#include <vector>

#include "flash/xspi.h"

struct SPIFlashProgress {
  std::string message;
  double fraction = std::numeric_limits<double>::quiet_NaN();  // 1.0 complete; NaN: no progress
};

class SPIFlash {
 public:
  using ProgressCallback = std::function<void(const SPIFlashProgress &)>;

  static constexpr uint32_t kPageSize = 256;
  static constexpr uint32_t kSectorSize = 65536;
  static constexpr uint32_t kEraseAlignment = 0x40000;
  static constexpr double kTimeoutSeconds = 10.0;
  // One command byte, four address bytes, a page, two spare.
  static constexpr size_t kBufferSize = 263;

  // Chip commands. The two families differ in how status is cleared and in
  // the configuration write that one of them needs.
  enum : uint8_t {
    kReadStatus = 0x05,
    kWriteEnable = 0x06,
    kPageProgram4 = 0x12,
    kRead4 = 0x13,
    kReadIdentification = 0x9F,
    kClearStatusFamily1 = 0x30,
    kClearStatus = 0x50,
    kWriteConfiguration = 0x81,
    kSectorErase4 = 0xDC,
  };
  static constexpr uint8_t kStatusBusy = 0x01;
  static constexpr uint8_t kStatusErrors = 0x60;

  SPIFlash();
  ~SPIFlash();
  SPIFlash(const SPIFlash &) = delete;
  SPIFlash &operator=(const SPIFlash &) = delete;

  void AddProgressCallback(ProgressCallback callback);
  void Init(const XSpi_Config &config, uint8_t flashFamily);
  // `start` must lie on a 256 KiB boundary; whole sectors are erased up to
  // and past start + size.
  void Erase(uint32_t start, uint64_t size);
  // Pages are cut from `start` on; a page of nothing but 0xFF is skipped, as
  // erased flash reads so already. An erase or program that the chip flags
  // as failed throws, as every other failure does.
  void Write(uint32_t start, const uint8_t *data, uint64_t size);
  // Reads the chip back into `out`.
  void Read(uint32_t start, uint8_t *out, uint64_t size);
  // The chip's size in bytes from its identification, 0 when the code is
  // not one the library knows.
  uint64_t Capacity();

 private:
  void BeginCommand(uint8_t command);
  void AppendBytes(const uint8_t *bytes, size_t count);
  void AppendAddress(uint32_t address);
  const uint8_t *Execute(size_t readCount, double timeoutSeconds);
  void WriteEnable();
  void EraseSector(uint32_t address);
  void WriteConfiguration(uint8_t value);
  void ClearStatus();
  uint8_t ReadStatus();
  void WaitReady(double timeoutSeconds);
  // Waits for the chip and throws `what` when it flags an erase or program error.
  void CheckNoError(const std::string &what);
  void ReportProgress(const std::string &message, double fraction);

  std::mutex mutex;
  std::vector<ProgressCallback> progressCallbacks;
  XSpi_Config config{};
  XSpi spi{};
  uint8_t sendBuffer[kBufferSize] = {};
  uint8_t receiveBuffer[kBufferSize] = {};
  uint64_t commandLength = 0;
  uint8_t flashFamily = 0;
};
