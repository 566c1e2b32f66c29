"""What really passes between agents and a collector: a way through which agents poll, and which keeps all of it.

Both ends speak TLS with it. It hands each request on, whole, and each answer back, whole; where the collector ends in the
middle, so does the agent's connection. Now and then (`lost`, a share of the answers to polls) it loses an answer on the way
back, as networks do. So it knows, without asking either end, which blocks an agent sent, which of them the collector said it has,
and what the agent was told.

    way = Recorder(test, lambda: collector.port)
    way.add("10.9.1.2", "web-1", source="127.0.1.1", identity=(certificate, key))
"""

import collections
import random
import socket
import ssl
import struct
import threading
import time
import zlib

import records
from scripted_server import make_certificate, server_context

AGENT_WAITS_S = 15  # as long as an exchange may take; then an agent gives up
LOG_IN_AGAIN, NOT_AUTHORISED = b"111111", b"666666"

# `answer` is what the collector said, None when it did not come to an end; `delivered`: the agent has it.
Exchange = collections.namedtuple("Exchange", "at agent is_login body answer delivered headers")


class Block:
    """Results as an agent sent them, once or more often."""

    def __init__(self, body, plain):
        self.body = body
        self.records = records.results(plain)
        self.sendings = 0
        self.is_stored = False  # the collector said so
        self.is_over = False    # and the agent heard it
        self.is_twin = False    # it has nothing that the one before had not: all found in the same second
        self.at = time.monotonic()


class Recorded:
    """One agent."""

    def __init__(self, name, source, identity):
        self.name, self.source = name, source
        self.exchanges, self.blocks = [], []
        self.inventories = {}  # the last of each type, with a tab behind each item
        self.context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        self.context.check_hostname, self.context.verify_mode = False, ssl.CERT_NONE
        if identity:
            self.context.load_cert_chain(*identity)
        self.lock = threading.Lock()

    def note(self, exchange, plain):
        with self.lock:
            self.exchanges.append(exchange)
            if not exchange.body:
                return
            block = self.blocks[-1] if self.blocks else None
            if block is None or block.is_over or block.body != exchange.body:
                is_twin = block is not None and block.body == exchange.body
                block = Block(exchange.body, plain)
                block.is_twin = is_twin
                self.blocks.append(block)
                self.inventories.update((record.ui32[0], "".join(record.strings)) for record in records.decode(plain)
                                        if record.ui32[0] in records.INVENTORIES)
            block.sendings += 1
            if exchange.answer is not None and exchange.answer not in (LOG_IN_AGAIN, NOT_AUTHORISED):
                block.is_stored = True
                block.is_over = exchange.delivered

    def told(self):
        """The lines of all answers that arrived, in order: (time, whether it is a login's, lines)."""
        with self.lock:
            return [(e.at, e.is_login, e.answer.decode().splitlines()) for e in self.exchanges
                    if e.delivered and e.answer not in (LOG_IN_AGAIN, NOT_AUTHORISED)]

    def sent(self, since=0):
        """The records that were sent since then, each once."""
        with self.lock:
            return [record for block in self.blocks if block.at >= since for record in block.records]


