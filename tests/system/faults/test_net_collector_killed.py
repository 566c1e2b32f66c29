"""The collector is killed and started again in every phase of a poll: no record is lost, none is
stored twice.

A proxy between agent and collector ends the TLS of both sides and sees every request. It kills the
collector at a chosen point of a poll and starts it anew; the agent's side is then dropped as a killed
server drops it. What the agent sent is known from the proxy: the blocks one after the other, where a
block that was sent again counts once. The database must hold the records of these blocks, in this
order, and nothing else.

The load average that the agents read rises all the time, so that no two records are alike: a block
that is byte for byte the last one is the same block to the collector."""

import random
import re
import select
import socket
import threading
import time

import accounts
import harness
from accounts import PLAN, Proxy


PHASES = ["before the connection", "connected", "after the handshake", "half the head",
          "before the body", "half the body", "whole request", "before the answer is passed on",
          "half the answer", "after the answer"]


class Relay:
    """Passes bytes between the agent and the collector, TLS and all. In the connections that `points`
    names one after the other (a number of chunks, both directions counted, and what to do then), the
    connection breaks off on both sides in place of that chunk."""

    def __init__(self, test, collector, points, loaded):
        self.collector = collector
        self.points = list(points)
        self.done = 0
        self.loaded = loaded  # true once the agent has tests; before, a failure costs it a minute
        self.stopping = False
        self.listener = socket.create_server(("127.0.0.1", 0), backlog=64)
        self.port = self.listener.getsockname()[1]
        self.thread = threading.Thread(target=self._accept)
        self.thread.start()
        test.addCleanup(self.stop)

    def stop(self):
        self.stopping = True
        try:
            self.listener.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.thread.join()
        self.listener.close()

    def _accept(self):
        """One connection after the other, as an agent makes them."""
        while not self.stopping:
            try:
                agent, _ = self.listener.accept()
                with agent, socket.create_connection(("127.0.0.1", self.collector.port)) as server:
                    self._pass_on(agent, server)
            except OSError:
                pass

    def _pass_on(self, agent, server):
        point = self.points[self.done] if self.done < len(self.points) and self.loaded() else None
        open_ends = {agent: server, server: agent}
        chunks = 0
        while open_ends and not self.stopping:
            for end in select.select(list(open_ends), [], [], 0.1)[0]:
                data = end.recv(65536)
                chunks += 1
                if point and chunks == point[0]:
                    self.done += 1
                    point[1]()
                    return
                if data:
                    open_ends[end].sendall(data)
                else:
                    open_ends.pop(end).shutdown(socket.SHUT_WR)


class Strike:
    """Kills the collector once in the wanted phase of a poll that carries records (or of a login)."""

    def __init__(self, collector, moments):
        self.collector = collector
        self.moments = list(moments)  # (phase, whether of a login, seconds to wait in it)
        self.begun = False  # an agent whose first login fails would wait a minute
        self.done = 0
        self.lost_answer = None  # the connection whose answer must not get through
        # The agent's next connection comes while "after the answer" of the last one is still dealt with.
        self.one_at_a_time = threading.Lock()

    def __call__(self, phase, request):
        with self.one_at_a_time:
            self.strike(phase, request)

    def strike(self, phase, request):
        if request.body:
            self.begun = True
        if self.done == len(self.moments) or not self.begun:
            return
        wanted, login, delay_s = self.moments[self.done]
        if login and not request.is_login:
            if phase == "before the connection":
                self.restart()  # ends the session, so that the agent logs in
            return
        if phase != wanted or login != request.is_login or not (login or request.body):
            return
        self.done += 1
        if phase in ("before the answer is passed on", "half the answer"):
            self.lost_answer = request.connection
        time.sleep(delay_s)
        self.restart()

    def restart(self):
        self.collector.kill()
        self.collector.start()


