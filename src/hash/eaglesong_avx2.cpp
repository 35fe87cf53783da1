// The eight-lane kernel in AVX2: one 256-bit register per state word, one
// 32-bit lane per candidate. Only the functions here are compiled for AVX2,
// and only called after the CPU check in eaglesong_lanes.cpp. Nothing from
// the standard library is instantiated in this file, so no AVX2 code can leak
// into a shared inline function.
#include "hash/eaglesong.h"
#include "hash/eaglesong_round.h"

#if defined(__x86_64__)

#include <immintrin.h>

#define OMBRY_AVX2 __attribute__((target("avx2")))

namespace {

// Rotations by whole bytes are one shuffle instead of two shifts and an OR.
template <int N>
OMBRY_AVX2 inline __m256i Rotl(__m256i x) {
  if constexpr (N == 8) {
    const __m256i order = _mm256_setr_epi8(3, 0, 1, 2, 7, 4, 5, 6, 11, 8, 9, 10, 15, 12, 13, 14,  //
                                           3, 0, 1, 2, 7, 4, 5, 6, 11, 8, 9, 10, 15, 12, 13, 14);
    return _mm256_shuffle_epi8(x, order);
  } else if constexpr (N == 24) {
    const __m256i order = _mm256_setr_epi8(1, 2, 3, 0, 5, 6, 7, 4, 9, 10, 11, 8, 13, 14, 15, 12,  //
                                           1, 2, 3, 0, 5, 6, 7, 4, 9, 10, 11, 8, 13, 14, 15, 12);
    return _mm256_shuffle_epi8(x, order);
  } else {
    return _mm256_or_si256(_mm256_slli_epi32(x, N), _mm256_srli_epi32(x, 32 - N));
  }
}

template <int A, int B>
OMBRY_AVX2 inline __m256i Circulant(__m256i t) {
  return _mm256_xor_si256(_mm256_xor_si256(t, Rotl<A>(t)), Rotl<B>(t));
}
#define EAGLESONG_AVX2_CIRCULANT(a, b, t) Circulant<a, b>(t)

OMBRY_AVX2 inline __m256i Broadcast(uint32_t word) { return _mm256_set1_epi32(static_cast<int>(word)); }

}  // namespace

OMBRY_AVX2 void EaglesongLanesAvx2(const uint32_t midstate[16], const uint32_t nonces[4][8], uint32_t digests[8][8]) {
  __m256i s[16];
  for (int i = 0; i < 4; ++i) {
    const __m256i lanes = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(nonces[i]));
    s[i] = _mm256_xor_si256(Broadcast(midstate[i]), lanes);
  }
  for (int i = 4; i < 16; ++i) s[i] = Broadcast(midstate[i]);

  for (int r = 0; r < kEaglesongRounds; ++r) {
    __m256i t[16];
    EAGLESONG_BIT_MATRIX(__m256i, s, t);
    const uint32_t *row = &EaglesongInjectionConstants[16 * r];
    __m256i k[16];
    for (int i = 0; i < 16; ++i) k[i] = Broadcast(row[i]);
    EAGLESONG_CIRCULANT(EAGLESONG_AVX2_CIRCULANT, t, s, k);
    for (int j = 0; j < 16; j += 2) {
      s[j] = Rotl<8>(_mm256_add_epi32(s[j], s[j + 1]));
      s[j + 1] = _mm256_add_epi32(Rotl<24>(s[j + 1]), s[j]);
    }
  }

  for (int w = 0; w < 8; ++w) _mm256_storeu_si256(reinterpret_cast<__m256i *>(digests[w]), s[w]);
}

#else

// No AVX2 on this architecture: the dispatcher never selects this path, but
// the symbol keeps the build uniform.
void EaglesongLanesAvx2(const uint32_t midstate[16], const uint32_t nonces[4][8], uint32_t digests[8][8]) {
  EaglesongLanesPortable(midstate, nonces, digests);
}

#endif
