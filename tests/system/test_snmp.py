"""The SNMP checker of a real agent against a real snmpd: gets of every type of object that it can give,
versions and users, limits, tables, walks, failures, and what a child inherits."""

import os
import re
import socket
import unittest

import harness
import records
import steered
from peers import AUTH, MIBS, TABLE, TEST
from scripted_server import answer

SYSTEM = "1.3.6.1.2.1.1."

OBJECTS = [
    "override %s integer 25" % (TEST + "2.0"),
    'override %s octet_str "a;b|c%%d"' % (TEST + "9.1.0"),
    "override %s object_id 1.3.6.1.2.1.1" % (TEST + "9.2.0"),
    "override %s counter 4000000000" % (TEST + "9.3.0"),
    "override %s uinteger 7" % (TEST + "9.4.0"),
    "override %s timeticks 12345" % (TEST + "9.5.0"),
    "override %s octet_str 0x0102ff" % (TEST + "9.6.0"),
    'override %s octet_str "tab\there"' % (TEST + "9.7.0"),
    "override %s integer -5" % (TEST + "9.8.0"),
    'override %s octet_str "plain"' % (TEST + "9.9.0"),
]


def get(test, port, objects, limits=None, host="127.0.0.1", version=2, community="public", auth="", user="",
        phrase="", privacy="", flag="", timeout=5, retries=2, code="SPA"):
    return "\t".join(str(field) for field in (
        code, test, 7, host, port, version, objects, community, auth, user, phrase, privacy, flag, timeout,
        retries, limits or ";".join("-" for _ in objects.split(";"))))


def table(test, port, root, bulk=0, version=2, community="public", timeout=5, retries=2, code="STA"):
    return "\t".join(str(field) for field in (
        code, test, 7, "127.0.0.1", port, bulk, version, root, community, "", "", "", "", "", timeout,
        retries))


class Snmp(steered.TestCase):
    def start(self, *lines, **options):
        super().start(*lines, env=MIBS, **options)

    def record(self, kind, test, condition=lambda record: True):
        return self.wait_record(kind, lambda r: r.ui32[1] == test and condition(r))

    def get_record(self, test):
        """Status, number of objects, message and the results as (type, status, value, description)."""
        record = self.record(records.SNMP, test)
        self.assertEqual([len(part) for part in record[1:7]], [0, 5, 1, 0, 1, 1])
        self.assertEqual(record.ui32[2], 7)
        for part in record.nested:
            self.assertEqual([len(values) for values in part[1:]], [0, 2, 0, 0, 0, 2, 0])
        return (record.ui32[3], record.ui32[4], record.strings[0],
                [(*part.ui32, *part.strings) for part in record.nested])

    def values(self, test):
        return [result[:3] for result in self.get_record(test)[3]]


