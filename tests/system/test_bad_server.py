"""The agent against a collection server that misbehaves in every way we could think of.

Each case is one poll that carries a block of results. Whatever happens to it, the agent stays alive
and goes on polling. What counts is what becomes of the block: the agent keeps it and sends it again
byte for byte until a poll is accepted."""

import collections
import ssl
import time

import harness
from scripted_server import (ScriptedServer, accept_login, answer, answer_raw, expired_certificate,
                             make_certificate, response, server_context)

# Every add causes a pass over the tests there are, which a sanitizer makes slow.
MANY = 500 if harness.SANITIZERS else 4100

# What becomes of the block:
KEPT = "kept"          # sent again by the next poll, in the same session
ACCEPTED = "accepted"  # gone; the agent goes on in the same session
LOGIN = "login"        # kept; the agent logs in first and then sends it
ENDS = "ends"          # the agent ends itself

LOST = "Unable to establish connection to the server."
INTERNAL = "There is an internal error occurred, while trying to connect to the server."
AGAIN = "Reauthorization is required."
REFUSED = "Authorization failed, Vindral Smart Agent will be terminated."
NO_TLS = "ERROR: make_poll: Cannot make SSL connection. "

Case = collections.namedtuple("Case", "name step fate lines", defaults=((),))
Case.__str__ = lambda case: case.name

FIRST_COMMANDS = "POL\t0\t1\nLAA\t7\t3\t-1\t-1\t-1\n"


def result(code):
    return "INFO: main_worker_thread::make_poll result: %d" % code


# Steps: one connection each.

def close_at_once(peer):
    peer.close()


def reset_at_once(peer):
    """As soon as the agent has begun: a reset before that can end its connecting already."""
    peer.sock.recv(1)
    peer.reset()


def plain_text(peer):
    peer.send(b"HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n")
    peer.hold()


def garbage(peer):
    peer.send(bytes(range(256)) * 8)
    peer.hold()


