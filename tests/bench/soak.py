#!/usr/bin/env python3
"""An agent with the environment of the packaged service, kept as busy as it can be for an hour: every checker
has tests that run each second (every 10 seconds with sanitizers), tests are added, changed and removed all the
time, and its collector is restarted every minute, in order and by SIGKILL in turns. Shows what the process holds
before, during and after.

    tests/bench/soak.py [--minutes 60] [--build build/release]

Ends with status 1 when resident memory grows by 100 KB an hour or more (least squares after a warm-up of a
sixth of the time; judged from half an hour on and without sanitizers), when descriptors, threads or child
processes grow (without sanitizers), when a record is lost or stored twice, when a test that was planned never reports,
or when a sanitizer finds something. With a build of the preset `asan` leaks are found at the agent's end.

Needs root, nginx, mariadb-server-core, mariadb-client-core, snmpd and snmp.
"""

import argparse
import itertools
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time

TOP = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
SAMPLE_S = 5
CHANGE_S = 2
RESTART_S = 60
FORGET_S = 60  # how long a removed test stays in the plan, so that its removal is delivered
MOST_GROWTH_KB = 100  # an hour
WARM_UP = 1 / 6  # of the time
LEAST_JUDGED_S = 1500  # of the time after the warm-up


def parse_options():
    parser = argparse.ArgumentParser()
    parser.add_argument("--minutes", type=float, default=60)
    parser.add_argument("--build", default=os.path.join(TOP, "build", "release"))
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    return parser.parse_args()


OPTIONS = parse_options()
os.environ["VINDRAL_BUILD_DIR"] = os.path.abspath(OPTIONS.build)
from whole import unit_environment  # noqa: E402  it knows where the next ones are
import harness  # noqa: E402
import peers  # noqa: E402
import records  # noqa: E402
from local import root_mount  # noqa: E402
from probes import Nginx  # noqa: E402


class Kind:
    """How tests of one kind are written: lines with {id} and, where a port or a path is needed, {own};
    the type of their records, None when they make none."""

    def __init__(self, name, record, code, first, second, remove):
        self.name, self.record, self.remove = name, record, remove
        self.add, self.change = code + "A\t{id}\t" + first, code + "M\t{id}\t" + second


