#!/usr/bin/env python3
"""Soak run: the miner with simulated boards against the test pool for a long
time, with faults thrown in at random, and a report of what was kept and lost.

    tools/soak/soak.py [--minutes 30] [--boards 8] [--ratecap 0.3] [--seed 1] [--json]

Needs a build (build/bin/ombry-sim-miner). Every few seconds to a minute one
fault is picked: a board running hot or sagging for a while, a board whose
reads fail or return all ones for a moment (then its faults are cleared),
invalid nonces from a board, or the pool going away and coming back on the
same port. The boards' search is capped (--ratecap, millions of hashes a
second each) so that the machine isn't saturated by the simulator.

Reported: shares the miner sent, the pool's verdicts, shares sent but never
answered (lost with a connection), reconnects, invalid nonces the miner saw,
and the miner's memory and open descriptors at the start and at the end.
"""
import argparse
import json
import os
import random
import re
import signal
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
MINER = os.path.join(ROOT, "build", "bin", "ombry-sim-miner")
POOL = os.path.join(ROOT, "tools", "test_pool", "pool.py")


class Pool:
    """One test pool process after another, on the same port."""

    def __init__(self, work, difficulty):
        self.work = work
        self.difficulty = difficulty
        self.port = 0
        self.process = None
        self.instances = []

    def start(self):
        number = len(self.instances)
        stats = os.path.join(self.work, f"pool-{number}.json")
        args = [sys.executable, POOL, "--port", str(self.port), "--quiet", "--difficulty", str(self.difficulty),
                "--notify-interval", "10", "--stats", stats]
        self.process = subprocess.Popen(args, stdout=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        match = re.search(r"listening on 127\.0\.0\.1:(\d+)", line)
        if not match:
            raise RuntimeError(f"the test pool did not start: {line!r}")
        self.port = int(match.group(1))
        self.instances.append(stats)

    def stop(self):
        if self.process and self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            self.process.wait(timeout=10)
        self.process = None

    def totals(self):
        totals = {"submits": 0, "accepted": 0, "rejected": 0, "connections": 0}
        for path in self.instances:
            try:
                with open(path, encoding="utf-8") as file:
                    stats = json.load(file)
            except (OSError, ValueError):
                continue
            for key in totals:
                totals[key] += stats.get(key, 0)
        return totals


def process_usage(pid):
    rss = 0
    try:
        with open(f"/proc/{pid}/status", encoding="utf-8") as status:
            for line in status:
                if line.startswith("VmRSS:"):
                    rss = int(line.split()[1])
        fds = len(os.listdir(f"/proc/{pid}/fd"))
    except OSError:
        return {"rss_kib": None, "descriptors": None}
    return {"rss_kib": rss, "descriptors": fds}


def send(control, line):
    with open(control, "w", encoding="utf-8") as pipe:
        pipe.write(line + "\n")


def run(options):
    if not os.access(MINER, os.X_OK):
        sys.exit(f"{MINER} is missing: build first (cmake --build build)")
    rng = random.Random(options.seed)
    work = tempfile.mkdtemp(prefix="ombry-soak-")
    boards = os.path.join(work, "boards.txt")
    with open(boards, "w", encoding="utf-8") as file:
        for index in range(options.boards):
            file.write(f"xdma{index} model={7 if index % 2 == 0 else 2} ratecap={options.ratecap}\n")
    os.symlink(os.path.join(ROOT, "bitstreams"), os.path.join(work, "bitstreams"))
    control = os.path.join(work, "control")
    log_path = os.path.join(work, "miner.log")

    pool = Pool(work, options.difficulty)
    pool.start()
    env = dict(os.environ, OMBRY_SIM_BOARDS=boards, OMBRY_SIM_CONTROL=control, OMBRY_DEVICE_DIR="/ombry-soak")
    log = open(log_path, "w", encoding="utf-8", errors="replace")
    # Verbose: the shares sent are counted from the raw lines.
    miner = subprocess.Popen([MINER, "ckb", "127.0.0.1", str(pool.port), "soak.rig", "x", "--verbose"], cwd=work,
                             env=env, stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT)
    faults = []
    try:
        time.sleep(15)  # boards up, first shares in
        start_usage = process_usage(miner.pid)
        end = time.monotonic() + options.minutes * 60
        while time.monotonic() < end and miner.poll() is None:
            time.sleep(min(rng.uniform(5, 60), max(0.0, end - time.monotonic())))
            if time.monotonic() >= end:
                break
            board = f"xdma{rng.randrange(options.boards)}"
            kind = rng.choice(["hot", "sag", "read_fail", "all_ones", "invalid", "pool"])
            faults.append(kind)
            if kind == "pool":
                pool.stop()
                time.sleep(rng.uniform(1, 8))
                pool.start()
            elif kind in ("hot", "sag", "invalid"):
                setting = {"hot": "hot=95", "sag": "sag=0.4", "invalid": "invalid_nonces=0.5"}[kind]
                send(control, f"{board} {setting}")
                time.sleep(rng.uniform(5, 20))
                send(control, f"{board} faults=none")
            else:
                send(control, f"{board} {kind}=1")
                time.sleep(rng.uniform(0.2, 2))
                send(control, f"{board} faults=none")
        end_usage = process_usage(miner.pid)
        alive = miner.poll() is None
    finally:
        if miner.poll() is None:
            miner.send_signal(signal.SIGTERM)
            try:
                miner.wait(timeout=60)
            except subprocess.TimeoutExpired:
                miner.kill()
                miner.wait()
        log.close()
        pool.stop()

    with open(log_path, encoding="utf-8", errors="replace") as file:
        text = file.read()
    sent = len(re.findall(r'Sending \{[^\n]*"mining\.submit"', text))
    accepted = text.count("Share Accepted!")
    rejected = text.count("Share was rejected")
    totals = pool.totals()
    report = {
        "minutes": options.minutes,
        "boards": options.boards,
        "miner_survived": alive,
        "exit_code": miner.returncode,
        "faults": {kind: faults.count(kind) for kind in sorted(set(faults))},
        "shares_sent": sent,
        "answered_accepted": accepted,
        "answered_rejected": rejected,
        "lost_unanswered": sent - accepted - rejected,
        "pool_received": totals["submits"],
        "pool_accepted": totals["accepted"],
        "pool_rejected": totals["rejected"],
        "reconnects": max(0, text.count("Stratum connected") - 1),
        "invalid_nonces": len(re.findall(r"share was invalid with nonce", text)),
        "crashed_boards": len(re.findall(r"has crashed, disabling", text)),
        "start": start_usage,
        "end": end_usage,
        "work_directory": work,
    }
    return report


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--minutes", type=float, default=30.0)
    parser.add_argument("--boards", type=int, default=8)
    parser.add_argument("--ratecap", type=float, default=0.3)
    parser.add_argument("--difficulty", type=float, default=0.001)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--json", action="store_true")
    options = parser.parse_args()
    report = run(options)
    if options.json:
        print(json.dumps(report, indent=2))
        return
    for key, value in report.items():
        print(f"{key:20} {value}")


if __name__ == "__main__":
    main()
