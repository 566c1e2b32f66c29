"""Load averages of other hosts: a real snmpd, a host that is silent, and a stub in place of snmpget
that shows how it is called and answers whatever we like."""

import os
import shutil
import socket

import harness
import records
from scripted_server import ScriptedServer, accept_login, answer

FAILED = ((-1.0, -1.0, -1.0), "Remote load average test failed\n", 10)
WITHIN = "Load Average values are within acceptable limits\n"
OID = "1.3.6.1.4.1.2021.10.1.3."

STUB = """#!/bin/sh
# Leaves its arguments, each in brackets, and answers with the file named like the host.
for argument; do printf '[%%s]' "$argument"; done >> '%(dir)s/calls'
echo >> '%(dir)s/calls'
cat '%(dir)s/answers/'"$7"
"""


def strings(*values, name="iso.3.6.1.4.1.2021.10.1.3.%d = STRING: %s"):
    return "".join(name % (row, value) + "\n" for row, value in enumerate(values, 1))


# What snmpget prints for a host, and the averages that the agent makes of it; None: the query failed.
ANSWERS = {
    "quoted": (strings('"0.42"', '"1.50"', '"2.00"'), (0.42, 1.5, 2.0)),
    "plain": (strings("0.42", "1.50", "2.00", name="UCD-SNMP-MIB::laLoad.%d = STRING: %s"),
              (0.42, 1.5, 2.0)),
    "no-blank": ("x =STRING:1.25\n" * 3, (1.25, 1.25, 1.25)),
    "many-blanks": ("x = STRING:    1.25\n" * 3, (1.25, 1.25, 1.25)),
    "no-number": (strings("busy", '"2.5', '""'), (0.0, 2.5, 0.0)),
    "cut-off": (strings("1", "2", "3")[:-1], (1.0, 2.0, 3.0)),
    "more-lines": (strings("1", "2", "3", "4", "5") + "x = INTEGER: 6\n", (1.0, 2.0, 3.0)),
    "noise": ("Warning: nothing of interest\n\n" + strings("1", "2", "3"), (1.0, 2.0, 3.0)),
    "much-more": (strings("1", "2", "3") + "y = STRING: 9\n" * 100000, (1.0, 2.0, 3.0)),
    "two-lines": (strings("1", "2"), None),
    "nothing": ("", None),
    "timeout": ("Timeout: No Response from 192.0.2.1.\n", None),
    "other-type": ("x = INTEGER: 1\n" * 3, None),
    "other-types": ("x = Gauge32: 1\nx = Opaque: Float: 1.5\nx = Counter64: 1\n", None),
    "one-other-type": ("x = STRING: 1\nx = INTEGER: 2\nx = STRING: 3\nx = STRING: 4\n", None),
    "missing-object": ("x = STRING: 1\nx = No Such Instance currently exists at this OID\n"
                       "x = STRING: 3\n", None),
    "lower-case": ("x = string: 1\n" * 3, None),
    "second-equals": ("x = y = STRING: 1\n" * 3, None),  # only what stands before the second counts
    "junk": ("\0\xff=\0STRING:\n" * 3 + "=" * 5000, None),
}

# None of these reaches a shell.
UNSAFE_HOSTS = [
    "a;touch X", "a|touch X", "a&touch X", "$(touch X)", "`touch X`", "a$(touch X)", "${HOME}", "a>X",
    "a<X", "-v", "-", "--help", "a b", " a", "a ", "a\rb", "h\r", "'a'", '"a"', "a\\", "*", "?", "a#b",
    "~", "a!b", "(a)", "{a,b}", "a=b", "a,b", "a/b", "a@b", "\xe9.example.net", "a\x7f", "\x01",
    "a" * 301, "x" * 10000,
]


class Remote(harness.TestCase):
    def start(self, *lines, path=None, every_second=True):
        """An agent with these tests; the answer to its first poll adds them. Only a single one can
        do without an interval: an add while a pass runs wakes nobody."""
        if every_second:
            lines += ("CHK\t0\t1",)
        self.server = ScriptedServer(self)
        self.server.then(accept_login("s", "POL\t0\t1\n"),
                         answer("".join(line + "\n" for line in lines).encode("latin-1")))
        env = {"PATH": path + ":" + os.environ["PATH"]} if path else {}
        self.agent = harness.Agent(self, self.server.port, env=env).start()

    def loads(self):
        return {load.test: load for request in list(self.server.requests) if request.body
                for load in records.load_averages(request.plain())}

    def wait_loads(self, count):
        harness.wait_until(lambda: len(self.loads()) >= count,
                           lambda: "%d records, have %s" % (count, self.loads()))
        return self.loads()

    def expect(self, load, values, message, status):
        self.assertEqual((load.values, load.message, load.status), (values, message, status), load)

    def make_stub(self):
        self.stub = self.subdir("stub")
        os.mkdir(os.path.join(self.stub, "answers"))
        program = os.path.join(self.stub, "snmpget")
        harness.write_text(program, STUB % {"dir": self.stub})
        os.chmod(program, 0o755)
        for host, (text, _) in ANSWERS.items():
            harness.write_text(os.path.join(self.stub, "answers", host), text.encode("latin-1"))
        return self.stub

    def calls(self):
        return harness.read_text(os.path.join(self.stub, "calls")).splitlines()


