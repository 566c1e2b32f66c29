#!/usr/bin/env python3
"""How long vindral-collector --missing takes in a database of many results: 31 days of 1000 agents with 20 tests each,
which fleet_store lays down; how long the collector takes to start there; how long it takes to start with a
database of the version before, of 3 days of 50 agents, and to take it over.

    tests/bench/missing.py [--results 20000000] [--earlier 1000000] [--build build/release]

A result takes some 130 bytes, as they lie an hour apart, and one of the version before 120, in /var/tmp. The file is put out of
the page cache before each run that is called cold."""

import argparse
import os
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import time

import whole
import records
import store_history

AGENTS, TESTS, DAYS = 1000, 20, 31
EARLIER_AGENTS, EARLIER_DAYS = 50, 3

# The tests of fleet.h, and one that nobody has.
PLAN = [("LAA", "8 6 4"), *[("CUA", "90 -1 -1 -1 -1")] * 2, ("MMA", "1 1 1 1 1"), *[("DKA", "/home(/dev/sda3|ext4) 2.5")] * 4,
        *[("NTA", "eth0 0 0 1 1 1 1")] * 2, *[("PGA", "gateway.example.org 56 3 1000 1")] * 4,
        *[("HPA", "www.example.org /status 443 all x y z 5 1 1 1 1 0")] * 4, *[("PRA", "80 512 -1 nginx")] * 2,
        ("LAA", "8 6 4")]


def fill_earlier(state, rows):
    """As the version before left it: a row for each record, the same number on each day."""
    os.makedirs(state, mode=0o700)
    db = sqlite3.connect(os.path.join(state, "results.db"), isolation_level=None)
    db.executescript(store_history.LAYOUT_2)
    db.execute("PRAGMA synchronous = OFF")
    now = int(time.time())
    db.execute("BEGIN")
    db.executemany("INSERT INTO agents (id, account, name, first_seen, last_seen, last_block)"
                   " VALUES (?, 'fleet@example.org', ?, 0, ?, x'')", [(n, "host%04d" % n, now) for n in range(1, EARLIER_AGENTS + 1)])
    passes = max(rows // (EARLIER_DAYS * EARLIER_AGENTS * TESTS), 1)
    for ago in reversed(range(1, EARLIER_DAYS + 1)):
        day = time.strftime("%Y%m%d", time.gmtime(now - ago * 86400))
        db.execute("CREATE TABLE results_%s (id INTEGER PRIMARY KEY, received INTEGER NOT NULL, agent INTEGER NOT NULL,"
                   " type INTEGER NOT NULL, test INTEGER, location INTEGER, time INTEGER, status INTEGER,"
                   " record BLOB NOT NULL)" % day)
        db.execute("INSERT INTO days SELECT ?, 1 + coalesce(max(turn), 0) FROM days", (day,))
        start = (now // 86400 - ago) * 86400
        for number in range(passes):
            at = start + number * 86400 // passes
            block = [(test, records.encode_load(records.Load(test, 1, at, (1.0, 2.0, number / 8), "within limits\n", 0)))
                     for test in range(1, TESTS + 1)]
            db.executemany("INSERT INTO results_%s (received, agent, type, test, location, time, status, record)"
                           " VALUES (?, ?, 66, ?, 1, ?, 0, ?)" % day,
                           ((at, agent, test, at, record) for agent in range(1, EARLIER_AGENTS + 1) for test, record in block))
    db.execute("COMMIT")
    db.close()
    return passes * EARLIER_DAYS * EARLIER_AGENTS * TESTS


def forget(path):
    with open(path, "rb") as file:
        os.fsync(file.fileno())
        os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)


def timed(command, **more):
    began = time.monotonic()
    done = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=False, timeout=whole.TOOL_S, **more)
    return time.monotonic() - began, done


def started(home, database):
    forget(database)
    began = time.monotonic()
    process, _ = whole.start_collector(home, options=["--keep-days", "0"])
    return process, time.monotonic() - began


def measure_missing(home, results):
    state = os.path.join(home, "state")
    database = os.path.join(state, "results.db")
    interval = max(DAYS * 86400 * AGENTS * TESTS // results, 60)
    subprocess.run([os.path.join(whole.BENCH, "fleet_store"), "fill", state, str(AGENTS), str(DAYS), str(interval)],
                   check=True, timeout=2 * whole.TOOL_S)
    plan = os.path.join(home, "plan")
    with open(plan, "w", encoding="utf-8") as file:
        for number, (code, fields) in enumerate(PLAN, 1):
            file.write("\t".join((code, str(number), "1", *fields.split())) + "\n")
    collector = [os.path.join(whole.BUILD, "vindral-collector"), "--missing", "--plan", plan, "--state-dir", state]
    for more in ([], ["--older-than", "15m"], ["--older-than", "30d"]):
        for cache in ("cold", "warm"):
            if cache == "cold":
                forget(database)
            took, done = timed(collector + more)
            words = [line.split("\t")[0] for line in done.stdout.splitlines()]
            print("--missing %s, %s: %.3f s; %s" % (" ".join(more), cache, took, ", ".join(
                "%d %s" % (words.count(word), word) for word in sorted(set(words)))), flush=True)
    process, took = started(home, database)
    print("start of the collector: %.3f s" % took)
    took, done = timed(collector)
    print("--missing beside it: %.3f s" % took, flush=True)
    whole.end(process)


def measure_takeover(home, rows):
    state = os.path.join(home, "state")
    rows = fill_earlier(state, rows)
    database = os.path.join(state, "results.db")
    print("a database of the version before: %d results, %.2f GB" % (rows, os.path.getsize(database) / 1e9), flush=True)
    process, took = started(home, database)
    print("start of the collector there: %.3f s" % took)
    began = time.monotonic()
    whole.wait_for(lambda: not os.path.exists(os.path.join(state, "results-earlier.db")), "the takeover",
                   patience_s=whole.TOOL_S)
    took = time.monotonic() - began
    whole.end(process)
    print("taken over in %.1f s, %.0f results a second; now %.2f GB" % (took, rows / took, os.path.getsize(database) / 1e9))
    with whole.stored.Database(database) as there:
        count = sum(there.query("SELECT coalesce(sum(results), 0) FROM " + day)[0][0] for day in there.tables("packed"))
        count += sum(len(list(whole.stored.split(block))) for (block,) in there.query("SELECT records FROM blocks"))
    if count != rows:
        sys.exit("%d of them are there" % count)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--results", type=int, default=20000000)
    parser.add_argument("--earlier", type=int, default=1000000)
    parser.add_argument("--build", default=whole.BUILD)
    options = parser.parse_args()
    whole.BUILD, whole.BENCH = options.build, os.path.join(options.build, "tests", "bench")
    home = tempfile.mkdtemp(prefix="vindral-bench-", dir="/var/tmp")
    try:
        for name, measure, count in (("a", measure_missing, options.results), ("b", measure_takeover, options.earlier)):
            os.mkdir(os.path.join(home, name))
            measure(os.path.join(home, name), count)
    finally:
        shutil.rmtree(home, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