def kinds(nginx, database):
    root, here, objects = root_mount(), "127.0.0.1", "1.3.6.1.2.1.1.3.0;1.3.6.1.2.1.1.5.0"

    def page(host, port, tls):
        return "1\t%s\t/page\t%d\t{match}\t\t\t\t10\t%d\t1\t1\t1\t0" % (host, port, tls)

    def pages(name, *where):
        line = page(*where)
        return Kind(name, records.HTTP, "HP", line.format(match="xxx"), line.format(match="yyy"), "HPD\t{id}")

    def login(user, password, values):
        return "1\tlocalhost\t0\t%s\t%s\t%s\t%s\t5" % (database.socket, user, password, values)

    def get(port, tail):
        return "1\t%s\t%d\t%s\t-;-" % (here, port, tail % objects)
    # version, objects, community, authentication, user, pass phrase, privacy, its switch, time-out, retries
    plain, user = "2\t%s\tpublic\t\t\t\t\t\t1\t0", "3\t%%s\t\tmd5\tmd5user\t%s\t\t\t1\t0" % peers.AUTH
    table = "1\t127.0.0.1\t161\t20\t2\t%s\tpublic\t\t\t\t\t\t1\t%d"
    return [
        Kind("load", records.LOAD_AVERAGE, "LA", "1\t90\t90\t90", "1\t0\t0\t0", "LAD\t{id}\t0"),
        Kind("load, remote", records.LOAD_AVERAGE, "LA", "1\t90\t90\t90\t" + here, "1\t0\t0\t0\t" + here,
             "LAD\t{id}\t0"),
        Kind("CPU", records.CPU, "CU", "1\t101\t101\t101\t-1\t101", "1\t0\t0\t0\t-1\t0", "CUD\t{id}\t0"),
        Kind("CPU, remote", records.CPU, "CU", "1\t101\t101\t101\t-1\t101\t127.0.0.1\tlinux",
             "1\t0\t0\t0\t-1\t0\t127.0.0.1\tother", "CUD\t{id}\t0"),
        Kind("memory", records.MEMORY, "MM", "1\t1\t-1\t-1\t-1\t-1", "1\t9999999\t-1\t-1\t0\t0", "MMD\t{id}\t0"),
        Kind("memory, remote", records.MEMORY, "MM", "1\t1\t-1\t-1\t-1\t-1\t" + here,
             "1\t9999999\t-1\t-1\t0\t0\t" + here, "MMD\t{id}\t0"),
        Kind("space", records.DISK, "DK", "1\t%s\t0.001" % root, "1\t%s\t99999" % root, "DKD\t{id}\t0"),
        Kind("disk I/O", None, "DK", "1\t%s\t1\t1" % root, "1\t%s\t2\t2" % root, "DKD\t{id}\t0"),
        Kind("processes", records.PROCESS, "PR", "1\t90\t900\t-1\tvindral", "1\t1\t1\t1\tnginx", "PRD\t{id}\t0"),
        Kind("interface", records.NETWORK, "NT", "1\tsoak0\t1\t1\t1\t1\t1\t1", "1\tsoak0\t0\t0\t0\t0\t0\t0",
             "NTD\t{id}\t0"),
        Kind("ping", records.PING, "PG", "1\tlocalhost\t56\t2\t1000\t0", "1\t10.99.0.2\t1400\t1\t200\t0",
             "PGD\t{id}\t0"),
        pages("page", "localhost", nginx.http, 0),
        pages("page, TLS", here, nginx.https, 1),
        pages("page, no server", here, 1, 0),
        pages("page, no host", "no-such-host.invalid", 80, 1),
        Kind("SNMP get", records.SNMP, "SP", get(161, plain), get(1, plain), "STD\t{id}\t0"),
        Kind("SNMP get, v3", records.SNMP, "SP", get(161, user), get(161, plain), "STD\t{id}\t0"),
        Kind("SNMP table", records.SNMP_TABLE, "ST", table % (peers.TABLE, 1), table % ("1.3.6.1.9", 0),
             "STD\t{id}\t0"),
        Kind("SNMP walk", None, "SW", table % ("1.3.6.1.2.1.1", 1), "", "SWD\t{id}"),
        Kind("discovery", records.DISCOVERY, "DC", "1\t127.0.0.1\t127.0.0.9\t1.3.6.1.2.1.1.6.0",
             "1\t127.0.0.1\t127.0.0.4", "DCR\t{id}"),
        Kind("MySQL", records.MYSQL, "MQ", login(peers.ACCOUNT, peers.PASSWORD, "Uptime;Threads_connected|5000"),
             login(peers.ACCOUNT, "wrong", "Uptime"), "MQD\t{id}\t0"),
        Kind("feed, TCP", None, "TS", "{port}\tall", "{port}\t127.0.0.1", "TSD\t{id}"),
        Kind("feed, TCP, blocked", None, "TS", "{port}\t10.0.0.1", "{port}\t10.0.0.2", "TSD\t{id}"),
        Kind("feed, unix", None, "US", "{path}", "{path}.m", "USD\t{id}"),
    ]


