#!/usr/bin/env python3
"""An agent among peers that hang: what it holds must level off, and the tests of healthy peers must go on.

    tests/bench/hung_peers.py [--minutes 10] [--pages 300] [--mysql 100] [--build build/release]

Every ten seconds the agent checks `--pages` pages of a TLS server that accepts and never shakes hands,
`--mysql` databases of which one half accepts and never greets and the other never answers a query, and a
page, a database and the load average that are well. Prints every half minute the most threads,
descriptors, children and resident memory of the agent within it, and how often each kind has reported.

Ends with status 1 when the agent holds more in the last third of the time than in the one before (in the
mean, by more than 5 in 100, of memory 10, which malloc's arenas take long to fill), when a healthy test did not report within a half minute or not well, when a
kind of hung tests did not report at all or well, or when the agent does not end in order.

Needs root, mariadb-server-core and mariadb-client-core.
"""

import argparse
import http.server
import os
import resource
import selectors
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

TOP = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
CHECK_S = 10
POLL_S = 5
SAMPLE_S = 1
PRINT_S = 30


def parse_options():
    parser = argparse.ArgumentParser()
    parser.add_argument("--minutes", type=float, default=10)
    parser.add_argument("--pages", type=int, default=300)
    parser.add_argument("--mysql", type=int, default=100)
    parser.add_argument("--build", default=os.path.join(TOP, "build", "release"))
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    return parser.parse_args()


OPTIONS = parse_options()
os.environ["VINDRAL_BUILD_DIR"] = os.path.abspath(OPTIONS.build)
import whole  # noqa: E402  it knows where the next ones are
import harness  # noqa: E402
import peers  # noqa: E402
import records  # noqa: E402


class HungServer:
    """Takes every connection. The nth thing it says comes after the client's nth (the first at once);
    when it has said all, it is silent until the client goes."""

    def __init__(self, *sayings):
        self.sayings = sayings
        listener = socket.create_server(("127.0.0.1", 0), backlog=4096)
        listener.setblocking(False)
        self.port = listener.getsockname()[1]
        threading.Thread(target=self.serve, args=(listener,), daemon=True).start()

    def serve(self, listener):
        said = {}
        with selectors.DefaultSelector() as ready:
            ready.register(listener, selectors.EVENT_READ)
            while True:
                for key, _ in ready.select():
                    peer, heard = key.fileobj, b"something"
                    try:
                        if peer is listener:
                            peer = listener.accept()[0]
                            ready.register(peer, selectors.EVENT_READ)
                            said[peer] = 0
                        else:
                            heard = peer.recv(65536)
                        if heard and said[peer] < len(self.sayings):
                            peer.sendall(self.sayings[said[peer]])
                            said[peer] += 1
                    except OSError:
                        heard = b""
                    if not heard:
                        ready.unregister(peer)
                        peer.close()
                        del said[peer]


def packet(number, body):
    return struct.pack("<I", len(body))[:3] + bytes([number]) + body


# Version, thread, 8 bytes of salt, abilities (4.1 protocol, secure connection, plugins), character set,
# state, 12 more bytes of salt.
GREETING = packet(0, b"\x0a8.0.0\0\1\0\0\0saltsalt\0\0\x82\x21\2\0\x08\0\x15" + bytes(10) +
                  b"saltsaltsalt\0mysql_native_password\0")
LOGGED_IN = packet(2, b"\0\0\0\2\0\0\0")


class HealthyPage:
    def __init__(self):
        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                self.send_response(200)
                self.end_headers()
                self.wfile.write(b"body")

            def log_message(self, *_):
                pass
        server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.port = server.server_address[1]
        threading.Thread(target=server.serve_forever, daemon=True).start()


class Group:
    """Tests of one kind, with ids of their own: the type of their records, whether they report well or in
    vain, and the line that adds one."""

    def __init__(self, name, record, healthy, count, line):
        self.name, self.record, self.healthy = name, record, healthy
        self.ids = range(Group.next_id, Group.next_id + count)
        Group.next_id += count
        self.lines = [line.format(id=number) for number in self.ids]

    next_id = 1


def page(port, tls):
    return "HPA\t{id}\t1\t127.0.0.1\t/\t%d\t\t\t\t\t10\t%d\t0\t0\t1\t0" % (port, tls)


def database(port, user="monitor", password="secret"):
    return "MQA\t{id}\t1\t127.0.0.1\t%d\t\t%s\t%s\tUptime\t10" % (port, user, password)


