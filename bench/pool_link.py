#!/usr/bin/env python3
"""What the miner keeps of its shares when the pool misbehaves.

For each case, starts the test pool with one misbehaviour and the miner with
two in-process simulated boards whose search is capped (so every case finds
shares at the same pace), lets it mine, and reports what the pool counted:
accepted and rejected shares, duplicates, connections; and from the miner's
time-stamped log: reconnects and, for the silent pool, how long after the
pool's last line the miner gave the connection up.

    bench/pool_link.py [--seconds 40] [--cases clean,split,...]

Needs a build (build/bin/ombry-sim-miner). Not run by the tests.
"""
import argparse
import datetime
import json
import os
import re
import signal
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BOARDS = "xdma0 model=7 ratecap=2\nxdma1 model=2 ratecap=2\n"
POOL = ["--difficulty", "0.0002", "--notify-interval", "5", "--seed", "9"]

# name: (pool options, settings of the pool's first connection or None, seconds or None for the default)
CASES = {
    "clean": ([], None, None),
    "split": (["--split-lines", "2", "--split-random", "--split-delay", "0.03"], None, None),
    "stalled-subscribe": ([], {"subscribe": "silent"}, None),
    "silent": ([], {"silent_after": 8}, 120),
    "silent-no-shares": (["--difficulty", "1000"], {"silent_after": 8}, 120),
    "refused-login": ([], {"authorize": "error"}, None),
    "drops": (["--close-after", "12", "--resend-job", "--extranonce1", "a1a2a3a4"], None, None),
    "refused-connections": (["--refuse-for", "10"], None, None),
}

STAMP = re.compile(rb"^(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3})Z ")


def start_pool(work, options):
    stats = os.path.join(work, "stats.json")
    pool = subprocess.Popen(
        [sys.executable, os.path.join(ROOT, "tools/test_pool/pool.py"), "--port", "0", "--quiet",
         "--stats", stats] + options, stdout=subprocess.PIPE)
    for line in pool.stdout:
        found = re.search(rb"listening on 127\.0\.0\.1:(\d+)", line)
        if found:
            return pool, int(found.group(1)), stats
    raise RuntimeError("the test pool did not start")


def seconds_of(stamp):
    return datetime.datetime.fromisoformat(stamp.decode()).timestamp()


def silence_detected_after(log):
    """Seconds from the pool's last line to the miner's verdict that it went
    silent (no line for a while, or a share left unanswered), and which."""
    last_line = None
    for line in log:
        stamp = STAMP.match(line)
        if not stamp:
            continue
        if b"Received Message" in line:
            last_line = seconds_of(stamp.group(1))
        elif last_line is not None:
            for text, cause in ((b"No line from the pool for", "no line"), (b"left a share unanswered", "share")):
                if text in line:
                    return seconds_of(stamp.group(1)) - last_line, cause
    return None


def run(name, seconds):
    options, first, own_seconds = CASES[name]
    seconds = own_seconds or seconds
    with tempfile.TemporaryDirectory(prefix="ombry-pool-link-") as work:
        with open(os.path.join(work, "boards.txt"), "w") as board_list:
            board_list.write(BOARDS)
        os.symlink(os.path.join(ROOT, "bitstreams"), os.path.join(work, "bitstreams"))
        if first is not None:
            script = os.path.join(work, "script.json")
            with open(script, "w") as out:
                json.dump({"connections": [first]}, out)
            options = options + ["--script", script]
        pool, port, stats_path = start_pool(work, POOL + options)
        log_path = os.path.join(work, "miner.log")
        env = dict(os.environ, OMBRY_SIM_BOARDS=os.path.join(work, "boards.txt"))
        miner = subprocess.Popen(
            [os.path.join(ROOT, "build/bin/ombry-sim-miner"), "ckb", "127.0.0.1", str(port), "bench.rig", "x",
             "--log-file", log_path, "--verbose"],  # the raw lines time the pool's last one
            cwd=work, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(seconds)
        miner.send_signal(signal.SIGTERM)
        try:
            miner.wait(timeout=60)
        except subprocess.TimeoutExpired:
            miner.kill()
            miner.wait()
        pool.terminate()
        pool.wait()
        with open(stats_path) as source:
            stats = json.load(source)
        with open(log_path, "rb") as source:
            log = source.readlines()
        reconnects = sum(b"Stratum state Idle -> Connecting" in line for line in log) - 1
        return {
            "seconds": seconds,
            "accepted": stats.get("accepted", 0),
            "rejected": stats.get("rejected", 0),
            "duplicate": stats.get("rejected_by_reason", {}).get("duplicate", 0),
            "submits": stats.get("submits", 0),
            "connections": stats.get("connections", 0),
            "reconnects": reconnects,
            "silence": silence_detected_after(log),
        }


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seconds", type=float, default=40.0)
    parser.add_argument("--cases", default=",".join(CASES))
    options = parser.parse_args()
    print(f"{'case':<20} {'s':>4} {'accepted':>8} {'rejected':>8} {'dupl.':>5} {'submits':>7} "
          f"{'conns':>5} {'reconn.':>7} {'silence found after':>21}")
    for name in options.cases.split(","):
        r = run(name, options.seconds)
        silence = f"{r['silence'][0]:.1f} s ({r['silence'][1]})" if r["silence"] is not None else "-"
        print(f"{name:<20} {r['seconds']:>4.0f} {r['accepted']:>8} {r['rejected']:>8} {r['duplicate']:>5} "
              f"{r['submits']:>7} {r['connections']:>5} {r['reconnects']:>7} {silence:>21}")
        sys.stdout.flush()


if __name__ == "__main__":
    main()
