#!/usr/bin/env python3
"""Prints the straight-line XOR form of the Eaglesong bit matrix.

Each new word is the XOR of a fixed set of old words. Pairs that several rows
share are computed once (greedy: always the most common pair first), which
cuts the XOR count well below the plain per-row form. The output is the body
of EAGLESONG_BIT_MATRIX in src/hash/eaglesong_round.h; the hash tests check it
against a table-driven matrix.
"""
import itertools
import random

# Row i: the new words (most significant bit = word 0) that old word i feeds.
ROWS = [0xf5f1, 0x7af9, 0x3d7d, 0x1ebf, 0xfaae, 0x88a7, 0xb1a2, 0xad21,
        0x5691, 0x2b49, 0x15a5, 0x0ad3, 0xf098, 0x784c, 0x3c26, 0xebe3]


def columns():
    return [{i for i in range(16) if ROWS[i] >> (15 - j) & 1} for j in range(16)]


def factor(cols):
    """Returns (temps, cols): temps[k] = (a, b) defines variable 16 + k."""
    cols = [set(c) for c in cols]
    temps = []
    while True:
        counts = {}
        for c in cols:
            for pair in itertools.combinations(sorted(c), 2):
                counts[pair] = counts.get(pair, 0) + 1
        if not counts:
            break
        best = max(counts.items(), key=lambda kv: (kv[1], [-x for x in kv[0]]))
        if best[1] < 2:
            break
        a, b = best[0]
        var = 16 + len(temps)
        temps.append((a, b))
        for c in cols:
            if a in c and b in c:
                c -= {a, b}
                c.add(var)
    return temps, cols


def name(v):
    return f"s[{v}]" if v < 16 else f"m{v - 16}"


def check(temps, cols):
    for _ in range(64):
        old = [random.getrandbits(32) for _ in range(16)]
        val = list(old)
        for a, b in temps:
            val.append(val[a] ^ val[b])
        for j, c in enumerate(columns()):
            want = 0
            for i in c:
                want ^= old[i]
            got = 0
            for v in cols[j]:
                got ^= val[v]
            assert got == want, j


def main():
    temps, cols = factor(columns())
    check(temps, cols)
    xors = len(temps) + sum(len(c) - 1 for c in cols)
    plain = sum(len(c) - 1 for c in columns())
    lines = [f"// {xors} XORs ({plain} without shared sums)."]
    lines.append("#define EAGLESONG_BIT_MATRIX(W, s, t)")
    body = [f"const W m{k} = {name(a)} ^ {name(b)};" for k, (a, b) in enumerate(temps)]
    body += [f"t[{j}] = " + " ^ ".join(name(v) for v in sorted(c)) + ";" for j, c in enumerate(cols)]
    lines.append("  do {")
    lines += ["    " + line for line in body]
    lines.append("  } while (0)")
    width = max(len(line) for line in lines[1:])
    for i, line in enumerate(lines):
        if i == 0 or i == len(lines) - 1:
            print(line)
        else:
            print(line.ljust(width) + " \\")


if __name__ == "__main__":
    main()
