"""The pool's conversation and its share verdicts, over real TCP."""

import re
import unittest

from pool_harness import (EASY_DIFFICULTY, EASY_TARGET, PoolTestCase, eaglesong, find_nonce,
                          submit)


def error_code(response):
    error = response["error"]
    return None if error is None else error[0]


class ShareVerdictTest(PoolTestCase):
    def test_handshake_and_every_verdict(self):
        port = self.start_pool("--extranonce1", "0a0b0c0d", "--subscribe-difficulty", "8",
                               "--subscribe-difficulty", "16", "--difficulty", repr(EASY_DIFFICULTY))
        client = self.connect(port)
        result, after = client.handshake()
        self.assertEqual(result, [[["mining.set_difficulty", 8.0], ["mining.set_difficulty", 16.0],
                                   ["mining.notify", "00000001"]], "0a0b0c0d", 12])
        self.assertEqual(after[:3], [{"id": 2, "result": True, "error": None},
                                     {"id": 3, "result": True, "error": None},
                                     {"id": None, "method": "mining.set_difficulty", "params": [EASY_DIFFICULTY]}])
        job_id, header, _, prev_hash, clean = after[3]["params"]
        self.assertTrue(re.fullmatch("[0-9a-f]{64}", header) and re.fullmatch("[0-9a-f]{64}", prev_hash))
        self.assertIs(clean, True)

        extranonce1 = bytes.fromhex("0a0b0c0d")
        good = find_nonce(header, extranonce1, EASY_TARGET, passing=True).hex()
        bad = find_nonce(header, extranonce1, EASY_TARGET, passing=False).hex()
        cases = [
            ("accepted", submit(job_id, good), None),
            ("duplicate", submit(job_id, good), 22),
            ("above target", submit(job_id, bad), 23),
            ("nonce one byte short", submit(job_id, good[2:]), 20),
            ("nonce not hex", submit(job_id, "zz" + good[2:]), 20),
            ("unknown job", submit("nope", good), 21),
            ("other account", submit(job_id, good, account="other"), 24),
            ("two params", {"id": 4, "method": "mining.submit", "params": ["acct", job_id]}, 20),
        ]
        for name, request, code in cases:
            with self.subTest(name):
                client.send(request)
                response = client.message()
                self.assertEqual(response["id"], 4)
                self.assertEqual(error_code(response), code, response)
                self.assertEqual(response["result"], True if code is None else None)
        stats = self.pool.stats.snapshot()
        self.assertEqual((stats["accepted"], stats["rejected"]), (1, 7))
        self.assertEqual(stats["rejected_by_reason"], {"duplicate": 1, "low-difficulty": 1, "invalid-nonce": 2,
                                                       "unknown-job": 1, "unauthorized": 1, "malformed": 1,
                                                       "stale": 0, "forced": 0})

    def test_nonce_is_extranonce1_followed_by_the_submitted_bytes(self):
        lengths = {0: "", 4: "01020304", 15: "00112233445566778899aabbccddee",
                   16: "00112233445566778899aabbccddeeff"}
        port = self.start_pool("--difficulty", repr(EASY_DIFFICULTY),
                               connections=[{"extranonce1": text} for text in lengths.values()])
        for length, text in lengths.items():
            with self.subTest(extranonce1_bytes=length):
                client = self.connect(port)
                result, after = client.handshake()
                self.assertEqual(result[1:], [text, 16 - length])
                job_id, header = after[-1]["params"][:2]
                extranonce1 = bytes.fromhex(text)
                if length < 16:
                    share = find_nonce(header, extranonce1, EASY_TARGET, passing=True).hex()
                    self.assertEqual(len(share), 2 * (16 - length))
                    expected = None
                else:
                    # Nothing left to vary: the verdict is that of the one message there is.
                    share = ""
                    digest = eaglesong.eaglesong(bytes.fromhex(header) + extranonce1)
                    expected = None if int.from_bytes(digest, "big") <= EASY_TARGET else 23
                client.send(submit(job_id, share))
                self.assertEqual(error_code(client.response()), expected)
                client.send(submit(job_id, share + "00"))
                self.assertEqual(error_code(client.response()), 20)


if __name__ == "__main__":
    unittest.main()
