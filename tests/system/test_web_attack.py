#!/usr/bin/env python3
"""Who means harm to the API of a running collector: each gets an answer or an end, the others what they ask for, and
no agent's result is lost meanwhile."""

import json
import os
import re
import socket
import struct
import threading
import time

import asking
import harness
import raw_client
import records

HOST = b"Host: localhost\r\n"
LABELS = re.compile(r'\{(?:[a-z_]+="(?:[^"\\\n]|\\[\\"n])*",?)*\} ')


class Beside(threading.Thread):
    """An agent that polls meanwhile, each time with a result."""

    def __init__(self, test, collector):
        super().__init__(daemon=True)
        self.collector = collector
        self.client = raw_client.RawClient(collector.port)
        self.session = self.client.session(agent="beside")
        self.ended, self.sent, self.wrong = threading.Event(), 0, []
        test.addCleanup(self.ended.set)
        self.start()

    def run(self):
        while not self.ended.is_set():
            load = records.Load(1, 7, int(time.time()), (0.5, 0.25, 0.125), "fine %d" % self.sent, 0)
            answer = self.client.poll(self.session, records.encode_load(load))
            if answer is None or not answer.status.endswith("200 OK"):
                self.wrong.append(answer)
                return
            self.sent += 1
            self.ended.wait(0.02)

    def check(self, test, more=5):
        """Goes on, and everything is there."""
        before = self.sent
        harness.wait_until(lambda: self.wrong or self.sent >= before + more, "polls beside the attack")
        self.ended.set()
        self.join(harness.PATIENCE_S)
        test.assertEqual(self.wrong, [])
        test.assertEqual(len(self.collector.rows()), self.sent)


