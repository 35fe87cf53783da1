#include "hash/eaglesong_lanes.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "hash/eaglesong.h"
#include "hash/eaglesong_round.h"

namespace {

constexpr size_t kLanes = kEaglesongKernelLanes;

bool CpuHasAvx2() {
  // Checked once; libgcc's probe also requires the OS to save YMM state.
  static const bool has = __builtin_cpu_supports("avx2");
  return has;
}

EaglesongLaneKernel KernelFor(EaglesongLanePath path) {
  return EaglesongLanePathResolve(path) == EaglesongLanePath::Avx2 ? EaglesongLanesAvx2
                                                                    : EaglesongLanesPortable;
}

// Digest of `lane` as a number, compared from its most significant word
// (the big-endian first digest word) down.
bool LaneWithin(const uint32_t digests[8][8], size_t lane, const uint32_t bound[8]) {
  for (int w = 0; w < 8; ++w) {
    const uint32_t value = ntohl(digests[w][lane]);
    const uint32_t limit = bound[7 - w];
    if (value != limit) return value < limit;
  }
  return true;
}

}  // namespace

void EaglesongLanesPortable(const uint32_t midstate[16], const uint32_t nonces[4][8], uint32_t digests[8][8]) {
  for (size_t lane = 0; lane < kLanes; ++lane) {
    uint32_t s[16];
    std::memcpy(s, midstate, sizeof(s));
    for (int i = 0; i < 4; ++i) s[i] ^= nonces[i][lane];
    EaglesongPermutation(s);
    for (int w = 0; w < 8; ++w) digests[w][lane] = s[w];
  }
}

bool EaglesongLanePathSupported(EaglesongLanePath path) {
  return path != EaglesongLanePath::Avx2 || CpuHasAvx2();
}

EaglesongLanePath EaglesongLanePathResolve(EaglesongLanePath path) {
  switch (path) {
    case EaglesongLanePath::Portable:
      return EaglesongLanePath::Portable;
    case EaglesongLanePath::Auto:
    case EaglesongLanePath::Avx2:
      break;
  }
  return CpuHasAvx2() ? EaglesongLanePath::Avx2 : EaglesongLanePath::Portable;
}

const char *EaglesongLanePathName(EaglesongLanePath path) {
  switch (path) {
    case EaglesongLanePath::Auto:
      return "auto";
    case EaglesongLanePath::Portable:
      return "portable";
    case EaglesongLanePath::Avx2:
      return "avx2";
  }
  return "?";
}

void EaglesongHash48Batch(const uint32_t input[8], const uint32_t (*nonce_words)[4], size_t count,
                          uint32_t (*digests_out)[8], EaglesongLanePath path) {
  if (count == 0) return;
  const EaglesongLaneKernel kernel = KernelFor(path);
  uint32_t midstate[16];
  EaglesongMidstate(input, midstate);
  for (size_t base = 0; base < count; base += kLanes) {
    const size_t lanes = std::min(kLanes, count - base);
    uint32_t nonces[4][8];
    uint32_t digests[8][8];
    for (size_t lane = 0; lane < kLanes; ++lane) {
      // Lanes past the end of a partial group repeat its first candidate;
      // their results are dropped.
      const uint32_t *words = nonce_words[base + (lane < lanes ? lane : 0)];
      for (int i = 0; i < 4; ++i) nonces[i][lane] = words[i];
    }
    kernel(midstate, nonces, digests);
    for (size_t lane = 0; lane < lanes; ++lane) {
      for (int w = 0; w < 8; ++w) digests_out[base + lane][w] = digests[w][lane];
    }
  }
}

size_t EaglesongSearch48(const uint32_t input[8], uint32_t nonce_word0, uint32_t nonce_word1,
                         const EaglesongNonceTail *tails, size_t count, const uint32_t bound[8],
                         uint32_t digest_out[8], EaglesongLanePath path) {
  if (count == 0) return 0;
  uint32_t midstate[16];
  EaglesongMidstate(input, midstate);
  return EaglesongSearchMidstate48(midstate, nonce_word0, nonce_word1, tails, count, bound, digest_out, path);
}

size_t EaglesongSearchMidstate48(const uint32_t midstate[16], uint32_t nonce_word0, uint32_t nonce_word1,
                                 const EaglesongNonceTail *tails, size_t count, const uint32_t bound[8],
                                 uint32_t digest_out[8], EaglesongLanePath path) {
  if (count == 0) return 0;
  const EaglesongLaneKernel kernel = KernelFor(path);
  uint32_t nonces[4][8];
  for (size_t lane = 0; lane < kLanes; ++lane) {
    nonces[0][lane] = nonce_word0;
    nonces[1][lane] = nonce_word1;
  }
  for (size_t base = 0; base < count; base += kLanes) {
    const size_t lanes = std::min(kLanes, count - base);
    for (size_t lane = 0; lane < kLanes; ++lane) {
      const EaglesongNonceTail &tail = tails[base + (lane < lanes ? lane : 0)];
      nonces[2][lane] = tail.word2;
      nonces[3][lane] = tail.word3;
    }
    uint32_t digests[8][8];
    kernel(midstate, nonces, digests);
    for (size_t lane = 0; lane < lanes; ++lane) {
      if (!LaneWithin(digests, lane, bound)) continue;
      if (digest_out != nullptr) {
        for (int w = 0; w < 8; ++w) digest_out[w] = digests[w][lane];
      }
      return base + lane;
    }
  }
  return count;
}
