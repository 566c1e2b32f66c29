"""The store ends at any moment, as by kill -9, two thousand times; see tests/system/test_store_killed.py."""

import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))

import harness  # noqa: E402
from test_store_killed import Store  # noqa: E402

Store.kills = 40 if harness.SANITIZERS else 1400  # and half as many where there is an earlier database

if __name__ == "__main__":
    harness.main()
