"""Stopping an agent at any moment: the process ends in order and soon, whatever it is doing, and its
PID lock is free for the next."""

import os
import random
import socket
import time

import harness
import scripted_server

STOPS = 40 if harness.SANITIZERS else 200
AT_ONCE = 20


class Stop(harness.TestCase):
    def check_stopped(self, agent, timeout_s=None):
        """Two seconds of it is the log writer's time to drain."""
        agent.stop(timeout_s or (60 if harness.SANITIZERS else 20))
        self.assertIn("SIGHUP Received, Shutting down.", agent.log())

    def test_random_moments(self):
        """Under polls and passes as fast as they come; every agent starts again on its PID file."""
        collector = harness.Collector(self, "POL\t0\t1", "CHK\t0\t1", "LAA\t1\t1\t-1\t-1\t-1").start()
        chance = random.Random(20)

        def stop_one(number, delay):
            agent = harness.Agent(self, collector.port, name="agent%d" % number)
            agent.start()
            time.sleep(delay)  # the moment is the case; nothing is waited for
            self.check_stopped(agent)
            # The lock is free: the file is taken over at once.
            if number % 20 == 0:
                agent.start()
                self.check_stopped(agent)

        cases = [("stop %d" % number, lambda number=number: stop_one(number, chance.random() * 3))
                 for number in range(STOPS)]
        harness.in_parallel(self, cases, AT_ONCE)

    def test_first_moments(self):
        """A stop that comes before there is anything to stop is remembered."""
        server = scripted_server.ScriptedServer(self)

        def stop_early(number):
            agent = harness.Agent(self, server.port, name="early%d" % number)
            agent.start()  # returns as soon as the daemon has let go of its standard output
            agent.hang_up()
            self.check_stopped(agent)

        harness.in_parallel(self, [("early %d" % n, lambda n=n: stop_early(n)) for n in range(10)])

    def test_connecting(self):
        agent = harness.Agent(self, harness.black_hole(self)).start()
        agent.wait_log("Main Worker thread created successfully")
        self.check_stopped(agent, 10)

    def test_handshake_and_reply(self):
        """A server that says nothing: in the handshake, then after the request."""
        def silent(peer):
            peer.hold()

        def silent_after_handshake(peer):
            peer.read_request()
            peer.hold()

        for step in (silent, silent_after_handshake):
            server = scripted_server.ScriptedServer(self, default=step)
            agent = harness.Agent(self, server.port, name=step.__name__).start()
            harness.wait_until(lambda: server.connections, "a connection")
            self.check_stopped(agent, 10 if not harness.SANITIZERS else 60)
            server.stop()

    def test_thousands_of_commands(self):
        commands = "".join("LAA\t%d\t1\t1\t1\t1\n" % test for test in range(1, 20001))
        server = scripted_server.ScriptedServer(self).then(
            scripted_server.accept_login(commands="POL\t0\t1\n" + commands))
        agent = harness.Agent(self, server.port).start()
        agent.wait_log("INFO: add_lda. Added test. tid:100,")
        self.check_stopped(agent)

    @harness.needs_namespaces
    def test_name_resolution_that_hangs(self):
        """Its name server takes questions and never answers."""
        resolv = os.path.join(self.dir, "resolv.conf")
        harness.write_text(resolv, "nameserver 127.0.0.77\noptions timeout:30 attempts:5\n")
        deaf = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(deaf.close)
        deaf.bind(("127.0.0.77", 53))
        agent = harness.Agent(self, wrap=harness.mounted(resolv, "/etc/resolv.conf"),
                              USEHOST="https://collector.example:443/x").start()
        deaf.settimeout(harness.PATIENCE_S)
        deaf.recv(512)  # the question is under way
        self.check_stopped(agent, 10 if not harness.SANITIZERS else 60)


class Resources(harness.TestCase):
    def test_nothing_grows_over_many_polls(self):
        collector = harness.Collector(self, "POL\t0\t1", "CHK\t0\t1", "LAA\t1\t1\t-1\t-1\t-1").start()
        agent = harness.Agent(self, collector.port, level=3).start()

        def counts():
            base = "/proc/%d/" % agent.process.pid
            status = harness.read_text(base + "status")
            rss = int(status.split("VmRSS:")[1].split()[0])
            return len(os.listdir(base + "fd")), len(os.listdir(base + "task")), rss

        def polls():
            return agent.log().count("INFO: Collecting results...")

        # A changed test wakes the poll loop, so polls follow each other faster than once a second.
        def poll_until(wanted):
            while polls() < wanted:
                collector.add_to_plan("LAM\t1\t%d\t-1\t-1\t-1" % polls())
                before = polls()
                harness.wait_until(lambda: polls() > before, "a poll")

        poll_until(10)
        before = counts()
        poll_until(35)
        harness.wait_until(lambda: counts()[0] <= before[0] + 1, "descriptors given back")
        self.assertEqual(counts()[1], before[1])
        if not harness.SANITIZERS:
            self.assertLess(counts()[2], before[2] + 1024)


if __name__ == "__main__":
    harness.main()