@harness.needs_namespaces
class Killed(harness.TestCase):
    def setUp(self):
        super().setUp()
        self.wrap = harness.mounted(harness.RisingLoad(self).path, "/proc/loadavg")

    def test_in_every_phase(self):
        """Several agents, each with a proxy and a collector; each collector is killed in some phases
        of its agent's polls and logins, in another order."""
        seed = random.randrange(1 << 32)
        print("killing with seed %d" % seed, flush=True)
        chance = random.Random(seed)
        # "whole request" is where storing happens: at once, and a little later.
        polls = [(phase, False, 0) for phase in PHASES]
        polls += [("whole request", False, chance.uniform(0, 0.02)) for _ in range(8)]
        logins = [(phase, True, 0) for phase in PHASES if phase != "half the body"]
        moments = polls + logins
        chance.shuffle(moments)
        worlds = 6 if harness.SANITIZERS else 9
        harness.in_parallel(self, [
            ("world %d" % n, lambda part=moments[n::worlds], n=n: self.world("world%d" % n, part))
            for n in range(worlds)])

    def world(self, name, moments):
        collector = harness.Collector(self, *PLAN, name=name + "-collector").start()
        strike = Strike(collector, moments)
        proxy = Proxy(self, collector, strike)
        proxy.lose_answer = lambda request: request.connection == strike.lost_answer
        agent = harness.Agent(self, proxy.port, name=name, wrap=self.wrap).start()
        harness.wait_until(lambda: strike.done == len(moments),
                           lambda: "kill %d, %s\n%s" % (strike.done, moments, agent.log()[-3000:]))
        kills = len(proxy.requests)
        harness.wait_until(lambda: sum(1 for request in proxy.accepted[-3:] if request.body) == 3 and
                           len(proxy.requests) > kills + 3, "three polls in order")
        agent.stop()
        proxy.stop()
        collector.stop()
        rows = collector.rows()
        proxy.check(self, [row.record for row in rows])
        accounts.check_agent(self, agent, rows)
        accounts.check_store(self, collector)

    def test_at_every_chunk(self):
        """The connection breaks with the collector, or without it, at its first chunk, its second
        and so on: in the handshake, the request, the answer."""
        harness.in_parallel(self, [("chunk %d" % chunk, lambda chunk=chunk: self.break_at(chunk))
                                   for chunk in range(1, 8)])

    def break_at(self, chunk):
        collector = harness.Collector(self, *PLAN, name="chunk%d" % chunk).start()

        def restart():
            collector.kill()
            collector.start()
        relay = Relay(self, collector, [(chunk, restart), (chunk, lambda: None), (chunk, restart)],
                      lambda: collector.results())
        agent = harness.Agent(self, relay.port, name="chunk%d" % chunk, wrap=self.wrap).start()
        # The last chunks are those of a long exchange; not every poll has so many.
        harness.wait_until(lambda: relay.done >= (3 if chunk < 6 else 1),
                           lambda: "%d breaks\n%s" % (relay.done, agent.log()[-3000:]))
        relay.points = relay.points[:relay.done]
        self.wait_polls_in_order(agent)
        agent.stop()
        relay.stop()
        collector.stop()
        accounts.check_agent(self, agent, collector.rows())
        accounts.check_store(self, collector)

    def test_at_random_moments(self):
        """Agents that talk to the collector themselves. What they collected is in their logs."""
        seed = random.randrange(1 << 32)
        print("random kills with seed %d" % seed, flush=True)
        harness.in_parallel(self, [
            ("world %d" % n, lambda n=n: self.random_kills("random%d" % n, random.Random(seed + n)))
            for n in range(4)])

    def random_kills(self, world, chance):
        collector = harness.Collector(self, *PLAN, name=world).start()
        names = [world + "-first", world + "-second"]
        agents = [harness.Agent(self, collector.port, name=name, wrap=self.wrap).start()
                  for name in names]
        for _ in range(4):
            done = len(collector.results())
            harness.wait_until(lambda done=done: len(collector.results()) > done, "a stored poll")
            time.sleep(chance.uniform(0, 1.1))
            collector.kill()
            collector.start()
        for agent in agents:
            self.wait_polls_in_order(agent)
        for agent in agents:
            agent.hang_up()
        for agent in agents:
            agent.check_end()
        collector.stop()
        rows = collector.rows()
        for agent, name in zip(agents, names):
            accounts.check_agent(self, agent, [row for row in rows if row.agent == name])
        accounts.check_store(self, collector)

    def wait_polls_in_order(self, agent):
        start = len(agent.log())

        def two_blocks_accepted():
            later = agent.log()[start:]
            return len(re.findall(r"data cache size: (?:(?!result: )[\s\S])*result: 1\n", later)) >= 2
        harness.wait_until(two_blocks_accepted, lambda: agent.log()[-3000:])


if __name__ == "__main__":
    harness.main()
