"""A collector that dies in every phase of a poll: no result is lost, none is stored twice."""

import random
import re
import socket
import threading
import time

import harness

PLAN = ("POL\t0\t1", "CHK\t0\t1", "LAA\t1\t1\t-1\t-1\t-1", "LAA\t2\t1\t-1\t-1\t-1")


class Relay:
    """Passes bytes between the agent and the collector. `fail_at` (chunk, action): when the next
    connection has seen that many chunks in all, both directions counted, it performs the action
    instead of passing the last one on, and breaks off."""

    def __init__(self, test, collector):
        self.collector = collector
        self.fail_at = None
        self.failed = 0
        self.lock = threading.Lock()
        self.listener = socket.create_server(("127.0.0.1", 0), backlog=64)
        self.port = self.listener.getsockname()[1]
        test.addCleanup(self.stop)
        self.threads = [threading.Thread(target=self._accept)]
        self.threads[0].start()

    def stop(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        for thread in self.threads:
            thread.join()
        self.listener.close()

    def _accept(self):
        while True:
            try:
                agent, _ = self.listener.accept()
            except OSError:
                return
            thread = threading.Thread(target=self._serve, args=(agent,))
            self.threads.append(thread)
            thread.start()

    def _serve(self, agent):
        with self.lock:
            fail_at, self.fail_at = self.fail_at, None
        try:
            server = socket.create_connection(("127.0.0.1", self.collector.port))
        except OSError:
            agent.close()
            if fail_at:
                with self.lock:
                    self.fail_at = fail_at  # the next one
            return
        seen = [0]
        broken = threading.Event()

        def pass_on(source, target):
            while True:
                try:
                    data = source.recv(65536)
                except OSError:
                    data = b""
                with self.lock:
                    seen[0] += 1
                    due = fail_at and seen[0] == fail_at[0] and not broken.is_set()
                    if due:
                        broken.set()
                if due:
                    fail_at[1]()
                    for end in (agent, server):
                        try:
                            end.shutdown(socket.SHUT_RDWR)
                        except OSError:
                            pass
                    self.failed += 1
                    return
                if broken.is_set():
                    return
                try:
                    if not data:
                        target.shutdown(socket.SHUT_WR)
                        return
                    target.sendall(data)
                except OSError:
                    return

        back = threading.Thread(target=pass_on, args=(server, agent))
        back.start()
        pass_on(agent, server)
        back.join()
        agent.close()
        server.close()
        if fail_at and not broken.is_set():
            with self.lock:
                self.fail_at = fail_at  # a poll with fewer chunks: the next one, then


class Restart(harness.TestCase):
    def check_nothing_lost_or_doubled(self, agent, collector):
        """Every block that the agent collected, by its log, was stored once. The agent is stopped
        first, so the very last block may or may not have been taken."""
        agent.stop()
        blocks = [int(size) for size in re.findall(r"INFO: data cache size: (\d+)", agent.log())]
        rows = collector.rows()
        stored = sum(len(row.record) for row in rows)
        self.assertIn(stored, (sum(blocks), sum(blocks[:-1])), (blocks, len(rows)))
        # And one for one: there is no more than one pass a second once the first are over.
        for test in (1, 2):
            times = [row.time for row in rows if row.test == test and row.time > self.settled]
            self.assertEqual(times, sorted(set(times)), "test %d" % test)
            self.assertGreater(len(times), 3)

    def settle(self, collector):
        """Waits for results, then takes CHK out of the plan: it would cause a pass of its own at every
        login."""
        collector.wait_test(2, 2)
        harness.write_text(collector.plan, "".join(line + "\n" for line in PLAN if "CHK" not in line))
        self.settled = int(time.time()) + 1

    def restart(self, collector):
        collector.kill()
        collector.start()

    def test_every_phase(self):
        """Chunks of a poll: hello, server's hello, finished, head and body, answer, ends. What a chunk
        holds depends on timing; together the numbers cover the exchange from its first byte to its
        last, the answer that is lost after the results were committed included."""
        collector = harness.Collector(self, *PLAN).start()
        relay = Relay(self, collector)
        agent = harness.Agent(self, relay.port).start()
        self.settle(collector)
        for chunk in (1, 2, 3, 4, 5, 6, 4, 5, 6, 3):
            failures = relay.failed
            relay.fail_at = (chunk, lambda: self.restart(collector))
            harness.wait_until(lambda: relay.failed > failures, "chunk %d" % chunk)
            before = len(collector.results())
            harness.wait_until(lambda: len(collector.results()) > before, "results after a restart")
        self.assertIn("Reauthorization is required.", agent.log())
        self.check_nothing_lost_or_doubled(agent, collector)

    def test_lost_answers_only(self):
        """The collector lives, only its answers get lost: it sees blocks twice and stores them once."""
        collector = harness.Collector(self, *PLAN).start()
        relay = Relay(self, collector)
        agent = harness.Agent(self, relay.port).start()
        self.settle(collector)
        for chunk in (4, 5, 6, 5, 6, 5):
            failures = relay.failed
            relay.fail_at = (chunk, lambda: None)
            harness.wait_until(lambda: relay.failed > failures, "chunk %d" % chunk)
            before = len(collector.results())
            harness.wait_until(lambda: len(collector.results()) > before, "results afterwards")
        self.check_nothing_lost_or_doubled(agent, collector)

    def test_random_moments(self):
        collector = harness.Collector(self, *PLAN).start()
        agent = harness.Agent(self, collector.port).start()
        self.settle(collector)
        chance = random.Random(11)
        for _ in range(5 if harness.SANITIZERS else 12):
            time.sleep(chance.random() * 1.5)  # the moment is the case; nothing is waited for
            self.restart(collector)
        before = len(collector.results())
        harness.wait_until(lambda: len(collector.results()) > before + 8, "results afterwards")
        self.check_nothing_lost_or_doubled(agent, collector)


if __name__ == "__main__":
    harness.main()