class Stub(Remote):
    def test_answers(self):
        stub = self.make_stub()
        self.start(*["LAA\t%d\t1\t-1\t-1\t-1\t%s" % (test, host)
                     for test, host in enumerate(ANSWERS, 1)], path=stub)
        loads = self.wait_loads(len(ANSWERS))
        for test, (host, (_, values)) in enumerate(ANSWERS.items(), 1):
            with self.subTest(host):
                if values is None:
                    self.expect(loads[test], *FAILED)
                else:
                    self.expect(loads[test], values, WITHIN, 0)

    def test_call(self):
        stub = self.make_stub()
        self.start("LAA\t1\t1\t-1\t1\t2\tquoted", path=stub, every_second=False)
        load = self.wait_loads(1)[1]
        self.expect(load, (0.42, 1.5, 2.0),
                    "Load Average 5 min value: 1.50 / Max value: 1\n"
                    "Load Average 15 min value: 2.00 / Max value: 2\n", 2)
        self.assertEqual(self.calls(), [
            "[-v][1][-t][1][-c][public][quoted][%s1][%s2][%s3]" % (OID, OID, OID)])

    def test_tests_with_the_same_host_ask_each_for_itself(self):
        stub = self.make_stub()
        self.start("LAA\t1\t1\t-1\t-1\t-1\tplain", path=stub, every_second=False)
        self.wait_loads(1)
        self.server.then(answer("LAA\t2\t1\t-1\t-1\t-1\tplain\n"))
        self.wait_loads(2)
        self.assertEqual(len(self.calls()), 3)

    def test_hosts_that_reach_the_command(self):
        """Host names, addresses and ports; nothing in them means anything to the shell."""
        stub = self.make_stub()
        hosts = ["a.example.net", "192.0.2.1:1161", "udp:192.0.2.1:161", "udp6:[fe80::1%lo]:161",
                 "::1", "host_name-1"]
        self.start(*["LAA\t%d\t1\t-1\t-1\t-1\t%s" % (test, host)
                     for test, host in enumerate(hosts, 1)], path=stub)
        self.wait_loads(len(hosts))
        self.assertLessEqual(set(hosts), {call.split("][")[6] for call in self.calls()})

    def test_unsafe_hosts_start_nothing(self):
        stub = self.make_stub()
        self.start(*["LAA\t%d\t1\t-1\t-1\t-1\t%s" % (test, host)
                     for test, host in enumerate(UNSAFE_HOSTS, 1)], path=stub)
        loads = self.wait_loads(len(UNSAFE_HOSTS))
        for test, host in enumerate(UNSAFE_HOSTS, 1):
            with self.subTest(host[:20]):
                self.expect(loads[test], *FAILED)
        self.assertEqual(self.calls(), [])
        self.assertEqual(sorted(os.listdir(self.agent.dir)),
                         ["vindral.conf", "vindral.log", "vindral.pid"])

    def test_remote_becomes_local(self):
        """A modified test without a host, or with an empty one, is a local test."""
        stub = self.make_stub()
        self.start("LAA\t1\t1\t-1\t-1\t-1\tnothing", "LAA\t2\t1\t-1\t-1\t-1\tnothing", path=stub)
        self.expect(self.wait_loads(2)[1], *FAILED)
        self.server.then(answer("LAM\t1\t2\t-1\t-1\t-1\nLAM\t2\t2\t-1\t-1\t-1\t\t\n"
                                "CHK\t0\t1\n"))
        harness.wait_until(lambda: self.loads()[1].status == 0 and self.loads()[2].status == 0,
                           "local values")
        self.server.then(answer("LAM\t1\t3\t-1\t-1\t-1\tplain\n"))
        harness.wait_until(lambda: self.loads()[1].values == (0.42, 1.5, 2.0), "remote values")

    def test_no_snmpget(self):
        tools = self.subdir("tools")
        for name in ("sh", "cut"):
            os.symlink(shutil.which(name), os.path.join(tools, name))
        self.server = ScriptedServer(self)
        self.server.then(accept_login("s", "POL\t0\t1\nLAA\t1\t1\t-1\t-1\t-1\tplain\n"))
        harness.Agent(self, self.server.port, env={"PATH": tools}).start()
        self.expect(self.wait_loads(1)[1], *FAILED)


