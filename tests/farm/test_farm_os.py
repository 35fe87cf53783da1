"""The farm OS packages and the status page, on a rig of two simulated boards.

scripts/farm-packages.sh builds both packages; each is unpacked and run as its
OS runs it: HiveOS's h-config.sh and h-stats.sh sourced with a fake flight
sheet exported, h-run.sh executed and stopped with Ctrl+C (SIGINT), mmpOS's
mmp-stats.sh called with the device count and the log file. Every field the
scripts report is checked board by board against the miner's own API, and the
status page is rendered by headless Chromium. The packaged miner is replaced
by ombry-sim-miner, the same miner with boards simulated in its process."""

import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tarfile
import threading
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))
from rig_processes import BUILD_DIR, SOURCE_DIR, RigTest, free_port, wait_for  # noqa: E402

# A narrow board without a regulator sensor and a wide one with it.
BOARDS = "xdma0 model=7\nxdma1 model=4\n"
HIVE_FILES = {"h-manifest.conf", "h-config.sh", "h-run.sh", "h-stats.sh", "ombry-miner", "bitstreams"}
MMP_FILES = {"mmp-external.conf", "mmp-stats.sh", "ombry-miner", "bitstreams"}


def api(port, command):
    try:
        with socket.create_connection(("127.0.0.1", port), timeout=10) as connection:
            connection.sendall(command.encode())
            answer = b"".join(iter(lambda: connection.recv(65536), b""))
        return json.loads(answer)
    except (OSError, ValueError):
        return None


def bash(script, cwd, env=None):
    """Runs `script` in bash as the OS would, returning its standard output."""
    run = subprocess.run(["bash", "-c", script], cwd=cwd, env={**os.environ, **(env or {})}, capture_output=True,
                         text=True, timeout=60)
    if run.returncode != 0:
        raise AssertionError(f"{script} ended with {run.returncode}: {run.stderr}")
    return run.stdout


def fields(record, *names):
    return tuple(record[name] for name in names)


def set_variable(path, name, value):
    text, count = re.subn(rf"^{name}=.*$", f"{name}={value}", pathlib.Path(path).read_text(), flags=re.M)
    assert count == 1, f"{name} in {path}"
    pathlib.Path(path).write_text(text)


class FakeApi:
    """Canned answers of a rig whose boards have PCI addresses, which no
    simulated board has: the one thing the scripts read that a test rig
    cannot give."""

    def __init__(self, answers):
        self.server = socket.create_server(("127.0.0.1", 0))
        self.port = self.server.getsockname()[1]
        threading.Thread(target=self.serve, args=(answers,), daemon=True).start()

    def serve(self, answers):
        while True:
            connection, _ = self.server.accept()
            with connection:
                command = connection.recv(4096).decode().strip()
                connection.sendall(json.dumps(answers[command]).encode())


