"""Every kind of test of a fleet file on a real agent, against real peers: each is judged as its line says. Names end in the
state that is expected."""

import http.server
import os
import subprocess
import threading

import harness
from asking import Asked
from peers import ACCOUNT, AUTH, MIBS, PASSWORD, TABLE, TEST

FLEET = """version: 1
intervals: {poll: 1s, check: 1s}
groups:
  - name: every kind
    agents: ["user@example.net/age*"]
    tests:
      load ok:            {load: {1m: 100000, 15m: 100000}}
      load alone ok:      {load: {}}
      cpu ok:             {cpu: {}}
      memory ok:          {memory: {free: 0 MB, cached: 100 TB}}
      memory problem:     {memory: {free: 900 TB}}
      disk ok:            {disk: /, free: 1 MB}
      disk problem:       {disk: /, free: 90000 TB}
      share problem:      {disk: /, free: 99 %%}
      process ok:         {process: vindral}
      process problem:    {process: vindral, virtual: 1 MB}
      no process problem: {process: no such}
      network ok:         {network: %(interface)s}
      ping ok:            {ping: 127.0.0.1, packets: 2, lost: 0, within: 1s, size: 1000}
      ping problem:       {ping: 198.51.100.1, packets: 1, within: 50ms}
      page ok:            {http: "%(page)s", contains: Welcome, within: 30s}
      page problem:       {http: "%(page)s", contains: Farewell, within: 30s}
      without ok:         {http: "%(page)s?x=1", without: Farewell, within: 30s}
      without problem:    {http: "%(page)s", without: Welcome, within: 30s}
      posted ok:          {http: "%(page)s", post: "a=b&c=d", contains: "POST a=b&c=d u:p", user: u, password: p, within: 30s}
      head ok:            {http: "%(page)s", method: head, within: 30s}
      redirected ok:      {http: "%(page)smoved", contains: Welcome, within: 30s}
      redirected problem: {http: "%(page)slost", within: 30s}
      stays ok:           {http: "%(page)slost", redirects: false, within: 30s}
      snmp ok:
        snmp: 127.0.0.1
        port: %(snmp)d
        within: 5s
        objects:
          %(test)s2.0: {at least: 25, at most: 25}
          1.3.6.1.2.1.1.3.0: {at least: 0}
          1.3.6.1.2.1.1.1.0: {}
      snmp problem:       {snmp: 127.0.0.1, port: %(snmp)d, objects: {%(test)s2.0: {at most: 24}}, within: 5s}
      snmp below problem: {snmp: 127.0.0.1, port: %(snmp)d, objects: {%(test)s2.0: {at least: 26}}, version: 1, within: 5s}
      snmp user ok:       {snmp: 127.0.0.1, port: %(snmp)d, objects: 1.3.6.1.2.1.1.3.0, version: 3, user: shauser, password: %(auth)s, within: 5s}
      snmp md5 ok:        {snmp: 127.0.0.1, port: %(snmp)d, objects: 1.3.6.1.2.1.1.3.0, version: 3, user: md5user, password: %(auth)s, authentication: md5, within: 5s}
      table ok:           {snmp table: 127.0.0.1, port: %(snmp)d, table: %(table)s, within: 5s}
      table by one ok:    {snmp table: 127.0.0.1, port: %(snmp)d, table: %(table)s, version: 1, within: 5s}
      mysql ok:           {mysql: 127.0.0.1, port: %(mysql)d, user: %(user)s, password: "%(password)s", within: 30s}
      socket ok:
        mysql: %(socket)s
        user: %(user)s
        password: "%(password)s"
        within: 30s
        values: {max_connections: {at least: 77, at most: 77}, Uptime: }
      values problem:     {mysql: %(socket)s, user: %(user)s, password: "%(password)s", values: {max_connections: {at most: 76.5}}, within: 30s}
      value problem:      {mysql: %(socket)s, user: %(user)s, password: "%(password)s", values: {max_connections: {at least: 78}}, within: 30s}
      scan ok:            {discovery: 127.0.0.1 - 127.0.0.2}
"""


class Page(http.server.BaseHTTPRequestHandler):
    def answer(self, text):
        """The text, unless the path leads elsewhere."""
        self.send_response(302 if self.path in ("/moved", "/lost") else 200)
        if self.path in ("/moved", "/lost"):
            port = self.server.server_address[1] if self.path == "/moved" else self.server.nowhere
            self.send_header("Location", "http://127.0.0.1:%d/" % port)
        self.send_header("Content-Length", str(len(text)))
        self.end_headers()
        if self.command != "HEAD":
            self.wfile.write(text)

    def do_GET(self):
        self.answer(b"Welcome")

    do_HEAD = do_GET

    def do_POST(self):
        form = self.rfile.read(int(self.headers["Content-Length"]))
        self.answer(b"POST " + form + (b" u:p" if self.headers["Authorization"] == "Basic dTpw" else b" nobody"))

    def log_message(self, *_):
        pass


def interface():
    """One that agents know: up, with an IPv4 address, and not loopback. None: there is none."""
    done = subprocess.run(["ip", "-o", "-4", "addr", "show", "up"], stdout=subprocess.PIPE, text=True, check=True)
    names = [line.split()[1] for line in done.stdout.splitlines()]
    return next((name for name in names if name != "lo"), None)


class Kinds(harness.TestCase):
    def start_page(self):
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Page)
        server.nowhere = harness.free_port()
        thread = threading.Thread(target=server.serve_forever, args=(0.05,))
        thread.start()
        self.addCleanup(thread.join)
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)
        return "http://127.0.0.1:%d/" % server.server_address[1]

    def test_each_is_judged_as_its_line_says(self):
        snmpd = harness.start_snmpd(self, "override %s2.0 integer 25" % TEST,
                                    "override %s.1.2.1.1 integer 1" % TABLE)
        mariadb = harness.start_mariadb(self, "--max-connections=77")
        name = interface()
        text = FLEET % {"page": self.start_page(), "snmp": snmpd.port, "test": TEST, "table": TABLE, "auth": AUTH,
                        "mysql": mariadb.port, "socket": mariadb.socket, "user": ACCOUNT, "password": PASSWORD,
                        "interface": name}
        if name is None:
            text = "".join(line for line in text.splitlines(True) if "{network:" not in line)
        if os.geteuid() != 0:
            print("ping ok: left out, only root may ping", flush=True)
            text = "".join(line for line in text.splitlines(True) if " ping ok:" not in line)
        path = os.path.join(self.dir, "fleet.yaml")
        harness.write_text(path, text)
        collector = Asked(self, rules=("--fleet", path)).start()
        harness.Agent(self, collector.port, env=MIBS, AGENTNAME="agent").start()

        def states():
            return {test["name"]: test["state"] for test in collector.get("/api/v1/tests?limit=1000")["items"]}

        def is_as_named():
            found = states()
            return len(found) == text.count(" ok: ") + text.count(" ok:\n") + text.count(" problem: ") and all(
                name.endswith(" " + state) for name, state in found.items())

        harness.wait_until(is_as_named, lambda: "states as named; not so are\n%s\n%s" % (
            "\n".join("%s: %s, %s" % (test["name"], test["state"], test["message"])
                      for test in collector.get("/api/v1/tests?limit=1000")["items"]
                      if not test["name"].endswith(" " + test["state"])), collector.errors()[-2000:]))


if __name__ == "__main__":
    harness.main()
