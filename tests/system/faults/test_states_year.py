"""A year of 200 agents, with all that networks, hosts, clocks and the collector itself do in a year.

Expected: states, events and ledger as the model of tests/support has them, line by line."""

import concurrent.futures
import os
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))

import harness  # noqa: E402
import test_states  # noqa: E402

AGENTS, AT_ONCE = 200, 20
DAYS = 20 if harness.SANITIZERS else 365
PASSES_S = 10800  # minutes would take hours; a week of them is below


def run(seed, agents, days, interval):
    history = test_states.run(unittest.TestCase(), seed, agents, days, interval)
    return history.totals(), dict(history.did)


class Year(harness.TestCase):
    def test_year(self):
        parts = [(100 + part, AT_ONCE, DAYS, PASSES_S) for part in range(AGENTS // AT_ONCE)]
        parts.append((200, 20, 1 if harness.SANITIZERS else 7, 60))
        with concurrent.futures.ProcessPoolExecutor(os.cpu_count()) as pool:
            for part, (totals, did) in zip(parts, pool.map(run, *zip(*parts))):
                print("seed %d: %d received, %d repeated, %d missing; %s" % (part[0], *totals, did), flush=True)
                self.assertGreater(totals[0], 0)


if __name__ == "__main__":
    harness.main()
