"""The peers of checks stop in the middle of an answer: pages, TLS handshakes, MySQL servers, SNMP agents,
clients of the feed. (A MySQL server that stops at a query: see the tests of that checker.)

Expected: each check reports its failure when its own time is over, and not before; only a TLS handshake
that stops is waited for beyond the test's time-out (for ten minutes at most), and ends as soon as the
peer closes. Tests of other peers go on meanwhile; tests are removed and the agent ends at once, whatever
its checks still wait for."""

import os
import socket
import threading
import time

import accounts  # noqa: F401
import harness
import records
import steered
from scripted_server import ScriptedServer, answer
from test_mysql import mysql
from test_probes import page_test
from test_snmp import get

LIMIT_S = 2
HEAD = b"HTTP/1.0 200 OK\r\nContent-Length: 100\r\n\r\n"
HANDSHAKE = bytes.fromhex("160303007a020000760303")  # the beginning of a server's hello
GREETING = bytes.fromhex("4a0000000a") + b"8.0.33\0"  # the beginning of a 74-byte packet


def says(data, asks=True):
    """A peer that says this, once it is asked, and then nothing more."""
    def step(peer):
        if asks:
            peer.sock.recv(65536)
        if data:
            peer.send(data)
        peer.hold()
    return step


def says_in_tls(data):
    def step(peer):
        peer.handshake()
        says(data)(peer)
    return step


def says_until(gone, data):
    """The same, but it closes when `gone` is set."""
    def step(peer):
        peer.sock.recv(65536)
        if data:
            peer.send(data)
        while not gone.wait(0.05) and not peer.server.stopping:
            pass
    return step


PAGES = [  # what the peer does, by TLS or not, what is reported
    (says(b""), 0, "HTTP CRITICAL - Connection timed out."),
    (says(b"HTTP/1."), 0, "HTTP CRITICAL - Connection timed out."),
    (says(HEAD[:30]), 0, "HTTP CRITICAL - Connection timed out."),
    (says(HEAD), 0, "HTTP CRITICAL - Connection timed out."),
    (says(HEAD + b"x" * 50), 0, "HTTP CRITICAL - Connection timed out."),
    (says_in_tls(b""), 1, "HTTP CRITICAL - Connection timed out."),
    (says_in_tls(HEAD + b"x" * 50), 1, "HTTP CRITICAL - Connection timed out."),
]
HANDSHAKES = [b"", HANDSHAKE]
MYSQL = [says(b"", asks=False), says(GREETING, asks=False)]


