// The per-socket queue of bytes waiting for the send thread: a ring that grows
// in steps of the largest single transfer and never shrinks, up to a hard
// maximum so that a peer that stops reading cannot exhaust memory.
#pragma once

#include <cstdint>

constexpr uint64_t kTRPSendRingFirstSize = 32768;
constexpr uint64_t kTRPSendRingHardMax = 41943040;

struct TRPSendRing {
  uint8_t *sendBuffer = nullptr;
  uint64_t sendUsed = 0;      // bytes queued
  uint64_t sendWrite = 0;     // offset of the next write
  uint64_t sendCapacity = 0;  // ring size
};

// Makes room for `length` more bytes, allocating or growing the ring. False,
// with an error line, when that would pass the hard maximum; the ring is then
// unchanged.
bool TRPSendRingReserve(TRPSendRing *ring, uint64_t length);

// Appends bytes for which TRPSendRingReserve made room.
void TRPSendRingPut(TRPSendRing *ring, const void *bytes, uint64_t length);

// Copies the oldest queued bytes, as many as lie contiguous in the ring and at
// most `limit`, without removing them. Returns the count copied.
uint64_t TRPSendRingPeek(const TRPSendRing *ring, void *out, uint64_t limit);

// Drops the `count` oldest bytes after they were sent.
void TRPSendRingConsume(TRPSendRing *ring, uint64_t count);

void TRPSendRingFree(TRPSendRing *ring);
