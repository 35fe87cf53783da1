"""Every scripted misbehaviour of the pool, as a client sees it on the wire.

Where the pool is to stay silent, a later request serves as a fence: its
answer arriving first proves that nothing came before it, without waiting."""

import json
import unittest

from pool_harness import (EASY_DIFFICULTY, EASY_TARGET, EXTRANONCE_SUBSCRIBE, SUBSCRIBE, PoolTestCase, authorize,
                          find_nonce, submit, test_pool)


class SessionMisbehaviourTest(PoolTestCase):
    def test_subscribe_answers(self):
        modes = ["short", "error", "not-array", "silent"]
        port = self.start_pool(connections=[{"subscribe": mode} for mode in modes])
        expected = [
            [{"id": 1, "result": [[["mining.notify", "00000001"]], "00000001"], "error": None}],
            [{"id": 1, "result": None, "error": [20, "Subscription refused", None]}],
            [{"id": 1, "result": True, "error": None}],
            [],
        ]
        for mode, answer in zip(modes, expected):
            with self.subTest(mode):
                client = self.connect(port)
                client.send(SUBSCRIBE)
                client.send(EXTRANONCE_SUBSCRIBE)
                self.assertEqual(client.messages(len(answer) + 1), answer + [{"id": 2, "result": True, "error": None}])

    def test_refused_authorization_sends_no_work_and_takes_no_shares(self):
        modes = {"false": [{"id": 3, "result": False, "error": None}],
                 "error": [{"id": 3, "result": None, "error": [24, "Unauthorized worker", None]}],
                 "silent": []}
        port = self.start_pool(connections=[{"authorize": mode} for mode in modes])
        for mode, answer in modes.items():
            with self.subTest(mode):
                client = self.connect(port)
                client.send(SUBSCRIBE)
                client.message()
                client.send(authorize())
                client.send(submit("1", "00" * 12))
                client.send(EXTRANONCE_SUBSCRIBE)
                self.assertEqual(client.messages(len(answer) + 2), answer + [
                    {"id": 4, "result": None, "error": [24, "Unauthorized worker", None]},
                    {"id": 2, "result": True, "error": None}])

    def test_jobs_before_the_subscribe_answer_and_before_authorization(self):
        port = self.start_pool("--notify-before-subscribe", "--notify-before-authorize", "--authorize-delay", "1",
                               "--difficulty", "2")
        client = self.connect(port)
        self.assertEqual(client.message()["method"], "mining.notify")
        client.send(SUBSCRIBE)
        self.assertEqual(client.message()["id"], 1)
        self.assertEqual(client.message(), {"id": None, "method": "mining.set_difficulty", "params": [2.0]})
        early_job = client.message()["params"][0]
        # Sent in one write, the share is judged while the answer is held back.
        client.sock.sendall(json.dumps(authorize()).encode() + b"\n" + json.dumps(submit(early_job, "00" * 12)).encode()
                            + b"\n")
        self.assertEqual(client.message()["error"], [24, "Unauthorized worker", None])
        self.assertEqual(client.message(), {"id": 3, "result": True, "error": None})

    def test_closing(self):
        port = self.start_pool(connections=[{"close_after": 2}, {"close_after": 2, "close_mode": "reset"},
                                            {"close_at": 0.2}])
        client = self.connect(port)
        client.sock.sendall(b"".join(json.dumps(r).encode() + b"\n" for r in (SUBSCRIBE, EXTRANONCE_SUBSCRIBE,
                                                                                authorize())))
        self.assertEqual([json.loads(line)["id"] for line in client.until_closed()], [1, 2])

        client = self.connect(port)
        client.send(SUBSCRIBE)
        client.send(EXTRANONCE_SUBSCRIBE)
        with self.assertRaises(ConnectionResetError):
            client.until_closed()

        self.assertEqual(self.connect(port).until_closed(), [])

    def test_lines_split_across_writes(self):
        port = self.start_pool("--split-lines", "3", "--split-delay", "0.3")
        client = self.connect(port)
        client.send(SUBSCRIBE)
        first_piece = client.sock.recv(65536)
        self.assertNotIn(b"\n", first_piece)
        client.buffer = first_piece
        self.assertEqual(client.message()["result"][1], "00000001")

    def test_garbage_lines_between_real_ones(self):
        port = self.start_pool("--garbage-every", "1")
        client = self.connect(port)
        for request in (SUBSCRIBE, EXTRANONCE_SUBSCRIBE, authorize()):
            client.send(request)
        garbage, real = [], []
        while not real or real[-1].get("method") != "mining.notify":
            line = client.line() + b"\n"
            if line in test_pool.GARBAGE_LINES:
                garbage.append(line)
            else:
                real.append(json.loads(line))
        self.assertEqual(garbage, list(test_pool.GARBAGE_LINES[:len(real)]))
        self.assertEqual([m.get("id", m.get("method")) for m in real], [1, 2, 3, None, None])

    def test_notification_ids(self):
        port = self.start_pool("--notify-id", "7", connections=[{}, {"notify_id": "absent"}])
        for expected in (7, "no id"):
            with self.subTest(expected):
                _, after = self.connect(port).handshake()
                self.assertEqual([m.get("id", "no id") for m in after[2:]], [expected, expected])

    def test_huge_line_after_authorization(self):
        port = self.start_pool("--huge-line", "70000")
        client = self.connect(port)
        client.send(SUBSCRIBE)
        client.message()
        client.send(authorize())
        self.assertEqual(client.message()["id"], 3)
        huge = client.line()
        self.assertEqual(len(huge), 69999)
        self.assertEqual(json.loads(huge)["method"], "client.show_message")
        self.assertEqual(client.message()["method"], "mining.set_difficulty")

    def test_jsonrpc2_form(self):
        port = self.start_pool("--jsonrpc2")
        client = self.connect(port)
        _, after = client.handshake()
        self.assertEqual(after[1], {"jsonrpc": "2.0", "id": 3, "result": True})
        self.assertTrue(all(m["jsonrpc"] == "2.0" for m in after))
        client.send(submit("nope", "00" * 12))
        self.assertEqual(client.message(), {"jsonrpc": "2.0", "id": 4, "error": {"code": 21,
                                                                                 "message": "Job not found"}})


