"""Kernel files that are gone, empty, cut off or closed while the agent runs."""

import os
import subprocess

import host
import harness
import records
from scripted_server import ScriptedServer, accept_login
import steered

STAT = "cpu  %d 0 100 1000 0 0 0 0 0 0\ncpu0 %d 0 100 1000 0 0 0 0 0 0\nintr 1\n"
MEMINFO = "MemTotal: 1000 kB\nMemFree: %d kB\nBuffers: 100 kB\nCached: 100 kB\nSwapTotal: 9 kB\nSwapFree: 9 kB\n"

# The kernel file, its text for each value, the type of its record, the command of its test, and where a
# record holds the value. What the checker does without the file: nothing is recorded in any case.
FILES = {
    "loadavg": ("%d.00 0.00 0.00 1/1 1\n", records.LOAD_AVERAGE, "LAA\t1\t1\t-1\t-1\t-1"),
    "meminfo": (MEMINFO, records.MEMORY, "MMA\t1\t1\t-1\t-1\t-1\t-1\t-1"),
    "stat": (None, records.CPU, "CUA\t1\t1\t-1\t-1\t-1\t-1\t-1"),
}


class Files(steered.TestCase):
    def test_x(self):
        pass


if __name__ == "__main__":
    harness.main()
