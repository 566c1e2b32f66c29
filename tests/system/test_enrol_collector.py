"""Hosts that enrol with a real collector, by real tokens, and whose agents poll it."""

import json
import os
import signal
import sqlite3
import subprocess
import unittest
import urllib.parse

import harness
from asking import Asked
from enrolling import Host


ACCOUNT = "operator@example.org"
PLAN = ("POL\t0\t1", "CHK\t0\t1", "LAA\t1\t1\t-1\t-1\t-1")


class Collector(Asked):
    def __init__(self, test, mode="proven", **named):
        super().__init__(test, *PLAN, options=["--agents", mode], **named)
        self.start()
        self.url = "https://localhost:%d" % self.port

    def of(self, name, what, account=ACCOUNT):
        return "/api/v1/agents/%s/%s" % (urllib.parse.quote("%s/%s" % (account, name), safe=""), what)

    def change(self, method, path, body=None):
        status, _, text = self.ask(path, method, json.dumps(body) if body is not None else None,
                                   **({"Content-Type": "application/json"} if body is not None else {}))
        self.test.assertIn(status, (200, 201, 204), text)
        return json.loads(text) if text else None

    def invite(self, name):
        return self.change("POST", self.of(name, "enrolment"))["token"]

    def standing(self, name):
        return self.get(self.of(name, "enrolment"))

    def authority(self, *words, status=0):
        done = subprocess.run([harness.COLLECTOR, "authority", *words, "--state-dir", self.state],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False, env=self.env,
                              timeout=harness.PATIENCE_S)
        if status is not None:
            self.test.assertEqual(done.returncode, status, done.stdout)
        return done.stdout

    def reads_again(self):
        """The certificates, now and not within the minute."""
        self.process.send_signal(signal.SIGHUP)


