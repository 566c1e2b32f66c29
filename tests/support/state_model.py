"""What becomes of agents when results come, when nothing comes, and when they come back: a model of states,
events, ledger and of who is overdue, to compare the collector's with. It was written from what the headers in
collector/state/ say (take.h, watch.h, expected.h, agent_state.h), not from the code behind them, and is to stay
apart from it: a difference is settled by the words.

Everything here is as plain as can be: no bytes, no clock, no limits."""

import collections

UNKNOWN, OK, PROBLEM, STALE, SILENT = range(5)
WORDS = ("unknown", "ok", "problem", "stale", "silent")

SKEW_S = 300
MAX_GAP_S = 31 * 86400

DISCOVERY, PROCESS, MYSQL = 40, 43, 74
INVENTORIES = (39, 42, 45)

# What a record says. `status` as it is judged, parts included; None where nothing is. Records of a type that is not
# known have neither number nor claimed time nor location.
Said = collections.namedtuple("Said", "type number location claimed status message")

# `test` None: of the agent itself.
Change = collections.namedtuple("Change", "test time before after message")


class Test:
    def __init__(self):
        self.now = UNKNOWN
        self.since = 0
        self.received = 0
        self.location = None
        self.time = None  # of the last pass, as reckoned; None: there was none
        self.claimed = None
        self.parts = self.bad = self.before = 0  # records of the last pass, problems of them, records of the one before
        self.overtaken = None  # claimed time of the pass that was overtaken in this call
        self.held = None  # number of the call that brought the pass that may be ok again


def order_of(key):
    return key[0], key[1] is not None, key[1]


def round_half_up(numerator, denominator):
    return (2 * numerator + denominator) // (2 * denominator)


class Agent:
    def __init__(self):
        self.tests = {}  # by (type, number)
        self.silent = False
        self.since = 0
        self.ledger = {}  # hour -> [received, repeated, missing]
        self.calls = 0

    # ---- ledger ----

    def count(self, time, column):
        self.ledger.setdefault(time - time % 3600, [0, 0, 0])[column] += 1

    def count_gap(self, test, said, time, interval):
        if (test.time is None or said.number is None or said.type == DISCOVERY or not interval
                or said.location != test.location):
            return
        distance = time - test.time
        if 2 * distance <= 3 * interval or distance > MAX_GAP_S:
            return
        for place in range(1, round_half_up(distance, interval)):
            self.count(test.time + place * interval, 2)

    # ---- results ----

    def take_results(self, records, arrival, interval, stale_after):
        """Returns the changes."""
        self.calls += 1
        changes = []
        records = [said for said in records if said.type not in INVENTORIES]
        newest = [said.claimed for said in records if said.claimed is not None and said.type != MYSQL]
        late_before = min(max(newest, default=arrival), arrival) - stale_after
        for test in self.tests.values():
            test.overtaken = None
        for said in records:
            key = (said.type, said.number)
            test = self.tests.setdefault(key, Test())
            test.received = arrival
            claimed = arrival if said.claimed is None else said.claimed
            if said.type != MYSQL and test.overtaken == claimed:
                continue
            if said.type == MYSQL or test.claimed != claimed or test.time is None:
                time = reckoned(said, arrival)
                self.settle(key, test, arrival, "", changes)
                if not self.begin_pass(test, said, time, claimed, late_before, interval):
                    continue
                test.back = test.time < test.since or test.back
            test.parts += 1
            test.bad += said.status not in (None, 0)
            self.judge(key, test, arrival, said.message, changes)
        for key in sorted((key for key, test in self.tests.items() if test.held is not None), key=order_of):
            if self.tests[key].held < self.calls:
                self.settle(key, self.tests[key], arrival, "", changes)
        return changes

    def begin_pass(self, test, said, time, claimed, late_before, interval):
        """False when it is overtaken."""
        self.count(time, 0)
        before_last = test.time is not None and time < test.time
        before_state = time < test.since
        if time < late_before and (before_last or before_state):
            test.overtaken = claimed
            if not before_last:
                self.count_gap(test, said, time, interval)
                test.time = time
                test.location = said.location
            return False
        if not before_last:
            self.count_gap(test, said, time, interval)
        test.back = before_last
        test.time, test.claimed, test.location = time, claimed, said.location
        test.before, test.parts, test.bad = test.parts, 0, 0
        return True

    def judge(self, key, test, arrival, message, changes):
        if test.bad:
            test.held = None
            self.change(key, test, PROBLEM, arrival, message, changes)
        elif test.now == PROBLEM and key[0] == PROCESS and test.parts < test.before:
            test.held = self.calls if test.held is None else test.held
        else:
            test.held = None
            self.change(key, test, OK, arrival, message, changes)

    def settle(self, key, test, arrival, message, changes):
        """There are no more records of the pass."""
        if test.held is not None:
            test.held = None
            self.change(key, test, OK, arrival, message, changes)

    @staticmethod
    def change(key, test, after, arrival, message, changes):
        if test.now == after:
            return
        time = arrival if test.back or test.time < test.since else test.time
        changes.append(Change(key, time, test.now, after, message))
        test.now, test.since = after, time

    def take_repetition(self, records, arrival):
        last = {}
        for said in records:
            if said.type in INVENTORIES:
                continue
            key = (said.type, said.number)
            claimed = arrival if said.claimed is None else said.claimed
            if said.type == MYSQL or last.get(key) != claimed:
                self.count(reckoned(said, arrival), 1)
            last[key] = claimed

    # ---- being heard, and not ----

    def worst(self):
        if self.silent:
            return SILENT
        states = {test.now for key, test in self.tests.items() if key[1] is not None}
        return next((s for s in (PROBLEM, STALE, UNKNOWN, OK) if s in states), UNKNOWN)

    def shown(self, test):
        """State and since when, from outside."""
        if not self.silent:
            return test.now, test.since
        return UNKNOWN, self.since if test.now in (OK, PROBLEM) else test.since

    def take_heard(self, time):
        if not self.silent:
            return []
        self.silent, self.since = False, time
        return [Change(None, time, SILENT, self.worst(), "")]

    def take_silence(self, time):
        if self.silent:
            return []
        before, self.silent, self.since = self.worst(), True, time
        return [Change(None, time, before, SILENT, "")]

    def take_stale(self, keys, time):
        changes = []
        for key in keys:
            test = self.tests.get(key)
            if test is not None and test.now != STALE:
                test.held = None
                changes.append(Change(key, time, test.now, STALE, ""))
                test.now, test.since = STALE, time
        return changes


