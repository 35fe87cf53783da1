// Many 48-byte Eaglesong hashes that share one header: the midstate is
// computed once and eight candidates (sixteen with AVX-512) run through the
// second permutation side by side. Built for verifying a reported nonce, where every candidate has the
// same header and nonce words 0 and 1 and differs only in words 2 and 3.
//
// Results equal EaglesongHash48 exactly on every path.
#pragma once

#include <cstddef>
#include <cstdint>

// How the lanes are computed. Auto takes the best path this CPU supports;
// Portable (one lane after another) runs everywhere and can be forced, e.g.
// to compare paths. A path the CPU lacks falls back to the best it has.
enum class EaglesongLanePath { Auto, Portable, Avx2, Avx512 };

bool EaglesongLanePathSupported(EaglesongLanePath path);
// The path that a call with `path` actually takes: never Auto.
EaglesongLanePath EaglesongLanePathResolve(EaglesongLanePath path);
const char *EaglesongLanePathName(EaglesongLanePath path);
// The paths this build carries, e.g. "portable, avx2, avx512".
const char *EaglesongLanePathsCompiled();

// digests_out[i] = EaglesongHash48(input, nonce_words[i]) for i < count.
void EaglesongHash48Batch(const uint32_t input[8], const uint32_t (*nonce_words)[4], size_t count,
                          uint32_t (*digests_out)[8], EaglesongLanePath path = EaglesongLanePath::Auto);

// Nonce words 2 and 3 of one search candidate, as absorbed.
struct EaglesongNonceTail {
  uint32_t word2;
  uint32_t word3;
};

// Hashes the candidates (nonce_word0, nonce_word1, tails[i].word2,
// tails[i].word3) in order of i and returns the first i whose digest, as an
// EaglesongDigestNumber, is at most `bound` (eight words, word 0 least
// significant; equal counts as within). Returns `count` when none is. On a
// hit the digest goes to `digest_out` if that isn't null; otherwise
// `digest_out` is left alone. Candidates past the hit's group of eight (of
// sixteen with AVX-512) are not hashed.
size_t EaglesongSearch48(const uint32_t input[8], uint32_t nonce_word0, uint32_t nonce_word1,
                         const EaglesongNonceTail *tails, size_t count, const uint32_t bound[8], uint32_t digest_out[8],
                         EaglesongLanePath path = EaglesongLanePath::Auto);

// The same search from a midstate (EaglesongMidstate, delimiter included)
// instead of the header: what a party holds that was only given the midstate,
// such as a board's hash core.
size_t EaglesongSearchMidstate48(const uint32_t midstate[16], uint32_t nonce_word0, uint32_t nonce_word1,
                                 const EaglesongNonceTail *tails, size_t count, const uint32_t bound[8],
                                 uint32_t digest_out[8], EaglesongLanePath path = EaglesongLanePath::Auto);
