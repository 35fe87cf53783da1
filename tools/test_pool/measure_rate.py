#!/usr/bin/env python3
"""Measures how many shares per second the test pool verifies.

    python3 tools/test_pool/measure_rate.py [--shares N]

Two figures: the hash-and-compare step alone, in this process; and the whole
path over loopback TCP against a pool process (JSON, verification, reply,
stats file), with the pool's own CPU time read from /proc so that a busy
machine shows up as wall time and not as a slower pool.
"""

import argparse
import json
import os
import re
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

import eaglesong  # noqa: E402
import targets  # noqa: E402


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as source:
        fields = source.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def measure_direct(count):
    header = bytes(range(32))
    mid = eaglesong.midstate(header)
    target = targets.difficulty_to_target(1.0)
    wall, cpu = time.perf_counter(), time.process_time()
    for counter in range(count):
        digest = eaglesong.hash_with_midstate(mid, counter.to_bytes(16, "big"))
        eaglesong.hash_value(digest) <= target
    return count / (time.perf_counter() - wall), count / (time.process_time() - cpu)


def measure_tcp(count, directory):
    pool = subprocess.Popen([sys.executable, os.path.join(os.path.dirname(os.path.abspath(__file__)), "pool.py"),
                             "--port", "0", "--quiet", "--extranonce1", "", "--notify-interval", "3600",
                             "--stats", os.path.join(directory, "stats.json")],
                            stdout=subprocess.PIPE, text=True)
    try:
        port = int(re.search(r":(\d+)$", pool.stdout.readline().strip()).group(1))
        sock = socket.create_connection(("127.0.0.1", port), timeout=60)
        reader = sock.makefile("rb")

        def send(message):
            sock.sendall(json.dumps(message).encode() + b"\n")

        send({"id": 1, "method": "mining.subscribe", "params": ["testminer", "testminer"]})
        send({"id": 3, "method": "mining.authorize", "params": ["acct", "x"]})
        job_id = None
        while job_id is None:
            message = json.loads(reader.readline())
            if message.get("method") == "mining.notify":
                job_id = message["params"][0]
        requests = b"".join(
            json.dumps({"id": 4, "method": "mining.submit", "params": ["acct", job_id, f"{n:032x}"]}).encode() + b"\n"
            for n in range(count))
        cpu_before, wall = cpu_seconds(pool.pid), time.perf_counter()
        sock.sendall(requests)
        answered = 0
        while answered < count:
            if json.loads(reader.readline()).get("id") == 4:
                answered += 1
        elapsed, cpu = time.perf_counter() - wall, cpu_seconds(pool.pid) - cpu_before
        sock.close()
        return count / elapsed, count / cpu if cpu > 0 else float("inf")
    finally:
        pool.terminate()
        pool.wait(timeout=30)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--shares", type=int, default=2000)
    count = parser.parse_args().shares
    wall, cpu = measure_direct(count)
    print(f"hash and compare: {wall:.0f} shares/s wall, {cpu:.0f} shares/s per CPU second")
    with tempfile.TemporaryDirectory() as directory:
        wall, cpu = measure_tcp(count, directory)
    print(f"over TCP: {wall:.0f} shares/s wall, {cpu:.0f} shares/s per pool CPU second")


if __name__ == "__main__":
    main()
