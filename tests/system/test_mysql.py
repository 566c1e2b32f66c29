"""The MySQL checker of a real agent against a real MariaDB: counters and variables, limits, TCP and the
unix socket, accounts, servers that are not there, stop or die, and an agent without the library."""

import os
import socket
import threading
import time

import harness
import records
import steered
from peers import ACCOUNT, PASSWORD
from scripted_server import answer


def mysql(test, port, names, host="127.0.0.1", socket="", user=ACCOUNT, password=PASSWORD, timeout=10,
          code="MQA"):
    return "\t".join(str(field) for field in (
        code, test, 7, host, port, socket, user, password, names, timeout))


class HaltingWay:
    """A port that leads to a server and halts it as soon as the first query is about to reach it."""

    def __init__(self, test, peer):
        self.peer = peer
        self.halted = threading.Event()
        listener = socket.create_server(("127.0.0.1", 0))
        test.addCleanup(listener.close)
        test.addCleanup(listener.shutdown, socket.SHUT_RDWR)
        self.port = listener.getsockname()[1]
        threading.Thread(target=self.accept, args=(listener,), daemon=True).start()

    def accept(self, listener):
        while True:
            try:
                near, _ = listener.accept()
                far = socket.create_connection(("127.0.0.1", self.peer.port))
            except ConnectionError:
                near.close()
                continue
            except OSError:
                return
            for ends in ((near, far), (far, near)):
                threading.Thread(target=self.lead, args=ends, daemon=True).start()

    def lead(self, source, target):
        try:
            while data := source.recv(65536):
                if b"SHOW GLOBAL STATUS" in data and not self.halted.is_set():
                    self.peer.stop()
                    self.halted.set()
                target.sendall(data)
        except OSError:
            pass
        for end, direction in ((target, socket.SHUT_WR), (source, socket.SHUT_RD)):
            try:
                end.shutdown(direction)
            except OSError:
                pass


class Mysql(steered.TestCase):
    def record(self, test, condition=lambda record: True):
        record = self.wait_record(records.MYSQL, lambda r: r.ui32[1] == test and condition(r))
        self.assertEqual([len(part) for part in record[1:6]], [0, 5, 1, 0, 0])
        self.assertEqual(record.ui32[2], 7)
        self.assertEqual(record.i64[0] % 128, 0)
        self.assertLess(abs(record.i64[0] - time.time()), 300)
        return record

    def result(self, test, condition=lambda record: True):
        """Status, result list and additional information; "" for one that is left out."""
        record = self.record(test, condition)
        return (record.ui32[3], *(record.strings + ["", ""])[:2])

    def count(self, test):
        return sum(record.ui32[1] == test for record in self.records(records.MYSQL))

    def check_threads(self):
        """Checks that the agent is in."""
        tasks = "/proc/%d/task" % self.agent.process.pid
        return sum(harness.read_text(os.path.join(tasks, task, "comm")) == "mysql_check\n"
                   for task in os.listdir(tasks))


