#!/usr/bin/env python3
"""What an agent gathers when SNMP agents never answer: SNMP tests of silent UDP ports, each with a time-out
and retries that last for several check intervals, one of 40 for days; every eighth names its host. Beside
them are tests that are answered: SNMP gets and tables, also by name, and the load average.

    tests/bench/hung_snmp.py [--tests 400] [--minutes 10] [--check 10] [--timeout 12]

In the beginning further passes are caused, until the tests that last for days have as many checks under way
as they may have. From a minute after that, threads, descriptors, children and memory must not grow, and no
answered test may miss two check intervals at any time. Ends with status 1 when that is not so. Needs root
and Debian's snmpd and snmp. VINDRAL_BUILD_DIR names another build than build/release.
"""

import argparse
import os
import re
import resource
import shutil
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from local import Agent  # noqa: E402
from snmp import OBJECTS, TABLE, cpu_with_children, start_snmpd, states_of_children, write_module  # noqa: E402
from probes import status  # noqa: E402
from whole import memory_kb, stored  # noqa: E402

POLL_S = 3
SAMPLE_S = 5
ROW_S = 30
SETTLE_S = 60
BOUND = 64  # checks of one test
DAYS_S = 86400
MOST_GROWTH = 1.05  # of what comes and goes the most in the second half, by that in the first
COLUMNS = ("threads", "descriptors", "children", "zombies", "RSS KB", "children's PSS KB", "CPU s")


def get(number, host, port, timeout, retries):
    return "SPA\t%d\t1\t%s\t%d\t2\t%s\tpublic\t\t\t\t\t\t%d\t%d\t%s" % (
        number, host, port, ";".join(OBJECTS), timeout, retries, ";".join("-" for _ in OBJECTS))


def table(number, host, port, timeout, retries, code="STA"):
    return "%s\t%d\t1\t%s\t%d\t10\t2\t%s\tpublic\t\t\t\t\t\t%d\t%d" % (
        code, number, host, port, TABLE, timeout, retries)


def walk(*arguments):
    return table(*arguments, code="SWA")


class Silence:
    """UDP ports at which nobody reads; and the tests of them."""

    def __init__(self, tests, timeout):
        self.sockets, self.lines, self.lasting = [], [], []
        for number in range(1, tests + 1):
            listener = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            listener.bind(("127.0.0.1", 0))
            self.sockets.append(listener)
            lasts = number % 40 == 0
            if lasts:
                self.lasting.append(number)
            kind = (get, table, walk)[number % 3]
            self.lines.append(kind(number, "localhost" if number % 8 == 0 else "127.0.0.1",
                                   listener.getsockname()[1], DAYS_S if lasts else timeout, 9 if lasts else 1))


def answered_tests(port):
    """Lines; and what they report as (record type, test)."""
    lines, reports = [], []
    for number in range(10001, 10021):
        host = "localhost" if number % 4 == 0 else "127.0.0.1"
        kind, record = (table, 67) if number % 5 == 0 else (get, 57)
        lines.append(kind(number, host, port, 10, 2))
        reports.append((record, number))
    for number in (10101, 10102):
        lines.append("LAA\t%d\t1\t900\t900\t900" % number)
        reports.append((66, number))
    return lines, reports


def sample(pid):
    states = states_of_children(pid)
    return (status(pid, "Threads"), len(os.listdir("/proc/%d/fd" % pid)), len(states), states.count("Z"),
            memory_kb(pid)[0])


def pss_of_children(pid):
    total = 0
    for entry in os.listdir("/proc"):
        try:
            if entry.isdigit() and status(int(entry), "PPid") == pid:
                total += memory_kb(int(entry))[1]
        except (OSError, KeyError, AttributeError):
            pass  # ended meanwhile, or a zombie
    return total


def row(name, values):
    print("%-12s" % name + "".join("%18s" % value for value in values), flush=True)


