// Values from the pool, checked before the miner uses them. A pool that sends
// a value it cannot mine with (a negative difficulty, an all-zero target, a
// header hash that isn't hex) is refused with one warning naming the value,
// and the last good value stays in force.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "foundation/object.h"

// The bytes of the nonce the miner fills itself beyond the pool's
// extranonce1: the job's nonce word and at least one byte of the board's.
constexpr size_t kMinerNonceBytes = 5;
constexpr size_t kNonceBytes = 16;
// The longest job id taken; the id goes back to the pool with every share.
constexpr size_t kMaxJobIdLength = 128;

// A value as a log line names it: compact JSON, escaped, cut short.
std::string PoolValueText(const VLObject *value);

// Logs "Refused <what> <value> from the pool: <why>; keeping <kept>" (a warning).
void RefusePoolValue(const char *what, const VLObject *value, const std::string &why, const std::string &kept);

// A difficulty the miner can use: a finite number above zero whose target
// fits in 256 bits. With `textAllowed` a string holding such a number counts
// too. False with the reason in `why`.
bool ReadDifficulty(const VLObject *value, bool textAllowed, double &difficulty, std::string &why);

// Hex text (an optional "0x" in front, an even number of digits) to bytes.
bool ReadHex(const VLObject *value, std::vector<uint8_t> &bytes, std::string &why);

// Exactly 32 bytes of hex, as a job's hashes and the target are.
bool ReadHash32(const VLObject *value, std::array<uint8_t, 32> &bytes, std::string &why);

// A job id: a string of 1 to kMaxJobIdLength printable characters without
// blanks, which the pool gets back unchanged with every share.
bool ReadJobId(const VLObject *value, std::string &jobId, std::string &why);

// extranonce1 and the extranonce2 size as the subscribe answer and
// mining.set_extranonce give them: hex, and a size that leaves room in the
// 16-byte nonce for both the pool's extranonce2 and the miner's own bytes.
bool ReadExtranonce(const VLObject *extranonce1, const VLObject *size, std::vector<uint8_t> &bytes,
                    uint64_t &extranonce2Size, std::string &why);
