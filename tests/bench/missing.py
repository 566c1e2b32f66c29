#!/usr/bin/env python3
"""How long vindral-collector --missing takes in a database of many results: 31 days of 1000 agents with 20
tests each, in rows made by SQL; how long the collector takes to start there; and how long it takes to renew
that database when the first version had made it.

    tests/bench/missing.py [--rows 20000000] [--build build/release]

A row takes some 60 bytes, in /var/tmp. The file is put out of the page cache before each run."""

import argparse
import os
import shutil
import sqlite3
import subprocess
import sys
import tempfile
import time

import whole

AGENTS, TESTS, DAYS = 1000, 20, 31


def packed(rows_a_day, received):
    """An agent's last results, as collector/store/latest.h has them: one a test, its rows the last of a day."""

    def number(value):
        text = b""
        while value >= 128:
            text += bytes([value & 127 | 128])
            value >>= 7
        return text + bytes([value])

    text, before = b"", 0
    for test in range(1, TESTS + 1):
        text += bytes([7]) + number(66) + number(2 * (received - before)) + number(rows_a_day) + number(2 * test)
        text += number(0) + number(0)
        before = received
    return text


def fill(state, rows):
    db = sqlite3.connect(os.path.join(state, "results.db"), isolation_level=None)
    db.execute("PRAGMA journal_mode = OFF")
    db.execute("PRAGMA synchronous = OFF")
    now = int(time.time())
    db.executemany("INSERT INTO agents (id, account, name, first_seen, last_seen, last_block, latest)"
                   " VALUES (?, 'bench@example.org', ?, 0, ?, x'', ?)",
                   [(n, "host%04d" % n, now, packed(rows // DAYS, now)) for n in range(1, AGENTS + 1)])
    for ago in reversed(range(DAYS)):
        received = now - ago * 86400
        day = time.strftime("%Y%m%d", time.gmtime(received))
        db.execute("BEGIN")
        db.execute("CREATE TABLE results_%s (id INTEGER PRIMARY KEY, received INTEGER NOT NULL, agent INTEGER NOT NULL,"
                   " type INTEGER NOT NULL, test INTEGER, location INTEGER, time INTEGER, status INTEGER,"
                   " record BLOB NOT NULL)" % day)
        db.execute("INSERT INTO days SELECT ?, 1 + coalesce(max(turn), 0) FROM days", (day,))
        db.execute("WITH RECURSIVE n (i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i + 1 < %d)"
                   " INSERT INTO results_%s (received, agent, type, test, location, time, status, record)"
                   " SELECT %d, 1 + i / %d %% %d, 66, 1 + i %% %d, 1, %d, 0, zeroblob(32) FROM n"
                   % (rows // DAYS, day, received, TESTS, AGENTS, TESTS, received))
        db.execute("COMMIT")
    db.close()


def make_old(path):
    """The layout of the first version: it does not know where the last results are."""
    db = sqlite3.connect(path, isolation_level=None)
    for column in ("address", "version", "latest"):
        db.execute("ALTER TABLE agents DROP COLUMN " + column)
    db.execute("DROP TABLE days")
    db.execute("DROP TABLE facts")
    db.execute("PRAGMA user_version = 1")
    db.close()


def forget(path):
    with open(path, "rb") as file:
        os.fsync(file.fileno())
        os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)


def timed(command, **more):
    began = time.monotonic()
    done = subprocess.run(command, stdout=subprocess.PIPE, text=True, check=False, timeout=600, **more)
    return time.monotonic() - began, done


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--rows", type=int, default=20000000)
    parser.add_argument("--build", default=whole.BUILD)
    options = parser.parse_args()
    whole.BUILD = options.build
    home = tempfile.mkdtemp(prefix="vindral-bench-", dir="/var/tmp")
    try:
        state = os.path.join(home, "state")
        database = os.path.join(state, "results.db")
        process, _ = whole.start_collector(home)
        whole.end(process)
        began = time.monotonic()
        fill(state, options.rows)
        print("%d rows, %.1f GB, made in %.0f s" % (
            options.rows, os.path.getsize(database) / 1e9, time.monotonic() - began), flush=True)
        plan = os.path.join(home, "plan")
        with open(plan, "w", encoding="utf-8") as file:
            for test in range(1, TESTS + 2):  # one that nobody has
                file.write("LAA\t%d\t1\t8\t6\t4\n" % test)
        collector = [os.path.join(options.build, "vindral-collector"), "--missing", "--plan", plan, "--state-dir", state]
        for more in ([], ["--older-than", "15m"], ["--older-than", "30d"]):
            for cache in ("cold", "warm"):
                if cache == "cold":
                    forget(database)
                took, done = timed(collector + more)
                words = [line.split("\t")[0] for line in done.stdout.splitlines()]
                print("--missing %s, %s: %.3f s; %s" % (" ".join(more), cache, took, ", ".join(
                    "%d %s" % (words.count(word), word) for word in sorted(set(words)))), flush=True)
        forget(database)
        began = time.monotonic()
        process, _ = whole.start_collector(home, options=["--keep-days", "0"])
        print("start of the collector: %.3f s" % (time.monotonic() - began))
        took, done = timed(collector)
        print("--missing beside it: %.3f s" % took)
        whole.end(process)
        make_old(database)
        forget(database)
        began = time.monotonic()
        process, _ = whole.start_collector(home, options=["--keep-days", "0"])
        print("start that renews a database of the first version: %.1f s" % (time.monotonic() - began))
        whole.end(process)
    finally:
        shutil.rmtree(home, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
