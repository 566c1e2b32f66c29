"""The collector as an operator meets it: options, state directory, full disk, restarts, reports. And
the answers that decide what an agent does with its block."""

import glob
import itertools
import os
import socket
import subprocess
import zlib

import harness
import records
from raw_client import RawClient

PLAN = ["POL\t0\t1", "CHK\t0\t1", "LAA\t1\t1\t-1\t-1\t-1"]
_times = itertools.count(1700000000)


def block(*tests):
    """A block with a record of each of these tests, different from every other."""
    return b"".join(records.encode_load(records.Load(test, 1, next(_times), (0.5, 1.0, 1.5), "fine\n", 0))
                    for test in tests)


class Answers(harness.TestCase):
    def setUp(self):
        super().setUp()
        self.collector = harness.Collector(self, *PLAN).start()
        self.client = RawClient(self.collector.port)

    def stored(self):
        return b"".join(row.record for row in self.collector.rows())

    def assert_ordinary(self, answer):
        self.assertEqual((answer.status, answer.body, answer.clean), ("HTTP/1.0 200 OK", "", True))

    def test_login(self):
        answer = self.client.login()
        self.assertEqual((answer.status, answer.clean), ("HTTP/1.0 200 OK", True))
        self.assertEqual(answer.body, "".join(line + "\n" for line in PLAN))
        self.assertEqual(sorted(answer.headers), ["Content-Length", "Vnd-SessionID"])
        self.assertEqual(answer.headers["Content-Length"], str(len(answer.body)))
        self.assertRegex(answer.headers["Vnd-SessionID"], "^[0-9a-f]{32}$")
        self.assertNotEqual(self.client.session(), answer.headers["Vnd-SessionID"])

    def test_polls(self):
        session = self.client.session()
        self.assert_ordinary(self.client.poll(session))
        compressed, plain = block(1, 2), block(3)
        self.assert_ordinary(self.client.poll(session, compressed))
        self.assert_ordinary(self.client.poll(session, body=plain, compression=0, checksum=0))
        self.assertEqual(self.stored(), compressed + plain)

    def test_block_that_comes_twice(self):
        session = self.client.session()
        first, second = block(1), block(1)
        for sent in (first, first, second, second, second):
            self.assert_ordinary(self.client.poll(session, sent))
        self.assertEqual(self.stored(), first + second)
        # Also in a new session, and after a restart.
        session = self.client.session()
        self.assert_ordinary(self.client.poll(session, second))
        self.collector.kill()
        self.collector.start()
        session = self.client.session()
        self.assert_ordinary(self.client.poll(session, second))
        self.assertEqual(self.stored(), first + second)
        # Another agent's block is another block.
        self.assert_ordinary(self.client.poll(self.client.session(agent="other"), second))
        self.assertEqual(self.stored(), first + second + second)

    def test_bad_bodies_must_come_again(self):
        session = self.client.session()
        plain = block(1)
        packed = zlib.compress(plain)
        for what, poll in {
                "checksum": dict(checksum=zlib.adler32(packed) + 1),
                "not compressed": dict(body=plain),
                "cut": dict(body=packed[:-5]),
                "junk behind": dict(body=packed + b"x"),
                "shorter than announced": dict(compression=len(plain) + 1),
                "longer than announced": dict(compression=len(plain) - 1),
                "a bomb": dict(body=zlib.compress(bytes(1 << 20)), compression=100),
        }.items():
            answer = self.client.poll(session, plain, **poll)
            self.assertEqual((answer.body, answer.headers.get("Vnd-SessionID")), ("111111", None), what)
        self.assertEqual(self.stored(), b"")
        self.collector.wait_errors("bad body, must come again: raw of ", 7)
        self.assert_ordinary(self.client.poll(session, plain))
        self.assertEqual(self.stored(), plain)

    def test_what_does_not_decode_is_kept_aside(self):
        session = self.client.session()
        good = [block(n) for n in (1, 2, 3)]
        broken_inside = bytearray(block(4))
        broken_inside[20] = 200  # many more numbers than there is room for
        for junk, where in ((bytes(broken_inside), "middle"), (b"junk", "end"), (b"\xff" * 100, "end")):
            before, after = block(1), block(2)
            sent = before + junk + (after if where == "middle" else b"")
            self.assert_ordinary(self.client.poll(session, sent))
            self.assertTrue(self.stored().endswith(before + (after if where == "middle" else b"")))
            kept = [open(path, "rb").read() for path in glob.glob(self.collector.state +
                                                                  "/undecodable/*")]
            self.assertIn(junk, kept)
        self.assertEqual(len(kept), 3)
        self.collector.wait_errors("are no record", 3)
        self.assert_ordinary(self.client.poll(session, b"".join(good)))
        self.assertTrue(self.stored().endswith(b"".join(good)))

    def test_unknown_sessions(self):
        for session in ("", "0", "x" * 32, "0123456789abcdef" * 2, "111111", "666666"):
            answer = self.client.poll(session, block(1))
            self.assertEqual((answer.body, answer.clean), ("111111", True), session)
        self.assertEqual(self.stored(), b"")

    def test_too_large(self):
        self.collector.stop()
        self.collector.start("--max-body-mb", "1")
        session = self.client.session()
        self.assert_ordinary(self.client.poll(session, block(1)))
        self.assertIsNone(self.client.poll(session, body=os.urandom((1 << 20) + 1), compression=0))
        self.assertIsNone(self.client.poll(session, body=zlib.compress(bytes(17 << 20)),
                                           compression=17 << 20))
        self.collector.wait_errors("is too large", 2)
        self.assert_ordinary(self.client.poll(session, block(1)))

    def test_not_an_agent(self):
        for path, status in ((b"/", "200 OK"), (b"/x", "404 Not Found")):
            answer = self.client.exchange(b"GET " + path + b" HTTP/1.0\r\n\r\n")
            self.assertEqual(answer.status, "HTTP/1.0 " + status)


