"""Replies that break off, and replies that dribble.

Expected: the agent acts on a reply only when it is whole; of one that breaks off, wherever that is, it
runs no command, not even those that came whole, keeps the block and sends it again byte for byte. A
reply that comes a byte at a time is a reply."""

import ssl
import time

import accounts
import harness
from scripted_server import ScriptedServer, accept_login, response

REPLY = response("ABC\t1\nDEFG\t2\n")
INVALID = "ERROR: Invalid test string received: "
FIRST_COMMANDS = "POL\t0\t1\nCHK\t0\t1\nLAA\t7\t3\t-1\t-1\t-1\n"
AGENTS = 12


class Wire:
    """In place of a peer's TLS socket: TLS whose bytes the test passes on itself."""

    def __init__(self, peer):
        self.sock = peer.sock
        self.incoming, self.outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        self.session = peer.server.context.wrap_bio(self.incoming, self.outgoing, server_side=True)
        self._run(self.session.do_handshake)

    def _run(self, function, *arguments):
        while True:
            try:
                value = function(*arguments)
            except ssl.SSLWantReadError:
                value = self
            if self.outgoing.pending:
                self.sock.sendall(self.outgoing.read())
            if value is not self:
                return value
            self.incoming.write(self.sock.recv(65536))

    def recv(self, size):
        return self._run(self.session.read, size)

    def record(self, data):
        """The bytes of a TLS record that holds the data."""
        self.session.write(data)
        return self.outgoing.read()


def cut_plain(length):
    """A reply of so many bytes, then a reset."""
    def step(peer):
        peer.read_request()
        if length:
            peer.send(REPLY[:length])
        peer.reset()
    return step


def read_by_wire(peer):
    """Reads a request and returns the Wire; then the peer sends as it is told, unencrypted."""
    sock, wire = peer.sock, Wire(peer)
    peer.sock, peer.encrypted = wire, True
    peer.read_request()
    peer.sock = sock
    return wire


def cut_record(length):
    """So many bytes of the TLS record that holds the whole reply, then the end of the stream."""
    def step(peer):
        record = read_by_wire(peer).record(REPLY)
        assert len(record) == RECORD_LENGTH
        peer.send(record[:length])
        peer.drop()
    return step


def dribble_plain(peer):
    """A TLS record for each byte."""
    peer.read_request()
    for i in range(len(REPLY)):
        peer.send(REPLY[i:i + 1])
        time.sleep(0.002)
    peer.hold()


def dribble_record(peer):
    """A segment for each byte of the TLS record."""
    for byte in read_by_wire(peer).record(REPLY):
        peer.send(bytes([byte]))
        time.sleep(0.002)
    peer.hold()


RECORD_LENGTH = len(REPLY) + 22  # TLS 1.3: 5 bytes of head, 1 of type, 16 of authentication


class Cut(harness.TestCase):
    def test_at_every_byte(self):
        """A reply of so many bytes and a reset; so many bytes of its TLS record and the end of the stream."""
        steps = [cut_plain(length) for length in range(len(REPLY))]
        steps += [cut_record(length) for length in range(RECORD_LENGTH)]
        harness.in_parallel(self, [("share %d" % n, lambda n=n: self.run_steps(steps[n::AGENTS]))
                                   for n in range(AGENTS)])

    def run_steps(self, steps):
        marks = []

        def begin(peer):  # waits for the first block of records
            if not peer.read_request().body:
                server.first(begin)
                peer.send(response())
                peer.end()
            else:
                marks.append(len(server.requests) - 1)
                peer.drop()

        def whole(peer):
            peer.read_request()
            peer.send(REPLY)
            peer.end()

        server = ScriptedServer(self)
        server.then(accept_login("s", FIRST_COMMANDS), begin, *steps, whole)
        agent = harness.Agent(self, server.port).start()
        server.wait_script()
        harness.wait_until(lambda: len(server.requests) > marks[0] + len(steps) + 2, "a later poll")
        agent.stop()
        self.assertEqual(server.failures, [])
        requests = server.requests[marks[0]:]
        repeated, later = requests[:len(steps) + 2], requests[len(steps) + 2]
        self.assertEqual({request.block() for request in repeated}, {repeated[0].block()})
        self.assertNotEqual(later.block(), repeated[0].block())
        log = agent.log()
        self.assertEqual([log.count(INVALID + code + "\n") for code in ("ABC", "DEFG")], [1, 1])
        self.assertEqual(log.count(INVALID), 2)
        self.assertEqual(log.count("Unable to establish connection to the server."), len(steps) + 1)
        blocks = {request.block(): len(request.plain()) for request in server.requests if request.body}
        accepted, pending = accounts.by_log(log)
        self.assertIn(sum(blocks.values()) - sum(accepted), (0, pending))

    def test_dribbled(self):
        harness.in_parallel(self, [("records", lambda: self.dribbled(dribble_plain)),
                                   ("segments", lambda: self.dribbled(dribble_record))])

    def dribbled(self, step):
        server = ScriptedServer(self)
        server.then(accept_login("s", FIRST_COMMANDS), step)
        agent = harness.Agent(self, server.port).start()
        server.wait_requests(4)
        agent.stop()
        log = agent.log()
        self.assertEqual([log.count(INVALID + code + "\n") for code in ("ABC", "DEFG")], [1, 1])
        self.assertNotIn("Unable to establish", log)


if __name__ == "__main__":
    harness.main()
