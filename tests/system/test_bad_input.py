"""Malformed input from outside: configuration files and plans, and strangers on the collector's port."""

import random
import re
import socket
import ssl
import struct

import harness
from raw_client import RawClient
from scripted_server import ScriptedServer


class Configuration(harness.TestCase):
    def dump(self, text):
        """Output of an agent that reads this configuration, and dumps it, and goes no further."""
        agent = harness.Agent(self)
        text = text.encode("utf-8", "surrogateescape") if isinstance(text, str) else text
        # Without a PID file there is nothing to start.
        harness.write_text(agent.conf, text + b"\nLOGLEVEL\t2\n")
        agent.env.pop("VINDRALHOME", None)
        done = agent.run("-C", agent.conf, config=False)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertEqual(harness.sanitizer_findings(agent.dir), "")
        return done.stdout

    def settings(self, text):
        """The values of the first line of the dump, by their names."""
        lines = self.dump(text).partition("\nhost:")[2]
        return dict(re.findall(r"(?m)^([a-zA-Z]+):\t(.*)$", "host:" + lines))

    def test_lines(self):
        """Each line and what it makes of the e-mail address or says."""
        for line, value, says in (
                ("USEREMAIL a@b", "a@b", ""),
                ("USEREMAIL\t \t a@b \t ", "a@b", ""),
                ("USEREMAIL a b  c", "a b  c", ""),
                ("USEREMAIL a@b\r", "a@b", ""),
                ("USEREMAIL", "N/A", ""),
                ("USEREMAIL   ", "N/A", ""),
                (" USEREMAIL a@b", "N/A", ""),
                ("\tUSEREMAIL a@b", "N/A", ""),
                ("#USEREMAIL a@b", "N/A", ""),
                ("USEREMAIL=a@b", "=a@b", ""),
                ("USEREMAIL-X a@b", "-X a@b", ""),
                ("=USEREMAIL a@b", "N/A", ""),
                ("USEREMAIL a@b\nUSEREMAIL c@d", "a@b", ""),
                ("useremail a@b", "N/A", "\nInvalid entry in configuration file:\nKey:\tuseremail\n"
                                         "Val:\ta@b\n"),
                ("USEREMAILX a@b", "N/A", "\nInvalid entry in configuration file:\nKey:\tUSEREMAILX\n"
                                          "Val:\ta@b\n"),
                ("USER EMAIL", "N/A", "\nInvalid entry in configuration file:\nKey:\tUSER\n"
                                      "Val:\tEMAIL\n"),
                ("%s%n %s%n", "N/A", ""),
                ("USEREMAIL %s%n%d", "%s%n%d", ""),
                ("USEREMAIL a\0b", "a", ""),
                ("\0USEREMAIL a", "N/A", ""),
                ("\udcc3USEREMAIL a", "N/A", ""),
                ("USEREMAIL \udcff\udcfe\x01", "\udcff\udcfe\x01", "")):
            output = self.dump(line)
            self.assertIn("\nemail:\t%s\n" % value, output, repr(line))
            self.assertEqual(output.partition("\nhost:")[0], says, repr(line))

    def test_levels(self):
        for value, level in (("3 ", 3), ("3x", 3), ("99999999999", 2147483647), ("+5", 5)):
            self.assertIn("\n\t   Log Level:\t%d\n" % level, self.dump_last("LOGLEVEL " + value))
        for value in ("x", "=3", "-1", "-99999999999", "0", "1"):
            self.assertEqual(self.dump_last("LOGLEVEL " + value), "")
        self.assertEqual(self.dump_last(" LOGLEVEL 3\nLOGLEVEL 0"), "")

    def dump_last(self, text):
        """Like dump, but the text has the last word."""
        agent = harness.Agent(self)
        harness.write_text(agent.conf, text + "\n")
        return agent.run("-C", agent.conf, config=False).stdout

    def test_urls(self):
        for url, host in (("https://h.example.net/p?q=1", "h.example.net:443/p?q=1"),
                          ("http://h/", "h:80/"), ("https://h:8443/a/b", "h:8443/a/b"),
                          ("https://h:0/", "h:443/"), ("http://h:65536/", "h:443/"),
                          ("http://h:x/", "h:443/"), ("https://h:-5/", "h:-5/"),
                          # Rejected: the defaults stay.
                          ("h.example.net/p", None), ("http://h", None), ("://", None), ("/", None),
                          ("x" * 900, None)):
            shown = self.settings("USEHOST " + url)["host"]
            self.assertEqual(shown, host or "localhost:443/fcgi-bin/agentgateway", url)
        self.assertEqual(self.settings("USEHOST http://a/x\nUSEHOST http://b/y\nUSEHOST bad")["host"],
                         "b:80/y")

    def test_long_lines(self):
        """A line is read in pieces of 1023 characters, each taken for a line of its own."""
        piece = 1023
        name = "x" * (piece - len("AGENTNAME "))
        self.assertEqual(self.settings("AGENTNAME " + name + "y" * 10000000)["name"], name)
        hidden = "#" + "-" * (piece - 1) + "AGENTNAME found"
        self.assertEqual(self.settings(hidden)["name"], "found")
        self.assertEqual(self.settings("#" + "-" * (piece - 2) + "\nAGENTNAME found")["name"], "found")
        self.assertEqual(self.settings("AGENTNAME " + " " * 5000000)["name"], "N/A")

    def test_directory(self):
        agent = harness.Agent(self)
        done = agent.run("-C", agent.dir, config=False)
        self.assertEqual((done.returncode, done.stderr), (0, ""))

    def test_junk(self):
        chance = random.Random(1)
        for size in (1, 100, 5000, 100000):
            for _ in range(5):
                junk = chance.randbytes(size).replace(b"LOGLEVEL", b"")
                self.assertIn("\nemail:\t", self.dump(junk + b"\n").replace("\r", ""))
        agent = harness.Agent(self)
        for path in ("/dev/null", "/proc/self/mem"):
            self.assertEqual(agent.run("-C", path, config=False).returncode, 0)

    def test_agent_runs_with_junk_in_its_configuration(self):
        server = ScriptedServer(self)
        agent = harness.Agent(self, server.port, level=1)
        agent.write_config()
        junk = random.Random(2).randbytes(50000).replace(b"\n", b"").replace(b"\0", b"")
        harness.write_text(agent.conf, b"#" + junk[:900] + b"\n" +
                           harness.read_text(agent.conf).encode() + b"#" + junk)
        agent.start("-C", agent.conf, config=False)
        server.wait_requests(2)


