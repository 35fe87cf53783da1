// The sixteen-lane kernel in AVX-512: one 512-bit register per state word, one
// 32-bit lane per candidate. Rotations are single vprold instructions, and the
// three-input XORs of the bit matrix and the circulant fold into vpternlogd.
// All 43 rounds are unrolled, so each injection constant is a broadcast
// operand of the instruction that uses it. Only the functions here are
// compiled for AVX-512, and only called after the CPU check in
// eaglesong_lanes.cpp; nothing from the standard library is instantiated here.
#include "hash/eaglesong.h"
#include "hash/eaglesong_round.h"

#if defined(__x86_64__)

// g++ 12's headers leave the "don't care" source of vprold deliberately
// uninitialised, and then warn about it. (clang knows no such warning.)
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>

#define OMBRY_AVX512 __attribute__((target("avx512f")))

namespace {

// a ^ b ^ c in one instruction.
OMBRY_AVX512 inline __m512i Xor3(__m512i a, __m512i b, __m512i c) { return _mm512_ternarylogic_epi32(a, b, c, 0x96); }

OMBRY_AVX512 inline __m512i Broadcast(uint32_t word) { return _mm512_set1_epi32(static_cast<int>(word)); }

// The circulant step with the injection constant folded in: two logic
// instructions, the constant a broadcast operand.
template <int A, int B>
OMBRY_AVX512 inline __m512i CirculantInject(__m512i t, const uint32_t *constant) {
  return _mm512_xor_si512(Xor3(t, _mm512_rol_epi32(t, A), _mm512_rol_epi32(t, B)), Broadcast(*constant));
}

OMBRY_AVX512 inline void Round(__m512i s[16], const uint32_t *row) {
  __m512i t[16];
  EAGLESONG_BIT_MATRIX(__m512i, s, t);
  s[0] = CirculantInject<2, 4>(t[0], row + 0);
  s[1] = CirculantInject<13, 22>(t[1], row + 1);
  s[2] = CirculantInject<4, 19>(t[2], row + 2);
  s[3] = CirculantInject<3, 14>(t[3], row + 3);
  s[4] = CirculantInject<27, 31>(t[4], row + 4);
  s[5] = CirculantInject<3, 8>(t[5], row + 5);
  s[6] = CirculantInject<17, 26>(t[6], row + 6);
  s[7] = CirculantInject<3, 12>(t[7], row + 7);
  s[8] = CirculantInject<18, 22>(t[8], row + 8);
  s[9] = CirculantInject<12, 18>(t[9], row + 9);
  s[10] = CirculantInject<4, 7>(t[10], row + 10);
  s[11] = CirculantInject<4, 31>(t[11], row + 11);
  s[12] = CirculantInject<12, 27>(t[12], row + 12);
  s[13] = CirculantInject<7, 17>(t[13], row + 13);
  s[14] = CirculantInject<7, 8>(t[14], row + 14);
  s[15] = CirculantInject<1, 13>(t[15], row + 15);
#pragma GCC unroll 8
  for (int j = 0; j < 16; j += 2) {
    s[j] = _mm512_rol_epi32(_mm512_add_epi32(s[j], s[j + 1]), 8);
    s[j + 1] = _mm512_add_epi32(_mm512_rol_epi32(s[j + 1], 24), s[j]);
  }
}

}  // namespace

OMBRY_AVX512 void EaglesongLanesAvx512(const uint32_t midstate[16], const uint32_t nonces[4][16],
                                       uint32_t digests[8][16]) {
  __m512i s[16];
  for (int i = 0; i < 4; ++i) s[i] = _mm512_xor_si512(Broadcast(midstate[i]), _mm512_loadu_si512(nonces[i]));
  for (int i = 4; i < 16; ++i) s[i] = Broadcast(midstate[i]);
#pragma GCC unroll 43
  for (int r = 0; r < kEaglesongRounds; ++r) Round(s, &EaglesongInjectionConstants[16 * r]);
  for (int w = 0; w < 8; ++w) _mm512_storeu_si512(digests[w], s[w]);
}

#else

// No AVX-512 on this architecture: the dispatcher never selects this path, but
// the symbol keeps the build uniform.
void EaglesongLanesAvx512(const uint32_t midstate[16], const uint32_t nonces[4][16], uint32_t digests[8][16]) {
  for (int half = 0; half < 2; ++half) {
    uint32_t part[4][8];
    uint32_t out[8][8];
    for (int i = 0; i < 4; ++i) {
      for (int lane = 0; lane < 8; ++lane) part[i][lane] = nonces[i][8 * half + lane];
    }
    EaglesongLanesPortable(midstate, part, out);
    for (int w = 0; w < 8; ++w) {
      for (int lane = 0; lane < 8; ++lane) digests[w][8 * half + lane] = out[w][lane];
    }
  }
}

#endif
