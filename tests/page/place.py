"""What the page is shown of: a collector, and real agents whose load averages a test says."""

import os
import subprocess
import time

import harness
import records
from raw_client import RawClient
from test_fleet_outcomes import FleetCollector

ACCOUNT = "user@example.net"
FLEET = """\
version: 1
intervals: {poll: 1s, check: 1s}
groups:
  - name: every host
    agents: ["*"]
    tests:
      load:     {load: {1m: 8}}
      memory:   {memory: {free: 1 MB}}
  - name: web servers
    agents: ["web-*"]
    tests:
      nginx:    {process: no-such-server}
"""
ONE_TEST = """\
version: 1
intervals: {poll: 1s, check: 1s}
groups:
  - name: everything
    agents: ["*"]
    tests:
      load: {load: {1m: 8}}
"""


class Collector(FleetCollector):
    """Keeps the port of its API, too, when it starts again."""

    _web_port = 0

    def launch(self, *options):
        if os.path.exists(self.web_port_file):
            os.unlink(self.web_port_file)
        return super().launch("--web", "127.0.0.1:%d" % self._web_port, *options)

    def start(self, *options):
        super().start(*options)
        harness.wait_until(lambda: harness.read_text(self.web_port_file), "the API's port")
        self._web_port = self.web_port
        return self

    @property
    def base(self):
        return "http://127.0.0.1:%d" % self.web_port

    def link(self, role="admin"):
        """A link that signs in."""
        done = subprocess.run([harness.COLLECTOR, "link", "--role", role, "--state-dir", self.state], check=True,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, env=self.env,
                              timeout=harness.PATIENCE_S)
        return done.stdout.strip()


class Host:
    """An agent and what its kernel says."""

    def __init__(self, test, collector, name, **settings):
        self.loadavg = os.path.join(test.subdir("proc"), "loadavg")
        self.set_load(0.25)
        self.agent = harness.Agent(test, collector.port, name=name, wrap=harness.mounted(self.loadavg, "/proc/loadavg"),
                                   **{"AGENTNAME": name, "USEREMAIL": ACCOUNT, **settings}).start()

    def set_load(self, value):
        harness.write_text(self.loadavg, "%05.2f 00.50 00.75 1/100 4321\n" % value)


class Place:
    """A collector that has applied the fleet, and these hosts. `settle()` waits until every test has a result."""

    def __init__(self, test, *names, fleet=FLEET, options=()):
        self.test = test
        self.collector = Collector(test, options=options).start()
        self.collector.apply(fleet)
        self.hosts = {name: Host(test, self.collector, name) for name in names}

    def add_secret(self):
        status, _, text = self.collector.ask("/api/v1/secrets/db-monitor", "PUT", '{"value": "geheim"}')
        self.test.assertEqual(status, 200, text)

    def settle(self, count):
        """Until so many tests have a result."""
        def have():
            tests = self.tests()
            time.sleep(0 if len(tests) >= count else 0.05)
            return len(tests) >= count and all(each["state"] != "unknown" for each in tests)
        harness.wait_until(have, lambda: "%d tests: %s\n%s" % (count, self.tests(), self.collector.errors()[-3000:]))
        return self

    def tests(self):
        return self.collector.get("/api/v1/tests?limit=1000")["items"]

    def screens(self):
        """Names, addresses, and what is there once each is whole."""
        return [("now", "/", ".problems .problem"), ("agent", "/agents/%d" % self.agent_id("web-1"), ".spark-line"),
                ("test", "/tests/%d?range=1h" % self.test_id("web-1", "load"),
                 "figure.chart[data-drawn] svg.strip rect"),
                ("events", "/events", ".timeline .event"), ("fleet", "/fleet", ".editor-lines div"),
                ("changes", "/fleet/changes", "tbody tr"), ("admission", "/admission", "h2"),
                ("tokens", "/tokens", "tbody tr"), ("secrets", "/secrets", "tbody tr"),
                ("search", "/?q=load", ".problems .problem"), ("nothing", "/tests/nothing", ".empty")]

    def test_id(self, agent, name):
        return next(each["id"] for each in self.tests() if (each["agent"]["name"], each["name"]) == (agent, name))

    def agent_id(self, name):
        return next(each["id"] for each in self.collector.get("/api/v1/agents?limit=1000")["items"]
                    if each["name"] == name)


class Told(RawClient):
    """An agent of which a test says what it reports, and when it found it."""

    def __init__(self, collector, name, account=ACCOUNT):
        super().__init__(collector.port)
        self.collector = collector
        answer = self.login(account, name)
        self.session_id = answer.headers["Vnd-SessionID"]
        self.tests = []  # what it was told to do: "LAA", its number, its revision, ...
        self._take(answer.body)
        self.report(b"")

    def _take(self, body):
        self.tests += [line.split("\t") for line in body.split("\n") if "\t" in line and line[2:3] == "A"]

    def report(self, *blocks):
        for block in blocks:
            answer = self.poll(self.session_id, block)
            self.collector.test.assertEqual(answer.status, "HTTP/1.0 200 OK", answer)
            self._take(answer.body)

    def load(self, found):
        """Reports load averages: pairs of a time and a value, or threes with a message; 8 is too much."""
        number, revision = next((int(test[1]), int(test[2])) for test in self.tests if test[0] == "LAA")
        block = b"".join(records.encode_load(records.Load(
            number, revision, int(when), (value, value * 0.75, value * 0.5),
            said[0] if said else "too much\n" if value > 8 else "\n", 2 if value > 8 else 0))
            for when, value, *said in found)
        self.report(block)
