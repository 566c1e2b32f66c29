"""Packets between an agent and the collector are lost, late, doubled, in disorder, or do not come at all.

Expected: what TCP mends is not noticed; a poll that takes longer than its 15 seconds is a failed one,
and its block is sent again; after the network is back all that was measured meanwhile is stored. No
record is lost or doubled.

The kernel's own emulation (netem) is a module that many kernels lack. Here the wire is two tun devices,
one of them in the agent's network namespace, and a thread that carries the packets between them."""

import fcntl
import heapq
import os
import random
import select
import struct
import subprocess
import threading
import time

import accounts
import harness

TUNSETIFF, IFF_TUN, IFF_NO_PI = 0x400454CA, 1, 0x1000


class Wire:
    """A network of two: 10.8.NUMBER.1 here and 10.8.NUMBER.2 there. `enter` goes before a command line that
    is to run there. The other attributes may be changed at any time; they are for each direction."""

    def __init__(self, test, number):
        self.loss = self.doubled = 0.0  # parts of the packets
        self.delay_s = self.jitter_s = 0.0  # each packet is delayed by `delay_s` and up to `jitter_s` more
        self.carried = self.lost = 0
        self.here = "10.8.%d.1" % number
        holder = subprocess.Popen(["unshare", "--net", "sh", "-c", "echo; exec sleep infinity"],
                                  stdout=subprocess.PIPE)
        test.addCleanup(holder.wait)
        test.addCleanup(holder.kill)
        holder.stdout.readline()
        holder.stdout.close()
        self.enter = ["nsenter", "--target", str(holder.pid), "--net"]
        near, far = "near%d" % number, "far%d" % number
        self.ends = [self._open(near), self._open(far)]
        for command in (["ip", "link", "set", far, "netns", str(holder.pid)],
                        ["ip", "addr", "add", self.here + "/24", "dev", near],
                        ["ip", "link", "set", near, "up"],
                        self.enter + ["ip", "addr", "add", "10.8.%d.2/24" % number, "dev", far],
                        self.enter + ["ip", "link", "set", far, "up"]):
            subprocess.run(command, check=True)
        self.stopping = False
        self.thread = threading.Thread(target=self._carry)
        self.thread.start()
        test.addCleanup(self._stop)

    @staticmethod
    def _open(name):
        fd = os.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK | os.O_CLOEXEC)
        fcntl.ioctl(fd, TUNSETIFF, struct.pack("16sH22x", name.encode(), IFF_TUN | IFF_NO_PI))
        return fd

    def _stop(self):
        self.stopping = True
        self.thread.join()
        for fd in self.ends:
            os.close(fd)

    def _carry(self):
        under_way, order = [], 0  # (when it arrives, order of sending, where, packet)
        while not self.stopping:
            wait_s = max(under_way[0][0] - time.monotonic(), 0) if under_way else 0.1
            for fd in select.select(self.ends, [], [], min(wait_s, 0.1))[0]:
                packet = os.read(fd, 65536)
                if random.random() < self.loss:
                    self.lost += 1
                    continue
                for _ in range(2 if random.random() < self.doubled else 1):
                    order += 1
                    arrival = time.monotonic() + self.delay_s + random.uniform(0, self.jitter_s)
                    heapq.heappush(under_way, (arrival, order, self.ends[fd == self.ends[0]], packet))
            while under_way and under_way[0][0] <= time.monotonic():
                _, _, fd, packet = heapq.heappop(under_way)
                os.write(fd, packet)
                self.carried += 1


@harness.needs_namespaces
class Weather(harness.TestCase):
    def setUp(self):
        super().setUp()
        if not os.path.exists("/dev/net/tun"):
            self.skipTest("needs /dev/net/tun: the network of the test is made with it")

    def start(self, number):
        self.wire = Wire(self, number)
        self.collector = harness.Collector(self, *accounts.PLAN,
                                           options=["--listen", self.wire.here]).start()
        self.agent = harness.Agent(
            self, USEHOST="https://%s:%d/fcgi-bin/agentgateway" % (self.wire.here, self.collector.port),
            wrap=self.wire.enter + harness.mounted(harness.RisingLoad(self).path, "/proc/loadavg"))
        self.agent.start()
        self.wait_accepted(2)

    def wait_accepted(self, count):
        wanted = len(self.accepted()) + count
        harness.wait_until(lambda: len(self.accepted()) >= wanted,
                           lambda: "%d blocks\n%s" % (wanted, self.agent.log()[-2000:]))

    def accepted(self):
        return accounts.by_log(self.agent.log())[0]

    def check_account(self):
        self.agent.stop()
        self.collector.stop()
        accounts.check_agent(self, self.agent, self.collector.rows())
        accounts.check_store(self, self.collector)

    def test_loss(self):
        """Every fifth packet is lost."""
        self.start(1)
        self.wire.loss = 0.2
        harness.wait_until(lambda: self.wire.lost >= 20, lambda: "%d lost packets" % self.wire.lost)
        self.wait_accepted(3)
        self.check_account()

    def test_delay(self):
        """300 ms in each direction."""
        self.start(2)
        self.wire.delay_s = 0.3
        self.wait_accepted(5)
        self.check_account()
        self.assertNotIn("result: 2\n", self.agent.log())

    def test_doubled_and_in_disorder(self):
        self.start(3)
        self.wire.doubled, self.wire.jitter_s = 0.5, 0.08
        self.wait_accepted(8)
        self.check_account()
        self.assertNotIn("result: 2\n", self.agent.log())

    def test_partition(self):
        """Nothing comes through for longer than a poll may take; it begins in the middle of a poll."""
        self.start(4)
        self.wire.delay_s = 0.1
        polls = self.agent.log().count("INFO: data cache size")
        self.agent.wait_log("INFO: data cache size", polls + 1)
        carried = self.wire.carried
        harness.wait_until(lambda: self.wire.carried > carried, "a packet of the poll")
        self.wire.loss = 1
        failed = self.agent.log().count("result: 2\n")
        self.agent.wait_log("result: 2\n", failed + 1)
        self.agent.wait_log("timed out")
        self.wire.loss = 0
        self.wait_accepted(3)
        self.check_account()


if __name__ == "__main__":
    harness.main()
