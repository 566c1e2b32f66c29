#!/usr/bin/env python3
"""What Prometheus is told: by its own checker, and by a Prometheus that reads it as docs/prometheus.md says."""

import json
import os
import re
import shutil
import subprocess
import unittest
import urllib.error
import urllib.parse
import urllib.request

import asking
import harness

DOCS = os.path.join(harness.HERE, "..", "..", "docs")
AGENT = 'we"b\\1'
PLAN = ["POL\t0\t1", "CHK\t0\t1", "LAA\t1\t1\t-1\t-1\t-1", "LAA\t2\t1\t0\t-1\t-1",
        'PRA\t3\t1\t-1\t-1\t-1\tno "such\\process']


def needs(*programs):
    missing = [program for program in programs if not shutil.which(program)]
    return unittest.skipIf(missing, "%s missing: install Debian's package prometheus" % " and ".join(missing))


def blocks(language):
    """What docs/prometheus.md has in that language, in order."""
    return re.findall("```%s\n(.*?)```" % language, harness.read_text(os.path.join(DOCS, "prometheus.md")), re.S)


class Metrics(harness.TestCase):
    def setUp(self):
        super().setUp()
        self.collector = asking.Asked(self, *PLAN).start()
        harness.Agent(self, self.collector.port, name="web1", AGENTNAME=AGENT).start()
        for test in (1, 2, 3):
            self.collector.wait_test(test)

    @needs("promtool")
    def test_promtool_accepts_it(self):
        for target in ("/metrics", "/metrics?fleet"):
            status, headers, text = self.collector.ask(target, Accept="text/plain;version=0.0.4")
            self.assertEqual((status, headers["Content-Type"]), (200, "text/plain; version=0.0.4; charset=utf-8"))
            checked = subprocess.run(["promtool", "check", "metrics"], input=text, text=True, stdout=subprocess.PIPE,
                                     stderr=subprocess.STDOUT, check=False, timeout=harness.PATIENCE_S)
            self.assertEqual((checked.returncode, checked.stdout), (0, ""), text)

    def test_every_metric_is_documented(self):
        _, headers, text = self.collector.ask("/metrics?fleet=1")
        self.assertEqual(headers["Content-Type"], "application/openmetrics-text; version=1.0.0; charset=utf-8")
        described = harness.read_text(os.path.join(DOCS, "prometheus.md"))
        suffixes = {"counter": "_total", "info": "_info"}
        # What is said of a fleet, by a collector that has no plan.
        text += asking.Asked(self, name="planless", rules=()).start().ask("/metrics?fleet=1")[2]
        families = set(re.findall("^# TYPE (\\S+) (\\S+)$", text, re.M))
        self.assertGreater(len(families), 30)
        for name, kind in families:
            self.assertIn("`%s%s`" % (name, suffixes.get(kind, "")), described)
        shown = set(re.findall("`((?:vindral|process)_\\w+)`", described))
        self.assertEqual(shown - {name + suffixes.get(kind, "") for name, kind in families}, set())

    def test_it_takes_a_token(self):
        viewer = self.collector.add_token("prometheus", "viewer")
        self.assertEqual(self.collector.ask("/metrics?fleet", token=viewer)[0], 200)
        self.assertEqual(self.collector.ask("/metrics", token="vt_" + "x" * 43)[0], 401)


