// Share submission: a candidate nonce that a board reported is hashed again
// in software, judged against the job's and the board's targets, and, when it
// is a share and the session is mining, sent to the pool.
#pragma once

#include <cstdint>
#include <memory>

#include "stratum/job.h"
#include "stratum/stratum_context.h"

enum CandidateCode : uint32_t {
  CandidateShare = 0,             // within the job target and the board target
  CandidateAboveJobTarget = 1,    // within difficulty one only
  CandidateAboveBoardTarget = 2,  // within the job target, above the board's
  CandidateNoSolution = 3,        // above difficulty one
};

struct CandidateResult {
  uint32_t code = CandidateNoSolution;
  double value = 0.0;  // the hash as a number; 0.0 for CandidateNoSolution
};

// The four nonce words a board hashed for `coreNumber` and `nonce`.
void CandidateNonceWords(const uint32_t nonceBlock[4], uint32_t coreNumber, uint32_t nonce, uint32_t words_out[4]);

// Judges a hash, given as the 256-bit number of its digest (word 0 least
// significant), against the two targets.
CandidateResult JudgeHash(const uint32_t hash[8], const uint32_t jobTarget[8], const uint32_t boardTarget[8]);

// The bound of difficulty one: any hash above it is no solution.
extern const uint32_t kDifficultyOneBound[8];

// Hashes the candidate, judges it and, for a share while the session is in
// Mining, queues one mining.submit line. `job` is the worker's own copy, the
// job the board was loaded with. Never blocks on the network.
void SubmitCandidate(CandidateResult &result, StratumContext &context, uint64_t workerId,
                     const std::shared_ptr<StratumJob> &job, const uint8_t header[32], const uint32_t nonceBlock[4],
                     uint32_t nonce, uint32_t jobNonceWord, const uint32_t boardTarget[8], uint32_t coreNumber);

// The nonce text of mining.submit: the hashed nonce bytes from the end of the
// pool's extranonce on, two lower-case hex digits each.
void NonceSubmitText(const uint32_t words[4], size_t extranonceLength, char text_out[33]);

// Counts a share that was found and could not be sent; the count is told
// once the session mines again.
void CountDroppedShare(StratumContext &context);

// Queues the mining.submit line for a share on the connection that brought
// its job; when that connection is gone the share is counted as dropped.
void SendShare(StratumContext &context, const StratumJob &job, const char *nonceText, uint64_t worker);
