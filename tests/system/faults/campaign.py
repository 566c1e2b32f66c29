#!/usr/bin/env python3
"""Kills agents and collectors at random moments, under load, and starts them again.

    tests/system/faults/campaign.py --kills 1000 --seed 1

In each of several worlds a collector serves three agents that check and poll all the time: one that is
never killed, one behind a proxy that sees what it sends, and one that is a new agent after each kill.
Agents are ended by SIGKILL, SIGTERM (which they do not handle) and SIGHUP (their orderly end),
collectors by SIGKILL, also while they start, and by SIGTERM; SIGHUP makes these read their plan.

Expected: the database is whole; no record is stored twice; none is lost but what a killed agent still
had in memory; the agent that is never killed has as many descriptors and threads as before; what is
told to end ends; nothing is left running and no PID file is left locked.

The same seed makes the same decisions; the moments depend on the machine as well."""

import argparse
import collections
import fcntl
import os
import random
import re
import signal
import threading
import time

import accounts
import harness

SETTLED = 3  # results of the witness after which its descriptors and threads are counted


class World:
    PLAN = [*accounts.PLAN, *("LAA\t%d\t1\t-1\t-1\t-1" % test for test in range(3, 20)),
            "CUA\t31\t1\t-1\t-1\t-1\t-1\t-1", "MMA\t32\t1\t-1\t-1\t-1\t-1\t-1",
            "PRA\t33\t1\t-1\t-1\t-1\tpython3", "DKA\t34\t1\t/\t1"]

    def __init__(self, test, name, chance, wrap):
        self.test, self.name, self.chance, self.wrap = test, name, chance, wrap
        self.collector = harness.Collector(test, *self.PLAN, name=name + "-collector").start()
        self.proxy = accounts.Proxy(test, self.collector)
        self.pid_file = os.path.join(self.collector.dir, "fresh.pid")
        self.done = collections.Counter()
        self.ended = []  # the fresh agents that are no more: (agent, whether it was killed)
        self.lives = 0
        self.witness = self.agent("witness").start()
        self.watched = self.start_watched(self.agent("watched", self.proxy.port))
        self.fresh = self.start_fresh()

    def agent(self, name, port=None, **settings):
        return harness.Agent(self.test, port or self.collector.port, name=self.name + "-" + name,
                             wrap=self.wrap, **settings)

    def start_watched(self, agent):
        """Its path tells the lives of this agent apart; to the collector it means nothing."""
        self.lives += 1
        agent.settings["USEHOST"] = "https://127.0.0.1:%d/%d" % (self.proxy.port, self.lives)
        return agent.start()

    def start_fresh(self):
        """All have one PID file: the file that a killed one leaves is no hindrance."""
        agent = self.agent("fresh%d" % len(self.ended), PIDFILE=self.pid_file)
        agent.pid_path = self.pid_file
        return agent.start()

    def stored_bytes(self):
        return os.path.getsize(os.path.join(self.collector.dir, "output"))

    def run(self, kills):
        harness.wait_until(lambda: self.stored(self.witness) >= SETTLED, self.state)
        before = self.usage()
        while sum(self.done.values()) - self.done["collector SIGHUP"] < kills:
            stored = self.stored_bytes()
            if self.chance.random() < 0.7:
                harness.wait_until(lambda: self.stored_bytes() > stored, self.state)
            time.sleep(self.chance.uniform(0, 1.1))
            victim, how = self.chance.choice([
                (self.end_collector, signal.SIGKILL), (self.end_collector, signal.SIGTERM),
                (self.end_collector, signal.SIGHUP),
                (self.end_watched, signal.SIGKILL), (self.end_watched, signal.SIGTERM),
                (self.end_watched, signal.SIGHUP),
                (self.end_fresh, signal.SIGKILL), (self.end_fresh, signal.SIGTERM),
                (self.end_fresh, signal.SIGHUP)])
            victim(how)
            self.done["%s %s" % (victim.__name__[4:], how.name)] += 1
        for _ in range(2):
            stored = self.stored(self.witness)
            harness.wait_until(lambda: self.stored(self.witness) > stored + 1, self.state)
        harness.wait_until(lambda: self.usage() == before,
                           lambda: "%s files, %s threads; before %s" % (*self.usage(), before))
        self.close()

    def state(self):
        return "%s: %s\n%s" % (self.name, dict(self.done), self.witness.log()[-1500:])

    def stored(self, agent):
        """How many blocks were accepted, by the agent's log."""
        return len(accounts.by_log(agent.log())[0])

    def usage(self):
        """The witness' files, but for its connections, and its threads."""
        pid = self.witness.process.pid
        files = [re.sub(r"\[\d+\]", "", name) for name in harness.open_files(pid).values()
                 if not name.startswith(("socket:", "/proc"))]
        return sorted(files), len(os.listdir("/proc/%d/task" % pid))

    def end_collector(self, how):
        process = self.collector.process
        if how == signal.SIGHUP:
            process.send_signal(how)
            return
        if how == signal.SIGTERM:
            self.collector.stop()
        else:
            self.collector.kill()
            if self.chance.random() < 0.3:
                self.collector.launch()
                time.sleep(self.chance.uniform(0, 0.05))
                self.collector.kill()
                self.done["collector SIGKILL"] += 1
        self.collector.start()

    def end_agent(self, agent, how):
        agent.process.send(how)
        if how == signal.SIGHUP:
            agent.check_end()
        else:
            self.test.assertEqual(agent.process.wait(), -how)

    def end_watched(self, how):
        self.end_agent(self.watched, how)
        self.start_watched(self.watched)

    def end_fresh(self, how):
        self.end_agent(self.fresh, how)
        self.ended.append((self.fresh, how != signal.SIGHUP))
        self.fresh = self.start_fresh()

    def close(self):
        """Ends all in order and draws up the account."""
        for agent in (self.witness, self.watched, self.fresh):
            agent.hang_up()
        for agent in (self.witness, self.watched, self.fresh):
            agent.check_end()
            self.check_unlocked(agent.pid_path)
        self.ended.append((self.fresh, False))
        self.proxy.stop()
        self.collector.stop()
        accounts.check_store(self.test, self.collector)
        rows = collections.defaultdict(list)
        for row in self.collector.rows():
            rows[row.agent].append(row)
        self.rows = sum(map(len, rows.values()))
        accounts.check_agent(self.test, self.witness, rows[self.name + "-witness"])
        for number, (agent, killed) in enumerate(self.ended):
            accounts.check_agent(self.test, agent, rows["%s-fresh%d" % (self.name, number)], killed)
        self.proxy.check(self.test, [row.record for row in rows[self.name + "-watched"]],
                         lambda request: request.lines[0].split()[1])

    def check_unlocked(self, path):
        with open(path, "r+", encoding="ascii") as file:
            fcntl.lockf(file, fcntl.LOCK_EX | fcntl.LOCK_NB)


