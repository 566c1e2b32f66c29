"""CPU, memory, disk, process and network interface checkers of a real agent: on kernel files of our
own, and on processes, file systems, interfaces and an SNMP daemon that the tests start."""

import contextlib
import ctypes
import math
import os
import re
import select
import socket
import subprocess
import sys

import harness
import records
import steered

NONE = 18446744073709551616.0
CPU_WITHIN = "CPU usage is within acceptable limits\n"
MEMORY_WITHIN = "Memory usage is within acceptable limits\n"

STAT_TAIL = "intr 1 2 3\nctxt 7\nbtime 8\nprocesses 9\nprocs_running 1\nprocs_blocked 0\n"
MEMINFO = ("MemTotal:        8054328 kB\nMemFree:          524288 kB\nMemAvailable:    6000000 kB\n"
           "Buffers:          102400 kB\nCached:          2097152 kB\nSwapCached:            7 kB\n"
           "SwapTotal:       1048576 kB\nSwapFree:        1047552 kB\nDirectMap2M:     8202240 kB\n")

# A process of a given name that does what it is told. Its parent's death is its own.
PROCESS = """
import ctypes, os, signal, sys
libc = ctypes.CDLL(None)
def begin():
    libc.prctl(15, sys.argv[1].encode())
    libc.prctl(1, signal.SIGKILL)
begin()
if "parent" in sys.argv:
    child = os.fork()
    if child == 0:
        begin()
        signal.pause()
    def end(number, frame):
        os.kill(child, signal.SIGKILL)
        os.waitpid(child, 0)
        os._exit(0)
    signal.signal(signal.SIGTERM, end)
print(os.getpid(), flush=True)
while "burn" in sys.argv:
    pass
signal.pause()
"""


def stat(processors, total, each):
    return ("cpu  %s\n" % total + "".join("cpu%d %s\n" % (n, each) for n in range(processors)) +
            STAT_TAIL)


class Local(steered.TestCase):
    def fixture(self, name, text):
        path = os.path.join(self.dir, name)
        harness.write_text(path, text)
        return path

    def make_pair(self, name):
        """NAME0, connected to NAME1, in the namespace of the tests, gone at the end. Neither name is
        part of the other, which the agent would take for the same interface."""
        subprocess.run("ip link add %(name)s0 type veth peer name %(name)s1 && "
                       "ip addr add 198.51.100.1/24 dev %(name)s0 && "
                       "ip link set %(name)s0 up && ip link set %(name)s1 up" % {"name": name},
                       shell=True, check=True)
        self.addCleanup(subprocess.run, ["ip", "link", "del", name + "0"], check=True)

    def spawn(self, name, *options):
        process = subprocess.Popen([sys.executable, "-c", PROCESS, name, *options],
                                   stdout=subprocess.PIPE, text=True)

        def end():
            process.terminate()
            process.wait()
            process.stdout.close()
        self.addCleanup(end)
        self.assertEqual(int(process.stdout.readline()), process.pid)
        return process


