"""The load average checker on kernel files of our own: what it reads, how it judges, what it records."""

import math
import os
import re
import time

import harness
import records

WITHIN = "Load Average values are within acceptable limits\n"

# Text of /proc/loadavg, what the three averages are, and for each test its three maxima, its status
# and its message.
CASES = [
    ("2.00 3.50 0.25 1/91 7102\n", (2.0, 3.5, 0.25), [
        ((3, -1, -1), 0, WITHIN),
        ((2, -1, -1), 2, "Load Average 1 min value: 2.00 / Max value: 2\n"),  # equality counts
        ((1, -1, -1), 2, "Load Average 1 min value: 2.00 / Max value: 1\n"),
        ((-1, 4, -1), 0, WITHIN),
        ((-1, 3, -1), 2, "Load Average 5 min value: 3.50 / Max value: 3\n"),
        ((-1, 1, -1), 2, "Load Average 5 min value: 3.50 / Max value: 1\n"),
        ((-1, -1, 1), 0, WITHIN),
        ((-1, -1, 0), 2, "Load Average 15 min value: 0.25 / Max value: 0\n"),
        ((-1, -1, -1), 0, WITHIN),
        ((2, 3, 0), 2, "Load Average 1 min value: 2.00 / Max value: 2\n"
                       "Load Average 5 min value: 3.50 / Max value: 3\n"
                       "Load Average 15 min value: 0.25 / Max value: 0\n"),
        ((2, 4, 0), 2, "Load Average 1 min value: 2.00 / Max value: 2\n"
                       "Load Average 15 min value: 0.25 / Max value: 0\n"),
        ((2147483647, 2147483647, 2147483647), 0, WITHIN),
        ((-2, -1, -1), 2, "Load Average 1 min value: 2.00 / Max value: -2\n"),
    ]),
    ("0.00 0.00 0.00 1/1 1\n", (0.0, 0.0, 0.0), [
        ((0, -1, -1), 2, "Load Average 1 min value: 0.00 / Max value: 0\n"),
        ((1, 1, 1), 0, WITHIN),
    ]),
    ("99999.994 1.995 1.004 1/1 1\n", (99999.994, 1.995, 1.004), [
        ((99999, 1, 1), 2, "Load Average 1 min value: 99999.99 / Max value: 99999\n"
                           "Load Average 5 min value: %.2f / Max value: 1\n"
                           "Load Average 15 min value: 1.00 / Max value: 1\n" % 1.995),
    ]),
    # What is no number reads as 0, and so does all that follows.
    ("garbage\n", (0.0, 0.0, 0.0), [((0, -1, -1), 2, "Load Average 1 min value: 0.00 / Max value: 0\n"),
                                    ((1, 1, 1), 0, WITHIN)]),
    ("1.5", (1.5, 0.0, 0.0), [((1, 1, 1), 2, "Load Average 1 min value: 1.50 / Max value: 1\n")]),
    ("1.5 x 3.5\n", (1.5, 0.0, 0.0), [((2, 2, 2), 0, WITHIN)]),
    ("\n\n 1.5\t2.5\n3.5", (1.5, 2.5, 3.5), [((-1, -1, 3), 2,
                                              "Load Average 15 min value: 3.50 / Max value: 3\n")]),
    ("inf nan -3\n", (math.inf, math.nan, -3.0), [
        ((1, 1, -4), 2, "Load Average 1 min value: inf / Max value: 1\n"
                        "Load Average 15 min value: -3.00 / Max value: -4\n")]),
    ("1e308 0x10 7\0 8\n", (1e308, 16.0, 7.0), [
        ((-1, 16, 8), 2, "Load Average 5 min value: 16.00 / Max value: 16\n"),
        ((2147483647, -1, -1), 2,
         "Load Average 1 min value: %.2f / Max value: 2147483647\n" % 1e308)]),
    ("4.25 1.00 1.00 1/1 1\n" + "x" * 10000, (4.25, 1.0, 1.0), [((5, 5, 5), 0, WITHIN)]),
]


def same(a, b):
    return a == b or math.isnan(a) and math.isnan(b)