def reckoned(said, arrival):
    if said.claimed is None or said.type == MYSQL or said.claimed - arrival > SKEW_S:
        return arrival
    return said.claimed


class Expected:
    """Times of a clock that never jumps."""

    def __init__(self):
        self.poll = self.check = 60
        self.longer, self.until = None, None
        self.planned = None

    def follow(self, poll, check, planned, now):
        """`planned`: a set of (type, number), or None."""
        self.planned = planned
        if (poll, check) == (self.poll, self.check):
            return
        before = self.at(now)
        self.poll, self.check = poll, check
        self.longer = (max(before[0], poll), max(before[1], check))
        self.until = now + 3 * max(self.longer)

    def at(self, now):
        return self.longer if self.until is not None and now < self.until else (self.poll, self.check)

    def silent_after(self, now):
        return max(60, 3 * self.at(now)[0])

    def stale_after(self, now):
        return max(60, 3 * max(self.at(now)))

    def repeats(self, key):
        return (self.check != 0 and key[1] is not None and key[0] not in INVENTORIES + (DISCOVERY,)
                and (self.planned is None or key in self.planned))


class Watch:
    def __init__(self, now):
        self.since = now
        self.agents = {}  # id -> [heard, back, silent]
        self.tests = {}  # id -> {key: [came, stale]}

    def know(self, agent, silent, now):
        self.agents[agent] = [now, now, silent]
        self.tests[agent] = {}

    def know_test(self, agent, key, stale, now):
        self.tests[agent][key] = [now, stale]

    def heard(self, agent, now):
        if agent not in self.agents:
            self.know(agent, False, now)
            return False
        known = self.agents[agent]
        was_silent = known[2]
        known[0] = now
        if was_silent:
            known[1], known[2] = now, False
        return was_silent

    def came(self, agent, key, now):
        self.tests[agent][key] = [now, False]

    def pause(self, now):
        self.since = now

    def overdue(self, plan, now):
        """Ids of agents that fell silent, and [(agent, keys)] of tests that became stale."""
        silent, stale = [], []
        for agent, known in self.agents.items():
            if known[2]:
                continue
            if now - max(known[0], self.since) > plan.silent_after(now):
                known[2] = True
                silent.append(agent)
                continue
            keys = [key for key, test in self.tests[agent].items()
                    if not test[1] and plan.repeats(key)
                    and now - max(test[0], known[1], self.since) > plan.stale_after(now)]
            for key in keys:
                self.tests[agent][key][1] = True
            if keys:
                stale.append((agent, keys))
        return silent, stale
