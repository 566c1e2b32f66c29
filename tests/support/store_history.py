"""Some days of a few agents for tests/collector/store_driver.cpp, which stores them within a second; and a
database as the version before left it."""

import hashlib
import os
import sqlite3
import struct
import time

import histories
import state_model

HOUR_S, DAY_S = 3600, 86400
FIRST_DAY = histories.EPOCH // DAY_S
CHECK_S = 1800  # store_driver's plan
STALE_S = 9 * DAY_S
LAYOUT_2 = """
PRAGMA journal_mode = WAL;
CREATE TABLE agents (id INTEGER PRIMARY KEY, account TEXT NOT NULL, name TEXT NOT NULL, first_seen INTEGER NOT NULL,
  last_seen INTEGER NOT NULL, last_block BLOB NOT NULL, address TEXT NOT NULL DEFAULT '',
  version TEXT NOT NULL DEFAULT '', latest BLOB NOT NULL DEFAULT x'', UNIQUE (account, name));
CREATE TABLE days (day TEXT PRIMARY KEY, turn INTEGER NOT NULL);
CREATE TABLE facts (name TEXT PRIMARY KEY, value INTEGER NOT NULL);
CREATE TABLE undecodable (id INTEGER PRIMARY KEY, received INTEGER NOT NULL, agent INTEGER NOT NULL,
  offset INTEGER NOT NULL, bytes INTEGER NOT NULL, reason TEXT NOT NULL, kept_as TEXT NOT NULL);
PRAGMA application_id = 0x564e4443;
PRAGMA user_version = 2;
"""


class Agent:
    def __init__(self, number, dice):
        self.number = number
        self.tests = [histories.Test(kind, place + 1, dice) for place, kind in enumerate((66, 43, 57, 74))]
        self.clock = (0, 200, -4000)[number % 3]
        self.cache = []
        self.measured = None
        self.items = 0
        self.away = None

    def measure(self, until, dice):
        at = until - CHECK_S if self.measured is None else self.measured
        while at + CHECK_S <= until:
            at += CHECK_S
            for test in self.tests:
                found = test.measure(at + self.clock, dice)
                # Where a pass goes on in the next block.
                self.cache += found[:1] if at + CHECK_S > until and dice.random() < 0.3 else found
        self.measured = at
        if dice.random() < 0.1:
            self.cache.append(histories.of_unknown_type(dice))
        self.items += dice.random() < 0.2
        record = histories.encode((42, 0, 0), (at,), strings=("a\tb%d\t" % self.items,))
        self.cache.append((record, state_model.Said(42, None, None, at, None, "")))


class History:
    """`lines` is the history; `blocks`, by number of their lines, what they are: (agent, arrival, what is said)."""

    def __init__(self, seed, agents=3, days=6, keep=(4, 5, 6, 6, 8), first_hour=0):
        dice = histories.Dice(seed)
        self.blocks = {}
        self.steps = []
        self.step("keep %d %d %d %d %d" % keep)
        hosts = [Agent(n, dice) for n in range(1, agents + 1)]
        hosts[1].away = (2 * DAY_S + 12 * HOUR_S, 3 * DAY_S + 20 * HOUR_S)
        start = histories.EPOCH + 20 * 60
        for hour in range(first_hour, 24 * days):
            now = start + hour * HOUR_S
            self.step("clock %d" % now)
            for host in hosts:
                host.measure(now, dice)
                if host.away and host.away[0] <= now - histories.EPOCH < host.away[1] or dice.random() < 0.03:
                    continue
                plain = b"".join(raw for raw, _ in host.cache)
                if dice.random() < 0.02:
                    plain += b"\5\0\0\0no record"
                self.blocks[len(self.steps)] = host.number, now, [said for _, said in host.cache]
                self.step("block %d %d" % (host.number, len(plain)), plain)
                host.cache = []
            if hour % 24 == 0 and hour > first_hour:
                self.step("settle %d" % (now // DAY_S - 1))
        # What is old goes by and by, a day an hour at most; this agent has the store look at its clock.
        end = start + days * DAY_S
        for now in range(end, end + 60 * HOUR_S, HOUR_S):
            self.step("clock %d" % now)
            plain = histories.inventory(45, now)[0]
            self.step("block 9 %d" % len(plain), plain)
        self.step("settle %d" % (now // DAY_S - 1))
        self.step("quiet 3")
        self.kept_from = {"five": now // DAY_S - keep[1], "hour": now // DAY_S - keep[2]}

    def is_kept(self, line):
        """Whether a line that store_driver shows must be there: roll-ups that are older may be gone or not."""
        words = line.split(" ")
        return words[0] not in self.kept_from or int(words[3]) >= self.kept_from[words[0]]

    def step(self, text, more=b""):
        self.steps.append(text.encode() + b"\n" + more)

    def write(self, path):
        with open(path, "wb") as file:
            file.write(b"".join(self.steps))

    def expected(self):
        """Events and the ledger, as store_driver shows them, but for what was repeated."""
        agents, events = {}, []
        for number, now, said in self.blocks.values():
            agent = agents.setdefault(number, state_model.Agent())
            for change in agent.take_results(said, now, CHECK_S, STALE_S):
                events.append("event agent%d %s %d %d %d %s" % (
                    number, histories.key_text(change.test), change.time, change.before, change.after,
                    change.message.replace("\n", "|")))
        ledger = ["ledger agent%d %d %d %d" % (number, hour, counts[0], counts[2])
                  for number, agent in agents.items() for hour, counts in agent.ledger.items()]
        return sorted(events), sorted(ledger)


def make_earlier(directory, seed, agents=3, hours=60):
    """A database of the version before, of the hours before FIRST_DAY. Returns the number of results, inventories
    not counted."""
    dice = histories.Dice(seed)
    os.makedirs(directory, mode=0o700, exist_ok=True)
    db = sqlite3.connect(os.path.join(directory, "results.db"))
    db.executescript(LAYOUT_2)
    hosts = [Agent(n, dice) for n in range(1, agents + 1)]
    turns, count = {}, 0
    for host in hosts:
        db.execute("INSERT INTO agents (id, account, name, first_seen, last_seen, last_block, address, version)"
                   " VALUES (?, 'torture@example.org', ?, 1, 2, x'', '192.0.2.1', '3.0')",
                   (host.number, "agent%d" % host.number))
    for hour in range(-hours, 0):
        now = histories.EPOCH + hour * HOUR_S
        day = time.strftime("%Y%m%d", time.gmtime(now))
        if day not in turns:
            turns[day] = len(turns) + 1
            db.execute("CREATE TABLE results_%s (id INTEGER PRIMARY KEY, received INTEGER NOT NULL, agent INTEGER NOT NULL,"
                       " type INTEGER NOT NULL, test INTEGER, location INTEGER, time INTEGER, status INTEGER,"
                       " record BLOB NOT NULL)" % day)
            db.execute("INSERT INTO days VALUES (?, ?)", (day, turns[day]))
        for host in hosts:
            host.measure(now, dice)
            for raw, said in host.cache:
                count += said.type not in state_model.INVENTORIES
                db.execute("INSERT INTO results_%s (received, agent, type, test, location, time, status, record)"
                           " VALUES (?, ?, ?, ?, ?, ?, ?, ?)" % day,
                           (now, host.number, said.type, said.number, said.location, said.claimed, said.status, raw))
            db.execute("UPDATE agents SET last_seen = ?, last_block = ? WHERE id = ?",
                       (now, hashlib.sha256(struct.pack("<q", now)).digest(), host.number))
            host.cache = []
    db.commit()
    db.close()
    return count
