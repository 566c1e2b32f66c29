"""Signals from outside other than the one that ends the agent in order, and an agent that stands still."""

import signal
import time

import host
import harness


class Signals(host.TestCase):
    @harness.needs_namespaces
    def test_standstill(self):
        """Expected: an agent, or a collector, that is stopped for several intervals goes on where it was when
        it is continued: one poll at once, not one for each interval missed; no result is lost."""
        self.start_collector().start()
        agent = self.start_agent()
        for pid, process in ((agent.process.pid, agent.process.send),
                             (self.collector.process.pid, self.collector.process.send_signal)):
            with self.subTest(pid):
                self.wait_more()
                process(signal.SIGSTOP)
                began = time.monotonic()
                harness.wait_until(lambda: time.monotonic() - began > 4, "several intervals")
                polls = agent.log().count("make_poll result: ")
                process(signal.SIGCONT)
                continued = time.monotonic()
                self.wait_more()
                took = time.monotonic() - continued
                self.assertLessEqual(agent.log().count("make_poll result: ") - polls, took + 3)
        self.check_account()

    def test_stop_while_standing_still(self):
        """Expected: SIGHUP that comes while the agent is stopped ends it in order when it is continued."""
        agent = harness.Agent(self, harness.free_port()).start()
        agent.process.send(signal.SIGSTOP)
        agent.hang_up()
        self.assertFalse(agent.process.ended(0.2))
        agent.process.send(signal.SIGCONT)
        agent.check_end()
        self.assertIn("SIGHUP Received, Shutting down.", agent.log())

    def test_pipe(self):
        """Expected: SIGPIPE, as a peer that goes away could send it, ends nothing."""
        collector = self.start_collector().start()
        agent = harness.Agent(self, collector.port).start()
        collector.wait_test(1)
        for process in (agent.process.send, collector.process.send_signal):
            process(signal.SIGPIPE)
        self.wait_more()
        agent.stop()
        collector.stop()

    def test_others(self):
        """Expected: the agent handles two signals only. SIGTERM, SIGINT and the user's signals end it at once,
        its PID file can be locked again by the next one; SIGCHLD and SIGWINCH mean nothing to it."""
        def ends(number):
            agent = harness.Agent(self, harness.free_port(), name=number.name).start()
            agent.process.send(number)
            self.assertEqual(agent.process.wait(), -number)
            self.assertNotIn("Received", agent.log())
            agent.start().stop()

        harness.in_parallel(self, [(number.name, lambda n=number: ends(n)) for number in (
            signal.SIGTERM, signal.SIGINT, signal.SIGUSR1, signal.SIGUSR2, signal.SIGALRM)])
        collector = self.start_collector().start()
        agent = harness.Agent(self, collector.port).start()
        for number in (signal.SIGCHLD, signal.SIGWINCH, signal.SIGURG, signal.SIGCONT):
            agent.process.send(number)
        collector.wait_test(1, 2)
        agent.stop()
        collector.stop()


if __name__ == "__main__":
    harness.main()