class Plan(harness.TestCase):
    def test_malformed_lines(self):
        """Each is reported with its number; the agent gets the others."""
        good = {1: "POL\t0\t1", 3: "# comment\twith\ttabs", 5: "LAA\t1\t1\t-1\t-1\t-1", 7: "",
                9: "CHK\t0\t1", 11: "   ", 20: "LAA\t9\t1\t-1\t-1\t-1\thost.example.net", 22: "LAD\t9\t1",
                28: "LAA\t2\t1\t-1\t-1\t-1\t"}  # the tab at the end makes no empty field
        bad = {2: "POL", 4: "POL\t0\t0", 6: "LAA\t0\t1\t1\t1\t1", 8: "LAA\t5\t1\t1\t1", 10: "LAD\t77\t1",
               12: "laa\t2\t1\t1\t1\t1", 13: "LAA\t6\t1\t1\t1\t1\t\t", 14: "LAA\t7\t1\t1\t1\t1\th\tx",
               15: "LAA\tx\t1\t1\t1\t1", 16: "POL 0 1", 17: "LAA\t1\t1\t2\t2\t2", 18: "XYZ",
               19: "LAA\t4294967297\t1\t1\t1\t1", 21: "UPD\ta\tb", 23: "LAM\t9\t1\t1\t1\t1",
               24: "\tLAA\t8\t1\t1\t1\t1", 25: "\u00e9\x1b[2J\t1", 26: "A" * 100000, 27: "LAA\t8\0\t1"}
        lines = {**good, **bad}
        collector = harness.Collector(self, *[lines[number] for number in sorted(lines)]).start()
        for number in bad:
            collector.wait_errors(" plan line %d: " % number)
        for number in good:
            self.assertNotIn("plan line %d:" % number, collector.errors())
        self.assertNotIn("\x1b", collector.errors())
        agent = harness.Agent(self, collector.port).start()
        collector.wait_test(1, 2)
        agent.stop()
        log = agent.log()
        self.assertEqual([log.count(text) for text in ("add_lda", "rem_lda", "modify_lda",
                                                       "Invalid test string")], [3, 1, 0, 0])

    def test_junk(self):
        collector = harness.Collector(self)
        harness.write_text(collector.plan, b"POL\t0\t1\nCHK\t0\t1\nLAA\t1\t1\t-1\t-1\t-1\n" +
                           random.Random(3).randbytes(200000))
        collector.start()
        harness.Agent(self, collector.port).start()
        collector.wait_test(1, 2)


