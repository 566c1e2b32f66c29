#!/usr/bin/env python3
"""One agent through the life of a fleet: its tests are given, changed, renamed and taken away, while the collector and the
agent end and start between. The agent's own log says what it has; nothing is told twice that need not be."""

import re

import harness
from agent_log import AgentLog
from test_fleet_outcomes import LOAD, FleetCollector, fleet

MEMORY = "memory: {memory: {free: 1 MB}}"
CONNECTION = re.compile("ERROR: (make_poll|make_connection|send_request|receive_response)")


class Basic(harness.TestCase):
    def setUp(self):
        super().setUp()
        self.collector = FleetCollector(self).start()
        self.agent = harness.Agent(self, self.collector.port, name="web-1", AGENTNAME="web-1").start()
        self.log = AgentLog(self.agent.log_path)

    def apply(self, *tests):
        return self.collector.apply(fleet(*tests))["revision"]

    def wait_tests(self, **wanted):
        """Until the agent says that it has these: name of the list to (number, revision)."""
        wanted = {(kind, number): revision for kind, (number, revision) in wanted.items()}

        def as_wanted():  # what a list says of a command comes ahead of the end of the answer that has it
            life = self.log.read()
            return (life is not None and {key: said[0] for key, said in life.said.items()} == wanted
                    and not life.contradictions())
        harness.wait_until(as_wanted, lambda: "%s; has %s, %s\n%s" % (
            wanted, self.log.read().said, self.log.read().contradictions(), self.collector.errors()))
        # That a connection broke off is what comes of a collector that is killed.
        self.assertEqual([said for said in self.log.read().errors if not CONNECTION.match(said)], [])

    def wait_confirmed(self, revision):
        def settled():
            changes = self.collector.changes(revision=revision)
            return changes and all(change["outcome"] == "confirmed" for change in changes)
        harness.wait_until(settled, lambda: "revision %d confirmed: %s" % (revision, self.collector.changes()))

    def commands(self):
        """How many the agent was told in this life."""
        return self.log.read().commands

    def test_life(self):
        first = self.apply(LOAD, MEMORY)
        self.wait_tests(load=(1, first), memory=(2, first))
        self.wait_confirmed(first)

        second = self.apply("load: {load: {1m: 999}}", MEMORY)
        self.wait_tests(load=(1, second), memory=(2, first))
        self.wait_confirmed(second)

        told = self.commands()
        renamed = self.apply("average: {was: load, load: {1m: 999}}", MEMORY)
        self.wait_confirmed(renamed)
        count = len(self.collector.results())
        self.collector.wait_results(lambda result: result["test"] == 1, "results")
        harness.wait_until(lambda: len(self.collector.results()) > count + 4, "more results")
        self.assertEqual(self.commands(), told, "a name is nobody's business but the collector's")

        # The collector ends and starts: the agent keeps what it has, and all is known still.
        for end in (self.collector.stop, self.collector.kill):
            end()
            self.collector.start()
            self.wait_tests(load=(1, second), memory=(2, first))
            self.assertEqual(self.collector.get("/api/v1/fleet")["revision"], renamed)
            count = len(self.collector.results())
            harness.wait_until(lambda: len(self.collector.results()) > count + 4, "results after a start")
        last = self.apply("average: {was: load, load: {1m: 998}}")
        self.wait_tests(load=(1, last))
        self.wait_confirmed(last)

        # Changed while the agent is away, and while the collector has just ended.
        self.agent.process.kill()
        third = self.apply("average: {was: load, load: {1m: 997}}", MEMORY)
        self.collector.kill()
        self.collector.start()
        self.agent.start()
        self.wait_tests(load=(1, third), memory=(3, third))
        self.wait_confirmed(third)

        # An empty group: it has nothing.
        empty = self.collector.apply("version: 1\nintervals: {poll: 1s, check: 1s}\ngroups: []\n")["revision"]
        self.wait_tests()
        self.wait_confirmed(empty)


if __name__ == "__main__":
    harness.main()
