"""Whom a collector takes for which agent: certificates that are good, and all those that are not. What is not a
product of ours, such as a certificate that has ended, is made here with the keys of the state directory."""

import datetime
import json
import os
import shutil
import signal
import subprocess
import time
import urllib.parse

import harness
import records
import stored
from asking import Asked
from peers import openssl
from raw_client import RawClient
from scripted_server import ScriptedServer, server_context

ACCOUNT = "user@example.net"
LOGGED_IN = "Authorization was successfully completed."
NOT_TAKEN = "ERROR: make_poll: The server refused the certificate in CERTFILE"
INTERNAL_ERROR = "There is an internal error occurred, while trying to connect to the server."
PLAN = ["POL\t0\t1", "CHK\t0\t1", "LAA\t1\t1\t-1\t-1\t-1"]
DAY = datetime.timedelta(days=1)


def put(source, target):
    """In its place at once, as an agent may read it at any time."""
    shutil.copyfile(source, target + ".new")
    os.rename(target + ".new", target)


class Host:
    """A host's key, certificate and the authority that it verifies its server with."""

    def __init__(self, test, name):
        self.dir = test.subdir("host " + name)
        self.key, self.pem, self.authority, self.request = (
            os.path.join(self.dir, kind) for kind in ("key.pem", "agent.pem", "ca.pem", "request.pem"))

    def make_key(self):
        openssl("req", "-new", "-nodes", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                "-keyout", self.key, "-subj", "/CN=any", "-out", self.request)
        return self

    def take(self, other):
        put(other.key, self.key)
        put(other.pem, self.pem)


class IdentityTest(harness.TestCase):
    def start_collector(self, mode="proven", *plan):
        self.collector = Asked(self, *(plan or PLAN), options=["--agents", mode, "--name", "localhost"]).start()
        return self.collector

    def in_state(self, name):
        return os.path.join(self.collector.state, name)

    def agent_path(self, name, rest="enrolment"):
        return "/api/v1/agents/%s/%s" % (urllib.parse.quote("%s/%s" % (ACCOUNT, name), safe=""), rest)

    def invite(self, name):
        status, _, text = self.collector.ask(self.agent_path(name), "POST")
        self.assertEqual(status, 201, text)
        return json.loads(text)["token"]

    def client(self, host=None):
        client = RawClient(self.collector.port)
        if host:
            client.context.load_cert_chain(host.pem, host.key)
        return client

    def request_certificate(self, host, by=None, **headers):
        """Asks for one for the host's key, and keeps it. The answer."""
        body = harness.read_text(host.request)
        head = "".join("%s: %s\r\n" % (name.replace("_", "-"), value) for name, value in headers.items())
        answer = self.client(by).exchange(("POST /enrol HTTP/1.0\r\nContent-Length: %d\r\n%s\r\n%s" % (
            len(body), head, body)).encode())
        if answer and answer.status == "HTTP/1.0 200 OK":
            harness.write_text(host.pem + ".new", answer.body)
            os.rename(host.pem + ".new", host.pem)
        return answer

    def enrolled(self, name):
        host = Host(self, name).make_key()
        shutil.copyfile(self.in_state("ca.pem"), host.authority)
        answer = self.request_certificate(host, Vnd_Token=self.invite(name))
        self.assertEqual(answer.status, "HTTP/1.0 200 OK", answer)
        return host

    def forged(self, name, begins=-DAY, ends=30 * DAY, authority=None, use="clientAuth", like=None):
        """Signed with the keys of the state directory or another authority's, (certificate, key); for the key of
        `like` or one of its own."""
        host = Host(self, "forged " + name)
        if like:
            put(like.key, host.key)
            put(like.request, host.request)
        else:
            host.make_key()
        files = {"extensions": "subjectAltName=URI:vindral:%s/%s\nextendedKeyUsage=%s\nbasicConstraints=critical,CA:FALSE\n"
                               "keyUsage=critical,digitalSignature\n" % (ACCOUNT.replace("@", "%40"), name, use),
                 "index": "", "serial": "00000001" + os.urandom(12).hex() + "\n",
                 "config": "[ca]\ndefault_ca = d\n[d]\ndatabase = %s/index\nnew_certs_dir = %s\nserial = %s/serial\n"
                           "policy = p\ndefault_md = sha256\n[p]\ncommonName = optional\n" % ((host.dir,) * 3)}
        for file, text in files.items():
            harness.write_text(os.path.join(host.dir, file), text)
        now = datetime.datetime.now(datetime.timezone.utc)
        pem, key = authority or (self.in_state("agents-ca.pem"), self.in_state("agents-ca-key.pem"))
        openssl("ca", "-batch", "-notext", "-config", os.path.join(host.dir, "config"), "-cert", pem, "-keyfile", key,
                "-in", host.request, "-out", host.pem, "-extfile", os.path.join(host.dir, "extensions"),
                "-startdate", (now + begins).strftime("%Y%m%d%H%M%SZ"), "-enddate", (now + ends).strftime("%Y%m%d%H%M%SZ"))
        return host

    def another_authority(self):
        place = self.subdir("another authority")
        pem, key = (os.path.join(place, kind) for kind in ("ca.pem", "ca-key.pem"))
        subject = subprocess.run(["openssl", "x509", "-in", self.in_state("agents-ca.pem"), "-noout", "-subject", "-nameopt",
                                  "multiline"], check=True, stdout=subprocess.PIPE, text=True).stdout
        name = subject.rpartition("= ")[2].strip()
        openssl("req", "-x509", "-new", "-nodes", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-keyout", key,
                "-subj", "/CN=" + name, "-out", pem, "-days", "30")
        return pem, key

    def agent(self, host=None, name="web-1", **settings):
        if host:
            settings = {"CERTFILE": host.pem, "KEYFILE": host.key, "CAFILE": host.authority, **settings}
        return harness.Agent(self, name="agent " + name, AGENTNAME=name, USEREMAIL=ACCOUNT,
                             USEHOST="https://localhost:%d/fcgi-bin/agentgateway" % self.collector.port,
                             **settings).start()

    def wait_more(self, count=2):
        self.collector.wait_test(1, len([r for r in self.collector.results() if r["test"] == 1]) + count)

    def check_nothing_lost(self, agent):
        """Each block that the agent collected was stored once, in order; the last may not have been sent."""
        agent.stop()
        collected = [size for size in agent.collected(inventories=False) if size]
        with stored.Database(self.in_state("results.db")) as database:
            blocks = [size for size, in database.query("SELECT length(records) FROM blocks ORDER BY id")]
        self.assertEqual(blocks, collected[:len(blocks)])
        self.assertGreaterEqual(len(blocks), len(collected) - 1)


