#include "net/send_ring.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "foundation/logger.h"

namespace {

constexpr const char *kTag = "SOCKETSET";

void ReportRefusal(uint64_t capacity, uint64_t wanted) {
  VL_LOG(VLLogLevelError, kTag,
         "Failed to expand existing buffer of size %lu to at least size %lu (Would exceed hardmax of %i)",
         static_cast<unsigned long>(capacity), static_cast<unsigned long>(wanted),
         static_cast<int>(kTRPSendRingHardMax));
}

uint64_t ReadOffset(const TRPSendRing *ring) {
  return ring->sendWrite >= ring->sendUsed ? ring->sendWrite - ring->sendUsed
                                           : ring->sendWrite + ring->sendCapacity - ring->sendUsed;
}

}  // namespace

bool TRPSendRingReserve(TRPSendRing *ring, uint64_t length) {
  if (ring->sendBuffer && length <= ring->sendCapacity - ring->sendUsed) return true;

  if (!ring->sendBuffer) {
    uint64_t size;
    if (length <= kTRPSendRingFirstSize) {
      size = kTRPSendRingFirstSize;
    } else if (length > kTRPSendRingHardMax) {
      ReportRefusal(0, length);
      return false;
    } else {
      size = length + kTRPSendRingFirstSize;
    }
    auto *buffer = static_cast<uint8_t *>(malloc(size));
    if (!buffer) return false;
    ring->sendBuffer = buffer;
    ring->sendCapacity = size;
    ring->sendUsed = 0;
    ring->sendWrite = 0;
    return true;
  }

  uint64_t size = length + ring->sendUsed + kTRPSendRingFirstSize;
  if (size >= kTRPSendRingHardMax) {
    ReportRefusal(ring->sendCapacity, ring->sendUsed + length);
    return false;
  }
  uint64_t oldCapacity = ring->sendCapacity;
  uint64_t readOffset = ReadOffset(ring);
  auto *buffer = static_cast<uint8_t *>(realloc(ring->sendBuffer, size));
  if (!buffer) return false;
  ring->sendBuffer = buffer;
  if (ring->sendWrite < ring->sendUsed) {
    // The queued bytes run up to or around the old end: lay them out from the
    // start in order, so that the next write follows them in the larger ring.
    auto *ordered = static_cast<uint8_t *>(malloc(ring->sendUsed));
    if (!ordered) return false;
    uint64_t tail = std::min(oldCapacity - readOffset, ring->sendUsed);
    memcpy(ordered, buffer + readOffset, tail);
    memcpy(ordered + tail, buffer, ring->sendUsed - tail);
    memcpy(buffer, ordered, ring->sendUsed);
    free(ordered);
    ring->sendWrite = ring->sendUsed;
  }
  ring->sendCapacity = size;
  return true;
}

void TRPSendRingPut(TRPSendRing *ring, const void *bytes, uint64_t length) {
  const auto *source = static_cast<const uint8_t *>(bytes);
  uint64_t first = std::min(length, ring->sendCapacity - ring->sendWrite);
  memcpy(ring->sendBuffer + ring->sendWrite, source, first);
  memcpy(ring->sendBuffer, source + first, length - first);
  ring->sendWrite += length;
  if (ring->sendWrite >= ring->sendCapacity) ring->sendWrite -= ring->sendCapacity;
  ring->sendUsed += length;
}

uint64_t TRPSendRingPeek(const TRPSendRing *ring, void *out, uint64_t limit) {
  if (!ring->sendBuffer || ring->sendUsed == 0) return 0;
  uint64_t readOffset = ReadOffset(ring);
  uint64_t count = std::min({ring->sendCapacity - readOffset, ring->sendUsed, limit});
  memcpy(out, ring->sendBuffer + readOffset, count);
  return count;
}

void TRPSendRingConsume(TRPSendRing *ring, uint64_t count) { ring->sendUsed -= std::min(count, ring->sendUsed); }

void TRPSendRingFree(TRPSendRing *ring) {
  free(ring->sendBuffer);
  *ring = TRPSendRing{};
}
