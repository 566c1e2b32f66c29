#!/usr/bin/env python3
"""A fleet of 1,000 agents with 20 tests each that poll once a minute over real TLS: what the collector takes of a
core, what a poll waits, what a result takes on disk, and how long reading takes, with a history and while results
come. Beside it, where they are installed, Prometheus and VictoriaMetrics with the same samples of fewer agents.

    tests/bench/fleet.py [load] [history] [drop] [test] [peers] [--agents 1000] [--days 2] [--before 30]
        [--seconds 300] [--directory /var/tmp] [--beside COLLECTOR] [--store DIRECTORY] [--ahead]

`load`: polls to an empty collector, at the same time to that of another version with --beside.
`history` makes the last --days of the fleet by simulated clocks, and copies their last whole day to the --before
days in front of them; then a collector starts with that, and it is read, at rest and while polls come. --store: made there and left, or
found there. --ahead: what reads (and the peers) goes before everything else on a machine that others use, too
(chrt, as root). `drop`: polls while a collector drops the days of such a store but the last. `test` is one agent over
two years. Debian's prometheus (with promtool) and victoria-metrics for the peers; eatmydata makes filling quicker."""

import argparse
import json
import os
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import time
import urllib.parse
import urllib.request

import whole

PEER_AGENTS, PEER_DAYS = 2, 30


def megabytes(directory):
    return sum(os.path.getsize(os.path.join(place, name)) for place, _, names in os.walk(directory)
               for name in names) / 1e6


def tool(name, *arguments, first=()):
    return subprocess.run([*first, os.path.join(whole.BENCH, name), *map(str, arguments)], check=False)


def ahead(options):
    return ["chrt", "--fifo", "1"] if options.ahead else []


KEEP_ALL = ["--keep-days", "0", "--keep-5min-days", "0", "--keep-hour-days", "0"]


def fill(state, *what, word="fill-all"):
    """Without waiting for the disk each time, where that is to be had."""
    faster = [shutil.which("eatmydata")] if shutil.which("eatmydata") else []
    subprocess.run([*faster, os.path.join(whole.BENCH, "fleet_store"), word, state, *map(str, what)], check=True)


