"""Histories of agents that a collector hears of, made up from a seed: agents that measure and poll, networks,
hosts and collectors that are away for a while, answers that are lost, clocks that jump, tests that come, go, move
and hang. Each step goes to a model (state_model.py) and, as a line, to the program that is compared with it
(tests/collector/state_driver.cpp tells what the lines are)."""

import collections
import heapq
import random
import struct

import state_model
from state_model import Said

EPOCH = 1767225600  # 2026-01-01


# ---- records ----

def encode(ui32, i64=(), d64=(), strings=(), nested=(), declared=None):
    text = b"".join(s.encode() + b"\0" for s in strings if s)
    body = struct.pack("<%dI%dq%dd" % (len(ui32), len(i64), len(d64)), *ui32, *i64, *d64) + text + b"".join(nested)
    return struct.pack("<8I", 32 + len(body), 0, len(ui32), len(i64), 0, len(d64),
                       len(strings) if declared is None else declared, len(nested)) + body


# What a pass of a test looks like: a list of (bytes before the time, bytes behind it, Said without a time).
def halves(ui32, d64=(), strings=(), nested=(), said=None):
    whole = encode(ui32, (0x7171717171717171,), d64, strings, nested)
    before, behind = whole.split(struct.pack("<q", 0x7171717171717171))
    return before, behind, said


def load(number, location, status, dice):
    text = "Load Average 1 min value: 2.00 / Max value: 2\n" if status else "Load Average values are within acceptable limits"
    return [halves((66, number, location, status), (dice.random(), 1, 0.5), (text,),
                   said=(66, number, location, status, text))]


def disk(number, location, status, dice):
    text = "The directory is not there" if status else "Free space is within acceptable limits"
    return [halves((46, number, location, status and 3), (100, dice.randrange(100)), (text,),
                   said=(46, number, location, status and 3, text))]


def cpu(number, location, status, dice):
    one = encode((status, ), d64=(1, 2, 3, 90, 4), strings=("part",))
    return [halves((44, number, location, status and 10), (1, 2, 3, 90, dice.randrange(9)), ("",), (one, one),
                   said=(44, number, location, status and 10, ""))]


def process(number, location, status, dice):
    count = dice.choice((1, 1, 2, 3, 3, 3, 4))
    if status and dice.random() < 0.3:
        text = "The process is not running"
        return [halves((43, number, location, 0, 3), (0, 0, 0), (text,), said=(43, number, location, 3, text, 0))]
    found = []
    bad = dice.randrange(count) if status else None
    for n in range(count):
        text = "Current CPU usage: 91.25%% / Max value: %d" % n if n == bad else ""
        one = 2 if n == bad else 0
        found.append(halves((43, number, location, 100 + n, one), (1.5, 20, 30), (text,),
                            said=(43, number, location, one, text, 100 + n)))
    return found


def ping(number, location, status, dice):
    text = "Number of lost packages: 2 / Max value: 1" if status else "ICMP echo results are within acceptable limits"
    return [halves((48, number, location, status, status), (dice.random(),), (text,),
                   said=(48, number, location, status, text))]


def snmp(number, location, status, dice):
    bad = dice.randrange(4) if status else 0  # 0: what failed is the exchange
    parts = [encode((9, 2 if n < bad else 0), strings=(str(n), "object %d is out of limits" % n if n < bad else "fine"))
             for n in range(3)]
    text = "New results are available."
    reason, judged = text, 0
    if status and not bad:
        reason = text = "No answer"
        judged, parts = 3, []
    elif bad:
        judged, reason = 2, "object 0 is out of limits"
        if bad > 1:
            reason += " (and %d more)" % (bad - 1)
    return [halves((57, number, location, 3 if judged == 3 else 0, 3), (1.5,), (text,), parts,
                   said=(57, number, location, judged, reason))]


def mysql(number, location, status, dice):
    text = "threads - 9: NOK;" if status else ""
    return [halves((74, number, location, status, dice.randrange(50)), (), ("threads|9|%d;" % status, text),
                   said=(74, number, location, status, text))]


