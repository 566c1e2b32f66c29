"""What people are shown of a fleet: tests by their names, with what they look at; and each agent by its own intervals."""

import http.server
import json
import os
import subprocess
import threading

import harness
from test_table import OnTerminal

FLEET = """version: 1
intervals: {poll: 1s, check: 1s}
groups:
  - name: everything
    agents: ["*"]
    tests:
      front page:  {http: "http://127.0.0.1:%(port)d/", contains: Welcome, within: 5s}
      load:        {load: {1m: 100000}}
      data:        {disk: /no/such/place, free: 1 GB}
"""
SLOW = FLEET + """  - name: slow ones
    agents: ["web2"]
    tests:
      load of web2:  {load: {1m: 100000}}
      front page:    off
"""


class Page(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        text = self.server.text
        self.send_response(200)
        self.send_header("Content-Length", str(len(text)))
        self.end_headers()
        self.wfile.write(text)

    def log_message(self, *_):
        pass


class Names(harness.TestCase):
    def setUp(self):
        super().setUp()
        self.page = server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Page)
        server.text = b"Welcome"
        thread = threading.Thread(target=server.serve_forever, args=(0.05,))
        thread.start()
        self.addCleanup(thread.join)
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)
        self.port = server.server_address[1]
        self.url = "http://127.0.0.1:%d/" % self.port
        self.file = os.path.join(self.dir, "fleet.yaml")

    def write(self, text):
        """In the place of the file, at once."""
        with open(self.file + ".new", "w", encoding="utf-8") as out:
            out.write(text % {"port": self.port})
        os.rename(self.file + ".new", self.file)

    def lines(self, collector):
        text = harness.read_text(os.path.join(collector.dir, "output"))
        return text[:text.rfind("\n") + 1].splitlines()

    def missing(self, collector, *options):
        done = subprocess.run([harness.COLLECTOR, "--missing", "--state-dir", collector.state, *options],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False,
                              timeout=harness.PATIENCE_S)
        return done.returncode, done.stdout.splitlines(), done.stderr

    def test_json_problems_and_what_is_missing(self):
        collector = harness.Collector(self, rules=("--fleet", self.file))
        self.assertEqual(self.missing(collector)[0], 2)
        self.write(FLEET)
        collector.start()
        self.assertEqual(self.missing(collector)[:2], (1, ["missing\t-\t-"]))
        harness.Agent(self, collector.port, name="web1").start()

        def has(name):
            return [found for found in map(json.loads, self.lines(collector)) if found["name"] == name]
        harness.wait_until(lambda: has("front page") and has("load"), lambda: "results by name:\n" + collector.errors())
        page, load = has("front page")[0], has("load")[0]
        self.assertEqual((page["agent"], page["target"], page["status_text"]), ("web1", self.url, "ok"))
        self.assertEqual((load["agent"], load["type"]), ("web1", 66))
        status, lines, _ = self.missing(collector)
        self.assertEqual((status, len(lines)), (1, 3), lines)
        found = sorted(line.split("\t") for line in lines)
        self.assertEqual([(f[0], f[2], f[-1]) for f in found],
                         [("impossible", "web1", "data"), ("stored", "web1", "front page"), ("stored", "web1", "load")])
        self.assertIn("/no/such/place", found[0][5])
        self.assertEqual(found[1][4], str(page["test"]))
        collector.stop()
        # A line for people, where only changes are shown.
        collector = harness.Collector(self, name="second", rules=("--fleet", self.file), options=("--problems",))
        collector.state = os.path.join(self.dir, "collector", "state")
        self.page.text = b"Sorry"
        collector.start()
        harness.Agent(self, collector.port, name="web3").start()
        harness.wait_until(lambda: any(" front page on web3 (%s): " % self.url in line for line in self.lines(collector)),
                           lambda: "a problem by name:\n%s\n%s" % (self.lines(collector), collector.errors()))

    def test_the_table(self):
        self.write(FLEET)
        collector = OnTerminal(self, columns=110, rules=("--fleet", self.file)).start()
        harness.Agent(self, collector.port, name="web1").start()
        harness.Agent(self, collector.port, name="web2").start()
        lines = collector.wait_screen("all ok - 4 tests on 2 hosts")
        self.assertEqual(sum("front page  " + self.url in line for line in lines), 2, lines)
        self.assertEqual(lines[1], "web1  2 ok")
        # One has another test, and another less: it takes effect in its lines.
        self.write(SLOW)
        lines = collector.wait_screen("load of web2", "all ok - 4 tests on 2 hosts")
        self.assertEqual(sum("front page" in line for line in lines), 1, lines)
        self.page.text = b"Sorry"
        lines = collector.wait_screen("1 problem, 3 ok - 4 tests on 2 hosts")
        self.assertRegex(lines[2], r"^  ! front page +" + self.url + r" +for \d+s ")
        collector.stop()
        self.assertIn("front page", "\n".join(collector.screen()))


if __name__ == "__main__":
    harness.main()
