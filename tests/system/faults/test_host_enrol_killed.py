"""An enrolment ends at any moment, as by kill -9; see tests/system/test_enrol.py.

Expected: what is in force is whole, the old settings or all of the new ones, and the same command finishes."""

import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))

import harness  # noqa: E402
from test_enrol import Killed  # noqa: E402,F401

Killed.every = 1

if __name__ == "__main__":
    harness.main(sys.argv[1:] or ["Killed"])