def discovery(number, location, status, dice):
    address = "192.0.2.%d" % dice.randrange(1, 255)
    one = halves((40, number, location), (0,), (address, "N/A", "N/A", "N/A", "N/A"),
                 said=(40, number, location, None, address))
    return [one] * (1 + status) + [halves((40, number, location), (0,), ("finished",),
                                          said=(40, number, location, None, "finished"))]


MAKERS = {66: load, 46: disk, 44: cpu, 43: process, 48: ping, 57: snmp, 74: mysql, 40: discovery}


class Dice(random.Random):
    def __init__(self, seed):
        super().__init__(seed)
        self.passes = {}  # that were made, some of each kind: making one takes its time


def one_pass(kind, number, location, bad, dice):
    choices = dice.passes.setdefault((kind, number, location, bad), [])
    if len(choices) < 6:
        choices.append(MAKERS[kind](number, location, 2 if bad else 0, dice))
        return choices[-1]
    return dice.choice(choices)


def dated(halves_of, claimed):
    """Bytes and Said of a pass at a time."""
    stamp = struct.pack("<q", claimed)
    return [(before + stamp + behind, Said(said[0], said[1], said[2], claimed, *said[3:]))
            for before, behind, said in halves_of]


def inventory(kind, claimed):
    return encode((kind, 0, 0), (claimed,), strings=("a\tb\t",)), Said(kind, None, None, claimed, None, "")


def of_unknown_type(dice):
    kind = dice.choice((99, 1000))
    return encode((kind, 5, 6, 7), (8,), (9,), ("?",)), Said(kind, None, None, None, None, "")


def too_short():
    """A load average that lacks its status."""
    return encode((66, 1, 1), (EPOCH,), (1, 2, 3), ("?",)), Said(66, None, None, None, None, "")


# ---- agents ----

class Test:
    def __init__(self, kind, number, dice):
        self.kind, self.number = kind, number
        self.location = dice.randrange(1, 1000)
        self.bad = False
        self.hangs_until = 0  # its results come after that, or never
        self.withheld = None  # those that come later

    def measure(self, claimed, dice):
        if dice.random() < (0.3 if self.bad else 0.03):
            self.bad = not self.bad
        if self.kind == state_model.MYSQL:
            claimed = (claimed + 64) // 128 * 128
        found = one_pass(self.kind, self.number, self.location, self.bad, dice)
        if self.kind == state_model.PROCESS and len(found) > 1 and dice.random() < 0.1:  # it takes its time
            turn = dice.randrange(1, len(found))
            return dated(found[:turn], claimed) + dated(found[turn:], claimed + dice.choice((1, 1, 2)))
        return dated(found, claimed)


class Agent:
    def __init__(self, number, dice):
        self.number = number
        self.tests = []
        self.next_number = 1
        self.clock = dice.choice((0, 0, 0, -2, 3, -100, 250))  # how far ahead it is
        self.cache, self.rest = [], []  # records that wait; of them those of passes under way
        self.block, self.was_sent = None, False  # one that was not accepted, and whether it was stored all the same
        self.off_until = self.unreachable_until = 0
        self.lives = 0
        self.poll_every = self.check_every = None  # as all others, until it has a plan of its own
        for _ in range(dice.randrange(2, 7)):
            self.add_test(dice)

    def add_test(self, dice):
        kind = dice.choice((66, 66, 46, 44, 43, 43, 43, 48, 57, 57, 74))
        self.tests.append(Test(kind, self.next_number, dice))
        self.next_number += 1


