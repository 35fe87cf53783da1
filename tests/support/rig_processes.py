"""What the Python tests of a whole rig share: where the sources and the
build are, waits for an event with a guard, and processes a test starts in a
scratch directory and stops at its end."""

import os
import re
import shutil
import socket
import subprocess
import tempfile
import time
import unittest

SOURCE_DIR = os.environ.get("OMBRY_SOURCE_DIR") or os.path.join(os.path.dirname(__file__), "..", "..")
BUILD_DIR = os.environ.get("OMBRY_BUILD_DIR") or os.path.join(SOURCE_DIR, "build")
GUARD = 120  # seconds, for any one event


def wait_for(what, probe, guard=GUARD):
    """Polls `probe` until it returns something true; fails after `guard` seconds."""
    deadline = time.monotonic() + guard
    while True:
        value = probe()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"timed out waiting for {what}")
        time.sleep(0.25)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Process:
    def __init__(self, name, args, workdir, env=None):
        self.name = name
        self.log_path = os.path.join(workdir, name + ".log")
        self.log = open(self.log_path, "w")
        self.popen = subprocess.Popen(args, cwd=workdir, stdin=subprocess.DEVNULL, stdout=self.log,
                                      stderr=subprocess.STDOUT, env={**os.environ, **(env or {})})

    def output(self):
        with open(self.log_path, errors="replace") as log:
            return log.read()

    def stop(self):
        if self.popen.poll() is None:
            self.popen.terminate()
            try:
                self.popen.wait(timeout=20)
            except subprocess.TimeoutExpired:
                self.popen.kill()
                self.popen.wait()
        self.log.close()


class RigTest(unittest.TestCase):
    """A scratch directory and the processes a test starts, stopped at its end."""
    TOOLS = ()

    def setUp(self):
        for tool in self.TOOLS:
            self.assertIsNotNone(shutil.which(tool), f"{tool} is missing: run scripts/install-deps.sh")
        self.dir = tempfile.mkdtemp(prefix="ombry-test-")
        self.processes = []
        self.addCleanup(shutil.rmtree, self.dir, ignore_errors=True)
        self.addCleanup(self.stop_all)

    def stop_all(self):
        """Stops everything and shows how each process ended (ctest shows it on failure)."""
        for process in reversed(self.processes):
            process.stop()
            print(f"---- {process.name}, last lines\n" + "\n".join(process.output().splitlines()[-15:]))

    def start(self, name, args, env=None, workdir=None):
        process = Process(name, args, workdir or self.dir, env)
        self.processes.append(process)
        return process

    def start_pool(self):
        pool = self.start("pool", ["python3", os.path.join(SOURCE_DIR, "tools", "test_pool", "pool.py"), "--port", "0",
                                   "--difficulty", "0.002", "--notify-interval", "2"])
        return int(wait_for("the pool", lambda: re.search(r"listening on 127\.0\.0\.1:(\d+)", pool.output())).group(1))
