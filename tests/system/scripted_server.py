"""A collection server that does exactly what a test tells it to, well or badly.

    server = ScriptedServer(test)
    server.then(accept_login("s1", "POL\t0\t1\n"), reset_after_request)
    ...
    server.wait_requests(3)

Each connection takes the next step of the script, or the default step when the script is used up. A
step is a function of one Peer and does everything on that connection; the connection is dropped when
it returns. What agents sent is kept in `server.requests`, in order of arrival.
"""

import collections
import os
import select
import socket
import ssl
import struct
import threading
import time
import zlib

import records
from harness import PATIENCE_S, wait_until
import peers  # where harness has found it


class Request:
    """One request as it came: head text, header values by lower-case name, body bytes."""

    def __init__(self, head, body, connection):
        self.head = head
        self.connection = connection  # which of the server's connections brought it, from 1
        self.lines = head.decode("utf-8", "surrogateescape").split("\r\n")
        self.headers = {}
        for line in self.lines[1:]:
            name, colon, value = line.partition(":")
            if colon:
                self.headers[name.lower()] = value.strip()
        self.body = body
        self.time = time.monotonic()

    @property
    def is_login(self):
        return "vnd-sessionid" not in self.headers

    @property
    def session(self):
        return self.headers.get("vnd-sessionid")

    def plain(self):
        """The block of records, checked against what the head says of it."""
        compression = int(self.headers.get("vnd-compression", "0"))
        checksum = int(self.headers.get("vnd-checksum", "0"))
        if checksum and checksum != zlib.adler32(self.body):
            raise AssertionError("checksum %d does not fit the body" % checksum)
        plain = zlib.decompress(self.body) if compression else self.body
        if compression and compression != len(plain):
            raise AssertionError("%d bytes announced, %d found" % (compression, len(plain)))
        return plain

    def records(self):
        return records.decode(self.plain())

    def block(self):
        """Everything of a poll that a second sending must repeat."""
        return (self.body, self.headers.get("vnd-compression"), self.headers.get("vnd-checksum"))


class Peer:
    """One connection, as a step of the script sees it."""

    def __init__(self, sock, server, number):
        sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        sock.settimeout(PATIENCE_S)
        self.sock = sock
        self.server = server
        self.number = number  # counted from 1
        self.encrypted = False

    def handshake(self):
        self.sock = self.server.context.wrap_socket(self.sock, server_side=True)
        self.encrypted = True

    def read_head(self):
        """Reads up to the empty line. Returns the head and what came after it."""
        if not self.encrypted:
            self.handshake()
        data = b""
        while b"\r\n\r\n" not in data:
            chunk = self.sock.recv(65536)
            if not chunk:
                raise ConnectionError("the request ended in its head")
            data += chunk
        head, _, rest = data.partition(b"\r\n\r\n")
        return head, rest

    def read_request(self):
        """Reads and keeps one whole request."""
        head, body = self.read_head()
        request = Request(head, b"", self.number)
        length = int(request.headers["content-length"])
        while len(body) < length:
            chunk = self.sock.recv(65536)
            if not chunk:
                raise ConnectionError("the request ended in its body")
            body += chunk
        request.body = body
        self.server._keep(request)
        return request

    def send(self, data):
        self.sock.sendall(data)

    def end(self):
        """Ends the TLS session in order and closes."""
        try:
            self.sock.unwrap()
        except (OSError, ValueError):
            pass  # the agent closed first; ours was on its way
        self.close()

    def drop(self):
        """Closes without ending the TLS session: the agent sees the bytes stop."""
        try:
            self.sock.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self.close()

    def reset(self):
        """Closes with a TCP reset."""
        self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.close()

    def hold(self):
        """Stays silent until the agent closes or the server is stopped."""
        poller = select.poll()
        poller.register(self.sock.fileno(), select.POLLRDHUP | select.POLLHUP | select.POLLERR)
        while not self.server.stopping and not poller.poll(50):
            pass

    def close(self):
        self.sock.close()


