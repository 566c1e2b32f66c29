#!/usr/bin/env python3
"""vindralctl against a real collector with a real agent, and against servers that are none."""

import contextlib
import fcntl
import http.server
import json
import os
import pty
import re
import shutil
import signal
import socket
import struct
import subprocess
import termios
import threading
import unittest

import harness
from scripted_server import server_context
from test_trust import Authority

CTL = os.path.join(harness.BUILD, "vindralctl")
ESCAPE = re.compile(r"\x1b\[[0-9;]*m")


class CtlTest(harness.TestCase):
    url = token = None

    def setUp(self):
        super().setUp()
        self.ctl_dir = self.subdir("ctl")
        self.addCleanup(lambda: self.assertEqual(harness.sanitizer_findings(self.ctl_dir), ""))

    def environment(self, **more):
        env = harness.sanitizer_environment(self.ctl_dir)
        for name in ("VINDRAL_URL", "VINDRAL_TOKEN", "NO_COLOR", "COLUMNS", "SSL_CERT_FILE", "SSL_CERT_DIR"):
            env.pop(name, None)
        env.update(LC_ALL="C.UTF-8", TZ="UTC", TERM="xterm")
        if self.url:
            env["VINDRAL_URL"] = self.url
        if self.token:
            env["VINDRAL_TOKEN"] = self.token
        env.update(more)
        return {name: value for name, value in env.items() if value is not None}

    def ctl(self, *words, status=0, **more):
        """Standard output, and standard error as `self.told`."""
        done = subprocess.run([CTL, *words], env=self.environment(**more), stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False,
                              timeout=harness.PATIENCE_S)
        self.told = done.stderr
        self.assertEqual(done.returncode, status, "%s\n%s\n%s" % (words, done.stdout, done.stderr))
        if self.token:
            self.assertNotIn(self.token, done.stdout + done.stderr)
        return done.stdout

    def rows(self, *words, status=0):
        return [json.loads(line) for line in self.ctl(*words, "--json", status=status).splitlines()]


class Collected(CtlTest):
    """With a collector, and an agent with a test that is well and one that never is."""

    def start(self, address="127.0.0.1", port=0, agent=True, options=()):
        self.collector = harness.Collector(self, "POL\t0\t1", "CHK\t0\t1", "LAA\t1\t1\t-1\t-1\t-1",
                                           "LAA\t2\t1\t0\t-1\t-1")
        self.port_file = os.path.join(self.collector.dir, "web port")
        self.web = ("--web", "%s:%d" % (address, port), "--web-port-file", self.port_file, *options)
        self.collector.start(*self.web)
        self.web_port = int(harness.read_text(self.port_file))
        self.url = "http://127.0.0.1:%d" % self.web_port
        self.tokens = {role: self.make_token(role) for role in ("viewer", "operator", "admin")}
        self.token = self.tokens["viewer"]
        if agent:
            self.agent = harness.Agent(self, self.collector.port, name="web-1").start()
            harness.wait_until(lambda: self.states() == ["ok", "problem"], lambda: "both tests: %s" % self.states())

    def states(self):
        return [test["state"] for test in self.rows("tests")]

    def make_token(self, role):
        done = subprocess.run([harness.COLLECTOR, "token", "add", "of " + role, "--role", role, "--state-dir",
                               self.collector.state], stdout=subprocess.PIPE, text=True, check=True,
                              timeout=harness.PATIENCE_S)
        return done.stdout.strip()


