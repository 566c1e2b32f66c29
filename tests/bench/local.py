#!/usr/bin/env python3
"""What it costs to watch the machine itself: the agent with ten tests of each local checker, and other
monitors that collect the same at the same rate, each alone in a process namespace with a given number of
sleeping processes. CPU time is the monitor's own, system calls and finished threads included.

    tests/bench/local.py [--processes 75,270] [--seconds 120] [agent] [empty] [node_exporter] [collectd] [zabbix]

Needs root. Peers are Debian's packages prometheus-node-exporter, collectd-core, zabbix-agent; those that
are not installed are left out. `agent` is every local checker, `empty` the agent without a test.
"""

import argparse
import os
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import urllib.request

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from whole import (  # noqa: E402
    BUILD, count_on, end, memory_kb, no_more, start_collector, unit_environment, wait_for)
from peers import free_port  # noqa: E402  where whole has found it

INTERVAL_S = 10
TESTS = 10  # of each kind


def cpu_seconds(pid):
    """CPU time of a whole process, to the nanosecond, finished threads included."""
    return time.clock_gettime(((~pid) << 3) | 2)


def tree(pid):
    """The process and all below it."""
    found = [pid]
    for number in found:
        for task in os.listdir("/proc/%d/task" % number):
            with open("/proc/%d/task/%s/children" % (number, task), encoding="ascii") as file:
                found += [int(child) for child in file.read().split()]
    return found


def sleepers(count):
    """Processes that do nothing, so that the namespace holds `count` of them."""
    for _ in range(count):  # not a copy of this process, which shares libraries with what it measures
        subprocess.Popen(["sleep", "infinity"])


def interfaces():
    """A pair of connected interfaces that are up, with addresses: the agent's checker takes no others."""
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    subprocess.run(["ip", "link", "add", "bench0", "type", "veth", "peer", "name", "bench1"], check=True)
    for number in range(2):
        name = "bench%d" % number
        subprocess.run(["ip", "address", "add", "10.78.%d.1/32" % number, "dev", name], check=True)
        subprocess.run(["ip", "link", "set", name, "up"], check=True)


def root_mount():
    with open("/proc/mounts", encoding="utf-8") as file:
        for line in file:
            device, directory, kind = line.split()[:3]
            if directory == "/":
                return "/(%s|%s)" % (device, kind)
    sys.exit("no root file system in /proc/mounts")


def local_tests(count):
    plan = ["POL\t0\t60", "CHK\t0\t%d" % INTERVAL_S]
    for i in range(1, count + 1):
        plan += ["LAA\t%d\t1\t90\t90\t90" % i,
                 "CUA\t%d\t1\t101\t101\t101\t-1\t101" % (100 + i),
                 "MMA\t%d\t1\t1\t-1\t-1\t-1\t-1" % (200 + i),
                 "DKA\t%d\t1\t%s\t0.001" % (300 + i, root_mount()),
                 "PRA\t%d\t1\t90\t900\t-1\t%s" % (400 + i, "vindral" if i == 1 else "none%d" % i),
                 "NTA\t%d\t1\tbench%d\t0\t0\t0\t0\t0\t0" % (500 + i, i % 2)]
    return plan


class Agent:
    """The agent and a collector on the address `server`; only the agent counts. `before` and `env` are
    those of the collector."""

    def __init__(self, home, plan, log_level=1, server="127.0.0.1", before=(), env=None):
        plan_path = os.path.join(home, "plan")
        with open(plan_path, "w", encoding="utf-8") as file:
            file.write("\n".join(plan) + "\n")
        self.collector, port = start_collector(
            home, *before, options=("--plan", plan_path, "--listen", server), env=env)
        self.conf, self.log_level = os.path.join(home, "conf"), log_level
        self.pid_file, self.log = os.path.join(home, "pid"), os.path.join(home, "log")
        with open(self.conf, "w", encoding="utf-8") as file:
            file.write("VINDRALHOME %s\nLOGFILE %s\nPIDFILE %s\nUSEREMAIL bench@example.org\nLOGLEVEL %d\n"
                       "AGENTNAME local\nUSEHOST https://%s:%d/fcgi-bin/agentgateway\n"
                       % (home, self.log, self.pid_file, log_level, server, port))
        self.start()

    def start(self):
        subprocess.run([os.path.join(BUILD, "vindral"), "-C", self.conf], check=False, stdout=subprocess.DEVNULL,
                       env=dict(os.environ, **unit_environment()))
        wait_for(self.authorized if self.log_level else self.started, "the agent; its log is " + self.log,
                 step_s=0.0005)
        with open(self.pid_file, encoding="ascii") as file:
            self.pid = count_on(int(file.read()), "the agent")

    def authorized(self):
        try:
            with open(self.log, encoding="utf-8") as file:
                return "Authorization was successfully completed." in file.read()
        except FileNotFoundError:
            return False

    def started(self):
        return os.path.exists(self.pid_file) and os.path.getsize(self.pid_file) > 0

    def query(self):
        pass

    def hang_up(self):
        no_more(self.pid)
        os.kill(self.pid, signal.SIGHUP)
        # The first process of the namespace inherits the daemon.
        wait_for(lambda: os.waitpid(self.pid, os.WNOHANG)[0], "the agent's end", step_s=0.002)
        os.unlink(self.log)

    def stop(self):
        self.hang_up()
        end(self.collector)


class Peer:
    def __init__(self, command):
        self.process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.pid = count_on(self.process, command[0]).pid

    def query(self):
        pass

    def stop(self):
        end(self.process)


