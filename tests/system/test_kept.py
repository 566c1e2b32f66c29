"""What the collector keeps besides results, and what an operator does with all of it: events, definitions of
tests, backup, restore, check."""

import os
import re
import sqlite3
import subprocess
import time

import harness
import records
import store_history
from raw_client import RawClient

LOAD = "LAA\t1\t1\t8\t6\t4"
PAGE = "HPA\t2\t1\twww.example.org\t/status?token=geheim\t443\twell\t\tmonitor\tgeheim\t5\t1\t1\t1\t1\t0"
START = 1700000000


def load(seconds, status, message):
    return records.encode_load(records.Load(1, 1, START + seconds, (9.0, 1.0, 1.5), message, status))


def varint(value):
    text = b""
    while value >= 128:
        text += bytes([value & 127 | 128])
        value >>= 7
    return text + bytes([value])


class Kept(harness.TestCase):
    def setUp(self):
        super().setUp()
        self.collector = harness.Collector(self, "POL\t0\t1", "CHK\t0\t1", LOAD, PAGE).start()
        self.client = RawClient(self.collector.port)
        self.session = self.client.session(agent="web1")

    def post(self, *blocks):
        for block in blocks:
            self.assertEqual(self.client.poll(self.session, block).status, "HTTP/1.0 200 OK")

    def query(self, text, state=None):
        path = os.path.join(state or self.collector.state, "results.db")
        database = sqlite3.connect("file:%s?mode=ro" % path, uri=True)
        try:
            return database.execute(text).fetchall()
        finally:
            database.close()

    def events(self, state=None):
        return self.query("SELECT e.time, a.name, t.type, t.number, e.from_state, e.to_state, e.message FROM events e"
                          " JOIN agents a ON a.id = e.agent LEFT JOIN tests t ON t.id = e.test ORDER BY e.id", state)

    def run_command(self, *words, status=0):
        """What it printed on standard output and on standard error."""
        done = subprocess.run([harness.COLLECTOR, *words], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True, check=False, timeout=harness.PATIENCE_S,
                              env=self.collector.env)
        self.assertEqual(done.returncode, status, done)
        return done.stdout, done.stderr

    def test_each_change_of_a_test_is_an_event(self):
        self.post(load(0, 0, "fine\n"), load(1, 0, "fine\n"), load(2, 2, "high\n"), load(2, 2, "high\n"),
                  load(3, 2, "high\n"), load(4, 0, "fine\n"))
        self.assertEqual(self.events(), [(START, "web1", 66, 1, 0, 1, "fine\n"), (START + 2, "web1", 66, 1, 1, 2, "high\n"),
                                         (START + 4, "web1", 66, 1, 2, 1, "fine\n")])
        self.assertEqual(self.collector.missing()[1].count("stored\t"), 1)

    def test_what_a_test_was_is_kept_without_its_secrets(self):
        def definitions():
            return self.query("SELECT type, number, location, name, text FROM definitions ORDER BY id")
        page = (49, 2, 1, "www.example.org/status", "2\t1\twww.example.org\t/status\t443\twell\t\tmonitor\t\t5\t1\t1\t1\t1\t0")
        self.assertTrue(harness.wait_until(lambda: len(definitions()) == 2, lambda: repr(definitions())))
        self.assertEqual(definitions(), [(66, 1, 1, "", "1\t1\t8\t6\t4"), page])
        self.collector.add_to_plan("LAM\t1\t5\t9\t6\t4")
        self.client.poll(self.session)
        harness.wait_until(lambda: len(definitions()) == 3, lambda: repr(definitions()))
        self.assertEqual(definitions()[2], (66, 1, 5, "", "1\t5\t9\t6\t4"))
        # The same plan, after a restart, is no other definition.
        self.collector.stop()
        self.collector.start()
        self.client.poll(self.client.session(agent="web1"), load(9, 0, "fine\n"))
        self.collector.stop()
        self.assertEqual(len(definitions()), 3)
        for name in os.listdir(self.collector.state):
            if name.startswith("results"):
                with open(os.path.join(self.collector.state, name), "rb") as stored:
                    self.assertNotIn(b"geheim", stored.read(), name)

    def test_each_result_has_the_name_that_its_test_had(self):
        def sinces():
            return [since for (since,) in self.query("SELECT since FROM definitions WHERE number = 7 ORDER BY id")]

        def plan(host):
            with open(self.collector.plan, "w", encoding="utf-8") as file:
                file.write("POL\t0\t1\nCHK\t0\t1\nLAA\t7\t1\t8\t6\t4\t%s\n" % host)

        def post(seconds, location=1):
            times.append(seconds)
            self.post(records.encode_load(records.Load(7, location, seconds, (9.0, 1.0, 1.5), "fine\n", 0)))
        times = []
        for revision, host in enumerate(("db1.example.org", "db2.example.org"), 1):
            self.collector.stop()
            harness.wait_until(lambda: time.time() >= max(sinces(), default=0) + 1, "the next second")
            plan(host)
            self.collector.start()
            self.session = self.client.session(agent="web1")
            harness.wait_until(lambda count=revision: len(sinces()) == count, lambda: repr(sinces()))
            if revision == 1:
                post(sinces()[0] - 3600)
            post(sinces()[-1])
        post(sinces()[-1] + 1, location=2)
        self.collector.stop()
        names = subprocess.run([os.path.join(harness.BUILD, "tests", "collector", "store_driver"), "names",
                                self.collector.state], stdout=subprocess.PIPE, text=True, check=True,
                               timeout=harness.PATIENCE_S).stdout.splitlines()
        first, second = ("db%d.example.org\t7\t1\t8\t6\t4\tdb%d.example.org" % (n, n) for n in (1, 2))
        self.assertEqual(names, ["web1\t7\t%d\t%d%s" % row for row in (
            (2, times[3], ""), (1, times[2], "\t" + second), (1, times[1], "\t" + first), (1, times[0], "\t" + first))])

    def test_an_upgrade_forgets_no_test(self):
        """An agent that runs is to remove a test that the plan has no more, though only what the version before
        left tells that it has it; and that takes a while to take over."""
        self.collector.stop()
        for name in os.listdir(self.collector.state):
            if name.startswith("results"):
                os.unlink(os.path.join(self.collector.state, name))
        with open(self.collector.plan, encoding="utf-8") as file:
            self.assertNotIn("\t9\t", file.read())
        db = sqlite3.connect(os.path.join(self.collector.state, "results.db"))
        db.executescript(store_history.LAYOUT_2)
        # Test 9 of type 66 with the last result at START, as its row has it.
        db.execute("INSERT INTO agents (id, account, name, first_seen, last_seen, last_block, latest)"
                   " VALUES (1, 'user@example.net', 'web1', 1, ?, x'', ?)",
                   (START, b"\1\x42" + varint(2 * START) + b"\1" + varint(18)))
        day = time.strftime("%Y%m%d", time.gmtime(START))
        db.execute("CREATE TABLE results_%s (id INTEGER PRIMARY KEY, received INTEGER NOT NULL, agent INTEGER NOT NULL,"
                   " type INTEGER NOT NULL, test INTEGER, location INTEGER, time INTEGER, status INTEGER,"
                   " record BLOB NOT NULL)" % day)
        db.execute("INSERT INTO days VALUES (?, 1)", (day,))
        db.executemany("INSERT INTO results_%s (received, agent, type, test, location, time, status, record)"
                       " VALUES (?, 1, 66, 9, 1, ?, 0, ?)" % day, ((START, START + i, records.encode_load(
                           records.Load(9, 1, START + i, (1.0, 1.0, 1.5), "fine\n", 0))) for i in range(-20000, 1)))
        db.commit()
        db.close()
        self.collector.start()
        self.assertEqual(self.client.poll(self.session).body, "111111")
        self.assertIn("LAD\t9\t", self.client.login(agent="web1").body)

    def test_queries_of_the_documents(self):
        for hours, minutes in ((3, 0), (3, 1), (3, 2), (3, 20), (2, 0), (2, 1), (1, 0)):
            seconds = int(time.time()) // 3600 * 3600 - hours * 3600 + 60 * minutes
            self.post(records.encode_load(records.Load(1, 1, seconds, (9.0, 1.0, 1.5), "high\n", 2 * (minutes == 20))))
        found = []
        for name in ("states.md", "operations.md"):
            with open(os.path.join(harness.HERE, "..", "..", "docs", name), encoding="utf-8") as file:
                found += [text.replace('\\"', '"') for text in  # as a shell reads it
                          re.findall(r'sqlite3 -readonly results\.db "((?:[^"\\]|\\.)+)"', file.read())]
        self.assertEqual(len(found), 3)
        self.collector.stop()
        answers = [self.query(query) for query in found]
        self.assertEqual([len(answer) for answer in answers], [3, 2, 3], answers)
        self.assertEqual([row[1:] for row in answers[1]], [("web1", 4, 0, 3596), ("web1", 2, 0, 3598)])

    def test_backup_and_restore(self):
        state, copy = self.collector.state, os.path.join(self.dir, "copy.db")
        self.post(load(0, 0, "fine\n"), load(1, 2, "high\n"))
        before = self.events()
        # While it runs; never over a file that is there.
        self.assertIn(copy, self.run_command("backup", copy, "--state-dir", state)[0])
        self.assertEqual(os.stat(copy).st_mode & 0o777, 0o600)
        self.assertIn(copy, self.run_command("backup", copy, "--state-dir", state, status=1)[1])
        self.post(load(2, 0, "fine\n"))
        # Not under a collector that runs, and not over results unless told to.
        for replace in ["--replace"], []:
            said = self.run_command("restore", copy, *replace, "--state-dir", state, status=1)[1]
            self.assertIn("nothing was restored: another collector uses", said)
            self.assertNotIn("--replace", said)
        self.collector.stop()
        self.assertIn("--replace", self.run_command("restore", copy, "--state-dir", state, status=1)[1])
        self.assertEqual(len(self.events()), 3)
        printed = self.run_command("restore", copy, "--replace", "--state-dir", state)[0]
        self.assertEqual(self.events(), before)
        kept = [name for name in os.listdir(state) if name in printed and name.startswith("results")]
        self.assertNotEqual(set(kept) - {"results.db"}, set(), printed)
        # The collector goes on from there: the agent is known, and so is its test.
        self.collector.start()
        self.post_after_restart(load(3, 0, "fine\n"))
        self.assertEqual(self.events()[2:], [(START + 3, "web1", 66, 1, 2, 1, "fine\n")])
        # Into a directory that there is not yet.
        other = os.path.join(self.dir, "other")
        self.run_command("restore", copy, "--state-dir", other)
        self.assertEqual(self.events(other), before)
        self.assertEqual(os.stat(other).st_mode & 0o777, 0o700)

    def post_after_restart(self, block):
        self.session = self.client.session(agent="web1")
        self.post(block)

    def test_check(self):
        state = self.collector.state
        self.post(*(load(i, 0, "m" * 500 + "%d\n" % i) for i in range(200)))
        self.assertIn(state, self.run_command("check", "--state-dir", state)[0])
        self.collector.stop()
        self.run_command("check", "--state-dir", state)
        path = os.path.join(state, "results.db")
        with open(path, "r+b") as database:  # in the middle of what was stored, behind the schema
            database.seek(os.path.getsize(path) // 2 // 8192 * 8192)
            database.write(os.urandom(8192))
        printed = self.run_command("check", "--state-dir", state, status=1)[0]
        self.assertGreater(printed.count("\n"), 1, printed)
        self.assertEqual(self.run_command("check", "--state-dir", self.subdir("empty"), status=2)[0], "")

    def test_what_is_no_copy_is_not_restored(self):
        text = os.path.join(self.dir, "text")
        harness.write_text(text, "no database at all\n" * 1000)
        other = os.path.join(self.dir, "other")
        for source in (text, self.dir, os.path.join(self.dir, "nowhere")):
            printed, said = self.run_command("restore", source, "--state-dir", other, status=1)
            self.assertEqual(printed, "")
            self.assertIn("nothing was restored: ", said)
        self.assertFalse(os.path.exists(other))

    def test_what_a_damaged_schema_says_is_safe_to_print(self):
        state = self.collector.state
        self.post(load(0, 0, "fine\n"))
        self.collector.stop()
        connection = sqlite3.connect(os.path.join(state, "results.db"))
        connection.executescript("PRAGMA writable_schema = ON; UPDATE sqlite_schema SET sql = 'CREATE nonsense', "
                                 "name = 'bad' || char(27) || '[31m' WHERE name = 'ledger'")
        connection.close()
        for status, words in (2, ["check"]), (1, ["backup", os.path.join(self.dir, "copy.db")]):
            said = self.run_command(*words, "--state-dir", state, status=status)[1]
            self.assertIn("malformed database schema (bad?[31m)", said)
        self.collector.launch().process.wait(harness.PATIENCE_S)
        self.collector.wait_errors("malformed database schema (bad?[31m)")
        self.assertNotIn("\33", self.collector.errors())


if __name__ == "__main__":
    harness.main()