class Asked(Collected):
    def test_lists(self):
        self.start()
        agents = self.ctl("agents").splitlines()
        self.assertEqual(agents[0].split()[:8],
                         ["STATE", "SINCE", "AGENT", "ID", "OK", "PROBLEM", "UNKNOWN", "POLLED"])
        self.assertEqual(len(agents), 2)
        self.assertEqual((agents[1].split()[0], agents[1].split()[2]), ("problem", "user@example.net/web-1"))
        agent, = self.rows("agents")
        self.assertEqual((agent["name"], agent["tests"]), ("web-1", {"ok": 1, "problem": 1, "unknown": 0}))
        self.ctl("agents", "--fail", status=1)
        self.ctl("agents", "--state", "ok,silent", "--fail")
        self.assertIn("no such agents", self.told)

        tests = self.rows("tests")
        self.assertEqual([test["name"] for test in tests], ["load average 1", "load average 2"])
        table = self.ctl("tests")
        self.assertIn("load1 ", table)
        self.assertIn("Max value: 0", table)
        self.assertNotIn("\x1b", table)
        self.assertEqual([line.split()[0] for line in table.splitlines()], ["STATE", "problem", "ok"])
        worst = self.ctl("tests", "--limit", "1").splitlines()
        self.assertEqual([line.split()[0] for line in worst], ["STATE", "problem"])
        self.assertEqual(self.rows("tests", "--limit", "1")[0]["state"], "ok")  # as the API has it
        self.ctl("tests", "--fail", status=1)
        self.ctl("tests", "--state", "ok", "--fail", status=1)
        self.ctl("tests", "--state", "unknown", "--fail")
        self.assertEqual(len(self.rows("tests", "--agent", "web-1", "--type", "load average", "--limit", "1")), 1)
        self.assertEqual(self.rows("tests", "--q", "nothing like it"), [])
        self.ctl("tests", "--agent", "web-2", status=5)
        self.assertIn("there is no agent", self.told)
        self.assertIn("retired is found by its id", self.told)
        self.ctl("tests", "--state", "bad", status=2)
        self.assertIn("state", self.told)

        shown = self.ctl("agents", "show", "web-1")
        self.assertRegex(shown, r"(?m)^agent +user@example\.net/web-1$")
        self.assertRegex(shown, r"(?m)^tests +1 ok, 1 problem, 0 unknown$")
        self.assertRegex(shown, r"(?m)^limit reached .* load average +load average 2 .*Max value: 0")
        shown = self.ctl("tests", "show", "web-1:load average 2")
        for fact in (r"test +load average 2", r"agent +user@example\.net/web-1", r"type +load average 2",
                     r"state +problem", r"status +limit reached", r"message +.*Max value: 0", r"values +load1 [\d.]+",
                     r" +load15 [\d.]+", r"told to be +.*: -1"):
            self.assertRegex(shown, "(?m)^%s" % fact)
        self.assertEqual(self.rows("tests", "show", "web-1:load average 2")[0]["id"], tests[1]["id"])
        self.ctl("tests", "show", "nothing", status=5)
        self.assertEqual(self.rows("agents", "show", "user@example.net/web-1")[0]["id"], agent["id"])
        self.assertEqual(self.rows("agents", "show", str(agent["id"]))[0]["id"], agent["id"])

    def test_results_and_series(self):
        self.start()
        ids = [str(test["id"]) for test in self.rows("tests")]
        harness.wait_until(lambda: len(self.rows("results", ids[0])) >= 4, "results")
        lines = self.ctl("results", "web-1:load average 1", "--limit", "3").splitlines()
        self.assertEqual((len(lines), lines[0].split()[:2]), (4, ["TIME", "STATE"]))
        newest, second = self.rows("results", "user@example.net/web-1:load average 1", "--limit", "2")
        self.assertGreaterEqual(newest["time"], second["time"])
        self.assertEqual(self.rows("results", ids[0], "--to", "-1d"), [])
        self.ctl("results", "load average", status=5)  # both have it in their names
        self.assertIn("load average 2", self.told)
        self.assertEqual(len(self.rows("results", "average 2", "--limit", "1")), 1)  # the only one
        for words in ("web-1:nothing", "web-1", ids[0] + "9:x:load", "user@example.net/web-1:lode"):
            self.ctl("results", words, status=5)
            shows = "web-1:load average 2 (load average 2)\n" in self.told
            self.assertEqual(shows, not words[0].isdigit(), self.told)
        self.ctl("results", "123456", status=5)
        self.ctl("results", ids[0], "--from", "soon", status=2)
        self.assertIn("yesterday", self.told)

        plot = self.ctl("series", ids[1], "--from", "-10m")
        for text in ("user@example.net/web-1:load average 2", "load1: lowest", "load15: lowest", "\u2524", "state"):
            self.assertIn(text, plot)
        self.assertTrue(any("!" in line for line in plot.splitlines() if line.strip().startswith("state")), plot)
        self.assertLessEqual(max(map(len, plot.splitlines()[1:])), 80)
        for how in ({"LC_ALL": "C"}, {}):
            plot = self.ctl("series", ids[1], "--from", "-10m", "--value", "load1", "--height", "5",
                            *([] if how else ["--ascii"]), COLUMNS="60", **how)
            self.assertTrue(plot.isascii(), plot)
            self.assertIn("*", plot)
            self.assertNotIn("load5", plot)
            self.assertLessEqual(max(map(len, plot.splitlines()[1:])), 60)
        series, = self.rows("series", ids[0], "--points", "5")
        self.assertEqual((series["test"], sorted(series["values"])), (int(ids[0]), ["load1", "load15", "load5"]))
        self.ctl("series", ids[0], "--value", "load2", status=5)
        self.assertIn("load15", self.told)
        self.ctl("series", ids[0], "--from", "-1h", "--to", "-2h", status=2)

    def test_events_ledger_and_version(self):
        self.start()
        events = self.rows("events", "--test", "web-1:load average 2")
        self.assertEqual({event["to"] for event in events}, {"problem"})
        self.assertEqual(self.rows("events", "--to", "yesterday"), [])
        self.assertIn("load average 2", self.ctl("events", "--agent", "web-1", "--state", "problem", "--from", "-1h"))
        hours = self.rows("ledger", "--agent", "web-1", "--from", "-2h")
        self.assertGreaterEqual(sum(hour["received"] for hour in hours), 2)
        self.assertEqual(self.ctl("ledger").splitlines()[0].split(),
                         ["HOUR", "AGENT", "EXPECTED", "RECEIVED", "REPEATED", "MISSING"])
        self.assertRegex(self.ctl("version"), r"\Avindralctl \S+\nvindral-collector \S+\n\Z")
        self.assertEqual(set(self.rows("version")[0]), {"vindralctl", "collector"})
        self.assertRegex(self.ctl("--version"), r"\Avindralctl \S+\n\Z")

    def test_on_a_terminal(self):
        self.start()
        for width, env, colored in ((60, {}, True), (60, {"NO_COLOR": "1"}, False), (100, {"TERM": "dumb"}, False)):
            master, slave = pty.openpty()
            fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, width, 0, 0))
            done = subprocess.run([CTL, "tests"], env=self.environment(**env), stdin=subprocess.DEVNULL, stdout=slave,
                                  stderr=subprocess.PIPE, check=False, timeout=harness.PATIENCE_S)
            os.close(slave)
            shown = b""
            with contextlib.suppress(OSError):  # at its end
                while piece := os.read(master, 65536):
                    shown += piece
            os.close(master)
            self.assertEqual((done.returncode, done.stderr), (0, b""))
            shown = shown.decode()
            self.assertEqual("\x1b[" in shown, colored, shown)
            lines = ESCAPE.sub("", shown).splitlines()
            self.assertEqual(len(lines), 3)
            self.assertLessEqual(max(map(len, lines)), width)
            self.assertIn("problem", lines[1])  # what is wrong comes first
            self.assertNotIn("example.net", lines[1])  # all have this account
            self.assertIn("web-1", lines[1])

    def test_standard_output_that_is_full(self):
        self.start(agent=False)
        with open("/dev/full", "wb") as full:
            done = subprocess.run([CTL, "--version"], env=self.environment(), stdout=full, stderr=subprocess.PIPE,
                                  text=True, check=False, timeout=harness.PATIENCE_S)
        self.assertEqual(done.returncode, 1)
        self.assertIn("takes no more", done.stderr)