def response(body=b"", *headers, status="200 OK", length=None):
    """The bytes of an answer: status line, `headers`, Content-Length, body."""
    body = body.encode() if isinstance(body, str) else body
    head = ["HTTP/1.0 " + status, *headers]
    head.append("Content-Length: %d" % (len(body) if length is None else length))
    return ("\r\n".join(head) + "\r\n\r\n").encode() + body


def accept_login(session="session-1", commands=""):
    """A step: answers a login with a session id and commands."""
    def step(peer):
        peer.read_request()
        peer.send(response(commands, "Vnd-SessionID: " + session))
        peer.end()
    return step


def answer(body=b"", *headers):
    """A step: answers any request with this body."""
    return answer_raw(response(body, *headers))


def answer_raw(data):
    """A step: answers any request with these bytes and a clean end."""
    def step(peer):
        peer.read_request()
        peer.send(data)
        peer.end()
    return step


def well_behaved(peer):
    """The default step: a login gets a session, a poll an empty answer."""
    request = peer.read_request()
    peer.send(response(b"", *(["Vnd-SessionID: default"] if request.is_login else [])))
    peer.end()


class ScriptedServer:
    def __init__(self, test, certificate=None, default=well_behaved, context=None,
                 address=("127.0.0.1", 0)):
        self.requests = []
        self.connections = 0  # accepted so far
        self.failures = []    # connections that broke in a step
        self.errors = []      # mistakes found by steps; they fail the test
        self.stopping = False
        self.default = default
        self._script = collections.deque()
        self._lock = threading.Lock()
        self._threads = []
        self.context = context or server_context(*(certificate or make_certificate(test)))
        self._listener = socket.create_server(address, backlog=64)
        self.port = self._listener.getsockname()[1]
        self._acceptor = threading.Thread(target=self._accept)
        self._acceptor.start()
        test.addCleanup(self.stop)

    def then(self, *steps):
        with self._lock:
            self._script.extend(steps)
        return self

    def first(self, step):
        """Puts a step before the others: a step that has not seen what it waits for does so."""
        with self._lock:
            self._script.appendleft(step)

    def wait_requests(self, count, timeout_s=None):
        """Waits until `count` whole requests came in all, and returns them."""
        wait_until(lambda: len(self.requests) >= count,
                   lambda: "%d requests, have %s, failures %s" % (
                       count, [r.lines[0:4] for r in self.requests], self.failures), timeout_s)
        with self._lock:
            return list(self.requests)

    def wait_script(self):
        """Waits until every step of the script has been taken."""
        wait_until(lambda: not self._script, "the script to be used up")

    def stop(self):
        self.stopping = True
        try:
            self._listener.shutdown(socket.SHUT_RDWR)  # wakes accept
        except OSError:
            pass
        self._acceptor.join()
        self._listener.close()
        for thread in self._threads:
            thread.join()
        if self.errors:
            raise self.errors[0]

    def _keep(self, request):
        with self._lock:
            self.requests.append(request)

    def _accept(self):
        while not self.stopping:
            try:
                sock, _ = self._listener.accept()
            except OSError:
                return
            with self._lock:
                self.connections += 1
                number = self.connections
                step = self._script.popleft() if self._script else self.default
            thread = threading.Thread(target=self._serve, args=(Peer(sock, self, number), step))
            self._threads.append(thread)
            thread.start()

    def _serve(self, peer, step):
        try:
            step(peer)
        except (OSError, ValueError) as error:
            self.failures.append(repr(error))
        except Exception as error:
            self.errors.append(error)
        finally:
            peer.close()


def server_context(certificate, key):
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(certificate, key)
    return context


_made = {}
_made_lock = threading.Lock()


def make_certificate(test, algorithm="ec", *options):
    """Paths of a self-signed certificate and its key, made once per test and kind."""
    with _made_lock:
        kind = (test.dir, algorithm, options)
        if kind not in _made:
            base = os.path.join(test.dir, "certificate-%d" % len(_made))
            _made[kind] = peers.make_certificate(base, algorithm, *options)
        return _made[kind]


def expired_certificate(test):
    certificate, key = make_certificate(test)
    expired = os.path.join(test.dir, "expired.crt")
    peers.openssl("x509", "-in", certificate, "-signkey", key, "-days", "-1", "-out", expired)
    return expired, key
