#!/usr/bin/env python3
"""What it costs to watch pages and hosts: rounds of page and echo tests of the agent, and other tools with
as many probes of the same targets, in one run. CPU time is that of the prober alone, system calls included.

    tests/bench/probes.py [--tests 1000] [--rounds 5] [http] [https] [ping] [leaks]

`http` and `https` ask nginx (one worker) for a page of 10 KB, ECDSA P-256; beside curl, blackbox_exporter,
and wrk or `openssl s_time -new` as the limits of the machine. `ping` sends one packet to each of 127.x.y.z,
10, 100 and so many tests, beside fping; with errors logged, too, where every probe of another test is a
line. `leaks` makes 200,000 page checks and shows memory and
descriptors on the way. Needs root and nginx; Debian's curl, prometheus-blackbox-exporter, wrk and fping are left out
where they are not installed.
"""

import argparse
import concurrent.futures
import os
import re
import resource
import shutil
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from local import Agent, cpu_seconds, free_port  # noqa: E402
from whole import PATIENCE_S, TOOL_S, count_on, end, give_up, join, peers, started, stored, wait_for  # noqa: E402

PAGE = 10240


NGINX = """log_format times $msec; access_log %(dir)s/asked times;
keepalive_timeout 0; open_file_cache max=8; ssl_session_cache off; ssl_session_tickets off;
server { listen 127.0.0.1:%(http)d backlog=8192; }
server { listen 127.0.0.1:%(https)d ssl backlog=8192; ssl_certificate %(dir)s/tls.crt;
ssl_certificate_key %(dir)s/tls.key; ssl_protocols TLSv1.2 TLSv1.3; }
"""


class Nginx(peers.Nginx):
    """One worker; a page of 10 KB."""

    def __init__(self, home):
        directory = tempfile.mkdtemp(dir=home)
        peers.make_certificate(directory + "/tls", "ec", "-subj", "/CN=bench")
        peers.write_text(directory + "/page", "x" * PAGE)
        super().__init__(directory, NGINX, ("http", "https"), worker=True)
        self.http, self.https = self.ports.values()
        started(self)

    def times(self):
        """When each request was answered."""
        return [float(line) for line in peers.read_text(self.directory + "/asked").split()]

    def served(self):
        return len(self.times())


def status(pid, key):
    with open("/proc/%d/status" % pid, encoding="ascii") as file:
        return int(re.search(key + r":\s*(\d+)", file.read()).group(1))


class Peak:
    """The most threads of a process while it is watched."""

    def __init__(self, pid):
        self.pid, self.threads, self.stopping = pid, 0, False
        self.thread = threading.Thread(target=self._watch, daemon=True)
        self.thread.start()

    def _watch(self):
        while not self.stopping:
            self.threads = max(self.threads, status(self.pid, "Threads"))
            time.sleep(0.005)

    def stop(self):
        self.stopping = True
        join(self.thread, "who counts threads")


def page_plan(port, tls, tests):
    return ["POL\t0\t600", "CHK\t0\t100000"] + [
        "HPA\t%d\t1\t127.0.0.1\t/page\t%d\t\t\t\t\t60\t%d\t0\t1\t1\t0" % (i, port, tls)
        for i in range(1, tests + 1)]


def idle(pid):
    """Waits until the agent has nothing more to do: no thread of a check, and no time used."""
    last = None

    def same_as_before():
        nonlocal last
        before, last = last, (status(pid, "Threads"), round(cpu_seconds(pid), 3))
        return last == before
    wait_for(same_as_before, "the agent's rest", step_s=1, patience_s=TOOL_S)


def agent_pages(home, nginx, port, tls, tests, rounds):
    """Rounds that a changed interval sets off, one a poll."""
    plan = page_plan(port, tls, tests)
    plan[0] = "POL\t0\t%d" % ROUND_S
    agent = Agent(home, plan)
    idle(agent.pid)
    peak, used, fastest = Peak(agent.pid), 0.0, 0.0
    for number in range(rounds):
        before, at_start = nginx.served(), cpu_seconds(agent.pid)
        with open(os.path.join(home, "plan"), "a", encoding="utf-8") as file:
            file.write("CHK\t0\t%d\n" % (100001 + number))
        wait_for(lambda: nginx.served() >= before + tests, "the round")
        idle(agent.pid)
        used += cpu_seconds(agent.pid) - at_start
        answered = nginx.times()[before:]
        fastest = max(fastest, len(answered) / (answered[-1] - answered[0]))
    peak.stop()
    print("agent:    %.3f ms CPU a check (polls included), %d checks/s, peak %d KB, %d threads" % (
        used * 1000 / tests / rounds, fastest, status(agent.pid, "VmHWM"), peak.threads), flush=True)
    agent.stop()