class Changed(Collected):
    def test_check_and_retire(self):
        self.start()
        for words in (("check", "web-1"), ("agents", "retire", "web-1")):
            self.ctl(*words, status=4)
            self.assertIn("operator", self.told)
        self.token = self.tokens["operator"]
        self.ctl("check", "web-1")
        self.assertIn("user@example.net/web-1", self.told)
        self.ctl("check", "web-2", status=5)
        self.agent.stop()
        self.ctl("agents", "retire", "web-1")
        self.assertEqual(self.rows("agents"), [])
        self.ctl("agents", "show", "web-1", status=5)
        self.assertRegex(self.ctl("agents", "show", "user@example.net/web-1"), r"(?m)^retired +20")
        self.ctl("check", "user@example.net/web-1", status=1)
        self.assertIn("retired", self.told)

    def test_tokens(self):
        self.start(agent=False)
        self.ctl("tokens", "list", status=4)
        self.ctl("tokens", status=4)
        self.token = self.tokens["admin"]
        self.ctl("tokens", "add", "mine", status=2)
        self.ctl("tokens", "add", "mine", "--role", "king", status=2)
        self.ctl("tokens", "add", "mine", "--role", "viewer", "--ends", "-1d", status=2)
        made = self.ctl("tokens", "add", "mine", "--role", "viewer", "--ends", "+1d").strip()
        self.assertRegex(made, r"\Avt_\S+\Z")
        self.assertIn("shown this once", self.told)
        self.assertNotIn(made, self.told)
        self.ctl("tokens", "add", "mine", "--role", "viewer", status=1)
        self.assertNotIn(made, self.ctl("tokens", "list"))
        self.assertEqual(self.ctl("tokens"), self.ctl("tokens", "list"))
        token = next(token for token in self.rows("tokens", "list") if token["name"] == "mine")
        self.assertEqual((token["role"], token["ends"] > token["made"]), ("viewer", True))

        name = os.path.join(self.dir, "token")
        harness.write_text(name, made + "\n")
        self.ctl("--token-file", name, "agents", VINDRAL_TOKEN=None)
        self.ctl("--token", made, "agents", VINDRAL_TOKEN=None)
        self.ctl("agents", "--token", made, "--token-file", name, status=2)
        self.ctl("tokens", "remove", "yours", status=5)
        self.ctl("tokens", "remove", "mine")
        self.ctl("--token-file", name, "agents", status=4)
        self.assertNotIn(made, self.told)
        other = self.rows("tokens", "add", "other", "--role", "operator")[0]
        self.ctl("tokens", "remove", str(other["id"]))
        self.assertNotIn("other", self.ctl("tokens", "list"))

    def test_watch_goes_on_when_the_collector_is_back(self):
        self.start(port=harness.free_port())
        done = self.rows("watch", "--limit", "3")
        self.assertEqual(len(done), 3)
        for message in done:
            self.assertEqual(set(message), {"event", "id", "data"})
            self.assertIn(message["event"], ("result", "event", "agent"))
        line = self.ctl("watch", "--test", "web-1:load average 2", "--kind", "result", "--limit", "1")
        self.assertRegex(line, r"result +problem +user@example.net/web-1 +load average 2 .*load1 ")

        words = [CTL, "watch", "--json", "--kind", "result", "--agent", "web-1"]
        with subprocess.Popen(words, env=self.environment(), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True) as watch:
            try:
                first = json.loads(watch.stdout.readline())
                self.collector.stop()
                while "trying again" not in (line := watch.stderr.readline()):
                    self.assertNotEqual(line, "")
                self.collector.start(*self.web)
                run = first["id"].partition("-")[0]
                while json.loads(line := watch.stdout.readline())["id"].startswith(run + "-"):
                    self.assertNotEqual(line, "")
            finally:
                watch.terminate()
        self.ctl("watch", "--kind", "nonsense", status=2)
        self.ctl("watch", "--test", "123456", status=5)
        self.ctl("watch", status=4, VINDRAL_TOKEN=None)


class LetIn(Collected):
    """Agents are asked who they are, those without a certificate as well."""

    def waiting(self):
        return [row["name"] for row in self.rows("agents", "waiting")]

    def test_a_name_that_comes_by_itself(self):
        self.start(agent=False, options=("--agents", "known"))
        agent = harness.Agent(self, self.collector.port, name="web-1").start()
        harness.wait_until(lambda: self.waiting() == ["web-1"], "the name that waits")
        self.assertRegex(self.ctl("agents", "waiting"), r"user@example.net/web-1 +127.0.0.1 .*run vindral-enrol there")
        self.assertEqual(self.rows("agents"), [])
        self.assertRegex(self.ctl("agents", "show", "web-1"), r"(?m)^identity +waiting$")
        for words in (("agents", "admit", "web-1"), ("agents", "refuse", "web-1"), ("revoke", "web-1"),
                      ("enrol", "web-1")):
            for role in ("viewer", "operator"):
                self.token = self.tokens[role]
                self.ctl(*words, status=4)
                self.assertIn("admin", self.told)
        self.token = self.tokens["admin"]
        self.ctl("agents", "admit", "web-1", "--key", "SHA256:x", status=2)
        self.ctl("agents", "admit", "web-1", "--key", "SHA256:" + "A" * 43, status=1)
        self.assertIn("without a key", self.told)
        self.ctl("agents", "admit", "web-2", status=5)
        self.ctl("agents", "admit", "web-1")
        self.assertIn("user@example.net/web-1 is admitted", self.told)
        self.ctl("agents", "admit", "web-1", status=1)
        self.assertEqual(self.waiting(), [])
        agent.stop()
        agent.start()
        harness.wait_until(lambda: [row["identity"] for row in self.rows("agents")] == ["known"], "the agent")
        self.assertRegex(self.ctl("agents"), r"(?m)^\S+ .*user@example.net/web-1 .* known ")
        self.assertRegex(self.ctl("agents", "show", "web-1"), r"(?m)^admitted +2\S+ \S+ \(.* ago\), by of admin$")

        self.ctl("revoke", "web-1")
        self.assertIn("revoked", self.told)
        self.assertRegex(self.ctl("agents", "show", "web-1"), r"(?m)^revoked +2.*by of admin$")
        agent.stop()
        agent.start()
        agent.wait_log("403")
        self.assertEqual(self.waiting(), [])
        self.ctl("agents", "admit", "web-1", status=1)
        self.assertIn("vindralctl enrol", self.told)
        agent.stop()
        for text in ("admitted agent user@example.net/web-1", "revoked agent user@example.net/web-1"):
            self.collector.wait_errors(text)

    def test_a_name_that_is_refused(self):
        self.start(agent=False, options=("--agents", "proven"))
        agent = harness.Agent(self, self.collector.port, name="web-1").start()
        harness.wait_until(lambda: self.waiting() == ["web-1"], "the name that waits")
        self.token = self.tokens["admin"]
        self.ctl("agents", "refuse", "web-1")
        self.assertEqual(self.waiting(), [])
        self.ctl("agents", "refuse", "web-1", status=5)
        self.collector.wait_errors("refused agent user@example.net/web-1")
        agent.stop()

    def test_a_host_that_is_invited(self):
        self.start(agent=False)
        self.token = self.tokens["admin"]
        self.ctl("enrol", "web-1", status=2)  # of no account that is known
        self.assertIn("me@example.org/web-1", self.told)
        command = self.ctl("enrol", "web/1", "--account", "user@example.net")
        self.assertRegex(command, r"\Avindral-enrol https://[^ ]*:%d ve_[\w-]{86}\n\Z" % self.collector.port)
        self.assertIn("on the host that is to be user@example.net/web/1, as root", self.told)
        self.assertIn("no other host reaches that address: start the collector with --listen", self.told)
        token = command.split()[-1]
        self.assertNotIn(token[3:], self.told)
        self.assertEqual(self.ctl("enrol", "web-2", "--quiet").count("\n"), 1)  # of the only account
        self.assertEqual(self.told, "")
        made, = self.rows("enrol", "web-3")
        self.assertEqual((made["account"], made["name"], made["state"]), ("user@example.net", "web-3", "unknown"))
        self.assertIn(made["token"], made["command"])
        self.assertEqual(self.rows("agents", "show", "web-3")[0]["state"], "invited")
        self.ctl("revoke", "web-3")
        self.assertRegex(self.ctl("agents", "show", "web-3"), r"(?m)^identity +revoked$")
        self.ctl("revoke", "web-3")  # is revoked already
        self.collector.stop()
        self.assertIn("invited agent user@example.net/web/1", self.collector.errors())
        for where, _, files in os.walk(self.dir):
            for name in files:
                with open(os.path.join(where, name), "rb") as file:
                    found = file.read()
                for secret in (token, made["token"]):
                    self.assertNotIn(secret[3:].encode(), found, name)


    def test_what_is_printed_gives_a_host_its_certificate(self):
        self.start(agent=False, options=("--agents", "proven"))
        self.token = self.tokens["admin"]
        agent = harness.Agent(self, self.collector.port, name="web-1")  # which is not started
        agent.write_config()
        command = self.ctl("enrol", "web-1", "--account", "user@example.net", "--quiet").split()
        done = subprocess.run([os.path.join(harness.BUILD, command[0]), *command[1:], "--no-start", "--conf", agent.conf,
                               "--dir", self.subdir("keys")], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=False, env=self.environment(),
                              timeout=harness.PATIENCE_S)
        self.assertEqual(done.returncode, 0, done.stdout)
        standing, = self.rows("agents", "show", "web-1")
        self.assertEqual((standing["state"], standing["invited"]), ("known", False))
        shown = self.ctl("agents", "show", "web-1")
        self.assertRegex(shown, r"(?m)^certificate +until 2\d{3}-\S+ \S+ \((89|90)d")
        self.assertRegex(shown, r"(?m)^key +SHA256:\S{43}$")
        self.assertRegex(shown, r"(?m)^admitted +2.*, by of admin$")


