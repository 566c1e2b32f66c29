"""The collector cannot keep up: its disk is slow, or all agents come back at once after it was away."""

import accounts
import host
import harness

NO_CONNECTION = "Unable to establish connection to the server."


class Behind(host.TestCase):
    AGENTS = 6

    def start_agents(self):
        loads = harness.RisingLoad(self)
        self.agents = [harness.Agent(self, self.collector.port, name="agent%d" % number,
                                     wrap=harness.mounted(loads.path, "/proc/loadavg")).start()
                       for number in range(self.AGENTS)]
        for agent in self.agents:
            self.wait_accepted(agent)

    @staticmethod
    def wait_accepted(agent, more=2):
        """Waits until further blocks of it are accepted."""
        before = len(accounts.by_log(agent.log())[0])
        harness.wait_until(lambda: len(accounts.by_log(agent.log())[0]) >= before + more,
                           lambda: "accepted blocks:\n" + agent.log()[-2000:])

    def check_accounts(self):
        for agent in self.agents:
            agent.stop()
        self.collector.stop()
        rows = self.collector.rows()
        for agent in self.agents:
            own = [row for row in rows if row.agent == agent.settings["AGENTNAME"]]
            self.assertNotEqual(own, [])
            accounts.check_agent(self, agent, own)
        accounts.check_store(self, self.collector)

    @host.needs_own_libc_calls
    @harness.needs_namespaces
    def test_slow_disk(self):
        """Expected: while results wait too long agents are turned away before they send any, keep their sessions and
        come again; once the disk is itself again all is stored, once."""
        shim = host.Shim(self)
        collector = self.start_collector(env=shim.env, options=["--max-behind", "1"]).start()
        self.start_agents()
        logins = collector.errors().count("login: ")
        shim.sync_ms = 4000
        collector.wait_errors("the store is behind, results have waited ")
        harness.wait_until(lambda: any(NO_CONNECTION in agent.log() for agent in self.agents), "an agent turned away")
        shim.sync_ms = 0
        collector.wait_errors("the store has caught up with results; ")
        for agent in self.agents:
            self.wait_accepted(agent)
        self.assertEqual(collector.errors().count("login: "), logins)
        self.assertNotIn("Reauthorization is required", "".join(agent.log() for agent in self.agents))
        self.check_accounts()

    @harness.needs_namespaces
    def test_all_come_back_at_once(self):
        """Expected: they are let in one after the other, those for whom it is too early come again after their
        interval with what they have, and each logs in once."""
        collector = self.start_collector().start()
        self.start_agents()
        collector.kill()
        for agent in self.agents:
            agent.wait_log(NO_CONNECTION, agent.log().count(NO_CONNECTION) + 2)
        logins = collector.errors().count("login: ")
        away = [len(agent.log()) for agent in self.agents]  # the kill may have ended a handshake
        collector.start("--max-logins", "1")
        for agent in self.agents:
            self.wait_accepted(agent)
        self.assertEqual(collector.errors().count("login: ") - logins, self.AGENTS)
        self.assertIn("too many log-ins at a time: one from ", collector.errors())
        self.assertNotIn("internal error", "".join(agent.log()[at:] for agent, at in zip(self.agents, away)))
        self.check_accounts()


if __name__ == "__main__":
    harness.main()
