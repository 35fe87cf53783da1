"""The pool's own Eaglesong and its difficulty arithmetic."""

import math
import os
import unittest

from pool_harness import eaglesong

import targets

VECTORS = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "hash", "eaglesong_vectors.txt")


def published_vectors():
    """(message, digest) pairs from the Input and Output lines, which alternate."""
    with open(VECTORS) as source:
        values = [line.split("=", 1)[1].strip() for line in source if line.startswith(("Input", "Output"))]
    return [(bytes.fromhex(message), digest.lower()) for message, digest in zip(values[::2], values[1::2])]


class EaglesongTest(unittest.TestCase):
    def test_published_vectors(self):
        vectors = published_vectors()
        # Lengths around the block and word edges: 0, 1, 3, 14, 26, 62, 80, 128, ...
        self.assertGreaterEqual(len(vectors), 9)
        for message, expected in vectors:
            with self.subTest(length=len(message)):
                self.assertEqual(eaglesong.eaglesong(message).hex(), expected)


class DifficultyTest(unittest.TestCase):
    # (difficulty, w3, w2, w1, w0): the miner's own table, out-of-range rows included.
    TABLE = [
        (1.0, 0x00000000FFFF0000, 0, 0, 0),
        (0.0, 0x00000000FFFF0000, 0, 0, 0),
        (-0.0, 0x00000000FFFF0000, 0, 0, 0),
        (2.0, 0x000000007FFF8000, 0, 0, 0),
        (0.5, 0x00000001FFFE0000, 0, 0, 0),
        (1024.0, 0x00000000003FFFC0, 0, 0, 0),
        (3.5, 0x0000000049244924, 0x9249240000000000, 0, 0),
        (1e-9, 0x3B9A8E6535FFFE00, 0, 0, 0),
        (1e-12, 0, 0, 0, 0),
        (math.inf, 0, 0, 0, 0),
        (math.nan, 1 << 63, 1 << 63, 1 << 63, 1 << 63),
        (-1.0, 0xFFFFFFFF00010000, 1 << 63, 1 << 63, 1 << 63),
    ]

    def test_difficulty_to_target_table(self):
        for difficulty, w3, w2, w1, w0 in self.TABLE:
            with self.subTest(difficulty=difficulty):
                self.assertEqual(targets.difficulty_to_words(difficulty), (w0, w1, w2, w3))

    def test_sent_target_comes_back_through_a_difficulty(self):
        # Exact powers survive the round trip; an arbitrary target is rounded
        # to what the miner will really use, and stays within a part in 2**50.
        self.assertEqual(targets.effective_target_of_sent_target(0xFFFF << 236), 0xFFFF << 236)
        self.assertEqual(targets.target_to_difficulty(0xFFFF << 208), 1.0)
        odd = int("00000000ffff1234567890abcdef1234567890abcdef1234567890abcdef1234", 16)
        effective = targets.effective_target_of_sent_target(odd)
        self.assertLess(abs(effective - odd), odd >> 50)
        self.assertEqual(targets.target_to_difficulty(0), math.inf)
        self.assertEqual(targets.effective_target_of_sent_target(0), 0)


if __name__ == "__main__":
    unittest.main()