FILES = (("fleet", "check"), ("fleet", "diff"), ("fleet", "apply"))  # that take one


class Completed(CtlTest):
    """By bash: exactly what the program's help has, at every place."""

    COMPLETION = os.path.join(harness.HERE, "..", "..", "packaging", "vindralctl.bash")
    SHELL = """
        _init_completion() {
            words=("${COMP_WORDS[@]}") cword=$COMP_CWORD cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}
        }
        _filedir() { COMPREPLY=(a-file); }
        . "$1"
        shift
        COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
        _vindralctl
        printf '%s\\n' "${COMPREPLY[@]}"
    """

    def completed(self, *words):
        done = subprocess.run(["bash", "-c", self.SHELL, "bash", self.COMPLETION, "vindralctl", *words],
                              stdout=subprocess.PIPE, text=True, check=True, timeout=harness.PATIENCE_S)
        return set(done.stdout.split("\n")) - {""}

    def listed(self, *command):
        """Options and sub-commands of the help."""
        text = self.ctl(*command, "--help")
        options = set(re.findall(r"(?m)^ +(?:-h,)?(--[a-z-]+)", text))
        return options, set(re.findall(r"(?m)^  ([a-z]+) ", text.partition("Commands:")[2].partition("\n\n")[0]))

    def test_every_command_with_its_options(self):
        everywhere, commands = self.listed()
        self.assertEqual(self.completed(""), everywhere | commands)
        self.assertEqual(self.completed("--json", "--url", "agents", ""), everywhere | commands)
        self.assertGreater(len(commands), 9)
        for command in sorted(commands):
            options, below = self.listed(command)
            self.assertEqual(self.completed(command, ""), everywhere | options | below, command)
            self.assertEqual(self.completed("--ca", "f", command, "--json", ""), everywhere | options | below, command)
            self.assertEqual(self.completed(command, "--"), everywhere | options, command)
            for word in sorted(below):
                files = {"a-file"} if (command, word) in FILES else set()
                self.assertEqual(self.completed(command, word, ""), everywhere | files | self.listed(command, word)[0],
                                 (command, word))
                self.assertEqual(self.completed(command, word, "--"), everywhere | self.listed(command, word)[0])

    def test_values(self):
        self.assertEqual(self.completed("tests", "--type", "snmp"), {"snmp", "snmp\\ table"})
        self.assertEqual(self.completed("tests", "--state", "s"), {"stale"})
        self.assertEqual(self.completed("agents", "--state", "s"), {"stale", "silent"})
        self.assertEqual(self.completed("tokens", "add", "x", "--role", "o"), {"operator"})
        self.assertEqual(self.completed("changes", "--outcome", "u"), {"unanswered"})
        self.assertEqual(self.completed("watch", "--kind", "c"), {"change"})
        self.assertEqual(self.completed("changes", "--revision", ""), set())
        self.assertEqual(self.completed("agents", "--token-file", ""), {"a-file"})
        self.assertEqual(self.completed("agents", "--token", ""), set())


class Reached(Collected):
    def test_who_may_not_and_what_is_not_there(self):
        self.start(agent=False)
        self.ctl("agents", VINDRAL_TOKEN=None, status=4)
        self.assertIn("VINDRAL_TOKEN", self.told)
        self.ctl("agents", VINDRAL_TOKEN="vt_wrong", status=4)
        self.assertNotIn("vt_wrong", self.told)
        self.assertIn("not known", self.told)
        self.ctl("version", VINDRAL_TOKEN=None)
        self.ctl("agents", "--url", "http://127.0.0.1:%d" % harness.free_port(), status=3)
        self.assertIn("is the collector running there?", self.told)
        self.ctl("agents", "--url", self.url + "/elsewhere", status=5)
        self.ctl("agents", "--url", "http://collector.example.org", status=2)
        self.assertIn("in the clear", self.told)
        self.ctl("agents", "--url", "https://127.0.0.1:%d" % self.web_port, status=3)  # which is not encrypted
        for words in ((), ("nonsense",), ("tests", "--limit", "x"), ("agents", "show")):
            self.ctl(*words, status=2)
            self.assertIn("--help", self.told)
        self.assertIn("Exit status", self.ctl("--help"))

    def test_tls_is_verified(self):
        self.start(address="0.0.0.0", agent=False)
        ca = os.path.join(self.collector.state, "ca.pem")
        self.url = "https://127.0.0.1:%d" % self.web_port
        self.ctl("agents", "--ca", ca)
        self.ctl("agents", "--ca", ca, "--url", "https://localhost:%d" % self.web_port)
        self.ctl("agents", status=3)
        self.assertIn("--ca", self.told)
        self.ctl("agents", "--ca", ca, "--url", "https://127.0.0.2:%d" % self.web_port, status=3)
        self.assertIn("127.0.0.2 is not in it", self.told)
        self.ctl("agents", "--ca", "/dev/null", status=2)
        self.ctl("agents", "--url", "http://127.0.0.1:%d" % self.web_port, status=2)
        self.assertIn("HTTPS only", self.told)


