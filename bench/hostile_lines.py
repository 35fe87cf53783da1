#!/usr/bin/env python3
"""What one hostile line from the pool does to a mining rig.

For each line, starts the test pool and the miner with two in-process
simulated boards whose search is capped (so every run finds shares at the
same pace), lets it mine for --settle seconds, has the pool send the line,
and then watches for --after seconds: the miner's peak resident memory
(VmHWM), the shares the pool accepted and rejected, whether the miner is
still alive, and whether its output or log holds the pool password or a raw
escape byte. Every build given runs every line, one after the other, so the
builds are measured side by side:

    bench/hostile_lines.py --build build --build build-main/build [--lines clean,bplist-bomb,...]

The miner's address space is capped (--limit-gib, default 4) so that a build
that swallows memory stops at that size instead of taking the machine with
it; such a run shows a peak near the cap and "died". Not run by the tests.
"""
import argparse
import json
import os
import resource
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BOARDS = "xdma0 model=7 ratecap=1\nxdma1 model=2 ratecap=1\n"
POOL = ["--difficulty", "0.0002", "--seed", "9"]
PASSWORD = "Pa55-s3cret"
HASH = "a" * 64


def notification(method, params):
    return b'{"id":null,"method":"%s","params":%s}' % (method.encode(), params.encode())


def bplist_bomb(string_bytes=430000, references=430000):
    """A binary property list whose root array names one string again and
    again: a reader that follows every reference copies the string each
    time (references x string_bytes bytes). No byte of it is a line feed."""
    while True:
        out = bytearray(b"bplist00\xaf\x12") + references.to_bytes(4, "big") + b"\x01" * references
        string = len(out)
        out += b"\x5f\x12" + string_bytes.to_bytes(4, "big") + b"x" * string_bytes
        table = len(out)
        out += (8).to_bytes(4, "big") + string.to_bytes(4, "big")
        out += bytes(6) + b"\x04\x01" + (2).to_bytes(8, "big") + bytes(8) + table.to_bytes(8, "big")
        if b"\n" not in out:
            return bytes(out)
        references += 1


def key_flood(keys):
    return b'{"id":null,"method":"mining.noise","params":{' + b",".join(b'"k%d":0' % i for i in range(keys)) + b"}}"


LINES = {
    "clean": None,
    "bplist-bomb": bplist_bomb,
    "deep-error": lambda: b'{"id":4,"result":null,"error":' + b"[" * 40000 + b"]" * 40000 + b"}",
    "key-flood-45k": lambda: key_flood(45000),
    "huge-string": lambda: notification("client.show_message", '["' + "x" * 1000000 + '"]'),
    "difficulty-minus-1": lambda: notification("mining.set_difficulty", "[-1]"),
    "difficulty-1e-05": lambda: notification("mining.set_difficulty", "[1e-05]"),
    "zero-target": lambda: notification("mining.set_target", '["%s"]' % ("0" * 64)),
    "escapes-in-method": lambda: (b'{"id":null,"method":"\x1b[2J\x1b]0;pwned\x07\rI/Miner        : Share Accepted!",'
                                  b'"params":[]}'),
    "non-hex-header": lambda: notification("mining.notify", '["evil","zz%s",1,"%s",true]' % (HASH[2:], HASH)),
    "numeric-job-id": lambda: notification("mining.notify", '[7,"%s",1,"%s",true]' % (HASH, HASH)),
    "extranonce1-17-bytes": lambda: notification("mining.set_extranonce", '["%s",4]' % ("11" * 17)),
}


def start_pool(work, inject, notify_interval):
    stats = os.path.join(work, "stats.json")
    pool = subprocess.Popen(
        [sys.executable, os.path.join(ROOT, "tools/test_pool/pool.py"), "--port", "0", "--quiet", "--stats", stats,
         "--inject-dir", inject, "--notify-interval", str(notify_interval)] + POOL, stdout=subprocess.PIPE)
    for line in pool.stdout:
        if line.startswith(b"listening on 127.0.0.1:"):
            return pool, int(line.rsplit(b":", 1)[1]), stats
    raise RuntimeError("the test pool did not start")


def read_stats(path):
    try:
        with open(path) as source:
            return json.load(source)
    except (OSError, ValueError):
        return {}


def peak_kib(pid):
    try:
        with open(f"/proc/{pid}/status") as status:
            for line in status:
                if line.startswith("VmHWM:"):
                    return int(line.split()[1])
    except OSError:
        pass
    return 0