ROUND_S = 3  # between polls


def children_ms(command, shell=False):
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    started = time.monotonic()
    subprocess.run(command, shell=shell, check=False, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                   timeout=TOOL_S)
    took = time.monotonic() - started
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return (after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime) * 1000, took


def curl(url, tests):
    used, took = children_ms("seq %d | xargs -P 4 -I {} curl -sk -o /dev/null %s" % (tests, url), shell=True)
    print("curl:     %.3f ms CPU a check, %d checks/s" % (used / tests, tests / took), flush=True)


def exporter_rate(name, process, ask, count, at_once):
    """What an exporter that runs uses for so many questions; `ask` is true when the answer is good."""
    count_on(process, name)
    wait_for(ask, name)
    before, began = cpu_seconds(process.pid), time.monotonic()
    pool = concurrent.futures.ThreadPoolExecutor(at_once)
    try:
        good = sum(pool.map(lambda _: ask(), range(count), timeout=TOOL_S))
    except concurrent.futures.TimeoutError:
        give_up("the answers of " + name)
    finally:
        pool.shutdown(cancel_futures=True)
    print("%s: %.3f ms CPU a check, %d checks/s (limited by who asks), peak %d KB, %d of %d good" % (
        name, (cpu_seconds(process.pid) - before) * 1000 / count, count / (time.monotonic() - began),
        status(process.pid, "VmHWM"), good, count), flush=True)
    end(process)


def answered(url, mark):
    """Whether the page is to be had and holds the mark."""
    try:
        with urllib.request.urlopen(url, timeout=30) as answer:
            return mark in answer.read()
    except OSError:
        return False


