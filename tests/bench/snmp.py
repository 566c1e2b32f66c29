#!/usr/bin/env python3
"""What it costs to ask SNMP agents: rounds of get and table tests of the agent, and other tools with the
same requests to the same snmpd, in one run; and how long a scan of a range takes. CPU time is that of the
asker alone, its children and system calls included.

    tests/bench/snmp.py [--tests 500] [--rounds 5] [get] [table] [scan]

Of the first pass, in which each result is sent at once, it is shown when the first and the last one were
stored, counted from the first child. VINDRAL_BUILD_DIR names another build than build/release.

`get` asks for 5 objects a test, beside snmpget and snmp_exporter; `table` for 49 rows of 22 columns, beside
snmptable and snmpbulkwalk. `scan` goes through 254 addresses, 20 of which answer, beside `fping -g`. Needs
root and Debian's snmpd and snmp; fping and prometheus-snmp-exporter are left out where they are missing.
"""

import argparse
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from local import Agent, cpu_seconds, free_port  # noqa: E402
from probes import answered, children_ms, exporter_rate, idle, status  # noqa: E402
from whole import TOOL_S, end, join, peers, started, stored, wait_for  # noqa: E402

OBJECTS = ["1.3.6.1.2.1.1.%d.0" % i for i in (1, 3, 4, 5, 6)]
TABLE, COLUMNS, ROWS = "1.3.6.1.4.1.99991.1", 22, 49
POLL_S = 3
LOOK_S = 0.1  # between looks at all children
TICK = os.sysconf("SC_CLK_TCK")


def cpu_with_children(pid):
    with open("/proc/%d/stat" % pid, encoding="ascii") as file:
        fields = file.read().rpartition(")")[2].split()
    return cpu_seconds(pid) + (int(fields[13]) + int(fields[14])) / TICK


def write_module(home):
    """A MIB module with the table."""
    columns = ["c%d" % i for i in range(1, COLUMNS + 1)]
    text = ("BENCH-MIB DEFINITIONS ::= BEGIN\n"
            "org OBJECT IDENTIFIER ::= { iso 3 }\ndod OBJECT IDENTIFIER ::= { org 6 }\n"
            "internet OBJECT IDENTIFIER ::= { dod 1 }\nprivate OBJECT IDENTIFIER ::= { internet 4 }\n"
            "enterprises OBJECT IDENTIFIER ::= { private 1 }\nbench OBJECT IDENTIFIER ::= { enterprises 99991 }\n")

    def object_type(name, syntax, access, parent, more=""):
        return ('%s OBJECT-TYPE SYNTAX %s MAX-ACCESS %s STATUS current DESCRIPTION "-" %s::= { %s }\n'
                % (name, syntax, access, more, parent))
    text += object_type("benchTable", "SEQUENCE OF BenchEntry", "not-accessible", "bench 1")
    text += object_type("benchEntry", "BenchEntry", "not-accessible", "benchTable 1", "INDEX { c1 } ")
    text += "BenchEntry ::= SEQUENCE { " + ", ".join(name + " INTEGER" for name in columns) + " }\n"
    for i, name in enumerate(columns, 1):
        text += object_type(name, "INTEGER", "read-only", "benchEntry %d" % i)
    with open(home + "/BENCH-MIB.txt", "w", encoding="ascii") as file:
        file.write(text + "END\n")


def start_snmpd(home, **options):
    """With the table."""
    rows = ["override %s.1.%d.%d integer %d" % (TABLE, column, row, row * column)
            for row in range(1, ROWS + 1) for column in range(1, COLUMNS + 1)]
    return started(peers.Snmpd(tempfile.mkdtemp(dir=home), *rows, **options))


def states_of_children(pid):
    """A letter each."""
    states = []
    for task in os.listdir("/proc/%d/task" % pid):
        try:
            with open("/proc/%d/task/%s/children" % (pid, task), encoding="ascii") as file:
                children = file.read().split()
        except OSError:
            continue
        for child in children:
            try:
                with open("/proc/%s/stat" % child, encoding="latin-1") as file:
                    states.append(file.read().rpartition(")")[2].split()[0])
            except OSError:
                pass  # reaped meanwhile
    return states