def groups(test):
    """More kinds of peers that hang belong in here."""
    peer = harness.start_mariadb(test)
    half = OPTIONS.mysql // 2
    return [
        Group("page", records.HTTP, True, 1, page(HealthyPage().port, 0)),
        Group("database", records.MYSQL, True, 1, database(peer.port, peers.ACCOUNT, peers.PASSWORD)),
        Group("load", records.LOAD_AVERAGE, True, 1, "LAA\t{id}\t1\t9000\t9000\t9000"),
        Group("hung pages", records.HTTP, False, OPTIONS.pages, page(HungServer().port, 1)),
        Group("not greeted", records.MYSQL, False, half, database(HungServer().port)),
        Group("not answered", records.MYSQL, False, OPTIONS.mysql - half,
              database(HungServer(GREETING, LOGGED_IN).port)),
    ]


COLUMNS = ("threads", "descriptors", "children", "RSS KB")
MOST_GROWTH = (1.05, 1.05, 1.05, 1.1)


def sample(pid):
    resident = int(harness.read_text("/proc/%d/statm" % pid).split()[1]) * resource.getpagesize() // 1024
    return (len(os.listdir("/proc/%d/task" % pid)), len(os.listdir("/proc/%d/fd" % pid)),
            len(harness.children_of(pid)), resident)


def row(name, values):
    print("%-14s" % name + "".join("%13s" % value for value in values), flush=True)


class HungPeers(harness.TestCase):
    def runTest(self):
        """The machinery of the tests is at home in a test."""

    def set_up(self):
        self.setUp()
        self.problems = []
        self.groups = groups(self)
        self.collector = harness.Collector(self, "POL\t0\t%d" % POLL_S, "CHK\t0\t%d" % CHECK_S, *(
            line for group in self.groups for line in group.lines), options=("--quiet",)).start()
        self.agent = harness.Agent(self, self.collector.port, level=1).start()
        self.agent.wait_log("Authorization was successfully completed.")
        self.seen = dict.fromkeys(self.groups, 0)

    def reported(self):
        """For each group how many reports came since the last time, and how many of them were as they
        should not be."""
        rows, counts = self.collector.rows(), {}
        for group in self.groups:
            found = [row.status for row in rows
                     if row.type == group.record and row.test in group.ids][self.seen[group]:]
            self.seen[group] += len(found)
            counts[group] = len(found), sum((status == 0) != group.healthy for status in found)
        return counts

    def judge_reports(self, minutes):
        counts = self.reported()
        for group, (count, wrong) in counts.items():
            if group.healthy and (not count or wrong):
                self.problems.append("%s: %d reports until %.1f minutes, %d of them not well" % (
                    group.name, count, minutes, wrong))
            elif wrong:
                self.problems.append("%s: %d reports until %.1f minutes are well" % (group.name, wrong, minutes))
        return [counts[group][0] for group in self.groups]

    def run_for(self, seconds):
        row("minutes", [*COLUMNS, *(group.name for group in self.groups)])
        began = time.monotonic()
        self.samples, next_print = [], PRINT_S
        while (now := time.monotonic() - began) < seconds:
            self.samples.append((now, *sample(self.agent.process.pid)))
            if now >= next_print:
                lately = [values[1:] for values in self.samples if values[0] > next_print - PRINT_S]
                row("%.1f" % (now / 60), [*map(max, zip(*lately)), *self.judge_reports(now / 60)])
                next_print += PRINT_S
            time.sleep(SAMPLE_S)

    def check_level(self, seconds):
        middle, last = ([values[1:] for values in self.samples if begin <= values[0] / seconds < begin + 1 / 3]
                        for begin in (1 / 3, 2 / 3))
        for name, most, *values in zip(COLUMNS, MOST_GROWTH, zip(*middle), zip(*last)):
            before, after = (sum(column) / len(column) for column in values)
            print("%s: %.0f in the second third of the time, %.0f in the last; %d at most" % (
                name, before, after, max(map(max, values))))
            if after > before * most and not (name == "RSS KB" and harness.SANITIZERS):
                self.problems.append("%s have grown from %.0f to %.0f" % (name, before, after))
        for group in self.groups:
            if group.ids and not self.seen[group]:
                self.problems.append("%s: no reports at all" % group.name)


def main():
    if not OPTIONS.inside:  # what runs here ends with the namespace's first process
        os.execvp("unshare", ["unshare", "--pid", "--mount-proc", "--net", "--fork", "--kill-child", sys.executable,
                              os.path.abspath(__file__), "--inside", *sys.argv[1:]])
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    _, most = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    tempfile.tempdir = tempfile.mkdtemp(prefix="vindral-hung-", dir="/var/tmp")
    harness.become_reaper()
    bench = HungPeers()
    try:
        bench.set_up()
        bench.run_for(OPTIONS.minutes * 60)
        bench.check_level(OPTIONS.minutes * 60)
        bench.agent.stop()
        bench.collector.stop()
    except AssertionError as error:
        bench.problems.append(str(error))
    finally:
        bench.doCleanups()
        shutil.rmtree(tempfile.tempdir)
    for problem in bench.problems:
        print("PROBLEM: " + problem)
    sys.exit(1 if bench.problems else 0)


if __name__ == "__main__":
    main()
