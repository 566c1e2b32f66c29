"""The account of a fault: what agents collected and sent against what the collector stored. No record
may be lost or doubled, whatever broke in between.

Import it first: it makes the modules of the system tests known."""

import itertools
import os
import re
import socket
import sqlite3
import ssl
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))

import harness  # noqa: E402
import records  # noqa: E402
from scripted_server import ScriptedServer  # noqa: E402

# What makes the account exact: the load averages that agents read rise all the time (RisingLoad), so
# that no two records are alike. To the collector a block that is byte for byte the last one of its
# agent is that block.
PLAN = ["POL\t0\t1", "CHK\t0\t1", "LAA\t1\t1\t-1\t-1\t-1", "LAA\t2\t1\t0\t-1\t-1"]

_POLL_LINES = re.compile(r"INFO: (?:(Collecting) results|collect_result::(\w+) data size: (\d+)|"
                         r"(data cache size)|main_worker_thread::make_poll result: (\d))")


def by_log(log, inventories=True):
    """Sizes of the blocks, with or without their inventories, that an agent's log (of LOGLEVEL 6) shows as accepted,
    and of the one that is still to be accepted."""
    accepted, pending, collected, logged_in = [], None, 0, False
    for collecting, source, size, is_block, result in _POLL_LINES.findall(log):
        if collecting:
            collected = 0
        elif source:
            collected += int(size) if inventories or source not in harness.INVENTORY_SOURCES else 0
        elif is_block:
            pending = collected
        elif result == "1" and not logged_in:
            logged_in = True  # a login carries no records
        elif result == "1" and pending is not None:
            accepted.append(pending)
            pending = None
        elif result == "3":
            logged_in = False
    return accepted, pending or 0


def check_agent(test, agent, rows, killed=False):
    """`rows` are all of the agent's. What its log says was accepted is stored, and nothing else but
    possibly the block that it had in hand when it ended. An agent that was killed took the end of
    its log along: no less than what the log says is stored."""
    accepted, pending = by_log(agent.log(), inventories=False)
    stored = sum(len(row.record) for row in rows)
    if killed:
        test.assertGreaterEqual(stored, sum(accepted), agent.dir)
    else:
        test.assertIn(stored - sum(accepted), (0, pending), "%s: accepted %s, then %d; stored %d" % (
            agent.dir, accepted, pending, stored))
        # Nothing was lost inside the agent either: what it collected is what it sent.
        collected = agent.collected(inventories=False)
        test.assertIn(sum(collected) - sum(accepted), {0, pending, collected[-1] if collected else 0})
    check_order(test, rows)


def check_order(test, rows):
    """The load averages of each test rise: a block that was stored twice would go back. Two passes that
    follow at once on one another, as a login's CHK makes them, may have read the same."""
    loads = {}
    for row in rows:
        if row.type == records.LOAD_AVERAGE:
            value = records.as_load(records.decode(row.record)[0]).values[0]
            test.assertGreaterEqual(value, loads.get((row.agent, row.test), 0), row[:6])
            loads[row.agent, row.test] = value


def check_store(test, collector):
    """The database is whole."""
    path = os.path.join(collector.state, "results.db")
    connection = sqlite3.connect("file:%s?mode=ro" % path, uri=True, timeout=harness.PATIENCE_S)
    try:
        test.assertEqual(connection.execute("PRAGMA integrity_check").fetchall(), [("ok",)])
    finally:
        connection.close()


class Proxy(ScriptedServer):
    """Ends the TLS of both sides and passes requests on to a collector. `strike(phase, request)` is
    called in each phase of each exchange and may kill and restart the collector."""

    def __init__(self, test, collector, strike=lambda phase, request: None):
        self.collector = collector
        self.strike = strike
        self.answered = []  # requests that the collector answered as stored, or as logged in
        self.accepted = []  # requests whose answer went back to the agent
        self._client = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        self._client.check_hostname = False
        self._client.verify_mode = ssl.CERT_NONE
        super().__init__(test, default=self.relay)

    def relay(self, peer):
        request = peer.read_request()
        self.strike("before the connection", request)
        answer = self.ask(request)
        if answer is None:
            peer.drop()
            return
        if not answer.endswith((b"\r\n\r\n111111", b"\r\n\r\n666666")):
            self.answered.append(request)
        self.strike("before the answer is passed on", request)
        if self.lose_answer(request):
            peer.drop()
            return
        peer.send(answer[:len(answer) // 2])
        self.strike("half the answer", request)
        if self.lose_answer(request):
            peer.drop()
            return
        peer.send(answer[len(answer) // 2:])
        self.accepted.append(request)
        peer.end()
        self.strike("after the answer", request)

    def lose_answer(self, request):
        return False

    def ask(self, request):
        """The collector's answer, or None when the collector did not end it in order."""
        try:
            with socket.create_connection(("127.0.0.1", self.collector.port),
                                          timeout=harness.PATIENCE_S) as plain:
                plain.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                self.strike("connected", request)
                with self._client.wrap_socket(plain, suppress_ragged_eofs=False) as secure:
                    self.strike("after the handshake", request)
                    head = request.head + b"\r\n\r\n"
                    secure.sendall(head[:len(head) // 2])
                    self.strike("half the head", request)
                    secure.sendall(head[len(head) // 2:])
                    self.strike("before the body", request)
                    middle = len(request.body) // 2
                    secure.sendall(request.body[:middle])
                    self.strike("half the body", request)
                    secure.sendall(request.body[middle:])
                    self.strike("whole request", request)
                    answer = b""
                    while True:
                        chunk = secure.recv(65536)
                        if not chunk:
                            return answer
                        answer += chunk
        except OSError:
            return None

    def blocks(self):
        """The blocks of records that were sent, each once, as plain bytes in the order of sending."""
        plain = [request.plain() for request in list(self.requests) if request.body]
        return [block for block, _ in itertools.groupby(plain)]

    def check(self, test, stored, life_of=lambda request: 0):
        """`stored` are the records of the agents behind this proxy, in order: those of the blocks that
        the collector has confirmed, and nothing else but the block that an agent had in hand when it
        ended. `life_of` tells which of the agents that came one after the other sent a request."""
        confirmed = {id(request) for request in self.answered}
        blocks = []
        for block, requests in itertools.groupby(
                [request for request in self.requests if request.body], lambda r: r.plain()):
            requests = list(requests)
            blocks.append((block, life_of(requests[-1]),
                           any(id(request) in confirmed for request in requests)))
        stored, at = b"".join(stored), 0
        for i, (block, life, sure) in enumerate(blocks):
            if not sure:
                later = i + 1 < len(blocks) and blocks[i + 1][1]
                test.assertNotEqual(life, later, "an agent gave up block %d" % i)
            block = records.without_inventories(block)
            if stored.startswith(block, at):
                at += len(block)
            elif sure:
                raise AssertionError("block %d of %d is not stored, or not in its place" % (
                    i, len(blocks)))
        test.assertEqual(at, len(stored), "something was stored twice")
