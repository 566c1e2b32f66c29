"""The agent and the collector run out of descriptors, of memory and of threads, and get them back."""

import os
import re
import resource
import signal
import subprocess
import tempfile
import time
import unittest

import host
import harness

ALL = ("CUA\t2\t1\t-1\t-1\t-1\t-1\t-1", "MMA\t3\t1\t-1\t-1\t-1\t-1\t-1", "DKA\t4\t1\t/(x|y)\t1",
       "DKA\t9\t1\t/(x|y)\t1\t1", "PRA\t5\t1\t-1\t-1\t-1\tpython3", "NTA\t6\t1\tlo\t0\t0\t0\t0\t0\t0",
       "PNA\t7\t1\t127.0.0.1\t1\t64\t64\t1000\t100\t100")
FAILED_POLL = "Unable to establish connection to the server."


class Descriptors(host.TestCase):
    @harness.needs_namespaces
    def test_agent(self):
        """Expected: polls fail in words at their usual pace, the checks that need a file skip their pass, and
        none reports something wrong for it; with descriptors again all goes on, nothing is lost,
        nothing stays open."""
        self.start_collector(*ALL).start()
        agent = self.start_agent()
        pid = agent.process.pid
        self.wait_more()
        before = host.descriptors(pid)
        used, began = host.cpu_seconds(pid), time.monotonic()
        with host.Limit(pid, resource.RLIMIT_NOFILE, 3):
            agent.wait_log(FAILED_POLL, 4)
            self.assertLess(host.cpu_seconds(pid) - used, 1)
            self.assertGreater(time.monotonic() - began, 2)
        self.wait_more(3)
        harness.wait_until(lambda: host.descriptors(pid) == before, lambda: host.descriptors(pid))
        self.check_account()


class Memory(host.TestCase):
    @harness.needs_namespaces
    @host.needs_own_libc_calls
    def test_agent(self):
        """Expected: whichever allocation fails, nothing crashes or spins; with memory again all goes on."""
        shim = host.Shim(self)
        self.start_collector(*ALL).start()
        agent = self.start_agent(env=shim.env)
        pid = agent.process.pid
        self.wait_more()
        for every in (1, 3, 31, 499):
            with self.subTest(every):
                failed, used = shim.failed, host.cpu_seconds(pid)
                shim.fail_every = every
                harness.wait_until(lambda: shim.failed > failed + 5 or agent.process.ended(), "failures")
                shim.fail_every = 0
                self.assertLess(host.cpu_seconds(pid) - used, 1)
                self.assertFalse(agent.process.ended(), agent.log()[-3000:])
                self.wait_more()
        agent.stop()

    @harness.needs_namespaces
    @host.needs_own_libc_calls
    def test_results(self):
        """Expected: what the checkers had is lost at no step on its way to the server: with memory again,
        all that was collected is stored, once. (Log lines are small enough to get their memory.)"""
        shim = host.Shim(self)
        collector = self.start_collector(*("LAA\t%d\t1\t-1\t-1\t-1" % test for test in range(2, 40))).start()
        agent = self.start_agent(env=shim.env)
        self.wait_more()
        shim.fail_from_bytes = 1000

        def strike(every):
            """Two polls."""
            before = agent.log().count("make_poll result: ")
            shim.fail_every = every
            agent.wait_log("make_poll result: ", before + 2)
            shim.fail_every = 0
            self.wait_more()

        def strike_under_way():
            """The same while the results of a whole pass wait for their answer; false if there were less."""
            os.kill(collector.process.pid, signal.SIGSTOP)
            try:
                harness.wait_until(lambda: re.search(r"get_lda_results data size: \d{4}",
                                                     agent.log().rpartition("make_poll result: ")[2]), "a pass", 5)
                shim.fail_every = 1
            except AssertionError:
                return False
            finally:
                os.kill(collector.process.pid, signal.SIGCONT)
            strike(1)
            return True

        strike(3)
        strike(1)
        harness.wait_until(strike_under_way, "the moment")
        self.check_account()

    @harness.needs_namespaces
    @unittest.skipIf(harness.SANITIZERS, "a sanitizer takes more address space than there is memory")
    def test_start(self):
        """Expected: with too little address space the program is not loaded, or says what it could not do
        and ends with status 0, before or after it is a daemon; or it starts, and polls with what it
        can get. Never a signal, never a hang."""
        collector = self.start_collector().start()

        def attempt(megabytes):
            agent = harness.Agent(self, collector.port, name="agent%d" % megabytes,
                                  wrap=["prlimit", "--as=%d" % (megabytes << 20)])
            parent = agent.run()
            pid = harness.read_text(agent.pid_path)
            self.assertIn(parent.returncode, (0, 1, 127), megabytes)
            if parent.returncode != 1 or not pid:
                return
            try:
                agent.adopt()
            except ProcessLookupError:
                return
            harness.wait_until(lambda: agent.process.ended() or "make_poll result" in agent.log(),
                               agent.log)
            if agent.process.ended():
                self.assertEqual(agent.process.status, 0)
            else:
                agent.stop()
        harness.in_parallel(self, [(str(size), lambda m=size: attempt(m))
                                   for size in (2, 4, 5, 6, 7, 8, 9, 10, 12, 14, 16, 20, 32, 64)])


NOBODY = 54321  # root has no limit of threads


AS_NOBODY = ["setpriv", "--reuid=%d" % NOBODY, "--clear-groups"]


class Threads(host.TestCase):
    @harness.needs_namespaces
    def test_agent(self):
        """Expected: where no thread or child can be made a page test and a remote query say so or are left
        out, all else goes on; with threads again these do, too. Nothing is lost."""
        if subprocess.run(AS_NOBODY + ["test", "-x", harness.AGENT], check=False).returncode != 0:
            self.skipTest("the build directory is closed to an ordinary user")
        port = harness.free_port()
        self.start_collector("HPA\t20\t1\tlocalhost\t/\t%d\t\t\t\t\t5\t0\t0\t0\t1\t0" % port,
                             "LAA\t21\t1\t-1\t-1\t-1\t127.0.0.1;%d;public" % port).start()
        for directory in (tempfile.tempdir, self.dir):
            os.chmod(directory, 0o711)
        rising = harness.RisingLoad(self)
        self.agent = agent = harness.Agent(
            self, self.collector.port, wrap=harness.mounted(rising.path, "/proc/loadavg") + AS_NOBODY)
        os.chown(agent.dir, NOBODY, NOBODY)
        agent.start()
        pid = agent.process.pid
        self.collector.wait_test(20)
        self.wait_more()
        used = host.cpu_seconds(pid)
        before = agent.log()

        def allow(threads):
            subprocess.run(AS_NOBODY + ["prlimit", "--pid", str(pid), "--nproc=%d:" % threads], check=True)
        allow(1)
        self.wait_more(4)
        allow(resource.getrlimit(resource.RLIMIT_NPROC)[0])
        self.assertLess(host.cpu_seconds(pid) - used, 1)
        self.assertIn("Thread creation Failed, Error: 11, ", agent.log()[len(before):])
        self.collector.wait_test(20, len([r for r in self.collector.results() if r["test"] == 20]) + 2)
        self.check_account()


if __name__ == "__main__":
    harness.main()