class Operation(harness.TestCase):
    def test_restart_in_order(self):
        collector = harness.Collector(self, *PLAN).start()
        agent = harness.Agent(self, collector.port).start()
        count = len(collector.wait_test(1, 2))
        collector.stop()
        collector.start()
        collector.wait_test(1, count + 2)
        agent.stop()
        self.assertEqual(agent.log().count("Reauthorization is required."), 1)
        times = [row.time for row in collector.rows()]
        self.assertEqual(times, sorted(times))

    def test_allow(self):
        collector = harness.Collector(self, *PLAN, options=["--allow", "good@example.net",
                                                            "--allow", "fine@example.net"]).start()
        refused = harness.Agent(self, collector.port, USEREMAIL="bad@example.net").start()
        harness.Agent(self, collector.port, name="fine", USEREMAIL="fine@example.net").start()
        collector.wait_results(lambda result: result["account"] == "fine@example.net" and result["test"])
        refused.wait_log("There is an internal error occurred, while trying to connect to the server.")
        self.assertFalse(refused.process.ended())
        self.assertEqual({row.account for row in collector.rows()}, {"fine@example.net"})
        self.assertEqual(refused.log().count("INFO: make_poll: Connected, "), 1)

    def test_end_refused(self):
        collector = harness.Collector(self, *PLAN, options=["--allow", "good@example.net",
                                                            "--allow", "fine@example.net",
                                                            "--end-refused"]).start()
        refused = harness.Agent(self, collector.port, USEREMAIL="bad@example.net").start()
        harness.Agent(self, collector.port, name="fine", USEREMAIL="fine@example.net").start()
        collector.wait_results(lambda result: result["account"] == "fine@example.net" and result["test"])
        refused.wait_log("Authorization failed, Vindral Smart Agent will be terminated.")
        answer = RawClient(collector.port).login("bad@example.net")
        self.assertEqual((answer.headers["Vnd-SessionID"], answer.body), ("666666", "666666"))
        self.assertEqual({row.account for row in collector.rows()}, {"fine@example.net"})
        self.assertEqual(refused.log().count("INFO: make_poll: Connected, "), 1)

    @harness.needs_namespaces
    def test_full_disk(self):
        """The agent keeps its block until there is room again; nothing is lost, nothing doubled."""
        collector = harness.Collector(self, *PLAN)
        os.mkdir(collector.state)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=600k", "tmpfs", collector.state], check=True)
        self.addCleanup(subprocess.run, ["umount", "--lazy", collector.state], check=True)
        collector.start()
        rising = harness.RisingLoad(self)
        agent = harness.Agent(self, collector.port,
                              wrap=harness.mounted(rising.path, "/proc/loadavg")).start()
        collector.wait_test(1, 2)

        filler = os.path.join(collector.state, "filler")
        with open(filler, "wb", buffering=0) as file:
            try:
                while True:
                    file.write(bytes(4096))
            except OSError:
                pass
        agent.wait_log("Unable to establish connection to the server.", 2)
        collector.wait_errors("results cannot be stored, the agents keep them: ")
        collector.wait_errors("not stored, must come again: agent of user@example.net")
        os.unlink(filler)
        collector.wait_errors("results are stored again")
        collector.wait_test(1, len(collector.results()) + 3)
        agent.stop()

        collected = agent.collected(inventories=False)
        stored = sum(len(row.record) for row in collector.rows())
        self.assertIn(sum(collected) - stored, (0, collected[-1]))
        collector.stop()

    def test_two_on_one_state_directory(self):
        first = harness.Collector(self, *PLAN).start()
        second = harness.Collector(self, *PLAN, name="second")
        second.state = first.state
        second.launch()
        self.assertEqual(second.process.wait(harness.PATIENCE_S), 1)
        self.assertIn(first.state, second.errors())
        self.assertFalse(os.path.exists(second.port_file))
        RawClient(first.port).session()

    def test_report_of_missing_tests(self):
        collector = harness.Collector(self, *PLAN, "LAA\t2\t1\t-1\t-1\t-1", "LAA\t3\t1\t-1\t-1\t-1",
                                      "LAD\t3\t1").start()
        self.assertEqual(collector.missing(), (1, "missing\t-\t-\tload average\t1\n"
                                                  "missing\t-\t-\tload average\t2\n"))
        client = RawClient(collector.port)
        session = client.session(agent="a")
        client.poll(session, block(1))
        status, report = collector.missing()
        self.assertEqual(status, 1)
        self.assertRegex(report, r"^stored\tuser@example.net\ta\tload average\t1\t20\d\d-[^\t]*Z\tok\n"
                                 r"missing\tuser@example.net\ta\tload average\t2\n$")
        client.poll(session, block(2))
        status, report = collector.missing()
        self.assertEqual((status, report.count("stored"), report.count("\n")), (0, 2, 2), report)
        # It reads while nobody writes, too.
        collector.stop()
        self.assertEqual(collector.missing()[0], 0)

    def test_a_refused_line_of_the_plan_is_reported_as_missing(self):
        collector = harness.Collector(self, *PLAN, "LAA\t2\t1\t-1").start()
        client = RawClient(collector.port)
        client.poll(client.session(agent="a"), block(1))
        status, report = collector.missing()
        self.assertEqual(status, 1)
        self.assertRegex(report, r"^problem\tline \d+: .*\nstored\t.*\n$")

    def test_options(self):
        for options in (["--no-such"], ["--port"], ["--port", "65536"], ["--port", "x"], ["stray"],
                        ["--cert", "x"], ["--keep-days", "-1"]):
            done = self.run_collector(*options)
            self.assertEqual((done.returncode, done.stdout), (2, ""), options)
            self.assertTrue(done.stderr.strip(), options)
        self.assertEqual(self.run_collector("--help").returncode, 0)
        self.assertEqual(self.run_collector("--version").returncode, 0)

    def test_cannot_start(self):
        state = self.subdir("state")
        with socket.create_server(("127.0.0.1", 0)) as taken:
            occupied = str(taken.getsockname()[1])
            for options, text in ((["--port", occupied], "port " + occupied),
                                  (["--listen", "nowhere"], "nowhere"),
                                  (["--plan", "/proc/nonexistent/plan"], "/proc/nonexistent/plan"),
                                  (["--plan", self.dir], self.dir),
                                  (["--cert", "/proc/nonexistent/c", "--key", "/proc/nonexistent/k"],
                                   "/proc/nonexistent/c")):
                done = self.run_collector("--state-dir", state, "--port", "0", *options)
                self.assertEqual((done.returncode, done.stdout), (1, ""), options)
                self.assertIn(text, done.stderr)
        harness.write_text(os.path.join(state, "results.db"), "no database at all\n" * 1000)
        done = self.run_collector("--state-dir", state, "--port", "0")
        self.assertEqual(done.returncode, 1)
        self.assertIn("results.db", done.stderr)

    def run_collector(self, *options):
        return subprocess.run([harness.COLLECTOR, *options], stdin=subprocess.DEVNULL,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False,
                              timeout=harness.PATIENCE_S)

    def test_state_is_private(self):
        collector = harness.Collector(self, *PLAN).start()
        RawClient(collector.port).poll(RawClient(collector.port).session(), block(1))
        self.assertEqual(os.stat(collector.state).st_mode & 0o777, 0o700)
        for name in set(os.listdir(collector.state)) - {"certificate.pem", "ca.pem", "agents-ca.pem"}:
            self.assertEqual(os.stat(os.path.join(collector.state, name)).st_mode & 0o077, 0, name)


