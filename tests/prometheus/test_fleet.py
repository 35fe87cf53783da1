"""A real Prometheus (Debian's) scraping two simulated rigs, with the shipped
scrape example and alert rules: both rigs are seen up, their metrics pass
promtool's lint, every query of the shipped dashboard returns data and names
only metrics the miner serves, and a board taken out by a simulated fault
raises its alert.

The copy of prometheus.yml that runs here scrapes and evaluates every second
instead of every 15 s; the rules run as shipped."""

import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import unittest
import urllib.parse
import urllib.request

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "support"))
from rig_processes import BUILD_DIR, SOURCE_DIR, RigTest, free_port, wait_for  # noqa: E402

DIST = os.path.join(SOURCE_DIR, "dist")

# Board 2 of each rig is of the wide family, which has a regulator sensor.
BOARDS = "xdma0 model=7\nxdma1 model=2\n"
# What a dashboard query may name besides metrics: PromQL's own words.
PROMQL_WORDS = {"and", "or", "unless", "bool", "by", "without", "on", "ignoring", "group_left", "group_right",
                "offset", "inf", "nan"}
# Grafana's variables, as the test stands them in: every rig, a minute.
GRAFANA_VARIABLES = {"rig": ".+", "__rate_interval": "1m", "__range": "1m"}


def http_get(url):
    try:
        with urllib.request.urlopen(url, timeout=10) as answer:
            return answer.read().decode()
    except OSError:
        return None


def served_names(exposition):
    return {re.match(r"[A-Za-z_:][A-Za-z0-9_:]*", line).group(0)
            for line in exposition.splitlines() if line and not line.startswith("#")}


def metric_names(expr):
    """The metric names a PromQL expression selects: identifiers that are not
    functions, keywords, label names, strings, durations or numbers."""
    expr = re.sub(r'"(?:[^"\\]|\\.)*"', '""', expr)
    expr = re.sub(r"\{[^}]*\}|\[[^\]]*\]", " ", expr)
    expr = re.sub(r"\b(?:by|without|on|ignoring|group_left|group_right)\s*\([^)]*\)", " ", expr)
    return {match.group(0) for match in re.finditer(r"(?<![\w.])[A-Za-z_:][A-Za-z0-9_:]*", expr)
            if not expr[match.end():].lstrip().startswith("(") and match.group(0) not in PROMQL_WORDS}


def dashboard_queries(dashboard):
    """(title, expr) of every query of every panel, rows' panels included."""
    def panels(items):
        for panel in items:
            yield panel
            yield from panels(panel.get("panels", []))
    return [(panel["title"], target["expr"]) for panel in panels(dashboard["panels"])
            for target in panel.get("targets", [])]


def substitute(expr):
    def value(match):
        name = match.group(1) or match.group(2)
        if name not in GRAFANA_VARIABLES:
            raise AssertionError(f"the dashboard uses ${name}, which this test does not stand in for")
        return GRAFANA_VARIABLES[name]
    return re.sub(r"\$\{(\w+)\}|\$(\w+)", value, expr)