@harness.needs_namespaces
class Campaign(harness.TestCase):
    kills, seed, worlds = 20, None, 5

    def test_kills(self):
        """See the head of the file."""
        seed = random.randrange(1 << 32) if self.seed is None else self.seed
        print("%d kills with seed %d" % (self.kills, seed), flush=True)
        wrap = harness.mounted(harness.RisingLoad(self).path, "/proc/loadavg")
        began, done, rows, lock = time.monotonic(), collections.Counter(), [], threading.Lock()

        def campaign(number):
            share = self.kills * (number + 1) // self.worlds - self.kills * number // self.worlds
            world = World(self, "world%d" % number, random.Random(seed * self.worlds + number), wrap)
            world.run(share)
            with lock:
                done.update(world.done)
                rows.append(world.rows)
        harness.in_parallel(self, [("world %d" % number, lambda number=number: campaign(number))
                                   for number in range(self.worlds)])
        print("%d kills in %d s: %s; %d records stored" % (
            sum(done.values()) - done["collector SIGHUP"], time.monotonic() - began,
            ", ".join("%s %d" % entry for entry in sorted(done.items())), sum(rows)), flush=True)
        left = [pid for pid in filter(str.isdigit, os.listdir("/proc")) if self.program(pid) in (
            os.path.realpath(harness.AGENT), os.path.realpath(harness.COLLECTOR))]
        self.assertEqual(left, [])

    @staticmethod
    def program(pid):
        try:
            return os.readlink("/proc/%s/exe" % pid)
        except OSError:
            return None


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--kills", type=int, default=1000)
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()
    Campaign.kills, Campaign.seed = options.kills, options.seed
    harness.main(["Campaign"])