class Scripted(http.server.BaseHTTPRequestHandler):
    """Answers with what the test put into `answers`, in turn."""

    protocol_version = "HTTP/1.1"

    def do_GET(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", 0))).decode()
        self.server.asked.append((self.path, dict(self.headers, method=self.command, body=body)))
        answer = self.server.answers.pop(0)
        self.close_connection = True
        if isinstance(answer, bytes):
            self.wfile.write(answer)
            return
        status, kind, body = answer
        self.send_response(status)
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body.encode())

    do_POST = do_PUT = do_DELETE = do_GET

    def log_message(self, *_):
        pass


def page(*names, next_page=None, **more):
    items = [{"id": place + 1, "account": "a", "name": name, "state": "ok"} for place, name in enumerate(names)]
    return 200, "application/json", json.dumps({"items": items, "next": next_page, **more})


def head(*lines):
    return "\r\n".join(("HTTP/1.1 200 OK", "Connection: close", *lines, "", "")).encode()


class Served(CtlTest):
    token = "vt_secret"

    def serve(self, *answers, tls=None):
        """`tls` is a certificate and its key."""
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Scripted)
        server.answers, server.asked = list(answers), []
        server.handle_error = lambda *_: None  # who does not trust it goes away in the middle
        if tls:
            server.socket = server_context(*tls).wrap_socket(server.socket, server_side=True)
        thread = threading.Thread(target=server.serve_forever)
        thread.start()
        self.addCleanup(thread.join)
        self.addCleanup(server.server_close)
        self.addCleanup(server.shutdown)
        self.url = "%s://127.0.0.1:%d/proxy" % ("https" if tls else "http", server.server_address[1])
        return server