class Fixtures(Local):
    @harness.needs_namespaces
    def test_cpu(self):
        path = self.fixture("stat", stat(2, "0 0 0 0 0 0 0 0 0 0", "0 0 0 0 0 0 0 0 0 0"))
        self.start("CUA\t1\t9\t10\t20\t30\t31\t10", "CUA\t2\t9\t11\t21\t31\t30\t11",
                   wrap=harness.mounted(path, "/proc/stat"))
        # No tick since the baseline: all shares are 0, and so no idle time.
        first = self.wait_record(records.CPU, lambda r: r.ui32[1] == 1)
        self.assertEqual((first.ui32, first.d64, first.strings),
                         ([44, 1, 9, 2], [0.0] * 5, ["CPU Idle: 0.00 / Min value: 31\n"]))
        self.wait_record(records.CPU, lambda r: r.ui32[1] == 2)
        # Both tests share the reading of a pass.
        harness.write_text(path, stat(2, "10 20 30 30 10 5 5 5 5 5", "0 0 0 7 0 9 9 9 9 9"))
        r = self.wait_record(records.CPU, lambda r: r.ui32[1] == 1 and r.d64[0] != 0)
        self.assertEqual((r.ui32, r.d64), ([44, 1, 9, 2], [10, 20, 30, 30, 10]))
        self.assertEqual(r.strings, ["User CPU usage: 10.00 / Max value: 10\n"
                                     "System CPU usage: 20.00 / Max value: 20\n"
                                     "Nice CPU usage: 30.00 / Max value: 30\n"
                                     "CPU Idle: 30.00 / Min value: 31\n"
                                     "CPU IO Wait: 10.00 / Max value: 10\n"])
        self.assertEqual([(part.ui32, part.d64, part.strings) for part in r.nested],
                         [([0], [0, 0, 0, 100, 0], [CPU_WITHIN])] * 2)
        r = self.wait_record(records.CPU, lambda r: r.ui32[1] == 2 and r.d64[0] != 0)
        self.assertEqual((r.ui32, r.d64, r.strings),
                         ([44, 2, 9, 0], [10, 20, 30, 30, 10], [CPU_WITHIN]))

    @harness.needs_namespaces
    def test_cpu_of_many_processors(self):
        for count, total, each in ((1, "1 1 1 1", "1 1 1 1"), (256, "1 1 1 1 1 1", "1 1 1 1 1 1")):
            path = self.fixture("stat%d" % count, stat(count, total, each))
            self.start("CUA\t1\t9\t-1\t-1\t-1\t-1\t0", wrap=harness.mounted(path, "/proc/stat"))
            harness.wait_until(lambda: self.records(records.CPU), "a record")
            harness.write_text(path, stat(count, re.sub("1", "3", total), re.sub("1", "2", each)))
            r = self.wait_record(records.CPU, lambda r: r.d64[0] != 0)
            # With four columns there is no I/O wait, and no limit of it.
            share = 25.0 if count == 1 else 20.0
            self.assertEqual(r.d64, [share] * 4 + [0.0 if count == 1 else share])
            self.assertEqual(r.ui32[3], 0 if count == 1 else 2)
            self.assertEqual(len(r.nested), count)
            self.agent.stop()
            self.server.stop()

    @harness.needs_namespaces
    def test_memory(self):
        path = self.fixture("meminfo", MEMINFO)
        self.start("MMA\t1\t9\t512\t1023\t1\t99\t2047", "MMA\t2\t9\t511\t1022\t99999\t100\t2048",
                   wrap=harness.mounted(path, "/proc/meminfo"))
        values = [512, 7865, 1023, 1024, 100, 2048, NONE, NONE]
        r = self.wait_record(records.MEMORY, lambda r: r.ui32[1] == 1)
        self.assertEqual((r.ui32, r.d64), ([47, 1, 9, 2], values))
        self.assertEqual(r.strings, ["Physical memory free size: 512.00 / Min value: 512\n"
                                     "Swap memory free size: 1023.00 / Min value: 1023\n"
                                     "Buffers memory size: 100.00 / Max value: 99\n"
                                     "Cached memory size: 2048.00 / Max value: 2047\n"])
        r = self.wait_record(records.MEMORY, lambda r: r.ui32[1] == 2)
        self.assertEqual((r.ui32, r.d64, r.strings), ([47, 2, 9, 0], values, [MEMORY_WITHIN]))
        # Without the file nothing is recorded.
        harness.write_text(path, "")
        self.wait_idle()
        count = len(self.records(records.MEMORY))
        self.wait_idle()
        self.assertEqual(len(self.records(records.MEMORY)), count)


