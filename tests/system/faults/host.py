"""Faults of the machine under the programs: what the tests of them share."""

import os
import resource
import sqlite3
import struct
import subprocess
import unittest

import accounts  # noqa: F401  it makes the next ones known
import harness

DAY_S = 86400

needs_own_libc_calls = unittest.skipIf(
    harness.SANITIZERS, "a sanitizer has its own place before libc, where the faults are made")


class Shim:
    """Faults inside one program, made by shim.c; `env` is what the program is started with. Its fields,
    see there, are attributes here."""

    FIELDS = ("clock_offset_s", "fail_every", "fail_from_bytes", "failed", "no_threads", "sync_ms")

    def __init__(self, test):
        directory = test.subdir("shim")
        library = os.path.join(directory, "shim.so")
        subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-o", library,
                        os.path.join(os.path.dirname(os.path.abspath(__file__)), "shim.c")], check=True)
        control = os.path.join(directory, "control")
        harness.write_text(control, bytes(8 * len(self.FIELDS)))
        self.__dict__["_file"] = os.open(control, os.O_RDWR)
        test.addCleanup(os.close, self._file)
        self.__dict__["env"] = {"LD_PRELOAD": library, "FAULT_CONTROL": control}

    def __setattr__(self, name, value):
        os.pwrite(self._file, struct.pack("q", value), 8 * self.FIELDS.index(name))

    def __getattr__(self, name):
        return struct.unpack("q", os.pread(self._file, 8, 8 * self.FIELDS.index(name)))[0]


class Limit:
    """Lowers the soft limit of a running process for a scope."""

    def __init__(self, pid, what, value):
        self.pid, self.what, self.value = pid, what, value

    def __enter__(self):
        self.before = resource.prlimit(self.pid, self.what)
        resource.prlimit(self.pid, self.what, (self.value, self.before[1]))

    def __exit__(self, *_):
        resource.prlimit(self.pid, self.what, self.before)


def cpu_seconds(pid):
    fields = harness.read_text("/proc/%d/stat" % pid).rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def descriptors(pid):
    """What the process has open, but for connections and kernel files that come and go."""
    return sorted(name for name in harness.open_files(pid).values() if not name.startswith(("socket:", "/proc")))


def mount_small(test, path, size):
    """A file system of that size at `path`, gone with the test."""
    os.makedirs(path, exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=" + size, "tmpfs", path], check=True)
    test.addCleanup(subprocess.run, ["umount", "--lazy", path], check=True)


def fill(directory):
    """Takes all room there is and returns the file that holds it."""
    path = os.path.join(directory, "filler")
    with open(path, "wb", buffering=0) as file:
        for size in (65536, 4096):
            try:
                while True:
                    file.write(bytes(size))
            except OSError:
                pass
    return path


class TestCase(harness.TestCase):
    """A collector, an agent with one test whose results are all different, and the account of them."""

    PLAN = ("POL\t0\t1", "CHK\t0\t1", "LAA\t1\t1\t-1\t-1\t-1")

    def start_collector(self, *plan, **options):
        self.collector = harness.Collector(self, *self.PLAN, *plan, **options)
        return self.collector

    def start_agent(self, port=None, wrap=(), **options):
        rising = harness.RisingLoad(self)
        self.agent = harness.Agent(self, port or self.collector.port,
                                   wrap=harness.mounted(rising.path, "/proc/loadavg") + list(wrap),
                                   **options)
        return self.agent.start()

    def wait_more(self, count=2):
        """Waits for further results in the store."""
        self.collector.wait_test(1, len([r for r in self.collector.results() if r["test"] == 1]) + count)

    def check_account(self):
        """Everything that the agent collected was stored, once; the block collected last may not have been
        sent any more. Ends both."""
        self.agent.stop()
        collected = self.agent.collected(inventories=False)
        stored = [row.record for row in self.collector.rows()]
        self.assertIn(sum(collected) - sum(map(len, stored)), (0, collected[-1]))
        self.collector.stop()
        state = os.path.join(self.collector.state, "results.db")
        connection = sqlite3.connect("file:%s?mode=ro" % state, uri=True)
        try:
            self.assertEqual(connection.execute("PRAGMA integrity_check").fetchall(), [("ok",)])
        finally:
            connection.close()
