"""The road of a test: from a command of the server to the record that the collector stores. And
what else a server can order: intervals, the updater, the end."""

import os
import re
import signal
import time

import harness
import records
from scripted_server import ScriptedServer, accept_login, answer

UNLIMITED = "-1\t-1\t-1"


class WithCollector(harness.TestCase):
    def test_from_plan_to_database(self):
        started = int(time.time())
        collector = harness.Collector(
            self, "# every second", "POL\t0\t1", "CHK\t0\t1", "LAA\t11\t21\t" + UNLIMITED,
            "LAA\t12\t22\t0\t-1\t-1").start()
        agent = harness.Agent(self, collector.port, name="the agent").start()
        results = collector.wait_test(11, 3) + collector.wait_test(12, 3)
        agent.stop()
        collector.stop()
        logged = [line for line in collector.errors().splitlines() if re.search(r"\d\d:\d\d:\d\d", line)]
        self.assertEqual(len(logged), 1, logged)  # the login

        by_key = {(result["test"], result["time"]): result for result in results}
        rows = collector.rows()
        self.assertGreaterEqual(len(rows), 6)
        for row in rows:
            load = records.as_load(records.decode(row.record)[0])
            self.assertEqual((row.account, row.agent, row.type), ("user@example.net", "the agent", 66))
            self.assertEqual((row.test, row.location, row.time, row.status),
                             (load.test, load.location, load.time, load.status))
            self.assertEqual(load.location, load.test + 10)
            self.assertEqual(load.status, 0 if load.test == 11 else 2)
            self.assertTrue(started <= load.time <= time.time())
            printed = by_key.get((load.test, load.time))
            if printed:
                self.assertEqual(
                    {key: printed[key] for key in ("agent", "account", "type", "name", "test",
                                                   "location", "status", "message")},
                    {"agent": "the agent", "account": "user@example.net", "type": 66,
                     "name": "load average", "test": load.test, "location": load.location,
                     "status": load.status, "message": load.message})
                self.assertEqual(tuple(printed["values"].values()), load.values)

    def test_plan_grows_while_running(self):
        collector = harness.Collector(self, "POL\t0\t1", "LAA\t1\t1\t" + UNLIMITED).start()
        harness.Agent(self, collector.port).start()
        self.assertEqual(len(collector.wait_test(1)), 1)

        # Nobody sent CHK: a test runs when it is added and when it is modified, at once.
        collector.add_to_plan("LAA\t2\t1\t" + UNLIMITED)
        collector.wait_test(2)
        self.assertEqual(len(collector.wait_test(1)), 2)  # the pass is over all tests
        collector.add_to_plan("LAM\t1\t5\t0\t-1\t-1")
        modified = collector.wait_results(lambda result: result["location"] == 5, "the modified test")
        self.assertEqual((modified[0]["test"], modified[0]["status"]), (1, 2))

        collector.add_to_plan("LAD\t1\t5", "LAA\t3\t1\t" + UNLIMITED)
        collector.wait_test(3)
        passes = [result["test"] for result in collector.results() if result["test"]]
        self.assertEqual(passes, [1] + [1, 2] + [1, 2] + [2, 3])

    def test_agents_that_log_in_later_get_the_whole_plan(self):
        collector = harness.Collector(self, "POL\t0\t1", "CHK\t0\t1",
                                      "LAA\t1\t1\t" + UNLIMITED).start()
        harness.Agent(self, collector.port, name="first").start()
        collector.wait_test(1)
        collector.add_to_plan("LAA\t2\t1\t" + UNLIMITED)
        collector.wait_test(2)
        harness.Agent(self, collector.port, name="second").start()
        for test in (1, 2):
            collector.wait_results(lambda result, test=test: result["agent"] == "second" and
                                   result["test"] == test)


class Scripted(harness.TestCase):
    def start(self, *replies, **settings):
        """An agent that gets `replies` one after the other, the first with its login."""
        self.server = ScriptedServer(self)
        self.server.then(accept_login("s", replies[0]), *[answer(text) for text in replies[1:]])
        self.agent = harness.Agent(self, self.server.port, **settings).start()

    def loads(self):
        """The records that came so far."""
        return [load for request in list(self.server.requests) if request.body
                for load in records.load_averages(request.plain())]

    def wait_loads(self, count):
        harness.wait_until(lambda: len(self.loads()) >= count,
                           lambda: "%d records, have %s" % (count, self.loads()))
        return self.loads()

    def polls_from_now(self, count):
        """Waits until `count` more polls have come."""
        self.server.wait_requests(len(self.server.requests) + count)


