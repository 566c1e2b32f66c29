#!/usr/bin/env python3
"""Agents that are told at once what they would be told later: to do their tests, and to log in anew."""

import json

import asking
import harness

AGENT = "/api/v1/agents/user%40example.net%2Fweb1"
PLAN = ["POL\t0\t1", "CHK\t0\t86400", "LAA\t1\t1\t-1\t-1\t-1", "LAM\t1\t2\t-1\t-1\t-1", "MMA\t2\t1\t-1\t-1\t-1\t-1\t-1"]


class CheckNow(harness.TestCase):
    def setUp(self):
        super().setUp()
        self.collector = asking.Asked(self, *PLAN).start()
        self.agent = harness.Agent(self, self.collector.port, name="web1").start()
        for test in (1, 2):
            self.collector.wait_test(test)

    def count(self, test):
        return len([result for result in self.collector.results() if result["test"] == test])

    def wait_polls(self, count):
        """Until the agent has been heard of in so many more seconds."""
        for _ in range(count):
            before = self.collector.get(AGENT)["last_poll"]
            harness.wait_until(lambda: self.collector.get(AGENT)["last_poll"] != before, "another poll")

    def test_an_agent_reports_its_tests_at_once(self):
        self.wait_polls(3)
        before = {test: self.count(test) for test in (1, 2)}
        self.wait_polls(2)
        self.assertEqual({test: self.count(test) for test in (1, 2)}, before, "a check interval is a day")
        status, _, text = self.collector.ask(AGENT + "/check", "POST")
        self.assertEqual((status, json.loads(text)["accepted"]), (202, True), text)
        for test in (1, 2):
            results = self.collector.wait_test(test, before[test] + 1)
            self.assertEqual(results[-1]["location"], {1: 2, 2: 1}[test], "what the test was told to be last")
        self.wait_polls(3)  # once
        self.assertEqual({test: self.count(test) for test in (1, 2)},
                         {test: count + 1 for test, count in before.items()})
        self.collector.wait_errors(
            "audit: system test (admin) from 127.0.0.1: had agent user@example.net/web1 check now")

    def test_one_that_is_not_there_cannot_be_told(self):
        self.agent.stop()
        self.collector.stop()
        self.collector.start()  # nobody has a session
        status, _, text = self.collector.ask(AGENT + "/check", "POST")
        self.assertEqual(status, 409, text)

    def test_a_retired_agent_logs_in_anew(self):
        login = "Authorization was successfully completed."
        self.agent.wait_log(login)
        status, _, text = self.collector.ask(AGENT, "DELETE")
        self.assertEqual(status, 204, text)
        self.agent.wait_log(login, 2)

    def test_a_retired_agent_that_is_back_is_as_it_was(self):
        """In the lists and counts again, with its ids, its tests and what it reported before."""
        def tests():
            return {test["number"]: (test["id"], test["state"]) for test in self.collector.get("/api/v1/tests")["items"]}
        harness.wait_until(lambda: sorted(tests()) == [1, 2], tests)
        before, agent = tests(), self.collector.get(AGENT)
        self.assertEqual(self.collector.ask(AGENT, "DELETE")[0], 204)
        harness.wait_until(lambda: tests() == before, lambda: "%s as %s" % (tests(), before))
        again, = self.collector.get("/api/v1/agents")["items"]
        self.assertEqual((again["id"], again["tests"], again.get("retired")),
                         (agent["id"], {"ok": 2, "problem": 0, "unknown": 0}, None))
        results = "/api/v1/tests/%d/results" % before[1][0]
        harness.wait_until(lambda: len(self.collector.get(results)["items"]) > 1, "what came before is there still")
        status, _, text = self.collector.ask("/metrics")
        self.assertEqual(status, 200)
        self.assertIn('vindral_agents{state="ok"} 1\n', text)
        self.collector.wait_errors(
            "audit: system test (admin) from 127.0.0.1: retired agent user@example.net/web1")


if __name__ == "__main__":
    harness.main()