class Values(Mysql):
    def test_counters_variables_and_limits(self):
        peer = harness.start_mariadb(self, "--max-connections=77")
        cases = {
            "max_connections|77|77": (0, "max_connections|77|0;", ""),
            "max_connections|76": (2, "max_connections|77|2;", "max_connections - 77: NOK;"),
            "max_connections||78": (2, "max_connections|77|2;", "max_connections - 77: NOK;"),
            "max_connections|abc|5": (0, "max_connections|77|0;", ""),
            "max_connections|-1": (0, "max_connections|77|0;", ""),
            "no_such_name|1": (2, "no_such_name| |2;", "no_such_name -  : NOK;"),
            "Max_Connections": (2, "Max_Connections| |2;", "Max_Connections -  : NOK;"),
            "log_bin": (2, "log_bin|OFF|2;", "log_bin - OFF: NOK;"),
            "init_connect": (2, "init_connect||2;", "init_connect - : NOK;"),
            "port;;skip_networking": (2, "port|%d|0;| |2;skip_networking|OFF|2;" % peer.port,
                                      " -  : NOK;skip_networking - OFF: NOK;"),
            "port|65535|1;port": (2, "port|%d|0;port| |2;" % peer.port, "port -  : NOK;"),
            "port;": (0, "port|%d|0;" % peer.port, ""),
        }
        self.start(*(mysql(test, peer.port, names) for test, names in enumerate(cases, 1)),
                   mysql(50, peer.port, "Uptime;version|11|10;Threads_connected|1000|1"))
        for test, (names, expected) in enumerate(cases.items(), 1):
            self.assertEqual(self.result(test), expected, names)
        status, result, information = self.result(50)
        self.assertEqual((status, information), (0, ""))
        self.assertRegex(result, r"^Uptime\|\d+\|0;version\|10\.[^|]*-MariaDB[^|]*\|0;"
                                 r"Threads_connected\|\d+\|0;$")
        self.assertLess(self.record(1).ui32[4], 60000)

    def test_ways_to_the_server(self):
        peer = harness.start_mariadb(self)
        nowhere = harness.free_port()
        self.start(mysql(1, peer.port, "port"),
                   mysql(2, nowhere, "port", host="localhost", socket=peer.socket),
                   mysql(3, nowhere, "port", host="", socket=peer.socket),
                   mysql(4, peer.port, "port", host="localhost", socket="/no/such/socket"),
                   # An address means TCP, whatever the socket.
                   mysql(5, peer.port, "port", socket="/no/such/socket"),
                   mysql(6, nowhere, "port", socket=peer.socket))
        for test in (1, 2, 3, 5):
            self.assertEqual(self.result(test), (0, "port|%d|0;" % peer.port, ""), test)
        for test, reason in ((4, "socket '/no/such/socket'"), (6, "server on '127.0.0.1'")):
            status, result, information = self.result(test)
            self.assertEqual((status, result), (3, "Error_Message|%s|3;" % information), test)
            self.assertIn(reason, information)
        self.assertIn("ERROR: make_query: lib_mysql_real_connect failed: test_id 4, host localhost, port "
                      "%d, unixsock /no/such/socket, error - " % peer.port, self.agent.log())
        self.assertIn("failed: test_id 6, host 127.0.0.1, port %d, unixsock %s, error - " %
                      (nowhere, peer.socket), self.agent.log())

    def test_accounts_and_hosts_that_do_not_exist(self):
        peer = harness.start_mariadb(self)
        unknown = "x" * 64  # too long for the name service to ask for
        self.start(mysql(1, peer.port, "port", password="wrong"),
                   mysql(2, peer.port, "port", password=""),
                   mysql(3, peer.port, "port", user="nobody"),
                   mysql(4, peer.port, "port", host=unknown),
                   mysql(5, peer.port, "port"))
        for test, user, used in ((1, ACCOUNT, "YES"), (2, ACCOUNT, "NO"), (3, "nobody", "YES")):
            reason = "Access denied for user '%s'@'127.0.0.1' (using password: %s)" % (user, used)
            self.assertEqual(self.result(test), (3, "Error_Message|%s|3;" % reason, reason))
            self.assertIn("ERROR: make_query: lib_mysql_real_connect failed: test_id %d, host 127.0.0.1, "
                          "port %d, unixsock (null), error - %s\n" % (test, peer.port, reason),
                          self.agent.log())
        self.assertIn("Unknown server host '%s'" % unknown, self.result(4)[2])
        self.assertEqual(self.result(5)[0], 0)

    def test_changes_and_rounds(self):
        peer = harness.start_mariadb(self)
        self.start(mysql(1, peer.port, "port"), mysql(1, peer.port, "max_connections"),
                   mysql(2, peer.port, "port"))
        self.assertEqual(self.result(1)[1], "port|%d|0;" % peer.port)
        self.server.then(answer(mysql(1, peer.port, "port|0", code="MQM") + "\nMQD\t2\t0\n" +
                                mysql(3, peer.port, "port", code="MQM") + "\n"))
        self.assertEqual(self.result(1, lambda r: r.ui32[3] != 0),
                         (2, "port|%d|2;" % peer.port, "port - %d: NOK;" % peer.port))
        self.wait_idle()
        removed = self.count(2)
        checked = self.count(1)
        # A round each second now, of the first test alone.
        self.server.then(answer("CHK\t0\t1\n"))
        harness.wait_until(lambda: self.count(1) >= checked + 3, "three more rounds")
        self.assertEqual((self.count(2), self.count(3)), (removed, 0))

    def test_many_checks_leave_nothing(self):
        peer = harness.start_mariadb(self)
        self.start(*(mysql(test, peer.port, "port;Uptime") for test in range(1, 41)))
        harness.wait_until(lambda: self.count(40) >= 2 and self.count(1) >= 2, "two rounds of all")
        self.server.then(answer("CHK\t0\t3600\n"))
        self.wait_idle(3)
        harness.wait_until(lambda: self.check_threads() == 0, "the end of the checks")
        harness.wait_until(lambda: not peer.connections(), lambda: "have %s" % peer.connections())

        def sockets():
            return sum(name.startswith("socket:") for name in harness.open_files(self.agent.process.pid).values())
        harness.wait_until(lambda: sockets() < 4, lambda: "%d sockets" % sockets())


