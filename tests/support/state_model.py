"""What becomes of agents when results come, when nothing comes, and when they come back: a model of states,
events, ledger and of who is overdue, to compare the collector's with. It was written from what the headers in
collector/state/ say (take.h, watch.h, expected.h, agent_state.h), not from the code behind them, and is to stay
apart from it: a difference is settled by the words.

Everything here is as plain as can be: no bytes, no clock, no limits."""

import collections
import copy

UNKNOWN, OK, PROBLEM, STALE, SILENT = range(5)
WORDS = ("unknown", "ok", "problem", "stale", "silent")

SKEW_S = 300
PASS_S = 2
COARSE_S = 128
MAX_GAP_S = 31 * 86400

DISCOVERY, PROCESS, MYSQL = 40, 43, 74
INVENTORIES = (39, 42, 45)

# What a record says. `status` as it is judged, parts included; None where nothing is. Records of a type that is not
# known have neither number nor claimed time nor location.
Said = collections.namedtuple("Said", "type number location claimed status message pid", defaults=(0,))

# `test` None: of the agent itself.
Change = collections.namedtuple("Change", "test time before after message")


class Test:
    def __init__(self):
        self.now = UNKNOWN
        self.since = 0
        self.received = 0
        self.location = None
        self.last = None  # Pass: of those that count
        self.reached = 0
        self.parts_before = 0
        self.arriving = None  # Pass: the last one of all, also one that was overtaken
        self.held = False  # the last pass may be ok


