"""What happens to the agent's log and PID file while it runs: the disk is full, the file or its
directory is gone."""

import os
import re
import shutil

import host
import harness

STAMP = re.compile(r"\[\d\d/\d\d/\d{4}:\d\d:\d\d:\d\d\]\t")


class FullDisk(host.TestCase):
    @harness.needs_namespaces
    def test_log(self):
        """Expected: checks and polls go on, no result is lost. The disk fills in the middle of a line, and
        stays full; when there is room again the log goes on, with a whole line on a line of its own."""
        self.start_collector().start()
        disk = os.path.join(self.dir, "disk")
        host.mount_small(self, disk, "128k")
        agent = self.start_agent(LOGFILE=os.path.join(disk, "vindral.log"))
        agent.log_path = agent.settings["LOGFILE"]
        self.wait_more()
        filler = host.fill(disk)

        def is_cut():
            return agent.log()[-1:] != "\n"
        # The file's last page is still the agent's. When it is used up the line breaks off.
        harness.wait_until(lambda: is_cut() and os.path.getsize(agent.log_path) % 4096 == 0, "a cut line")
        full = agent.log()
        self.wait_more(3)
        self.assertEqual(agent.log(), full)
        os.unlink(filler)
        agent.wait_log("make_poll result: 1", full.count("make_poll result: 1") + 2)
        agent.stop()
        self.collector.stop()
        log = agent.log()
        self.assertTrue(log.startswith(full))
        self.assertRegex(log[len(full):], r"^\n" + STAMP.pattern)
        # Every block was delivered: the agent never had two passes of results at once.
        self.assertNotIn("Unable to establish", log)


class Removed(host.TestCase):
    def check(self, strike, mend, comes_back):
        """Strikes an agent, and a day later lets it have a new place for its log."""
        shim = host.Shim(self) if comes_back and not harness.SANITIZERS else None
        place = self.subdir("place")
        collector = harness.Collector(self, *self.PLAN).start()
        agent = harness.Agent(self, collector.port, env=shim.env if shim else None,
                              LOGFILE=os.path.join(place, "vindral.log"),
                              PIDFILE=os.path.join(place, "run", "vindral.pid"))
        os.mkdir(os.path.join(place, "run"))
        agent.log_path, agent.pid_path = agent.settings["LOGFILE"], agent.settings["PIDFILE"]
        agent.start()
        collector.wait_test(1, 2)
        before = host.descriptors(agent.process.pid)
        strike(place)
        collector.wait_test(1, len(collector.results()) + 2)
        self.assertEqual(len(host.descriptors(agent.process.pid)), len(before))
        if shim:
            shim.clock_offset_s = host.DAY_S
            collector.wait_test(1, len(collector.results()) + 2)
            mend(place)
            agent.wait_log("make_poll result: 1")
            self.assertRegex(agent.log(), "^" + STAMP.pattern)
            self.assertEqual(len(host.descriptors(agent.process.pid)), len(before))
        agent.stop()
        collector.stop()

    def test_places(self):
        """Expected: the agent goes on polling whatever happens to the files, and ends in order. What it
        logs goes into the file that it has open; from the change of the day on, or as soon after
        it as there is a directory, into a new one."""
        def nothing(_):
            pass

        def log_is_a_directory(place):
            os.unlink(os.path.join(place, "vindral.log"))
            os.mkdir(os.path.join(place, "vindral.log"))

        cases = (
            ("log directory", shutil.rmtree, os.mkdir),
            ("log file", lambda place: os.unlink(os.path.join(place, "vindral.log")), nothing),
            ("log is a directory", log_is_a_directory, nothing),
            ("log is read-only", lambda place: os.chmod(os.path.join(place, "vindral.log"), 0o400),
             nothing))
        harness.in_parallel(self, [(name, lambda s=strike, m=mend: self.check(s, m, True))
                                   for name, strike, mend in cases])

    def test_pid_file(self):
        """Expected: the agent goes on and ends in order; with its PID file gone nothing guards it against a
        second one."""
        self.check(lambda place: shutil.rmtree(os.path.join(place, "run")), None, False)


if __name__ == "__main__":
    harness.main()
