#include "stratum/share.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>

#include "hash/eaglesong.h"
#include "stratum/targets.h"

namespace {

struct TestContext : StratumContext {
  StratumShareCounters counters;
  StratumShareCounters *ShareCounters(uint64_t worker) override { return worker == 0 ? &counters : nullptr; }
};

std::string NonceText(const uint32_t words[4], size_t extranonceLength) {
  char text[33];
  NonceSubmitText(words, extranonceLength, text);
  return text;
}

TEST(NonceSubmitTextTest, IsTheHashedBytesFromTheEndOfTheExtranonceUnpadded) {
  // Words are the raw bytes 4i..4i+3 read big-endian.
  const uint32_t words[4] = {0x00010203, 0x04050607, 0x08090a0b, 0x0c0d0e0f};
  EXPECT_EQ(NonceText(words, 0), "000102030405060708090a0b0c0d0e0f");
  EXPECT_EQ(NonceText(words, 4), "0405060708090a0b0c0d0e0f");
  EXPECT_EQ(NonceText(words, 11), "0b0c0d0e0f");
  EXPECT_EQ(NonceText(words, 12), "0c0d0e0f");
  EXPECT_EQ(NonceText(words, 15), "0f");
  EXPECT_EQ(NonceText(words, 16), "");
}

TEST(JudgeHashTest, OrdersTheVerdictsAndLetsEqualityPass) {
  // Targets here: job 2^236, board 2^232 (word 7 is the most significant).
  uint32_t jobTarget[8] = {0, 0, 0, 0, 0, 0, 0, 0x1000};
  uint32_t boardTarget[8] = {0, 0, 0, 0, 0, 0, 0, 0x100};
  uint32_t hash[8] = {};

  hash[7] = 0x10000;  // above the difficulty-one bound
  EXPECT_EQ(JudgeHash(hash, jobTarget, boardTarget).code, CandidateNoSolution);
  EXPECT_EQ(JudgeHash(hash, jobTarget, boardTarget).value, 0.0);

  hash[7] = 0x1000;
  hash[0] = 1;  // the least significant word decides once the others tie
  auto above = JudgeHash(hash, jobTarget, boardTarget);
  EXPECT_EQ(above.code, CandidateAboveJobTarget);
  EXPECT_DOUBLE_EQ(above.value, 0x1000p224 + 1.0);

  hash[0] = 0;  // equal to the job target: passes it, fails the board's
  EXPECT_EQ(JudgeHash(hash, jobTarget, boardTarget).code, CandidateAboveBoardTarget);

  memcpy(hash, boardTarget, sizeof hash);
  EXPECT_EQ(JudgeHash(hash, jobTarget, boardTarget).code, CandidateShare);
  hash[6] = 0xFFFFFFFF;
  hash[7] = 0xFF;
  EXPECT_EQ(JudgeHash(hash, jobTarget, boardTarget).code, CandidateShare);
}

// Finds, by brute force, a nonce whose hash is within difficulty one.
uint32_t FindNonce(const uint8_t header[32], const uint32_t block[4], uint32_t core, const uint32_t target[8]) {
  uint32_t headerWords[8];
  memcpy(headerWords, header, 32);
  for (uint32_t nonce = 0;; nonce++) {
    uint32_t words[4], digest[8], hash[8];
    CandidateNonceWords(block, core, nonce, words);
    EaglesongHash48(headerWords, words, digest);
    EaglesongDigestNumber(digest, hash);
    if (JudgeHash(hash, target, target).code == CandidateShare) return nonce;
  }
}

TEST(SubmitCandidateTest, SharesAreJudgedOnTheRebuiltMessageAndOnlySentWhileMiningTheirPool) {
  std::mt19937 random(7);
  auto job = std::make_shared<StratumJob>();
  for (auto &byte : job->headerHash) byte = static_cast<uint8_t>(random());
  DifficultyToTarget(1.0 / 65536, job->target);  // about one hash in 2^16
  job->jobId = "j1";
  const uint32_t block[4] = {0x01020304, 0x05060708, 0x00000000, 0x00000000};
  uint32_t nonce = FindNonce(job->headerHash.data(), block, 5, job->target);

  TestContext context;
  context.lastSubmitWorker = 99;
  uint32_t boardTarget[8];
  memcpy(boardTarget, job->target, sizeof boardTarget);

  CandidateResult result;
  context.stratumState = Authorizing;
  SubmitCandidate(result, context, 0, job, job->headerHash.data(), block, nonce, 0, boardTarget, 5);
  EXPECT_EQ(result.code, CandidateShare);
  EXPECT_EQ(context.lastSubmitWorker, 99u);  // nothing was sent outside Mining

  context.stratumState = Mining;
  context.activePool = 1;  // the job came from a pool the miner has left
  SubmitCandidate(result, context, 0, job, job->headerHash.data(), block, nonce, 0, boardTarget, 5);
  EXPECT_EQ(context.lastSubmitWorker, 99u);
  EXPECT_EQ(context.sharesDroppedWhileDisconnected.load(), 2u);

  context.activePool = 0;
  SubmitCandidate(result, context, 0, job, job->headerHash.data(), block, nonce, 0, boardTarget, 5);
  EXPECT_EQ(result.code, CandidateShare);
  EXPECT_EQ(context.lastSubmitWorker, 0u);

  // The same nonce credited to another core is a different message.
  SubmitCandidate(result, context, 0, job, job->headerHash.data(), block, nonce, 0, boardTarget, 6);
  EXPECT_NE(result.code, CandidateShare);
}

}  // namespace
