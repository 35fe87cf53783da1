"""The pool's conversation and its share verdicts, over real TCP."""

import json
import os
import re
import signal
import subprocess
import sys
import tempfile
import unittest

from pool_harness import (EASY_DIFFICULTY, EASY_TARGET, POOL_DIR, Client, PoolTestCase, eaglesong, find_nonce,
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
        stats = self.stats()
        self.assertEqual((stats["accepted"], stats["rejected"]), (1, 7))
        self.assertEqual(stats["rejected_by_reason"], {"duplicate": 1, "low-difficulty": 1, "invalid-nonce": 2,
                                                       "unknown-job": 1, "unauthorized": 1, "malformed": 1,
                                                       "stale": 0})

    def test_clean_job_makes_earlier_jobs_stale(self):
        port = self.start_pool("--extranonce1", "", "--difficulty", repr(EASY_DIFFICULTY), "--notify-interval", "2")
        client = self.connect(port)
        _, after = client.handshake()
        first_id, first_header = after[-1]["params"][:2]
        first_share = find_nonce(first_header, b"", EASY_TARGET, passing=True).hex()
        second_id, second_header = client.next_job()[:2]
        client.send(submit(first_id, first_share))
        stale = client.response()
        self.assertEqual(stale["error"], [21, "Stale job", None])
        client.send(submit(second_id, find_nonce(second_header, b"", EASY_TARGET, passing=True).hex()))
        self.assertIsNone(client.response()["error"])

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

    def test_set_extranonce_applies_from_the_next_job(self):
        port = self.start_pool("--extranonce1", "01020304", "--set-extranonce", "a0a1a2a3a4a5",
                               "--set-extranonce-size", "10", "--difficulty", repr(EASY_DIFFICULTY),
                               "--notify-interval", "2")
        client = self.connect(port)
        _, after = client.handshake()
        self.assertEqual(client.message(), {"id": None, "method": "mining.set_extranonce",
                                            "params": ["a0a1a2a3a4a5", 10]})
        first_id, first_header = after[-1]["params"][:2]
        client.send(submit(first_id, find_nonce(first_header, bytes.fromhex("01020304"), EASY_TARGET, True).hex()))
        self.assertIsNone(client.response()["error"])
        second_id, second_header = client.next_job()[:2]
        new = bytes.fromhex("a0a1a2a3a4a5")
        client.send(submit(second_id, find_nonce(second_header, new, EASY_TARGET, True).hex()))
        self.assertIsNone(client.response()["error"])
        client.send(submit(second_id, "00" * 12))
        self.assertEqual(error_code(client.response()), 20)

    def test_set_target_announces_the_target_and_judges_by_it(self):
        port = self.start_pool("--target-mode", "target", "--difficulty", repr(EASY_DIFFICULTY),
                               "--extranonce1", "")
        client = self.connect(port)
        _, after = client.handshake()
        self.assertEqual(after[2], {"id": None, "method": "mining.set_target", "params": [f"{EASY_TARGET:064x}"]})
        job_id, header = after[3]["params"][:2]
        client.send(submit(job_id, find_nonce(header, b"", EASY_TARGET, passing=True).hex()))
        self.assertIsNone(client.response()["error"])
        client.send(submit(job_id, find_nonce(header, b"", EASY_TARGET, passing=False).hex()))
        self.assertEqual(error_code(client.response()), 23)


    def test_difficulty_pair_of_the_subscribe_answer_sets_the_share_target(self):
        port = self.start_pool("--target-mode", "none", "--subscribe-difficulty", "1024",
                               "--subscribe-difficulty", repr(EASY_DIFFICULTY), "--extranonce1", "")
        client = self.connect(port)
        _, after = client.handshake()
        self.assertEqual([m.get("method") for m in after], [None, None, "mining.notify"])
        job_id, header = after[-1]["params"][:2]
        client.send(submit(job_id, find_nonce(header, b"", EASY_TARGET, passing=True).hex()))
        self.assertIsNone(client.response()["error"])


class CommandLineTest(unittest.TestCase):
    def run_pool(self, *arguments):
        process = subprocess.Popen([sys.executable, os.path.join(POOL_DIR, "pool.py"), *arguments],
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(lambda: process.poll() is None and process.kill())
        return process

    def test_script_stats_transcript_and_signal(self):
        with tempfile.TemporaryDirectory() as directory:
            script, stats, transcript = (os.path.join(directory, name)
                                         for name in ("script.json", "stats.json", "transcript.txt"))
            with open(script, "w") as out:
                json.dump({"difficulty": EASY_DIFFICULTY, "extranonce1": "",
                           "connections": [{"authorize": "false"}]}, out)
            process = self.run_pool("--port", "0", "--script", script, "--stats", stats, "--transcript", transcript)
            port = int(re.fullmatch(r"listening on 127\.0\.0\.1:(\d+)\n", process.stdout.readline()).group(1))

            refused = Client(port)
            refused.send({"id": 3, "method": "mining.authorize", "params": ["acct", "x"]})
            self.assertEqual(refused.message(), {"id": 3, "result": False, "error": None})
            refused.close()
            client = Client(port)
            _, after = client.handshake()
            job_id, header = after[-1]["params"][:2]
            client.send(submit(job_id, find_nonce(header, b"", EASY_TARGET, passing=True).hex()))
            self.assertIsNone(client.response()["error"])
            client.close()

            process.send_signal(signal.SIGTERM)
            output, _ = process.communicate(timeout=30)
            self.assertEqual(process.returncode, 0)
            self.assertIn(f"share accepted: connection 2, job {job_id}", output)
            with open(stats) as source:
                counts = json.load(source)
            self.assertEqual((counts["connections"], counts["authorized"], counts["accepted"], counts["port"]),
                             (2, 1, 1, port))
            with open(transcript) as source:
                lines = source.read().splitlines()
            self.assertIn('1 > {"id":3,"result":false,"error":null}', lines)
            self.assertTrue(any(line.startswith("2 < ") and "mining.submit" in line for line in lines))

    def test_bad_settings_are_refused(self):
        with tempfile.NamedTemporaryFile("w", suffix=".json") as script:
            json.dump({"connections": [{"no_such_setting": 1}]}, script)
            script.flush()
            for arguments in (["--script", script.name], ["--extranonce1", "abc"], ["--subscribe", "maybe"]):
                with self.subTest(arguments=arguments):
                    process = self.run_pool(*arguments)
                    _, errors = process.communicate(timeout=30)
                    self.assertEqual(process.returncode, 2)
                    self.assertTrue(errors)


if __name__ == "__main__":
    unittest.main()
