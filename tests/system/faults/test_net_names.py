"""The name service of the machine fails.

Expected: while the server's name has no address - it does not exist, the name server fails, answers
nothing, nonsense, or not at all - polls fail with a line that says why, and the block of records is
kept; the name is asked for anew at every poll, so that a new address counts from the next one on. No
record is lost or doubled between the servers."""

import os
import socket
import struct
import threading

import accounts
import harness
from scripted_server import ScriptedServer, accept_login

NAME = "collector.example.net"
LOST = "Unable to establish connection to the server."
NXDOMAIN, SERVFAIL, REFUSED = 3, 2, 5


class NameServer:
    """Answers every question as `reply` says: with the address in it, with its code, with its bytes in
    place of an answer, or, when it is None, not at all. The answers may be kept for an hour."""

    def __init__(self, test, address):
        self.reply = None
        self.stopping = False
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.settimeout(0.1)
        self.sock.bind((address, 53))
        self.thread = threading.Thread(target=self.serve)
        self.thread.start()
        test.addCleanup(self.stop)

    def stop(self):
        self.stopping = True
        self.thread.join()
        self.sock.close()

    def serve(self):
        while not self.stopping:
            try:
                question, asker = self.sock.recvfrom(4096)
            except TimeoutError:
                continue
            answer = self.answer(question)
            if answer is not None:
                self.sock.sendto(answer, asker)

    def answer(self, question):
        reply = self.reply
        if reply is None or isinstance(reply, bytes):
            return reply
        end = question.index(b"\0", 12) + 5  # of the name, its type and class
        code = reply if isinstance(reply, int) else 0
        data = b""
        if isinstance(reply, str) and question[end - 4:end - 2] == b"\0\1":
            data = b"\xc0\x0c" + struct.pack(">HHIH", 1, 1, 3600, 4) + socket.inet_aton(reply)
        return (question[:2] + struct.pack(">HHHHH", 0x8180 | code, 1, 1 if data else 0, 0, 0) +
                question[12:end] + data)


FAULTS = [
    ("does not exist", NXDOMAIN, "Name or service not known"),
    ("server failure", SERVFAIL, "Temporary failure in name resolution"),
    ("refused", REFUSED, "Temporary failure in name resolution"),
    ("no address", 0, "No address associated with hostname"),
    ("nonsense", b"\xff" * 40, "Temporary failure in name resolution"),
    ("no answer", None, "Temporary failure in name resolution"),
]


class Scene:
    """A name server at that address, a collection server, and an agent that has polled it."""

    def __init__(self, test, address):
        self.test = test
        self.names = NameServer(test, address)
        self.names.reply = "127.0.0.1"
        directory = test.subdir(address)
        resolv_conf = os.path.join(directory, "resolv.conf")
        harness.write_text(resolv_conf, "nameserver %s\noptions timeout:1 attempts:1\n" % address)
        self.first = ScriptedServer(test)
        self.first.then(accept_login("s", "POL\t0\t1\nCHK\t0\t1\nLAA\t7\t3\t-1\t-1\t-1\n"))
        self.agent = harness.Agent(
            test, USEHOST="https://%s:%d/fcgi-bin/agentgateway" % (NAME, self.first.port),
            wrap=harness.mounted(resolv_conf, "/etc/resolv.conf",
                                 harness.RisingLoad(test).path, "/proc/loadavg")).start()
        self.first.wait_requests(3)

    def check_account(self, *servers):
        self.agent.stop()
        requests = [request for server in servers for request in server.requests]
        self.test.assertEqual([request.is_login for request in requests].count(True), 1)
        blocks = [request.plain() for request in requests if request.body]
        self.test.assertEqual(len(blocks), len(set(blocks)))
        accepted, pending = accounts.by_log(self.agent.log())
        self.test.assertIn(sum(map(len, blocks)) - sum(accepted), (0, pending))


@harness.needs_namespaces
class Names(harness.TestCase):
    def test_failures(self):
        harness.in_parallel(self, [
            (what, lambda n=n, reply=reply, text=text: self.failure("127.0.0.%d" % (50 + n), reply, text))
            for n, (what, reply, text) in enumerate(FAULTS)])

    def failure(self, address, reply, text):
        scene = Scene(self, address)
        scene.names.reply = reply
        scene.agent.wait_log("Host: %s Error: %s\n" % (NAME, text), 2)
        scene.agent.wait_log(LOST, 2)
        scene.names.reply = "127.0.0.1"
        scene.first.wait_requests(len(scene.first.requests) + 2)
        scene.check_account(scene.first)

    def test_another_answer(self):
        scene = Scene(self, "127.0.0.60")
        scene.names.reply = "127.0.0.9"  # where nobody listens
        scene.agent.wait_log("ERROR: make_poll: make_connection() failed", 2)
        second = ScriptedServer(self, address=("127.0.0.10", scene.first.port))
        before = len(scene.first.requests)
        scene.names.reply = "127.0.0.10"
        requests = second.wait_requests(3)
        self.assertEqual({request.session for request in requests}, {"s"})
        self.assertEqual(len(scene.first.requests), before)
        scene.names.reply = "127.0.0.1"
        scene.first.wait_requests(before + 2)
        scene.check_account(scene.first, second)


if __name__ == "__main__":
    harness.main()
