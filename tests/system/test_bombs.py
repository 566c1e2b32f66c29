"""Small bodies that unpack to much: what they cost the collector, and that nobody is refused for them."""

import re
import threading

import harness
import attacks  # where harness has found it
from raw_client import RawClient

SIZE = 4 << 20 if harness.SANITIZERS else 48 << 20
OWN = 24 << 20  # the database's cache, and what a first poll makes


def memory(pid, key):
    return int(re.search(key + r":\s+(\d+)", harness.read_text("/proc/%d/status" % pid)).group(1)) << 10


class Bombs(harness.TestCase):
    def setUp(self):
        super().setUp()
        self.collector = harness.Collector(self, options=["--quiet"]).start()
        self.client = RawClient(self.collector.port)
        self.neighbour = self.client.session(agent="neighbour")
        self.count = 0

    def poll_beside(self):
        self.count += 1
        answer = self.client.poll(self.neighbour, attacks.load_record(1, self.count))
        self.assertIsNotNone(answer, self.collector.errors())
        self.assertEqual((answer.status, answer.body), ("HTTP/1.0 200 OK", ""))

    def throw(self, name, size=SIZE):
        session = self.client.session(agent=name)
        plain = attacks.ATTACKS[name](size)
        bomb = self.client.poll_bytes(session, plain)
        size = len(plain)
        del plain
        self.poll_beside()
        before = memory(self.collector.process.pid, "VmRSS")
        answers = []

        def until_it_is_answered():  # in time, that is: on a busy machine it may have to come again
            while not answers:
                answer = self.client.exchange(bomb)
                if answer is not None:
                    answers.append(answer)

        thrower = threading.Thread(target=until_it_is_answered, daemon=True)
        thrower.start()
        while thrower.is_alive():
            self.poll_beside()
        thrower.join()
        self.poll_beside()
        self.assertEqual((answers[0].status, answers[0].body), ("HTTP/1.0 200 OK", ""))
        if not harness.SANITIZERS:
            grown = memory(self.collector.process.pid, "VmHWM") - before
            self.assertLess(grown, 2 * size + OWN, name)

    def test_strings(self):
        self.throw("strings")

    def test_empty_strings(self):
        self.throw("empty strings")

    def test_zeros(self):
        self.throw("zeros")

    def test_the_largest(self):
        self.throw("zeros", (16 << 20) if harness.SANITIZERS else (255 << 20))

    def test_values(self):
        self.throw("values")

    def test_nested(self):
        self.throw("nested")

    def test_trials(self):
        self.throw("many trials")

    def test_rows(self):
        self.throw("rows", SIZE // 4)
        self.assertEqual(len(self.collector.rows()), SIZE // 4 // 36 + self.count)

    def test_honest(self):
        """Three days of twenty tests a minute, four times."""
        self.throw("honest")


if __name__ == "__main__":
    harness.main()
