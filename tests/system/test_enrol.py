"""vindral-enrol: what it does to a host, step by step, and that a host is as it was when it fails, whatever the
collector answers and whatever ends the program."""

import os
import signal
import subprocess
import threading
import unittest

import enrolling
import harness
from enrolling import FakeCollector, Host, answer_raw, cut
from scripted_server import response

ACCOUNT, NAME = "operator@example.org", "web-01"


@unittest.skipUnless(harness.isolated, "needs root: the agent runs as another user")
class Enrolment(harness.TestCase):
    def test_a_token_makes_a_host_that_polls(self):
        collector = FakeCollector(self)
        host = Host(self)
        said = host.enrol(collector.url, collector.make_token())
        host.check_enrolled(ACCOUNT, NAME)
        for line in ("is the collector that is meant.", "it stays on this host.", "Got a certificate: web-01 of "
                     "operator@example.org, until 20", "Wrote %s/agent.pem." % host.directory,
                     "Changed %s: USEREMAIL" % host.conf, "Started the agent.", "The agent has logged in."):
            self.assertIn(line, said)
        self.assertNotIn(collector.token[3:20], said)
        self.assertEqual(host.value("USEHOST"), collector.url + "/fcgi-bin/agentgateway")
        # The key is nowhere but in the file, and the request was for it.
        self.assertNotIn("PRIVATE", "".join(body.decode("latin-1") for _, _, body in collector.requests))
        first = collector.requests[0]
        self.assertEqual((first[0], first[1].get("vnd-token")), ("GET /authority", None))
        posted = collector.asked("/enrol")[0]
        self.assertEqual(posted[1]["vnd-token"], collector.token)
        self.assertNotIn("vnd-email", posted[1])
        text = host.identity()
        self.assertEqual(enrolling.AUTHORITY_LINE.search(text).group(1), collector.hash(collector.agents_ca[0]))
        shown = host.enrol("--show")
        for word in (NAME, ACCOUNT, "89 days", collector.url, "SHA256:"):
            self.assertIn(word, shown)

    def test_what_was_in_the_configuration_is_replaced_in_place(self):
        collector = FakeCollector(self)
        host = Host(self, conf="USEREMAIL\toperator@example.org \nAGENTNAME  web-01\nUSEHOST https://old/x\n"
                               "USEHOST https://older/y\nAPIKEY k\n")
        host.enrol(collector.url, collector.make_token())
        host.check_enrolled(ACCOUNT, NAME)
        self.assertIn("USEHOST https://old/x\nUSEHOST %s/fcgi-bin/agentgateway\nAPIKEY k\n" % collector.url, host.text())
        # The collector is told which names are to be those of the token.
        posted = collector.asked("/enrol")[0]
        self.assertEqual((posted[1]["vnd-email"], posted[1]["vnd-aname"]), (ACCOUNT, NAME))

    def test_another_name_is_refused_without_replace(self):
        collector = FakeCollector(self)
        host = Host(self, conf="USEREMAIL operator@example.org\nAGENTNAME db-01\n")
        token = collector.make_token()
        said = host.enrol(collector.url, token, status=1)
        self.assertIn("names this host db-01 of operator@example.org, not web-01", said)
        self.assertIn("--replace", said)
        # A certificate was given out for the key.
        host.check_untouched(running=False, files=["agent-key.new"])
        key = collector.asked("/enrol")[0][2]
        host.enrol(collector.url, token, "--replace")
        host.check_enrolled(ACCOUNT, NAME)
        self.assertNotIn("vnd-aname", collector.asked("/enrol")[1][1])
        self.assertEqual(self.public_key(key), self.public_key(collector.asked("/enrol")[1][2]))

    @staticmethod
    def public_key(request):
        return subprocess.run(["openssl", "req", "-pubkey", "-noout"], input=request, check=True,
                              stdout=subprocess.PIPE).stdout

    def test_a_host_that_is_enrolled_takes_another_name(self):
        collector = FakeCollector(self)
        host = Host(self)
        host.enrol(collector.url, collector.make_token())
        before, first = host.text(), host.agent()
        collector.names = (ACCOUNT, "db-01")
        token = collector.make_token()
        said = host.enrol(collector.url, token, status=1)
        self.assertIn("this host is enrolled as web-01 of operator@example.org, not db-01", said)
        self.assertEqual((host.text(), host.agent()), (before, first))
        self.assertEqual(host.files(), ["agent-key.new", "agent.pem", "ca.pem"])
        said = host.enrol(collector.url, token, "--replace")
        host.check_enrolled(ACCOUNT, "db-01", "agent-2.pem", "ca-2.pem")
        self.assertNotEqual(host.agent(), first)
        self.assertIn("Removed %s/agent.pem" % host.directory, said)

    def test_no_start_leaves_the_agent_alone(self):
        collector = FakeCollector(self)
        host = Host(self)
        host.enrol(collector.url, collector.make_token(), "--no-start")
        host.check_enrolled(ACCOUNT, NAME, running=False)
        self.assertIsNone(host.agent())

    def test_a_running_agent_that_fails_with_the_new_settings_gets_the_old_ones_back(self):
        old = FakeCollector(self, "old")
        collector = FakeCollector(self, "new")
        host = Host(self, conf="USEREMAIL operator@example.org\nAGENTNAME web-01\nUSEHOST %s/x\n" % old.url)
        first = host.start_agent()
        harness.wait_until(lambda: "Authorization was successfully completed." in host.log(), "the old login")
        polls = []

        serve = collector.server.default

        def only_enrol(peer):
            if collector.asked("/enrol"):
                peer.read_request()
                polls.append(1)
                peer.send(response("", "Vnd-SessionID: 666666"))
                peer.end()
            else:
                serve(peer)
        collector.server.default = only_enrol
        said = host.enrol(collector.url, collector.make_token(), status=1)
        self.assertTrue(polls)
        self.assertIn("the collector has refused the agent, for good", said)
        self.assertIn("the agent runs again with its old settings", said)
        self.assertIn("What stays: the key in", said)
        host.check_untouched(running=True, files=["agent-key.new"])
        self.assertNotEqual(host.agent(), first)
        # And the same command goes on from there.
        collector.server.default = serve
        said = host.enrol(collector.url, collector.token)
        self.assertIn("of an earlier call", said)
        host.check_enrolled(ACCOUNT, NAME)

    def test_without_a_token_it_waits_to_be_admitted(self):
        collector = FakeCollector(self)
        host = Host(self)
        collector.status = 202
        process = host.begin(collector.url, "--ca", collector.server_ca[0], "--name", NAME, "--account", ACCOUNT)
        harness.wait_until(lambda: len(collector.asked("/enrol")) >= 2, "it to ask again")
        collector.status = 200
        said, _ = process.communicate(timeout=harness.PATIENCE_S)
        self.assertEqual(process.returncode, 0, said)
        self.assertIn("vindralctl agents admit web-01 --key SHA256:", said)
        host.check_enrolled(ACCOUNT, NAME)
        for _, headers, _ in collector.asked("/enrol"):
            self.assertEqual((headers["vnd-email"], headers["vnd-aname"]), (ACCOUNT, NAME))
            self.assertNotIn("vnd-token", headers)

    def test_nobody_admits_it(self):
        collector = FakeCollector(self)
        host = Host(self)
        collector.status = 202
        said = host.enrol(collector.url, "--authority", collector.hash(collector.server_ca[0]), "--name", NAME,
                          "--account", ACCOUNT, "--wait", "1s", status=1)
        self.assertIn("nobody has admitted this host yet", said)
        host.check_untouched(running=False, files=["agent-key.new"])
        # It is the same key that waits the next time.
        collector.status = 200
        host.enrol(collector.url, "--authority", collector.hash(collector.server_ca[0]), "--name", NAME,
                   "--account", ACCOUNT)
        posted = collector.asked("/enrol")
        self.assertEqual(self.public_key(posted[0][2]), self.public_key(posted[-1][2]))
        host.check_enrolled(ACCOUNT, NAME)

    def test_what_is_wrong_from_the_start(self):
        collector = FakeCollector(self)
        token = collector.make_token()
        host = Host(self)
        closed = harness.free_port()
        cases = [
            ((collector.url, token[:-1]), 2, "it lacks one character"),
            ((collector.url, "nonsense"), 2, "this is no token"),
            (("http://127.0.0.1:%d" % collector.port, token), 2, "https:// only"),
            (("127.0.0.1:%d" % collector.port, token), 2, "is no address"),
            (("https://127.0.0.1:%d" % closed, token), 1, "cannot be reached: Connection refused"),
            (("https://no-such-host.invalid", token), 1, "cannot be reached"),
            ((collector.url, "--authority", "SHA256:abc", "--account", "a"), 2, "--authority takes a fingerprint"),
            ((collector.url, "--ca", "/nowhere", "--account", "a"), 1, "holds no certificates"),
            ((collector.url, "--ca", collector.server_ca[0]), 1, "--account EMAIL"),
            ((collector.url, token, "--conf", host.dir + "/none"), 1, "there is no"),
            ((collector.url, token, "--conf", host.dir), 1, "is no file"),
            ((collector.url, token, "--dir", host.conf), 1, "cannot be used: Not a directory"),
            ((collector.url, token, "--dir", host.dir + "/no/such"), 1, "cannot be made"),
            ((collector.url, token, "--dir", "/proc/nothing"), 1, "cannot be made"),
            ((collector.url, token, "--dir", "/tmp"), 1, "root's alone to write in"),
        ]
        for words, status, text in cases:
            with self.subTest(words):
                said = host.enrol(*words, status=status)
                self.assertIn(text, said)
                self.assertNotIn(token[3:30], said)
                host.check_untouched(running=False)
        self.assertEqual(collector.asked("/enrol"), [])

    def test_who_is_not_root(self):
        collector = FakeCollector(self)
        host = Host(self)
        done = subprocess.run([host.program, collector.url, collector.make_token()], user=host.user, group=host.group,
                              extra_groups=[], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        self.assertEqual(done.returncode, 1)
        self.assertIn("this has to be done by root", done.stdout)
        # With a configuration of one's own anybody may.
        own = os.path.join(host.home, "own.conf")
        harness.write_text(own, "VINDRALHOME %s\nLOGFILE %s\nPIDFILE %s\nLOGLEVEL 1\n" % (
            host.home, host.log_path, host.pid_path))
        os.chown(own, host.user, host.group)
        done = subprocess.run([host.program, collector.url, collector.token, "--conf", own, "--dir",
                               os.path.join(host.home, "keys")], user=host.user, group=host.group, extra_groups=[],
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        self.assertEqual(done.returncode, 0, done.stdout)
        self.assertIn("The agent has logged in.", done.stdout)
        self.assertIn("AGENTNAME    web-01", harness.read_text(own))
        pid = int(harness.read_text(host.pid_path))
        process = harness.Process(pid)
        process.send(signal.SIGHUP)
        process.wait()

    def test_servers_that_are_not_the_collector(self):
        collector = FakeCollector(self)
        host = Host(self)
        token = collector.make_token()
        other = self.openssl_certificate()

        def fails(text, *words, status=1):
            said = host.enrol(collector.url, *(words or (token,)), status=status)
            self.assertIn(text, said)
            host.check_untouched(running=False)
            self.assertEqual(collector.asked("/enrol"), [])

        fails("is not the collector that is meant, or somebody stands in between", collector.make_token(other))
        # It offers the right authority beside its own, but is not verified by it.
        collector.bundle = harness.read_text(other) + harness.read_text(collector.server_ca[0])
        fails("is not trusted: ", collector.make_token(other))
        fails("is not trusted: ", "--ca", other, "--account", ACCOUNT, "--name", NAME)
        collector.bundle = None
        token = collector.make_token()
        for answer, text in (
                (response("<html>", status="404 Not Found"), "is no collector that enrols hosts"),
                (response("<html>"), "is no collector"),
                (response(""), "is no collector"),
                (b"SSH-2.0-OpenSSH_9.2\r\n\r\n", "does not speak HTTP"),
                (b"HTTP/1.0 2x0 what\r\n\r\n", "does not speak HTTP"),
                (b"", "before its answer was whole"),
                (b"HTTP/1.0 200 OK\r\nContent-Length: 100\r\n\r\nshort", "before its answer was whole"),
                (b"HTTP/1.0 200 OK\r\nContent-Length: 99999999\r\n\r\n", "more than a collector does"),
                (b"HTTP/1.0 200 OK\r\nContent-Length: -1\r\n\r\n", "more than a collector does"),
                (b"HTTP/1.0 200 OK\r\n\r\n" + b"x" * 3000000, "more than a collector does"),
                (b"x" * 3000000, "does not speak HTTP"),
                (b"HTTP/1.0 200 OK\r\n" + b"a: b\r\n" * 10000, "does not speak HTTP")):
            with self.subTest(text, answer=answer[:60]):
                collector.authority_steps = [answer_raw(answer)]
                fails(text)
        # The bundle has to vouch for the server itself.
        collector.authority_steps = [lambda c, peer, h, b: c.answer_authority(peer),
                                     answer_raw(response(harness.read_text(other)))]
        fails("names authorities that did not sign its own certificate")

    def openssl_certificate(self):
        base = os.path.join(self.dir, "other")
        return harness.peers.make_certificate(base)[0]

    def test_a_server_without_tls_and_one_of_another_name(self):
        collector = FakeCollector(self)
        host = Host(self)
        plain = enrolling.ScriptedServer(self, default=lambda peer: peer.sock.sendall(
            b"HTTP/1.0 400 Bad Request\r\n\r\n"))
        said = host.enrol("https://127.0.0.1:%d" % plain.port, collector.make_token(), status=1)
        self.assertIn("does not speak TLS; is this the port that agents poll?", said)
        # 127.0.0.2 is not in the certificate.
        other = FakeCollector(self, "two", address=("127.0.0.2", 0))
        said = host.enrol("https://127.0.0.2:%d" % other.port, other.make_token(), status=1)
        self.assertIn("is not trusted: ", said)
        self.assertIn("its certificate does not name 127.0.0.2", said)
        host.check_untouched(running=False)

    def test_answers_to_the_request_that_are_no_certificate_for_it(self):
        collector = FakeCollector(self)
        host = Host(self)
        token = collector.make_token()
        key = os.path.join(self.dir, "other.key")
        subprocess.run(["openssl", "req", "-new", "-nodes", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
                        "-keyout", key, "-subj", "/CN=x", "-out", key + ".csr"], check=True, stderr=subprocess.DEVNULL)
        foreign = harness.read_text(key + ".csr")

        def certificate(**options):
            def step(collector, peer, headers, body):
                peer.send(response(collector.certificate(options.pop("request", body), **options)))
            return step
        cases = [
            (certificate(request=foreign), "a certificate for another key"),
            (certificate(days=-1), "set the clock"),
            (certificate(names=("https:", "x/y")), "is not an agent's"),
            (answer_raw(response("nonsense")), "that is no certificate"),
            (answer_raw(response(harness.read_text(collector.server_ca[0]))), "a certificate for another key"),
            (answer_raw(response("", status="500 No")), "is no collector that enrols hosts"),
            (cut, "before its answer was whole"),
        ]
        for step, text in cases:
            with self.subTest(text):
                collector.enrol_steps = [step]
                self.assertIn(text, host.enrol(collector.url, token, status=1))
                host.check_untouched(running=False, files=["agent-key.new"])
        keys = {self.public_key(body) for _, _, body in collector.asked("/enrol")}
        self.assertEqual(len(keys), 1)
        host.enrol(collector.url, token)
        host.check_enrolled(ACCOUNT, NAME)

    def test_a_refusal_leaves_nothing(self):
        collector = FakeCollector(self)
        host = Host(self)
        collector.status = 403
        said = host.enrol(collector.url, collector.make_token(), status=1)
        self.assertIn("refuses: not you, not now", said)
        self.assertIn("Undone: the key is removed.", said)
        host.check_untouched(running=False)

    def test_a_busy_collector_is_asked_again(self):
        collector = FakeCollector(self)
        host = Host(self)
        busy = answer_raw(response("busy", status="503 Busy"))
        collector.enrol_steps = [busy, busy]
        host.enrol(collector.url, collector.make_token())
        host.check_enrolled(ACCOUNT, NAME)
        self.assertEqual(len(collector.asked("/enrol")), 3)

    def test_a_server_that_hangs_is_given_up(self):
        collector = FakeCollector(self)
        host = Host(self)
        cases = []

        def hang(collector, peer, headers, body):
            peer.hold()

        def in_the_middle(collector, peer, headers, body):
            peer.send(b"HTTP/1.0 200 OK\r\nContent-Length: 10\r\n\r\n")
            peer.hold()
        for i, (where, step) in enumerate((("authority_steps", hang), ("enrol_steps", in_the_middle))):
            one = FakeCollector(self, "hanging-%d" % i)
            setattr(one, where, [step])
            cases.append((where, lambda one=one, i=i: self.gives_up(one, "host-%d" % i)))
        black = harness.black_hole(self)
        cases.append(("black hole", lambda: self.assertIn("cannot be reached: Connection timed out", Host(
            self, "black").enrol("https://127.0.0.1:%d" % black, collector.make_token(), status=1))))
        silent = enrolling.ScriptedServer(self, default=lambda peer: peer.hold())
        cases.append(("no handshake", lambda: self.assertIn("does not answer in the handshake", Host(
            self, "silent").enrol("https://127.0.0.1:%d" % silent.port, collector.make_token(), status=1))))
        harness.in_parallel(self, cases)
        self.assertEqual(host.files(), [])

    def gives_up(self, collector, name):
        said = Host(self, name).enrol(collector.url, collector.make_token(), status=1)
        self.assertIn("does not answer before its answer was whole", said)

    def test_a_name_that_no_line_can_hold(self):
        collector = FakeCollector(self)
        host = Host(self)
        collector.names = (ACCOUNT, "%20web")
        said = host.enrol(collector.url, collector.make_token(), status=1)
        self.assertIn("begins or ends with a blank", said)
        host.check_untouched(running=False, files=["agent-key.new"])

    def test_a_link_to_the_configuration_stays_one(self):
        collector = FakeCollector(self)
        host = Host(self)
        target = os.path.join(host.dir, "vindral.conf.real")
        os.rename(host.conf, target)
        os.symlink("vindral.conf.real", host.conf)
        host.enrol(collector.url, collector.make_token())
        self.assertTrue(os.path.islink(host.conf))
        self.assertEqual(host.beside(), ["vindral.conf", "vindral.conf.real"])
        self.assertEqual(host.value("AGENTNAME"), NAME)
        os.unlink(target)
        self.assertIn("where this link leads", host.enrol(collector.url, collector.token, status=1))

    def test_two_at_once(self):
        collector = FakeCollector(self)
        host = Host(self)
        collector.status = 202
        words = (collector.url, "--ca", collector.server_ca[0], "--account", ACCOUNT, "--name", NAME)
        first = host.begin(*words)
        harness.wait_until(lambda: collector.asked("/enrol"), "the first to wait")
        self.assertIn("another vindral-enrol is at work", host.enrol(*words, status=1))
        collector.status = 200
        said, _ = first.communicate(timeout=harness.PATIENCE_S)
        self.assertEqual(first.returncode, 0, said)
        host.check_enrolled(ACCOUNT, NAME)

    def test_a_disk_that_is_full(self):
        collector = FakeCollector(self)
        for what in ("directory", "configuration"):
            host = Host(self, what)
            small = host.directory if what == "directory" else None
            if small is None:
                # Only the configuration lies there.
                small = os.path.join(host.dir, "small")
                os.mkdir(small)
                os.chmod(small, 0o711)
            subprocess.run(["mount", "-t", "tmpfs", "-o", "size=16k,mode=750,gid=%d" % host.group, "tmpfs", small],
                           check=True)
            self.addCleanup(subprocess.run, ["umount", "--lazy", small], check=True)
            if what == "configuration":
                os.chmod(small, 0o711)
                moved = os.path.join(small, "vindral.conf")
                subprocess.run(["cp", "-p", host.conf, moved], check=True)
                host.conf = moved
            filler = os.path.join(small, "filler")
            with open(filler, "wb", buffering=0) as file:
                try:
                    while True:
                        file.write(bytes(4096))
                except OSError:
                    pass
            said = host.enrol(collector.url, collector.make_token(), status=1)
            self.assertIn("cannot be written: No space left on device", said)
            self.assertEqual(host.text(), host.before)
            self.assertIsNone(host.agent())
            os.unlink(filler)
            host.enrol(collector.url, collector.token)
            self.assertTrue(host.check_whole())

    def test_stopped_by_a_signal(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            with self.subTest(number):
                collector = FakeCollector(self)
                host = Host(self)

                def hang(collector, peer, headers, body):
                    peer.hold()
                collector.enrol_steps = [hang]
                process = host.begin(collector.url, collector.make_token())
                harness.wait_until(lambda: collector.asked("/enrol"), "its request")
                process.send_signal(number)
                said, _ = process.communicate(timeout=harness.PATIENCE_S)
                self.assertEqual(process.returncode, 128 + number, said)
                self.assertIn("What stays: the key", said)
                host.check_untouched(running=False, files=["agent-key.new"])

    def test_stopped_while_the_agent_starts(self):
        old = FakeCollector(self, "old")
        host = Host(self, conf="USEREMAIL operator@example.org\nAGENTNAME web-01\nUSEHOST %s/x\n" % old.url)
        host.start_agent()
        collector = FakeCollector(self, "new")
        serve, polls = collector.server.default, []

        def hang_polls(peer):
            if collector.asked("/enrol"):
                polls.append(1)
                peer.hold()
            else:
                serve(peer)
        collector.server.default = hang_polls
        process = host.begin(collector.url, collector.make_token())
        harness.wait_until(lambda: polls, "the agent to poll")
        process.terminate()
        said, _ = process.communicate(timeout=harness.PATIENCE_S)
        self.assertEqual(process.returncode, 128 + signal.SIGTERM, said)
        self.assertIn("the agent runs again with its old settings", said)
        host.check_untouched(running=True, files=["agent-key.new"])


@unittest.skipUnless(harness.isolated, "needs root: the agent runs as another user")
@unittest.skipIf(harness.SANITIZERS, "a sanitizer has its own place before libc, where the program is killed")
class Killed(harness.TestCase):
    """kill -9 before a change of a file, in the middle of a write, and at each request."""

    every = 5  # of the changes; tests/system/faults takes each

    def setUp(self):
        super().setUp()
        self.library = os.path.join(self.subdir("library"), "kill_at.so")
        subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-o", self.library,
                        os.path.join(harness.HERE, "faults", "kill_at.c")], check=True)
        os.chmod(os.path.dirname(self.library), 0o755)

    def kill_at_each_change(self, conf="", half=False):
        old, collector = FakeCollector(self, "old"), FakeCollector(self, "new")
        conf = conf.replace("OLD", old.url)
        count = os.path.join(self.dir, "count")
        states = []

        def one(number):
            host = Host(self, "host-%d" % number, conf=conf)
            if conf:
                host.start_agent()
            token = collector.make_token()
            env = {"LD_PRELOAD": self.library, "KILL_COUNT": count} if number == 0 else {
                "LD_PRELOAD": self.library, "KILL_AT": str(number)}
            if half:
                env["KILL_HALF"] = "1"
            status, said = host.run(collector.url, token, env=env)
            self.assertEqual(status, -signal.SIGKILL if number else 0, said)
            states.append(host.check_whole())
            # The same command finishes.
            host.enrol(collector.url, token)
            host.check_enrolled(ACCOUNT, NAME)

        one(0)
        changes = int(harness.read_text(count))
        self.assertGreater(changes, 25)
        harness.in_parallel(self, [("change %d" % number, lambda number=number: one(number))
                                   for number in range(1 + changes % self.every, changes + 1, self.every)])
        self.assertGreater(states.count(False), 10 // self.every)
        self.assertGreater(states.count(True), 5 // self.every)

    def test_a_new_host(self):
        self.kill_at_each_change()

    def test_a_host_that_polls_already(self):
        self.kill_at_each_change("USEREMAIL operator@example.org\nAGENTNAME web-01\nUSEHOST OLD/x\n")

    def test_in_the_middle_of_a_write(self):
        self.kill_at_each_change(half=True)

    def test_at_a_request(self):
        collector = FakeCollector(self)
        host = Host(self)
        token = collector.make_token()

        def kill(collector, peer, headers, body):
            process.kill()
            process.wait()
            peer.reset()

        def kill_with_the_answer(collector, peer, headers, body):
            collector.answer_enrol(peer, headers, body)
            process.kill()
            process.wait()
        for where, step in (("authority_steps", kill), ("enrol_steps", kill), ("enrol_steps", kill_with_the_answer)):
            started = threading.Event()

            def stepping(collector, peer, headers, body, step=step):
                started.wait()
                step(collector, peer, headers, body)
            setattr(collector, where, [stepping])
            process = host.begin(collector.url, token)
            started.set()
            process.communicate(timeout=harness.PATIENCE_S)
            self.assertEqual(process.returncode, -signal.SIGKILL)
            host.check_whole()
        host.enrol(collector.url, token)
        host.check_enrolled(ACCOUNT, NAME)
        self.assertEqual(len({Enrolment.public_key(body) for _, _, body in collector.asked("/enrol")}), 1)

    def test_another_token_undoes_what_was_interrupted(self):
        """And the agent that ran before has its old settings until the new enrolment is in force."""
        collector = FakeCollector(self)
        host = Host(self)
        for number in range(1, 200):
            env = {"LD_PRELOAD": self.library, "KILL_AT": str(number)}
            status, _ = host.run(collector.url, collector.make_token(), env=env)
            self.assertEqual(status, -signal.SIGKILL)
            if host.check_whole():
                break
        collector.status = 403
        said = host.enrol(collector.url, collector.make_token(), status=1)
        self.assertIn("An earlier call was interrupted.", said)
        host.check_untouched(running=False, files=["agent-key.new"])


@unittest.skipUnless(harness.isolated, "needs root: the agent runs as another user")
class Renewal(harness.TestCase):
    def enrolled(self, collector, name="host", days=90):
        host = Host(self, name)
        collector.days = days
        host.enrol(collector.url, collector.make_token(), "--no-start")
        collector.days = 90
        del collector.requests[:]
        return host

    def test_nothing_to_do_is_quiet(self):
        collector = FakeCollector(self)
        host = self.enrolled(collector)
        before = host.identity()
        self.assertEqual(host.enrol("--renew"), "")
        self.assertEqual(host.identity(), before)
        self.assertEqual(collector.asked("/enrol"), [])
        # It showed its certificate, so that the collector knows who has fetched the authorities.
        self.assertEqual(len(collector.asked("/authority")), 1)

    def test_forced(self):
        collector = FakeCollector(self)
        host = self.enrolled(collector)
        before = host.identity()
        self.assertIn("a new certificate, until", host.enrol("--renew", "--force"))
        host.check_enrolled(ACCOUNT, NAME, running=False)
        self.assertNotEqual(host.identity(), before)
        posted = collector.asked("/enrol")
        self.assertEqual(len(posted), 1)
        for header in ("vnd-token", "vnd-email", "vnd-aname"):
            self.assertNotIn(header, posted[0][1])

    def test_another_authority_signs_now(self):
        collector = FakeCollector(self)
        host = self.enrolled(collector)
        before = host.identity()
        renewed = FakeCollector(self, "renewed")
        collector.agents_ca = renewed.agents_ca
        self.assertIn("another authority signs them now", host.enrol("--renew"))
        self.assertNotEqual(host.identity(), before)
        self.assertEqual(enrolling.AUTHORITY_LINE.search(host.identity()).group(1),
                         collector.hash(renewed.agents_ca[0]))

    def test_the_servers_authorities_change(self):
        collector = FakeCollector(self)
        host = self.enrolled(collector)
        other = FakeCollector(self, "other")
        collector.bundle = harness.read_text(collector.server_ca[0]) + harness.read_text(other.server_ca[0])
        before = host.identity()
        self.assertIn("the collector's authorities have changed", host.enrol("--renew"))
        self.assertEqual(harness.read_text(host.value("CAFILE")).count("BEGIN CERTIFICATE"), 2)
        self.assertEqual(host.identity(), before)
        host.check_enrolled(ACCOUNT, NAME, running=False)
        self.assertEqual(host.enrol("--renew"), "")
        # None that would lock this host out.
        collector.bundle = harness.read_text(other.server_ca[0])
        self.assertIn("did not sign its own certificate", host.enrol("--renew", status=1))
        self.assertEqual(harness.read_text(host.value("CAFILE")).count("BEGIN CERTIFICATE"), 2)

    def test_what_goes_wrong_leaves_the_old_one(self):
        collector = FakeCollector(self)
        host = self.enrolled(collector)
        before = host.identity()
        for step, text in ((cut, "before its answer was whole"),
                           (answer_raw(response("no\n", status="403 No")), "refuses: no"),
                           (answer_raw(response("nonsense")), "no certificate"),
                           (lambda c, peer, h, b: peer.send(response(c.certificate(b, names=(ACCOUNT, "other")))),
                            "of another name")):
            with self.subTest(text):
                collector.enrol_steps = [step]
                self.assertIn(text, host.enrol("--renew", "--force", status=1))
                self.assertEqual(host.identity(), before)
                host.check_enrolled(ACCOUNT, NAME, running=False)

    def test_one_that_has_ended(self):
        collector = FakeCollector(self)
        host = self.enrolled(collector)
        text = host.identity()
        key = text[text.index("-----BEGIN PRIVATE"):]
        request = subprocess.run(["openssl", "req", "-new", "-key", "/dev/stdin", "-subj", "/CN=x"], input=key, text=True,
                                 check=True, stdout=subprocess.PIPE).stdout
        ended = collector.certificate(request, days=-1)
        with open(host.value("CERTFILE"), "w", encoding="utf-8") as file:
            file.write(ended + key)
        said = host.enrol("--renew", status=1)
        self.assertIn("the certificate of web-01 of operator@example.org ended at ", said)
        self.assertIn("ask for a token (vindralctl enrol)", said)
        self.assertIn("it has ended", host.enrol("--show", status=1))

    def test_hosts_that_are_not_enrolled(self):
        host = Host(self)
        for words in (("--renew",), ("--show",)):
            self.assertIn("this host is not enrolled", host.enrol(*words, status=1))
        collector = FakeCollector(self)
        host = self.enrolled(collector, "other")
        os.unlink(host.value("CERTFILE"))
        self.assertIn("has lost its identity", host.enrol("--renew", status=1))

    def test_one_at_a_time(self):
        collector = FakeCollector(self)
        host = self.enrolled(collector)
        harness.in_parallel(self, [(str(i), lambda: host.enrol("--renew", "--force")) for i in range(6)])
        host.check_enrolled(ACCOUNT, NAME, running=False)
        self.assertEqual(len(collector.asked("/enrol")), 6)


if __name__ == "__main__":
    harness.main()