def reset(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


HEAD = ("POST /fcgi-bin/agentgateway HTTP/1.0\r\nContent-Type: application/octet-stream\r\n"
        "Content-Length: %s\r\nVnd-SessionID: %s\r\nVnd-Compression: %s\r\nVnd-CheckSum: %s\r\n"
        "Vnd-Platform: linux64\r\nVnd-Version: 3.0\r\n\r\n")


class Strangers(harness.TestCase):
    """While all this goes on, an agent polls every second, and none of its polls fails."""

    def setUp(self):
        super().setUp()
        self.collector = harness.Collector(self, "POL\t0\t1", "CHK\t0\t1",
                                           "LAA\t1\t1\t-1\t-1\t-1").start()
        self.client = RawClient(self.collector.port)
        self.agent = harness.Agent(self, self.collector.port).start()
        self.collector.wait_test(1)

    def check_undisturbed(self):
        self.collector.wait_test(1, len(self.collector.results()) + 2)
        self.agent.stop()
        log = self.agent.log()
        for text in ("result: 2", "result: 3", "result: 4"):
            self.assertNotIn("make_poll " + text, log)
        self.assertIsNone(self.collector.process.poll())

    def test_bytes(self):
        chance = random.Random(4)
        hello = self.client_hello()
        for data in [b"", b"\0", b"GET / HTTP/1.0\r\n\r\n", b"\x16", b"\x16\x03\x01\xff\xff", b"\x80" * 5,
                     hello[:20], hello[:-1], hello[:60] + chance.randbytes(500), hello + hello,
                     b"\x15\x03\x03\x00\x02\x02\x28", b"\x17\x03\x03\x40\x00" + bytes(16384),
                     *[chance.randbytes(chance.randrange(1, 3000)) for _ in range(40)],
                     *[b"\x16\x03\x01" + chance.randbytes(300) for _ in range(40)]]:
            for leave in (reset, socket.socket.close):
                connection = self.client.connect()
                try:
                    connection.sendall(data)
                except OSError:
                    pass  # it has left first
                leave(connection)
        self.check_undisturbed()

    def client_hello(self):
        incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        session = self.client.context.wrap_bio(incoming, outgoing)
        try:
            session.do_handshake()
        except ssl.SSLWantReadError:
            return outgoing.read()

    def test_requests(self):
        session = self.client.session(agent="stranger")
        log_in_again = [
            "POST\r\n\r\n", "\r\n\r\n", "POST / HTTP/1.0\r\n: x\r\n\r\n", "POST / HTTP/9.9\r\n\r\n",
            HEAD % ("x", session, 0, 0), HEAD % ("-1", session, 0, 0),
            HEAD % ("1, 1", session, 0, 0), HEAD % ("99999999999999999999", session, 0, 0),
            HEAD % (0, session, "x", 0), HEAD % (0, session, 0, "0x1"), HEAD % (0, session, -1, 0),
            HEAD % (0, session, 0, "99999999999999999999"),
            HEAD % (0, session + "\r\nVnd-SessionID: " + session, 0, 0),
            HEAD % (0, session, 0, "0\r\nTransfer-Encoding: chunked"),
            HEAD % ("0\r\nContent-Length: 1", session, 0, 0),
            HEAD % (0, "x" * 4000, 0, 0), HEAD % (0, session + " x", 0, 0), HEAD % (0, "a\0b", 0, 0),
            HEAD % (5, session, 0, 1) + "hello", HEAD % (5, session, 5, 0) + "hello",
            HEAD.replace("Vnd-SessionID: %s", "Vnd-EMail: %s") % (0, "only@example.net", 0, 0),
            HEAD.replace("Vnd-SessionID: %s", "Vnd-EMail: a\x01@b\r\nVnd-AName: %s") % (0, "x", 0, 0),
            HEAD.replace("Vnd-SessionID: %s", "Vnd-EMail: %s\r\nVnd-AName: x") % (0, "x" * 255, 0, 0),
            "POST / HTTP/1.0\r\n" + "X-Filler: abcdefgh\r\n" * 2000 + "\r\n",
            "x" * 100000,
        ]
        for request in log_in_again:
            answer = self.client.exchange(request.encode("latin-1"))
            # A connection that is reset says the same to an agent: nothing was taken.
            if answer is not None:
                self.assertEqual(answer.body, "111111", request[:300])
        for request in ("GET / HTTP/1.1\r\nHost: x\r\n\r\n", "HEAD / HTTP/1.0\r\n\r\n",
                        "POST / HTTP/1.0\r\nContent-Length: 0\r\n\r\n"):
            answer = self.client.exchange(request.encode())
            self.assertIn(answer.status, ("HTTP/1.0 404 Not Found", "HTTP/1.0 200 OK"))
            self.assertNotIn("Vnd-SessionID", answer.headers)
        chance = random.Random(5)
        for _ in range(40):
            self.client.exchange(chance.randbytes(chance.randrange(1, 9000)) + b"\r\n\r\n")
        self.assertEqual({row.agent for row in self.collector.rows()}, {"agent"})
        self.check_undisturbed()

    def test_unfinished(self):
        """Connections that stop at every point of an exchange and are left open, or are broken off."""
        session = self.client.session(agent="stranger")
        request = RawClient.poll_bytes(session, bytes(2000))
        for length in range(0, len(request), len(request) // 20):
            for leave in (reset, ssl.SSLSocket.close, None):
                connection = self.client.connect_tls()
                connection.sendall(request[:length])
                if leave:
                    leave(connection)
                else:
                    self.addCleanup(connection.close)
        self.check_undisturbed()

    def test_crowd(self):
        """Hundreds that say nothing, and hundreds that stop after the handshake's first bytes."""
        hello = self.client_hello()
        for number in range(600):
            connection = self.client.connect()
            self.addCleanup(connection.close)
            if number % 2:
                connection.sendall(hello[:number % len(hello)])
        self.check_undisturbed()


if __name__ == "__main__":
    harness.main()