class Names(harness.TestCase):
    def test_odd_characters(self):
        """Names arrive as they are, in the database and as JSON."""
        names = ['a"b\\c', "<&>%s%n", "\u00e9\u4e16\u754c", "x" * 254, "a  b", "{}[],:", "';--", "666666"]
        collector = harness.Collector(self, *PLAN).start()
        for name in names:
            harness.Agent(self, collector.port, name="agent", AGENTNAME=name).start()
        harness.wait_until(lambda: {row.agent for row in collector.rows()} == set(names),
                           lambda: repr({row.agent for row in collector.rows()}))
        harness.wait_until(lambda: {result["agent"] for result in collector.results()} == set(names),
                           lambda: repr({result["agent"] for result in collector.results()}))

    def test_refused_names(self):
        """A name that cannot be one: the agent is told to log in again, and again."""
        collector = harness.Collector(self, *PLAN).start()
        for name in ("x" * 255, "a\x07b", "a\x1b[2Jb"):
            agent = harness.Agent(self, collector.port, AGENTNAME=name).start()
            agent.wait_log("INFO: make_poll: Connected")
            harness.wait_until(lambda agent=agent: "Reauthorization is required." in agent.log() or
                               "There is an internal error occurred" in agent.log(), agent.log)
        self.assertNotIn("\x1b", collector.errors())
        self.assertNotIn("\x07", collector.errors())


if __name__ == "__main__":
    harness.main()
