"""A year of 200 agents, with all that networks, hosts, clocks and the collector itself do in a year.

Expected: states, events and ledger as the model of tests/support has them, line by line."""

import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))

import harness  # noqa: E402
import test_states  # noqa: E402

AGENTS, AT_ONCE = 200, 25
DAYS = 30 if harness.SANITIZERS else 365


class Year(harness.TestCase):
    def test_year(self):
        # Hourly passes: three minutes of work, where those of every minute would take three hours.
        for part in range(AGENTS // AT_ONCE):
            test_states.run(self, 100 + part, AT_ONCE, DAYS, 3600)

    def test_minutes(self):
        test_states.run(self, 200, 20, 1 if harness.SANITIZERS else 7, 60)


if __name__ == "__main__":
    harness.main()