class Odd(Served):
    def test_lists_are_followed_until_the_limit(self):
        server = self.serve(page("a", "b", next_page="x&y"), page("c", next_page="z"), page("d", "e"))
        self.assertEqual([row["name"] for row in self.rows("agents", "--limit", "4")], list("abcd"))
        self.assertEqual([path for path, _ in server.asked],
                         ["/proxy/api/v1/agents?limit=4", "/proxy/api/v1/agents?limit=2&next=x%26y",
                          "/proxy/api/v1/agents?limit=1&next=z"])
        for _, headers in server.asked:
            self.assertEqual(headers["Authorization"], "Bearer vt_secret")
        self.serve(page("a", next_page="x"), page("b"))
        self.assertEqual(len(self.rows("agents")), 2)
        self.serve(page("a", next_page="x"), page("b", next_page="x"))
        self.ctl("agents", status=3)
        self.serve(page("a", incomplete="a day is damaged\x1b"))
        self.assertEqual(self.ctl("agents", "--json", status=1).count("\n"), 1)
        self.assertIn("a day is damaged?", self.told)

    def asked(self, words, *answers, status=0):
        """The requests that a command makes, with these answers: "GET /api/v1/..."."""
        server = self.serve(*((200, "application/json", json.dumps(answer)) for answer in answers))
        self.shown = self.ctl(*words, "--json", status=status)
        for _, headers in server.asked:
            self.assertEqual(headers.get("Content-Length"), "0" if headers["method"] == "POST" else None)
        return [headers["method"] + path.removeprefix("/proxy") for path, headers in server.asked]

    def test_what_is_asked(self):
        one = {"id": 3, "account": "a", "name": "b", "number": 1, "agent": {"account": "a", "name": "b"}}
        none, api = {"items": [], "next": None}, "GET/api/v1/"
        self.assertEqual(self.asked(["agents", "--state", "ok,stale", "--q", "b c", "--limit", "0"], none),
                         [api + "agents?state=ok%2Cstale&q=b%20c&limit=1000"])
        self.assertEqual(
            self.asked(["events", "--agent", "3", "--test", "7", "--type", "disk", "--state", "ok", "--q", "x", "--from",
                        "2026-05-01T00:00:00Z", "--to", "2026-05-02T02:00:00+02:00"], one, one, none),
            [api + "agents/3", api + "tests/7", api + "events?agent=3&test=3&type=disk&state=ok&q=x&"
             "from=2026-05-01T00%3A00%3A00Z&to=2026-05-02T00%3A00%3A00Z&limit=100"])
        self.assertEqual(self.asked(["series", "7", "--rate", "--points", "5"], one, {}),
                         [api + "tests/7", api + "tests/3/series?points=5&rate=1"])
        self.assertEqual(self.asked(["check", "3"], one, {}), [api + "agents/3", "POST/api/v1/agents/3/check"])
        self.assertEqual(self.asked(["agents", "retire", "a/b"], one, {}),
                         [api + "agents/a%2Fb", "DELETE/api/v1/agents/3"])
        stream = head("Content-Type: text/event-stream") + b"event: event\ndata: {}\n\n"
        server = self.serve((200, "application/json", json.dumps(one)), (200, "application/json", json.dumps(one)), stream)
        self.ctl("watch", "--agent", "3", "--test", "7", "--kind", "event,agent", "--limit", "1")
        self.assertEqual(server.asked[-1][0], "/proxy/api/v1/stream?kind=event%2Cagent&agent=3&test=3")

    def test_hosts_that_are_to_be_agents(self):
        path, made = "/proxy/api/v1/agents/a%40b.c%2Fweb%2F1/enrolment", {
            "account": "a@b.c", "name": "web/1", "state": "unknown", "ends": "2026-05-01T13:00:00Z",
            "url": "https://c.example:8443", "authority": "SHA256:x", "token": "ve_mine",
            "command": "vindral-enrol https://c.example:8443 ve_mine" + "x" * 200}
        answer = (201, "application/json", json.dumps(made))
        words = ("enrol", "web/1", "--account", "a@b.c")
        for more, env in (((), {}), (("--quiet",), {}), ((), {"COLUMNS": "40"})):
            server = self.serve(answer)
            self.assertEqual(self.ctl(*words, *more, **env), made["command"] + "\n")
            self.assertEqual([(headers["method"], where) for where, headers in server.asked], [("POST", path)])
            self.assertNotIn("mine", self.told)
            self.assertEqual("on the host that is to be a@b.c/web/1, as root, until 2026-05-01 13:00:00" in self.told,
                             not more, self.told)
            self.assertTrue(self.told or more)
            self.assertNotIn("no other host", self.told)
        self.serve(answer)
        self.assertEqual(json.loads(self.ctl(*words, "--json")), made)
        self.assertEqual(self.told, "")
        for state, text in (("proven", "goes by that name already"), ("revoked", "let in again"),
                            ("waiting", "waits under that name")):
            self.serve((201, "application/json", json.dumps(dict(made, state=state, command="x\x1b[2J\n"))))
            self.assertEqual(self.ctl(*words), "x?[2J\n")
            self.assertIn(text, self.told)
        self.assertEqual(self.asked(["enrol", "web-1"], made), ["POST/api/v1/agents/web-1/enrolment"])
        self.assertEqual(self.asked(["revoke", "a/b"], {}), ["DELETE/api/v1/agents/a%2Fb/enrolment"])
        self.assertEqual(self.asked(["agents", "refuse", "a/b"], {}), ["POST/api/v1/agents/a%2Fb/refuse"])
        self.assertEqual(self.asked(["agents", "admit", "7"], {}), ["POST/api/v1/agents/7/admit"])
        server = self.serve((200, "application/json", json.dumps({"account": "a", "name": "b\x1b"})))
        self.ctl("agents", "admit", "b", "--key", "SHA256:x/+")
        self.assertEqual(self.told, "vindralctl: a/b? is admitted\n")
        self.serve((200, "application/json", json.dumps({"account": "a", "name": "b", "needs_certificate": True})))
        self.ctl("agents", "admit", "b")
        self.assertEqual(self.told, "vindralctl: a/b is admitted; it polls once it has its certificate: run vindral-enrol "
                         "there, or with a token of \"vindralctl enrol\"\n")
        self.assertEqual(json.loads(server.asked[0][1]["body"]), {"key": "SHA256:x/+"})

    def test_who_waits(self):
        waiting = {"since": "2026-05-01T12:00:00Z", "last": "2026-05-01T12:30:00Z", "address": "192.0.2.7",
                   "key": "SHA256:abc"}
        standing = {"account": "a", "name": "new", "state": "waiting", "waiting": waiting, "certificate": None}
        other = dict(standing, name="old", waiting=dict(waiting, key=None))
        server = self.serve((200, "application/json", json.dumps({"items": [standing, other], "next": None})))
        table = self.ctl("agents", "waiting").splitlines()
        self.assertEqual(server.asked[0][0], "/proxy/api/v1/enrolments?state=waiting&limit=1000")
        self.assertEqual(table[0].split(), ["WAITS", "AGENT", "ADDRESS", "ASKED", "KEY"])
        self.assertIn("a/new", table[1])
        self.assertTrue(table[1].endswith("SHA256:abc"), table)
        self.assertTrue(table[2].endswith("vindral-enrol there"), table)
        self.serve(page())
        self.assertEqual(self.ctl("agents", "waiting"), "")
        self.assertEqual(self.told, "vindralctl: no names wait\n")

        agents = json.dumps({"items": [{"id": 1, "account": "a", "name": "b", "state": "ok", "identity": "proven"},
                                       {"id": 2, "account": "a", "name": "c", "state": "ok", "identity": "unknown"}],
                             "next": None})
        both = (200, "application/json", json.dumps({"items": [standing, other], "next": None}))
        self.serve((200, "application/json", agents), both)
        table = self.ctl("agents", COLUMNS="100").splitlines()
        self.assertEqual([line.split()[-1] for line in table], ["IDENTITY", "proven", "2"])
        self.assertIn("2 names wait to be admitted: vindralctl agents waiting", self.told)
        absent = (404, "application/problem+json", json.dumps({"status": 404, "detail": "nothing"}))
        self.serve(page("a"), absent)  # of before there was any of this
        self.assertNotIn("IDENTITY", self.ctl("agents", COLUMNS="100"))
        self.assertEqual(self.told, "")
        self.serve(page("a"))
        self.ctl("agents")  # for a program it does not ask

        one = (200, "application/json", json.dumps({"id": 1, "account": "a", "name": "b", "state": "ok"}))
        for ends, soon, text in (("2126-05-01T12:00:00Z", False, r"(?m)^certificate +until 2126-05-01 12:00:00 \("),
                                 ("2016-05-01T12:00:00Z", True, r"(?m)^certificate +ended at 2016-05-01 12:00:00 \(")):
            proven = dict(standing, state="proven", waiting=None, admitted="2026-05-01T12:00:00Z", by="ann\x1b",
                          certificate={"ends": ends, "key": "SHA256:def", "ends_soon": soon})
            self.serve(one, one, (200, "application/json", json.dumps(proven)), page())
            text_shown = self.ctl("agents", "show", "1")
            self.assertRegex(text_shown, text)
            self.assertRegex(text_shown, r"(?m)^identity +proven$")
            self.assertRegex(text_shown, r"(?m)^admitted +2026-05-01 12:00:00 .*, by ann\?$")
        self.serve(one, one, absent, page())
        self.assertNotIn("identity", self.ctl("agents", "show", "1"))
        self.serve(page(), (200, "application/json", json.dumps(standing)))
        self.assertRegex(self.ctl("agents", "show", "new"), r"(?m)^waits with key +SHA256:abc$")
        self.serve(page(), absent)
        self.ctl("agents", "show", "new", status=5)
        self.assertIn("there is no agent", self.told)

    def test_what_a_name_means(self):
        """Nothing is done to any when it fits several; a name goes before an id."""
        agents = {"items": [{"id": 1, "account": "a", "name": "b"}, {"id": 2, "account": "c", "name": "b"},
                            {"id": 3, "account": "c", "name": "bb"}], "next": None}
        self.assertEqual(self.asked(["check", "b"], agents, status=2), ["GET/api/v1/agents?q=b&limit=1000"])
        self.assertIn("\n  1  a/b\n  2  c/b\n", self.told)
        test = {"id": 9, "name": "x", "type": "disk", "number": 4, "agent": agents["items"][0]}
        tests = {"items": [test, dict(test, id=8, number=5)], "next": None}
        self.asked(["results", "x"], tests, status=2)
        self.assertIn("  9  a/b:x (disk 4)\n  8  a/b:x (disk 5)\n", self.told)
        one, none = {"items": [test], "next": None}, {"items": [], "next": None}
        self.assertEqual(self.asked(["results", "1:x"], none, agents["items"][0], one, none)[2:],
                         ["GET/api/v1/tests?q=x&agent=1&limit=1000", "GET/api/v1/tests/9/results?limit=20"])
        tokens = {"items": [{"id": 5, "kind": "session", "name": "7"}, {"id": 6, "kind": "token", "name": "5"},
                            {"id": 7, "kind": "token", "name": "seven"}], "next": None}
        for called, removed in (("5", 6), ("7", 7), ("seven", 7), ("6", 6)):
            self.assertEqual(self.asked(["tokens", "remove", called], tokens, {})[1], "DELETE/api/v1/tokens/%d" % removed)

    def ctl_table(self, answer):
        self.serve((200, "application/json", json.dumps(answer)))
        names = [re.sub(r".*http +", "", line).strip() for line in self.ctl("tests").splitlines()[1:]]
        self.assertEqual(sorted(names), ["/srv", "front page (https://x/)", "load", "root disk (/)"])

    def test_names_that_the_fleet_gives(self):
        """Blanks and colons are part of a name; what a test looks at will do where none is called so."""
        agents = {"items": [{"id": 1, "account": "a", "name": "web-1"}], "next": None}
        none = {"items": [], "next": None}

        def test(number, name, target):
            return {"id": number, "name": name, "target": target, "type": "http", "number": number,
                    "agent": agents["items"][0]}

        def tests(*all_of):
            return {"items": list(all_of), "next": None}

        page_, root, load = test(4, "front page", "https://x/"), test(5, "root disk", "/"), test(6, "load", None)
        asked = self.asked(["results", "web-1:front page"], agents, tests(page_), none)
        self.assertEqual(asked[1:], ["GET/api/v1/tests?q=front%20page&agent=1&limit=1000",
                                     "GET/api/v1/tests/4/results?limit=20"])
        self.assertEqual(self.asked(["results", "front page"], tests(page_, test(7, "front page 2", None)), none)[1],
                         "GET/api/v1/tests/4/results?limit=20")
        # One that was removed gives way to the one that the agent has.
        named = {"definition": {"title": "front page"}}
        self.assertEqual(self.asked(["results", "web-1:front page"], agents,
                                    tests(dict(page_, state="unknown", **named),
                                          dict(page_, id=9, number=9, state="ok", **named),
                                          dict(page_, id=7, number=7, state="ok", **named)), none)[2],
                         "GET/api/v1/tests/9/results?limit=20")
        # By what they look at, if none is called so: ":" stands in either part.
        self.assertEqual(self.asked(["results", "web-1:/"], agents, tests(page_, root), none)[2],
                         "GET/api/v1/tests/5/results?limit=20")
        self.assertEqual(self.asked(["results", "web-1:/"], agents, tests(root, test(8, "/", None)), none)[2],
                         "GET/api/v1/tests/8/results?limit=20")
        asked = self.asked(["results", "https://x/"], none, tests(page_), none)
        self.assertEqual(asked[-1], "GET/api/v1/tests/4/results?limit=20")
        self.ctl_table(tests(page_, root, load, test(9, "/srv", "/srv")))
        # None like it: those that there are, also such that look at nothing that has a name.
        self.asked(["results", "web-1:swap"], agents, none, none, tests(page_, load), status=5)
        self.assertIn("\n  4  a/web-1:front page (http 4)\n  6  a/web-1:load (http 6)\n", self.told)

    def test_what_fails(self):
        hours = {"items": [{"hour": "2026-05-01T00:00:00Z", "missing": 0}, {"missing": 1}], "next": None}
        self.asked(["ledger"], hours)
        self.asked(["ledger", "--fail"], hours, status=1)
        self.asked(["ledger", "--fail"], dict(hours, items=hours["items"][:1]))
        for state, status in (("silent", 1), ("problem", 1), ("unknown", 0), ("ok", 0)):
            self.asked(["agents", "--fail"], {"items": [{"state": state}], "next": None}, status=status)
            self.asked(["agents"], {"items": [{"state": state}], "next": None})
        self.asked(["agents", "--fail", "--state", "unknown"], {"items": [{"state": "unknown"}], "next": None}, status=1)
        self.asked(["series", "7"], {"id": 7}, {"incomplete": "a day is damaged"}, status=1)
        self.assertIn("a day is damaged", self.told)

    def test_texts_steer_no_terminal(self):
        self.serve(page("\x1b[2J\u202ename"))
        self.assertIn("a/?[2J?name", self.ctl("agents"))
        self.serve(page("\x1b[2J\u202ename"))
        self.assertIn("\\u001b[2J\\u202ename", self.ctl("agents", "--json"))
        problem = json.dumps({"type": "about:blank", "title": "Bad Request", "status": 400, "detail": "\x07no\x1b[m",
                              "errors": [{"line": 1, "column": 2, "text": "x\ny"}]})
        self.serve((400, "application/problem+json", problem))
        self.ctl("agents", status=2)
        self.assertIn("?no?[m (status 400)", self.told.replace("\n  line 1, column 2: x y", ""))

    def test_what_is_no_api(self):
        for answer, status in (
                ((200, "text/html", "<html>"), 3), ((200, "application/json", "[1]"), 3),
                ((200, "application/json", '{"items": [1, {}], "next": 7}'), 0),
                ((302, "text/html", "elsewhere"), 3), ((404, "text/html", "nothing"), 3), ((500, "text/plain", ""), 3),
                ((503, "application/problem+json", '{"detail": "Later."}'), 3),
                ((429, "application/problem+json", '{"detail": "Slower."}'), 3),
                ((409, "application/problem+json", '{"detail": "Not now."}'), 1),
                ((400, "application/problem+json", "{"), 3),
                (b"", 3), (b"SSH-2.0-OpenSSH\r\n\r\n", 3), (head("Content-Length: 50") + b"{}", 3),
                (head("Content-Length: 99999999999") + b"{}", 3), (head("X: " + "x" * 100000) + b"{}", 3)):
            with self.subTest(answer):
                self.serve(answer)
                self.ctl("agents", status=status)
                self.assertNotIn("vt_", self.told)

    def test_a_stream_that_breaks_is_taken_up_again(self):
        begin = head("Content-Type: text/event-stream") + b"retry: 1\n"
        one = (b'id: r-1\nevent: agent\ndata: {"account":"a","name":"b","state":"ok"}\n\n'
               b'id: r-2\nevent: agent\ndata: {"acc')
        two = b'event: lost\ndata: {}\n\nid: r-3\nevent: event\ndata: {"from":"ok","to":"problem","message":"x"}\n\n'
        server = self.serve(begin + one, (503, "application/problem+json", '{"detail": "Too many."}'), begin + two)
        lines = self.ctl("watch", "--limit", "2").splitlines()
        self.assertEqual(len(lines), 2)
        self.assertRegex(lines[0], r"agent +ok +a/b")
        self.assertRegex(lines[1], r"event +problem .*was ok; x$")
        self.assertEqual([headers.get("Last-Event-ID") for _, headers in server.asked], [None, "r-1", "r-1"])
        self.assertEqual(self.told.count("trying again"), 2)
        self.assertIn("messages were lost", self.told)
        self.serve(begin + b'event: agent\ndata: {"account":"a","name":"b","state":"unknown","retired":"2026-05-01T12:00:00Z"}'
                   b"\n\n")
        self.assertRegex(self.ctl("watch", "--limit", "1"), r"agent +unknown +a/b +retired$")
        self.serve(begin + b"data: no json\n\n")
        self.ctl("watch", status=3)
        self.serve((403, "application/problem+json", '{"detail": "No."}'))
        self.ctl("watch", status=4)
        for kind in ("text/html", "text/event-streams", ""):  # of a proxy that says what it likes
            self.serve((200, kind, "data: {}\n\n"))
            self.ctl("watch", status=3)
            self.assertIn("is not the API", self.told)
        self.serve(head("Content-Type: Text/Event-Stream; charset=utf-8") + b"event: event\ndata: {}\n\n")
        self.ctl("watch", "--limit", "1")

    def test_whom_it_trusts(self):
        """Only a certificate of the authority that is named, in force, for that name."""
        ours, others = Authority(self, "ours"), Authority(self, "others")
        both = "subjectAltName=DNS:localhost,IP:127.0.0.1"
        for certificate, host, why in (
                (ours.issue("well", both), "127.0.0.1", None),
                (ours.issue("well", both), "localhost", None),
                (ours.issue("named", "subjectAltName=DNS:localhost"), "127.0.0.1", "127.0.0.1 is not in it"),
                (ours.issue("address", "subjectAltName=IP:127.0.0.1"), "localhost", "localhost is not in it"),
                (ours.issue("another", "subjectAltName=DNS:a.example"), "localhost", "localhost is not in it"),
                (ours.issue("client", "extendedKeyUsage=clientAuth\n" + both), "localhost", "purpose"),
                (ours.issue("over", both, days=-1), "localhost", "expired"),
                (others.issue("well", both), "localhost", "issuer"),
                ((others.pem, others.key), "localhost", "self-signed")):
            with self.subTest(certificate=certificate[0], host=host):
                server = self.serve(page("a"), tls=certificate)
                url = self.url.replace("127.0.0.1", host)
                self.ctl("agents", "--url", url, "--ca", ours.pem, status=3 if why else 0)
                if why:
                    self.assertIn("is not trusted", self.told)
                    self.assertIn(why, self.told)
                    self.assertEqual(server.asked, [], "not before it is trusted")
        self.serve(page("a"), tls=ours.issue("well", both))
        self.ctl("agents", SSL_CERT_FILE=ours.pem)

    def test_it_goes_nowhere_else(self):
        """Neither where an answer nor where the environment sends it: the token would go there."""
        elsewhere = self.serve()
        url = self.url
        self.serve(b"HTTP/1.1 307 X\r\nConnection: close\r\nContent-Length: 0\r\nLocation: " + url.encode() + b"\r\n\r\n",
                   page("a"))
        self.ctl("agents", status=3)
        proxies = {name: url for name in ("http_proxy", "HTTP_PROXY", "https_proxy", "ALL_PROXY", "all_proxy")}
        self.ctl("agents", **proxies)
        self.assertEqual(elsewhere.asked, [])

    def test_an_answer_that_does_not_come(self):
        """Ctrl-C ends the waiting; and nobody reads the token off the list of processes."""
        with socket.create_server(("127.0.0.1", 0)) as silent:
            words = [CTL, "--url", "http://127.0.0.1:%d" % silent.getsockname()[1], "agents", "--token", "vt_listed"]
            with subprocess.Popen(words, env=self.environment(), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE, text=True) as asking:
                try:
                    peer, _ = silent.accept()
                    with peer, open("/proc/%d/cmdline" % asking.pid, "rb") as listed:
                        asked = peer.recv(4096)
                        while b"\r\n\r\n" not in asked:
                            asked += peer.recv(4096)
                        self.assertIn(b"Authorization: Bearer vt_listed\r\n", asked)
                        listed = listed.read()
                        self.assertIn(b"agents\0--token\0*********\0", listed)
                        asking.send_signal(signal.SIGINT)
                        self.assertEqual(asking.communicate(timeout=harness.PATIENCE_S), ("", ""))
                finally:
                    asking.kill()
            self.assertEqual(asking.returncode, -signal.SIGINT)

    def test_who_reads_no_more(self):
        """As head(1) does: the end of watch without a word, where SIGPIPE ends programs; else its status says so."""
        message = b'event: agent\ndata: {"account":"a","name":"%d","state":"ok"}\n\n'
        many = head("Content-Type: text/event-stream") + b"".join(message % i for i in range(5000))
        for ignored, status, told in ((False, -signal.SIGPIPE, ""), (True, 1, "takes no more")):
            self.serve(many)
            with subprocess.Popen([CTL, "watch"], env=self.environment(), stdin=subprocess.DEVNULL,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, restore_signals=not ignored) as watch:
                self.assertIn(b"a/0", watch.stdout.readline())
                watch.stdout.close()
                errors = watch.stderr.read().decode()
                self.assertEqual(watch.wait(harness.PATIENCE_S), status)
            self.assertIn(told, errors)
            self.assertTrue(errors if ignored else not errors, errors)

    @unittest.skipIf(not shutil.which("localedef"), "localedef missing: install Debian's package locales")
    def test_numbers_are_written_alike_everywhere(self):
        """A locale has its characters' width to say, and no comma."""
        place = self.subdir("locales")
        subprocess.run(["localedef", "-i", "de_DE", "-f", "UTF-8", os.path.join(place, "de_DE.UTF-8")], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=harness.PATIENCE_S)
        tests = json.dumps({"items": [{"id": 1, "name": "n\u00e4me", "state": "ok", "agent": {"account": "a", "name": "b"},
                                       "values": {"load": {"value": 12.5, "unit": "\u00b0C"}}}], "next": None})
        for locale, name in (("de_DE.UTF-8", "n\u00e4me"), ("C", "n?me"), ("xx_YY.UTF-8", "n?me")):
            self.serve((200, "application/json", tests), (200, "application/json", tests))
            table = self.ctl("tests", LC_ALL=locale, LOCPATH=place)
            self.assertIn(name, table)
            self.assertIn("load 12.5 ", table)
            self.assertIn('"value":12.5', self.ctl("tests", "--json", LC_ALL=locale, LOCPATH=place))


if __name__ == "__main__":
    harness.main()
