#!/usr/bin/env python3
"""The store as a whole: results are packed after a while, copied while the collector runs, restored elsewhere, and
checked."""

import glob
import os
import stat
import subprocess

import harness
import records
import stored
from raw_client import RawClient


def command(*words, state):
    """Exit status and output of vindral-collector."""
    done = subprocess.run([harness.COLLECTOR, *words, "--state-dir", state], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False, timeout=harness.PATIENCE_S)
    return done.returncode, done.stdout


def write(path, content):
    with open(path, "wb") as file:
        file.write(content)


def loads(count, first):
    """Load averages of two tests, as an agent would report them a second apart."""
    return b"".join(records.encode_load(records.Load(
        1 + n % 2, 1, first + n // 2, (n % 37 / 100, n / 7, 2.0), "Load Average values are fine\n", 2 * (n % 90 == 0)))
                    for n in range(count))


class Store(harness.TestCase):
    def collector(self, name="collector"):
        return harness.Collector(self, "POL\t0\t1", name=name).start()

    def send(self, collector, block, agent="raw"):
        client = RawClient(collector.port)
        answer = client.exchange(client.poll_bytes(client.session(agent=agent), block))
        self.assertTrue(answer.status.endswith(" 200 OK"), answer)

    def test_what_is_packed_is_what_was_sent(self):
        """More than an agent may have lying open: both tests come out of their chunks as they went in."""
        collector = self.collector()
        now = 1780000000
        blocks = [loads(6000, now + 10000 * n) for n in range(3)]
        for block in blocks:
            self.send(collector, block)

        def chunks():
            with stored.Database(os.path.join(collector.state, "results.db")) as database:
                return list(database.chunks())
        harness.wait_until(chunks, "something is packed")
        rows = collector.rows()
        for test in (1, 2):
            sent = [record.raw for block in blocks for record in records.decode(block) if record.ui32[1] == test]
            self.assertEqual([row.record for row in rows if row.test == test], sent)
        self.assertEqual(command("check", state=collector.state),
                         (0, collector.state + ": all that is stored can be read\n"))
        collector.stop()

    def test_backup_and_restore(self):
        """Copied while an agent reports; a collector goes on from the copy in another place."""
        collector = harness.Collector(self, "POL\t0\t1", "CHK\t0\t1", "LAA\t1\t1\t-1\t-1\t-1").start()
        agent = harness.Agent(self, collector.port).start()
        collector.wait_test(1, 2)
        copy = os.path.join(self.subdir("copies"), "copy.db")
        before = collector.rows()
        status, said = command("backup", copy, state=collector.state)
        self.assertEqual(status, 0, said)
        self.assertEqual(stat.S_IMODE(os.stat(copy).st_mode), 0o600)
        self.assertEqual(os.listdir(os.path.dirname(copy)), ["copy.db"])
        kept = stored.rows(copy)
        self.assertGreaterEqual(len(kept), len(before))
        self.assertEqual(kept[:len(before)], before)
        self.assertEqual(command("backup", copy, state=collector.state)[0], 1)  # it is there already
        self.assertEqual(command("restore", copy, "--replace", state=collector.state)[0], 1)  # it is in use
        agent.stop()
        collector.stop()

        second = harness.Collector(self, "POL\t0\t1", name="second")
        status, said = command("restore", copy, state=second.state)
        self.assertEqual(status, 0, said)
        self.assertEqual(second.rows(), kept)
        second.start()
        self.send(second, loads(2, 1780000000), agent="another")
        self.assertEqual(second.rows()[:len(kept)], kept)
        self.assertEqual(len(second.rows()), len(kept) + 2)
        second.stop()
        self.assertEqual(command("restore", copy, state=second.state)[0], 1)  # there is something
        status, said = command("restore", copy, "--replace", state=second.state)
        self.assertEqual(status, 0, said)
        self.assertEqual(second.rows(), kept)
        (old,) = glob.glob(os.path.join(second.state, "results-replaced-*.db"))
        self.assertIn(old, said)
        self.assertEqual(len(stored.rows(old)), len(kept) + 2)

    def test_damage_is_found(self):
        collector = self.collector()
        self.send(collector, loads(200, 1780000000))
        collector.stop()
        path = os.path.join(collector.state, "results.db")
        with open(path, "rb") as file:
            whole = file.read()
        at = whole.index(b"Load Average values")  # in a record
        damaged = whole[:at - 60] + b"\xff" * 40 + whole[at - 20:]
        write(path, damaged)
        status, said = command("check", state=collector.state)
        self.assertEqual(status, 1, said)
        self.assertIn("block 1: ", said)
        write(path, b"no database at all\n" * 1000)
        self.assertEqual(command("check", state=collector.state)[0], 2)


if __name__ == "__main__":
    harness.main()