class SnmpPeer:
    """Answers the first half of what it is asked, which is no message."""

    def __init__(self, test):
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.bind(("127.0.0.1", 0))
        self.sock.settimeout(0.1)
        self.port = self.sock.getsockname()[1]
        self.stopping = False
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()
        test.addCleanup(self.stop)

    def serve(self):
        while not self.stopping:
            try:
                data, asker = self.sock.recvfrom(4096)
                self.sock.sendto(data[:len(data) // 2], asker)
            except OSError:
                pass

    def stop(self):
        self.stopping = True
        self.thread.join()
        self.sock.close()


class Peers(steered.TestCase):
    def peer(self, step):
        self.peers.append(ScriptedServer(self, default=step))
        return self.peers[-1].port

    def count(self, kind, test):
        return sum(record.ui32[1] == test for record in self.records(kind))

    def test_stop_in_the_middle(self):
        self.peers = []
        handshakes = range(40, 40 + len(HANDSHAKES))
        lines = [page_test(test, "/", self.peer(says(data)), limit=str(LIMIT_S), tls=1)
                 for test, data in zip(handshakes, HANDSHAKES)]
        gone = [threading.Event() for _ in handshakes]
        for peer, each, data in zip(self.peers, gone, HANDSHAKES):
            peer.then(says_until(each, data))  # later handshakes last
        good = self.peer(lambda peer: (peer.sock.recv(4096), peer.send(HEAD + b"x" * 100)))
        snmp = SnmpPeer(self)
        feed = os.path.join(self.dir, "feed")
        pages = range(1, 1 + len(PAGES))
        lines += [page_test(test, "/", self.peer(step), limit=str(LIMIT_S), tls=tls)
                  for test, (step, tls, _) in zip(pages, PAGES)]
        lines += [page_test(50, "/", good), "LAA\t51\t1\t-1\t-1\t-1", "USA\t52\t" + feed]
        databases = range(60, 60 + len(MYSQL))
        lines += [mysql(test, self.peer(step), "port", timeout=LIMIT_S)
                  for test, step in zip(databases, MYSQL)]
        lines += [get(70, snmp.port, "1.3.6.1.2.1.1.3.0", timeout=LIMIT_S, retries=0)]
        self.start(*lines)
        self.feed(feed)

        for test, (_, _, text) in zip(pages, PAGES):
            with self.subTest(page=test):
                record = self.wait_record(records.HTTP, lambda r, test=test: r.ui32[1] == test)
                self.assertEqual(record.ui32[3], 2)
                self.assertTrue(record.strings[0].startswith(text), record.strings)
                self.check_time(record.ui32[4])
        for test in databases:
            with self.subTest(database=test):
                record = self.wait_record(records.MYSQL, lambda r, test=test: r.ui32[1] == test)
                self.assertEqual(record.ui32[3], 3)
                self.assertIn("Lost connection to server at", record.strings[1])
                self.check_time(record.ui32[4])
        record = self.wait_record(records.SNMP, lambda r: r.ui32[1] == 70)
        self.assertEqual((record.ui32[3], record.strings[0]),
                         (3, "Timeout: No response from 127.0.0.1:%d" % snmp.port))
        self.check_time(record.d64[0])
        for kind, test in ((records.HTTP, 50), (records.LOAD_AVERAGE, 51)):
            harness.wait_until(lambda kind=kind, test=test: self.count(kind, test) >= 4,
                               lambda test=test: "rounds of test %d" % test)
        self.assertEqual({r.ui32[3] for r in self.records(records.HTTP) if r.ui32[1] == 50}, {0})

        for test, each in zip(handshakes, gone):
            self.assertEqual(self.count(records.HTTP, test), 0)
            each.set()
            record = self.wait_record(records.HTTP, lambda r, test=test: r.ui32[1] == test)
            self.assertRegex(record.strings[0], "^CRITICAL - Cannot establish SSL connection. ")

        # Now with checks that would last: removed, they are not begun again; the agent waits for none.
        held = [page_test(80 + n, "/", self.peer(step), limit="600", tls=tls)
                for n, (step, tls, _) in enumerate(PAGES)]
        held += [page_test(90 + n, "/", self.peer(says(data)), limit="600", tls=1)
                 for n, data in enumerate(HANDSHAKES)]
        self.server.then(answer("".join("HPD\t%d\n" % test for test in pages) +
                                "".join("MQD\t%d\n" % test for test in databases) +
                                "SPD\t70\n" + "".join(line + "\n" for line in held)))
        self.server.wait_script()
        self.wait_idle(4)
        counts = [(self.count(records.HTTP, test), self.count(records.LOAD_AVERAGE, 51)) for test in pages]
        self.wait_idle(4)
        for before, test in zip(counts, pages):
            self.assertLessEqual(self.count(records.HTTP, test) - before[0], 3)  # what was under way
            self.assertGreater(self.count(records.LOAD_AVERAGE, 51), before[1])
        began = time.monotonic()
        self.agent.stop()
        self.assertLess(time.monotonic() - began, 30)

    def check_time(self, milliseconds):
        self.assertGreaterEqual(milliseconds, LIMIT_S * 1000 - 50)
        self.assertLess(milliseconds, LIMIT_S * 1000 + 10000)

    def feed(self, path):
        """One client stops in the middle of its message; another one's is taken."""
        harness.wait_until(lambda: os.path.exists(path), "the feed's socket")
        for sent in (b"5\r\nhel", b"5\r\nwhole"):
            client = socket.socket(socket.AF_UNIX)
            self.addCleanup(client.close)
            client.connect(path)
            client.sendall(sent)
        self.agent.wait_log("localhost\twhole\t0")
        self.assertNotIn("localhost\thel", self.agent.log())


if __name__ == "__main__":
    harness.main()
