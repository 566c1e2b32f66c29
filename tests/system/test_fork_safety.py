"""Children of the SNMP checker that are forked while the other threads of a real agent are busy: TLS
connections of polls and of pages (each in a thread that ends with it), and a log with everything in it."""

import unittest

import harness
import records
import steered
from peers import AUTH, MIBS
from scripted_server import answer
from test_probes import page_test, start_nginx
from test_snmp import SYSTEM, get

TESTS, ROUNDS, PAGES = 200, 5, 30


@unittest.skipIf(harness.SANITIZERS, "a sanitizer's own locks are not at rest at a fork")
class ForkSafety(steered.TestCase):
    def test_a_thousand_children_of_a_busy_agent(self):
        """All report, and nothing of them stays. Every fourth one is a user's: it calculates with OpenSSL
        and would find its locks taken."""
        peer, nginx = harness.start_snmpd(self), start_nginx(self)
        name = SYSTEM + "3.0"
        user = {"community": "", "version": 3, "auth": "md5", "user": "md5user", "phrase": AUTH}
        self.start(*(page_test(test, "/page", nginx.ports["rsa"], tls=1) for test in range(1, PAGES + 1)),
                   *(get(test, peer.port, name, **(user if test % 4 == 0 else {}))
                     for test in range(1, TESTS + 1)), env=MIBS)

        def reports():
            status = [0] * (TESTS + 1)
            for record in self.records(records.SNMP):
                self.assertEqual(record.ui32[3], 0, record)
                status[record.ui32[1]] += 1
            return status[1:]
        for count in range(1, ROUNDS + 1):
            harness.wait_until(lambda: min(reports()) >= count, lambda: "reports: %s" % reports())
        self.assertGreaterEqual(len(self.records(records.HTTP)), PAGES)
        self.assertEqual({record.ui32[3] for record in self.records(records.HTTP)}, {0})

        with open(self.agent.pid_path, encoding="ascii") as file:
            agent = int(file.read())
        self.server.then(answer("".join("STD\t%d\t0\n" % test for test in range(1, TESTS + 1))))
        self.wait_idle(3)
        harness.wait_until(lambda: not harness.children_of(agent),
                           lambda: "stuck or not buried: %s" % harness.children_of(agent))
        harness.wait_no_pipes(agent)


if __name__ == "__main__":
    harness.main()