class Real(Local):
    @harness.needs_namespaces
    def test_collection_order(self):
        """Inventories stand where they always stood, before the results of their checker."""
        self.make_pair("lan")
        self.start("NTA\t1\t1\tlan0\t0\t0\t0\t0\t0\t0", "LAA\t1\t1\t-1\t-1\t-1",
                   "MMA\t1\t1\t-1\t-1\t-1\t-1\t-1", "DKA\t1\t1\t/(x|y)\t1",
                   "CUA\t1\t1\t-1\t-1\t-1\t-1\t-1", "PRA\t1\t1\t-1\t-1\t-1\tvindral")

        def whole():
            kinds = [[record.ui32[0] for record in block] for block in self.blocks()]
            return next((found for found in kinds if len(set(found)) == 9), None)
        found = harness.wait_until(whole, lambda: str(self.blocks()[-1:]))
        self.assertEqual(list(dict.fromkeys(found)), [
            records.PROCESS_NAMES, records.PROCESS, records.CPU, records.FILE_SYSTEMS, records.DISK,
            records.MEMORY, records.LOAD_AVERAGE, records.INTERFACES, records.NETWORK])
        self.assertIn("lan0\t", self.records(records.INTERFACES)[-1].strings[0])
        names = self.records(records.PROCESS_NAMES)[-1].strings[0].split("\t")
        self.assertIn("vindral", names)
        self.assertEqual(names.pop(), "")
        self.assertEqual(len(names), len(set(names)))
        for kind in records.INVENTORIES:
            self.assertEqual(self.records(kind)[-1].ui32, [kind, 0, 0])

    @harness.needs_namespaces
    def test_disk(self):
        place = os.path.join(self.dir, "small disk")
        os.mkdir(place)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=8m", "tiny", place], check=True)
        self.addCleanup(subprocess.run, ["umount", place], check=True)
        with open(os.path.join(place, "file"), "wb") as file:
            file.write(bytes(4 << 20))
        entry = place + "(tiny|tmpfs)"
        self.start("DKA\t1\t9\t%s\t0.005" % entry, "DKA\t2\t9\t%s\t0.003" % entry,
                   "DKA\t3\t9\t/nowhere(x|y)\t1", "DKA\t4\t9\t%s\t1\t1" % entry)
        gigabytes = [8 / 1024, 4 / 1024]
        expected = {
            1: (2, gigabytes, "Drive: %s free space: 0.00 / Min value: 0.01.\n" % entry),
            2: (0, gigabytes, "Drive: %s free space is within acceptable limits.\n" % entry),
            3: (3, [0, 0], "Drive: /nowhere(x|y) not found.\n")}
        for test, (status, space, message) in expected.items():
            r = self.wait_record(records.DISK, lambda r, test=test: r.ui32[1] == test)
            self.assertEqual((r.ui32, r.d64, r.strings), ([46, test, 9, status], space, [message]))
        # What an I/O test finds is text for another road.
        self.assertEqual({r.ui32[1] for r in self.records(records.DISK)}, {1, 2, 3})
        listed = self.records(records.FILE_SYSTEMS)[-1].strings[0].split("\t")
        self.assertIn(entry, listed)
        self.assertNotIn("/proc(proc|proc)", listed)

    @harness.needs_namespaces
    def test_automounts(self):
        """Nobody asks for what an automounter would have to mount: nobody would answer here."""
        place = self.subdir("automount")
        requests, to_us = os.pipe()
        libc = ctypes.CDLL(None, use_errno=True)
        refused = libc.mount(b"nobody", place.encode(), b"autofs", 0,
                             b"fd=%d,minproto=5,maxproto=5,direct" % to_us)
        reason = os.strerror(ctypes.get_errno())
        os.close(to_us)  # the kernel has its own
        self.addCleanup(os.close, requests)  # which ends whatever waits for an answer
        if refused:
            self.skipTest("no automounts here: " + reason)
        self.addCleanup(subprocess.run, ["umount", "--lazy", place], check=True)
        self.start()
        self.wait_idle(3)
        asked = select.poll()  # select() stops at descriptor 1023
        asked.register(requests, select.POLLIN)
        self.assertEqual(asked.poll(0), [])
        self.assertNotIn(place, self.records(records.FILE_SYSTEMS)[-1].strings[0])

    def test_process(self):
        name = "vnd (a) b"
        self.start("PRA\t1\t9\t50\t-1\t-1\tvnd (a")
        r = self.wait_record(records.PROCESS, lambda r: True)
        self.assertEqual((r.ui32, r.d64, r.strings),
                         ([43, 1, 9, 0, 3], [0, 0, 0], ["The process is not running"]))
        parent = self.spawn(name, "parent")
        r = self.wait_record(records.PROCESS, lambda r: r.ui32[3] != 0)
        self.assertEqual((r.ui32, r.strings),
                         ([43, 1, 9, parent.pid, 0], ["The process has been started.\n"]))
        with open("/proc/%d/statm" % parent.pid, encoding="ascii") as file:
            pages = int(file.read().split()[0])
        # The child is folded into its parent.
        self.assertGreater(r.d64[2], 1.9 * pages * os.sysconf("SC_PAGESIZE") / 2**20)
        self.wait_record(records.PROCESS, lambda r: r.ui32[3] != 0 and not r.strings)
        burner = self.spawn(name, "burn")
        with contextlib.suppress(PermissionError):  # a loaded machine is to leave it half a processor, too
            os.sched_setscheduler(burner.pid, os.SCHED_RR, os.sched_param(1))
        r = self.wait_record(records.PROCESS, lambda r: r.ui32[3:5] == [burner.pid, 2])
        self.assertEqual(r.strings, ["Current CPU usage: %.2f%% / Max value: 50\n" % r.d64[0]])
        self.assertTrue(50 <= r.d64[0] < 150, r.d64)
        for process in (burner, parent):
            process.terminate()
            process.wait()
        self.wait_idle()
        self.assertEqual(self.records(records.PROCESS)[-1].ui32, [43, 1, 9, 0, 3])

    @harness.needs_namespaces
    def test_network(self):
        """Real traffic; samples are ten seconds apart. (The kernel's file cannot be mounted over.)"""
        self.make_pair("wan")
        self.start("NTA\t1\t9\twan0\t0\t0\t0\t500\t0\t0", "NTA\t2\t9\tnone\t0\t0\t0\t0\t0\t0")
        r = self.wait_record(records.NETWORK, lambda r: True)
        self.assertEqual((r.ui32, r.strings), (
            [38, 1, 9, 0, 0, 0, 0, 0, 0, 0],
            ["Network adapter: wan0 Statistics are within acceptable limits.\n"]))
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            sender.setsockopt(socket.SOL_SOCKET, socket.SO_BINDTODEVICE, b"wan0")

            def sent():
                for _ in range(20):
                    sender.sendto(bytes(1000), ("198.51.100.9", 9))
                return any(r.ui32[6] for r in self.records(records.NETWORK))
            harness.wait_until(sent, "the traffic")
        self.assertIn("ERROR: do_net_check. No Interface with name 'none'", self.agent.messages())
        self.assertEqual({r.ui32[1] for r in self.records(records.NETWORK)}, {1})

    def test_malformed_commands(self):
        """None of these does anything or is logged, but for the errors of unknown tests."""
        commands = {"PR": "7\t1\t1\t1\t1\tx", "MM": "7\t1\t1\t1\t1\t1\t1", "DK": "7\t1\t/(x|y)\t1",
                    "CU": "7\t1\t1\t1\t1\t1\t1", "NT": "7\t1\tx\t1\t1\t1\t1\t1\t1"}
        lines = []
        for code, fields in commands.items():
            fields = fields.split("\t")
            for action in "AM":
                lines.append(code + action)
                for count in range(1, len(fields)):
                    lines.append("\t".join([code + action] + fields[:count]))
                for wrong in ("0", "", "x", "4294967296"):
                    lines.append("\t".join([code + action, wrong] + fields[1:]))
            lines += [code + "D", code + "D\t7", code + "D\t0\t0", code + "D\tx\t0"]
            if code != "NT":
                lines.append("\t".join([code + "A"] + fields + ["x"] * 3))
                lines.append(code + "D\t7\t0\t0")
        unknown = ["DKM\t7\t1\t/\t1", "DKD\t7\t0", "PRD\t7\t0", "NTM\t7\t1\tx\t1\t1\t1\t1\t1\t1",
                   "NTD\t7\t0\tx", "PRM\t7\t1\t1\t1\t1\tx", "MMM\t7\t1\t1\t1\t1\t1\t1", "MMD\t7\t0",
                   "CUM\t7\t1\t1\t1\t1\t1\t1", "CUD\t7\t0"]
        self.start(*lines, *unknown, "XYZ")
        self.agent.wait_log("Invalid test string received: XYZ")
        self.assertEqual([line for line in self.agent.messages() if "test" in line], [
            "ERROR: modify_disk. Non-existing test. tid:7", "ERROR: rem_disk. Non-existing test. tid:7",
            "ERROR: rem_proc. Non-existing test. tid:7",
            "ERROR: modify_nettest. Non-existing test. tid:7",
            "ERROR: rem_nettest. Non-existing test. tid:7", "ERROR: Invalid test string received: XYZ"])
        self.wait_idle()
        self.assertEqual([r for block in self.blocks() for r in block
                          if r.ui32[0] not in records.INVENTORIES], [])