class BadCertificates(IdentityTest):
    """In the place of a good one, while the agent runs: it is refused, keeps its results, and sends them when the
    good one is back."""

    def check(self, make, *lines):
        self.start_collector()
        host = self.enrolled("web-1")
        good = Host(self, "good")
        good.take(host)
        agent = self.agent(host)
        self.wait_more()
        bad = make(host)
        self.assertIsNone(self.client(bad).login(agent="web-1"))
        host.take(bad)
        agent.wait_log(NOT_TAKEN, 2)
        errors = harness.wait_until(lambda: [line for line in self.collector.errors().splitlines()
                                             if any(text in line for text in lines)], self.collector.errors)
        self.assertTrue(errors)
        host.take(good)
        self.wait_more(3)
        self.assertEqual(agent.log().count(LOGGED_IN), 1, "its session outlasts it")
        self.check_nothing_lost(agent)

    def test_ended(self):
        self.check(lambda host: self.forged("web-1", begins=-9 * DAY, ends=-DAY, like=host),
                   "certificate refused from 127.0.0.1: it has ended: web-1 of " + ACCOUNT)

    def test_not_begun(self):
        self.check(lambda host: self.forged("web-1", begins=DAY, like=host),
                   "certificate refused from 127.0.0.1: it has not begun: web-1 of " + ACCOUNT)

    def test_of_another_authority_with_the_same_names(self):
        self.check(lambda host: self.forged("web-1", authority=self.another_authority()),
                   "certificate refused from 127.0.0.1: certificate signature failure",
                   "certificate refused from 127.0.0.1: unable to get local issuer certificate")

    def test_of_a_server(self):
        def make(_):
            server = Host(self, "server")
            put(self.in_state("certificate.pem"), server.pem)
            put(self.in_state("key.pem"), server.key)
            return server
        self.check(make, "certificate refused from 127.0.0.1: unable to get local issuer certificate",
                   "certificate refused from 127.0.0.1: unsuitable certificate purpose")

    def test_meant_for_servers(self):
        self.check(lambda host: self.forged("web-1", use="serverAuth", like=host),
                   "certificate refused from 127.0.0.1: ")


