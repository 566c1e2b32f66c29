"""A connection to the server ends at each step of a poll: by TLS' closing alert, by the end of the stream
alone, by a reset.

Expected: a poll that breaks off, or ends in its handshake, is a failed one: the block of records is
kept and sent again byte for byte. The alert after the handshake is an orderly end and so an accepted
poll, whatever the server had read or said before: the block is dropped, and each step sees a new one.
(The collector never ends a poll that it has not stored in that way.)"""

import socket
import ssl

import accounts
import harness
from scripted_server import ScriptedServer, accept_login, response

FIRST_COMMANDS = "POL\t0\t1\nCHK\t0\t1\nLAA\t7\t3\t-1\t-1\t-1\n"
HALF_REPLY = b"HTTP/1.0 200 OK\r\nContent-Length: 90\r\n\r\nABC"
CLOSE_NOTIFY = bytes((21, 3, 3, 0, 2, 1, 0))  # while nothing is encrypted yet


def read_part(peer, body):
    """Reads the head and about that part of the body, no more."""
    head = b""
    while not head.endswith(b"\r\n\r\n"):
        head += peer.sock.recv(1)
    length = next(int(line.split(b":")[1]) for line in head.split(b"\r\n")
                  if line.lower().startswith(b"content-length:"))
    wanted = int(length * body)
    while wanted:
        wanted -= len(peer.sock.recv(wanted))


def at_once(peer):
    peer.sock.recv(1)


def half_handshake(peer):
    incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
    session = peer.server.context.wrap_bio(incoming, outgoing, server_side=True)
    while not outgoing.pending:
        incoming.write(peer.sock.recv(65536))
        try:
            session.do_handshake()
        except ssl.SSLWantReadError:
            pass
    flight = outgoing.read()
    first_record = 5 + int.from_bytes(flight[3:5], "big")
    peer.send(flight[:first_record])


def after_handshake(peer):
    peer.handshake()


def half_head(peer):
    peer.handshake()
    peer.sock.recv(20)


def after_head(peer):
    peer.handshake()
    read_part(peer, 0)


def half_body(peer):
    peer.handshake()
    read_part(peer, 0.5)


def whole_request(peer):
    peer.read_request()


def half_reply(peer):
    peer.read_request()
    peer.send(HALF_REPLY)


IN_HANDSHAKE = [at_once, half_handshake]
LATER = [after_handshake, half_head, after_head, half_body, whole_request, half_reply]


def alert(peer):
    """The alert, then the end of the stream; what the agent still sends is taken."""
    if peer.encrypted:
        peer.sock.settimeout(0)
        try:
            peer.sock.unwrap()
        except (OSError, ValueError):
            pass  # the agent's own alert has not come
    else:
        peer.send(CLOSE_NOTIFY)
    stream_end(peer)


def stream_end(peer):
    with socket.socket(fileno=peer.sock.detach()) as raw:
        raw.settimeout(harness.PATIENCE_S)
        raw.shutdown(socket.SHUT_WR)
        while raw.recv(65536):
            pass


def reset(peer):
    peer.reset()


class Ends(harness.TestCase):
    def run_steps(self, steps, end):
        """An agent whose polls with records take these steps, one each. Returns the blocks that
        came before the first step and after each, the results of the steps' polls, and the account."""
        seen = []

        def watch(peer):
            request = peer.read_request()
            if request.body:
                seen.append(request.block())
                peer.drop()
            else:
                server.first(watch)
                peer.send(response())
                peer.end()

        def ended(step):
            def ending(peer):
                step(peer)
                end(peer)
            return ending

        server = ScriptedServer(self)
        server.then(accept_login("s", FIRST_COMMANDS), watch)
        for step in steps:
            server.then(ended(step), watch)
        agent = harness.Agent(self, server.port).start()
        server.wait_script()
        harness.wait_until(lambda: len(seen) > len(steps), "the last block")
        before = len(server.requests)
        server.wait_requests(before + 2)
        agent.stop()
        results = [line[-1] for line in agent.messages()
                   if line.startswith("INFO: main_worker_thread::make_poll result: ")]
        # The polls of the steps are every second one after the first block.
        first = results.index("2")
        return seen, results[first + 1:first + 1 + 2 * len(steps):2], accounts.by_log(agent.log())

    def broken(self, end):
        blocks, results, _ = self.run_steps(IN_HANDSHAKE + LATER, end)
        self.assertEqual(len(set(blocks)), 1)
        self.assertEqual(results, ["4"] * len(IN_HANDSHAKE) + ["2"] * len(LATER))

    def orderly(self):
        blocks, results, (accepted, _) = self.run_steps(IN_HANDSHAKE + LATER, alert)
        self.assertEqual(results, ["4"] * len(IN_HANDSHAKE) + ["1"] * len(LATER))
        self.assertEqual(len(set(blocks[:len(IN_HANDSHAKE) + 1])), 1)
        self.assertEqual(len(set(blocks)), 1 + len(LATER))
        self.assertGreaterEqual(len(accepted), len(LATER))

    def test_at_every_step(self):
        harness.in_parallel(self, [("alert", self.orderly), ("end of stream", lambda: self.broken(stream_end)),
                                   ("reset", lambda: self.broken(reset))])


if __name__ == "__main__":
    harness.main()
