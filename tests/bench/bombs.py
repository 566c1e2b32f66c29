#!/usr/bin/env python3
"""What small bodies that unpack to much cost a collector, and those who poll beside them.

    tests/bench/bombs.py [--collector FILE] [--megabytes N] [--json] [ATTACK...]

For each attack a collector of its own: seconds until the body is answered, processor time of the
collector, how far the peak of its memory rose in megabytes and as a multiple of the unpacked body, and
of an agent that polls all the while, ten times a second, the slowest answer and how many were refused.
"""

import argparse
import os
import re
import shutil
import subprocess
import tempfile
import threading
import time

from whole import TOP, count_on, end, wait_for  # it knows where the next ones are
import raw_client
from attacks import ATTACKS, load_record


def memory_mb(pid, key):
    with open("/proc/%d/status" % pid, encoding="ascii") as file:
        return int(re.search(key + r":\s+(\d+)", file.read()).group(1)) / 1024


def cpu_s(pid):
    with open("/proc/%d/stat" % pid, encoding="latin-1") as file:
        fields = file.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Neighbour(threading.Thread):
    """Polls ten times a second; what it waited for an answer."""

    def __init__(self, port):
        super().__init__()
        self.client, self.over = raw_client.RawClient(port), threading.Event()
        self.session = self.client.session(agent="neighbour")
        self.waits, self.refused = [], 0

    def run(self):
        count = 0
        while not self.over.wait(0.1):
            count += 1
            began = time.monotonic()
            try:
                answer = self.client.poll(self.session, load_record(1, count))
            except OSError:
                answer = None
            self.waits.append(time.monotonic() - began)
            self.refused += answer is None or answer.body != ""


def measure(name, args, directory):
    port_file = os.path.join(directory, "port")
    with open(os.devnull, "w", encoding="ascii") as nowhere:
        collector = subprocess.Popen(
            [args.collector, "--web", "off", "--port", "0", "--port-file", port_file, "--state-dir",
             os.path.join(directory, "state"), "--json" if args.json else "--quiet"],
            stdout=nowhere, stderr=open(os.path.join(directory, "log"), "wb"))
    count_on(collector, "the collector")
    wait_for(lambda: os.path.exists(port_file), "the collector")
    with open(port_file, encoding="ascii") as file:
        port = int(file.read())
    client = raw_client.RawClient(port)
    session = client.session(agent="bomb")
    bodies = []
    if name != "pieces":
        plain = ATTACKS[name](args.megabytes << 20)
        size = len(plain)
        bodies.append(client.poll_bytes(session, plain))
        del plain
    else:
        good, bad = load_record(1, 1), load_record(1, 1)[:12] + b"\x63" + load_record(1, 1)[13:]
        for i in range(300):
            bodies.append(client.poll_bytes(session, (good + bad) * 1000 + load_record(2, i)))
        size = len(good) * 2001
    neighbour = Neighbour(port)
    neighbour.start()
    wait_for(lambda: len(neighbour.waits) >= 5, "the neighbour's polls")
    rss, cpu, began = memory_mb(collector.pid, "VmRSS"), cpu_s(collector.pid), time.monotonic()
    answers = [client.exchange(body) for body in bodies]
    took = time.monotonic() - began
    for _ in range(600):  # the store may go on behind an answer that did not come in time
        before = cpu_s(collector.pid)
        time.sleep(1)
        if cpu_s(collector.pid) - before < 0.1:
            break
    cpu, peak = cpu_s(collector.pid) - cpu, memory_mb(collector.pid, "VmHWM") - rss
    neighbour.over.set()
    neighbour.join()
    end(collector)
    aside = os.path.join(directory, "state", "undecodable")
    files = [os.path.getsize(os.path.join(aside, f)) for f in os.listdir(aside)] if os.path.isdir(aside) else []
    print("%-14s %6d KB -> %4d MB  %-8s %6.1f s  cpu %6.2f s  memory +%5d MB (x%4.1f)  "
          "neighbour: slowest %6.2f s, %d of %d refused; aside: %d files, %d MB" % (
              name, len(bodies[0]) >> 10, size >> 20,
              "answered" if all(a and a.body == "" for a in answers) else
              "refused %d" % sum(not (a and a.body == "") for a in answers), took, cpu, peak,
              peak / (size / 2**20), max(neighbour.waits), neighbour.refused, len(neighbour.waits),
              len(files), sum(files) >> 20), flush=True)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--collector", default=os.path.join(TOP, "build", "release", "vindral-collector"))
    parser.add_argument("--megabytes", type=int, default=255)
    parser.add_argument("--json", action="store_true")
    parser.add_argument("attacks", nargs="*")
    args = parser.parse_args()
    for name in args.attacks or [*ATTACKS, "pieces"]:
        directory = tempfile.mkdtemp(prefix="bombs")
        try:
            measure(name, args, directory)
        finally:
            shutil.rmtree(directory)


if __name__ == "__main__":
    main()
