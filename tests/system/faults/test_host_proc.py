"""Kernel files that are gone, empty or closed while the agent runs."""

import os
import subprocess

import host  # first: it knows where the next ones are
import harness
import records
import steered

STAT = "cpu  %d 0 100 1000 0 0 0 0 0 0\ncpu0 %d 0 100 1000 0 0 0 0 0 0\nintr 1\n"
MEMINFO = "MemTotal: 9 kB\nMemFree: %d kB\nBuffers: 1 kB\nCached: 1 kB\nSwapTotal: 9 kB\nSwapFree: 9 kB\n"


class Files(steered.TestCase):
    FILES = {  # kernel file: type of the record, text for a value
        "loadavg": (records.LOAD_AVERAGE, lambda n: "%d.00 0.00 0.00 1/1 1\n" % n),
        "meminfo": (records.MEMORY, lambda n: MEMINFO % (n * 1024)),
        "stat": (records.CPU, lambda n: STAT % (100 * n, 100 * n)),
    }

    def write(self, number):
        for name, (_, text) in self.FILES.items():
            harness.write_text(os.path.join(self.dir, name), text(number))

    def count(self):
        return [len(self.records(kind)) for kind, _ in self.FILES.values()]

    def wait_all(self):
        """Waits for two records more of each kind; the last value that each has."""
        before = self.count()
        harness.wait_until(lambda: all(now >= then + 2 for now, then in zip(self.count(), before)),
                           lambda: "records of each kind: %s, before %s" % (self.count(), before))

    @harness.needs_namespaces
    def test_files(self):
        """Expected: while the load average or memory file is empty nothing is recorded, and nothing logged;
        without processor lines the last shares are repeated; cut off in the middle, what is there
        counts. Polls and the other checks go on, and these again when the file is whole."""
        self.write(1)
        mounts = []
        for name in self.FILES:
            mounts += [os.path.join(self.dir, name), "/proc/" + name]
        self.start("LAA\t1\t1\t-1\t-1\t-1", "MMA\t2\t1\t-1\t-1\t-1\t-1\t-1",
                   "CUA\t3\t1\t-1\t-1\t-1\t-1\t-1", "DKA\t4\t1\t/(x|y)\t1", wrap=harness.mounted(*mounts))
        self.wait_all()
        for number, text in enumerate((b"", b"cpu"), 2):
            for name in self.FILES:
                harness.write_text(os.path.join(self.dir, name), text)
            self.wait_idle(3)
            before = self.count()
            disks = len(self.records(records.DISK))
            self.wait_idle(3)
            if not text:
                self.assertEqual(self.count()[:2], before[:2])
                shares = [record.d64 for record in self.records(records.CPU)]
                self.assertEqual(shares[-1], shares[-2])
            self.assertGreater(len(self.records(records.DISK)), disks)
            self.write(number)
            self.wait_all()
            self.assertEqual(self.records(records.LOAD_AVERAGE)[-1].d64[0], number)
            self.assertEqual(self.records(records.MEMORY)[-1].d64[0], number)
        self.agent.stop()
        self.assertNotIn("ERROR", self.agent.log())

    @harness.needs_namespaces
    def test_no_proc(self):
        """Expected: with no kernel files at all (unmounted under the agent) the tests of processes report
        that these do not run, as without them; nothing else is recorded, polls go on; all is back with
        the files."""
        # The namespace of the agent's mounts is entered from outside through its process.
        self.start("LAA\t1\t1\t-1\t-1\t-1", "MMA\t2\t1\t-1\t-1\t-1\t-1\t-1", "CUA\t3\t1\t-1\t-1\t-1\t-1\t-1",
                   "PRA\t4\t1\t-1\t-1\t-1\tvindral", "NTA\t5\t1\tlo\t0\t0\t0\t0\t0\t0", "DKA\t6\t1\t/(x|y)\t1",
                   "DKA\t7\t1\tx\t1\t1", wrap=["unshare", "--mount"])
        self.wait_all()
        pid = str(self.agent.process.pid)
        enter = ["nsenter", "--target", pid, "--mount"]
        subprocess.run(enter + ["mount", "-t", "tmpfs", "tmpfs", "/proc"], check=True)
        self.wait_record(records.PROCESS, lambda r: r.ui32[4] == 3)
        self.wait_idle(3)
        before = self.count()
        self.wait_idle(3)
        self.assertEqual(self.count(), before)
        subprocess.run(enter + ["umount", "/proc"], check=True)
        self.wait_all()
        harness.wait_until(lambda: self.records(records.PROCESS)[-1].ui32[4] == 0, "the process")
        self.agent.stop()


if __name__ == "__main__":
    harness.main()
