#include "stratum/share.h"

#include <arpa/inet.h>

#include <cstdio>
#include <cstring>

#include "hash/eaglesong.h"
#include "stratum/targets.h"

const uint32_t kDifficultyOneBound[8] = {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF,
                                         0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0x0000FFFF};

namespace {

// -1, 0 or 1 as `a` is below, equal to or above `b`, most significant first.
int Compare256(const uint32_t a[8], const uint32_t b[8]) {
  for (int i = 7; i >= 0; i--) {
    if (a[i] != b[i]) return a[i] > b[i] ? 1 : -1;
  }
  return 0;
}

double HashValue(const uint32_t hash[8]) {
  uint64_t limbs[4];
  for (int i = 0; i < 4; i++) limbs[i] = static_cast<uint64_t>(hash[2 * i + 1]) << 32 | hash[2 * i];
  double sum = MachineU64ToDouble(limbs[3]) * 0x1p192;
  sum = MachineU64ToDouble(limbs[2]) * 0x1p128 + sum;
  sum = MachineU64ToDouble(limbs[1]) * 0x1p64 + sum;
  return MachineU64ToDouble(limbs[0]) + sum;
}

}  // namespace

void CandidateNonceWords(const uint32_t nonceBlock[4], uint32_t coreNumber, uint32_t nonce, uint32_t words_out[4]) {
  words_out[0] = nonceBlock[0];
  words_out[1] = nonceBlock[1];
  words_out[2] = nonceBlock[2] ^ coreNumber;
  words_out[3] = nonceBlock[3] ^ nonce;
}

CandidateResult JudgeHash(const uint32_t hash[8], const uint32_t jobTarget[8], const uint32_t boardTarget[8]) {
  CandidateResult result;
  if (hash[7] > 0xFFFF) return result;
  result.value = HashValue(hash);
  if (Compare256(hash, jobTarget) > 0) {
    result.code = CandidateAboveJobTarget;
  } else if (Compare256(hash, boardTarget) > 0) {
    result.code = CandidateAboveBoardTarget;
  } else {
    result.code = CandidateShare;
  }
  return result;
}

void NonceSubmitText(const uint32_t words[4], size_t extranonceLength, char text_out[33]) {
  uint8_t bytes[16];
  for (int i = 0; i < 4; i++) {
    uint32_t network = htonl(words[i]);
    memcpy(bytes + 4 * i, &network, 4);
  }
  char *out = text_out;
  for (size_t i = extranonceLength; i < 16; i++) out += snprintf(out, 3, "%02x", bytes[i]);
  *out = 0;
}

void SubmitCandidate(CandidateResult &result, StratumContext &context, uint64_t workerId,
                     const std::shared_ptr<StratumJob> &job, const uint8_t header[32], const uint32_t nonceBlock[4],
                     uint32_t nonce, uint32_t jobNonceWord, const uint32_t boardTarget[8], uint32_t coreNumber) {
  (void)jobNonceWord;
  uint32_t headerWords[8];
  memcpy(headerWords, header, sizeof headerWords);
  uint32_t words[4];
  CandidateNonceWords(nonceBlock, coreNumber, nonce, words);

  uint32_t digest[8], hash[8];
  EaglesongHash48(headerWords, words, digest);
  EaglesongDigestNumber(digest, hash);

  result = JudgeHash(hash, job->target, boardTarget);
  if (result.code != CandidateShare) return;
  // A share found while the session is down, or for a job of a pool the
  // miner has left, is lost; the loss is counted and told once the session
  // mines again.
  if (context.stratumState != Mining || job->pool != context.activePool) {
    CountDroppedShare(context);
    return;
  }

  char nonceText[33];
  NonceSubmitText(words, job->extranonce.size(), nonceText);
  context.lastSubmitWorker = workerId;
  SendShare(context, *job, nonceText, workerId);
}