@unittest.skipUnless(harness.isolated, "needs root: the agent runs as another user")
class Whole(harness.TestCase):
    def test_from_an_invitation_to_a_result(self):
        collector = Collector(self)
        host = Host(self)
        said = host.enrol(collector.url, collector.invite("web-01"))
        host.check_enrolled(ACCOUNT, "web-01")
        collector.wait_test(1, 2)
        self.assertEqual(collector.standing("web-01")["state"], "proven", said)
        self.assertEqual(host.enrol("--renew"), "")

    def test_a_token_opens_once(self):
        collector = Collector(self)
        first, second = Host(self, "first"), Host(self, "second")
        token = collector.invite("web-01")
        first.enrol(collector.url, token)
        said = second.enrol(collector.url, token, status=1)
        self.assertIn(" refuses: ", said)
        second.check_untouched(running=False)
        # The first one may say it again.
        self.assertIn("enrolled by this token already, as web-01", first.enrol(collector.url, token))
        first.check_enrolled(ACCOUNT, "web-01")

    def test_a_token_that_is_late(self):
        collector = Collector(self)
        host = Host(self)
        token = collector.invite("web-01")
        collector.stop()
        with sqlite3.connect(os.path.join(collector.state, "settings.db")) as settings:
            settings.execute("UPDATE enrolments SET made = made - 7200, ends = ends - 7200")
        collector.start()
        self.assertIn(" refuses: ", host.enrol(collector.url, token, status=1))
        host.check_untouched(running=False)

    def test_a_token_for_another_name(self):
        collector = Collector(self)
        host = Host(self, conf="USEREMAIL operator@example.org\nAGENTNAME db-01\n")
        token = collector.invite("web-01")
        said = host.enrol(collector.url, token, status=1)
        self.assertIn("with --replace it takes the token's name", said)
        host.check_untouched(running=False)
        # It is not used up.
        host.enrol(collector.url, token, "--replace")
        host.check_enrolled(ACCOUNT, "web-01")

    def test_a_token_of_nobody(self):
        collector = Collector(self)
        host = Host(self)
        token = collector.invite("web-01")
        wrong = "ve_" + ("B" if token[3] == "A" else "A") + token[4:]
        self.assertIn(" refuses: ", host.enrol(collector.url, wrong, status=1))
        self.assertIn("is not the collector that is meant", host.enrol(
            collector.url, token[:-10] + "AAAAAAAAAA"[:10], status=1))
        host.check_untouched(running=False)
        host.enrol(collector.url, token)

    def test_admitted_by_its_key(self):
        collector = Collector(self)
        host = Host(self)
        process, key = host.ask(collector.url, "--ca", os.path.join(collector.state, "ca.pem"),
                                "--account", ACCOUNT, "--name", "web-01")
        collector.change("POST", collector.of("web-01", "admit"), {"key": key})
        rest, _ = process.communicate(timeout=harness.PATIENCE_S)
        self.assertEqual(process.returncode, 0, rest)
        host.check_enrolled(ACCOUNT, "web-01")
        collector.wait_test(1)

    def test_not_admitted(self):
        collector = Collector(self)
        host = Host(self)
        process, _ = host.ask(collector.url, "--ca", os.path.join(collector.state, "ca.pem"),
                              "--account", ACCOUNT, "--name", "web-01")
        collector.change("POST", collector.of("web-01", "refuse"))
        rest, _ = process.communicate(timeout=harness.PATIENCE_S)
        self.assertEqual(process.returncode, 1, rest)
        self.assertIn(" refuses: ", rest)
        host.check_untouched(running=False)

    def test_an_agent_without_a_certificate_moves(self):
        """It runs as agents did before there were certificates, is enrolled under its name, and loses nothing."""
        collector = Collector(self, mode="any")
        host = Host(self, conf="USEREMAIL %s\nAGENTNAME web-01\nUSEHOST https://localhost:%d/fcgi-bin/agentgateway\n" % (
            ACCOUNT, collector.port))
        host.start_agent()
        collector.wait_test(1, 2)
        host.enrol(collector.url, collector.invite("web-01"))
        host.check_enrolled(ACCOUNT, "web-01")
        self.assertEqual(len(collector.get("/api/v1/agents")["items"]), 1)

    def test_set_up_anew_under_its_old_name(self):
        """The new installation is the host; the certificate of the old one ends."""
        collector = Collector(self)
        old, new = Host(self, "old"), Host(self, "new")
        old.enrol(collector.url, collector.invite("web-01"), "--no-start")
        new.enrol(collector.url, collector.invite("web-01"))
        new.check_enrolled(ACCOUNT, "web-01")
        said = old.enrol("--renew", status=1)
        self.assertIn("refuse", said)

    def test_revoked(self):
        collector = Collector(self)
        host = Host(self)
        host.enrol(collector.url, collector.invite("web-01"))
        collector.change("DELETE", collector.of("web-01", "enrolment"))
        said = host.enrol("--renew", status=1)
        self.assertIn("refuses this host's certificate: it is revoked; ask for a token", said)
        # A new token lets it in again.
        host.enrol(collector.url, collector.invite("web-01"))
        host.check_enrolled(ACCOUNT, "web-01", "agent-2.pem", "ca-2.pem")

    def test_killed_and_called_again(self):
        library = os.path.join(self.subdir("library"), "kill_at.so")
        if harness.SANITIZERS:
            self.skipTest("a sanitizer has its own place before libc")
        subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-o", library,
                        os.path.join(harness.HERE, "faults", "kill_at.c")], check=True)
        collector = Collector(self)

        def one(number):
            host = Host(self, "host-%d" % number)
            token = collector.invite("web-%d" % number)
            status, said = host.run(collector.url, token, env={"LD_PRELOAD": library, "KILL_AT": str(number)})
            self.assertEqual(status, -signal.SIGKILL, said)
            host.check_whole()
            host.enrol(collector.url, token)
            host.check_enrolled(ACCOUNT, "web-%d" % number)
        harness.in_parallel(self, [(str(number), lambda number=number: one(number)) for number in range(2, 40, 4)])

    def test_the_agents_authority_is_exchanged(self):
        collector = Collector(self)
        host = Host(self)
        host.enrol(collector.url, collector.invite("web-01"))
        before = host.identity()
        collector.authority("renew", "agents")
        collector.reads_again()
        harness.wait_until(lambda: host.enrol("--renew") or host.identity() != before, "the new authority")
        self.assertNotEqual(host.identity(), before)
        count = len(collector.wait_test(1))
        harness.wait_until(lambda: "no longer" in collector.authority("finish", "agents", status=None),
                           "the new certificate to be used")
        collector.reads_again()
        collector.wait_test(1, count + 2)
        self.assertEqual(host.enrol("--renew"), "")

    def test_the_servers_authority_is_exchanged(self):
        collector = Collector(self)
        host = Host(self)
        host.enrol(collector.url, collector.invite("web-01"))
        collector.authority("renew", "server")
        collector.reads_again()

        def trusts():
            host.enrol("--renew")
            return harness.read_text(host.value("CAFILE")).count("BEGIN CERTIFICATE")
        harness.wait_until(lambda: trusts() == 2, "both authorities")
        harness.wait_until(lambda: "ca.pem now" in collector.authority("finish", "server", status=None),
                           "the host to be known to trust the next one")
        collector.reads_again()
        harness.wait_until(lambda: trusts() == 1, "the new authority alone")
        count = len(collector.wait_test(1))
        collector.wait_test(1, count + 2)
        self.assertEqual(host.enrol("--renew"), "")

    def test_left_behind_by_an_exchange_of_the_servers_authority(self):
        collector = Collector(self)
        host = Host(self)
        host.enrol(collector.url, collector.invite("web-01"))
        collector.authority("renew", "server")
        collector.authority("finish", "server", "--force")
        collector.reads_again()
        collector.wait_errors("certificates read again")
        said = host.enrol("--renew", status=1)
        self.assertRegex(said, "is not trusted: .*; ask for a token .vindralctl enrol. and type vindral-enrol URL TOKEN here")
        host.enrol(collector.url, collector.invite("web-01"))
        host.check_enrolled(ACCOUNT, "web-01", "agent-2.pem", "ca-2.pem")

    def test_two_hundred_renew_at_once(self):
        hosts = 20 if harness.SANITIZERS else 200
        collector = Collector(self)

        def enrolled(number):
            host = Host(self, "host-%d" % number)
            host.enrol(collector.url, collector.invite("web-%d" % number), "--no-start")
            return host
        made = []
        harness.in_parallel(self, [(str(n), lambda n=n: made.append(enrolled(n))) for n in range(hosts)], 4)
        before = [host.identity() for host in made]
        processes = [host.begin("--renew", "--force") for host in made]
        for host, process, old in zip(made, processes, before):
            said, _ = process.communicate(timeout=2 * harness.PATIENCE_S)
            self.assertEqual(process.returncode, 0, said)
            self.assertNotEqual(host.identity(), old)
        self.assertEqual(len(made), hosts)


if __name__ == "__main__":
    harness.main()