class Rounds:
    """How long the agent has threads beyond those that it has at rest, how many children and how many of them
    zombies at most, and when the first child was seen."""

    def __init__(self, pid):
        self.pid, self.resting = pid, status(pid, "Threads")
        self.busy_s, self.children, self.zombies, self.first_child, self.stopping = 0.0, 0, 0, None, False
        self.thread = threading.Thread(target=self._watch, daemon=True)
        self.thread.start()

    def _watch(self):
        last = next_look = time.monotonic()
        while not self.stopping:
            time.sleep(0.005)
            now = time.monotonic()
            if status(self.pid, "Threads") > self.resting:
                self.busy_s += now - last
                if now >= next_look:
                    states = states_of_children(self.pid)
                    self.children = max(self.children, len(states))
                    self.zombies = max(self.zombies, states.count("Z"))
                    if states and self.first_child is None:
                        self.first_child = now
                    next_look = time.monotonic() + (LOOK_S if self.first_child else 0)
            last = now

    def stop(self):
        self.stopping = True
        join(self.thread, "who counts children")


def records_of(home, kind):
    return sum(row.type == kind for row in stored.rows(os.path.join(home, "state", "results.db")))


def first_pass(agent, home, plan, kind, tests):
    """Adds the tests and sees when their first results are stored."""
    watch, stored = Rounds(agent.pid), []
    with open(os.path.join(home, "plan"), "a", encoding="utf-8") as file:
        file.write("\n".join(plan) + "\n")

    def all_there():
        count = records_of(home, kind)
        if count and not stored:
            stored.append(time.monotonic())
        return count >= tests
    wait_for(all_there, "the first pass", patience_s=TOOL_S)
    end_s = time.monotonic() - watch.first_child if watch.first_child else 0
    watch.stop()
    if watch.first_child:
        print("first pass:    first result stored after %.2f s, the last after %.2f s; %d children at once, %d zombies"
              % (stored[0] - watch.first_child, end_s, watch.children, watch.zombies), flush=True)


def agent_rounds(home, plan, kind, tests, rounds):
    os.environ.update(MIBDIRS=home, MIBS="BENCH-MIB", SNMP_PERSISTENT_DIR=home)
    agent = Agent(home, ["POL\t0\t%d" % POLL_S, "CHK\t0\t100000"])
    for name in ("MIBDIRS", "MIBS", "SNMP_PERSISTENT_DIR"):
        del os.environ[name]
    idle(agent.pid)
    first_pass(agent, home, plan, kind, tests)
    idle(agent.pid)
    at_start, began = cpu_with_children(agent.pid), time.monotonic()
    time.sleep(4 * POLL_S)
    polling = (cpu_with_children(agent.pid) - at_start) / (time.monotonic() - began)
    watch, used = Rounds(agent.pid), 0.0
    for number in range(rounds):
        before = records_of(home, kind)
        at_start, began = cpu_with_children(agent.pid), time.monotonic()
        with open(os.path.join(home, "plan"), "a", encoding="utf-8") as file:
            file.write("CHK\t0\t%d\n" % (100001 + number))
        wait_for(lambda: records_of(home, kind) >= before + tests, "the round", patience_s=TOOL_S)
        idle(agent.pid)
        used += cpu_with_children(agent.pid) - at_start - polling * (time.monotonic() - began)
    watch.stop()
    print("agent:         %.3f ms CPU a test, children included; %.2f s a round, peak %d KB, %d children at "
          "once, %d zombies" % (used * 1000 / tests / rounds, watch.busy_s / rounds, status(agent.pid, "VmHWM"),
                                watch.children, watch.zombies), flush=True)
    agent.stop()


def tool(name, command, count):
    used, took = children_ms("seq %d | xargs -P 2 -I {} %s" % (count, command), shell=True)
    print("%-14s %.3f ms CPU a query, %.2f s for %d" % (name + ":", used / count, took, count), flush=True)