class LoadAverage(harness.TestCase):
    def start(self, loadavg, *plan):
        self.loadavg = os.path.join(self.dir, "loadavg")
        harness.write_text(self.loadavg, loadavg)
        self.collector = harness.Collector(self, "POL\t0\t1", *plan).start()
        self.agent = harness.Agent(self, self.collector.port,
                                   wrap=harness.mounted(self.loadavg, "/proc/loadavg")).start()

    def load(self, test, location):
        """The first stored record of a test with that location."""
        def find():
            return [row.record for row in self.collector.rows()
                    if (row.test, row.location) == (test, location)]
        self.collector.wait_results(
            lambda result: (result["test"], result["location"]) == (test, location),
            "test %d, location %d" % (test, location))
        return records.as_load(records.decode(find()[0])[0])

    @harness.needs_namespaces
    def test_limits(self):
        self.start(CASES[0][0], "CHK\t0\t1")
        first, last = 1, 0
        for text, averages, tests in CASES:
            # The first record of a test is one of this round's text, which is there before the
            # test is.
            harness.write_text(self.loadavg, text)
            lines = ["LAD\t%d\t1" % number for number in range(first, last + 1)]
            first = last + 1
            for last, (maxima, _, _) in enumerate(tests, first):
                lines.append("LAA\t%d\t%d\t%d\t%d\t%d" % (last, 1000 + last, *maxima))
            started = int(time.time())
            self.collector.add_to_plan(*lines)
            for number, (maxima, status, message) in enumerate(tests, first):
                load = self.load(number, 1000 + number)
                self.assertEqual((load.status, load.message), (status, message), (text, maxima))
                self.assertTrue(all(map(same, load.values, averages)), (text, load.values))
                self.assertTrue(started <= load.time <= time.time())

    @harness.needs_namespaces
    def test_empty_file_skips_the_pass(self):
        """Nothing is recorded, remote tests included; a new test still counts as new afterwards."""
        self.start("", "LAA\t1\t1\t-1\t-1\t-1", "LAA\t2\t1\t-1\t-1\t-1\t;")
        self.agent.wait_log("INFO: add_lda. Added test. tid:2", timeout_s=60)
        self.agent.wait_log("INFO: data cache size: ", count=3)
        harness.write_text(self.loadavg, "1.00 2.00 3.00 1/1 1\n")
        self.collector.add_to_plan("LAM\t1\t9\t-1\t-1\t-1")
        self.assertEqual(self.load(1, 9).values, (1.0, 2.0, 3.0))
        self.agent.stop()
        self.assertNotIn((1, 1), [(row.test, row.location) for row in self.collector.rows()])

    @harness.needs_namespaces
    def test_unreadable_file_skips_the_pass(self):
        collector = harness.Collector(self, "POL\t0\t1", "CHK\t0\t1", "LAA\t1\t1\t-1\t-1\t-1").start()
        unreadable = os.path.join(self.dir, "socket")
        harness.make_socket_file(unreadable)  # open() fails with ENXIO, for root as well
        agent = harness.Agent(self, collector.port,
                              wrap=harness.mounted(unreadable, "/proc/loadavg")).start()
        agent.wait_log("INFO: data cache size: ", count=4)
        agent.stop()
        self.assertEqual(collector.rows(), [])
        self.assertNotIn("loadavg", agent.log())

    @harness.needs_namespaces
    def test_every_pass_reads_anew(self):
        self.start("1.00 1.00 1.00 1/1 1\n", "CHK\t0\t1", "LAA\t1\t1\t2\t-1\t-1")
        self.collector.wait_results(lambda result: result["status"] == 0)
        harness.write_text(self.loadavg, "2.00 1.00 1.00 1/1 1\n")
        self.collector.wait_results(lambda result: result["status"] == 2)
        harness.write_text(self.loadavg, "1.99 1.00 1.00 1/1 1\n")
        self.collector.wait_results(
            lambda result: result["status"] == 0 and result["values"]["load1"] == 1.99)

    def test_real_file(self):
        collector = harness.Collector(self, "POL\t0\t1", "LAA\t1\t1\t-1\t-1\t-1").start()
        harness.Agent(self, collector.port).start()
        result = collector.wait_test(1)[0]
        shown = re.match(r"([\d.]+) ([\d.]+) ([\d.]+) ", harness.read_text("/proc/loadavg"))
        for value, now in zip(result["values"].values(), shown.groups()):
            self.assertLess(abs(value - float(now)), max(2, float(now)))


if __name__ == "__main__":
    harness.main()
