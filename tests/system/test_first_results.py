"""The first result of a new or changed test goes out at once: the poll loop is asleep for an hour, and
what wakes it is the checker that has the result.

Each answer holds commands whose results the next poll must bring, or the one that follows it at once.
Were a signal lost, that poll would come after an hour, and the test would fail for want of it."""

import os
import subprocess
import threading
import time

import harness
import records
from scripted_server import ScriptedServer, response

# A checker's thread, the type of its records, its commands: id and location are filled in.
KINDS = {
    "lda": (records.LOAD_AVERAGE, "LA%s\t%d\t%d\t-1\t-1\t-1", "LAD\t%d\t0"),
    "cpu": (records.CPU, "CU%s\t%d\t%d\t-1\t-1\t-1\t-1\t-1", "CUD\t%d\t0"),
    "mem": (records.MEMORY, "MM%s\t%d\t%d\t-1\t-1\t-1\t-1\t-1", "MMD\t%d\t0"),
    "disk": (records.DISK, "DK%s\t%d\t%d\t/\t-1", "DKD\t%d\t0"),
    "proc": (records.PROCESS, "PR%s\t%d\t%d\t-1\t-1\t-1\tvindral", "PRD\t%d\t0"),
    "net": (records.NETWORK, "NT%s\t%d\t%d\tfirst0\t-1\t-1\t-1\t-1\t-1\t-1", "NTD\t%d\t0"),
}
EVERYWHERE = [kind for kind in KINDS if kind != "net"]
ROUNDS = 20 if harness.SANITIZERS else 200  # each adds a test and then changes it
FUTEX_WAIT_BITSET, FUTEX_OPERATION = 9, 0x7f  # linux/futex.h; the bits above are flags
ADDED, CHANGED = 1, 2  # locations, by which the two results are told apart


def is_at_rest(pid, name):
    """Whether the thread with that name waits for its next pass: by the kernel it is in a wait with a time
    limit. One that is not back yet may be asleep, too: where a lock is taken, which has no limit."""
    for task in os.listdir("/proc/%d/task" % pid):
        stat = harness.read_text("/proc/%d/task/%s/stat" % (pid, task))
        if stat.partition("(")[2].rpartition(")")[0] == name:
            call = harness.read_text("/proc/%d/task/%s/syscall" % (pid, task)).split()
            if len(call) < 5:
                return False  # it runs, or waits for a page
            operation, limit = int(call[2], 16), int(call[4], 16)
            return operation & FUTEX_OPERATION == FUTEX_WAIT_BITSET and limit != 0
    return False


class Rounds:
    """A server, its agent, and how far they have come: a test is added, changed, and removed with the
    next one's add."""

    def __init__(self, test, kind, pinned):
        self.kind, self.pinned = kind, pinned
        self.type, self.change, self.removal = KINDS[kind]
        self.step, self.polls, self.asked_at, self.slowest = 0, 0, None, 0.0
        self.up = threading.Event()
        server = ScriptedServer(test, default=self.serve)
        one = ["taskset", "--cpu-list", str(min(os.sched_getaffinity(0)))] if pinned else []
        self.agent = harness.Agent(test, server.port, name=kind, level=1, wrap=one).start()
        self.up.set()
        self.server = server

    def expected(self):
        """Type, test and location of the result that is asked for in this step."""
        return self.type, self.step // 2 + 1, CHANGED if self.step % 2 else ADDED

    def serve(self, peer):
        request = peer.read_request()
        arrived = time.monotonic()
        if request.is_login:
            peer.send(response("POL\t0\t3600\n", "Vnd-SessionID: s"))
            peer.end()
            return
        if self.asked_at is not None:
            found = {tuple(record.ui32[:3]) for record in records.results(request.plain())}
            if found != {self.expected()}:
                raise AssertionError("%s: %s instead of %s" % (self.kind, found, self.expected()))
            self.slowest = max(self.slowest, arrived - self.asked_at)
            self.step += 1
        peer.send(response(self.next_commands()))
        peer.end()

    def next_commands(self):
        if self.ended():
            return ""
        # A command that came before the checker is back from its last pass would wait for an hour, too.
        self.up.wait(harness.PATIENCE_S)
        harness.wait_until(lambda: is_at_rest(self.agent.process.pid, self.kind), "the checker's rest")
        _, test, location = self.expected()
        commands = self.change % ("M" if location == CHANGED else "A", test, location) + "\n"
        if location == ADDED and test > 1:
            commands = self.removal % (test - 1) + "\n" + commands
        self.asked_at = time.monotonic()
        return commands

    def ended(self):
        return self.step == 2 * ROUNDS

    def wait(self):
        for step in range(2 * ROUNDS):
            harness.wait_until(lambda step=step: self.step > step or self.server.errors, lambda: (
                "result %d of %s%s, %s" % (step, self.kind, ", pinned" if self.pinned else "", self.server.failures)))
            if self.server.errors:
                raise self.server.errors[0]