def close_days(home):
    """Until the days that are over are rolled up."""
    process, _ = whole.start_collector(home, options=KEEP_ALL)
    db = sqlite3.connect("file:%s/state/results.db?mode=ro" % home, uri=True)
    began = time.monotonic()

    def closed():
        return db.execute("SELECT value FROM facts WHERE name = 'closed_through'").fetchone()[0]

    whole.wait_for(lambda: closed() == int(time.time()) // 86400 - 1, "the days' ends", patience_s=1800)
    print("days rolled up: %.0f s, %.1f s of the processor" % (time.monotonic() - began, processor(process.pid)),
          flush=True)
    db.close()
    whole.end(process)


def fill_fleet(options, home):
    state = os.path.join(options.store or home, "state")
    if not os.path.exists(state):
        fill(state, options.agents, options.days, 60)
        close_days(os.path.dirname(state))
        tool("fleet_store", "repeat", state, options.before)
    return os.path.dirname(state)


def out_of_cache(state):
    """All that nobody needs, where that is allowed; else what this user may."""
    os.sync()
    try:
        whole.peers.write_text("/proc/sys/vm/drop_caches", "1\n")
    except OSError:
        for name in os.listdir(state):
            file = os.open(os.path.join(state, name), os.O_RDONLY)
            os.posix_fadvise(file, 0, 0, os.POSIX_FADV_DONTNEED)
            os.close(file)


def polls(pid, port, options, seconds):
    return subprocess.Popen([os.path.join(whole.BENCH, "fleet_load"), "--port", str(port), "--agents",
                             str(options.agents), "--seconds", str(seconds), "--pid", str(pid)],
                            stdout=subprocess.PIPE, encoding="ascii")


def load(options, home):
    begun = []
    for program in [None, *options.beside]:
        place = tempfile.mkdtemp(dir=home)
        process, port = whole.start_collector(place, options=["--keep-days", "0"], program=program)
        begun.append((program or "this one", place, process, polls(process.pid, port, options, options.seconds)))
    for program, place, process, fleet in begun:
        print("%s: %s" % (program, fleet.communicate()[0]), end="", flush=True)
        whole.end(process)
        print("state directory: %.1f MB" % megabytes(os.path.join(place, "state")), flush=True)


def history(options, home):
    home = fill_fleet(options, home)
    state = os.path.join(home, "state")
    for cold in ("warm", "cold", "cold", "cold", "warm", "warm"):
        if cold == "cold":
            out_of_cache(state)
        began = time.monotonic()
        process, port = whole.start_collector(home, options=KEEP_ALL, step_s=0.002)
        first = time.monotonic() - began
        tool("fleet_load", "--port", port, "--agents", 1, "--seconds", 0)
        print("start with that, %s: port open after %.2f s, login and a poll answered %.2f s; processor %.2f s" % (
            cold, first, time.monotonic() - began, processor(process.pid)), flush=True)
        whole.end(process)
    process, port = whole.start_collector(home, options=KEEP_ALL)
    for cold in ([], ["--cold"]):
        print("at rest, %s:" % ("cold" if cold else "warm"), flush=True)
        tool("fleet_store", "query", state, 200, *cold, first=ahead(options))
    fleet = polls(process.pid, port, options, options.seconds)
    time.sleep(10)
    for cold in ([], ["--cold"]):
        print("while results come, %s:" % ("cold" if cold else "warm"), flush=True)
        tool("fleet_store", "query", state, 200, *cold, first=ahead(options))
    print(fleet.communicate()[0], end="", flush=True)
    whole.end(process)


def processor(pid):
    with open("/proc/%d/stat" % pid, encoding="latin-1") as file:
        fields = file.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def drop(options, home):
    """The day before the last one goes at once, because fewer are to be kept than before."""
    home = fill_fleet(options, home)
    process, port = whole.start_collector(home, options=["--keep-days", str(options.days)])
    time.sleep(5)
    whole.end(process)
    before = megabytes(home)
    process, port = whole.start_collector(home, options=["--keep-days", "1"])
    print(polls(process.pid, port, options, options.seconds).communicate()[0], end="", flush=True)
    whole.end(process)
    print("%.0f MB before, %.0f MB after" % (before, megabytes(home)), flush=True)


def one_test(_, home):
    """Two years of one agent: what is kept of them by default."""
    state = os.path.join(home, "state")
    fill(state, 1, 730, 60, word="fill")
    print("%.2f MB a test" % (megabytes(state) / 20), flush=True)


def asked(url, what, state):
    """By HTTP, as they are asked: an hour a point, of all values of a test."""
    for cold in (False, True):
        for form in ("%s", "avg_over_time(%s[1h])"):
            took = []
            for i in range(20 if cold else 200):
                query = form % ('vindral{host="host%04d",test="%d"}' % (i * 7 % PEER_AGENTS, 1 + i * 3 % 20))
                end = int(time.time()) // 3600 * 3600
                parameters = {"query": query, "start": end - PEER_DAYS * 86400, "end": end, "step": 3600, "nocache": 1}
                if cold:
                    out_of_cache(state)
                began = time.monotonic()
                with urllib.request.urlopen(url + "/api/v1/query_range?" +
                                            urllib.parse.urlencode(parameters)) as answer:
                    found = json.load(answer)["data"]["result"]
                took.append(1000 * (time.monotonic() - began))
                if not found:
                    sys.exit("%s has nothing of %s" % (what, query))
            took.sort()
            print("%s, %s, %s: %d days p50 %.1f ms, p99 %.1f ms" % (
                what, form % "SERIES", "cold" if cold else "warm", PEER_DAYS, took[len(took) // 2],
                took[len(took) * 99 // 100]), flush=True)


def per_sample(directory, results, lines):
    size = 1e6 * megabytes(directory)
    return "%.2f bytes a sample, %.1f a result" % (size / lines, size / results)


def answers(url):
    try:
        with urllib.request.urlopen(url) as answer:
            return answer.status == 200
    except OSError:
        return False


def peers(options, home):
    if options.ahead:
        os.sched_setscheduler(0, os.SCHED_FIFO | os.SCHED_RESET_ON_FORK, os.sched_param(1))
    samples = os.path.join(home, "samples")
    with open(samples, "wb") as file:
        subprocess.run([os.path.join(whole.BENCH, "fleet_store"), "samples", str(PEER_AGENTS), str(PEER_DAYS), "60"],
                       stdout=file, check=True)
    results = PEER_AGENTS * PEER_DAYS * 1440 * 20
    with open(samples, "rb") as file:
        lines = sum(1 for _ in file) - 1
    print("%d results are %d samples" % (results, lines), flush=True)
    fill(os.path.join(home, "ours"), PEER_AGENTS, PEER_DAYS, 60)
    print("ours: %s" % per_sample(os.path.join(home, "ours"), results, lines), flush=True)
    for cold in ([], ["--cold"]):
        tool("fleet_store", "query", os.path.join(home, "ours"), 200, *cold, first=ahead(options))
    if shutil.which("prometheus") and shutil.which("promtool"):
        data = os.path.join(home, "prometheus")
        subprocess.run(["promtool", "tsdb", "create-blocks-from", "openmetrics", "--max-block-duration=240h", samples, data], check=True,
                       stdout=subprocess.DEVNULL)
        print("prometheus: %s" % per_sample(data, results, lines), flush=True)
        config = os.path.join(home, "prometheus.yml")
        whole.peers.write_text(config, "global: {}\n")
        port = whole.peers.free_port()
        process = subprocess.Popen([*ahead(options), "prometheus", "--config.file", config, "--storage.tsdb.path", data,
                                    "--storage.tsdb.retention.time", "10y",
                                    "--web.listen-address", "127.0.0.1:%d" % port], stderr=subprocess.DEVNULL)
        whole.count_on(process, "prometheus")
        url = "http://127.0.0.1:%d" % port
        whole.wait_for(lambda: answers(url + "/-/ready"), "prometheus")
        asked(url, "prometheus", data)
        whole.end(process)
        print("prometheus, after that: %s" % per_sample(data, results, lines), flush=True)
    else:
        print("prometheus is not installed")
    name = shutil.which("victoria-metrics")
    if name:
        data = os.path.join(home, "victoria")
        port = whole.peers.free_port()
        process = subprocess.Popen([*ahead(options), name, "-storageDataPath", data, "-retentionPeriod", "10y",
                                    "-httpListenAddr", "127.0.0.1:%d" % port], stderr=subprocess.DEVNULL)
        whole.count_on(process, "victoria-metrics")
        url = "http://127.0.0.1:%d" % port
        whole.wait_for(lambda: answers(url + "/health"), "victoria-metrics")
        # Its import takes milliseconds.
        subprocess.run("sed '/^#/d; s/$/000/' '%s' | curl -sS -T - '%s/api/v1/import/prometheus'" % (samples, url),
                       shell=True, check=True)
        with urllib.request.urlopen(url + "/internal/force_flush") as answer:
            answer.read()
        asked(url, "victoria-metrics", data)
        whole.end(process)
        print("victoria-metrics: %s" % per_sample(data, results, lines), flush=True)
    else:
        print("victoria-metrics is not installed")


PARTS = {"load": load, "history": history, "drop": drop, "test": one_test, "peers": peers}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("parts", nargs="*", choices=[*PARTS, []])
    parser.add_argument("--agents", type=int, default=1000)
    parser.add_argument("--days", type=int, default=2)
    parser.add_argument("--before", type=int, default=30)
    parser.add_argument("--beside", action="append", default=[])
    parser.add_argument("--store")
    parser.add_argument("--ahead", action="store_true")
    parser.add_argument("--seconds", type=int, default=300)
    parser.add_argument("--directory", default="/var/tmp")
    options = parser.parse_args()
    for part in options.parts or PARTS:
        home = tempfile.mkdtemp(prefix="vindral-bench-", dir=options.directory)
        try:
            print("-- " + part, flush=True)
            PARTS[part](options, home)
        finally:
            shutil.rmtree(home, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
