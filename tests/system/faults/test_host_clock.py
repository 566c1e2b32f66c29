"""The clock is set a day forward and a day back under agent and collector."""

import os
import time

import host
import harness


def day(offset_s):
    return time.strftime("%Y-%m-%d", time.gmtime(time.time() + offset_s))


class Clock(host.TestCase):
    @harness.needs_namespaces
    @host.needs_own_libc_calls
    def test_agent(self):
        """Expected: polls and checks go on at their pace after either jump, neither a day late nor all
        the missed ones at once; records bear the new time; the log moves aside at each change of the
        day, also backwards."""
        shim = host.Shim(self)
        self.start_collector().start()
        agent = self.start_agent(env=shim.env)
        self.wait_more()
        for offset_s, before_s in ((host.DAY_S, 0), (0, host.DAY_S), (-host.DAY_S, 0)):
            with self.subTest(offset_s):
                polls = agent.log().count("make_poll result")
                began, used = time.monotonic(), host.cpu_seconds(agent.process.pid)
                shim.clock_offset_s = offset_s
                there = time.time() + offset_s
                self.collector.wait_results(
                    lambda result: result["test"] == 1 and abs(result["time"] - there) < host.DAY_S / 2,
                    "results of the new day", timeout_s=15)
                self.wait_more(3)
                took = time.monotonic() - began
                self.assertLess(host.cpu_seconds(agent.process.pid) - used, 1)
                moved = agent.log_path + "." + day(before_s)
                harness.wait_until(lambda: os.path.exists(moved), moved)
                self.assertLess(agent.log().count("make_poll result") - polls, took + 3)
        agent.stop()
        for offset_s in (0, host.DAY_S):  # of two of the three jumps
            agent.log_path, older = agent.log_path + "." + day(offset_s), agent.log_path
            self.assertRegex(agent.log(), r"make_poll result: 1\n")
            agent.log_path = older
        self.collector.stop()

    @harness.needs_namespaces
    @host.needs_own_libc_calls
    def test_collector(self):
        """Expected: nobody has to log in again, results are kept under the day on which they arrived by
        the clock of that moment, and none expires, is lost or doubled."""
        shim = host.Shim(self)
        collector = self.start_collector(env=shim.env, options=["--keep-days", "7"]).start()
        self.start_agent()
        self.wait_more()
        for offset_s in (host.DAY_S, 0, -host.DAY_S, 0, 60 * host.DAY_S, 0, 100 - int(time.time()), 0):
            shim.clock_offset_s = offset_s
            there = time.time() + offset_s
            collector.wait_results(lambda result: abs(result["received"] - there) < host.DAY_S / 2,
                                   "results of the new day")
            self.wait_more()
        self.check_account()
        self.assertEqual(collector.errors().count("login: agent"), 1, collector.errors())


if __name__ == "__main__":
    harness.main()