class Names(IdentityTest):
    def test_of_another_agent(self):
        """A host with the files of another is refused under its own name, and in the other's session."""
        self.start_collector()
        host, other = self.enrolled("web-1"), self.enrolled("web-2")
        good = Host(self, "good")
        good.take(host)
        agent = self.agent(host)
        self.wait_more()
        host.take(other)
        self.collector.wait_errors("poll refused, its certificate is of another name: web-1 of %s at 127.0.0.1, "
                                   "of web-2 of %s" % (ACCOUNT, ACCOUNT))
        self.collector.wait_errors("login refused, its certificate is of another name: web-1 of")
        agent.wait_log(INTERNAL_ERROR)
        host.take(good)
        self.wait_more(3)
        self.check_nothing_lost(agent)

    def test_stolen(self):
        """The files alone are good for one name; the name alone for nothing."""
        self.start_collector()
        host = self.enrolled("web-1")
        thief = self.agent(host, name="thief")
        self.collector.wait_errors("login refused, its certificate is of another name: thief of")
        answer = self.client().login(ACCOUNT, "web-1")
        self.assertEqual((answer.status, answer.body), ("HTTP/1.0 403 Forbidden", "This agent has to show its certificate.\n"))
        self.assertTrue(answer.clean)
        self.assertNotIn("Vnd-SessionID", answer.headers)
        thief.wait_log(INTERNAL_ERROR)
        self.assertNotIn(LOGGED_IN, thief.log())

    def test_a_session_is_of_no_use_without_its_certificate(self):
        self.start_collector("any")
        host = self.enrolled("web-1")
        session = self.client(host).session(ACCOUNT, "web-1")
        self.assertEqual(self.client().poll(session, b"").body, "111111")
        self.assertEqual(self.client(self.enrolled("web-2")).poll(session, b"").body, "111111")
        self.assertEqual(self.client(host).poll(session, b"").body, "")

    def test_renamed_host(self):
        self.start_collector()
        host = self.enrolled("old")
        agent = self.agent(host, name="new")
        self.collector.wait_errors("login refused, its certificate is of another name: new of %s at 127.0.0.1, of old of %s" % (
            ACCOUNT, ACCOUNT))
        host.take(self.enrolled("new"))
        agent.stop()  # which does not wait a minute for its next login
        agent.start()
        self.wait_more()

    def test_two_hosts_under_one_name(self):
        """A host that is set up anew under its name ends what the one before had."""
        self.start_collector()
        first = self.enrolled("web-1")
        agent = self.agent(first)
        self.wait_more()
        second = self.enrolled("web-1")
        self.wait_more()  # as long as the second is not used
        self.assertIn("Vnd-SessionID", self.client(second).login(ACCOUNT, "web-1").headers)
        self.collector.wait_errors("certificate refused from 127.0.0.1: it is revoked: web-1 of")
        agent.wait_log(NOT_TAKEN)
        self.assertIsNone(self.client(first).login(ACCOUNT, "web-1"))
        self.collector.stop()
        self.collector.start()  # nor after a restart
        self.assertIsNone(self.client(first).login(ACCOUNT, "web-1"))
        self.assertIn("Vnd-SessionID", self.client(second).login(ACCOUNT, "web-1").headers)

    def test_an_agent_s_certificate_is_no_server_s(self):
        self.start_collector()
        thief = self.enrolled("web-1")
        bundle = os.path.join(thief.dir, "bundle.pem")
        harness.write_text(bundle, harness.read_text(self.in_state("ca.pem")) + harness.read_text(self.in_state("agents-ca.pem")))
        for certificate in (thief, self.forged("localhost")):
            server = ScriptedServer(self, context=server_context(certificate.pem, certificate.key))
            agent = harness.Agent(self, name="agent", CAFILE=bundle,
                                  USEHOST="https://localhost:%d/fcgi-bin/agentgateway" % server.port).start()
            agent.wait_log("Cannot verify the server")
            self.assertEqual(server.requests, [])