class Pass:
    def __init__(self, said, arrival):
        self.first = said
        self.claimed = arrival if said.claimed is None else said.claimed
        self.pid = said.pid
        self.time = reckoned(said, arrival)
        self.parts = self.bad = 0
        self.message = ""  # of what came of it in this call
        self.bad_here = 0
        self.is_overtaken = False
        self.call = None  # the last one that brought something of it

    def relation(self, said):
        """Of the next record of the test: "part", "repetition" or "another"."""
        if said.type == MYSQL or said.number is None or said.location != self.first.location:
            return "another"
        if said.type != PROCESS:
            return "part" if said.claimed == self.claimed else "another"
        if said.claimed == self.claimed:
            return "part" if said.pid > self.pid else "repetition"
        is_part = self.claimed < said.claimed <= self.claimed + PASS_S and said.pid > self.pid > 0
        return "part" if is_part else "another"


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
        self.arrival = 0

    # ---- ledger ----

    def count(self, time, column):
        self.ledger.setdefault(time - time % 3600, [0, 0, 0])[column] += 1

    def count_missing(self, test, new, interval):
        if (new.first.number is None or test.now == UNKNOWN or new.first.type == DISCOVERY or not interval
                or new.time <= test.reached
                or new.first.location != test.last.first.location):
            return
        distance = new.claimed - test.last.claimed
        if new.first.type == MYSQL:
            distance -= COARSE_S
        distance = min(distance, new.time - test.reached)
        if 2 * distance <= 3 * interval or distance > MAX_GAP_S or self.arrival - new.time > MAX_GAP_S:
            return
        for place in range(1, round_half_up(distance, interval)):
            self.count(new.time - place * interval, 2)

    # ---- results ----

    def take_results(self, records, arrival, interval, stale_after):
        """Returns the changes; those of a test are in order."""
        self.calls += 1
        self.arrival = arrival
        changes = []
        records = [said for said in records if said.type not in INVENTORIES]
        newest = [said.claimed for said in records if said.claimed is not None and said.type != MYSQL]
        late_before = min(max(newest, default=arrival), arrival) - stale_after
        brought = {}
        for said in records:
            key = (said.type, said.number)
            test = self.tests.setdefault(key, Test())
            test.received = arrival
            relation = test.arriving.relation(said) if test.arriving else "another"
            if relation == "another" and test.arriving is not test.last and test.last.relation(said) != "another":
                relation, test.arriving = test.last.relation(said), test.last
            if relation == "repetition":
                continue
            if relation == "another":
                self.judge(key, test, changes)  # what came of the pass before in this call
                new = Pass(said, arrival)
                new.is_overtaken = test.last is not None and new.time < min(late_before, max(test.reached, test.since))
                if not new.is_overtaken:
                    self.settle(key, test, changes)
                self.begin_pass(test, new, stale_after, interval)
            current = test.arriving
            if relation == "part" and current.time < late_before and current.time < max(test.reached, test.since):
                current.pid = said.pid  # overtaken as far as it comes now
                continue
            self.add_part(test, said)
            brought[key] = test
        for key, test in brought.items():
            self.judge(key, test, changes)
        for key in sorted((key for key, test in self.tests.items() if test.held), key=order_of):
            if self.tests[key].last.call != self.calls:
                self.settle(key, self.tests[key], changes)
        return changes

    def begin_pass(self, test, new, stale_after, interval):
        test.arriving = new
        self.count(new.time, 0)
        if new.is_overtaken:
            test.reached = max(test.reached, new.time)
            return
        if test.last is not None:
            self.count_missing(test, new, interval)
            test.parts_before = test.last.parts
        if test.last is None or new.time > test.reached or test.reached - new.time > stale_after:
            test.reached = new.time
        if new.first.number is None and test.last is None:
            test.since = new.time
        test.last = new
        test.location = new.first.location

    def add_part(self, test, said):
        current = test.arriving
        is_bad = said.status not in (None, 0)
        if current.call != self.calls or is_bad and not current.bad_here:  # the first of the worst
            current.message = said.message
        if current.call != self.calls:
            current.call, current.bad_here = self.calls, 0
        current.bad_here += is_bad
        current.bad += is_bad
        current.parts += 1
        current.pid = said.pid

    def judge(self, key, test, changes):
        """By what came in this call of the test's last pass."""
        current = test.arriving
        if current is None or current.call != self.calls or current.is_overtaken or key[1] is None:
            return
        if current.bad:
            test.held = False
            self.change(key, test, PROBLEM, current.message, changes)
        elif test.now == PROBLEM and key[0] == PROCESS and current.parts < test.parts_before:
            test.held = True
        else:
            test.held = False
            self.change(key, test, OK, current.message, changes)

    def settle(self, key, test, changes):
        """There are no more records of the pass."""
        if test.held:
            test.held = False
            self.change(key, test, OK, "", changes)

    def change(self, key, test, after, message, changes):
        if test.now == after:
            return
        time = test.last.time
        if time < test.since:
            time = not_before(test.since, self.arrival)
        changes.append(Change(key, time, test.now, after, message))
        test.now, test.since = after, time

    def take_repetition(self, records, arrival):
        last = {}
        for said in records:
            if said.type in INVENTORIES:
                continue
            key = (said.type, said.number)
            relation = last[key].relation(said) if key in last else "another"
            if relation == "another":
                last[key] = Pass(said, arrival)
                self.count(last[key].time, 1)
            elif relation == "part":
                last[key].pid = said.pid

    # ---- being heard, and not ----

    def worst(self):
        if self.silent:
            return SILENT
        states = {test.now for key, test in self.tests.items() if key[1] is not None}
        return next((s for s in (PROBLEM, STALE, OK) if s in states), UNKNOWN)

    def shown(self, test):
        """State and since when, from outside."""
        if not self.silent:
            return test.now, test.since
        return UNKNOWN, self.since if test.now in (OK, PROBLEM) else test.since

    def take_heard(self, time):
        if not self.silent:
            return []
        self.silent, self.since = False, not_before(self.since, time)
        return [Change(None, self.since, SILENT, self.worst(), "")]

    def take_silence(self, time):
        if self.silent:
            return []
        before, self.silent, self.since = self.worst(), True, not_before(self.since, time)
        return [Change(None, self.since, before, SILENT, "")]

    def take_stale(self, keys, time):
        return self.take_all(keys, STALE, "", time)

    def take_gone(self, keys, time):
        return self.take_all(keys, UNKNOWN, "no longer planned", time)

    def take_all(self, keys, after, message, time):
        changes = []
        for key in keys:
            test = self.tests.get(key)
            if test is not None and test.now != after:
                test.held = False
                test.since = not_before(test.since, time)
                changes.append(Change(key, test.since, test.now, after, message))
                test.now = after
        return changes


def not_before(since, time):
    """A clock may be that much ahead."""
    return since if 0 < since - time <= SKEW_S else time