class Bench:
    def __init__(self, home, options):
        self.home, self.options = home, options
        self.silence = Silence(options.tests, options.timeout)
        self.snmpd = start_snmpd(home)
        own = tempfile.mkdtemp(dir=home)
        write_module(own)
        lines, self.reports = answered_tests(self.snmpd.port)
        self.plan = os.path.join(own, "plan")
        os.environ.update(MIBDIRS=own, MIBS="BENCH-MIB", SNMP_PERSISTENT_DIR=own)
        self.agent = Agent(own, ["POL\t0\t%d" % POLL_S, "CHK\t0\t%d" % options.check] + lines + self.silence.lines)
        self.state = os.path.join(own, "state", "results.db")
        self.samples, self.settled_at = [], None

    def left_out(self):
        with open(self.agent.log, encoding="utf-8", errors="replace") as file:
            return {int(number) for number in re.findall(r"SNMP test (\d+): %d checks are under way" % BOUND,
                                                         file.read())}

    def run(self):
        began = time.monotonic()
        next_sample = next_pass = began + POLL_S
        next_row = began
        full = False
        row("", COLUMNS)
        while time.monotonic() < began + self.options.minutes * 60:
            now = time.monotonic()
            if not full and now >= next_pass:
                with open(self.plan, "a", encoding="utf-8") as file:  # each CHK causes a pass
                    file.write("CHK\t0\t%d\n" % self.options.check)
                next_pass = now + POLL_S
                full = self.left_out() >= set(self.silence.lasting)
                if full:
                    self.settled_at = now + SETTLE_S
                    print("after %.0f s the tests that last for days are at their bound" % (now - began), flush=True)
            if now >= next_sample:
                self.samples.append((now, *sample(self.agent.pid)))
                next_sample += SAMPLE_S
            if now >= next_row and self.samples:
                row("%.0f s" % (now - began), (*self.samples[-1][1:], pss_of_children(self.agent.pid),
                                               "%.0f" % cpu_with_children(self.agent.pid)))
                next_row += ROW_S
            time.sleep(0.2)

    def check_growth(self):
        if self.settled_at is None:
            return ["the tests that last for days did not reach their bound; %d of %d did"
                    % (len(self.left_out()), len(self.silence.lasting))]
        problems = []
        kept = [values[1:] for values in self.samples if values[0] >= self.settled_at]
        if len(kept) < 10:
            return ["too short to see what grows"]
        half = len(kept) // 2
        for index, name in enumerate(COLUMNS[:5]):
            first, second = (max(values[index] for values in part) for part in (kept[:half], kept[half:]))
            print("%s: at most %d in the first half of the settled time, %d in the second" % (name, first, second))
            if second > first * MOST_GROWTH + 10:
                problems.append("%s have grown from %d to %d" % (name, first, second))
        return problems

    def check_reports(self):
        problems, longest = [], 0
        kept = stored.rows(self.state)
        for kind, test in self.reports:
            rows = sorted((row.time, row.status) for row in kept if (row.type, row.test) == (kind, test))
            bad = sum(state != 0 for _, state in rows)
            times = [at for at, _ in rows]
            gap = max((later - at for at, later in zip(times, times[1:])), default=0)
            longest = max(longest, gap)
            expected = self.options.minutes * 60 / self.options.check - 2
            if bad or len(rows) < expected or gap > 2 * self.options.check:
                problems.append("test %d: %d records, %d of them bad, up to %d s apart" % (
                    test, len(rows), bad, gap))
        print("%d answered tests, their checks at most %d s apart" % (len(self.reports), longest))
        return problems


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tests", type=int, default=400)
    parser.add_argument("--minutes", type=float, default=10)
    parser.add_argument("--check", type=int, default=10)
    parser.add_argument("--timeout", type=int, default=12)
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    options = parser.parse_args()
    if not options.inside:  # the agent is a daemon: its namespace's first process inherits it
        os.execvp("unshare", ["unshare", "--pid", "--mount-proc", "--net", "--fork", "--kill-child", sys.executable,
                              os.path.abspath(__file__), "--inside", *sys.argv[1:]])
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    limit = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))
    home = tempfile.mkdtemp(prefix="vindral-bench-", dir="/var/tmp")
    problems = []
    try:
        bench = Bench(home, options)
        bench.run()
        problems = bench.check_growth() + bench.check_reports()
        bench.agent.stop()
    finally:
        shutil.rmtree(home, ignore_errors=True)
    for problem in problems:
        print("PROBLEM: " + problem)
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
