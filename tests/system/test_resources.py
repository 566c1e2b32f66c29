"""Descriptors, threads and memory stay where they are, however many polls come and go."""

import os
import re

import harness
import records
from raw_client import RawClient
from scripted_server import ScriptedServer, response

POLLS = 60 if harness.SANITIZERS else 200


def usage(pid):
    """(names of the open files, names of the threads, resident memory in kB)"""
    proc = "/proc/%d/" % pid
    files = harness.open_files(pid).values()
    threads = [harness.read_text("%stask/%s/comm" % (proc, task)).strip()
               for task in os.listdir(proc + "task")]
    memory = int(re.search(r"(?m)^VmRSS:\s+(\d+) kB$", harness.read_text(proc + "status"))[1])
    return sorted(files), sorted(threads), memory


TESTS = range(1, 61 if harness.SANITIZERS else 301)  # so many that a pass ends after the poll thread has begun to wait


class BusyServer(ScriptedServer):
    """Every answer modifies tests; their results wake the agent at once, so that it polls as fast as
    it can. Now and then a poll goes wrong."""

    def __init__(self, test):
        super().__init__(test, default=self.serve)

    def serve(self, peer):
        request = peer.read_request()
        number = len(self.requests)
        if request.is_login:
            adds = "".join("LAA\t%d\t1\t-1\t-1\t-1\n" % test for test in TESTS)
            peer.send(response("POL\t0\t1\n" + adds, "Vnd-SessionID: s"))
        elif number % 60 == 15:
            peer.drop()
            return
        elif number % 60 == 35:
            peer.reset()
            return
        elif number % 60 == 55:
            peer.send(response("111111"))
        else:
            peer.send(response("".join("LAM\t%d\t1\t-1\t-1\t%d\n" % (test, number)
                                       for test in TESTS)))
        peer.end()


class Resources(harness.TestCase):
    @staticmethod
    def idle_usage(pid):
        """The usage at a moment without a connection and amid no pass and no collection."""
        def sample():
            files, threads, memory = usage(pid)
            return not any(name.startswith(("socket:", "/proc")) for name in files) and (files, threads, memory)
        return harness.wait_until(sample, lambda: usage(pid))

    def test_agent(self):
        server = BusyServer(self)
        agent = harness.Agent(self, server.port, level=0).start()
        server.wait_requests(60)
        files, threads, memory = self.idle_usage(agent.process.pid)
        # A sanitizer may have threads of its own beside main.
        self.assertEqual(sorted(set(threads)),
                         ["cpu", "disk", "http", "lda", "log writer", "mem", "mysql", "ndis",
                          "net", "net sampler", "ping", "poll", "proc", "snmp", "vindral"])
        self.assertTrue(harness.SANITIZERS or len(threads) == 15, threads)
        server.wait_requests(60 + POLLS)
        later_files, later_threads, later_memory = self.idle_usage(agent.process.pid)
        self.assertEqual((later_files, later_threads), (files, threads))
        if not harness.SANITIZERS:
            # Blocks of several passes leave holes behind, once. A block that leaked at each poll
            # would take 8 MB by now, a TLS session 20 MB.
            self.assertLess(later_memory - memory, 4096)
            self.assertLess(later_memory, 20 * 1024)

    def test_collector(self):
        collector = harness.Collector(self, "POL\t0\t60").start()
        client = RawClient(collector.port)

        def polls(count):
            session = client.session()
            for number in range(count):
                if number % 10 == 3:
                    client.poll(session, body=b"bad", checksum=1)
                elif number % 10 == 6:
                    client.connect().close()
                elif number % 10 == 9:
                    client.exchange(b"junk\r\n\r\n")
                else:
                    client.poll(session, records.encode_load(
                        records.Load(1, 1, number, (0.0, 0.0, 0.0), "x" * 2000, 0)))
        polls(60)
        files, threads, memory = self.idle_collector(collector)
        polls(2 * POLLS)
        later_files, later_threads, later_memory = self.idle_collector(collector)
        self.assertEqual((later_files, later_threads), (files, threads))
        if not harness.SANITIZERS:
            self.assertLess(later_memory - memory, 4096)

    def idle_collector(self, collector):
        """The usage when all connections are gone; what it listens on is a socket, too."""
        pid = collector.process.pid

        def sample():
            now = usage(pid)
            return sum(name.startswith("socket:") for name in now[0]) == 1 and now
        return harness.wait_until(sample, lambda: usage(pid))


if __name__ == "__main__":
    harness.main()
