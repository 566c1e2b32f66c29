"""An agent that a scripted server tells what to do, and what it reported."""

import subprocess

import harness
import records
from scripted_server import ScriptedServer, accept_login, answer


class TestCase(harness.TestCase):
    def start(self, *lines, before="", **options):
        """An agent whose first poll's answer holds these lines."""
        self.server = ScriptedServer(self)
        self.server.then(accept_login("s", "POL\t0\t1\nCHK\t0\t1\n" + before),
                         answer("".join(line + "\n" for line in lines)))
        self.agent = harness.Agent(self, self.server.port, **options).start()

    def blocks(self):
        return [records.decode(request.plain()) for request in list(self.server.requests)
                if request.body]

    def records(self, kind):
        return [record for block in self.blocks() for record in block if record.ui32[0] == kind]

    def wait_record(self, kind, condition):
        return harness.wait_until(
            lambda: next(filter(condition, self.records(kind)), None),
            lambda: "a record of type %d, have %s\n%s" % (
                kind, [record[1:] for record in self.records(kind)][-5:], self.agent.log()[-2000:]))

    def wait_idle(self, count=2):
        """Waits for polls that came after what was changed."""
        self.server.wait_requests(len(self.server.requests) + count)


class FarSide:
    """A network namespace of its own, connected to the tests': 10.9.NUMBER.1 is here, the addresses,
    numbers of 1 to 254, are there. `enter` goes before a command line that is to run there."""

    def __init__(self, test, number, *hosts):
        self.here = "10.9.%d.1" % number
        holder = subprocess.Popen(["unshare", "--net", "sh", "-c", "echo; exec sleep infinity"],
                                  stdout=subprocess.PIPE)
        test.addCleanup(holder.wait)
        test.addCleanup(holder.kill)
        holder.stdout.readline()
        holder.stdout.close()
        self.pid, self.near = holder.pid, "near%d" % number
        self.enter = ["nsenter", "--target", str(holder.pid), "--net"]
        commands = [["ip", "link", "add", self.near, "type", "veth", "peer", "name", "far", "netns",
                     str(holder.pid)],
                    ["ip", "link", "set", self.near, "up"],
                    ["ip", "addr", "add", self.here + "/24", "dev", self.near],
                    self.enter + ["ip", "link", "set", "far", "up"]]
        commands += [self.enter + ["ip", "addr", "add", "10.9.%d.%d/24" % (number, host), "dev", "far"]
                     for host in hosts]
        for command in commands:
            subprocess.run(command, check=True)
        test.addCleanup(subprocess.run, ["ip", "link", "del", self.near], check=True)