class FleetOnPrometheusTest(RigTest):
    TOOLS = ("prometheus", "promtool")

    def start_rig(self, name, pool_port):
        """A miner with two in-process boards; returns its metrics address and command pipe."""
        workdir = os.path.join(self.dir, name)
        os.mkdir(workdir)
        os.symlink(os.path.join(SOURCE_DIR, "bitstreams"), os.path.join(workdir, "bitstreams"))
        pathlib.Path(workdir, "boards.txt").write_text(BOARDS)
        control = os.path.join(workdir, "control")
        miner = self.start(name, [os.path.join(BUILD_DIR, "bin", "ombry-sim-miner"), "ckb", "127.0.0.1",
                                  str(pool_port), f"wallet.{name}", "x", "--metrics-listen", "127.0.0.1:0"],
                           env={"OMBRY_SIM_BOARDS": os.path.join(workdir, "boards.txt"),
                                "OMBRY_SIM_CONTROL": control}, workdir=workdir)
        port = wait_for(f"{name}'s metrics port", lambda: re.search(r"Metrics on port (\d+)", miner.output()))
        return f"127.0.0.1:{port.group(1)}", control

    def start_prometheus(self, targets):
        """The shipped example and rules, scraping and evaluating every second."""
        config_dir = os.path.join(self.dir, "prometheus")
        os.makedirs(os.path.join(config_dir, "ombry-rigs"))
        shutil.copy(os.path.join(DIST, "prometheus", "ombry-rules.yml"), config_dir)
        config = pathlib.Path(DIST, "prometheus", "prometheus.yml").read_text()
        self.assertEqual(config.count("_interval: 15s"), 2)
        pathlib.Path(config_dir, "prometheus.yml").write_text(config.replace("_interval: 15s", "_interval: 1s"))
        pathlib.Path(config_dir, "ombry-rigs", "test.yml").write_text(f"- targets: {json.dumps(targets)}\n")
        check = subprocess.run(["promtool", "check", "config", "--lint-fatal", "prometheus.yml"], cwd=config_dir,
                               capture_output=True, text=True)
        self.assertEqual(check.returncode, 0, check.stdout + check.stderr)
        self.assertNotIn("WARNING", check.stdout + check.stderr)

        port = free_port()
        self.start("prometheus", ["prometheus", "--config.file=prometheus.yml", "--storage.tsdb.path=data",
                                  f"--web.listen-address=127.0.0.1:{port}"], workdir=config_dir)
        self.api = f"http://127.0.0.1:{port}/api/v1"
        wait_for("Prometheus to be ready", lambda: http_get(f"http://127.0.0.1:{port}/-/ready"))

    def query(self, expr):
        answer = http_get(f"{self.api}/query?" + urllib.parse.urlencode({"query": expr}))
        self.assertIsNotNone(answer, f"Prometheus did not answer {expr}")
        reply = json.loads(answer)
        self.assertEqual(reply["status"], "success", reply)
        return reply["data"]["result"]

    def test_two_rigs_on_prometheus_with_the_shipped_rules_and_dashboard(self):
        pool_port = self.start_pool()
        rig_a, _ = self.start_rig("rig-a", pool_port)
        rig_b, rig_b_control = self.start_rig("rig-b", pool_port)
        self.start_prometheus([rig_a, rig_b])

        up = wait_for("both rigs up", lambda: (lambda result: len(result) == 2 and result)(
            self.query('up{job="ombry"} == 1')))
        self.assertEqual({series["metric"]["instance"] for series in up}, {rig_a, rig_b})

        # Board 2 of rig B is taken out once Prometheus has seen it mine; its
        # alert waits out its 30 s while the rest is checked.
        wait_for("rig B's board 2 alive", lambda: self.query(
            f'ombry_board_state{{instance="{rig_b}",board="2",state="alive"}} == 1'))
        pathlib.Path(rig_b_control).write_text("xdma1 read_fail=1\n")

        served = set()
        for rig in (rig_a, rig_b):
            exposition = http_get(f"http://{rig}/metrics")
            lint = subprocess.run(["promtool", "check", "metrics"], input=exposition, capture_output=True, text=True)
            self.assertEqual((lint.returncode, lint.stdout + lint.stderr), (0, ""), f"promtool on {rig}'s metrics")
            served |= served_names(exposition)

        dashboard = json.loads(pathlib.Path(DIST, "grafana", "ombry-fleet.json").read_text())
        rig = next(v for v in dashboard["templating"]["list"] if v["name"] == "rig")
        self.assertTrue(rig["multi"] and rig["includeAll"] and rig["current"]["value"] == ["$__all"])
        variable_metric = re.fullmatch(r"label_values\((\w+), instance\)", rig["query"]["query"]).group(1)
        queries = [("rig variable", variable_metric)] + dashboard_queries(dashboard)
        self.assertGreaterEqual(len(queries), 20)
        for title, expr in queries:
            with self.subTest(panel=title, expr=expr):
                self.assertTrue(metric_names(expr), "names no metric")
                self.assertLessEqual(metric_names(expr), served, "names a metric the miner does not serve")
                wait_for(f"data for {expr}", lambda: self.query(substitute(expr)), guard=60)

        firing = wait_for("rig B's board 2 to raise OmbryBoardDead", lambda: self.query(
            'ALERTS{alertname="OmbryBoardDead",alertstate="firing"}'))
        # Every rule has run, and none names a metric the miner does not serve.
        for rule in json.loads(http_get(f"{self.api}/rules"))["data"]["groups"][0]["rules"]:
            with self.subTest(rule=rule["name"]):
                self.assertEqual(rule["health"], "ok", rule)
                self.assertLessEqual(metric_names(rule["query"]) - {"up"}, served)
        self.assertEqual([(a["metric"]["instance"], a["metric"]["board"], a["metric"]["severity"]) for a in firing],
                         [(rig_b, "2", "critical")])
        self.assertEqual(len(self.query(f'ombry_board_state{{instance="{rig_a}",state="alive"}} == 1')), 2)


if __name__ == "__main__":
    unittest.main()