def sim_miner(build):
    """The simulated miner of a build tree: in bin/, or in sim/ in older trees."""
    for place in ("bin", "sim"):
        path = os.path.join(build, place, "ombry-sim-miner")
        if os.path.exists(path):
            return path
    sys.exit(f"no ombry-sim-miner in {build}")

def run(build, name, settle, after, limit_gib, notify_interval):
    with tempfile.TemporaryDirectory(prefix="ombry-hostile-") as work:
        with open(os.path.join(work, "boards.txt"), "w") as board_list:
            board_list.write(BOARDS)
        os.symlink(os.path.join(ROOT, "bitstreams"), os.path.join(work, "bitstreams"))
        inject = os.path.join(work, "inject")
        os.mkdir(inject)
        pool, port, stats_path = start_pool(work, inject, notify_interval)
        log_path, out_path = os.path.join(work, "miner.log"), os.path.join(work, "miner.out")
        env = dict(os.environ, OMBRY_SIM_BOARDS=os.path.join(work, "boards.txt"))
        limit = int(limit_gib * (1 << 30))

        def cap():
            resource.setrlimit(resource.RLIMIT_AS, (limit, limit))

        with open(out_path, "wb") as out:
            miner = subprocess.Popen(
                [sim_miner(build), "ckb", "127.0.0.1", str(port), "bench.rig", PASSWORD,
                 "--log-file", log_path],
                cwd=work, env=env, stdin=subprocess.DEVNULL, stdout=out, stderr=subprocess.STDOUT, preexec_fn=cap)
            peak = 0
            deadline = time.monotonic() + settle
            while time.monotonic() < deadline:
                peak = max(peak, peak_kib(miner.pid))
                time.sleep(0.25)
            before = read_stats(stats_path)
            if LINES[name] is not None:
                with open(os.path.join(inject, "next"), "wb") as line:
                    line.write(LINES[name]())
                os.rename(os.path.join(inject, "next"), os.path.join(inject, "0.line"))
            deadline = time.monotonic() + after
            while time.monotonic() < deadline and miner.poll() is None:
                peak = max(peak, peak_kib(miner.pid))
                time.sleep(0.25)
            time.sleep(max(0.0, deadline - time.monotonic()))
            alive = miner.poll() is None
            end = read_stats(stats_path)
            if alive:
                miner.terminate()
            try:
                miner.wait(timeout=60)
            except subprocess.TimeoutExpired:
                miner.kill()
                miner.wait()
        pool.terminate()
        pool.wait()
        text = b""
        for path in (log_path, out_path):
            if os.path.exists(path):
                with open(path, "rb") as source:
                    text += source.read()
        return {
            "peak_mib": peak / 1024,
            "accepted": end.get("accepted", 0) - before.get("accepted", 0),
            "rejected": end.get("rejected", 0) - before.get("rejected", 0),
            "alive": alive,
            "password": PASSWORD.encode() in text,
            "escape": b"\x1b" in text,
        }


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", action="append", help="build directory (repeatable); default build")
    parser.add_argument("--lines", default=",".join(LINES))
    parser.add_argument("--settle", type=float, default=15.0, help="seconds of mining before the line")
    parser.add_argument("--after", type=float, default=45.0, help="seconds watched after it")
    parser.add_argument("--limit-gib", type=float, default=4.0, help="the miner's address-space cap")
    parser.add_argument("--notify-interval", type=float, default=2.0,
                        help="seconds between the pool's jobs: how soon a bad job or difficulty is replaced")
    options = parser.parse_args()
    builds = [os.path.abspath(b) for b in (options.build or ["build"])]
    print(f"{'line':<22} {'build':<28} {'peak MiB':>9} {'accepted':>8} {'rejected':>8} {'miner':>6} "
          f"{'password':>8} {'raw ESC':>7}")
    for name in options.lines.split(","):
        for build in builds:
            r = run(build, name, options.settle, options.after, options.limit_gib, options.notify_interval)
            shown = os.path.relpath(build, ROOT)
            print(f"{name:<22} {shown:<28} {r['peak_mib']:>9.1f} {r['accepted']:>8} {r['rejected']:>8} "
                  f"{'alive' if r['alive'] else 'died':>6} {'shown' if r['password'] else '-':>8} "
                  f"{'yes' if r['escape'] else '-':>7}")
            sys.stdout.flush()


if __name__ == "__main__":
    main()
