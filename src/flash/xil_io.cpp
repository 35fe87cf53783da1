#include "flash/xil_io.h"

#include "foundation/console.h"
#include "foundation/logger.h"

BRYLDMAFile *deviceFileToFlash = nullptr;

namespace {

constexpr const char *kTag = "XIL_IO";
Xil_AssertCallback g_assertCallback = nullptr;

// The driver's 32-bit addresses become file positions the way a signed
// register address widens.
uint64_t Position(uint32_t address) {
  return static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(address)));
}

}  // namespace

uint32_t Xil_In32(uint32_t address) {
  if (!deviceFileToFlash) {
    VL_LOG(VLLogLevelInfo, kTag, "deviceFileToFlash not set!");
    return 0;
  }
  uint32_t value = 0;
  if (BRYLDMAFileRead(deviceFileToFlash, Position(address), &value, sizeof value) != sizeof value) return 0;
  return value;
}

void Xil_Out32(uint32_t address, uint32_t value) {
  if (!deviceFileToFlash) {
    VL_LOG(VLLogLevelInfo, kTag, "deviceFileToFlash not set!");
    return;
  }
  if (BRYLDMAFileWrite(deviceFileToFlash, Position(address), &value, sizeof value) != sizeof value) {
    VL_LOG(VLLogLevelInfo, kTag, "error writing to device.");
  }
}

void Xil_AssertSetCallback(Xil_AssertCallback routine) { g_assertCallback = routine; }

void Xil_Assert(const char *file, int line) {
  if (g_assertCallback) g_assertCallback(file, line);
  VL_LOG(VLLogLevelError, kTag, "Assertion failed in %s at line %d", file, line);
  // The controller is in an unknown state: stop rather than go on driving it.
  VLProcessTerminate(1);
}