class FarmPackagesTest(RigTest):
    TOOLS = ("jq", "nc", "chromium")

    def setUp(self):
        super().setUp()
        version = subprocess.run([os.path.join(BUILD_DIR, "bin", "ombry-miner"), "--version"], capture_output=True,
                                 text=True).stdout.split()[1]
        self.version = version.replace("-", ".")
        subprocess.run([os.path.join(SOURCE_DIR, "scripts", "farm-packages.sh"), "--binary",
                        os.path.join(BUILD_DIR, "bin", "ombry-miner"), "--out", os.path.join(self.dir, "out")],
                       check=True, capture_output=True)

    def unpack(self, farm_os, files):
        """The package's one folder, unpacked; the miner in it made the simulated one."""
        tarball = os.path.join(self.dir, "out", farm_os, f"ombry-miner-{self.version}.tar.gz")
        self.assertNotIn("-", self.version)
        with tarfile.open(tarball) as archive:
            self.assertEqual({member.name.split("/")[0] for member in archive.getmembers()}, {"ombry-miner"})
        os.makedirs(os.path.join(self.dir, farm_os), exist_ok=True)
        subprocess.run(["tar", "-xzf", tarball, "-C", os.path.join(self.dir, farm_os)], check=True)
        folder = os.path.join(self.dir, farm_os, "ombry-miner")
        self.assertEqual(set(os.listdir(folder)), files)
        self.assertTrue(os.path.isdir(os.path.join(folder, "bitstreams", "CKB-RK35")))
        packaged = subprocess.run([folder + "/ombry-miner", "--version"], capture_output=True, text=True).stdout
        self.assertTrue(packaged.startswith(f"ombry-miner {self.version}\n"), packaged)
        os.remove(folder + "/ombry-miner")
        os.symlink(os.path.join(BUILD_DIR, "bin", "ombry-sim-miner"), folder + "/ombry-miner")
        return folder

    def test_hiveos_and_mmpos_packages_and_the_status_page(self):
        hive = self.unpack("hiveos", HIVE_FILES)
        manifest = os.path.join(hive, "h-manifest.conf")
        shown = bash("source h-manifest.conf; echo \"$CUSTOM_NAME|$CUSTOM_VERSION|$CUSTOM_CONFIG_FILENAME|"
                     "$CUSTOM_LOG_BASENAME|$CUSTOM_API_PORT\"", hive)
        self.assertEqual(shown.strip(), f"ombry-miner|{self.version}|/hive/miners/custom/ombry-miner/ombry-miner.json|"
                                        "/var/log/miner/ombry-miner/ombry-miner|4028")
        # The rig's own paths and a free API port, as a farm would change them.
        api_port = free_port()
        set_variable(manifest, "CUSTOM_CONFIG_FILENAME", os.path.join(self.dir, "conf", "ombry-miner.json"))
        set_variable(manifest, "CUSTOM_LOG_BASENAME", os.path.join(self.dir, "log", "ombry-miner"))
        set_variable(manifest, "CUSTOM_API_PORT", api_port)

        pool_port = self.start_pool()
        backup = free_port()  # nothing listens there
        flight_sheet = {"CUSTOM_URL": f"127.0.0.1:{pool_port}, stratum+tcp://127.0.0.1:{backup}",
                        "CUSTOM_TEMPLATE": "wallet.%WORKER_NAME%", "WORKER_NAME": "rig7", "CUSTOM_PASS": "s3cret",
                        "CUSTOM_ALGO": "eaglesong", "CUSTOM_USER_CONFIG": '{"share-timeout": 25}'}
        # Sourced, so it must never exit: the line after it runs.
        self.assertEqual(bash("source h-manifest.conf; source h-config.sh; echo still here", hive, flight_sheet),
                         "still here\n")
        self.assertEqual(json.loads(pathlib.Path(self.dir, "conf", "ombry-miner.json").read_text()), {
            "algorithm": "ckb", "host": f"stratum+tcp://127.0.0.1:{pool_port}", "wallet": "wallet.rig7",
            "password": "s3cret", "api-listen": f"127.0.0.1:{api_port}", "port": pool_port,
            "pool": [f"stratum+tcp://127.0.0.1:{backup}"], "share-timeout": 25})
        # User config that is no JSON object is words for the command line.
        flight_sheet["CUSTOM_USER_CONFIG"] = "--metrics-listen 127.0.0.1:0"
        bash("source h-manifest.conf; source h-config.sh", hive, flight_sheet)

        pathlib.Path(self.dir, "boards.txt").write_text(BOARDS)
        rig = self.start("h-run", [os.path.join(hive, "h-run.sh")],
                         env={"OMBRY_SIM_BOARDS": os.path.join(self.dir, "boards.txt")})
        log_path = os.path.join(self.dir, "log", "ombry-miner.log")

        def log():
            return pathlib.Path(log_path).read_text() if os.path.exists(log_path) else ""

        wait_for("accepted shares from both boards", lambda: all(
            board["Accepted"] >= 2 and board["Temperature"] for board in (api(api_port, "devs") or {"DEVS": [
                {"Accepted": 0}]})["DEVS"]))

        before = api(api_port, "summary")["SUMMARY"][0]
        hive_out = bash("source h-manifest.conf; source h-stats.sh; echo \"$khs\"; echo \"$stats\"", hive).split("\n")
        mmp = self.unpack("mmpos", MMP_FILES)
        set_variable(os.path.join(mmp, "mmp-external.conf"), "EXTERNAL_API_PORT", api_port)
        mmp_stats = json.loads(bash(f"./mmp-stats.sh 2 {log_path}", mmp))
        after = api(api_port, "summary")["SUMMARY"][0]
        devs = api(api_port, "devs")["DEVS"]

        stats = json.loads(hive_out[1])
        nominal = [board["Nominal MHS"] for board in devs]
        self.assertEqual([fields(board, "Name", "PCI Address", "Nominal MHS") for board in devs],
                         [("RK35", None, 1000.0), ("215+", None, 100.0)])
        self.assertEqual(float(hive_out[0]), sum(nominal) * 1000)
        self.assertEqual(set(stats), {"hs", "hs_units", "temp", "fan", "uptime", "ver", "ar", "algo", "bus_numbers"})
        self.assertEqual(fields(stats, "hs", "hs_units", "fan", "ver", "algo", "bus_numbers"),
                         (nominal, "mhs", [], self.version, "eaglesong", [1, 2]))
        for reported, board in zip(stats["temp"], devs):
            self.assertAlmostEqual(reported, board["Temperature"], delta=3)
        self.assertTrue(before["Elapsed"] <= stats["uptime"] <= after["Elapsed"])
        self.assertTrue(before["Accepted"] <= stats["ar"][0] <= after["Accepted"] and stats["ar"][1:] == [0, 0], stats)

        self.assertEqual(list(mmp_stats), ["busid", "hash", "units", "air", "temp", "miner_name", "miner_version"])
        self.assertEqual(fields(mmp_stats, "busid", "hash", "units", "miner_name", "miner_version"),
                         ([1, 2], nominal, "mhs", "ombry-miner", self.version))
        self.assertEqual(len(mmp_stats["temp"]), 2)
        air = mmp_stats["air"]
        self.assertTrue(before["Accepted"] <= air[0] <= after["Accepted"] and air[1:] == [0, 0], mmp_stats)

        self.check_status_page(int(re.search(r"Metrics on port (\d+)", log()).group(1)))

        # HiveOS's Ctrl+C: every board ramped down and stopped, within the 15 s
        # HiveOS waits before it kills the miner.
        rig.popen.send_signal(signal.SIGINT)
        self.assertEqual(rig.popen.wait(timeout=15), 0)
        for worker in ("Worker01", "Worker02"):
            self.assertRegex(log(), rf"I/{worker} +: Stopping hashcore\(s\)\n(.*\n)*.*I/{worker} +: Stopped\n")
        # A miner that does not answer: mmpOS still gets a line per device.
        self.assertEqual(json.loads(bash("./mmp-stats.sh 2 /dev/null", mmp))["hash"], [0, 0])
        self.assertEqual(bash("source h-stats.sh; echo \"$khs $stats\"", hive), "0 null\n")

        # Bus numbers and share counts in the order each OS reads them, from
        # boards with PCI addresses.
        boards = [{"ID": 1, "PCI Address": "0000:1a:00.0", "Nominal MHS": 1000.0, "Temperature": 51.5},
                  {"ID": 2, "PCI Address": "0000:03:00.0", "Nominal MHS": 100.0, "Temperature": None}]
        fake = FakeApi({"summary": {"SUMMARY": [{"Elapsed": 60, "Accepted": 7, "Rejected": 2, "Hardware Errors": 1}]},
                        "devs": {"DEVS": boards}, "version": {"VERSION": [{"Miner": "ombry-miner 9.8.7"}]}})
        set_variable(os.path.join(hive, "h-manifest.conf"), "CUSTOM_API_PORT", fake.port)
        set_variable(os.path.join(mmp, "mmp-external.conf"), "EXTERNAL_API_PORT", fake.port)
        stats = json.loads(bash("source h-stats.sh; echo \"$stats\"", hive))
        self.assertEqual(fields(stats, "bus_numbers", "ar", "temp", "ver"), ([26, 3], [7, 2, 1], [51.5, None], "9.8.7"))
        mmp_stats = json.loads(bash("./mmp-stats.sh 2 /dev/null", mmp))
        self.assertEqual(fields(mmp_stats, "busid", "air"), (["0000:1a:00.0", "0000:03:00.0"], [7, 1, 2]))

    def check_status_page(self, port):
        """The page as a browser renders it: a row per board, named, with its
        rates, and the pools with the active one marked."""
        profile = os.path.join(self.dir, "chromium")
        dom = subprocess.run(["chromium", "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                              "--no-first-run", "--disable-background-networking", "--disable-component-update",
                              "--disable-sync", f"--user-data-dir={profile}", "--virtual-time-budget=8000",
                              "--dump-dom", f"http://127.0.0.1:{port}/"], capture_output=True, text=True,
                             timeout=120).stdout

        def rows(table):
            body = re.search(rf'<table id="{table}">.*?<tbody>(.*?)</tbody>', dom, re.S).group(1)
            return [(re.search(r'<tr( class="active")?', row).group(1) is not None,
                     re.findall(r"<td[^>]*>(.*?)</td>", row)) for row in re.findall(r"<tr.*?</tr>", body)]

        boards = rows("boards")
        self.assertEqual([cells[1] for _, cells in boards], ["RK35", "215+"], dom)
        for _, cells in boards:
            self.assertEqual(cells[2], "Alive")
            self.assertGreater(float(cells[6]), 0, cells)  # nominal MH/s
            self.assertRegex(cells[7], r"^\d+\.\d\d$")  # effective MH/s
        self.assertEqual(boards[0][1][4], "--")  # no regulator sensor
        pools = rows("pools")
        self.assertEqual([(active, cells[0]) for active, cells in pools], [(True, "\u25b6 active"), (False, "")])
        self.assertIn("updated ", dom)


if __name__ == "__main__":
    unittest.main()
