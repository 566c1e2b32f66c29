"""What happens to the collector's store and to the collector while agents report: the disk is full at a
restart, the directory goes away, the file is damaged, descriptors and memory run out."""

import glob
import http.client
import os
import resource
import shutil
import socket
import subprocess

import host
import harness

FAULTY = "results cannot be stored, the agents keep them: "
FINE = "results are stored again"


class Store(host.TestCase):
    @harness.needs_namespaces
    def test_restart_with_a_full_disk(self):
        """Expected: a collector that is killed while the disk is full, and started again, refuses polls and
        destroys nothing; with room again everything is stored, once."""
        collector = self.start_collector()
        host.mount_small(self, collector.state, "600k")
        collector.start()
        self.start_agent()
        self.wait_more()
        filler = host.fill(collector.state)
        collector.wait_errors(FAULTY)
        collector.kill()
        refused = collector.errors().count(FAULTY)
        collector.start()
        collector.wait_errors(FAULTY, refused + 1)
        os.unlink(filler)
        collector.wait_errors(FINE)
        self.wait_more()
        self.check_account()

    @harness.needs_namespaces
    def test_removed_directory(self):
        """Expected: what was stored is gone with the directory, and that is said. The agents keep what they
        have until there is one again; from then on all is stored, in a new file, once."""
        collector = self.start_collector().start()
        self.start_agent()
        self.wait_more()
        shutil.rmtree(collector.state)
        collector.wait_errors("results.db was removed while it was in use: ")
        collector.wait_errors(FAULTY)
        self.agent.wait_log("Unable to establish connection to the server.", 2)
        gone = len(self.records_printed())
        os.mkdir(collector.state, 0o700)
        collector.wait_errors(FINE)
        self.wait_more(3)
        self.agent.stop()
        # Also a block whose answer was on its way when the file went: it may be stored in both.
        self.assertIn(len(collector.rows()) - (len(self.records_printed()) - gone), (0, 1))
        collector.stop()

    def records_printed(self):
        return [result for result in self.collector.results() if result["test"] == 1]

    @harness.needs_namespaces
    def test_read_only_directory(self):
        """Expected: a collector that may not write does not start, and says where; the agent keeps what
        it has until one can."""
        collector = self.start_collector()
        host.mount_small(self, collector.state, "4m")
        collector.start()
        self.start_agent()
        self.wait_more()
        collector.stop()
        subprocess.run(["mount", "-o", "remount,ro", collector.state], check=True)
        done = collector.launch().process.wait(harness.PATIENCE_S)
        self.assertEqual(done, 1)
        self.assertIn("cannot use the state directory %s: Read-only file system\n" % collector.state,
                      collector.errors())
        subprocess.run(["mount", "-o", "remount,rw", collector.state], check=True)
        collector.start()
        self.wait_more()
        self.check_account()

    def test_damaged(self):
        """Expected: a file that is no longer whole is left as it is. Where that shows at once the collector
        does not start and names the file; else it starts, gives the file another name, says so, and stores
        the results in a new one."""
        collector = self.start_collector().start()
        self.wait_stored(collector)
        collector.stop()
        with open(os.path.join(collector.state, "results.db"), "rb") as file:
            whole = file.read()
        page = 8192

        def check(name, data, starts):
            other = harness.Collector(self, *self.PLAN, name=name)
            shutil.copytree(collector.state, other.state)
            path = os.path.join(other.state, "results.db")
            harness.write_text(path, data)
            if starts:
                other.start()
                agent = harness.Agent(self, other.port, name="agent-" + name).start()
                other.wait_errors("results.db is damaged (database disk image is malformed): it is kept as ")
                other.wait_test(1, 2)
                agent.stop()
                other.stop()
                path, = glob.glob(os.path.join(other.state, "results-damaged-*.db"))
            else:
                self.assertEqual(other.launch().process.wait(harness.PATIENCE_S), 1)
                self.assertRegex(other.errors(), "results.db: (database disk image is malformed"
                                                 "|file is not a database)\n")
            with open(path, "rb") as file:
                self.assertEqual(file.read(), data)

        harness.in_parallel(self, [(name, lambda n=name, d=data, s=starts: check(n, d, s))
                                   for name, data, starts in (
            ("cut", whole[:len(whole) // 2], False),
            ("head", whole[:100], False),
            ("junk-schema", whole[:100] + b"\xa5" * (page - 100) + whole[page:], False),
            ("zeros", bytes(len(whole)), False),
            ("junk-pages", whole[:page] + b"\xa5" * (len(whole) - page), True),
            ("zero-pages", whole[:page] + bytes(len(whole) - page), True))])

    def wait_stored(self, collector):
        agent = harness.Agent(self, collector.port).start()
        collector.wait_test(1, 2)
        agent.stop()


class Exhausted(host.TestCase):
    @harness.needs_namespaces
    def test_descriptors(self):
        """Expected: without descriptors the collector says so and takes no more connections, without a
        spin; with descriptors again everything is stored, once, and nothing stays open."""
        collector = self.start_collector().start()
        self.start_agent()
        self.wait_more()
        pid = collector.process.pid
        before = host.descriptors(pid)
        used = host.cpu_seconds(pid)
        with host.Limit(pid, resource.RLIMIT_NOFILE, 3):
            collector.wait_errors("cannot accept connections: Too many open files")
            self.agent.wait_log("make_poll result: ", self.agent.log().count("make_poll result: ") + 1)
            self.assertLess(host.cpu_seconds(pid) - used, 1)
        self.wait_more()
        harness.wait_until(lambda: host.descriptors(pid) == before, lambda: host.descriptors(pid))
        self.check_account()

    @harness.needs_namespaces
    @host.needs_own_libc_calls
    def test_memory(self):
        """Expected: whichever allocation fails, the collector stays, and what it could not store comes
        again; with memory again everything is stored, once."""
        shim = host.Shim(self)
        collector = self.start_collector(env=shim.env).start()
        self.start_agent()
        self.wait_more()
        for every in (1, 2, 5, 31, 307):
            failed = shim.failed
            shim.fail_every = every
            harness.wait_until(lambda: shim.failed > failed + 2 or collector.process.poll() is not None,
                               "failures of one in %d" % every)
            shim.fail_every = 0
            self.assertIsNone(collector.process.poll(), (every, collector.errors()[-2000:]))
            self.wait_more()
        self.check_account()

    @harness.needs_namespaces
    @host.needs_own_libc_calls
    def test_no_memory_at_all(self):
        """Expected: while there is none, and nothing comes, the threads that look after things stay all the same."""
        shim = host.Shim(self)
        collector = self.start_collector(env=shim.env).start()
        self.ask(collector.port)  # it has started, to the last timer
        shim.fail_every = 1
        failed = shim.failed
        harness.wait_until(lambda: shim.failed > failed + 40 or collector.process.poll() is not None,
                           "forty failures")
        self.assertIsNone(collector.process.poll(), collector.errors()[-2000:])
        shim.fail_every = 0
        self.start_agent()
        self.wait_more()
        self.check_account()

    @staticmethod
    def ask(port):
        connection = http.client.HTTPConnection("127.0.0.1", port, timeout=harness.PATIENCE_S)
        try:
            connection.request("GET", "/")
            return connection.getresponse().status
        finally:
            connection.close()

    @staticmethod
    def count_sockets(pid):
        return sum(name.startswith("socket:") for name in harness.open_files(pid).values())

    @harness.needs_namespaces
    @host.needs_own_libc_calls
    def test_no_memory_for_a_connection(self):
        """Expected: those that come meanwhile are ended, and whoever comes when there is memory again is answered."""
        shim = host.Shim(self)
        collector = self.start_collector(env=shim.env)
        web_port_file = os.path.join(collector.dir, "web-port")
        collector.start("--web", "127.0.0.1:0", "--web-port-file", web_port_file)
        pid = collector.process.pid
        for port in collector.port, int(harness.read_text(web_port_file)):
            before, sockets = self.ask(port), self.count_sockets(pid)
            # Those that stay leave nothing over of what earlier ones had.
            many = [socket.create_connection(("127.0.0.1", port)) for _ in range(8)]
            harness.wait_until(lambda most=sockets + 6: self.count_sockets(pid) >= most, "most of them")
            failed, shim.fail_every = shim.failed, 1
            many += [socket.create_connection(("127.0.0.1", port)) for _ in range(4)]
            harness.wait_until(lambda was=failed: shim.failed > was + 2, "failures")
            shim.fail_every = 0
            for one in many:
                one.close()
            self.assertEqual(self.ask(port), before)


if __name__ == "__main__":
    harness.main()