class Test:
    """One test and the lines of the plan that made it what it is."""
    numbers = itertools.count(1)

    def __init__(self, kind, directory):
        self.kind, self.id = kind, next(Test.numbers)
        self.removed_at = None
        self.port = harness.free_port() if kind.name.startswith("feed, TCP") else 0
        self.path = os.path.join(directory, "feed%d" % self.id)
        self.lines = []
        self.write(kind.add)

    def write(self, line):
        self.lines.append(line.format(id=self.id, port=self.port, path=self.path))

    def step(self):
        """From added to changed to removed. A walk cannot be changed."""
        if len(self.lines) == 1 and not self.kind.change.startswith("SW"):
            self.write(self.kind.change)
        else:
            self.remove()

    def remove(self):
        self.write(self.kind.remove)
        self.removed_at = time.monotonic()

    def addresses(self):
        """Where a feed listener may be."""
        if self.kind.name.startswith("feed, TCP"):
            return [(socket.AF_INET, ("127.0.0.1", self.port))]
        if self.kind.name == "feed, unix":
            return [(socket.AF_UNIX, self.path), (socket.AF_UNIX, self.path + ".m")]
        return []


class Plan:
    """Two tests of each kind that stay and one that comes, changes and goes. Rewritten as a whole and moved
    into place."""

    def __init__(self, path, all_kinds, directory):
        self.path, self.directory, self.changes = path, directory, 0
        self.staying = [Test(kind, directory) for kind in all_kinds for _ in range(2)]
        self.passing = {kind: None for kind in all_kinds}
        self.gone = []
        self.all = list(self.staying)
        self.turns = itertools.cycle(all_kinds)
        self.write()

    def write(self):
        self.gone = [test for test in self.gone if test.removed_at > time.monotonic() - FORGET_S]
        tests = self.staying + self.gone + [test for test in self.passing.values() if test]
        # Sanitizers make each fork for SNMP slow, and many at once slow everything down.
        lines = ["POL\t0\t1", "CHK\t0\t%d" % (10 if harness.SANITIZERS else 1)] + [line for test in tests for line in test.lines]
        harness.write_text(self.path + ".new", "\n".join(lines) + "\n")
        os.rename(self.path + ".new", self.path)

    def change(self):
        kind = next(self.turns)
        test = self.passing[kind]
        if test is None:
            self.passing[kind] = Test(kind, self.directory)
            self.all.append(self.passing[kind])
        else:
            test.step()
            if test.removed_at:
                self.gone.append(test)
                self.passing[kind] = None
        self.changes += 1
        self.write()

    def clear(self):
        """Removes every test."""
        for test in self.all:
            if not test.removed_at:
                test.remove()
        self.write()

    def listeners(self):
        return [address for test in list(self.all) if not test.removed_at for address in test.addresses()]


class Feeder:
    """Pushes to every feed listener."""

    def __init__(self, plan):
        self.plan, self.connections, self.stopping = plan, 0, threading.Event()
        self.thread = threading.Thread(target=self._push)
        self.thread.start()

    def _push(self):
        chunks = (b"1000\r\n" + b"f" * 1000) * 60
        while not self.stopping.wait(0.5):
            for family, address in self.plan.listeners():
                with socket.socket(family) as peer:
                    peer.settimeout(0.3)
                    try:
                        peer.connect(address)
                        peer.sendall(chunks)
                        peer.shutdown(socket.SHUT_WR)
                        peer.recv(1)
                        self.connections += 1
                    except OSError:
                        pass  # not there yet, no more, or blocked

    def stop(self):
        self.stopping.set()
        self.thread.join(harness.PATIENCE_S)


COLUMNS = ("RSS KB", "PSS KB", "descriptors", "threads", "children", "zombies", "log KB")


