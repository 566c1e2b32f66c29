"""The fleet in backups, after a restore, and when results.db is lost: nothing that was given is given twice."""

import os
import subprocess
import unittest

import harness
from test_fleet_outcomes import LOAD, FleetCollector, fleet

MILLION = 1000000


class Kept(harness.TestCase):
    def start(self):
        self.collector = FleetCollector(self).start()
        self.agent = harness.Agent(self, self.collector.port, name="web-1", AGENTNAME="web-1").start()

    def command(self, *words, status=0):
        done = subprocess.run([harness.COLLECTOR, *words, "--state-dir", self.collector.state], env=self.collector.env,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False,
                              timeout=harness.PATIENCE_S)
        self.assertEqual(done.returncode, status, done.stdout + done.stderr)
        return done.stdout + done.stderr

    def shown(self):
        """Name, number and state of each."""
        return {test["name"]: (test["number"], test["state"]) for test in self.collector.get("/api/v1/tests")["items"]}

    def wait_test(self, name):
        """Its number once it is well."""
        harness.wait_until(lambda: self.shown().get(name, (0, ""))[1] == "ok", lambda: "%s: %s" % (name, self.shown()))
        return self.shown()[name][0]

    def test_a_restored_fleet_gives_nothing_twice(self):
        self.start()
        first = self.collector.apply(fleet(LOAD))["revision"]
        number = self.wait_test("load")
        backup = os.path.join(self.dir, "backup.db")
        self.command("backup", backup)
        # Since then: a test of which the copy knows nothing, and a change of the one that it has.
        self.collector.apply(fleet("load: {load: {1m: 999}}", "root: {disk: /}"))
        given = {number, self.wait_test("root")}
        newest = self.collector.get("/api/v1/fleet")["revision"]
        for times in (1, 2):  # of the same copy
            self.collector.stop()
            self.command("restore", backup, "--replace")
            self.assertIn("can be read", self.command("check"))
            self.collector.start()
            now = self.collector.get("/api/v1/fleet")
            self.assertEqual(now["text"], fleet(LOAD), "the fleet of the backup")
            self.assertEqual(self.wait_test("load"), number, "the test keeps its number")
            applied = self.collector.apply(fleet(LOAD, "home%d: {disk: /}" % times))
            self.assertGreater(applied["revision"], newest + MILLION // 2)
            newest = applied["revision"]
            home = self.wait_test("home%d" % times)
            self.assertNotIn(home, given)
            given.add(home)
            self.collector.wait_change(test="home%d" % times, outcome="confirmed", revision=newest)
        self.assertGreater(newest, 2 * MILLION)
        self.assertLess(first, MILLION)

    def test_a_lost_store_loses_no_fleet(self):
        self.start()
        self.collector.apply(fleet(LOAD, "root: {disk: /}"))
        self.wait_test("root")
        before = self.collector.get("/api/v1/fleet")
        self.collector.stop()
        for end in ("", "-wal", "-shm"):
            path = os.path.join(self.collector.state, "results.db" + end)
            if os.path.exists(path):
                os.unlink(path)
        self.collector.start()
        now = self.collector.get("/api/v1/fleet")
        self.assertEqual(now["text"], before["text"])
        self.assertGreater(now["revision"], before["revision"])
        self.wait_test("load")
        self.collector.wait_change(test="root", outcome="confirmed")


if __name__ == "__main__":
    harness.main()
