"""Secrets of tests: agents that have proven who they are work with them, others get nothing of such tests, and no
file, answer, line of a log or screen of the collector ever has a value."""

import base64
import html
import http.server
import json
import os
import shutil
import subprocess
import threading
import urllib.parse
import urllib.request

import harness
from asking import Asked
from peers import openssl
from raw_client import RawClient
from test_table import OnTerminal

EMAIL = "user@example.net"
PASSWORD, KEY, DATABASE = "Zk9+q/V=7w%Rt&x3~", "kEy8472Qz-part", "db pAss+/=42 #x"
LOAD = "LAA\t1\t1\t-1\t-1\t-1"


class Shop(http.server.BaseHTTPRequestHandler):
    """A page for who has the password; and one that leads to itself, and so has the agent say where it is."""

    def do_GET(self):
        self.server.seen.append(self.path)
        user, _, password = base64.b64decode(
            self.headers.get("Authorization", "Basic ").split(" ", 1)[1]).decode().partition(":")
        if self.path.startswith("/loop"):
            self.send_response(302)
            self.send_header("Location", self.path)
        else:
            good = (user, password) == ("ann", self.server.password)
            self.send_response(200 if good else 401)
        self.send_header("Content-Length", "0")
        self.end_headers()

    def log_message(self, *_):
        pass


def start_shop(test):
    shop = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Shop)
    shop.password, shop.seen = PASSWORD, []
    threading.Thread(target=shop.serve_forever, daemon=True).start()
    test.addCleanup(shop.server_close)
    test.addCleanup(shop.shutdown)
    return shop


def page(number, port, path="/", password="${secret:shop}", redirect=0, code="HPA"):
    return "\t".join([code, str(number), "7", "127.0.0.1", path, str(port), "", "", "ann", password, "20", "0",
                      str(redirect), "0", "0", "0"])


def spellings(value):
    """A value as it is, and as it may be written down."""
    plain = value.encode()
    quoted = urllib.parse.quote(value, safe="")
    written = {plain, quoted.encode(), quoted.lower().encode(), urllib.parse.quote_plus(value).encode(),
               plain.hex().encode(), plain.hex().upper().encode(), value.encode("utf-16-le"),
               value.encode("utf-16-be"), json.dumps(value)[1:-1].encode(), html.escape(value).encode()}
    for before in range(3):  # wherever it begins in a longer text
        for encode in (base64.b64encode, base64.urlsafe_b64encode):
            written.add(encode(b"x" * before + plain)[(0, 2, 3)[before]:-4])
    return written


def files_below(*directories):
    for directory in directories:
        for place, _, names in os.walk(directory):
            for name in names:
                path = os.path.join(place, name)
                if os.path.isfile(path):
                    yield path


def read(path):
    with open(path, "rb") as file:
        return file.read()


class SecretCollector(Asked):
    def set(self, name, value):
        status, headers, text = self.ask("/api/v1/secrets/" + name, "PUT", json.dumps({"value": value}))
        self.test.assertEqual(status, 200, text)
        self.answers.append((headers.as_string() + text).encode())

    def __init__(self, test, *plan, **named):
        super().__init__(test, *plan, **named)
        self.answers = []  # of the API, to be searched

    def enrol(self, name):
        """Certificate and key of that agent, as the collector gives them out."""
        status, _, text = self.ask("/api/v1/agents/%s/enrolment" % urllib.parse.quote(EMAIL + "/" + name, safe=""), "POST")
        self.test.assertEqual(status, 201, text)
        base = os.path.join(self.test.subdir("host"), name)
        openssl("req", "-new", "-nodes", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-keyout",
                base + ".key", "-subj", "/CN=host", "-out", base + ".csr")
        request = read(base + ".csr")
        answer = RawClient(self.port).exchange(
            ("POST /enrol HTTP/1.0\r\nVnd-Token: %s\r\nContent-Length: %d\r\n\r\n" % (
                json.loads(text)["token"], len(request))).encode() + request)
        self.test.assertEqual(answer.status, "HTTP/1.0 200 OK", answer)
        harness.write_text(base + ".pem", answer.body)
        return base + ".pem", base + ".key"

    def ask_everything(self):
        """Each thing that can be read, and the stream as it comes."""
        tests = [item["id"] for item in self.get("/api/v1/tests?limit=1000")["items"]]
        agents = [item["id"] for item in self.get("/api/v1/agents?limit=1000")["items"]]
        description = self.get("/openapi.json")
        for path, methods in description["paths"].items():
            if "get" not in methods or path == "/api/v1/stream":
                continue
            ids = {"{test}": tests, "{agent}": agents}
            found = [name for name in ids if name in path]
            for one in ids[found[0]] if found else [None]:
                target = path.replace(found[0], str(one)) if found else path
                status, headers, text = self.ask(target + ("?fleet" if path == "/metrics" else ""))
                self.answers.append((target + headers.as_string() + text).encode())
                self.test.assertIn(status, (200, 503), target + text)

    def listen(self):
        """Notes what the stream says, as long as the collector runs."""
        def note():
            try:
                with urllib.request.urlopen(urllib.request.Request(
                        "http://127.0.0.1:%d/api/v1/stream" % self.web_port,
                        headers={"Authorization": "Bearer " + self.token})) as stream:
                    for line in stream:
                        self.answers.append(line)
            except OSError:
                pass
        threading.Thread(target=note, daemon=True).start()