class Gets(Snmp):
    def test_objects_of_every_type(self):
        peer = harness.start_snmpd(self, *OBJECTS)
        names = [TEST + "2.0"] + [TEST + "9.%d.0" % i for i in range(1, 10)]
        self.start(get(1, peer.port, ";".join(names)))
        status, count, message, results = self.get_record(1)
        self.assertEqual((status, count, message), (0, 10, "New results are available.\n"))
        self.assertEqual([result[:3] for result in results], [
            (9, 0, "25"),
            # The first character of a text that needs escaping is lost.
            (8, 0, "a%253Bb%257Cc%2525d\""),
            (11, 0, "VINDRAL-TEST-MIB::internet.2.1.1"),
            (14, 0, "4000000000"),
            (13, 0, "7"),
            (12, 0, "12345"),
            (8, 0, "\"01 02 FF \""),
            (8, 0, "\"tab here\""),
            (9, 0, "-5"),
            (8, 0, "\"plain\""),
        ])
        self.assertEqual([result[3] for result in results],
                         ["OID: %s the result is available.\n" % name for name in names])

    def test_limits_on_each_side(self):
        peer = harness.start_snmpd(self, *OBJECTS)
        name, text = TEST + "2.0", TEST + "9.9.0"
        cases = {1: ("25,25", 0), 2: ("26,30", 2), 3: ("10,24", 2), 4: ("-1,x", 2), 5: ("1,2,3", 0)}
        self.start(*(get(test, peer.port, name, limits) for test, (limits, _) in cases.items()),
                   get(6, peer.port, "%s;%s" % (name, text), "10,20;10,20"),
                   get(7, peer.port, name, "1,5;2,9"))
        for test, (_, status) in cases.items():
            self.assertEqual(self.values(test), [(9, status, "25")], test)
        self.assertEqual(self.get_record(6), (0, 2, "New results are available.\n", [
            (9, 2, "25", "OID:       %s\nValue:     25\nMin Value: 10\nMax Value: 20\n" % name),
            (8, 0, "\"plain\"", "OID: %s the result is available.\n" % text)]))
        self.assertIn("ERROR: SNMP add failed: Min/Max Value is Incorrect: 1,5;2,9 it's count must be "
                      "equal to: 1 but now is 2\n", self.agent.log())

    def test_versions_and_users(self):
        peer = harness.start_snmpd(self)
        name = SYSTEM + "3.0"
        user = {"community": "", "version": 3, "phrase": AUTH}
        self.start(get(1, peer.port, name, version=1), get(2, peer.port, name, version=2),
                   get(3, peer.port, name, auth="md5", user="md5user", **user),
                   get(4, peer.port, name, auth="sha", user="shauser", **user),
                   get(5, peer.port, name, auth="MD5", user="md5user", **user),
                   get(6, peer.port, name, auth="sha", user="shauser", privacy="3des", flag="1", **user),
                   get(7, peer.port, name, auth="md5", user="nobody", **user),
                   get(8, peer.port, name, community="wrong", timeout=1, retries=0),
                   get(9, peer.port, name, auth="md5", user="md5user", community="", version=3,
                       phrase="another phrase"),
                   get(10, peer.port, name, auth="sha", user="shauser", privacy="aes", flag="1", **user))
        for test in (1, 2, 3, 4):
            self.assertEqual(self.get_record(test)[0], 0, test)
            self.assertEqual(self.values(test)[0][:2], (12, 0), test)
        for test in (5, 6):
            self.assertEqual(self.get_record(test), (3, 1, "Unknown snmpv3 auth protocol.", []), test)
        for test in (7, 9):
            status, count, message, results = self.get_record(test)
            self.assertEqual((status, count, results), (3, 1, []), test)
            self.assertNotIn("Timeout", message, test)
        self.assertEqual(self.get_record(8),
                         (3, 1, "Timeout: No response from 127.0.0.1:%d" % peer.port, []))
        # The protocol's name is the pass phrase, and too short for one.
        self.assertEqual(self.get_record(10), (
            3, 1, "Error generating a key (Ku) from the privacy pass phrase.", []))

    def test_ipv6(self):
        port = harness.free_port(socket.SOCK_DGRAM)
        peer = harness.start_snmpd(self, "agentaddress udp6:[::1]:%d" % port, "rocommunity6 public", *OBJECTS)
        self.start(get(1, port, TEST + "2.0", host="udp6:[::1]"),
                   get(2, peer.port, TEST + "2.0", host="udp6:[::1]", timeout=1, retries=0),
                   get(3, port, TEST + "2.0", host="::1"))
        self.assertEqual(self.values(1), [(9, 0, "25")])
        self.assertEqual(self.get_record(2), (  # that port is open on IPv4 alone
            3, 1, "Timeout: No response from udp6:[::1]:%d" % peer.port, []))
        # With the port behind it a bare address is none that the library knows.
        self.assertEqual(self.get_record(3), (3, 1, "Unknown host (::1:%d)" % port, []))

    def test_objects_that_are_not_there(self):
        peer = harness.start_snmpd(self, *OBJECTS)
        there, not_there = TEST + "2.0", TEST + "8.0"
        self.start(get(1, peer.port, "%s;%s" % (there, not_there)),
                   get(2, peer.port, "%s;%s" % (not_there, there), version=1),
                   get(3, peer.port, not_there, version=1),
                   get(4, peer.port, "no.such.name"))
        status, _, _, results = self.get_record(1)
        self.assertEqual((status, [result[:2] for result in results]), (0, [(9, 0), (19, 2)]))
        self.assertIn("No Such", results[1][2])
        # Version 1 answers with an error; the failing object is left out and the rest asked again.
        self.assertEqual([result[:3] for result in self.get_record(2)[3]], [(9, 0, "25")])
        status, count, message, results = self.get_record(3)
        self.assertEqual((status, count, results), (3, 1, []))
        self.assertTrue(message.startswith("Error in packet. Reason: (noSuchName)"), message)
        self.assertTrue(message.endswith(" Failed object: VINDRAL-TEST-MIB::vindralTest.8.0"), message)
        status, count, message, results = self.get_record(4)
        self.assertEqual((status, results), (3, []))
        self.assertIn("Unknown Object Identifier", message)

    def test_silence_and_names(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
            silent.bind(("127.0.0.1", 0))
            port = silent.getsockname()[1]
            peer = harness.start_snmpd(self)
            self.start(get(1, port, SYSTEM + "3.0", timeout=1, retries=0),
                       get(2, peer.port, SYSTEM + "3.0", host="localhost"),
                       get(3, peer.port, SYSTEM + "3.0", host="no.such.host.invalid"),
                       table(4, port, TABLE, timeout=1, retries=0))
            self.assertEqual(self.get_record(1),
                             (3, 1, "Timeout: No response from 127.0.0.1:%d" % port, []))
            self.assertGreater(self.record(records.SNMP, 1).d64[0], 900)
            self.assertEqual(self.get_record(2)[0], 0)
            status, _, message, _ = self.get_record(3)
            self.assertEqual(status, 3)
            self.assertIn("no.such.host.invalid", message)
            record = self.record(records.SNMP_TABLE, 4)
            self.assertEqual((record.ui32[3], record.strings[0], len(record.nested)),
                             (2, "Timeout: No Response from 127.0.0.1:%d" % port, 1))

    def test_added_changed_and_removed(self):
        peer = harness.start_snmpd(self, *OBJECTS)
        self.start(get(1, peer.port, TEST + "2.0"))
        self.assertEqual(self.values(1), [(9, 0, "25")])
        self.server.then(answer(get(1, peer.port, TEST + "9.4.0", code="SPM") + "\n"))
        self.record(records.SNMP, 1, lambda r: r.nested and r.nested[0].strings[0] == "7")
        self.server.then(answer(get(1, peer.port, TEST + "9.3.0") + "\nSPD\t1\n"))
        self.agent.wait_log("INFO: snmp_lib_status = 1 v_tid = 1\n")
        self.server.then(answer("STD\t1\t0\n"))
        self.wait_idle(3)
        before = len(self.records(records.SNMP))
        self.wait_idle(3)
        self.assertEqual(len(self.records(records.SNMP)), before)
        self.assertEqual({part.strings[0] for record in self.records(records.SNMP)
                          for part in record.nested}, {"25", "7"})


ROWS = {"1.1": ("one", 5), "1.2": ("two", None), "2.1": (None, 9), "10.3": ("four;", -7)}


def rows_of_the_table():
    for index, (text, count) in ROWS.items():
        yield "override %s.1.2.%s integer %s" % (TABLE, index, index.split(".")[1])
        if text is not None:
            yield 'override %s.1.3.%s octet_str "%s"' % (TABLE, index, text)
        if count is not None:
            yield "override %s.1.4.%s integer %d" % (TABLE, index, count)


class Tables(Snmp):
    def rows(self, test):
        record = self.record(records.SNMP_TABLE, test)
        self.assertEqual((record.ui32[2:], record.strings), ([7, 0], ["New results are available."]))
        columns, cells = record.nested
        self.assertEqual(list(zip(columns.ui32, columns.strings)),
                         [(9, "vtGroup"), (9, "vtNumber"), (8, "vtText"), (9, "vtCount")])
        width = len(columns.strings)
        self.assertEqual(list(zip(cells.ui32[::2], cells.ui32[1::2])),
                         [(i // width, i % width) for i in range(len(cells.strings))])
        return [cells.strings[i:i + width] for i in range(0, len(cells.strings), width)]

    def test_rows_with_holes_by_every_kind_of_request(self):
        peer = harness.start_snmpd(self, *rows_of_the_table())
        self.start(*(table(test, peer.port, TABLE, bulk) for test, bulk in enumerate((0, 1, 2, 3, 10, 100), 1)),
                   table(20, peer.port, "vtTable"), table(21, peer.port, TABLE, version=1))
        expected = self.rows(1)
        self.assertEqual(len(expected), 4)
        self.assertEqual([row[1] for row in expected], ["1", "2", "1", "3"])
        self.assertEqual([row[2] for row in expected], ["\"one\"", "\"two\"", "-", "four%253B\""])
        self.assertEqual([row[3] for row in expected], ["5", "-", "9", "-7"])
        self.assertEqual([row[0] for row in expected], ["-"] * 4)
        for test in (2, 3, 4, 5, 6, 20, 21):
            self.assertEqual(self.rows(test), expected, test)

    def test_what_is_no_table(self):
        peer = harness.start_snmpd(self)
        self.start(table(1, peer.port, TABLE), table(2, peer.port, TEST + "2"),
                   table(3, peer.port, "no.such.table"))
        record = self.record(records.SNMP_TABLE, 1)  # without rows
        self.assertEqual((record.ui32[3], record.strings[0], len(record.nested)),
                         (0, "New results are available.", 1))
        self.assertEqual((record.nested[0].ui32, record.nested[0].strings),  # types as the module says
                         ([9, 9, 8, 3], ["vtGroup", "vtNumber", "vtText", "vtCount"]))
        record = self.record(records.SNMP_TABLE, 2)
        self.assertEqual((record.ui32[3], record.nested), (2, []))
        self.assertIn("is not a table", record.strings[0])
        record = self.record(records.SNMP_TABLE, 3)
        self.assertEqual((record.ui32[3], record.nested), (2, []))
        self.assertIn("Unknown Object Identifier", record.strings[0])

    def test_a_walk_sends_nothing(self):
        peer = harness.start_snmpd(self, *OBJECTS)
        self.start(table(1, peer.port, "1.3.6.1.2.1.1", code="SWA"),
                   table(2, peer.port, "1.3.6.1.2.1.1", bulk=10, code="SWA"),
                   get(3, peer.port, TEST + "2.0"))
        self.record(records.SNMP, 3)
        self.wait_idle(3)
        self.assertEqual({record.ui32[1] for block in self.blocks() for record in block
                          if record.ui32[0] in (records.SNMP, records.SNMP_TABLE)}, {3})


class Children(Snmp):
    def agent_pid(self):
        with open(self.agent.pid_path, encoding="ascii") as file:
            return int(file.read())

    def children(self):
        parent = self.agent_pid()
        found = []
        for name in os.listdir("/proc"):
            try:
                with open("/proc/%s/stat" % name, encoding="utf-8") as file:
                    fields = file.read().rpartition(")")[2].split()
                if int(fields[1]) == parent:
                    found.append((int(name), fields[0]))
            except (OSError, ValueError):
                continue
        return found

    def test_a_child_keeps_nothing_of_the_agents(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as silent:
            silent.bind(("127.0.0.1", 0))
            self.start(get(1, silent.getsockname()[1], SYSTEM + "3.0", timeout=30, retries=0))
            child, _ = harness.wait_until(
                lambda: next((c for c in self.children() if c[1] == "S"), None), "a child that waits")
            self.assertEqual(os.getpgid(child), child)

            def kept():
                return sorted(re.sub(r":\[.*", "", target)
                              for fd, target in harness.open_files(child).items() if fd > 2)
            # The end of a pipe, and the socket that it asks with.
            harness.wait_until(lambda: kept() == ["pipe", "socket"], lambda: "have %s" % kept())
            os.kill(child, 9)
            harness.wait_until(lambda: child not in [pid for pid, _ in self.children()], "its burial")
        self.wait_idle()

    @unittest.skipIf("address" in harness.SANITIZERS,
                     "the sanitizer's own allocator is not brought to rest at a fork: a child may hang")
    def test_many_rounds_leave_nothing_behind(self):
        peer = harness.start_snmpd(self)
        tests = 20
        self.start(*(get(test, peer.port, SYSTEM + "3.0") for test in range(1, tests + 1)))
        harness.wait_until(lambda: len(self.records(records.SNMP)) >= 3 * tests, "three rounds")
        self.server.then(answer("".join("STD\t%d\t0\n" % test for test in range(1, tests + 1))))
        harness.wait_until(lambda: not self.children(), lambda: "have %s" % self.children())
        harness.wait_no_pipes(self.agent_pid())


if __name__ == "__main__":
    harness.main()