class Tests(Scripted):
    def test_one_pass_for_each_change(self):
        self.start("POL\t0\t1\nLAA\t5\t1\t" + UNLIMITED + "\n")
        self.wait_loads(1)
        self.polls_from_now(2)
        self.assertEqual([load[:2] for load in self.loads()], [(5, 1)])
        self.server.then(answer("LAM\t5\t2\t" + UNLIMITED + "\n"))
        self.wait_loads(2)
        self.polls_from_now(2)
        self.assertEqual([load[:2] for load in self.loads()], [(5, 1), (5, 2)])

    def test_interval_starts_a_pass(self):
        self.start("POL\t0\t1\nLAA\t5\t1\t" + UNLIMITED + "\n")
        self.wait_loads(1)
        self.server.then(answer("CHK\t0\t1000\n"))
        self.wait_loads(2)
        self.server.then(answer("CHK\t0\t1\n"))
        self.wait_loads(5)

    def test_interval_of_minus_one_ends_the_checkers(self):
        """For good: neither another interval nor a changed test starts a pass again."""
        self.start("POL\t0\t1\nLAA\t5\t1\t" + UNLIMITED + "\n")
        self.wait_loads(1)
        self.server.then(answer("CHK\t0\t-1\n"))
        self.polls_from_now(2)
        count = len(self.loads())
        self.server.then(answer("CHK\t0\t1\nLAM\t5\t2\t" + UNLIMITED + "\n"))
        self.agent.wait_log("INFO: modify_lda. Modified test. tid:5")
        self.polls_from_now(3)
        self.assertEqual(len(self.loads()), count)
        self.agent.stop()

    def test_silently_dropped(self):
        """A second test with the same id, ids of 0, unknown ids, wrong counts: nothing happens."""
        self.start(
            "POL\t0\t1\nLAA\t5\t1\t" + UNLIMITED + "\nLAA\t5\t2\t0\t0\t0\n"
            "LAA\t0\t1\t-1\t-1\t-1\nLAA\t4294967296\t1\t-1\t-1\t-1\nLAA\tx\t1\t-1\t-1\t-1\n"
            "LAM\t0\t9\t-1\t-1\t-1\nLAM\t6\t9\t-1\t-1\t-1\nLAD\t0\t1\nLAD\t6\t1\n"
            "LAA\t7\t1\t-1\t-1\nLAA\t7\t1\t-1\t-1\t-1\t\t\tx\nLAM\t5\t9\t-1\t-1\nLAD\t5\n"
            "LAD\t5\t1\tx\nLAA\nPOL\t1\nPOL\t1\t2\t3\nPOL\t1\t0\nCHK\t1\t0\nCHK\t1\nUPD\ta\tb\n")
        loads = self.wait_loads(1)
        self.assertEqual((loads[0].test, loads[0].location, loads[0].status), (5, 1, 0))
        self.polls_from_now(2)
        self.agent.stop()
        self.assertEqual({(load.test, load.location) for load in self.loads()}, {(5, 1)})
        text = "\n".join(self.agent.messages())
        self.assertEqual(text.count("INFO: add_lda. Added test."), 1)
        self.assertIn("INFO: add_lda. Added test. tid:5, lid:1, la1:-1, la5:-1, la15:-1", text)
        for unwanted in ("modify_lda", "rem_lda", "Starting Update", "Invalid test string"):
            self.assertNotIn(unwanted, text)

    def test_unknown_codes(self):
        self.start("POL\t0\t1\nXYZ\nLAAA\t1\t1\t1\t1\t1\nla\nlaa\t1\t1\t1\t1\t1\n\tPOL\t0\t5\n LAA\t1\n\n"
                   "POL \t0\t5\n%s%n\t1\n")
        self.polls_from_now(3)
        self.agent.stop()
        text = "\n".join(self.agent.messages()) + "\n"
        for code in ("XYZ", "LAAA", "la", "laa", "\tPOL", " LAA", "POL ", "%s%n"):
            self.assertIn("\nERROR: Invalid test string received: %s\n" % code, text)

    def test_line_ends(self):
        """Fields end at the line feed: a carriage return stays in the last one."""
        self.start("CHK\t0\t1\r\nPOL\t0\t1\r\n"
                   "LAA\t5\t1\t-1\t-1\t-1\r\nXYZ\r\n\r\n\n\nLAA\t6\t1\t" + UNLIMITED)
        harness.wait_until(lambda: {5, 6} <= {load.test for load in self.loads()}, "both tests")
        self.agent.stop()
        log = self.agent.log()
        self.assertIn("ERROR: Invalid test string received: XYZ\r\n", log)
        self.assertIn("ERROR: Invalid test string received: \r\n", log)

    def test_ends_by_order(self):
        """The interval of a login's answer counts after one second."""
        self.start("POL\tx\t-1\n", level=0)
        self.assertEqual(self.agent.process.wait(), 0)
        self.assertEqual(len(self.server.requests), 1)


UPDATER = """#!/bin/sh
# Leaves its id and its arguments, one a line, then does what the test wants.
{ echo $$; for argument; do echo "$argument"; done; } > "$0.new"
mv "$0.new" "$0.started"
%s
"""