class OnScreen(SecretCollector, OnTerminal):
    pass


class Secrets(harness.TestCase):
    def plan(self, shop, database=None):
        lines = ["POL\t0\t1", "CHK\t0\t1", LOAD, page(2, shop.server_port),
                 page(3, shop.server_port, "/loop?key=${secret:key}", password="", redirect=1)]
        if database:
            lines.append("\t".join(["MQA", "4", "7", "127.0.0.1", str(database.port), "", "keeper", "${secret:db}",
                                    "Uptime", "10"]))
        return lines

    def check_nowhere(self, collector, *values, more=()):
        """In no file of the collector, and nothing that it has said."""
        searched = [(path, read(path)) for path in files_below(collector.dir, *more)]
        searched += [("an answer", answer) for answer in collector.answers]
        self.assertGreater(len(searched), 10)
        for value in values:
            for spelling in spellings(value):
                for place, text in searched:
                    self.assertNotIn(spelling, text, "%s: %r" % (place, spelling))

    def proven_agent(self, collector, name):
        certificate, key = collector.enrol(name)
        return harness.Agent(self, collector.port, name=name, CERTFILE=certificate, KEYFILE=key).start()

    def proven_client(self, collector, name):
        client = RawClient(collector.port)
        client.context.load_cert_chain(*collector.enrol(name))
        return client

    @staticmethod
    def results(collector, agent, number):
        return [r for r in collector.results() if (r["agent"], r["test"]) == (agent, number)]

    def wait_result(self, collector, agent, number, condition):
        """Waits for one that was not there before."""
        before = len(self.results(collector, agent, number))
        return harness.wait_until(
            lambda: [r for r in self.results(collector, agent, number)[before:] if condition(r)],
            lambda: "test %d of %s; have %s\n%s" % (number, agent, self.results(collector, agent, number)[-2:],
                                                    collector.errors()))[0]

    @staticmethod
    def is_well(result):
        return result["status"] == 0 and (result["test"] not in (2, 3) or " 200 " in result["message"])

    @harness.needs_namespaces
    def test_values_reach_proven_agents_and_nobody_else(self):
        shop = start_shop(self)
        database = harness.start_mariadb(self)
        database.sql("CREATE USER keeper@'127.0.0.1' IDENTIFIED BY '%s'" % DATABASE)
        collector = SecretCollector(self, *self.plan(shop, database)).start()
        for name, value in (("shop", PASSWORD), ("key", KEY), ("db", DATABASE)):
            collector.set(name, value)
        collector.listen()
        proven = self.proven_agent(collector, "proven")
        plain = harness.Agent(self, collector.port, name="plain").start()
        for number in (1, 2, 4):
            self.wait_result(collector, "proven", number, self.is_well)
        said = self.wait_result(collector, "proven", 3, lambda r: r["status"] != 0)
        self.assertIn("/loop?key=" + "*" * len(KEY), said["message"])
        self.assertIn("/loop?key=" + KEY, shop.seen)

        # Somebody else has the plan's other tests, and learns of nothing.
        self.wait_result(collector, "plain", 1, self.is_well)
        collector.wait_errors("plain of %s is not told of tests with secrets (3): it has not proven who it is" % EMAIL)
        client = RawClient(collector.port)
        session = client.login(agent="another")
        self.assertIn(LOAD, session.body)
        self.assertNotRegex(session.body, "HP|MQ|secret")

        # Another value: the agent goes on with it.
        shop.password = PASSWORD[::-1]
        self.wait_result(collector, "proven", 2, lambda r: " 401 " in r["message"])
        collector.set("shop", shop.password)
        self.wait_result(collector, "proven", 2, self.is_well)
        self.assertEqual(client.poll(session.headers["Vnd-SessionID"]).body, "")
        self.assertEqual(self.results(collector, "plain", 2), [])

        # Whatever there is to look at.
        collector.ask_everything()
        tests = collector.get("/api/v1/tests?limit=1000")["items"]
        asked = [t["id"] for t in tests if (t["agent"]["name"], t["number"]) == ("proven", 2)]
        fields = collector.get("/api/v1/tests/%d" % asked[0])["definition"]["fields"]
        self.assertIn("${secret:shop}", fields.values())
        backup = os.path.join(self.subdir("backup"), "file")
        subprocess.run([harness.COLLECTOR, "backup", backup, "--state-dir", collector.state], check=True,
                       stdout=subprocess.DEVNULL, timeout=harness.PATIENCE_S)
        status, missing = collector.missing()
        self.assertEqual(status, 1)
        self.assertIn("missing\t%s\tplain\thttp\t2" % EMAIL, missing)
        collector.answers.append(missing.encode())
        values = (PASSWORD, shop.password, KEY, DATABASE)
        self.check_nowhere(collector, *values, more=[os.path.dirname(backup)])
        for path in files_below(plain.dir):
            for value in values:
                self.assertNotIn(value.encode(), read(path), path)
        proven.stop()

    def test_no_kind_of_output_has_a_value(self):
        shop = start_shop(self)
        collector = OnScreen(self, *self.plan(shop), rows=40, columns=200).start()
        collector.set("shop", PASSWORD)
        collector.set("key", KEY)
        agent = self.proven_agent(collector, "proven")
        harness.wait_until(lambda: "/loop?key=" + KEY in shop.seen, "the page to be asked for")
        collector.wait_screen("/loop?key=" + "*" * len(KEY))
        self.check_nowhere(collector, PASSWORD, KEY)
        for value in (PASSWORD, KEY):
            for spelling in spellings(value):
                self.assertNotIn(spelling, collector.drawn)
        collector.stop()
        screens = collector.drawn
        for options in ("--quiet", "--problems"):
            before = len(shop.seen)
            harness.Collector.launch(collector, "--web", "127.0.0.1:0", "--web-port-file", collector.web_port_file, options)
            harness.wait_until(lambda seen=before: len(shop.seen) > seen + 4, "pages to be asked for")
            collector.stop()
        for spelling in spellings(PASSWORD) | spellings(KEY):
            self.assertNotIn(spelling, screens)
        self.check_nowhere(collector, PASSWORD, KEY)
        agent.stop()

    def test_a_lost_key_stops_tests_with_secrets_and_nothing_else(self):
        shop = start_shop(self)
        collector = SecretCollector(self, *self.plan(shop)).start()
        self.assertFalse(os.path.exists(os.path.join(collector.state, "secrets.key")))
        collector.wait_errors('there is no secret "shop"')
        client = self.proven_client(collector, "proven")
        self.assertNotIn("HPA", client.login(EMAIL, "proven").body)
        collector.set("shop", PASSWORD)
        collector.set("key", KEY)
        self.assertIn(PASSWORD, client.login(EMAIL, "proven").body)
        key = os.path.join(collector.state, "secrets.key")
        self.assertEqual(os.stat(key).st_mode & 0o777, 0o600)

        # It is not there.
        collector.stop()
        away = os.path.join(self.subdir("credentials"), "secrets-key")
        shutil.move(key, away)
        collector.start()
        collector.wait_errors("secrets that cannot be opened, so tests with them are not sent: key, shop: ")
        body = client.login(EMAIL, "proven").body
        self.assertIn(LOAD, body)
        self.assertNotIn("HPA", body)
        self.assertEqual([s["readable"] for s in collector.get("/api/v1/secrets")["items"]], [False, False])
        status, _, text = collector.ask("/api/v1/secrets/third", "PUT", '{"value": "x"}')
        self.assertEqual(status, 503, text)
        agent = harness.Agent(self, collector.port, name="plain").start()
        collector.wait_test(1)
        agent.stop()

        # It is the service's credential.
        collector.stop()
        collector.env["CREDENTIALS_DIRECTORY"] = os.path.dirname(away)
        collector.start()
        self.assertIn(PASSWORD, client.login(EMAIL, "proven").body)
        collector.set("third", "value of the third")
        self.assertFalse(os.path.exists(key))
        self.assertEqual(len(collector.get("/api/v1/secrets")["items"]), 3)

        # One that goes: its test is sent no more, and the others are.
        status, _, text = collector.ask("/api/v1/secrets/shop", "DELETE")
        self.assertEqual(status, 204, text)
        session = client.login(EMAIL, "proven")
        self.assertNotIn("HPA\t2", session.body)
        self.assertIn(KEY, session.body)
        poll = client.poll(session.headers["Vnd-SessionID"])
        self.assertEqual(poll.body, "")
        collector.set("shop", PASSWORD)
        again = client.poll(session.headers["Vnd-SessionID"]).body
        self.assertEqual(again, "".join(page(2, shop.server_port, password=PASSWORD, code=code) + "\n"
                                        for code in ("HPA", "HPM")))
        self.assertEqual(client.poll(session.headers["Vnd-SessionID"]).body, "")
        self.check_nowhere(collector, PASSWORD, KEY)

    def test_agents_that_are_only_known_get_nothing_of_them(self):
        shop = start_shop(self)
        collector = SecretCollector(self, *self.plan(shop), options=["--agents", "known"]).start()
        collector.set("shop", PASSWORD)
        client = RawClient(collector.port)
        self.assertIn("403", client.login(EMAIL, "plain").status)
        status, _, text = collector.ask("/api/v1/agents/%s/admit" % urllib.parse.quote(EMAIL + "/plain", safe=""), "POST")
        self.assertEqual(status, 200, text)
        body = client.login(EMAIL, "plain").body
        self.assertIn(LOAD, body)
        self.assertNotRegex(body, "HP|secret")
        proven = self.proven_client(collector, "proven")
        self.assertIn(page(2, shop.server_port, password=PASSWORD), proven.login(EMAIL, "proven").body)

    def test_the_command_line_takes_values_from_standard_input_alone(self):
        shop = start_shop(self)
        collector = SecretCollector(self, *self.plan(shop)).start()
        environment = dict(collector.env, VINDRAL_URL="http://127.0.0.1:%d" % collector.web_port,
                           VINDRAL_TOKEN=collector.token)

        def run(*words, given="", status=0):
            done = subprocess.run([os.path.join(harness.BUILD, "vindralctl"), "secret", *words], input=given,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False,
                                  env=environment, timeout=harness.PATIENCE_S)
            self.assertEqual(done.returncode, status, done)
            collector.answers.append((done.stdout + done.stderr).encode())
            return done.stdout + done.stderr
        self.assertIn("there are no secrets", run("list"))
        self.assertEqual(run("set", "shop", given=PASSWORD + "\n"),
                         'vindralctl: the secret "shop" is set; 1 test uses it\n')
        client = self.proven_client(collector, "proven")
        self.assertIn(page(2, shop.server_port, password=PASSWORD), client.login(EMAIL, "proven").body)
        run("set", "other", given="x")
        listed = run("list")
        self.assertRegex(listed, r"(?m)^other .* system test +0$")
        self.assertRegex(listed, r"(?m)^shop .* system test +1$")
        self.assertEqual([json.loads(line)["name"] for line in run("list", "--json").splitlines()], ["other", "shop"])
        self.assertIn("as one line", run("set", "shop", status=2))
        self.assertIn("more than one line", run("set", "shop", given="a\nb\n", status=2))
        self.assertIn("without control characters", run("set", "shop", given=PASSWORD + "\t\n", status=2))
        self.assertIn("letters, digits", run("set", "a b", given=PASSWORD, status=2))
        self.assertIn("from standard input alone", run("set", "shop", PASSWORD, given="x", status=2))
        self.assertIn("there is no secret", run("remove", "none", status=5))
        self.assertIn("1 test uses it", run("remove", "shop"))
        self.assertNotIn("HPA", client.login(EMAIL, "proven").body)
        self.check_nowhere(collector, PASSWORD)


if __name__ == "__main__":
    harness.main()
