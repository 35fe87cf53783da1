// The simulator's own Eaglesong: the permutation written for the simulated
// hash cores from the published algorithm (rate and capacity 256 bits, 43
// rounds), sharing nothing with the miner's code, so that a mistake on either
// side shows as shares that the other side rejects.
#pragma once

#include <cstddef>
#include <cstdint>

namespace sim {

// The last two nonce words of one candidate; the first two are the same for
// all candidates of a search.
struct NonceTail {
  uint32_t word2;
  uint32_t word3;
};

// Hashes the candidates (word0, word1, tails[i]) from `midstate`, the state
// after the 32-byte header with the delimiter already added to word 4, in
// order, and returns the first i whose hash, read as a 256-bit number, is at
// most `bound` (eight words, word 0 least significant). `count` when none is.
size_t SearchMidstate(const uint32_t midstate[16], uint32_t word0, uint32_t word1, const NonceTail *tails, size_t count,
                      const uint32_t bound[8]);

// The digest words of one 48-byte message after its midstate, for tests.
void HashAfterMidstate(const uint32_t midstate[16], const uint32_t nonce[4], uint32_t digest[8]);

// The 32-byte digest of a message of any length.
void Hash(const uint8_t *message, size_t length, uint8_t digest[32]);

}  // namespace sim