def start_blackbox(home, address="127.0.0.1"):
    port = free_port()
    with open(home + "/blackbox.yml", "w", encoding="ascii") as file:
        file.write("modules:\n  page:\n    prober: http\n    http:\n      preferred_ip_protocol: ip4\n"
                   "      tls_config: {insecure_skip_verify: true}\n")
    process = subprocess.Popen(["prometheus-blackbox-exporter", "--config.file=" + home + "/blackbox.yml",
                                "--web.listen-address=%s:%d" % (address, port)],
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return process, port


def blackbox(home, url, tests):
    process, port = start_blackbox(home)
    page = "http://127.0.0.1:%d/probe?module=page&target=%s" % (port, url)
    exporter_rate("blackbox", process, lambda: answered(page, b"probe_success 1"), tests, 16)


def pages(home, tests, rounds, tls):
    nginx = Nginx(home)
    port = nginx.https if tls else nginx.http
    url = "http%s://127.0.0.1:%d/page" % ("s" if tls else "", port)
    for _ in range(2):
        own = tempfile.mkdtemp(dir=home)
        agent_pages(own, nginx, port, int(tls), tests, rounds)
        if shutil.which("prometheus-blackbox-exporter"):
            blackbox(home, url, tests)
    if shutil.which("curl"):
        curl(url, tests // 4)
    if not tls and shutil.which("wrk"):
        before = nginx.served()
        used, took = children_ms(["wrk", "-t", "1", "-c", "16", "-d", "3", "-H", "Connection: close", url])
        count = nginx.served() - before
        print("wrk:      %.3f ms CPU a check, %d checks/s" % (used / count, count / took))
    if tls:
        used, took = children_ms(["openssl", "s_time", "-new", "-time", "3", "-connect",
                                  "127.0.0.1:%d" % port])
        done = subprocess.run(["openssl", "s_time", "-new", "-time", "3", "-connect", "127.0.0.1:%d" % port],
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=False,
                              timeout=PATIENCE_S).stdout
        count = int(re.search(r"(\d+) connections in \d+ real", done).group(1))
        print("s_time:   %.3f ms CPU a handshake, %d handshakes/s" % (used / count, count / took))
    end(nginx.process)


def agent_echoes(home, tests, rounds, log_level):
    """Less what the agent uses for its polls alone."""
    plan = ["POL\t0\t%d" % ROUND_S, "CHK\t0\t100000"] + [
        "PGA\t%d\t1\t127.%d.%d.1\t56\t1\t1000\t0" % (i, 1 + i // 200, i % 200) for i in range(1, tests + 1)]
    agent = Agent(home, plan, log_level)
    idle(agent.pid)
    at_start, began = cpu_seconds(agent.pid), time.monotonic()
    time.sleep(4 * ROUND_S)
    polling = (cpu_seconds(agent.pid) - at_start) / (time.monotonic() - began)
    resting = status(agent.pid, "Threads")
    peak, used = Peak(agent.pid), 0.0
    for number in range(rounds):
        at_start, began = cpu_seconds(agent.pid), time.monotonic()
        with open(os.path.join(home, "plan"), "a", encoding="utf-8") as file:
            file.write("CHK\t0\t%d\n" % (100001 + number))
        wait_for(lambda: status(agent.pid, "Threads") >= resting + min(tests, 10), "the round")
        idle(agent.pid)
        used += cpu_seconds(agent.pid) - at_start - polling * (time.monotonic() - began)
    peak.stop()
    memory = status(agent.pid, "VmHWM")
    agent.stop()
    states = [row.status for row in stored.rows(os.path.join(home, "state", "results.db")) if row.type == 48]
    print("agent, %4d tests, log level %d: %.3f ms CPU an echo, peak %d KB, %d threads; %d of %d lost" % (
        tests, log_level, used * 1000 / tests / rounds, memory, peak.threads, sum(state != 0 for state in states),
        len(states)), flush=True)


def echoes(home, tests, rounds):
    for count, log_level in ((10, 0), (100, 0), (tests, 0), (tests, 1)):
        agent_echoes(tempfile.mkdtemp(dir=home), count, rounds, log_level)
    if shutil.which("fping"):
        targets = ["127.%d.%d.1" % (1 + i // 200, i % 200) for i in range(tests)]
        used, took = children_ms(["fping", "-q", "-c1", *targets])
        print("fping:            %.3f ms CPU an echo, %.1f s in all" % (used / tests, took))


def leaks(home, tests):
    nginx = Nginx(home)
    plan = page_plan(nginx.http, 0, tests)
    plan[:2] = ["POL\t0\t1", "CHK\t0\t1"]
    agent = Agent(home, plan)

    def usage():
        return status(agent.pid, "VmRSS"), len(os.listdir("/proc/%d/fd" % agent.pid))
    start = nginx.served()
    for goal in range(20000, 200001, 20000):
        wait_for(lambda: nginx.served() - start >= goal, "%d checks" % goal, step_s=0.2, patience_s=TOOL_S)
        print("after %6d checks: %d KB, %d descriptors" % (nginx.served() - start, *usage()), flush=True)
    agent.stop()
    end(nginx.process)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tests", type=int, default=1000)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    parser.add_argument("what", nargs="*", default=["http", "https", "ping", "leaks"])
    options = parser.parse_args()
    if not options.inside:  # the agent is a daemon: its namespace's first process inherits it
        os.execvp("unshare", ["unshare", "--pid", "--mount-proc", "--net", "--fork", "--kill-child",
                              sys.executable, os.path.abspath(__file__), "--inside", "--tests",
                              str(options.tests), "--rounds", str(options.rounds), *options.what])
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    limit = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))
    for what in options.what:
        home = tempfile.mkdtemp(prefix="vindral-bench-", dir="/var/tmp")
        try:
            print("--- %s" % what, flush=True)
            if what == "ping":
                echoes(home, options.tests, options.rounds)
            elif what == "leaks":
                leaks(home, options.tests)
            else:
                pages(home, options.tests, options.rounds, what == "https")
        finally:
            shutil.rmtree(home, ignore_errors=True)


if __name__ == "__main__":
    main()