def reckoned(said, arrival):
    if said.claimed is None or said.type == MYSQL or said.claimed - arrival > SKEW_S:
        return arrival
    return said.claimed


class Expected:
    """Times of a clock that never jumps."""

    def __init__(self):
        self.poll = self.check = 60
        self.longer, self.until = None, None
        self.plans = []  # (since when, whether tests repeat, set of (type, number) or None), the newest last

    def follow(self, poll, check, planned, now):
        """`planned`: a set of (type, number), or None."""
        is_first = not self.plans
        before = self.at(now)
        self.plans.append((now, check != 0, planned))
        if (poll, check) == (self.poll, self.check):
            return
        self.poll, self.check = poll, check
        if not is_first:
            self.longer = (max(before[0], poll), max(before[1], check))
            self.until = now + 3 * max(self.longer)

    def at(self, now):
        return self.longer if self.until is not None and now < self.until else (self.poll, self.check)

    def silent_after(self, now):
        return max(60, 3 * self.at(now)[0])

    def stale_after(self, now):
        return max(60, 3 * max(self.at(now)))

    def repeats_since(self, key):
        """None: it does not."""
        if key[1] is None or key[0] == DISCOVERY:
            return None
        since = None
        for begun, repeat, planned in reversed(self.plans):
            if not repeat or planned is not None and key not in planned:
                return since
            since = begun
        return -1 << 63


    def has_plan(self):
        return bool(self.plans) and self.plans[-1][2] is not None

    def has_ended(self, key):
        return self.has_plan() and key[0] != DISCOVERY and key not in self.plans[-1][2]


class Expectations:
    """Where agents have plans of their own: the first one changes what all others are told."""

    def __init__(self):
        self.others = Expected()
        self.own = {}

    def of(self, agent):
        return self.own.get(agent, self.others)

    def follow_own(self, agent, poll, check, planned, now):
        if agent not in self.own:
            self.own[agent] = copy.deepcopy(self.others)
        self.own[agent].follow(poll, check, planned, now)


AWAITED, IS_STALE, GONE = range(3)


class Watch:
    def __init__(self, now):
        self.since = now
        self.agents = {}  # id -> [heard, back, silent]
        self.tests = {}  # id -> {key: [came, AWAITED or what it is]}

    def know(self, agent, silent, now):
        self.agents[agent] = [now, now, silent]
        self.tests[agent] = {}

    def know_test(self, agent, key, state, now):
        self.tests[agent][key] = [now, {STALE: IS_STALE, UNKNOWN: GONE}.get(state, AWAITED)]

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
        self.tests[agent][key] = [now, AWAITED]

    def pause(self, now):
        self.since = now

    def overdue(self, plan_of, now):
        """`plan_of` an agent: its Expected. Ids of agents that fell silent, [(agent, keys)] of tests that became stale, and of those that are gone."""
        silent, stale, gone = [], [], []
        for agent, known in self.agents.items():
            if known[2]:
                continue
            plan = plan_of(agent)
            if now - max(known[0], self.since) > plan.silent_after(now):
                known[2] = True
                silent.append(agent)
                continue
            if now - max(known[0], self.since) > plan.silent_after(now) // 2:
                continue  # it is about to be silent: nothing is held against its tests
            for becomes, found in ((IS_STALE, stale), (GONE, gone)):
                keys = [key for key, test in self.tests[agent].items()
                        if self.may_become(plan, key, test[1]) == becomes
                        and now - max(test[0], known[1], self.since, self.counts_from(plan, key, becomes))
                        > plan.stale_after(now)]
                for key in keys:
                    self.tests[agent][key][1] = becomes
                if keys:
                    found.append((agent, keys))
        return silent, stale, gone

    @staticmethod
    def may_become(plan, key, now):
        """When nothing comes of a test for long enough; None: it stays what it is."""
        if plan.has_ended(key):
            return GONE if now != GONE else None
        if plan.repeats_since(key) is None or now == IS_STALE or (now == GONE and not plan.has_plan()):
            return None
        return IS_STALE

    @staticmethod
    def counts_from(plan, key, becomes):
        return plan.repeats_since(key) if becomes == IS_STALE else -1 << 63