class NodeExporter(Peer):
    """Only the collectors of the same subjects, scraped at the interval."""

    def __init__(self, _):
        self.port = free_port()
        names = ("cpu", "meminfo", "loadavg", "filesystem", "diskstats", "netdev", "processes")
        super().__init__(["prometheus-node-exporter", "--web.listen-address=127.0.0.1:%d" % self.port,
                          "--collector.disable-defaults", *("--collector." + name for name in names)])
        wait_for(self.answers, "node_exporter")

    def answers(self):
        try:
            self.query()
            return True
        except OSError:
            return False

    def query(self):
        with urllib.request.urlopen("http://127.0.0.1:%d/metrics" % self.port, timeout=30) as answer:
            answer.read()


class Collectd(Peer):
    """The same subjects, written to CSV files."""

    def __init__(self, home):
        plugins = ("cpu", "memory", "swap", "load", "df", "disk", "interface", "processes", "csv")
        conf = os.path.join(home, "collectd.conf")
        with open(conf, "w", encoding="utf-8") as file:
            file.write("Hostname \"bench\"\nFQDNLookup false\nInterval %d\nBaseDir \"%s\"\n"
                       "PIDFile \"%s/collectd.pid\"\nTypesDB \"/usr/share/collectd/types.db\"\n%s"
                       "<Plugin csv>\n DataDir \"%s/csv\"\n</Plugin>\n"
                       "<Plugin processes>\n%s</Plugin>\n"
                       % (INTERVAL_S, home, home, "".join("LoadPlugin %s\n" % p for p in plugins), home,
                          "".join(" Process \"name%d\"\n" % i for i in range(TESTS))))
        super().__init__(["collectd", "-f", "-C", conf])
        wait_for(lambda: os.path.exists(os.path.join(home, "csv")), "collectd")


class Zabbix(Peer):
    """Passive items of the same subjects, asked for at the interval."""

    ITEMS = (["system.cpu.util[,user]", "vm.memory.size[free]", "system.swap.size[,free]",
              "system.cpu.load[all,avg1]", "vfs.fs.size[/,free]", "net.if.in[bench0]",
              "net.if.out[bench0]"] + ["proc.num[name%d]" % i for i in range(TESTS)])

    def __init__(self, home):
        self.port = 10050  # nobody else is in this namespace; above 32767 is refused
        conf = os.path.join(home, "zabbix.conf")
        with open(conf, "w", encoding="utf-8") as file:
            file.write("Server=127.0.0.1\nListenIP=127.0.0.1\nListenPort=%d\nLogFile=%s/zabbix.log\n"
                       "PidFile=%s/zabbix.pid\nAllowRoot=1\n" % (self.port, home, home))
        super().__init__(["zabbix_agentd", "-f", "-c", conf])
        wait_for(self.answers, "zabbix_agentd")

    def answers(self):
        try:
            self.ask(self.ITEMS[0])
            return True
        except OSError:
            return False

    def ask(self, item):
        with socket.create_connection(("127.0.0.1", self.port), timeout=30) as peer:
            peer.sendall(b"ZBXD\x01" + struct.pack("<Q", len(item)) + item.encode())
            while peer.recv(4096):
                pass

    def query(self):
        for item in self.ITEMS:
            self.ask(item)


MONITORS = {
    "empty": (None, lambda home: Agent(home, local_tests(0))),
    "agent": (None, lambda home: Agent(home, local_tests(TESTS))),
    "node_exporter": ("prometheus-node-exporter", NodeExporter),
    "collectd": ("collectd", Collectd),
    "zabbix": ("zabbix_agentd", Zabbix),
}


def measure(name, processes, seconds):
    home = tempfile.mkdtemp(prefix="vindral-bench-", dir="/var/tmp")
    try:
        monitor = MONITORS[name][1](home)
        pids = tree(monitor.pid)
        sleepers(max(0, processes - len([p for p in os.listdir("/proc") if p.isdigit()])))
        count = len([p for p in os.listdir("/proc") if p.isdigit()])
        for _ in range(2):  # what happens once is not what a minute costs
            monitor.query()
            time.sleep(INTERVAL_S)
        before = {pid: cpu_seconds(pid) for pid in pids}
        for _ in range(seconds // INTERVAL_S):
            monitor.query()
            time.sleep(INTERVAL_S)
        used = sum(cpu_seconds(pid) - before[pid] for pid in pids)
        memory = [memory_kb(pid) for pid in pids]
        print("%-14s %5d processes: %7.1f ms CPU a minute (%.1f s an hour), RSS %d KB, PSS %d KB" % (
            name, count, used * 1000 * 60 / seconds, used * 3600 / seconds,
            sum(rss for rss, _ in memory), sum(pss for _, pss in memory)), flush=True)
        monitor.stop()
    finally:
        shutil.rmtree(home, ignore_errors=True)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--processes", default="75,270")
    parser.add_argument("--seconds", type=int, default=120)
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    parser.add_argument("monitors", nargs="*", default=list(MONITORS))
    options = parser.parse_args()
    if options.inside:
        interfaces()
        measure(options.monitors[0], int(options.processes), options.seconds)
        return
    for processes in options.processes.split(","):
        for name in options.monitors:
            program = MONITORS[name][0]
            if program and not shutil.which(program):
                print("%-14s is not installed" % name)
                continue
            # The namespace ends with its first process, and with it all that runs in it.
            subprocess.run(["unshare", "--pid", "--mount-proc", "--net", "--fork", "--kill-child",
                            sys.executable, os.path.abspath(__file__), "--inside", "--processes", processes,
                            "--seconds", str(options.seconds), name], check=True)


if __name__ == "__main__":
    main()
