#include "hash/eaglesong_lanes.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "hash/eaglesong.h"
#include "hash/eaglesong_round.h"

namespace {

constexpr size_t kLanes = 8;

// Checked once; libgcc's probe also requires the OS to save the registers.
// Other architectures have neither.
bool CpuHasAvx2() {
#if defined(__x86_64__)
  static const bool has = __builtin_cpu_supports("avx2");
  return has;
#else
  return false;
#endif
}

bool CpuHasAvx512() {
#if defined(__x86_64__)
  static const bool has = __builtin_cpu_supports("avx512f");
  return has;
#else
  return false;
#endif
}

// Digest of `lane` as a number, compared from its most significant word
// (the big-endian first digest word) down.
template <size_t Lanes>
bool LaneWithin(const uint32_t digests[8][Lanes], size_t lane, const uint32_t bound[8]) {
  for (int w = 0; w < 8; ++w) {
    const uint32_t value = ntohl(digests[w][lane]);
    const uint32_t limit = bound[7 - w];
    if (value != limit) return value < limit;
  }
  return true;
}

template <size_t Lanes>
void BatchWith(EaglesongLaneKernel<Lanes> kernel, const uint32_t midstate[16], const uint32_t (*nonce_words)[4],
               size_t count, uint32_t (*digests_out)[8]) {
  for (size_t base = 0; base < count; base += Lanes) {
    const size_t lanes = std::min(Lanes, count - base);
    uint32_t nonces[4][Lanes];
    uint32_t digests[8][Lanes];
    for (size_t lane = 0; lane < Lanes; ++lane) {
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

template <size_t Lanes>
size_t SearchWith(EaglesongLaneKernel<Lanes> kernel, const uint32_t midstate[16], uint32_t nonce_word0,
                  uint32_t nonce_word1, const EaglesongNonceTail *tails, size_t count, const uint32_t bound[8],
                  uint32_t digest_out[8]) {
  uint32_t nonces[4][Lanes];
  for (size_t lane = 0; lane < Lanes; ++lane) {
    nonces[0][lane] = nonce_word0;
    nonces[1][lane] = nonce_word1;
  }
  for (size_t base = 0; base < count; base += Lanes) {
    const size_t lanes = std::min(Lanes, count - base);
    for (size_t lane = 0; lane < Lanes; ++lane) {
      const EaglesongNonceTail &tail = tails[base + (lane < lanes ? lane : 0)];
      nonces[2][lane] = tail.word2;
      nonces[3][lane] = tail.word3;
    }
    uint32_t digests[8][Lanes];
    kernel(midstate, nonces, digests);
    for (size_t lane = 0; lane < lanes; ++lane) {
      if (!LaneWithin<Lanes>(digests, lane, bound)) continue;
      if (digest_out != nullptr) {
        for (int w = 0; w < 8; ++w) digest_out[w] = digests[w][lane];
      }
      return base + lane;
    }
  }
  return count;
}

EaglesongLaneKernel<kLanes> EightLaneKernel(EaglesongLanePath resolved) {
  return resolved == EaglesongLanePath::Avx2 ? EaglesongLanesAvx2 : EaglesongLanesPortable;
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
  switch (path) {
    case EaglesongLanePath::Avx2: return CpuHasAvx2();
    case EaglesongLanePath::Avx512: return CpuHasAvx512();
    default: return true;
  }
}

EaglesongLanePath EaglesongLanePathResolve(EaglesongLanePath path) {
  if (path == EaglesongLanePath::Portable) return path;
  if (path != EaglesongLanePath::Auto && EaglesongLanePathSupported(path)) return path;
  if (path != EaglesongLanePath::Avx2 && CpuHasAvx512()) return EaglesongLanePath::Avx512;
  return CpuHasAvx2() ? EaglesongLanePath::Avx2 : EaglesongLanePath::Portable;
}

const char *EaglesongLanePathName(EaglesongLanePath path) {
  switch (path) {
    case EaglesongLanePath::Auto: return "auto";
    case EaglesongLanePath::Portable: return "portable";
    case EaglesongLanePath::Avx2: return "avx2";
    case EaglesongLanePath::Avx512: return "avx512";
  }
  return "?";
}

const char *EaglesongLanePathsCompiled() {
#if defined(__x86_64__)
  return "portable, avx2, avx512";
#else
  return "portable";
#endif
}

void EaglesongHash48Batch(const uint32_t input[8], const uint32_t (*nonce_words)[4], size_t count,
                          uint32_t (*digests_out)[8], EaglesongLanePath path) {
  if (count == 0) return;
  uint32_t midstate[16];
  EaglesongMidstate(input, midstate);
  const EaglesongLanePath resolved = EaglesongLanePathResolve(path);
  if (resolved == EaglesongLanePath::Avx512) {
    BatchWith<16>(EaglesongLanesAvx512, midstate, nonce_words, count, digests_out);
  } else {
    BatchWith<kLanes>(EightLaneKernel(resolved), midstate, nonce_words, count, digests_out);
  }
}

size_t EaglesongSearch48(const uint32_t input[8], uint32_t nonce_word0, uint32_t nonce_word1,
                         const EaglesongNonceTail *tails, size_t count, const uint32_t bound[8], uint32_t digest_out[8],
                         EaglesongLanePath path) {
  if (count == 0) return 0;
  uint32_t midstate[16];
  EaglesongMidstate(input, midstate);
  return EaglesongSearchMidstate48(midstate, nonce_word0, nonce_word1, tails, count, bound, digest_out, path);
}

size_t EaglesongSearchMidstate48(const uint32_t midstate[16], uint32_t nonce_word0, uint32_t nonce_word1,
                                 const EaglesongNonceTail *tails, size_t count, const uint32_t bound[8],
                                 uint32_t digest_out[8], EaglesongLanePath path) {
  if (count == 0) return 0;
  const EaglesongLanePath resolved = EaglesongLanePathResolve(path);
  if (resolved == EaglesongLanePath::Avx512) {
    return SearchWith<16>(EaglesongLanesAvx512, midstate, nonce_word0, nonce_word1, tails, count, bound, digest_out);
  }
  return SearchWith<kLanes>(EightLaneKernel(resolved), midstate, nonce_word0, nonce_word1, tails, count, bound,
                            digest_out);
}
