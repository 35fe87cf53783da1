#!/usr/bin/env python3
"""How many simulated boards one host runs with the status table still on its
five-second cadence.

For each board count, starts the test pool and the miner with that many
in-process simulated boards (model 7, searching slowly on one shared thread,
so that the simulator's own work stays small), lets it mine, and stamps every
status table heading as it arrives. Reports the intervals between tables after
the first and how busy the machine was.

    bench/table_cadence.py [--boards 8,32,64,128] [--seconds 40]

Needs a build (build/bin/ombry-sim-miner). Not run by the tests.
"""
import argparse
import os
import re
import signal
import subprocess
import sys
import tempfile
import threading
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
HEADING = b"Id | Model | Core T"


def start_pool(work):
    pool = subprocess.Popen(
        [sys.executable, os.path.join(ROOT, "tools/test_pool/pool.py"), "--port", "0", "--quiet",
         "--difficulty", "0.5", "--notify-interval", "30", "--stats", os.path.join(work, "stats.json")],
        stdout=subprocess.PIPE)
    for line in pool.stdout:
        found = re.search(rb"listening on 127\.0\.0\.1:(\d+)", line)
        if found:
            return pool, int(found.group(1))
    raise RuntimeError("the test pool did not start")


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def run(boards, seconds):
    with tempfile.TemporaryDirectory(prefix="ombry-cadence-") as work:
        with open(os.path.join(work, "boards.txt"), "w") as board_list:
            for n in range(boards):
                board_list.write(f"xdma{n} model=7 engine=shared ratecap=0.02\n")
        os.symlink(os.path.join(ROOT, "bitstreams"), os.path.join(work, "bitstreams"))
        pool, port = start_pool(work)
        env = dict(os.environ, OMBRY_SIM_BOARDS=os.path.join(work, "boards.txt"))
        miner = subprocess.Popen(
            [os.path.join(ROOT, "build/bin/ombry-sim-miner"), "ckb", "127.0.0.1", str(port), "bench.rig", "x"],
            cwd=work, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        stamps = []

        def read():
            for line in miner.stdout:
                if HEADING in line:
                    stamps.append(time.monotonic())

        reader = threading.Thread(target=read, daemon=True)
        reader.start()
        start, cpu_start = time.monotonic(), cpu_seconds(miner.pid)
        time.sleep(seconds)
        cpu = cpu_seconds(miner.pid) - cpu_start
        wall = time.monotonic() - start
        miner.send_signal(signal.SIGTERM)
        try:
            miner.wait(timeout=60)
        except subprocess.TimeoutExpired:
            miner.kill()
            miner.wait()
        reader.join(timeout=5)
        pool.terminate()
        pool.wait()
        intervals = [b - a for a, b in zip(stamps[1:], stamps[2:])]
        return intervals, cpu / wall


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--boards", default="8,32,64,128")
    parser.add_argument("--seconds", type=float, default=40.0)
    options = parser.parse_args()
    print(f"{'boards':>6} {'tables':>6} {'mean s':>7} {'max s':>6} {'miner CPU':>9}")
    for boards in (int(n) for n in options.boards.split(",")):
        intervals, busy = run(boards, options.seconds)
        if intervals:
            print(f"{boards:>6} {len(intervals):>6} {sum(intervals) / len(intervals):>7.2f} {max(intervals):>6.2f} "
                  f"{busy * 100:>8.0f}%")
        else:
            print(f"{boards:>6} {0:>6} {'-':>7} {'-':>6} {busy * 100:>8.0f}%")
        sys.stdout.flush()


if __name__ == "__main__":
    main()