class Decisions(IdentityTest):
    def test_revoked_while_it_polls(self):
        self.start_collector()
        host = self.enrolled("web-1")
        agent = self.agent(host)
        self.wait_more()
        status, _, text = self.collector.ask(self.agent_path("web-1"), "DELETE")
        self.assertEqual(status, 204, text)
        self.collector.wait_errors("certificate refused from 127.0.0.1: it is revoked: web-1 of %s" % ACCOUNT)
        agent.wait_log(NOT_TAKEN, 2)
        answer = self.request_certificate(host, by=host)
        self.assertIsNone(answer, "it renews nothing")
        host.take(self.enrolled("web-1"))  # and is let in again
        self.wait_more(3)
        self.check_nothing_lost(agent)

    def test_waits_and_is_admitted(self):
        self.start_collector("known")
        agent = self.agent(name="new", CAFILE=self.in_state("ca.pem"))
        self.collector.wait_errors("login refused, not admitted: new of %s at 127.0.0.1" % ACCOUNT)
        waiting = self.collector.get("/api/v1/enrolments?state=waiting")["items"]
        self.assertEqual([(one["account"], one["name"]) for one in waiting], [(ACCOUNT, "new")])
        agent.wait_log(INTERNAL_ERROR)
        status, _, text = self.collector.ask(self.agent_path("new", "admit"), "POST")
        self.assertLess(status, 300, text)
        self.wait_more()
        self.assertEqual(self.collector.errors().count("login refused"), 1)
        self.check_nothing_lost(agent)

    def test_asked_for_the_first_time(self):
        """Who reported while nobody was asked goes on; the announcement says what a new one needs."""
        self.start_collector("any")
        session = self.client().session(ACCOUNT, "earlier")
        result = records.encode_load(records.Load(1, 1, int(time.time()), (9.0, 1.0, 1.5), "fine\n", 0))
        self.assertEqual(self.client().poll(session, result).status, "HTTP/1.0 200 OK")
        self.assertNotIn("vindralctl", self.collector.errors())
        self.collector.stop()
        self.collector.options[1] = "known"
        self.collector.start()
        self.collector.wait_errors("1 agents that the store knew are admitted")
        self.assertIn("Then it waits until it is admitted, with\n  vindralctl agents admit NAME\n", self.collector.errors())
        self.assertIn("Vnd-SessionID", self.client().login(ACCOUNT, "earlier").headers)
        self.assertNotIn("Vnd-SessionID", self.client().login(ACCOUNT, "later").headers)
        self.collector.stop()
        self.collector.options[1] = "proven"
        self.collector.start()
        self.assertIn("printed by\n  vindralctl enrol NAME\n", self.collector.errors())
        self.assertEqual(self.collector.errors().count("that the store knew"), 1)
        self.assertEqual(self.client().login(ACCOUNT, "earlier").body, "This agent has to show its certificate.\n")

    def test_what_was_decided_is_removed(self):
        """Who was revoked is not let in by that; all wait."""
        self.start_collector("any")
        result = records.encode_load(records.Load(1, 1, int(time.time()), (9.0, 1.0, 1.5), "fine\n", 0))
        for name in ("earlier", "thief"):
            self.assertEqual(self.client().poll(self.client().session(ACCOUNT, name), result).status, "HTTP/1.0 200 OK")
        status, _, text = self.collector.ask(self.agent_path("thief"), "DELETE")
        self.assertLess(status, 300, text)
        self.collector.stop()
        os.unlink(self.in_state("settings.db"))
        self.collector.options[1] = "known"
        self.collector.start()
        self.collector.wait_errors("settings.db is gone, and who was admitted and revoked is forgotten")
        self.assertNotIn("that the store knew", self.collector.errors())
        for name in ("earlier", "thief"):
            self.assertNotIn("Vnd-SessionID", self.client().login(ACCOUNT, name).headers)

    def test_asks_for_a_certificate_and_is_admitted(self):
        self.start_collector()
        host = Host(self, "new").make_key()
        shutil.copyfile(self.in_state("ca.pem"), host.authority)
        names = {"Vnd_EMail": ACCOUNT, "Vnd_AName": "new"}
        self.assertEqual(self.request_certificate(host, **names).status, "HTTP/1.0 202 Accepted")
        key = self.collector.get(self.agent_path("new"))["waiting"]["key"]
        status, _, text = self.collector.ask(self.agent_path("new", "admit"), "POST", json.dumps({"key": key}),
                                             **{"Content-Type": "application/json"})
        self.assertLess(status, 300, text)
        self.assertEqual(self.request_certificate(host, **names).status, "HTTP/1.0 200 OK")
        self.agent(host, name="new")
        self.wait_more()

    def test_tokens(self):
        """Twice, for another name, and wrong: api/enrolments and the unit tests have the others."""
        self.start_collector()
        host, other = Host(self, "one").make_key(), Host(self, "other").make_key()
        token = self.invite("web-1")
        self.assertEqual(self.request_certificate(host, Vnd_Token=token, Vnd_EMail=ACCOUNT, Vnd_AName="web-2").status,
                         "HTTP/1.0 403 Forbidden")
        self.assertEqual(self.request_certificate(host, Vnd_Token=token).status, "HTTP/1.0 200 OK")
        self.assertEqual(self.request_certificate(host, Vnd_Token=token).status, "HTTP/1.0 200 OK")
        self.assertEqual(self.request_certificate(other, Vnd_Token=token).status, "HTTP/1.0 403 Forbidden")
        wrong = token[:10] + ("A" if token[10] != "A" else "B") + token[11:]
        self.assertEqual(self.request_certificate(other, Vnd_Token=wrong).status, "HTTP/1.0 403 Forbidden")