class Silent(Remote):
    """Hosts that keep snmpget waiting."""

    def start_silent(self, *lines):
        """An agent with these tests, of which that of a host named "silent" has no end. Returns the
        processes of its query."""
        stub = self.make_stub()
        program = os.path.join(stub, "snmpget")
        harness.write_text(program, "#!/bin/sh\necho \"$7\" >> '%s/hosts'\n"
                           "[ \"$7\" = silent ] || exec cat '%s/answers/'\"$7\"\n"
                           "sleep 600 &\necho $$ $! > '%s/new'\nmv '%s/new' '%s/pids'\nwait\n"
                           % ((stub,) * 5))
        self.start(*lines, path=stub, every_second=False)
        pids = harness.wait_until(lambda: harness.read_text(os.path.join(stub, "pids")), "the query")
        return [harness.Process(int(pid)) for pid in pids.split()]

    def hosts(self):
        return harness.read_text(os.path.join(self.stub, "hosts")).split()

    def expect_ended(self, processes):
        for process in processes:
            process.wait()

    def test_stop(self):
        query = self.start_silent(*["LAA\t%d\t1\t-1\t-1\t-1\tsilent" % test for test in range(1, 9)])
        self.agent.stop()
        self.expect_ended(query)
        self.assertEqual(self.hosts(), ["silent"])

    def test_stop_while_a_command_waits_for_the_pass(self):
        query = self.start_silent(*["LAA\t%d\t1\t-1\t-1\t-1\tsilent" % test for test in range(1, 9)])
        requests = len(self.server.requests)
        self.server.then(answer("LAM\t8\t1\t-1\t-1\t-1\n"))
        harness.wait_until(lambda: len(self.server.requests) > requests, "the command")
        self.agent.stop()
        self.expect_ended(query)
        self.assertEqual(self.hosts(), ["silent"])

    def test_end_of_the_checks(self):
        """CHK -1 amid a pass: what was measured is sent, what was not has no record."""
        query = self.start_silent("LAA\t1\t1\t-1\t-1\t-1\tplain", "LAA\t2\t1\t-1\t-1\t-1\tsilent",
                                  "LAA\t3\t1\t-1\t-1\t-1\tplain", "LAA\t4\t1\t-1\t-1\t-1")
        self.server.then(answer("CHK\t0\t-1\n"))
        self.expect_ended(query)
        loads = self.wait_loads(2)
        self.expect(loads[1], (0.42, 1.5, 2.0), WITHIN, 0)
        requests = len(self.server.requests)
        harness.wait_until(lambda: len(self.server.requests) > requests + 2, "further polls")
        self.assertEqual(sorted(self.loads()), [1, 4])
        self.assertEqual(self.hosts(), ["plain", "silent"])


class Network(Remote):
    def test_silent_host(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
            silent.bind(("127.0.0.1", 0))
            self.start("LAA\t1\t1\t0\t0\t0\t127.0.0.1:%d" % silent.getsockname()[1])
            self.expect(self.wait_loads(1)[1], *FAILED)
            self.assertTrue(silent.recv(65536))  # it was asked

    def test_real_snmpd(self):
        real = harness.start_snmpd(self).address
        fixed = harness.start_snmpd(self, *('override %s%d octet_str "%s"' % (OID, row, value)
                                            for row, value in enumerate(("0.42", "1.50", "2.00"), 1))).address
        self.start("LAA\t1\t5\t-1\t-1\t-1\t" + fixed, "LAA\t2\t5\t0\t2\t2\tudp:" + fixed,
                   "LAA\t3\t5\t-1\t-1\t-1\t" + real, "LAA\t4\t5\t-1\t-1\t-1")
        loads = self.wait_loads(4)
        self.expect(loads[1], (0.42, 1.5, 2.0), WITHIN, 0)
        self.expect(loads[2], (0.42, 1.5, 2.0),
                    "Load Average 1 min value: 0.42 / Max value: 0\n"
                    "Load Average 15 min value: 2.00 / Max value: 2\n", 2)
        # The same host asked in two ways, at nearly the same time.
        self.assertEqual(loads[3].status, 0)
        for remote, local in zip(loads[3].values, loads[4].values):
            self.assertLess(abs(remote - local), max(1, local))


if __name__ == "__main__":
    harness.main()