class History:
    """`lines` takes each line of the history (bytes, with those of the blocks), `changes` each line that is to
    come of it."""

    def __init__(self, seed, agents, days, interval, lines, changes):
        self.dice = Dice(seed)
        self.lines, self.changes = lines, changes
        self.line_number = 0
        self.interval = interval
        self.poll_every = self.check_every = interval
        self.end = 1000 + days * 86400
        self.clock_of_server = EPOCH
        self.down_until = self.full_until = 0
        self.plans, self.watch = state_model.Expectations(), state_model.Watch(0)
        self.states = {}
        self.agents = [Agent(n, self.dice) for n in range(1, agents + 1)]
        self.did = collections.Counter()
        self.queue, self.order = [], 0
        self.at(0, self.start)
        self.at(1, self.follow)
        self.at(self.dice.randrange(2, 86400), self.follow_some_own)
        for agent in self.agents:
            self.at(1000 + self.dice.randrange(interval), self.check, agent, 0)
            self.at(1000 + self.dice.randrange(interval), self.poll, agent, 0)
            self.at(1000 + self.dice.randrange(86400), self.mishap, agent)
        self.at(1000, self.look)
        self.at(1000 + self.dice.randrange(3 * 86400), self.server_mishap)

    def at(self, time, do, *arguments):
        self.order += 1
        heapq.heappush(self.queue, (time, self.order, do, arguments))

    def run(self, until):
        """False at the end."""
        while self.queue and self.queue[0][0] < min(until, self.end):
            now, _, do, arguments = heapq.heappop(self.queue)
            do(now, *arguments)
        return until < self.end

    # ---- what the collector is told ----

    def line(self, text, more=b""):
        self.line_number += 1
        self.lines(text.encode() + b"\n" + more)

    def expect(self, agent, changes):
        for test, time, before, after, message in changes:
            self.did["%s to %s" % (state_model.WORDS[before], state_model.WORDS[after])] += 1
            self.changes("%d %d %s %d %s %s %s" % (
                self.line_number, agent, key_text(test), time, state_model.WORDS[before],
                state_model.WORDS[after], message.replace("\n", "|")))

    def follow(self, now):
        self.did["plan"] += 1
        planned = None
        if self.dice.random() < 0.5:
            planned = {(kind, number) for kind in MAKERS for number in range(1, 30) if self.dice.random() < 0.8}
            for test in [test for agent in self.agents for test in agent.tests]:
                if (test.kind, test.number) not in planned and self.dice.random() < 0.7:
                    self.did["taken out"] += 1
                    test.hangs_until = now + 3 * self.for_a_while()  # its agent does as it is told
        self.plans.others.follow(self.poll_every, self.check_every, planned, now)
        self.line("follow " + plan_text(now, self.poll_every, self.check_every, planned))

    def follow_some_own(self, now):
        for agent in self.dice.sample(self.agents, self.dice.randrange(1, len(self.agents) // 2)):
            self.follow_own(now, agent)

    def follow_own(self, now, agent):
        self.did["own plan"] += 1
        dice = self.dice
        if agent.poll_every is None or dice.random() < 0.5:
            agent.poll_every, agent.check_every = self.other_intervals()
        planned = None
        if dice.random() < 0.9:
            planned = {(test.kind, test.number) for test in agent.tests if dice.random() < 0.9}
            planned |= {(66, number) for number in range(1, 4) if dice.random() < 0.3}
            for test in agent.tests:
                if (test.kind, test.number) not in planned and dice.random() < 0.7:
                    self.did["taken out"] += 1
                    test.hangs_until = now + 3 * self.for_a_while()
        self.plans.follow_own(agent.number, agent.poll_every, agent.check_every, planned, now)
        self.line("own %d " % agent.number + plan_text(now, agent.poll_every, agent.check_every, planned))

    def other_intervals(self):
        dice = self.dice
        poll = self.interval * dice.choice((1, 1, 2)) // dice.choice((1, 1, 3))
        check = self.interval * dice.choice((1, 1, 1, 3)) // dice.choice((1, 1, 2))
        return poll, check if dice.random() > 0.1 else 0

    def start(self, now):
        self.did["start"] += 1
        self.watch = state_model.Watch(now)
        for number, state in self.states.items():
            self.watch.know(number, state.silent, now)
            for key, test in state.tests.items():
                if key[1] is not None:
                    self.watch.know_test(number, key, test.now, now)
        self.line("start %d" % now)

    def look(self, now):
        self.at(now + self.dice.randrange(1, self.interval // 2), self.look)
        if now < self.down_until:
            return
        self.line("look %d %d %d" % (now, self.clock_of_server + now, self.dice.choice((1, 3, 1000))))
        time = self.clock_of_server + now
        silent, stale, gone = self.watch.overdue(self.plans.of, now)
        for number in silent:
            self.expect(number, self.states[number].take_silence(time))
        for number, keys in stale:
            self.expect(number, self.states[number].take_stale(sorted(keys), time))
        for number, keys in gone:
            self.expect(number, self.states[number].take_gone(sorted(keys), time))

    def show(self):
        self.line("show")
        for number, state in sorted(self.states.items()):
            self.changes("agent %d %s since %d" % (number, state_model.WORDS[state.worst()], state.since))
            for key in sorted(state.tests, key=state_model.order_of):
                test = state.tests[key]
                shown = state.shown(test)
                self.changes("test %d %s %s since %d time %d reached %d received %d location %d shown %s since %d" % (
                    number, key_text(key), state_model.WORDS[test.now], test.since, test.last.time, test.reached,
                    test.received, -1 if test.location is None else test.location, state_model.WORDS[shown[0]],
                    shown[1]))
            for hour in sorted(state.ledger):
                self.changes("hour %d %d %d %d %d" % (number, hour, *state.ledger[hour]))

    def totals(self):
        return [sum(column) for column in zip(*(hour for state in self.states.values()
                                                for hour in state.ledger.values()))]

    # ---- what happens ----

    def check(self, now, agent, life):
        if life != agent.lives:
            return
        every = self.check_every if agent.check_every is None else agent.check_every
        self.at(now + (every or self.interval), self.check, agent, life)
        dice = self.dice
        claimed = EPOCH + now + agent.clock
        agent.cache += agent.rest
        agent.rest = []
        for test in agent.tests:
            if test.hangs_until > now:
                if test.withheld is not None:
                    test.withheld += test.measure(claimed, dice)
                continue
            if test.withheld:
                agent.cache += test.withheld
            test.withheld = None
            found = test.measure(claimed, dice)
            if len(found) > 1 and dice.random() < 0.3:
                self.did["pass over two blocks"] += 1
                first = dice.randrange(1, len(found))
                agent.rest += found[first:]
                found = found[:first]
            agent.cache += found
        if dice.random() < 0.02:
            agent.cache.append(of_unknown_type(dice) if dice.random() < 0.7 else too_short())
        if dice.random() < 0.002:
            agent.cache += dated(one_pass(state_model.DISCOVERY, 500, 1, dice.random() < 0.5, dice), claimed)
        if dice.random() < 0.1:
            agent.cache.append(inventory(dice.choice(state_model.INVENTORIES), claimed))

    def poll(self, now, agent, life):
        if life != agent.lives:
            return
        dice = self.dice
        if agent.block is None and agent.cache:
            agent.block, agent.was_sent = agent.cache, False
            agent.cache, agent.rest = agent.rest, []
        next_poll = now + (agent.poll_every or self.poll_every)
        if now >= max(agent.unreachable_until, self.down_until) and dice.random() > 0.002:
            was_late = self.deliver(now, agent)
            if was_late:
                next_poll = min(next_poll, now + dice.randrange(1, 5))
        self.at(next_poll, self.poll, agent, life)

    def deliver(self, now, agent):
        """True when more waits."""
        dice = self.dice
        time = self.clock_of_server + now
        state = self.states.setdefault(agent.number, None)
        if state is None:
            state = self.states[agent.number] = state_model.Agent()
        if agent.block is None or now < self.full_until:
            self.did["heard"] += 1
            self.line("heard %d %d %d" % (now, time, agent.number))
            self.hear(now, time, agent.number)
            return False
        plain = b"".join(raw for raw, _ in agent.block)
        said = [said for _, said in agent.block]
        if agent.was_sent:
            self.did["again"] += 1
            self.line("again %d %d %d %d" % (now, time, agent.number, len(plain)), plain)
            self.hear(now, time, agent.number)
            state.take_repetition(said, time)
        else:
            places = [0, len(said)]
            plan = self.plans.of(agent.number)
            if len(said) > 1 and dice.random() < 0.02:
                self.did["slices"] += 1
                places.insert(1, dice.randrange(1, len(said)))
            for begin, end in zip(places, places[1:]):
                plain = b"".join(raw for raw, _ in agent.block[begin:end])
                self.line("block %d %d %d %d %d" % (now, time, agent.number, len(plain), begin == 0), plain)
                if begin == 0:
                    self.hear(now, time, agent.number)
                self.expect(agent.number, state.take_results(
                    said[begin:end], time, plan.at(now)[1], plan.stale_after(now)))
                for each in said[begin:end]:
                    if each.number is not None and each.type not in state_model.INVENTORIES:
                        self.watch.came(agent.number, (each.type, each.number), now)
        if dice.random() < 0.01:
            agent.was_sent = True
            return False
        agent.block = None
        return len(agent.cache) > 20

    def hear(self, now, time, number):
        if self.watch.heard(number, now):
            self.expect(number, self.states[number].take_heard(time))

    def for_a_while(self):
        """Seconds: some intervals, at times hours or days."""
        longest = self.dice.choice((3, 6, 12, 12, 50, 200))
        return int(self.interval * self.dice.uniform(0.5, longest))

    def mishap(self, now, agent):
        dice = self.dice
        self.at(now + int(dice.expovariate(1 / (80.0 * self.interval))) + 1, self.mishap, agent)
        test = dice.choice(agent.tests)
        what = dice.choice(("network", "network", "restart", "off", "clock", "clock back", "clock right", "clock right",
                            "add", "move", "remove", "hang", "hang", "late"))
        self.did[what] += 1
        if what == "network":
            agent.unreachable_until = now + self.for_a_while()
        elif what == "restart" or what == "off":
            away = 5 if what == "restart" else self.for_a_while() * dice.choice((1, 1, 1, 1, 30))
            agent.cache, agent.rest, agent.block = [], [], None
            agent.lives += 1
            self.at(now + away, self.check, agent, agent.lives)
            self.at(now + away + dice.randrange(60), self.poll, agent, agent.lives)
        elif what == "clock":
            agent.clock += dice.choice((1, 7, 200, 400, 4000, 90000, 40 * 86400))
        elif what == "clock back":
            agent.clock -= dice.choice((1, 7, 200, 400, 4000, 90000, 40 * 86400))
        elif what == "clock right":
            agent.clock = 0
        elif what == "add" and len(agent.tests) < 9:
            agent.add_test(dice)
        elif what == "move":
            test.location += 1
        elif what == "remove" and len(agent.tests) > 2:
            agent.tests.remove(test)
        elif what == "hang":
            test.hangs_until = now + self.for_a_while()
        elif what == "late":
            test.hangs_until = now + self.for_a_while()
            test.withheld = []

    def server_mishap(self, now):
        dice = self.dice
        self.at(now + int(dice.expovariate(1 / (150.0 * self.interval))) + 1, self.server_mishap)
        what = dice.choice(("outage", "outage", "quick restart", "disk full", "pause", "server clock", "plan", "plan",
                            "own plans", "own plans"))
        if now < self.down_until:
            return
        self.did[what] += 1
        if what in ("outage", "quick restart"):
            self.down_until = now + (self.for_a_while() if what == "outage" else 2)
            self.at(self.down_until, self.start)
        elif what == "disk full":
            self.full_until = now + self.for_a_while()
            self.full(now)
        elif what == "pause":
            self.pause(now)
        elif what == "server clock":
            self.clock_of_server = EPOCH + dice.choice((0, 0, 2, 400, -400, 5000, -5000))
        elif what == "plan":
            self.poll_every, self.check_every = self.other_intervals()
            self.follow(now)
        elif what == "own plans":
            self.follow_some_own(now)

    def full(self, now):
        """While nothing can be stored, each attempt says so."""
        if now < self.full_until:
            self.pause(now)
            self.at(min(now + self.interval // 2, self.full_until), self.full)
        else:
            self.pause(now)

    def pause(self, now):
        if now >= self.down_until:
            self.watch.pause(now)
            self.line("pause %d" % now)


def plan_text(now, poll, check, planned):
    return "%d %d %d %d%s" % (now, poll, check, planned is not None,
                              "".join(" %d/%d" % test for test in sorted(planned or ())))


def key_text(key):
    return "agent" if key is None else "%d/%s" % (key[0], "-" if key[1] is None else key[1])