class Remote(Local):
    def stub(self, program, output):
        directory = os.path.join(self.dir, "stubs")
        os.makedirs(directory, exist_ok=True)
        path = os.path.join(directory, program)
        harness.write_text(path, "#!/bin/sh\necho %s \"$@\" >> %s/calls\ncat <<'END'\n%sEND\n" % (
            program, directory, output))
        os.chmod(path, 0o755)
        return {"PATH": directory + ":" + os.environ["PATH"]}

    def test_stubs(self):
        self.stub("snmpget", "".join("x = Counter32: %d\n" % ticks for ticks in (10, 5, 20, 50, 5, 8, 2)))
        env = self.stub("snmptable", "1^HOST-RESOURCES-TYPES::hrStorageRam^Physical memory^1048576^8^6\n"
                        "junk^\n")
        self.start("CUA\t1\t9\t-1\t-1\t-1\t-1\t-1\th\tlinux", "CUA\t2\t9\t-1\t-1\t-1\t-1\t-1\th",
                   "CUA\t3\t9\t-1\t-1\t-1\t-1\t-1\t;h", "MMA\t4\t9\t2\t-1\t-1\t-1\t-1\th",
                   "MMA\t5\t9\t2\t-1\t-1\t-1\t-1\th h", env=env)
        expected = {
            (44, 1): (0, [10, 20, 5, 50, 5], CPU_WITHIN),
            (44, 3): (10, [-1] * 5, "Remote CPU test failed\n"),
            (47, 4): (2, [2, 8] + [NONE] * 6, "Physical memory free size: 2.00 / Min value: 2\n"),
            (47, 5): (10, [NONE] * 8, "Remote memory test failed\n")}
        for (kind, test), (status, values, message) in expected.items():
            r = self.wait_record(kind, lambda r, test=test: r.ui32[1] == test)
            self.assertEqual((r.ui32, r.d64, r.strings), ([kind, test, 9, status], values, [message]))
            self.assertEqual(r.nested, [])
        # The storage row reads as a processor: its first number behind a "^" is none.
        r = self.wait_record(44, lambda r: r.ui32[1] == 2)
        self.assertEqual(r.d64, [0, 0, 0, 100, 0])
        calls = set(harness.read_text(os.path.join(self.dir, "stubs", "calls")).splitlines())
        oids = " ".join("1.3.6.1.4.1.2021.11.%d.0" % n for n in range(50, 57))
        self.assertEqual(calls, {
            "snmpget -v 1 -t 1 -c public h " + oids,
            "snmptable -v 1 -t 1 -Ov -CHf ^ -c public h 1.3.6.1.2.1.25.3.3",
            "snmptable -v 1 -t 1 -Ov -CHf ^ -c public h 1.3.6.1.2.1.25.2.3"})

    def test_no_ticks(self):
        """Counters that are all 0 give shares that are no numbers, through to the collector's reader."""
        env = self.stub("snmpget", "x = Counter32: 0\n" * 7)
        collector = harness.Collector(self, "CUA\t1\t9\t0\t0\t0\t100\t0\th\tlinux").start()
        harness.Agent(self, collector.port, env=env).start()
        result = collector.wait_test(1)[0]
        self.assertEqual((result["type"], result["status"], result["message"]), (44, 0, CPU_WITHIN))
        self.assertEqual(result["values"],
                         dict.fromkeys(("user", "system", "nice", "idle", "iowait")))
        stored = harness.wait_until(collector.rows, "the stored result")[0]
        shares = records.decode(stored.record)[0].d64
        self.assertTrue(all(map(math.isnan, shares)), shares)

    def test_real_snmpd(self):
        host = harness.start_snmpd(self).address
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
            silent.bind(("127.0.0.1", 0))
            nobody = "127.0.0.1:%d" % silent.getsockname()[1]
            self.start("CUA\t1\t9\t-1\t-1\t-1\t-1\t-1\t%s\tLINUX" % host,
                       "MMA\t2\t9\t-1\t-1\t-1\t-1\t-1\t%s" % host,
                       "MMA\t3\t9\t1\t1\t1\t1\t1\t%s" % nobody,
                       "CUA\t4\t9\t-1\t-1\t-1\t-1\t-1\t%s" % nobody)
            # A daemon that has just begun to count tells zeros.
            r = self.wait_record(records.CPU,
                                 lambda r: r.ui32[1] == 1 and not any(map(math.isnan, r.d64)))
            self.assertEqual((r.ui32[3], r.strings), (0, [CPU_WITHIN]))
            self.assertTrue(all(0 <= share <= 100 for share in r.d64), r.d64)
            self.assertGreater(sum(r.d64), 90)
            r = self.wait_record(records.MEMORY, lambda r: r.ui32[1] == 2)
            self.assertEqual((r.ui32[3], r.strings), (0, [MEMORY_WITHIN]))
            # A host that says nothing has nothing, and is within limits.
            r = self.wait_record(records.MEMORY, lambda r: r.ui32[1] == 3)
            self.assertEqual((r.ui32[3], r.d64, r.strings), (0, [NONE] * 8, [MEMORY_WITHIN]))
            r = self.wait_record(records.CPU, lambda r: r.ui32[1] == 4)
            self.assertEqual((r.ui32[3], r.d64), (10, [-1] * 5))


if __name__ == "__main__":
    harness.main()