def sample(agent):
    pid = agent.process.pid
    with open("/proc/%d/smaps_rollup" % pid, encoding="ascii") as file:
        text = file.read()
    rss, pss = (int(re.search(r"^%s: +(\d+) kB" % name, text, re.M).group(1)) for name in ("Rss", "Pss"))
    states = []
    for child in harness.children_of(pid):
        try:
            states.append(harness.read_text("/proc/%d/stat" % child).rpartition(")")[2].split()[0])
        except (IndexError, ProcessLookupError):
            pass  # ended meanwhile
    return (rss, pss, len(os.listdir("/proc/%d/fd" % pid)), len(os.listdir("/proc/%d/task" % pid)),
            len(states), states.count("Z"), os.path.getsize(agent.log_path) // 1024)


def slope_per_hour(points):
    """Of a line through pairs of seconds and values, by least squares."""
    mean_x = sum(x for x, _ in points) / len(points)
    mean_y = sum(y for _, y in points) / len(points)
    return 3600 * sum((x - mean_x) * (y - mean_y) for x, y in points) / sum((x - mean_x) ** 2 for x, _ in points)


def row(name, values):
    print("%-26s" % name + "".join("%13s" % value for value in values), flush=True)


class Soak(harness.TestCase):
    def runTest(self):
        """The machinery of the tests is at home in a test."""

    def set_up(self):
        self.setUp()
        self.problems = []
        self.nginx = Nginx(self.subdir("nginx"))
        self.addCleanup(self.nginx.end)
        self.database = harness.start_mariadb(self)
        port = harness.free_port(socket.SOCK_DGRAM)
        table = ["override %s.1.%d.%d integer %d" % (peers.TABLE, column, line, column * line)
                 for column in range(1, 5) for line in range(1, 9)]
        self.snmpd = harness.start_snmpd(self, *table, addresses=("udp:161,udp:127.0.0.1:%d" % port,))
        self.collector = harness.Collector(self, "POL\t0\t1", options=("--quiet",)).start()
        self.agent = harness.Agent(self, self.collector.port, level=4,
                                   env=dict(peers.MIBS, **unit_environment())).start()
        self.agent.wait_log("Authorization was successfully completed.")

    def run_for(self, seconds):
        began = time.monotonic()
        next_change, next_sample, next_restart = began, began + SAMPLE_S, began + RESTART_S
        kills = itertools.cycle((self.collector.stop, self.collector.kill))
        self.samples, self.restarts = [], 0
        while time.monotonic() < began + seconds:
            now = time.monotonic()
            if now >= next_change:
                self.plan.change()
                next_change += CHANGE_S
            if now >= next_sample:
                self.samples.append((now - began, *sample(self.agent)))
                next_sample += SAMPLE_S
                if len(self.samples) % (300 // SAMPLE_S) == 0:
                    warm = [values[:2] for values in self.samples if values[0] >= seconds * WARM_UP]
                    row("%.0f minutes" % ((now - began) / 60), [
                        *self.samples[-1][1:], "%+.0f KB/h" % slope_per_hour(warm) if len(warm) > 1 else ""])
            if now >= next_restart:
                next(kills)()
                self.collector.start()
                self.restarts += 1
                next_restart += RESTART_S
            time.sleep(max(0, min(next_change, next_sample, next_restart) - time.monotonic()))

    def quiet_sample(self):
        """Once all tests are gone and what they started has ended. With sanitizers a child that was forked
        while a thread held a lock of their allocator never ends."""
        if harness.SANITIZERS:
            return sample(self.agent)
        same = []

        def quiet():
            values = sample(self.agent)
            if same and (values[2:5] != same[-1][2:5] or values[4]):
                same.clear()
            same.append(values)
            time.sleep(0.5)
            return len(same) > 20
        harness.wait_until(quiet, lambda: "quiet; have %s" % same[-1:], 180)
        return same[-1]

    def check_growth(self, warm):
        """Of what comes and goes the least counts: a leak raises it."""
        kept = [values for values in self.samples if values[0] >= warm]
        third = len(kept) // 3
        for index, name in enumerate(() if harness.SANITIZERS else COLUMNS):
            if name in ("descriptors", "threads", "children", "zombies"):
                first, last = (min(values[index + 1] for values in part) for part in (kept[:third], kept[-third:]))
                if last > first:
                    self.problems.append("%s have grown from %d to %d" % (name, first, last))
        slope = slope_per_hour([values[:2] for values in kept])
        judged = kept[-1][0] - kept[0][0] >= LEAST_JUDGED_S and not harness.SANITIZERS
        print("resident memory: %+.1f KB an hour after %.0f minutes%s" % (
            slope, warm / 60, "" if judged else " (not judged: too short, or sanitizers)"))
        if judged and slope >= MOST_GROWTH_KB:
            self.problems.append("resident memory grows by %.1f KB an hour" % slope)

    def check_records(self):
        """The results that the agent says it sent are what the collector stored; the last may still have been on
        their way."""
        blocks = [size for size in self.agent.collected(inventories=False) if size]
        stored = self.collector.rows()
        reported = {(row.type, row.test) for row in stored}
        size = sum(len(row.record) for row in stored)
        if sum(blocks) - size not in (0, *blocks[-1:]):
            self.problems.append("%d bytes of results were collected, but %d were stored" % (sum(blocks), size))
        if os.path.isdir(os.path.join(self.collector.state, "undecodable")):
            self.problems.append("blocks did not decode")
        never_end = (records.SNMP, records.SNMP_TABLE, records.DISCOVERY) if harness.SANITIZERS else ()
        silent = [test for test in self.plan.all if test.kind.record and len(test.lines) > 1 and
                  test.kind.record not in never_end and (test.kind.record, test.id) not in reported]
        self.problems += ["test %d (%s) never reported" % (test.id, test.kind.name) for test in silent]
        print("%d polls with results, %d records, %d tests, %d changes of the plan, %d restarts of the collector, "
              "%d feed connections" % (len(blocks), len(stored), len(self.plan.all), self.plan.changes,
                                       self.restarts, self.feeder.connections))

    def soak(self, seconds):
        warm = seconds * WARM_UP
        row("", COLUMNS)
        before = sample(self.agent)
        row("before", before)
        self.plan = Plan(self.collector.plan, kinds(self.nginx, self.database), self.subdir("feeds"))
        self.feeder = Feeder(self.plan)
        try:
            self.run_for(seconds)
        finally:
            self.feeder.stop()
        during = [values[1:] for values in self.samples if values[0] >= warm]
        for name, function in (("least", min), ("mean", lambda column: sum(column) // len(column)), ("most", max)):
            row("during, " + name, [function(column) for column in zip(*during)])
        self.plan.clear()
        row("after, all tests removed", self.quiet_sample())
        self.check_growth(warm)
        self.agent.stop()
        self.collector.stop()
        self.check_records()
        refused = [line for line in self.collector.errors().splitlines() if "plan" in line]
        self.problems += ["the collector says: " + line for line in refused[:5]]


def main():
    if not OPTIONS.inside:  # what runs here ends with the namespace's first process
        os.execvp("unshare", ["unshare", "--pid", "--mount-proc", "--net", "--fork", "--kill-child", sys.executable,
                              os.path.abspath(__file__), "--inside", *sys.argv[1:]])
    for command in ("lo up", "add soak0 type veth peer name soak1", "soak0 up", "soak1 up"):
        subprocess.run(["ip", "link", *([] if command.startswith("add") else ["set"]), *command.split()], check=True)
    subprocess.run(["ip", "address", "add", "10.99.0.1/24", "dev", "soak0"], check=True)
    tempfile.tempdir = tempfile.mkdtemp(prefix="vindral-soak-", dir="/var/tmp")
    harness.become_reaper()
    soak = Soak()
    try:
        soak.set_up()
        soak.soak(OPTIONS.minutes * 60)
    except AssertionError as error:
        soak.problems.append(str(error))
    finally:
        soak.doCleanups()
        shutil.rmtree(tempfile.tempdir, ignore_errors=True)
    for problem in soak.problems:
        print("PROBLEM: " + problem)
    sys.exit(1 if soak.problems else 0)


if __name__ == "__main__":
    main()
