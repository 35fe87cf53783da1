// Eaglesong for the one message shape the miner hashes: 48 bytes, a 32-byte
// header hash followed by a 16-byte nonce. The host absorbs the header once per
// job (the board then only absorbs the nonce) and re-hashes whole messages to
// verify what a board reports.
//
// The three edges deliberately differ in byte order:
//   - the 32 header bytes are read as big-endian words (ntohl);
//   - the four nonce words are absorbed as numbers, unconverted;
//   - the digest words are written as they stand, so on a little-endian host
//     the bytes of the digest are the published digest.
//
// All functions are pure and may be called from any thread at once.
#pragma once

#include <cstdint>

inline constexpr int kEaglesongRounds = 43;

// 43 rounds of 16 words, in the published order.
extern const uint32_t EaglesongInjectionConstants[kEaglesongRounds * 16];

// The 43-round permutation of the 16-word state, in place.
void EaglesongPermutation(uint32_t state[16]);

// Absorbs the header and folds in the 48-byte message's delimiter (6 into
// word 4), so that only the nonce XOR and one permutation remain.
void EaglesongMidstate(const uint32_t input[8], uint32_t state_out[16]);

// The whole 48-byte hash: header `input`, then `nonce_words` as numbers.
void EaglesongHash48(const uint32_t input[8], const uint32_t nonce_words[4], uint32_t digest_out[8]);

// The digest as the 256-bit number that targets are compared with: its 32
// bytes read big-endian, as eight words with word 0 least significant.
void EaglesongDigestNumber(const uint32_t digest[8], uint32_t number_out[8]);