def start_exporter(home, address="127.0.0.1"):
    listening = free_port()
    with open(home + "/snmp.yml", "w", encoding="ascii") as file:
        file.write("bench:\n  get: [%s]\n  metrics:\n" % ", ".join(OBJECTS))
        for i, name in enumerate(OBJECTS):
            kind = "gauge" if i == 1 else "DisplayString"
            file.write("  - {name: m%d, oid: %s, type: %s, help: m}\n" % (i, name, kind))
    process = subprocess.Popen(["prometheus-snmp-exporter", "--config.file=" + home + "/snmp.yml",
                                "--web.listen-address=%s:%d" % (address, listening)],
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return process, listening


def exporter(home, port, count):
    if not shutil.which("prometheus-snmp-exporter"):
        return
    process, listening = start_exporter(home)
    url = "http://127.0.0.1:%d/snmp?module=bench&target=127.0.0.1:%d" % (listening, port)
    exporter_rate("snmp_exporter", process, lambda: answered(url, b"m1"), count, 8)


def gets(home, tests, rounds):
    snmpd = start_snmpd(home)
    plan = ["SPA\t%d\t1\t127.0.0.1\t%d\t2\t%s\tpublic\t\t\t\t\t\t10\t2\t-;-;-;-;-"
            % (i, snmpd.port, ";".join(OBJECTS)) for i in range(1, tests + 1)]
    for _ in range(2):
        agent_rounds(tempfile.mkdtemp(dir=home), plan, 57, tests, rounds)
        tool("snmpget", "snmpget -v2c -c public 127.0.0.1:%d %s" % (snmpd.port, " ".join(OBJECTS)), tests)
        exporter(home, snmpd.port, tests)
    end(snmpd.process)


def tables(home, tests, rounds):
    snmpd = start_snmpd(home)
    for repetitions in (0, 10):
        own = tempfile.mkdtemp(dir=home)
        write_module(own)
        plan = ["STA\t%d\t1\t127.0.0.1\t%d\t%d\t2\t%s\tpublic\t\t\t\t\t\t30\t2" % (i, snmpd.port, repetitions, TABLE)
                for i in range(1, tests + 1)]
        print("%s:" % ("GETBULK of %d" % repetitions if repetitions else "GETNEXT"))
        agent_rounds(own, plan, 67, tests, rounds)
    tool("snmptable", "snmptable -M %s -m BENCH-MIB -v2c -c public 127.0.0.1:%d %s"
         % (own, snmpd.port, TABLE), tests)
    tool("snmpbulkwalk", "snmpbulkwalk -v2c -c public 127.0.0.1:%d %s" % (snmpd.port, TABLE), tests)
    end(snmpd.process)


def scan(home):
    hosts = [2 + 12 * i for i in range(20)]
    far = peers.FarSide(7, *hosts)
    snmpd = start_snmpd(home, addresses=["udp:10.9.7.%d:161" % host for host in hosts], wrap=far.enter)
    agent = Agent(home, ["POL\t0\t1", "CHK\t0\t2", "DCA\t1\t1\t10.9.7.1\t10.9.7.254"])
    resting = status(agent.pid, "Threads")
    wait_for(lambda: status(agent.pid, "Threads") > resting + 20, "the scan")
    began, at_start = time.monotonic(), cpu_with_children(agent.pid)
    wait_for(lambda: status(agent.pid, "Threads") <= resting + 1, "the end of the scan")
    took, used = time.monotonic() - began, cpu_with_children(agent.pid) - at_start
    wait_for(lambda: records_of(home, 40) == 21, "the hosts")
    print("agent:         %.1f s for 253 addresses, 20 hosts with SNMP; %.0f ms CPU" % (took, used * 1000))
    agent.stop()
    if shutil.which("fping"):
        for more in ([], ["-r", "0", "-t", "1000", "-i", "10"]):
            used, took = children_ms(["fping", "-q", *more, "-g", "10.9.7.2", "10.9.7.254"])
            print("fping %-8s %.1f s, %.0f ms CPU, echo alone" % (" ".join(more) + ":", took, used))
    end(snmpd.process)
    far.end()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tests", type=int, default=500)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    parser.add_argument("what", nargs="*", default=["get", "table", "scan"])
    options = parser.parse_args()
    if not options.inside:  # the agent is a daemon: its namespace's first process inherits it
        os.execvp("unshare", ["unshare", "--pid", "--mount-proc", "--net", "--fork", "--kill-child",
                              sys.executable, os.path.abspath(__file__), "--inside", "--tests",
                              str(options.tests), "--rounds", str(options.rounds), *options.what])
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    for what in options.what:
        home = tempfile.mkdtemp(prefix="vindral-bench-", dir="/var/tmp")
        try:
            print("--- %s" % what, flush=True)
            if what == "get":
                gets(home, options.tests, options.rounds)
            elif what == "table":
                tables(home, max(options.tests // 10, 1), options.rounds)
            else:
                scan(home)
        finally:
            shutil.rmtree(home, ignore_errors=True)


if __name__ == "__main__":
    main()
