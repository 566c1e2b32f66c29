"""States, events and ledger of agents over simulated weeks, compared with a model's (tests/support): line by line,
whatever network, hosts, clocks and the collector go through."""

import os
import queue
import subprocess
import threading

import harness
import histories

DRIVER = os.path.join(harness.BUILD, "tests", "collector", "state_driver")
DAY_S = 86400


class Driver:
    """The program that does what a history says."""

    def __init__(self):
        self.process = subprocess.Popen([DRIVER], stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=1 << 20)
        self.said = queue.SimpleQueue()
        self.reader = threading.Thread(target=self._read)
        self.reader.start()

    def _read(self):
        for line in self.process.stdout:
            self.said.put(line.decode(errors="replace").rstrip("\n"))
        self.said.put(None)

    def write(self, line):
        self.process.stdin.write(line)

    def flush(self):
        """All lines that it printed since the last time."""
        self.process.stdin.write(b"flush\n")
        self.process.stdin.flush()
        found = []
        while True:
            line = self.said.get()
            if line is None:
                raise AssertionError("state_driver ended with %s after %r" % (self.process.wait(), found[-1:]))
            if line == ".":
                return found
            found.append(line)

    def end(self):
        try:
            self.process.stdin.close()
        except BrokenPipeError:
            pass
        status = self.process.wait()
        self.reader.join()
        self.process.stdout.close()
        return status


def run(test, seed, agents, days, interval):
    """A history, compared day by day; what happened in it."""
    driver = Driver()
    try:
        wanted = []
        history = histories.History(seed, agents, days, interval, driver.write, wanted.append)
        day = 0
        more = True
        while more:
            day += 1
            more = history.run(day * DAY_S)
            if not more or day % 10 == 0:
                history.show()
            found = driver.flush()
            history.line_number += 1
            compare(test, "seed %d, %d agents, day %d" % (seed, agents, day), found, wanted)
            wanted.clear()
    finally:
        status = driver.end()
    test.assertEqual(status, 0)
    return history


def in_order(lines):
    """Changes of one line of the history are in order of tests, those of a test as they were."""
    return sorted(lines, key=lambda line: (int(line.split(" ")[0]), line.split(" ")[1:3]) if line[0].isdigit()
                  else (1 << 60, []))


def compare(test, where, found, wanted):
    found, wanted = in_order(found), in_order(wanted)
    for place, (one, other) in enumerate(zip(found + [None] * len(wanted), wanted + [None] * len(found))):
        if one != other:
            test.fail("%s, line %d of what was said: %r, not %r; before it\n%s" % (
                where, place, one, other, "\n".join(found[max(0, place - 5):place])))


class States(harness.TestCase):
    def test_as_the_model_says(self):
        for seed, agents, days, interval in ((1, 40, 5, 900), (2, 8, 2, 60), (3, 20, 20, 3600)):
            with self.subTest(seed=seed):
                history = run(self, seed, agents, days, interval)
                received, repeated, missing = history.totals()
                print("seed %d: %d lines, %d received, %d repeated, %d missing; %s" % (
                    seed, history.line_number, received, repeated, missing, dict(history.did)), flush=True)


if __name__ == "__main__":
    harness.main()