class Exchange(IdentityTest):
    def authority(self, *words):
        done = subprocess.run([harness.COLLECTOR, "authority", *words, "--state-dir", self.collector.state],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False,
                              env=self.collector.env, timeout=harness.PATIENCE_S)
        return done.returncode, done.stdout + done.stderr

    def exchanged(self, *words):
        """Told by a signal that its files are others."""
        read = self.collector.errors().count("certificates read again")
        harness.wait_until(lambda: self.authority(*words)[0] == 0, "%s of %s" % words)
        self.collector.process.send_signal(signal.SIGHUP)
        self.collector.wait_errors("certificates read again", read + 1)

    def published(self, host):
        return self.client(host).exchange(b"GET /authority HTTP/1.0\r\n\r\n")

    def test_of_the_agents_authority(self):
        self.start_collector()
        host = self.enrolled("web-1")
        agent = self.agent(host)
        self.wait_more()
        before = self.published(host).headers["Vnd-Authority"]
        self.exchanged("renew", "agents")
        after = self.published(host).headers["Vnd-Authority"]
        self.assertNotEqual(before, after, "from which a host sees that it is to renew")
        self.wait_more()
        status, text = self.authority("finish", "agents")
        self.assertNotEqual(status, 0)
        self.assertIn("web-1", text)
        old = Host(self, "old")
        old.take(host)
        self.assertEqual(self.request_certificate(host, by=old).status, "HTTP/1.0 200 OK")
        self.wait_more()
        self.exchanged("finish", "agents")
        self.wait_more()
        self.assertIsNone(self.client(old).login(ACCOUNT, "web-1"))
        self.assertNotIn(NOT_TAKEN, agent.log())
        self.assertEqual(agent.log().count(LOGGED_IN), 1)
        self.check_nothing_lost(agent)

    def test_of_the_server_s_authority(self):
        self.start_collector()
        host = self.enrolled("web-1")
        agent = self.agent(host)
        self.wait_more()
        self.exchanged("renew", "server")
        status, text = self.authority("finish", "server")
        self.assertNotEqual(status, 0)
        self.assertIn("web-1", text)
        both = self.published(host).body
        self.assertEqual(both.count("BEGIN CERTIFICATE"), 2)
        harness.write_text(host.authority + ".new", both)
        os.rename(host.authority + ".new", host.authority)
        agent.wait_log("was read: the server is verified", 2)
        harness.wait_until(lambda: self.authority("finish", "server")[0] == 0, "web-1 is noted to know the next one")
        self.collector.process.send_signal(signal.SIGHUP)
        self.collector.wait_errors("certificates read again", 2)
        self.assertEqual(self.published(host).body.count("BEGIN CERTIFICATE"), 1)
        self.wait_more(3)
        self.assertNotIn("Cannot verify the server", agent.log())
        self.check_nothing_lost(agent)

    def test_files_that_cannot_be_read_change_nothing(self):
        self.start_collector()
        host = self.enrolled("web-1")
        self.agent(host)
        self.wait_more()
        kept = harness.read_text(self.in_state("certificate.pem"))
        harness.write_text(self.in_state("certificate.pem"), "nonsense")
        self.collector.process.send_signal(signal.SIGHUP)
        self.collector.wait_errors("the certificates cannot be read, the old ones stay: ")
        self.wait_more()
        harness.write_text(self.in_state("certificate.pem"), kept)
        self.collector.process.send_signal(signal.SIGHUP)
        self.collector.wait_errors("certificates read again")
        self.wait_more()


class Renewal(IdentityTest):
    def test_what_may_renew_and_what_not(self):
        self.start_collector()
        host = self.enrolled("web-1")
        fresh = Host(self, "fresh").make_key()
        for bad in (self.forged("web-1", begins=-9 * DAY, ends=-DAY), self.forged("web-1", authority=self.another_authority())):
            self.assertIsNone(self.request_certificate(fresh, by=bad))
        self.assertEqual(self.request_certificate(fresh, by=host).status, "HTTP/1.0 200 OK")
        self.assertIn("Vnd-SessionID", self.client(fresh).login(ACCOUNT, "web-1").headers)


if __name__ == "__main__":
    harness.main()