class RoundsOfAll:
    """The same with a test of every kind in each answer, added and then changed: the first result that is
    there starts an exchange, in which others become ready."""

    def __init__(self, test):
        self.step, self.asked_at, self.slowest, self.missing = -1, None, 0.0, set()
        self.up = threading.Event()
        self.server = ScriptedServer(test, default=self.serve)
        self.agent = harness.Agent(test, self.server.port, name="all", level=1).start()
        self.up.set()

    def serve(self, peer):
        request = peer.read_request()
        arrived = time.monotonic()
        if request.is_login:
            peer.send(response("POL\t0\t3600\n", "Vnd-SessionID: s"))
        elif self.ended():
            peer.send(response(""))
        else:
            if self.missing:
                self.missing -= {tuple(record.ui32[:3]) for record in records.results(request.plain())}
                self.slowest = max(self.slowest, arrived - self.asked_at)
            peer.send(response("" if self.missing else self.next_commands()))
        peer.end()

    def next_commands(self):
        self.step += 1
        if self.ended():
            return ""
        self.up.wait(harness.PATIENCE_S)
        test, location = self.step // 2 + 1, CHANGED if self.step % 2 else ADDED
        commands = ""
        for kind in EVERYWHERE:
            harness.wait_until(lambda kind=kind: is_at_rest(self.agent.process.pid, kind), "the checker's rest")
            type_of_records, change, removal = KINDS[kind]
            if location == ADDED and test > 1:
                commands += removal % (test - 1) + "\n"
            commands += change % ("M" if location == CHANGED else "A", test, location) + "\n"
            self.missing.add((type_of_records, test, location))
        self.asked_at = time.monotonic()
        return commands

    def ended(self):
        return self.step == 2 * ROUNDS

    def wait(self):
        for step in range(2 * ROUNDS):
            harness.wait_until(lambda step=step: self.step > step or self.server.errors, lambda: (
                "results %s of step %d, %s" % (self.missing, step, self.server.failures)))
            if self.server.errors:
                raise self.server.errors[0]


def make_interface():
    for command in ("link add first0 type veth peer name first1", "link set first0 up", "link set first1 up",
                    "address add 10.97.0.1/24 dev first0"):
        subprocess.run(["ip", *command.split()], check=True)


class FirstResults(harness.TestCase):
    def run_rounds(self, kinds, pinned):
        rounds = [Rounds(self, kind, pinned) for kind in kinds]
        harness.in_parallel(self, [(one.kind, one.wait) for one in rounds])
        print("slowest first result%s: %s" % (" on one processor" if pinned else "", ", ".join(
            "%s %.3f s" % (one.kind, one.slowest) for one in rounds)), flush=True)

    def test_wakes_the_poll_loop(self):
        self.run_rounds(EVERYWHERE, pinned=False)

    def test_wakes_the_poll_loop_on_one_processor(self):
        """Where a checker may run as soon as it is woken, and who woke it only when it is done."""
        self.run_rounds(EVERYWHERE, pinned=True)

    def test_of_all_checkers_at_once(self):
        rounds = RoundsOfAll(self)
        rounds.wait()
        print("slowest first results of all: %.3f s" % rounds.slowest, flush=True)

    @harness.needs_namespaces
    def test_of_an_interface(self):
        make_interface()
        for pinned in (False, True):
            self.run_rounds(["net"], pinned)


if __name__ == "__main__":
    harness.main()
