// Pieces of the Eaglesong round shared by the scalar and the multi-lane code.
// Internal to src/hash.
#pragma once

#include <cstddef>
#include <cstdint>

// Step 1 of a round: new word j is the XOR of a fixed set of old words.
// Written out once with the pairs that several rows share computed only once
// (scripts/gen-eaglesong-matrix.py derives it from the matrix rows). A macro,
// not a template, so that the AVX2 code can expand it inside its own
// target-specific functions. `W` needs operator^; `s` is read, `t` written.
// 64 XORs (120 without shared sums).
// The macros take a type (`W`) and array names as parameters, which can not
// stand in parentheses.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define EAGLESONG_BIT_MATRIX(W, s, t)      \
  do {                                     \
    const W m0 = s[0] ^ s[1];              \
    const W m1 = s[2] ^ s[3];              \
    const W m2 = s[4] ^ s[15];             \
    const W m3 = s[5] ^ m2;                \
    const W m4 = s[8] ^ m0;                \
    const W m5 = s[10] ^ m1;               \
    const W m6 = s[6] ^ s[7];              \
    const W m7 = s[9] ^ s[11];             \
    const W m8 = s[12] ^ s[13];            \
    const W m9 = s[14] ^ m5;               \
    const W m10 = s[0] ^ m6;               \
    const W m11 = s[1] ^ m1;               \
    const W m12 = s[2] ^ s[9];             \
    const W m13 = s[3] ^ s[6];             \
    const W m14 = s[4] ^ m8;               \
    const W m15 = s[7] ^ m7;               \
    const W m16 = s[11] ^ s[12];           \
    const W m17 = s[14] ^ m3;              \
    const W m18 = m0 ^ m6;                 \
    const W m19 = m2 ^ m8;                 \
    const W m20 = m4 ^ m16;                \
    t[0] = s[12] ^ m3 ^ m10;               \
    t[1] = m4 ^ m19;                       \
    t[2] = s[14] ^ m12 ^ m18 ^ m19;        \
    t[3] = s[6] ^ m4 ^ m9 ^ m14;           \
    t[4] = s[13] ^ m11 ^ m15 ^ m17;        \
    t[5] = s[0] ^ s[7] ^ s[8] ^ m9;        \
    t[6] = s[1] ^ s[3] ^ s[8] ^ m2 ^ m7;   \
    t[7] = s[10] ^ s[15] ^ m10 ^ m12;      \
    t[8] = s[10] ^ m3 ^ m13 ^ m20;         \
    t[9] = s[2] ^ s[13] ^ s[15] ^ m0 ^ m7; \
    t[10] = m3 ^ m9 ^ m18;                 \
    t[11] = m1 ^ m20;                      \
    t[12] = s[9] ^ m11 ^ m14;              \
    t[13] = s[4] ^ s[5] ^ s[13] ^ m9;      \
    t[14] = s[11] ^ m13 ^ m17;             \
    t[15] = s[5] ^ s[15] ^ m4 ^ m5 ^ m15;  \
  } while (0)

// Step 2 of a round: word i becomes t ^ rotl(t, a) ^ rotl(t, b) with these
// (a, b), listed in order so that a call site can expand one line per word.
#define EAGLESONG_CIRCULANT(C, t, s, k) \
  do {                                  \
    s[0] = C(2, 4, t[0]) ^ k[0];        \
    s[1] = C(13, 22, t[1]) ^ k[1];      \
    s[2] = C(4, 19, t[2]) ^ k[2];       \
    s[3] = C(3, 14, t[3]) ^ k[3];       \
    s[4] = C(27, 31, t[4]) ^ k[4];      \
    s[5] = C(3, 8, t[5]) ^ k[5];        \
    s[6] = C(17, 26, t[6]) ^ k[6];      \
    s[7] = C(3, 12, t[7]) ^ k[7];       \
    s[8] = C(18, 22, t[8]) ^ k[8];      \
    s[9] = C(12, 18, t[9]) ^ k[9];      \
    s[10] = C(4, 7, t[10]) ^ k[10];     \
    s[11] = C(4, 31, t[11]) ^ k[11];    \
    s[12] = C(12, 27, t[12]) ^ k[12];   \
    s[13] = C(7, 17, t[13]) ^ k[13];    \
    s[14] = C(7, 8, t[14]) ^ k[14];     \
    s[15] = C(1, 13, t[15]) ^ k[15];    \
  } while (0)

// Eight second-block permutations that share one midstate (from
// EaglesongMidstate, delimiter included). Lane l absorbs nonce words
// nonces[0..3][l]; digest word w of lane l goes to digests[w][l].
// Structure-of-arrays so that a vector register holds one word of all lanes.
// The AVX-512 kernel does the same for sixteen lanes.
template <size_t Lanes>
using EaglesongLaneKernel = void (*)(const uint32_t midstate[16], const uint32_t nonces[4][Lanes],
                                     uint32_t digests[8][Lanes]);
void EaglesongLanesPortable(const uint32_t midstate[16], const uint32_t nonces[4][8], uint32_t digests[8][8]);
void EaglesongLanesAvx2(const uint32_t midstate[16], const uint32_t nonces[4][8], uint32_t digests[8][8]);
void EaglesongLanesAvx512(const uint32_t midstate[16], const uint32_t nonces[4][16], uint32_t digests[8][16]);
// NOLINTEND(bugprone-macro-parentheses)
