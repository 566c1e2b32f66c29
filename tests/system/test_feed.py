"""The feed listener of a real agent: peers over TCP and unix sockets, permitted and not, well-behaved and
hostile. Nobody collects the feed, so what became of it is read from the log."""

import os
import re
import resource
import socket
import struct
import time

import harness
import steered
from scripted_server import answer


class Feed(steered.TestCase):
    MOST = 20 + 2 + 1024 * 1024  # bytes that wait for a length

    def connect(self, port, source="127.0.0.1", to="127.0.0.1"):
        def attempt():
            peer = socket.socket()
            peer.settimeout(harness.PATIENCE_S)
            peer.bind((source, 0))
            if peer.connect_ex((to, port)) == 0:
                return peer
            peer.close()
            return None
        peer = harness.wait_until(attempt, lambda: "port %d\n%s" % (port, self.agent.log()[-2000:]))
        self.addCleanup(peer.close)
        return peer

    def connect_file(self, path):
        def attempt():
            peer = socket.socket(socket.AF_UNIX)
            peer.settimeout(harness.PATIENCE_S)
            if peer.connect_ex(path) == 0:
                return peer
            peer.close()
            return None
        peer = harness.wait_until(attempt, lambda: "socket %s\n%s" % (path, self.agent.log()[-2000:]))
        self.addCleanup(peer.close)
        return peer

    def command(self, *lines):
        self.server.then(answer("".join(line + "\n" for line in lines)))

    def lines(self):
        """The lines of the feed, without their times."""
        found = re.findall(r"Adding new result: (.SV\t\d+\t)(\d+)\t(.*)\n\n", self.agent.log())
        for _, stamp, _ in found:
            self.assertLess(abs(int(stamp) - time.time()), 3600)
        return [head + rest for head, _, rest in found]

    def wait_lines(self, *expected):
        harness.wait_until(lambda: sorted(self.lines()) == sorted(expected),
                           lambda: "%s, have %s" % (expected, self.lines()))

    def resources(self):
        """Descriptors and threads of the agent."""
        return [len(os.listdir("/proc/%d/%s" % (self.agent.process.pid, kind))) for kind in ("fd", "task")]

    def ended(self, peer):
        """Waits for the end that the agent sets to a connection."""
        try:
            self.assertEqual(peer.recv(1), b"")
        except ConnectionResetError:
            pass  # bytes of ours were still unread

    def test_local_programs(self):
        path = os.path.join(self.dir, "socket")
        self.start("USA\t5\t" + path)
        first, second = self.connect_file(path), self.connect_file(path)
        first.sendall(b"5\r\nhel")
        second.sendall(b"3\r\na b3\r\nc\t\xc3")
        self.wait_lines("USV\t5\tlocalhost\ta%2520b\t0", "USV\t5\tlocalhost\tc%2509%25FF\t0")
        first.sendall(b"lo")
        self.wait_lines("USV\t5\tlocalhost\ta%2520b\t0", "USV\t5\tlocalhost\tc%2509%25FF\t0",
                        "USV\t5\tlocalhost\thello\t0")
        self.agent.wait_log("Feed Listener initialization done")
        self.command("USD\t5")
        harness.wait_until(lambda: not os.path.exists(path), "the removal of the socket file")
        first.sendall(b"4\r\nlate")  # an accepted peer stays
        harness.wait_until(lambda: "USV\t5\tlocalhost\tlate\t0" in self.lines(), self.agent.log)

    def test_permitted_hosts(self):
        port = harness.free_port()
        self.start("TSA\t7\t%d\t127.0.0.2;127.0.0.3" % port)
        stranger = self.connect(port)
        stranger.sendall(b"1\r\nx")
        self.agent.wait_log("WARNING: A connection blocked from 127.0.0.1\n")
        self.connect(port, "127.0.0.3").sendall(b"5\r\nhello")
        self.wait_lines("TSV\t7\t127.0.0.3\thello\t0")
        self.command("TSM\t7\t%d\tall" % port)
        self.wait_idle()
        self.connect(port, to="127.0.0.2").sendall(b"1\r\ny")  # every address is listened on
        self.wait_lines("TSV\t7\t127.0.0.3\thello\t0", "TSV\t7\t127.0.0.1\ty\t0")
        stranger.settimeout(0)
        self.assertRaises(BlockingIOError, stranger.recv, 1)  # neither served nor closed
        self.command("TSD\t7", "TSA\t8\t%d\tall" % port)
        stranger.settimeout(harness.PATIENCE_S)
        self.ended(stranger)
        self.connect(port).sendall(b"1\r\nz")  # the same port, at once
        harness.wait_until(lambda: "TSV\t8\t127.0.0.1\tz\t0" in self.lines(), self.agent.log)

    def test_port_in_use(self):
        with socket.create_server(("127.0.0.1", harness.free_port())) as other:
            port = other.getsockname()[1]
            self.start("TSA\t7\t%d\tall" % port)
            self.agent.wait_log("Error running TCP socket listener: 98, Address already in use\n")
            self.wait_lines("USV\t7\tlocalhost\tAddress%2520already%2520in%2520use\t1")
            begin = time.monotonic()
        self.connect(port).sendall(b"5\r\nhello")  # ten seconds later
        self.assertGreater(time.monotonic() - begin, 8)
        harness.wait_until(lambda: "TSV\t7\t127.0.0.1\thello\t0" in self.lines(), self.agent.log)

    def test_new_port(self):
        ports = harness.free_port(), harness.free_port()
        self.start("TSA\t7\t%d\tall" % ports[0])
        self.connect(ports[0])
        self.command("TSM\t7\t%d\tall" % ports[1])
        self.agent.wait_log("INFO: TCP Socket listener will star after 10 seconds\n")
        self.connect(ports[1]).sendall(b"5\r\nhello")
        self.wait_lines("TSV\t7\t127.0.0.1\thello\t0")

    def test_hostile_peers(self):
        port, path = harness.free_port(), os.path.join(self.dir, "socket")
        self.start("TSA\t7\t%d\tall" % port, "USA\t5\t" + path)
        self.connect(port).sendall(b"1\r\nx")
        self.wait_lines("TSV\t7\t127.0.0.1\tx\t0")
        # What is no length waits for more, whatever it is, until it is too much.
        waiting = []
        for sent in (b"hello", b"9" * 100000, b"0" * 21, b"5\rhello"):
            waiting.append((self.connect(port), sent))
            waiting[-1][0].sendall(sent)
        announces = [self.connect(port), self.connect(port)]
        for peer in announces:
            peer.sendall(b"1048577")
        self.connect(port).sendall(b"1\r\ny")
        harness.wait_until(lambda: "TSV\t7\t127.0.0.1\ty\t0" in self.lines(), self.agent.log)
        self.assertNotIn("Error while accepting a connection", self.agent.log())
        for peer, sent in waiting:
            peer.sendall(b"x" * (self.MOST - len(sent)))
            self.ended(peer)
        for peer in announces:
            peer.sendall(b"\r\n")
            self.ended(peer)
        for error, count in (("Protocol error", len(waiting)), ("Message too long", len(announces))):
            self.agent.wait_log("Error while accepting a connection from 127.0.0.1, %s\n" % error,
                                count)
        broken = self.connect(port)
        broken.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        broken.close()
        self.agent.wait_log("connection from 127.0.0.1, Connection reset by peer\n")

        limit = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))
        fds, threads = self.resources()
        peers = [self.connect_file(path) for _ in range(400)]
        self.agent.wait_log("WARNING: A connection refused from localhost, 256 are open\n",
                            400 - 255)
        self.assertLessEqual(self.resources()[0] - fds, 256)
        self.assertLessEqual(self.resources()[1] - threads, 256)
        for peer in peers:
            peer.close()
        harness.wait_until(lambda: self.resources()[1] <= threads, self.resources)
        self.connect(port).sendall(b"2\r\nok")
        harness.wait_until(lambda: "TSV\t7\t127.0.0.1\tok\t0" in self.lines(), self.agent.log)
        self.agent.stop()

    def test_strangers_by_the_thousand(self):
        port = harness.free_port()
        self.start("TSA\t7\t%d\t127.0.0.9" % port)
        first = self.connect(port)
        self.agent.wait_log("WARNING: A connection blocked from 127.0.0.1\n")
        fds, threads = self.resources()
        strangers = [self.connect(port) for _ in range(800)]
        self.agent.wait_log("WARNING: A connection blocked from 127.0.0.1\n", 801)
        self.ended(first)
        strangers[-1].settimeout(0)
        self.assertRaises(BlockingIOError, strangers[-1].recv, 1)
        self.assertLessEqual(self.resources()[0] - fds, 64)
        self.assertEqual(self.resources()[1], threads)
        self.agent.stop()  # with everything open


if __name__ == "__main__":
    harness.main()