class BadJobTest(PoolTestCase):
    def test_each_kind_on_the_wire(self):
        shapes = {
            "invalid-hex": lambda p: p[1].startswith("zz") and len(p[1]) == 64,
            "hex-prefix": lambda p: p[1].startswith("0x") and p[3].startswith("0x") and len(p[1]) == 66,
            "short-header": lambda p: len(p[1]) == 62 and len(p[3]) == 64,
            "short-prevhash": lambda p: len(p[1]) == 64 and len(p[3]) == 62,
            "four-params": lambda p: len(p) == 4,
            "not-clean": lambda p: p[4] is False,
        }
        port = self.start_pool(connections=[{"bad_job": kind} for kind in shapes])
        for kind, shape in shapes.items():
            with self.subTest(kind):
                _, after = self.connect(port).handshake()
                self.assertTrue(shape(after[-1]["params"]), after[-1]["params"])

    def test_jobs_the_miner_refuses_leave_the_previous_job_valid(self):
        port = self.start_pool("--bad-job", "four-params", "--bad-job-every", "2", "--notify-interval", "1",
                               "--extranonce1", "", "--difficulty", repr(EASY_DIFFICULTY))
        client = self.connect(port)
        _, after = client.handshake()
        job_id, header = after[-1]["params"][:2]
        share = find_nonce(header, b"", EASY_TARGET, passing=True).hex()
        refused_job = client.next_job()
        self.assertEqual(len(refused_job), 4)
        client.send(submit(job_id, share))
        self.assertIsNone(client.response()["error"])
        client.send(submit(refused_job[0], "00" * 16))
        self.assertEqual(client.response()["error"], [21, "Job not found", None])


if __name__ == "__main__":
    unittest.main()
