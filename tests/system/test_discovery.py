"""Discovery: a range with hosts that answer echo with and without SNMP, in a network namespace."""

import glob
import itertools
import os
import subprocess
import threading

import harness
import records
import steered
from scripted_server import answer
from test_snmp import get

SYS_NAME, LOCATION = "1.3.6.1.2.1.1.5.0", "1.3.6.1.2.1.1.6.0"
NOTHING = ["N/A"] * 4


def scan(test, first, end, *objects, code="DCA"):
    return "\t".join((code, str(test), "7", first, end, *objects))


@harness.needs_namespaces
class Discovery(steered.TestCase):
    numbers = itertools.count(100)
    alone = threading.Lock()  # scans take each other's replies

    def setUp(self):
        super().setUp()
        self.alone.acquire()
        self.addCleanup(self.alone.release)

    def hosts(self, *hosts):
        number = next(self.numbers)
        return (harness.far_side(self, number, *hosts), lambda host: "10.9.%d.%d" % (number, host))

    def agents(self, side, *addresses):
        harness.start_snmpd(self, "sysName core", "sysLocation cellar", "sysDescr a switch",
                            "sysObjectID " + LOCATION,
                            addresses=["udp:%s:161" % address for address in addresses], wrap=side.enter)

    def found(self, test):
        """The hosts that a test reported, in the order of their addresses."""
        return sorted((record.strings, [part.strings for part in record.nested])
                      for record in self.records(records.DISCOVERY)
                      if record.ui32[1] == test and record.strings[0] != "finished")

    def wait_finished(self, test, times=1):
        def count():
            return sum(record.ui32[1] == test and record.strings[0] == "finished"
                       for record in self.records(records.DISCOVERY))
        harness.wait_until(lambda: count() >= times, lambda: "%d ends of test %d, log: %s" % (
            times, test, self.agent.log()[-3000:]))
        self.assertEqual(count(), times)

    def test_hosts_with_and_without_snmp(self):
        side, address = self.hosts(10, 11, 12, 13)
        self.agents(side, address(10), address(11))
        self.start(scan(1, address(9), address(13), LOCATION))
        self.wait_finished(1)
        found = self.found(1)
        self.assertEqual([strings[0] for strings, _ in found], [address(10), address(11), address(12)])
        for strings, nested in found[:2]:
            self.assertEqual(strings[1:4], ['"core"', '"a switch"', '"cellar"'])
            self.assertTrue(strings[4].endswith("1.1.6.0"), strings)
            self.assertEqual(nested, [[LOCATION, '"cellar"']])
        self.assertEqual(found[2], ([address(12), *NOTHING], [[LOCATION, "N/A"]]))
        for record in self.records(records.DISCOVERY):
            self.assertEqual((record.ui32[2:], record.d64), ([7], [0.0]))

    def test_ranges_that_bring_nothing_and_a_roll_over(self):
        side, _ = self.hosts(9)
        for command in (side.enter + ["ip", "addr", "add", "10.8.0.250/32", "dev", "far"],
                        side.enter + ["ip", "addr", "add", "10.8.1.1/32", "dev", "far"],
                        ["ip", "route", "add", "10.8.0.0/16", "dev", side.near]):
            subprocess.run(command, check=True)
        self.agents(side, "10.8.0.250", "10.8.1.1")
        self.start(scan(1, "10.8.0.250", "10.8.0.250"), scan(2, "10.0.0.1", "10.2.0.1"),
                   scan(3, "10.0.0.300", "10.0.0.9"), scan(4, "10.8.0.250", "10.8.1.2"))
        for test in (1, 2, 3, 4):
            self.wait_finished(test)
        self.assertEqual([self.found(test) for test in (1, 2, 3)], [[], [], []])
        self.assertEqual([strings[0] for strings, _ in self.found(4)], ["10.8.0.250", "10.8.1.1"])

    def test_changed_and_removed(self):
        side, address = self.hosts(10, 11)
        self.agents(side, address(10), address(11))
        self.start(scan(1, address(10), address(11)))
        self.wait_finished(1)
        self.assertEqual([strings[0] for strings, _ in self.found(1)], [address(10)])
        self.server.then(answer(scan(1, address(11), address(12), code="DCM") + "\n"))
        self.wait_finished(1, 2)
        self.assertEqual([strings[0] for strings, _ in self.found(1)], [address(10), address(11)])
        # Removed while it runs: the scan goes on with what it has.
        self.server.then(answer(scan(1, address(10), address(11), code="DCM") + "\n"))
        self.agent.wait_log("INFO: discovery_thread(). Echo Response received: ID: 0; TID: 1; Host: " +
                            address(10) + "\n", 2)
        self.server.then(answer("DCR\t1\n"))
        self.wait_finished(1, 3)
        self.agent.wait_log("INFO: Removed ndis test. Test ID: 1\n")

    def test_without_the_snmp_library(self):
        """Hosts are found all the same; SNMP tests change nothing."""
        _, address = self.hosts(10)
        empty = os.path.join(self.subdir("empty"), "file")
        harness.write_text(empty, "")
        hide = "".join("mount --bind %s %s && " % (empty, library) for library in
                       {os.path.realpath(path) for path in glob.glob("/usr/lib/*/libsnmp.so*")})
        self.start(get(5, 161, SYS_NAME), scan(1, address(10), address(11)),
                   wrap=["unshare", "--mount", "sh", "-c", hide + 'exec "$0" "$@"'])
        self.wait_finished(1)
        self.assertEqual(self.found(1), [([address(10), *NOTHING], [])])
        log = self.agent.log()
        self.assertIn("SNMP: failed on loading libsnmp.so", log)
        self.assertIn("SNMP monitor initialization failed.", log)
        self.assertIn("NDIS monitor initialization done", log)
        self.assertIn("INFO: snmp_lib_status = 0 v_tid = 5\n", log)
        self.assertEqual(self.records(records.SNMP), [])


if __name__ == "__main__":
    harness.main()