class Recorder:
    def __init__(self, test, collector_port, lost=0.0, seed=0, address="0.0.0.0"):
        self.collector_port, self.lost, self.dice = collector_port, lost, random.Random(seed)
        self.context = server_context(*make_certificate(test))
        self.context.num_tickets = 0
        self.agents = {}  # by address
        self.errors = []  # that no test expects
        self.lost_answers = self.cut_exchanges = 0
        self.stopping = False
        self.listener = socket.create_server((address, 0), backlog=128)
        self.port = self.listener.getsockname()[1]
        self.threads = set()
        self.acceptor = threading.Thread(target=self._accept)
        self.acceptor.start()
        test.addCleanup(self.stop)

    def add(self, address, name, source=None, identity=None):
        self.agents[address] = Recorded(name, source, identity)
        return self.agents[address]

    def stop(self):
        self.stopping = True
        try:
            self.listener.shutdown(socket.SHUT_RDWR)  # wakes accept
        except OSError:
            pass
        self.acceptor.join()
        self.listener.close()
        for thread in list(self.threads):
            thread.join()
        if self.errors:
            raise self.errors[0]

    def _accept(self):
        while not self.stopping:
            try:
                sock, (address, *_) = self.listener.accept()
            except OSError:
                return
            thread = threading.Thread(target=self._serve, args=(sock, address))
            self.threads.add(thread)
            thread.start()

    def _serve(self, sock, address):
        try:
            sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            sock.settimeout(2 * AGENT_WAITS_S)
            with self.context.wrap_socket(sock, server_side=True) as near:
                self._exchange(near, self.agents[address])
        except (OSError, ssl.SSLError):
            pass  # the agent ended
        except Exception as error:
            self.errors.append(error)
        finally:
            sock.close()
            self.threads.discard(threading.current_thread())

    def _exchange(self, near, agent):
        request = _read_message(near)
        if request is None:
            return
        head, headers, body = request
        plain = _unpack(headers, body)
        answer = self._ask(agent, head, body)
        delivered = False
        if answer is None:
            self.cut_exchanges += 1
        elif "vnd-sessionid" in headers and self.dice.random() < self.lost:
            self.lost_answers += 1
        else:
            try:
                near.sendall(answer[0] + answer[2])
                delivered = True
            except OSError:
                pass
        agent.note(Exchange(time.monotonic(), agent.name, "vnd-sessionid" not in headers, body,
                            None if answer is None else answer[2], delivered, headers), plain)
        if delivered:
            _say_goodbye(near)
        else:  # a reset
            near.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))

    def _ask(self, agent, head, body):
        """The collector's answer: head, headers, body. None when it was not whole."""
        try:
            with socket.create_connection(("127.0.0.1", self.collector_port()), 2 * AGENT_WAITS_S,
                                          (agent.source, 0) if agent.source else None) as sock:
                sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                with agent.context.wrap_socket(sock) as far:
                    far.sendall(head + body)
                    answer = _read_message(far)
                    if answer is not None:
                        _say_goodbye(far)  # as agents do: by that the collector knows that they have it
                    return answer
        except OSError:
            return None


def _say_goodbye(sock):
    try:
        sock.unwrap()
    except (OSError, ValueError):
        pass  # it was faster


def _read_message(sock):
    """Head, its values by lower-case name, and the body; None when it ends before."""
    data = b""
    while b"\r\n\r\n" not in data:
        chunk = sock.recv(65536)
        if not chunk:
            return None
        data += chunk
    at = data.index(b"\r\n\r\n") + 4
    head, body = data[:at], data[at:]
    headers = {}
    for line in head.decode().split("\r\n")[1:]:
        name, _, value = line.partition(":")
        headers[name.lower()] = value.strip()
    length = int(headers.get("content-length", 0))
    while len(body) < length:
        chunk = sock.recv(65536)
        if not chunk:
            return None
        body += chunk
    return head, headers, body


def _unpack(headers, body):
    if not body:
        return b""
    if zlib.adler32(body) != int(headers["vnd-checksum"]):
        raise AssertionError("a body does not fit its sum: %s" % headers)
    if "vnd-compression" not in headers:
        return body
    plain = zlib.decompress(body)
    if len(plain) != int(headers["vnd-compression"]):
        raise AssertionError("a body does not unpack to what its head says: %s" % headers)
    return plain


def compare(agents, rows):
    """What is wrong with what is stored, line by line. `agents`: all that were recorded; `rows`: what is in the store, as
    stored.rows() has it. Blocks of which the collector said that it has them are there once; one that an agent lost before
    it heard that is there once or not at all, but not in part."""
    wrong = []
    found = collections.defaultdict(collections.Counter)
    for row in rows:
        found[row.agent][row.record] += 1
    for agent in agents:
        have = found.pop(agent.name, collections.Counter())
        doubtful = []
        for block in agent.blocks:
            sent = collections.Counter(record.raw for record in block.records)
            if block.is_stored and not block.is_twin:
                for raw in (sent - have).elements():
                    wrong.append("%s: lost: %s, of a block of %d that was sent %d times" % (
                        agent.name, _shown(raw), len(block.records), block.sendings))
                have -= sent
            else:
                doubtful.append(sent)
        for sent in doubtful:
            there = sent & have
            if there and there != sent:
                wrong.append("%s: a block was stored in part" % agent.name)
            have -= there
        wrong += ["%s: stored and not sent, or twice: %s" % (agent.name, _shown(raw)) for raw in have.elements()]
    wrong += ["%s is no agent of ours: %d results" % (name, sum(rest.values())) for name, rest in found.items()]
    return wrong


def _shown(raw):
    record, = records.decode(raw)
    return "type %d, test %d, location %d at %s, %d bytes" % (*record.ui32[:3], record.i64[:1], len(raw))
