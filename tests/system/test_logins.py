"""What agents are sent when they log in anew: after a restart of the collector with another plan, after
one of their own, and where two hosts go by one name."""

import re
import subprocess

import harness

INTERVALS = ["POL\t0\t1", "CHK\t0\t1"]
REAUTHORISED = "Reauthorization is required."
REFUSED = "There is an internal error occurred, while trying to connect to the server."


def tests(location, *ids):
    """A test of each of these kinds for each id."""
    return [line for i in ids for line in (
        "LAA\t%d\t%d\t-1\t-1\t-1" % (i, location),
        "PRA\t%d\t%d\t-1\t-1\t-1\tno such process" % (i, location),
        "NTA\t%d\t%d\tlogins0\t-1\t-1\t-1\t-1\t-1\t-1" % (i, location),
        "DKA\t%d\t%d\tno such disk\t1" % (i, location))]


KINDS = ("load average", "process", "network", "disk")


def errors_of(agent):
    """What the agent complains of. That there is no connection is expected here."""
    return [message for message in agent.messages() if message.startswith("ERROR:") and
            not re.match(r"ERROR: make_(poll|connection)\b", message)]


class ChangedPlan(harness.TestCase):
    def results(self, kind, condition=lambda result: True):
        return [result for result in self.collector.results()
                if result["name"] == kind and condition(result)]

    def wait_for(self, test, location):
        """Waits for results of the test of every kind."""
        harness.wait_until(
            lambda: all(self.results(kind, lambda result: (result["test"], result["location"]) ==
                                     (test, location)) for kind in KINDS),
            lambda: "test %d at location %d; have %s\n%s" % (
                test, location, self.collector.results()[-8:], self.collector.errors()))

    @harness.needs_namespaces  # for an interface
    def test_restart_with_another_plan(self):
        """One test of each kind taken out, one changed, while the collector was down."""
        subprocess.run("ip link add logins0 type veth peer name logins1 && "
                       "ip addr add 198.51.100.1/24 dev logins0 && "
                       "ip link set logins0 up && ip link set logins1 up", shell=True, check=True)
        self.collector = harness.Collector(self, *INTERVALS, *tests(1, 1, 2)).start()
        agent = harness.Agent(self, self.collector.port).start()
        self.wait_for(1, 1)
        self.wait_for(2, 1)
        self.collector.stop()
        harness.write_text(self.collector.plan,
                           "".join(line + "\n" for line in INTERVALS + tests(5, 2, 3)))
        before = len(self.collector.results())
        self.collector.start()
        self.wait_for(2, 5)
        self.wait_for(3, 5)
        for kind in KINDS:
            # What was measured before the login may come after it, but in order.
            count = len(self.results(kind, lambda result: result["location"] == 5))
            harness.wait_until(
                lambda kind=kind, count=count: len(self.results(
                    kind, lambda result: result["location"] == 5)) >= count + 4, kind)
            locations = [result["location"] for result in self.results(kind)]
            self.assertEqual(locations, sorted(locations), kind)
        self.assertGreater(len(self.collector.results()), before)
        self.assertEqual(errors_of(agent), [])
        self.assertEqual(agent.log().count(REAUTHORISED), 1)

        # The agent's own restart: what it has not is not removed.
        agent.stop()
        agent.start()
        count = {kind: len(self.results(kind)) for kind in KINDS}
        harness.wait_until(lambda: all(len(self.results(kind)) > count[kind] + 2 for kind in KINDS),
                           lambda: repr(count))
        self.assertEqual(errors_of(agent), [])
        self.assertEqual({(result["test"], result["location"]) for kind in KINDS
                          for result in self.results(kind)[count[kind]:]}, {(2, 5), (3, 5)})


def wait_more(collector, count):
    """Waits for more results of test 1."""
    have = sum(result["test"] == 1 for result in collector.results())
    collector.wait_test(1, have + count)


class TwoHosts(harness.TestCase):
    def check(self, address):
        collector = harness.Collector(self, *INTERVALS, "LAA\t1\t1\t-1\t-1\t-1",
                                      options=["--listen", "0.0.0.0"]).start()
        first = harness.Agent(self, collector.port, name="first", AGENTNAME="twin").start()
        collector.wait_test(1, 2)
        second = harness.Agent(self, collector.port, name="second", AGENTNAME="twin",
                               USEHOST="https://%s:%d/" % (address, collector.port)).start()
        collector.wait_errors("two hosts under one name: twin of user@example.net polls from "
                              "127.0.0.1, the other at %s is refused meanwhile" % address)
        second.wait_log(REFUSED, 3)
        wait_more(collector, 3)
        self.assertNotIn(REAUTHORISED, first.log())
        self.assertEqual(second.log().count(REAUTHORISED), 1)
        self.assertFalse(second.process.ended())
        self.assertEqual(collector.errors().count("two hosts under one name"), 1)

        # The first one goes: after a while, the second one may come in.
        first.stop()
        second.wait_log("Authorization was successfully completed.", 2)
        wait_more(collector, 3)
        self.assertEqual(second.log().count(REAUTHORISED), 1)

    def test_behind_one_address(self):
        self.check("127.0.0.1")

    @harness.needs_namespaces
    def test_at_two_addresses(self):
        subprocess.run(["ip", "route", "replace", "local", "127.0.0.3", "dev", "lo", "src", "127.0.0.3",
                        "table", "local"], check=True)
        self.check("127.0.0.3")

    def test_restarts_are_no_conflict(self):
        collector = harness.Collector(self, *INTERVALS, "LAA\t1\t1\t-1\t-1\t-1").start()
        for _ in range(3):
            agent = harness.Agent(self, collector.port, name="agent", AGENTNAME="agent").start()
            wait_more(collector, 2)
            agent.process.kill()
            self.assertNotIn(REFUSED, agent.log())
        self.assertNotIn("two hosts", collector.errors())


if __name__ == "__main__":
    harness.main()