def handshake_cut_short(how):
    """Lets the agent see the first half of the server's part of the handshake."""
    def step(peer):
        incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        session = peer.server.context.wrap_bio(incoming, outgoing, server_side=True)
        while not outgoing.pending:
            incoming.write(peer.sock.recv(65536))
            try:
                session.do_handshake()
            except ssl.SSLWantReadError:
                pass
        flight = outgoing.read()
        peer.send(flight[:len(flight) // 2])
        getattr(peer, how)()
    return step


def after_handshake(how):
    def step(peer):
        peer.handshake()
        getattr(peer, how)()
    return step


def after_head(how):
    def step(peer):
        peer.read_head()
        getattr(peer, how)()
    return step


def after_request(how, data=b""):
    def step(peer):
        peer.read_request()
        if data:
            peer.send(data)
        getattr(peer, how)()
    return step


def slow(data, pause_s):
    """Answers a byte at a time, each in a TLS record of its own."""
    def step(peer):
        peer.read_request()
        for i in range(len(data)):
            peer.send(data[i:i + 1])
            time.sleep(pause_s)
        peer.hold()
    return step


def slow_wire(data, pause_s):
    """Answers in one TLS record that comes a byte at a time."""
    def step(peer):
        incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        session = peer.server.context.wrap_bio(incoming, outgoing, server_side=True)

        def run(function, *arguments):
            while True:
                try:
                    value = function(*arguments)
                except ssl.SSLWantReadError:
                    value = None
                peer.send(outgoing.read())
                if value is not None or function == session.do_handshake and session.cipher():
                    return value
                incoming.write(peer.sock.recv(65536))
        run(session.do_handshake)
        request = b""
        while b"\r\n\r\n" not in request:
            request += run(session.read, 65536)
        session.write(data)
        for byte in outgoing.read():
            peer.send(bytes([byte]))
            time.sleep(pause_s)
        peer.hold()
    return step


def drip(peer):
    """Goes on answering for longer than a poll may take."""
    peer.read_request()
    peer.send(OK + b"Content-Length: 100000\r\n\r\n")
    try:
        while not peer.server.stopping:
            peer.send(b"x")
            time.sleep(0.1)
    except OSError:
        pass  # the agent has closed


def gives_up(step):
    """A step that ends when the 15 seconds that the agent has for a poll are over."""
    def timed(peer):
        start = time.monotonic()
        step(peer)
        if not peer.server.stopping:
            taken = time.monotonic() - start
            assert 14 < taken < 40, "the agent gave up after %.1f s" % taken
    return timed


def complete_without_end(data):
    """The answer is complete by its length; the server keeps the connection open."""
    return after_request("hold", data)


def raw(head, body=b""):
    return answer_raw(head + body)


OK = b"HTTP/1.0 200 OK\r\n"
POLL_CASES = [
    # Silence for longer than a poll may take. First in the list, since they take their time.
    Case("silence in the handshake", gives_up(lambda peer: peer.hold()), KEPT,
         [result(4), INTERNAL]),
    Case("silence after the request", gives_up(after_request("hold")), KEPT,
         [result(2), "ERROR: receive_response: select: Connection timed out.", LOST]),
    Case("an answer that never ends", gives_up(drip), KEPT, [result(2), "timed out.", LOST]),

    # No connection to speak of.
    Case("closed at once", close_at_once, KEPT, [result(4), NO_TLS, INTERNAL]),
    Case("reset at once", reset_at_once, KEPT, [result(4), NO_TLS, INTERNAL]),
    Case("plain-text server", plain_text, KEPT, [result(4), NO_TLS, INTERNAL]),
    Case("garbage instead of a handshake", garbage, KEPT, [result(4), NO_TLS, INTERNAL]),
    Case("handshake cut, closed", handshake_cut_short("close"), KEPT, [result(4), NO_TLS]),
    Case("handshake cut, reset", handshake_cut_short("reset"), KEPT, [result(4), NO_TLS]),

    # The connection breaks later on: every kind of break but an orderly end keeps the block.
    Case("reset after the handshake", after_handshake("reset"), KEPT, [result(2), LOST]),
    Case("dropped after the handshake", after_handshake("drop"), KEPT, [result(2), LOST]),
    Case("reset after the head", after_head("reset"), KEPT, [result(2), LOST]),
    Case("dropped after the head", after_head("drop"), KEPT, [result(2), LOST]),
    Case("reset after the request", after_request("reset"), KEPT,
         [result(2), LOST, "ERROR: receive_response: SSL_read: "]),
    Case("dropped after the request", after_request("drop"), KEPT,
         [result(2), LOST, "ERROR: receive_response: SSL_read: "]),
    Case("half a head, dropped", after_request("drop", OK + b"Conte"), KEPT, [result(2), LOST]),
    Case("half a body, reset", after_request("reset", OK + b"Content-Length: 90\r\n\r\nPOL"), KEPT,
         [result(2), LOST]),
    Case("half a body, dropped", after_request("drop", OK + b"Content-Length: 90\r\n\r\nPOL"), KEPT,
         [result(2), LOST]),

    # An orderly end is an accepted poll, whatever came before it.
    Case("ended after the handshake", after_handshake("end"), ACCEPTED, [result(1)]),
    Case("ended without an answer", after_request("end"), ACCEPTED, [result(1)]),
    Case("half a head, ended", raw(OK + b"Conte"), ACCEPTED, [result(1)]),
    Case("half a body, ended", raw(OK + b"Content-Length: 90\r\n\r\nXYZ"), ACCEPTED,
         [result(1), "ERROR: Invalid test string received: XYZ"]),
    Case("a head without end", raw(OK + b"X-Filler: abcdefgh\r\n" * 60000), ACCEPTED, [result(1)]),

    # The answer's head.
    Case("status is not looked at", answer_raw(response("XYZ\n", status="500 Oh no")), ACCEPTED,
         [result(1), "ERROR: Invalid test string received: XYZ"]),
    Case("no HTTP at all", raw(b"\x00\x01\x02\xff" * 100), ACCEPTED, [result(1)]),
    Case("two lengths add up", complete_without_end(
        OK + b"Content-Length: 3\r\nContent-Length: 4\r\n\r\nABCDEFG"), ACCEPTED,
         [result(1), "ERROR: Invalid test string received: ABCDEFG", "Content Length: 7; "]),
    Case("a type that begins with digits adds to the length", complete_without_end(
        OK + b"Content-Type: 2x\r\nContent-Length: 3\r\n\r\nABCDE"), ACCEPTED,
         [result(1), "ERROR: Invalid test string received: ABCDE", "Content Length: 5; "]),
    Case("bare line feeds", complete_without_end(
        b"HTTP/1.0 200 OK\nContent-Length: 3\n\nABC"), ACCEPTED,
         [result(1), "ERROR: Invalid test string received: ABC"]),
    Case("no length", raw(OK + b"\r\nXYZ\n"), ACCEPTED, [result(1)]),
    Case("length in words", raw(OK + b"Content-Length: three\r\n\r\nXYZ"), ACCEPTED, [result(1)]),
    Case("negative length", raw(OK + b"Content-Length: -3\r\n\r\nXYZ"), ACCEPTED, [result(1)]),
    Case("length beyond 32 bits", raw(OK + b"Content-Length: 4294967299\r\n\r\nXYZ"), ACCEPTED,
         [result(1)]),
    Case("length beyond 64 bits", raw(OK + b"Content-Length: 99999999999999999999\r\n\r\nXYZ"),
         ACCEPTED, [result(1)]),
    Case("more than announced", raw(OK + b"Content-Length: 2\r\n\r\nABCD"), ACCEPTED, [result(1)]),

    # The session's two special answers: only as the whole body of a poll.
    Case("111111", answer("111111"), LOGIN, [result(3), AGAIN]),
    Case("111111, connection kept open", complete_without_end(response("111111")), LOGIN,
         [result(3), AGAIN]),
    Case("111111 and a line feed", answer("111111\n"), ACCEPTED,
         [result(1), "ERROR: Invalid test string received: 111111"]),
    Case("111111 twice", answer("111111111111"), ACCEPTED,
         [result(1), "ERROR: Invalid test string received: 111111111111"]),
    Case("111111 after something", answer("POL\t0\t1\n111111"), ACCEPTED,
         [result(1), "ERROR: Invalid test string received: 111111"]),
    Case("111111 and more than announced", raw(OK + b"Content-Length: 6\r\n\r\n111111\n"), ACCEPTED,
         [result(1), "ERROR: Invalid test string received: 111111"]),
    Case("111111 as session id of a poll", answer(b"", "Vnd-SessionID: 111111"), ACCEPTED,
         [result(1)]),
    Case("another session id in a poll", answer(b"", "Vnd-SessionID: other"), ACCEPTED, [result(1)]),
    Case("666666", answer("666666"), ENDS, [result(0), REFUSED]),
    Case("666666 and a line feed", answer("666666\n"), ACCEPTED,
         [result(1), "ERROR: Invalid test string received: 666666"]),
    Case("666666 as session id of a poll", answer(b"", "Vnd-SessionID: 666666"), ACCEPTED,
         [result(1)]),

    # The answer's body.
    Case("NUL bytes", answer(b"XYZ\nAB\0C\nDEF\n"), ACCEPTED,
         [result(1), "ERROR: Invalid test string received: XYZ",
          "ERROR: Invalid test string received: AB"]),
    Case("nothing but NUL bytes", answer(b"\0" * 1000), ACCEPTED, [result(1)]),
    Case("nothing but line feeds", answer(b"\n" * 5000), ACCEPTED, [result(1)]),
    Case("nothing but tabs", answer(b"\t" * 5000), ACCEPTED, [result(1)]),
    Case("every byte", answer(bytes(range(1, 256)) * 40), ACCEPTED, [result(1)]),
    Case("one line of 4 MB", answer(b"A" * 4000000), ACCEPTED, [result(1)]),
    Case("8 MB in lines", answer(b"POL\t0\t1\t\n" * 900000), ACCEPTED, [result(1)]),
    Case("thousands of commands", answer(
        "".join("LAA\t%d\t1\t-1\t-1\t-1\n" % i for i in range(100, MANY)) +
        "".join("LAD\t%d\t1\n" % i for i in range(100, MANY)) + "XYZ\n"), ACCEPTED,
         [result(1), "ERROR: Invalid test string received: XYZ"]),
    Case("wrong field counts and zero ids", answer(
        "LAA\nLAA\t1\nLAA\t1\t1\t1\t1\t1\t\t\tx\nLAA\t0\t1\t-1\t-1\t-1\nLAM\t7\nLAD\t7\nPOL\t1\n"
        "CHK\t1\nUPD\t1\t2\nLAA\tx\t1\t-1\t-1\t-1\nCHK\t1\t0\nPOL\t1\t0\nlaa\t9\t1\t1\t1\t1\n"
        "LAAX\t9\t1\t1\t1\t1\nLA\t9\t1\t1\t1\t1\n"), ACCEPTED,
         [result(1), "ERROR: Invalid test string received: laa",
          "ERROR: Invalid test string received: LAAX", "ERROR: Invalid test string received: LA"]),

    # Slow, but within the time that a poll has.
    Case("a byte at a time", slow(response("XYZ\n"), 0.005), ACCEPTED,
         [result(1), "ERROR: Invalid test string received: XYZ"]),
    Case("a TLS record a byte at a time", slow_wire(response("XYZ\n"), 0.005), ACCEPTED,
         [result(1), "ERROR: Invalid test string received: XYZ"]),
]


# Steps for a login. An agent that is not logged in goes on trying.
IN = "in"      # logged in, the block follows
RETRY = "retry"  # not logged in

NAMED = "Vnd-SessionID: session-2"
LOGIN_CASES = [
    Case("closed at once", close_at_once, RETRY, [result(4), NO_TLS]),
    Case("reset at once", reset_at_once, RETRY, [result(4), NO_TLS]),
    Case("plain-text server", plain_text, RETRY, [result(4), NO_TLS]),
    Case("reset after the head", after_request("reset"), RETRY, [result(2), LOST]),
    Case("dropped after the head", after_request("drop"), RETRY, [result(2), LOST]),
    Case("ended without an answer", after_request("end"), RETRY, [result(4), INTERNAL]),
    Case("half a head, ended", raw(OK + b"Vnd-SessionID: session-2"), RETRY, [result(4), INTERNAL]),
    Case("no session id", answer(b""), RETRY, [result(4), INTERNAL]),
    Case("no session id, but commands", answer("XYZ\n"), RETRY, [result(4), INTERNAL]),
    Case("empty session id", answer(b"", "Vnd-SessionID: "), RETRY, [result(4), INTERNAL]),
    Case("session id spelt in lower case", answer(b"", "vnd-sessionid: session-2"), RETRY,
         [result(4), INTERNAL]),
    Case("session id in the body", answer(NAMED + "\r\n"), RETRY, [result(4), INTERNAL]),
    Case("session id in a head of bare line feeds",
         raw(b"HTTP/1.0 200 OK\nVnd-SessionID: session-2\nContent-Length: 0\n\n"), RETRY,
         [result(4), INTERNAL]),
    Case("session id 111111", answer(b"", "Vnd-SessionID: 111111"), RETRY, [result(3), AGAIN]),
    Case("session id 666666", answer(b"", "Vnd-SessionID: 666666"), ENDS, [result(0), REFUSED]),
    Case("session id and a body 111111", answer("111111", NAMED), RETRY, [result(3), AGAIN]),
    Case("session id and a body 666666", answer("666666", NAMED), ENDS, [result(0), REFUSED]),
    Case("session id and a body 111111 with a line feed", answer("111111\n", NAMED), IN,
         [result(1), "ERROR: Invalid test string received: 111111"]),
    Case("session id and commands", answer("XYZ\n", NAMED), IN,
         [result(1), "ERROR: Invalid test string received: XYZ"]),
    Case("session id without a blank", answer(b"", "Vnd-SessionID:session-2"), IN, [result(1)]),
    Case("session id and no length", raw(OK + NAMED.encode() + b"\r\n\r\nXYZ\n"), IN, [result(1)]),
    Case("two session ids", answer(b"", NAMED, "Vnd-SessionID: session-3"), IN, [result(1)]),
    Case("session id of 20 KB", answer(b"", NAMED + "x" * 20000), IN, [result(1)]),
    Case("session id with odd characters", answer(b"", NAMED + " %s%n\t\x01\x7f\xff"), IN, [result(1)]),
]


class Misbehaviour(harness.TestCase):
    def test_polls_and_logins(self):
        polls = [("poll: " + case.name, lambda case=case: self.run_case(case, []))
                 for case in POLL_CASES]
        logins = [("login: " + case.name, lambda case=case: self.run_case(case, [answer("111111")]))
                  for case in LOGIN_CASES]
        harness.in_parallel(self, [("connect: no answer", self.no_answer_to_connect), *polls, *logins],
                            at_once=40)

    def no_answer_to_connect(self):
        hole = harness.black_hole(self)
        agent = harness.Agent(self, hole).start()
        agent.wait_log('Connection to host: "127.0.0.1" timed out after 15 seconds')
        agent.wait_log("ERROR: make_poll: make_connection() failed")
        agent.wait_log(LOST)
        agent.stop()

    def run_case(self, case, before):
        """An agent logs in and gets a test; the first poll that carries its results is dropped, so
        that the agent has a block to send again. Then come the steps in `before`, then the case."""
        dropped = []
        marks = []

        def drop_first_block(peer):
            request = peer.read_request()
            if request.body:
                dropped.append(request)
                peer.drop()
                return
            server.first(drop_first_block)
            peer.send(response())
            peer.end()

        def case_step(peer):
            marks.append(peer.number)
            case.step(peer)

        server = ScriptedServer(self)
        server.then(accept_login("session-1", FIRST_COMMANDS), drop_first_block, *before, case_step)
        agent = harness.Agent(self, server.port).start()
        harness.wait_until(lambda: marks, lambda: "the step; the log:\n" + agent.log())
        if case.fate == ENDS:
            self.assertEqual(agent.process.wait(), 0)
        else:
            self.check_next(case, server, dropped[0], marks[0])
            agent.stop()
        for request in server.requests:
            if request.connection == marks[0] and not before:
                self.assertEqual(request.block(), dropped[0].block())
        self.check_log(case, agent, AGAIN if before else LOST)

    def check_next(self, case, server, block, step):
        """What the agent does in the connections after the one of the step."""
        def later():
            return [request for request in server.requests if request.connection > step]
        session = "session-2" if case.fate == IN else "session-1"
        harness.wait_until(lambda: len(later()) >= 2,
                           lambda: "two polls more, have %d" % len(later()))
        first, second = later()[:2]
        if case.fate in (LOGIN, RETRY):
            self.assertTrue(first.is_login)
            self.assertEqual(first.body, b"")
            self.assertEqual((second.session, second.block()), ("default", block.block()))
        else:
            self.assertTrue(first.session.startswith(session), first.session)
            self.assertEqual(first.block() == block.block(), case.fate != ACCEPTED)
            self.assertNotEqual(second.block(), block.block())

    def check_log(self, case, agent, last_line_before):
        messages = agent.messages()
        since = messages[messages.index(last_line_before) + 1:]
        outcomes = [line for line in since if line.startswith("INFO: main_worker_thread::")]
        self.assertEqual(outcomes[0], case.lines[0])
        text = "\n".join(since) + "\n"
        for line in case.lines[1:]:
            self.assertIn(line, text)


class Certificates(harness.TestCase):
    """The agent takes any certificate; what it cannot do is agree on a protocol with nobody."""

    def test_all_kinds(self):
        rsa = make_certificate(self, "rsa")
        ec = make_certificate(self, "ec")
        accepted = {
            "P-256": server_context(*ec),
            "P-384": server_context(*make_certificate(self, "ec384")),
            "RSA 2048": server_context(*rsa),
            "RSA 4096": server_context(*make_certificate(self, "rsa4096")),
            "Ed25519": server_context(*make_certificate(self, "ed25519")),
            "expired": server_context(*expired_certificate(self)),
            "another host": server_context(*make_certificate(
                self, "ec", "-subj", "/CN=other", "-addext", "subjectAltName=DNS:other")),
            "TLS 1.2 only": self.only_version(server_context(*ec), ssl.TLSVersion.TLSv1_2),
            "TLS 1.3 only": self.only_version(server_context(*ec), ssl.TLSVersion.TLSv1_3),
        }
        no_common_cipher = self.only_version(server_context(*rsa), ssl.TLSVersion.TLSv1_2)
        no_common_cipher.set_ciphers("ECDHE-ECDSA-AES128-GCM-SHA256")  # of no use with an RSA key
        client_certificate = self.only_version(server_context(*ec), ssl.TLSVersion.TLSv1_2)
        client_certificate.verify_mode = ssl.CERT_REQUIRED
        refused = {
            "no common cipher": no_common_cipher,
            "client certificate wanted": client_certificate,
        }
        harness.in_parallel(self, [
            *[(kind, lambda context=context: self.expect_login(context))
              for kind, context in accepted.items()],
            *[(kind, lambda context=context: self.expect_refusal(context))
              for kind, context in refused.items()]])

    @staticmethod
    def only_version(context, version):
        context.minimum_version = context.maximum_version = version
        return context

    def expect_login(self, context):
        server = ScriptedServer(self, context=context)
        agent = harness.Agent(self, server.port).start()
        requests = server.wait_requests(2)
        self.assertEqual([requests[0].session, requests[1].session], [None, "default"])
        agent.stop()

    def expect_refusal(self, context):
        server = ScriptedServer(self, context=context)
        agent = harness.Agent(self, server.port).start()
        agent.wait_log(NO_TLS + "error:")
        agent.wait_log(result(4))
        agent.stop()


if __name__ == "__main__":
    harness.main()