class Updater(Scripted):
    def start_with_updater(self, does, *replies, **settings):
        self.server = ScriptedServer(self)
        self.server.then(accept_login("s", replies[0]), *[answer(text) for text in replies[1:]])
        self.agent = harness.Agent(self, self.server.port, **settings)
        os.mkdir(os.path.join(self.agent.dir, "bin"))
        self.updater = os.path.join(self.agent.dir, "bin", "updater")
        harness.write_text(self.updater, UPDATER % does)
        os.chmod(self.updater, 0o755)
        self.agent.start()

    def wait_started(self):
        """Waits for the updater; returns its process and its arguments."""
        text = harness.wait_until(lambda: harness.read_text(self.updater + ".started"), "the updater")
        pid, *arguments = text.splitlines()
        try:
            process = harness.Process(int(pid))
        except ProcessLookupError:
            process = None  # it was quick
        else:
            self.addCleanup(process.kill)
        return process, arguments

    def test_once_in_ten_minutes(self):
        self.start_with_updater("exit 3", "POL\t0\t1\nUPD\tnew\thttp://h/x\t0a1b\nUPD\ta\tb\tc\n",
                                "UPD\td\te\tf\n")
        _, arguments = self.wait_started()
        directory = self.agent.dir + "/bin/"
        expected = [str(self.agent.process.pid), directory + "new", "http://h/x", "0a1b"]
        self.assertEqual(arguments, expected)
        self.polls_from_now(3)
        self.agent.stop()
        self.assertEqual(harness.read_text(self.updater + ".started").splitlines()[1:], expected)
        text = "\n".join(self.agent.messages())
        self.assertEqual(text.count("Starting Update..."), 1)
        self.assertIn("Starting Update...\n%supdater %s\nSystem call return: 768\n"
                      % (directory, " ".join(expected)), text)

    def test_no_updater(self):
        self.start("POL\t0\t1\nUPD\ta\tb\tc\n")
        self.agent.wait_log("System call return: 32512")
        self.polls_from_now(2)

    def test_agent_waits_and_can_be_stopped_meanwhile(self):
        """A stop leaves the updater alone: it may be what stops the agent."""
        self.start_with_updater("exec sleep 600", "POL\t0\t1\n", "UPD\ta\tb\tc\n")
        updater, _ = self.wait_started()
        requests = len(self.server.requests)
        self.agent.stop()
        self.assertEqual(len(self.server.requests), requests)
        self.assertFalse(updater.ended())

    def test_updater_stops_the_agent(self):
        self.start_with_updater(
            'kill -HUP "$1"; while [ -e "/proc/$1/exe" ]; do sleep 0.05; done; : > "$0.done"',
            "POL\t0\t1\n", "UPD\ta\tb\tc\n")
        self.wait_started()
        self.assertEqual(self.agent.process.wait(), 0)
        harness.wait_until(lambda: os.path.exists(self.updater + ".done"), "the updater's end")

    def test_updater_of_an_agent_with_an_odd_start(self):
        """Its status is true where the agent inherited SIGCHLD ignored, and it has the limit of descriptors
        that the agent had before it raised it. A pipe that nobody reads ends it, as it would in a shell,
        and so does a file that may not grow."""
        self.start_with_updater(
            'echo "$(ulimit -S -n) $(ulimit -H -n)" > "$0.limits"\n'
            'grep SigIgn /proc/self/status > "$0.signals"\nexit 3', "POL\t0\t1\nUPD\ta\tb\tc\n",
            wrap=["prlimit", "--nofile=300:400", "env", "--ignore-signal=CHLD"])
        self.agent.wait_log("System call return: 768\n")
        self.assertEqual(harness.read_text(self.updater + ".limits"), "300 400\n")
        limits = harness.read_text("/proc/%d/limits" % self.agent.process.pid)
        self.assertRegex(limits, r"\nMax open files +400 +400 ")
        ignored = int(harness.read_text(self.updater + ".signals").split()[1], 16)
        own = (signal.SIGCHLD, signal.SIGPIPE, signal.SIGXFSZ)
        self.assertEqual([number for number in own if ignored >> (number - 1) & 1], [])

    def test_updater_gets_no_descriptors_of_the_agent(self):
        """Nor such as libraries open, which do not mark them as to be closed."""
        self.start_with_updater('ls -l /proc/self/fd > "$0.fds"; : > "$0.done"',
                                "POL\t0\t1\n", "UPD\ta\tb\tc\n")
        self.wait_started()
        harness.wait_until(lambda: os.path.exists(self.updater + ".done"), "the updater's end")
        listed = harness.read_text(self.updater + ".fds")
        for name in (self.agent.pid_path, self.agent.log_path, "socket:"):
            self.assertNotIn(name, listed)


if __name__ == "__main__":
    harness.main()
