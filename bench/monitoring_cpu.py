#!/usr/bin/env python3
"""The miner's CPU per board with the JSON API and the metrics scraped every
second, against the same run without scrapes.

Starts the test pool and the miner with in-process simulated boards (model 7,
searching slowly on one shared thread, so that the simulator's own work stays
small and the same in both runs), both servers on, and measures the miner's
CPU time over a stretch of mining: once with nobody asking, once with one
`devs` request, one `summary` request and one metrics scrape every second.

    bench/monitoring_cpu.py [--boards 8] [--seconds 60]

Needs a build (build/bin/ombry-sim-miner). Not run by the tests.
"""
import argparse
import os
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def start_pool(work):
    pool = subprocess.Popen(
        [sys.executable, os.path.join(ROOT, "tools/test_pool/pool.py"), "--port", "0", "--quiet",
         "--difficulty", "0.0005", "--notify-interval", "30"], stdout=subprocess.PIPE)
    for line in pool.stdout:
        found = re.search(rb"listening on 127\.0\.0\.1:(\d+)", line)
        if found:
            return pool, int(found.group(1))
    raise RuntimeError("the test pool did not start")


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def ask(port, request):
    with socket.create_connection(("127.0.0.1", port), timeout=5) as connection:
        connection.sendall(request)
        connection.shutdown(socket.SHUT_WR)
        while connection.recv(65536):
            pass


def run(boards, seconds, scrape):
    with tempfile.TemporaryDirectory(prefix="ombry-monitoring-") as work:
        with open(os.path.join(work, "boards.txt"), "w") as board_list:
            for n in range(boards):
                board_list.write(f"xdma{n} model=7 engine=shared ratecap=0.05\n")
        os.symlink(os.path.join(ROOT, "bitstreams"), os.path.join(work, "bitstreams"))
        pool, port = start_pool(work)
        api, metrics = free_port(), free_port()
        env = dict(os.environ, OMBRY_SIM_BOARDS=os.path.join(work, "boards.txt"))
        miner = subprocess.Popen(
            [os.path.join(ROOT, "build/bin/ombry-sim-miner"), "ckb", "127.0.0.1", str(port), "bench.rig", "x",
             "--api-listen", f"127.0.0.1:{api}", "--metrics-listen", f"127.0.0.1:{metrics}"],
            cwd=work, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(15)  # the boards up and mining
        stop = threading.Event()

        def scraper():
            while not stop.wait(1.0):
                ask(api, b'{"command":"devs"}')
                ask(api, b"summary")
                ask(metrics, b"GET /metrics HTTP/1.1\r\nHost: rig\r\n\r\n")

        thread = threading.Thread(target=scraper, daemon=True)
        if scrape:
            thread.start()
        start, cpu_start = time.monotonic(), cpu_seconds(miner.pid)
        time.sleep(seconds)
        cpu = cpu_seconds(miner.pid) - cpu_start
        wall = time.monotonic() - start
        stop.set()
        if scrape:
            thread.join()
        miner.send_signal(signal.SIGTERM)
        try:
            miner.wait(timeout=60)
        except subprocess.TimeoutExpired:
            miner.kill()
            miner.wait()
        pool.terminate()
        pool.wait()
        return cpu / wall


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--boards", type=int, default=8)
    parser.add_argument("--seconds", type=float, default=60.0)
    options = parser.parse_args()
    quiet = run(options.boards, options.seconds, scrape=False)
    scraped = run(options.boards, options.seconds, scrape=True)
    print(f"{options.boards} boards, {options.seconds:.0f} s each")
    print(f"  no scrapes:            {quiet * 100:6.2f} % of a core, {quiet * 100 / options.boards:5.3f} % per board")
    print(f"  scraped every second:  {scraped * 100:6.2f} % of a core, "
          f"{scraped * 100 / options.boards:5.3f} % per board")
    print(f"  difference:            {(scraped - quiet) * 100:+6.2f} % of a core")


if __name__ == "__main__":
    main()