class Scraped(harness.TestCase):
    """By a Prometheus of its own."""

    def setUp(self):
        super().setUp()
        self.collector = asking.Asked(self, *PLAN).start()
        harness.Agent(self, self.collector.port, name="web1", AGENTNAME=AGENT).start()
        for test in (1, 2, 3):
            self.collector.wait_test(test)

    def start_prometheus(self):
        """Configured as the documents say, but for where and how often."""
        directory = self.subdir("prometheus")
        token, config = os.path.join(directory, "token"), os.path.join(directory, "prometheus.yml")
        harness.write_text(token, self.collector.add_token("prometheus", "viewer") + "\n")
        text = blocks("yaml")[0]
        for old, new in (("/etc/prometheus/vindral-token", token),
                         ("127.0.0.1:8080", "127.0.0.1:%d" % self.collector.web_port),
                         ("scrape_interval: 60s", "scrape_interval: 5s"),
                         ("scrape_timeout: 10s", "scrape_timeout: 5s")):
            self.assertEqual(text.count(old), 1, old)
            text = text.replace(old, new)
        harness.write_text(config, text)
        self.port = harness.free_port()
        self.log_path = os.path.join(directory, "log")
        with open(self.log_path, "wb") as log:
            process = subprocess.Popen(
                ["prometheus", "--config.file", config, "--storage.tsdb.path", os.path.join(directory, "data"),
                 "--web.listen-address", "127.0.0.1:%d" % self.port], stdin=subprocess.DEVNULL, stdout=log, stderr=log)

        def end():
            process.terminate()
            try:
                process.wait(harness.PATIENCE_S)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
        self.addCleanup(end)

    def ask(self, path, **parameters):
        """`data` of an answer; None while there is none."""
        url = "http://127.0.0.1:%d/api/v1/%s?%s" % (self.port, path, urllib.parse.urlencode(parameters))
        try:
            with urllib.request.urlopen(url, timeout=harness.PATIENCE_S) as answer:
                return json.load(answer)["data"]
        except urllib.error.HTTPError as error:
            self.assertIn(error.code, (502, 503), error.read())  # it is starting
        except OSError:
            pass
        return None

    def query(self, expression):
        data = self.ask("query", query=expression)
        return data and data["result"]

    def wait_query(self, expression):
        """What it finds, once that is something: a scrape that failed leaves nothing until the next one."""
        return harness.wait_until(lambda: self.query(expression),
                                  lambda: "%s\n%s" % (expression, harness.read_text(self.log_path)))

    @needs("prometheus", "promtool")
    def test_a_prometheus_reads_it(self):
        self.start_prometheus()

        def targets():
            return (self.ask("targets") or {}).get("activeTargets", [])
        harness.wait_until(lambda: any(target["health"] == "up" for target in targets()),
                           lambda: "the collector as a target: %s\n%s" % (targets(), harness.read_text(self.log_path)))
        labels = self.wait_query('vindral_value{test="load average 1",value="load1"}')[0]["metric"]
        self.assertEqual([labels[name] for name in ("account", "agent", "type", "number", "job")],
                         ["user@example.net", AGENT, "load average", "1", "vindral"])
        states = {result["metric"]["number"]: result["metric"]["state"]
                  for result in self.wait_query("vindral_test_state")}
        self.assertEqual(states, {"1": "ok", "2": "problem", "3": "problem"})
        self.assertEqual([result["metric"]["test"] for result in self.wait_query('vindral_test_state{type="process"}')],
                         ['no "such\\process'])
        self.assertEqual(self.wait_query('vindral_agents{state="problem"}')[0]["value"][1], "1")
        self.assertGreater(float(self.wait_query("vindral_polls_total")[0]["value"][1]), 0)
        kinds = {entry["metric"]: (entry["type"], entry["unit"]) for entry in self.ask("targets/metadata")}
        self.assertEqual(kinds["vindral_received_bytes"], ("counter", "bytes"))  # so it is read as OpenMetrics
        self.assertEqual(kinds["vindral_commit_duration_seconds"][0], "histogram")
        self.assertNotIn("Error on ingesting", harness.read_text(self.log_path))  # samples twice, out of order
        self.check_dashboard()

    def check_dashboard(self):
        """Each of its expressions is one."""
        with open(os.path.join(DOCS, "grafana", "vindral.json"), encoding="utf-8") as file:
            dashboard = json.load(file)
        variables = {entry["name"] for entry in dashboard["templating"]["list"]}
        expressions = [target["expr"] for panel in dashboard["panels"] for target in panel.get("targets", [])]
        self.assertGreater(len(expressions), 20)
        for expression in expressions:
            self.assertLessEqual(set(re.findall(r"\$(\w+)", expression)), variables)
            plain = re.sub(r"\$\w+", ".*", expression)
            harness.wait_until(lambda: self.query(plain) is not None, plain)
            for name in re.findall(r"\b(?:vindral|process)_\w+", expression):
                self.wait_query('{__name__="%s"}' % name)

    @needs("promtool")
    def test_configuration_and_rules_of_the_documents(self):
        config, rules = os.path.join(self.dir, "prometheus.yml"), os.path.join(self.dir, "rules.yml")
        token = os.path.join(self.dir, "token")
        harness.write_text(token, "vt_")
        harness.write_text(config, blocks("yaml")[0].replace("/etc/prometheus/vindral-token", token))
        harness.write_text(rules, blocks("yaml")[1])
        for words in (["check", "config", config], ["check", "rules", rules]):
            done = subprocess.run(["promtool", *words], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                  check=False, timeout=harness.PATIENCE_S)
            self.assertEqual(done.returncode, 0, done.stdout)


if __name__ == "__main__":
    harness.main()