class Servers(Mysql):
    """What becomes of a check whose server stops, between its query and the answer."""

    def start_held(self, *others, timeout=2):
        self.peer = harness.start_mariadb(self)
        self.way = HaltingWay(self, self.peer)
        self.start(mysql(1, self.way.port, "max_connections", timeout=timeout), *others)
        harness.wait_until(self.way.halted.is_set, "a query")
        self.assertEqual(self.count(1), 0)

    def failure(self, text):
        """A record of this failure."""
        record = self.record(1, lambda r: text in r.strings[-1])
        reason = record.strings[1]
        self.assertEqual((record.ui32[3], record.strings[0]), (3, "Error_Message|%s|3;" % reason))
        return record.ui32[4], reason

    def test_killed_in_the_middle_of_a_query(self):
        other = harness.start_mariadb(self)
        self.start_held(mysql(2, other.port, "port"))
        harness.wait_until(lambda: self.count(2) >= 4, "rounds of another test, which is not held up")
        self.peer.end()
        _, reason = self.failure("during query")
        self.assertIn("ERROR: make_query: lib_mysql_query failed: test_id 1, error - " + reason,
                      self.agent.log())
        self.peer.start()
        self.assertEqual(self.result(1, lambda r: r.ui32[3] == 0)[1], "max_connections|151|0;")

    def test_stopped_in_the_middle_of_a_query(self):
        self.start_held(timeout=600)
        # The next check is not greeted: the time-out of two seconds ends it. The first one waits for its
        # answer as long as it was to.
        self.server.then(answer(mysql(1, self.way.port, "max_connections", timeout=2, code="MQM") + "\n"))
        milliseconds, _ = self.failure("Lost connection to server at")
        self.assertGreaterEqual(milliseconds, 1000)
        self.assertLess(milliseconds, 30000)
        self.assertGreaterEqual(self.check_threads(), 1)
        self.peer.go_on()
        held = self.record(1, lambda r: r.ui32[3] == 0 and r.ui32[4] >= 2000)
        self.assertEqual(held.strings, ["max_connections|151|0;"])

    def test_the_agent_ends_while_a_check_is_held(self):
        self.start_held()
        self.agent.stop()


class WithoutTheLibrary(Mysql):
    def test_every_new_test_is_answered(self):
        names = ["libmysqlclient.so", "libmysqlclient.so.21", "libmysqlclient.so.20",
                 "libmysqlclient.so.18", "libmariadb.so.3"]
        directory = self.subdir("libraries")
        for name in names:
            harness.write_text(os.path.join(directory, name), "")
        self.start(mysql(1, 1, "port"), mysql(1, 1, "port", code="MQM"), "MQD\t1\t0",
                   env={"LD_LIBRARY_PATH": directory})
        reason = "MySQL: failed on loading libmysqlclient.so, %s: file too short" % (
            os.path.join(directory, "libmariadb.so.3"))
        self.assertEqual(self.result(1), (3, "Error_Message|%s|3;" % reason, reason))
        harness.wait_until(lambda: self.count(1) == 2, "both answers")
        self.assertEqual(self.record(1).ui32[4], 0)
        log = self.agent.log()
        self.assertIn("ERROR: init_mysql_lib() failed.\n", log)
        self.assertIn("MySQL checker initialization failed.\n", log)
        self.wait_idle()
        self.assertEqual(self.count(1), 2)


if __name__ == "__main__":
    harness.main()
