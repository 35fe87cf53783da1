"""Shared pieces of the pool tests: an in-process pool, a raw line client, and
a brute-force share finder that uses the general sponge, not the pool's
midstate path."""

import json
import os
import socket
import sys
import unittest

SOURCE_DIR = os.environ.get("OMBRY_SOURCE_DIR") or os.path.join(os.path.dirname(__file__), "..", "..")
POOL_DIR = os.path.join(SOURCE_DIR, "tools", "test_pool")
sys.path.insert(0, POOL_DIR)

import eaglesong  # noqa: E402
import pool as test_pool  # noqa: E402

# Difficulty 2**-28 has the exact target 0xFFFF * 2**236: about one hash in
# sixteen passes, so both kinds of nonce are found in a few dozen tries.
EASY_DIFFICULTY = 2.0 ** -28
EASY_TARGET = 0xFFFF << 236

def submit(job_id, nonce_text, account="acct"):
    return {"jsonrpc": "2.0", "id": 4, "method": "mining.submit", "params": [account, job_id, nonce_text]}


def find_nonce(header_hex, extranonce1, target, passing, start=0):
    """Nonce bytes after extranonce1 whose 48-byte message hashes at most
    (passing) or above (not passing) the target."""
    header = bytes.fromhex(header_hex)
    tail_length = 16 - len(extranonce1)
    for counter in range(start, start + 100000):
        tail = (counter % (1 << (8 * tail_length))).to_bytes(tail_length, "big")
        digest = eaglesong.eaglesong(header + extranonce1 + tail)
        if (int.from_bytes(digest, "big") <= target) == passing:
            return tail
    raise AssertionError("no nonce found")


class Client:
    """A line client over real TCP. Reads time out so a silent pool fails a test, never hangs it."""

    def __init__(self, port):
        self.sock = socket.create_connection(("127.0.0.1", port), timeout=10)
        self.buffer = b""

    def send(self, message):
        self.sock.sendall(json.dumps(message).encode() + b"\n")

    def message(self):
        while b"\n" not in self.buffer:
            data = self.sock.recv(65536)
            if not data:
                raise EOFError("pool closed the connection")
            self.buffer += data
        line, self.buffer = self.buffer.split(b"\n", 1)
        return json.loads(line)

    def handshake(self):
        """Subscribe, extranonce subscribe, authorize; returns the subscribe
        result and the messages up to and including the first job."""
        self.send({"jsonrpc": "2.0", "id": 1, "method": "mining.subscribe", "params": ["testminer", "testminer"]})
        subscribed = self.message()
        self.send({"jsonrpc": "2.0", "id": 2, "method": "mining.extranonce.subscribe", "params": []})
        self.send({"jsonrpc": "2.0", "id": 3, "method": "mining.authorize", "params": ["acct", "x"]})
        after = []
        while not after or after[-1].get("method") != "mining.notify":
            after.append(self.message())
        return subscribed["result"], after

    def response(self, msg_id=4):
        """The next response with this id, skipping notifications that come between."""
        while True:
            message = self.message()
            if message.get("id") == msg_id and "method" not in message:
                return message


class PoolTestCase(unittest.TestCase):
    def start_pool(self, *flags, connections=()):
        """Starts an in-process pool configured by command-line flags."""
        options, _, _ = test_pool.options_from_arguments(list(flags))
        pool = test_pool.Pool(options, connections, seed=7, quiet=True)
        port = pool.start()
        self.addCleanup(pool.stop)
        self.pool = pool
        return port

    def connect(self, port):
        client = Client(port)
        self.addCleanup(client.sock.close)
        return client