class Attack(harness.TestCase):
    def setUp(self):
        super().setUp()
        self.collector = asking.Asked(self, "POL\t0\t1", "CHK\t0\t1", "LAA\t1\t1\t-1\t-1\t-1").start()
        self.beside = Beside(self, self.collector)

    def connect(self):
        connection = socket.create_connection(("127.0.0.1", self.collector.web_port), timeout=harness.PATIENCE_S)
        self.addCleanup(connection.close)
        return connection

    def said(self, data):
        """All that is answered until the end."""
        connection, text = self.connect(), b""
        try:
            connection.sendall(data)
            while piece := connection.recv(65536):
                text += piece
        except ConnectionResetError:
            pass
        connection.close()
        return text

    def descriptors(self):
        return len(os.listdir("/proc/%d/fd" % self.collector.process.pid))

    def test_no_second_request_hides_in_the_first(self):
        hidden = b"GET /healthz HTTP/1.1\r\n" + HOST + b"\r\n"
        post = b"POST /sign-in HTTP/1.1\r\n" + HOST
        for status, text in (
                (400, post + b"Content-Length: 2\r\nContent-Length: 2\r\n\r\n{}"),
                (400, post + b"Content-Length: 2, 2\r\n\r\n{}"),
                (400, post + b"Content-Length: +2\r\n\r\n{}"),
                (400, post + b"Content-Length: 2\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"),
                (411, post + b"Transfer-Encoding: chunked\r\n\r\n2;a=b\r\n{}\r\n0\r\n\r\n"),
                (411, post + b"Transfer-Encoding: identity\r\n\r\n"),
                (400, post + b"Transfer-Encoding : chunked\r\n\r\n0\r\n\r\n"),
                (413, post + b"Content-Length: 18446744073709551615\r\n\r\n"),
                (417, post + b"Expect: 200-ok\r\nContent-Length: 2\r\n\r\n{}"),
                (400, b"GET / HTTP/1.1\r\n Host: localhost\r\n\r\n"),
                (400, b"GET / HTTP/1.1\r\nHost: localhost\nX: y\r\n\r\n"),
                (400, b"GET / HTTP/1.1\r\nHost: localhost\r\nX: a\0b\r\n\r\n"),
                (400, b"GET http://other/ HTTP/1.1\r\n" + HOST + b"\r\n"),
                (400, b"CONNECT localhost:80 HTTP/1.1\r\nHost: localhost:80\r\n\r\n"),
                (505, b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n"),
                (400, b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + bytes(60) + b"\r\n\r\n"),
                (414, b"GET /" + b"a" * 9000 + b" HTTP/1.1\r\n" + HOST + b"\r\n"),
                (431, b"GET / HTTP/1.1\r\n" + HOST + b"X: " + b"a" * 20000 + b"\r\n\r\n"),
                (421, b"GET / HTTP/1.1\r\nHost: rebound.example.org\r\n\r\n")):
            answer = self.said(text + hidden)
            self.assertEqual((answer[9:12].decode(), answer.count(b"HTTP/1.1 ")), (str(status), 1), (text, answer))
            head, _, body = answer.partition(b"\r\n\r\n")
            self.assertIn(b"application/problem+json", head)
            self.assertEqual(json.loads(body)["status"], status)
        self.beside.check(self)

    def test_a_flood_by_nobody_keeps_nobody_out(self):
        """More than an address may ask in a minute. Whoever watches over the collector is answered all the same, as is
        who has a token."""
        flood = 4000
        connection = self.connect()
        sender = threading.Thread(target=connection.sendall, daemon=True,
                                  args=((b"GET /x HTTP/1.1\r\n" + HOST + b"\r\n") * flood,))
        sender.start()
        text = b""
        while text.count(b"HTTP/1.1 ") < flood:
            piece = connection.recv(1 << 20)
            self.assertNotEqual(piece, b"", text[-1000:])
            text += piece
        sender.join(harness.PATIENCE_S)
        self.assertEqual(set(re.findall(rb"HTTP/1\.1 (\d+)", text)), {b"404", b"429"})
        for _ in range(20):
            answer = self.said(b"GET /healthz HTTP/1.1\r\n" + HOST + b"Connection: close\r\n\r\n")
            self.assertEqual(answer[9:12], b"200", answer)
        self.assertEqual(self.collector.ask("/api/v1/agents")[0], 200)
        self.beside.check(self)

    def test_those_who_go_in_the_middle_leave_nothing_behind(self):
        attacker = self.collector.add_token("attacker", "viewer")
        self.assertEqual(self.collector.ask("/api/v1/agents")[0], 200)
        before = self.descriptors()
        token = b"Authorization: Bearer " + attacker.encode() + b"\r\n"
        pieces = (b"", b"GET /api/v1/agents HT", b"GET /openapi.json HTTP/1.1\r\n" + HOST + token + b"\r\n",
                  b"POST /sign-in HTTP/1.1\r\n" + HOST + b"Content-Length: 1000000\r\n\r\n{",
                  b"GET /api/v1/stream HTTP/1.1\r\n" + HOST + token + b"\r\n", os.urandom(3000))
        silent = []
        for number in range(300):
            connection = self.connect()
            connection.sendall(pieces[number % len(pieces)])
            if number % 4 == 0:
                connection.shutdown(socket.SHUT_WR)
            elif number % 4 == 1:
                connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            if number % 4 == 3:
                silent.append(connection)
            else:
                connection.close()
        self.assertEqual(self.collector.ask("/api/v1/agents")[0], 200)
        for connection in silent:
            connection.close()
        # that of the agent's poll comes and goes
        harness.wait_until(lambda: self.descriptors() <= before + 2, lambda: "%d descriptors" % self.descriptors())
        self.beside.check(self)

    def test_names_and_messages_of_agents_stay_in_their_place(self):
        """Nothing of them is another line of the log or of the measurements, or steers a terminal."""
        names = ['a"b\\c{}=,', "<b>x</b>", "rtl\u202eevil", "# HELP x", "%2F/..", "\u009b31m"]
        message = "\x1b[31m\nvindral-collector: 2026-01-01T00:00:00Z audit: forged\r\n\u202e"
        for name in names:
            client = raw_client.RawClient(self.collector.port)
            session = client.session(account='<i>&"@e', agent=name)
            load = records.Load(1, 7, int(time.time()), (1.7e308, -1.7e308, 5e-324), message, 1)
            self.assertEqual(client.poll(session, records.encode_load(load)).status, "HTTP/1.0 200 OK")
        harness.wait_until(lambda: len(self.collector.get("/api/v1/agents")["items"]) == len(names) + 1, "all agents")
        self.assertLessEqual(set(names), {agent["name"] for agent in self.collector.get("/api/v1/agents")["items"]})
        status, _, text = self.collector.ask("/metrics?fleet")
        self.assertEqual(status, 200)
        for line in text.splitlines():
            if "{" in line and not line.startswith("# "):
                self.assertRegex(line, LABELS)
        self.assertIsNone(re.search("[\x00-\x09\x0b-\x1f\x7f-\x9f]", text))
        log = self.collector.errors()
        self.assertIsNone(re.search("[\x00-\x09\x0b-\x1f\x7f-\x9f\u202e]", log))
        self.assertNotIn("\nvindral-collector: 2026-01-01", log)
        self.beside.ended.set()


if __name__ == "__main__":
    harness.main()
