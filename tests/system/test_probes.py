"""Ping and page checkers of a real agent: a host in a network namespace that answers as told, Debian's
nginx, and very many probes at once."""

import collections
import ctypes
import itertools
import os
import re
import resource
import select
import socket
import struct
import subprocess
import threading
import time

import harness
import peers
import records
import steered
from scripted_server import answer, make_certificate

WITHIN = "ICMP echo results are within acceptable limits"
ALL_LOST = "All sent packages were lost"

ECHO_REPLY, UNREACHABLE, ECHO, TIME_EXCEEDED = 0, 3, 8, 11

Packet = collections.namedtuple("Packet", "arrival ip kind code sum id sequence message")


def checksum(data):
    total = sum(struct.unpack("<%dH" % (len(data) // 2), data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def message(kind, code, rest):
    """An ICMP message; `rest` begins with the four bytes behind the checksum."""
    data = struct.pack("<BBH", kind, code, 0) + rest
    return data[:2] + struct.pack("<H", checksum(data)) + data[4:]


class Host:
    """A host in a network namespace of its own, connected to the tests'. Its kernel answers no echo
    request; `behave(host, packet)` does, with `reply` and `report`."""

    def __init__(self, test, number, behave):
        self.packets = []
        self.behave = behave
        self.address, self.peer = "10.9.%d.2" % number, "10.9.%d.1" % number
        side = harness.far_side(test, number, 2)
        subprocess.run(side.enter + ["sysctl", "-q", "net.ipv4.icmp_echo_ignore_all=1"], check=True)
        self.stopping, stop = os.pipe()
        self.ready = threading.Event()
        self.thread = threading.Thread(target=self._answer, args=(side.pid,))
        self.thread.start()
        test.addCleanup(self.thread.join)
        test.addCleanup(os.close, stop)
        test.assertTrue(self.ready.wait(harness.PATIENCE_S))

    def _answer(self, pid):
        with open("/proc/%d/ns/net" % pid, "rb") as namespace:  # of this thread alone
            CLONE_NEWNET = 0x40000000
            if ctypes.CDLL(None).setns(namespace.fileno(), CLONE_NEWNET) != 0:
                return
        with socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP) as self.socket:
            self.ready.set()
            poller = select.poll()
            poller.register(self.socket, select.POLLIN)
            poller.register(self.stopping, select.POLLHUP)
            while not any(fd == self.stopping for fd, _ in poller.poll()):
                data = self.socket.recv(70000)
                kind, code, check, number, sequence = struct.unpack_from("<BBHHH", data, 20)
                packet = Packet(time.time(), data[:20], kind, code, check, number, sequence, data[20:])
                if kind == ECHO:
                    self.packets.append(packet)
                    self.behave(self, packet)
        os.close(self.stopping)

    def send(self, data):
        self.socket.sendto(data, (self.peer, 0))

    def reply(self, packet, more_id=0, more_sequence=0):
        self.send(message(ECHO_REPLY, 0, struct.pack("<HH", packet.id + more_id,
                                                     packet.sequence + more_sequence)
                          + packet.message[8:]))

    def report(self, packet, kind, code, more_id=0, more_sequence=0):
        """Reports an error about the packet, or one like it."""
        quoted = packet.message[:4] + struct.pack("<HH", packet.id + more_id,
                                                  packet.sequence + more_sequence)
        self.send(message(kind, code, bytes(4) + packet.ip + quoted))


class Echo(steered.TestCase):
    numbers = itertools.count(1)

    def result(self, test):
        """Location, status, lost, time, mean and message of the first record of a test."""
        record = self.wait_record(records.PING, lambda record: record.ui32[1] == test)
        self.assertEqual([len(part) for part in record[1:]], [0, 5, 1, 0, 1, 1, 0])
        return (*record.ui32[2:], record.i64[0], record.d64[0], record.strings[0])

    def probe(self, behave, count=1, timeout=20000, max_lost=0, lost=0, test=None):
        """One round of a test of a host that behaves so. Every raw socket sees the others' messages,
        too, so each has a test id of its own."""
        number = next(self.numbers)
        host = Host(self, number, behave)
        test = test or 1000 + number
        self.start("PGA\t%d\t77\t%s\t56\t%d\t%d\t%d" % (test, host.address, count, timeout, max_lost),
                   before="CHK\t0\t100000\n")
        location, status, really_lost, checked, mean, text = self.result(test)
        failed = lost > max_lost
        self.assertEqual((location, really_lost, status), (77, lost, 2 if failed else 0))
        self.assertEqual(text, "Number of lost packages: %d / Max value: %d" % (lost, max_lost)
                         if failed else WITHIN)
        self.assertEqual(mean > 0, lost < count)
        self.assertLess(abs(checked - time.time()), 3600)
        return host

    @harness.needs_namespaces
    def test_bytes_of_a_request(self):
        host = self.probe(Host.reply, count=3, test=0x10000 + 4711)
        self.assertEqual([(packet.id, packet.sequence) for packet in host.packets],
                         [(4711, 0), (4711, 1), (4711, 2)])
        for packet in host.packets:
            self.assertEqual((len(packet.message), packet.code, packet.ip[8], packet.ip[9]),
                             (64, 0, 64, socket.IPPROTO_ICMP))
            self.assertEqual(checksum(packet.message), 0)
            seconds, microseconds, mark = struct.unpack_from("<qqH", packet.message, 8)
            self.assertLess(abs(seconds + microseconds / 1e6 - packet.arrival), 60)
            self.assertEqual(mark, 10)
            self.assertEqual(packet.message[32:], bytes(32))

    @harness.needs_namespaces
    def test_silence(self):
        self.probe(lambda host, packet: None, count=2, timeout=100, max_lost=1, lost=2)

    @harness.needs_namespaces
    def test_half_lost(self):
        self.probe(lambda host, packet: packet.sequence % 2 or host.reply(packet),
                   count=4, timeout=500, max_lost=2, lost=2)

    @harness.needs_namespaces
    def test_late_replies(self):
        def late(host, packet):
            if packet.sequence == 1:
                host.reply(host.packets[0])
        self.probe(late, count=2, timeout=2000, lost=2)
        self.agent.wait_log("not a proper ICMP_ECHOREPLY\nTYPE: 0\nicmp_seq: 0\nEXP. seq: 1\n")

    @harness.needs_namespaces
    def test_wrong_identifier(self):
        self.probe(lambda host, packet: host.reply(packet, more_id=1000), timeout=300, lost=1)

    @harness.needs_namespaces
    def test_wrong_sequence(self):
        def behave(host, packet):
            host.reply(packet, more_sequence=7)
            host.reply(packet)
        self.probe(behave, count=2)
        self.agent.wait_log("not a proper ICMP_ECHOREPLY\nTYPE: 0\nicmp_seq: 7\nEXP. seq: 0\n")

    @harness.needs_namespaces
    def test_reports_end_the_wait(self):
        host = self.probe(lambda host, packet: host.report(packet, *(
            (TIME_EXCEEDED, 0) if packet.sequence else (UNREACHABLE, 1))), count=2, timeout=900000, lost=2)
        self.agent.wait_log('Received "Host unreachable" from %s.' % host.address)
        self.agent.wait_log('Received "Time to live exceeded in transit" from %s.' % host.address)
        self.agent.wait_log("handle_random_icmp: FAILED!")

    @harness.needs_namespaces
    def test_reports_about_others(self):
        def behave(host, packet):
            host.report(packet, TIME_EXCEEDED, 0, more_id=1000)
            host.report(packet, UNREACHABLE, 0, more_sequence=1)
            host.reply(packet)
        self.probe(behave)
        self.agent.wait_log("handle_random_icmp: Packet is no response to a packet we sent", 2)

    @harness.needs_namespaces
    def test_this_machine(self):
        self.start("PGA\t501\t5\t127.0.0.1\t56\t2\t20000\t0",
                   "PGA\t502\t5\tlocalhost\t65507\t1\t20000\t0", "PGA\t503\t5\tno.such.host.invalid\t56\t4\t1000\t0")
        for test in (501, 502):
            location, status, lost, _, mean, text = self.result(test)
            self.assertEqual((location, status, lost, text), (5, 0, 0, WITHIN))
            self.assertGreater(mean, 0)
        self.assertEqual([self.result(503)[i] for i in (1, 2, 4, 5)], [2, 4, 0.0, ALL_LOST])
        self.agent.wait_log("ping: HOST: no.such.host.invalid DESC: ")

    @harness.needs_namespaces
    def test_without_permission(self):
        self.start("PGA\t1\t5\t127.0.0.1\t56\t2\t1000\t9",
                   wrap=["setpriv", "--bounding-set=-net_raw", "--inh-caps=-net_raw"])
        self.assertEqual([self.result(1)[i] for i in (1, 2, 4, 5)], [2, 2, 0.0, ALL_LOST])
        self.agent.wait_log("ping: socket error: Operation not permitted")


NGINX = """
log_format seen '$request|$http_user_agent|$http_connection|$http_host';
access_log %(dir)s/seen seen;
server {
    listen 127.0.0.1:%(plain)d;
    location = /moved { return 302 /page; }
    location = /away { return 301 https://127.0.0.1:%(rsa)d/page; }
    location = /loop { return 302 /loop; }
    location = /far { return 302 http://127.0.0.1:70000/; }
    location = /form { return 200 "$request_method $content_type $content_length"; }
    location = /secret { auth_basic secret; auth_basic_user_file %(dir)s/users; try_files /page =500; }
}
server { listen 127.0.0.1:%(rsa)d ssl; ssl_certificate %(rsa_pem)s; ssl_certificate_key %(rsa_key)s; }
server { listen 127.0.0.1:%(ec)d ssl; ssl_certificate %(ec_pem)s; ssl_certificate_key %(ec_key)s; }
"""


def start_nginx(test):
    """Serves pages; `seen` lists what was asked for."""
    (rsa_pem, rsa_key), (ec_pem, ec_key) = make_certificate(test, "rsa"), make_certificate(test, "ec")
    nginx = harness.start_peer(test, peers.Nginx, NGINX, ("plain", "rsa", "ec"), rsa_pem=rsa_pem, rsa_key=rsa_key,
                               ec_pem=ec_pem, ec_key=ec_key)
    harness.write_text(nginx.directory + "/users", "user:{PLAIN}pass\n")
    harness.write_text(nginx.directory + "/page", "0123456789abcdef" * 639 + "the needle here\n")
    harness.write_text(nginx.directory + "/large", "x" * (5 << 20))
    return nginx


def page_test(number, path, port, match="", form="", user="", password="", limit="20", tls=0, redirect=0,
              full=1, found=1, method=0, host="127.0.0.1", code="HPA"):
    return "\t".join([code, str(number), "7", host, path, str(port), match, form, user, password, limit,
                      str(tls), str(redirect), str(full), str(found), str(method)])


class Pages(steered.TestCase):
    @harness.needs_namespaces
    def test_nginx(self):
        nginx = start_nginx(self)
        plain_port, rsa, ec = nginx.ports.values()
        plain = "http://127.0.0.1:%d" % plain_port
        nobody = harness.free_port()
        took = r" - \d+\.\d{3} second response time"
        page = 16 * 640
        # Number: test, status, code, size (None: whatever it is), text
        cases = {
            1: (dict(path="/page", match="the needle"), 0, 200, page, "HTTP OK HTTP/1.1 200 OK" + took),
            2: (dict(path="/page", match="no needle"), 2, 200, page, "HTTP CRITICAL - string not found"),
            3: (dict(path="/page", match="the needle", found=0), 2, 200, page,
                "HTTP CRITICAL - string found"),
            4: (dict(path="/page", port=rsa, tls=1, match="the needle"), 0, 200, page,
                "HTTP OK HTTP/1.1 200 OK" + took),
            5: (dict(path="/page", port=ec, tls=1, full=0), 0, 200, page,
                "HTTP OK HTTP/1.1 200 OK" + took),
            6: (dict(path="/moved", redirect=1), 0, 200, page, "HTTP OK HTTP/1.1 200 OK" + took),
            7: (dict(path="/moved"), 0, 302, None, "HTTP OK HTTP/1.1 302 Moved Temporarily" + took),
            8: (dict(path="/away", redirect=1, match="the needle"), 0, 200, page,
                "HTTP OK HTTP/1.1 200 OK" + took),
            9: (dict(path="/loop", redirect=1), 2, 302, None,
                "HTTP WARNING - redirection creates an infinite loop - %s/loop\n" % plain),
            10: (dict(path="/far", redirect=1), 2, 302, None,
                 "HTTP UNKNOWN - Redirection to port above 65535 - %s/far" % plain),
            11: (dict(path="/secret", user="user", password="pass"), 0, 200, page,
                 "HTTP OK HTTP/1.1 200 OK" + took),
            12: (dict(path="/secret", user="user", password="wrong"), 0, 401, None,
                 "HTTP OK HTTP/1.1 401 Unauthorized" + took),
            13: (dict(path="/nothing"), 2, 404, None, "HTTP CRITICAL HTTP/1.1 404 Not Found" + took),
            14: (dict(path="/large", port=rsa, tls=1), 0, 200, 5 << 20,
                 "HTTP OK HTTP/1.1 200 OK" + took),
            15: (dict(path="/page", method=2), 0, 200, 0, "HTTP OK HTTP/1.1 200 OK" + took),
            16: (dict(path="/form", method=1, form="a=b&c", match="POST application/x-www-form-urlencoded 5"),
                 0, 200, 40, "HTTP OK HTTP/1.1 200 OK" + took),
            17: (dict(path="/page", port=nobody), 2, 0, 0, "Connection Failed."),
            18: (dict(path="/page", port=ec), 2, 400, None, "HTTP CRITICAL HTTP/1.1 400 Bad Request" + took),
            19: (dict(path="/page", tls=1), 2, 0, 0, r"CRITICAL - Cannot establish SSL connection. error:.*"),
            20: (dict(path="/page", host="no.such.host.invalid"), 2, 0, 0,
                 "Host: no.such.host.invalid Error: .+"),
        }
        self.start(*[page_test(number, **dict({"port": plain_port}, **case[0]))
                     for number, case in cases.items()])
        for number, (_, status, code, size, text) in cases.items():
            with self.subTest(number=number):
                record = self.wait_record(records.HTTP, lambda record: record.ui32[1] == number)
                self.assertEqual([len(part) for part in record[1:]], [0, 7, 1, 0, 0, 1, 0])
                self.assertEqual((*record.ui32[2:4], record.ui32[5]), (7, status, code))
                if size is not None:
                    self.assertEqual(record.ui32[6], size)
                if "\n" in text or "65535" in text:
                    self.assertEqual(record.strings[0], text)
                else:
                    self.assertRegex(record.strings[0], "^" + text + "$")
                self.assertLess(abs(record.i64[0] - time.time()), 3600)
        self.agent.stop()
        seen = harness.read_text(nginx.directory + "/seen").splitlines()
        self.assertIn("GET /page HTTP/1.0|(null)|close|127.0.0.1", seen)
        self.assertIn("HEAD /page HTTP/1.0|(null)|close|127.0.0.1", seen)

    def test_the_collectors_own_page(self):
        collector = harness.Collector(self)
        collector.start()
        collector.add_to_plan("POL\t0\t1", "CHK\t0\t1", page_test(1, "/", collector.port, "vindral"),
                              page_test(2, "/", collector.port, "vindral", tls=1))
        harness.Agent(self, collector.port).start()
        for number in (1, 2):
            result = collector.wait_test(number)[0]
            self.assertEqual((result["name"], result["status_text"]), ("http", "ok"), result)
            self.assertEqual((result["values"]["code"], result["values"]["size"]), (200, 37))


class Gate:
    """A page server that answers at once, or, while it is closed, when every path of a set is asked for
    at the same time."""

    def __init__(self, test):
        self.wanted = None
        self.waiting = {}
        self.most = 0
        self.lock = threading.Lock()
        self.listener = socket.create_server(("127.0.0.1", 0), backlog=4096)
        self.port = self.listener.getsockname()[1]
        self.stopping, stop = os.pipe()
        self.thread = threading.Thread(target=self._serve)
        self.thread.start()
        test.addCleanup(self.thread.join)
        test.addCleanup(os.close, stop)

    def close(self, paths):
        with self.lock:
            self.wanted = set(paths)

    def open(self):
        return self.wanted is None

    def _serve(self):
        sockets = {}
        poller = select.epoll()
        poller.register(self.listener, select.EPOLLIN)
        poller.register(self.stopping, select.EPOLLHUP)
        while True:
            for fd, _ in poller.poll():
                if fd == self.stopping:
                    for held in [*sockets.values(), *self.waiting, self.listener]:
                        held.close()
                    os.close(self.stopping)
                    return
                if fd == self.listener.fileno():
                    sock, _ = self.listener.accept()
                    sockets[sock.fileno()] = sock
                    poller.register(sock, select.EPOLLIN)
                else:
                    poller.unregister(fd)
                    self._take(sockets.pop(fd))

    def _take(self, sock):
        try:  # a request comes in one piece
            self.waiting[sock] = sock.recv(4096).split(b" ")[1].decode()
        except (OSError, IndexError):
            sock.close()
            return
        with self.lock:
            self.most = max(self.most, len(self.waiting))
            if self.wanted and not self.wanted <= set(self.waiting.values()):
                return
            self.wanted = None
            for held in self.waiting:
                try:
                    held.sendall(b"HTTP/1.0 200 OK\r\nContent-Length: 2\r\n\r\nok")
                except OSError:
                    pass
                held.close()
            self.waiting = {}


class Many(steered.TestCase):
    def setUp(self):
        super().setUp()
        limit = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
        resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))

    @harness.needs_namespaces
    def test_all_of_a_round(self):
        """Every test of a round is under way at once, with more descriptors than the shell gives."""
        count = 500 if harness.SANITIZERS else 2000
        gate = Gate(self)
        tests = range(1, count + 1)
        self.start(*[page_test(test, "/%d" % test, gate.port, limit="600") for test in tests], level=0,
                   wrap=["sh", "-c", 'ulimit -S -n 1024; exec "$@"', "sh"], before="CHK\t0\t100000\n")
        self.wait_idle()
        self.server.then(answer("CHK\t0\t100001\n"))
        harness.wait_until(lambda: {r.ui32[1] for r in self.records(records.HTTP)} == set(tests),
                           lambda: "a result of every test, have %d records" % len(self.records(records.HTTP)))
        with open("/proc/%d/limits" % self.agent.process.pid, encoding="ascii") as limits:
            soft, hard = re.search(r"Max open files +(\d+) +(\d+)", limits.read()).groups()
        self.assertEqual(soft, hard)
        gate.close("/%d" % test for test in tests)
        before = len(self.server.requests)
        self.server.then(answer("CHK\t0\t100002\n"))
        harness.wait_until(gate.open, lambda: "every test at once, have %d" % gate.most)

        def reported():
            return {record.ui32[1] for request in self.server.requests[before:]
                    for record in (request.records() if request.body else [])
                    if record.ui32[0] == records.HTTP and record.ui32[3] == 0}
        harness.wait_until(lambda: len(reported()) == count, lambda: "%d of the tests" % len(reported()))
        self.assertGreaterEqual(gate.most, count)
        self.assertEqual([r.strings for r in self.records(records.HTTP) if r.ui32[3] != 0], [])

    @harness.needs_namespaces
    def test_changes_while_checks_are_under_way(self):
        count = 500
        gate = Gate(self)
        gate.close(["/never"])
        pages = range(1, count + 1)
        self.start(*[page_test(test, "/%d" % test, gate.port, limit="2") for test in pages],
                   *["PGA\t%d\t1\t127.0.0.1\t56\t1\t20000\t0" % test for test in range(1, 51)], level=0,
                   before="CHK\t0\t100000\n")
        self.server.wait_requests(3)
        for turn in range(6):
            lines = [page_test(test, "/%d" % test, gate.port, limit="2", code="HPM")
                     for test in range(1 + turn, count, 7)]
            lines += ["HPD\t%d" % test for test in range(1 + turn, count, 50)]
            lines += [page_test(test, "/%d" % test, gate.port, limit="2")
                      for test in range(1 + turn, count, 50)]
            lines += ["PGM\t%d\t1\t127.0.0.1\t56\t1\t20000\t0\nPGD\t%d\t0\nPGA\t%d\t1\t127.0.0.1\t60\t1\t20000\t0" %
                      (test, test + 1, test + 1) for test in range(1, 50, 2)]
            lines += ["CHK\t0\t%d" % (200000 + turn)]
            self.server.then(answer("".join(line + "\n" for line in lines)))
            harness.wait_until(lambda: len(gate.waiting) >= count // 2, "many checks under way")
        self.server.wait_script()

        def reported(kind):
            return {record.ui32[1] for record in self.records(kind)}
        harness.wait_until(lambda: reported(records.HTTP) == set(pages), "a result of every page test")
        harness.wait_until(lambda: reported(records.PING) == set(range(1, 51)),
                           "a result of every ping test")
        self.assertEqual({record.strings[0] for record in self.records(records.HTTP)},
                         {"HTTP CRITICAL - Connection timed out."})
        self.assertEqual({record.ui32[3] for record in self.records(records.PING)}, {0})
        self.agent.stop()


if __name__ == "__main__":
    harness.main()
