#!/usr/bin/env python3
"""A fleet of 1,000 agents with 20 tests each that poll once a minute over real TLS: what the collector takes of a
core, what a poll waits, what a result takes on disk, and how long reading takes, with a history and while results
come. Beside it, where they are installed, Prometheus and VictoriaMetrics with the same samples of fewer agents.

    tests/bench/fleet.py [load] [history] [drop] [test] [api] [proven] [returning] [peers] [--agents 1000] [--days 2] [--before 30]
        [--seconds 300] [--directory /var/tmp] [--beside COLLECTOR] [--store DIRECTORY] [--ahead]

`load`: polls to an empty collector, at the same time to that of another version with --beside.
`history` makes the last --days of the fleet by simulated clocks, and copies their last whole day to the --before
days in front of them; then a collector starts with that, and it is read, at rest and while polls come. --store: made there and left, or
found there. --ahead: what reads (and the peers) goes before everything else on a machine that others use, too
(chrt, as root). `api`: what who asks waits, and what polls cost meanwhile: a table by thread, in turns of --phase
seconds, with nobody asking, lists and series asked, --readers streams read, both, and --stalled streams that nobody
reads; with --beside also those of another version that nobody asks. --store as with `history`; without, there is
nothing but what comes, and series are short. `proven`: what polls cost a collector of agents that prove themselves by a certificate,
beside two of agents that do not, in both orders. `returning`: agents that come back after an outage, each with the results of --kept minutes, over the interval or all
--within so many seconds; a line for each second, what the collector does meanwhile, and whether anything was lost or
stored twice. --max-logins and --max-behind are the collector's, --sync-ms makes its disk slower. `drop`: polls while a collector drops the days of such a store but the last. `test` is one agent over
two years. Debian's prometheus (with promtool) and victoria-metrics for the peers; eatmydata makes filling quicker."""

import argparse
import json
import os
import shutil
import sqlite3
import struct
import subprocess
import sys
import tempfile
import time
import urllib.parse
import urllib.request

import whole

PEER_AGENTS, PEER_DAYS = 2, 30


def megabytes(directory):
    return sum(os.path.getsize(os.path.join(place, name)) for place, _, names in os.walk(directory)
               for name in names) / 1e6


def tool(name, *arguments, first=()):
    return subprocess.run([*first, os.path.join(whole.BENCH, name), *map(str, arguments)], check=False)


def ahead(options):
    return ["chrt", "--fifo", "1"] if options.ahead else []


KEEP_ALL = ["--keep-days", "0", "--keep-5min-days", "0", "--keep-hour-days", "0"]


def fill(state, *what, word="fill-all"):
    """Without waiting for the disk each time, where that is to be had."""
    faster = [shutil.which("eatmydata")] if shutil.which("eatmydata") else []
    subprocess.run([*faster, os.path.join(whole.BENCH, "fleet_store"), word, state, *map(str, what)], check=True)


def close_days(home):
    """Until the days that are over are rolled up."""
    process, _ = whole.start_collector(home, options=KEEP_ALL)
    db = sqlite3.connect("file:%s/state/results.db?mode=ro" % home, uri=True)
    began = time.monotonic()

    def closed():
        return db.execute("SELECT value FROM facts WHERE name = 'closed_through'").fetchone()[0]

    whole.wait_for(lambda: closed() == int(time.time()) // 86400 - 1, "the days' ends", patience_s=1800)
    print("days rolled up: %.0f s, %.1f s of the processor" % (time.monotonic() - began, processor(process.pid)),
          flush=True)
    db.close()
    whole.end(process)


def fill_fleet(options, home):
    state = os.path.join(options.store or home, "state")
    if not os.path.exists(state):
        fill(state, options.agents, options.days, 60)
        close_days(os.path.dirname(state))
        tool("fleet_store", "repeat", state, options.before)
    return os.path.dirname(state)


def out_of_cache(state):
    """All that nobody needs, where that is allowed; else what this user may."""
    os.sync()
    try:
        whole.peers.write_text("/proc/sys/vm/drop_caches", "1\n")
    except OSError:
        for name in os.listdir(state):
            file = os.open(os.path.join(state, name), os.O_RDONLY)
            os.posix_fadvise(file, 0, 0, os.POSIX_FADV_DONTNEED)
            os.close(file)


def polls(pid, port, options, seconds):
    return subprocess.Popen([os.path.join(whole.BENCH, "fleet_load"), "--port", str(port), "--agents",
                             str(options.agents), "--seconds", str(seconds), "--pid", str(pid)],
                            stdout=subprocess.PIPE, encoding="ascii")


def load(options, home):
    begun = []
    for program in [None, *options.beside]:
        place = tempfile.mkdtemp(dir=home)
        process, port = whole.start_collector(place, options=["--keep-days", "0"], program=program)
        begun.append((program or "this one", place, process, polls(process.pid, port, options, options.seconds)))
    for program, place, process, fleet in begun:
        print("%s: %s" % (program, fleet.communicate()[0]), end="", flush=True)
        whole.end(process)
        print("state directory: %.1f MB" % megabytes(os.path.join(place, "state")), flush=True)


def history(options, home):
    home = fill_fleet(options, home)
    state = os.path.join(home, "state")
    for cold in ("warm", "cold", "cold", "cold", "warm", "warm"):
        if cold == "cold":
            out_of_cache(state)
        began = time.monotonic()
        process, port = whole.start_collector(home, options=KEEP_ALL, step_s=0.002)
        first = time.monotonic() - began
        tool("fleet_load", "--port", port, "--agents", 1, "--seconds", 0)
        print("start with that, %s: port open after %.2f s, login and a poll answered %.2f s; processor %.2f s" % (
            cold, first, time.monotonic() - began, processor(process.pid)), flush=True)
        whole.end(process)
    process, port = whole.start_collector(home, options=KEEP_ALL)
    for cold in ([], ["--cold"]):
        print("at rest, %s:" % ("cold" if cold else "warm"), flush=True)
        tool("fleet_store", "query", state, 200, *cold, first=ahead(options))
    fleet = polls(process.pid, port, options, options.seconds)
    time.sleep(10)
    for cold in ([], ["--cold"]):
        print("while results come, %s:" % ("cold" if cold else "warm"), flush=True)
        tool("fleet_store", "query", state, 200, *cold, first=ahead(options))
    print(fleet.communicate()[0], end="", flush=True)
    whole.end(process)


def processor(pid):
    with open("/proc/%d/stat" % pid, encoding="latin-1") as file:
        fields = file.read().rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def drop(options, home):
    """The day before the last one goes at once, because fewer are to be kept than before."""
    home = fill_fleet(options, home)
    process, port = whole.start_collector(home, options=["--keep-days", str(options.days)])
    time.sleep(5)
    whole.end(process)
    before = megabytes(home)
    process, port = whole.start_collector(home, options=["--keep-days", "1"])
    print(polls(process.pid, port, options, options.seconds).communicate()[0], end="", flush=True)
    whole.end(process)
    print("%.0f MB before, %.0f MB after" % (before, megabytes(home)), flush=True)


def one_test(_, home):
    """Two years of one agent: what is kept of them by default."""
    state = os.path.join(home, "state")
    fill(state, 1, 730, 60, word="fill")
    print("%.2f MB a test" % (megabytes(state) / 20), flush=True)


def asked(url, what, state):
    """By HTTP, as they are asked: an hour a point, of all values of a test."""
    for cold in (False, True):
        for form in ("%s", "avg_over_time(%s[1h])"):
            took = []
            for i in range(20 if cold else 200):
                query = form % ('vindral{host="host%04d",test="%d"}' % (i * 7 % PEER_AGENTS, 1 + i * 3 % 20))
                end = int(time.time()) // 3600 * 3600
                parameters = {"query": query, "start": end - PEER_DAYS * 86400, "end": end, "step": 3600, "nocache": 1}
                if cold:
                    out_of_cache(state)
                began = time.monotonic()
                with urllib.request.urlopen(url + "/api/v1/query_range?" +
                                            urllib.parse.urlencode(parameters)) as answer:
                    found = json.load(answer)["data"]["result"]
                took.append(1000 * (time.monotonic() - began))
                if not found:
                    sys.exit("%s has nothing of %s" % (what, query))
            took.sort()
            print("%s, %s, %s: %d days p50 %.1f ms, p99 %.1f ms" % (
                what, form % "SERIES", "cold" if cold else "warm", PEER_DAYS, took[len(took) // 2],
                took[len(took) * 99 // 100]), flush=True)


def per_sample(directory, results, lines):
    size = 1e6 * megabytes(directory)
    return "%.2f bytes a sample, %.1f a result" % (size / lines, size / results)


def answers(url):
    try:
        with urllib.request.urlopen(url) as answer:
            return answer.status == 200
    except OSError:
        return False


def peers(options, home):
    if options.ahead:
        os.sched_setscheduler(0, os.SCHED_FIFO | os.SCHED_RESET_ON_FORK, os.sched_param(1))
    samples = os.path.join(home, "samples")
    with open(samples, "wb") as file:
        subprocess.run([os.path.join(whole.BENCH, "fleet_store"), "samples", str(PEER_AGENTS), str(PEER_DAYS), "60"],
                       stdout=file, check=True)
    results = PEER_AGENTS * PEER_DAYS * 1440 * 20
    with open(samples, "rb") as file:
        lines = sum(1 for _ in file) - 1
    print("%d results are %d samples" % (results, lines), flush=True)
    fill(os.path.join(home, "ours"), PEER_AGENTS, PEER_DAYS, 60)
    print("ours: %s" % per_sample(os.path.join(home, "ours"), results, lines), flush=True)
    for cold in ([], ["--cold"]):
        tool("fleet_store", "query", os.path.join(home, "ours"), 200, *cold, first=ahead(options))
    if shutil.which("prometheus") and shutil.which("promtool"):
        data = os.path.join(home, "prometheus")
        subprocess.run(["promtool", "tsdb", "create-blocks-from", "openmetrics", "--max-block-duration=240h", samples, data], check=True,
                       stdout=subprocess.DEVNULL)
        print("prometheus: %s" % per_sample(data, results, lines), flush=True)
        config = os.path.join(home, "prometheus.yml")
        whole.peers.write_text(config, "global: {}\n")
        port = whole.peers.free_port()
        process = subprocess.Popen([*ahead(options), "prometheus", "--config.file", config, "--storage.tsdb.path", data,
                                    "--storage.tsdb.retention.time", "10y",
                                    "--web.listen-address", "127.0.0.1:%d" % port], stderr=subprocess.DEVNULL)
        whole.count_on(process, "prometheus")
        url = "http://127.0.0.1:%d" % port
        whole.wait_for(lambda: answers(url + "/-/ready"), "prometheus")
        asked(url, "prometheus", data)
        whole.end(process)
        print("prometheus, after that: %s" % per_sample(data, results, lines), flush=True)
    else:
        print("prometheus is not installed")
    name = shutil.which("victoria-metrics")
    if name:
        data = os.path.join(home, "victoria")
        port = whole.peers.free_port()
        process = subprocess.Popen([*ahead(options), name, "-storageDataPath", data, "-retentionPeriod", "10y",
                                    "-httpListenAddr", "127.0.0.1:%d" % port], stderr=subprocess.DEVNULL)
        whole.count_on(process, "victoria-metrics")
        url = "http://127.0.0.1:%d" % port
        whole.wait_for(lambda: answers(url + "/health"), "victoria-metrics")
        # Its import takes milliseconds.
        subprocess.run("sed '/^#/d; s/$/000/' '%s' | curl -sS -T - '%s/api/v1/import/prometheus'" % (samples, url),
                       shell=True, check=True)
        with urllib.request.urlopen(url + "/internal/force_flush") as answer:
            answer.read()
        asked(url, "victoria-metrics", data)
        whole.end(process)
        print("victoria-metrics: %s" % per_sample(data, results, lines), flush=True)
    else:
        print("victoria-metrics is not installed")


class Threads:
    """Of a process, by name: seconds on a processor, and waiting for one; and how often it has waited."""

    def __init__(self, pid):
        self.at = time.monotonic()
        self.ran, self.waited, self.woken, self.count = {}, {}, 0, 0
        for task in os.listdir("/proc/%d/task" % pid):
            place = "/proc/%d/task/%s/" % (pid, task)
            try:
                with open(place + "comm", encoding="latin-1") as file:
                    name = file.read().strip()
                with open(place + "schedstat", encoding="ascii") as file:
                    ran, waited, _ = map(int, file.read().split())
                with open(place + "status", encoding="latin-1") as file:
                    woken = [int(line.split()[1]) for line in file if line.startswith("voluntary_ctxt")]
            except (FileNotFoundError, ProcessLookupError):
                continue
            name = "network" if int(task) == pid else name
            self.ran[name] = self.ran.get(name, 0) + ran / 1e9
            self.waited[name] = self.waited.get(name, 0) + waited / 1e9
            self.woken += sum(woken)
            self.count += 1


def resident(pid):
    with open("/proc/%d/status" % pid, encoding="latin-1") as file:
        sizes = {line.split(":")[0]: int(line.split()[1]) for line in file if line.endswith(" kB\n")}
    return "%.1f MB resident, %.1f anonymous" % (sizes["VmRSS"] / 1024, sizes["RssAnon"] / 1024)


class Polled:
    """A collector with the fleet, and what its polls took."""

    def __init__(self, name, home, options, web=(), program=None, certificates=None):
        self.name, self.options = name, options
        self.certificates = ["--certificates", certificates] if certificates else []
        self.each = os.path.join(home, "each")
        if os.path.exists(self.each):
            os.unlink(self.each)
        self.process, self.port = whole.start_collector(home, options=[*KEEP_ALL, *web], program=program)
        self.fleet = None

    def begin(self):
        seconds = 3600 * 24
        self.fleet = subprocess.Popen(
            [os.path.join(whole.BENCH, "fleet_load"), "--port", str(self.port), "--agents", str(self.options.agents),
             "--interval", str(self.options.interval), "--seconds", str(seconds), "--each", self.each,
             *self.certificates],
            stdout=subprocess.DEVNULL)
        whole.count_on(self.fleet, "fleet_load")

    def wait(self):
        whole.wait_for(lambda: os.path.exists(self.each) and os.path.getsize(self.each) > 0, "polls", step_s=1,
                       patience_s=600)

    def look(self):
        return Threads(self.process.pid)

    def tell(self, phase, before, after):
        """And the us of the processor that a poll took."""
        with open(self.each, encoding="ascii") as file:
            lines = [line.split() for line in file if line.endswith("\n")]
        took = sorted(float(ms) for at, ms in lines if before.at <= float(at) < after.at)
        if not took:
            whole.give_up("polls")
        failed = sum(ms < 0 for ms in took)
        by_thread = ["%s %.0f (+%.0f)" % (thread, 1e6 * (after.ran[thread] - before.ran.get(thread, 0)) / len(took),
                                          1e6 * (after.waited[thread] - before.waited.get(thread, 0)) / len(took))
                     for thread in sorted(after.ran)]
        print("  %-14s %-12s %5d polls, %d failed; p50 %.1f, p99 %.1f, most %.1f ms; us a poll: %s; %s" % (
            self.name, phase, len(took), failed, took[len(took) // 2], took[len(took) * 99 // 100], took[-1],
            ", ".join(by_thread), resident(self.process.pid)), flush=True)
        return 1e6 * (sum(after.ran.values()) - sum(before.ran.values())) / len(took)

    def end(self):
        if self.fleet:
            whole.end(self.fleet)
        whole.end(self.process)


def make_token(home, name):
    return subprocess.run([os.path.join(whole.BUILD, "vindral-collector"), "token", "add", name, "--role", "viewer",
                           "--state-dir", os.path.join(home, "state")], check=True, stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL, encoding="ascii").stdout.split()[-1]


def api(options, home):
    beside = tempfile.mkdtemp(dir=home)
    if options.store:
        home = fill_fleet(options, home)
    port_file = os.path.join(beside, "web-port")
    asked_one = Polled("this one", home, options, ["--web", "127.0.0.1:0", "--web-port-file", port_file],
                       os.path.join(whole.BUILD, "vindral-collector"))
    all_of_them = [asked_one, *(Polled(program, tempfile.mkdtemp(dir=beside), options, program=program)
                                for program in options.beside)]
    try:
        api_beside(options, home, all_of_them, port_file)
    finally:
        for each in all_of_them:
            each.end()


def api_beside(options, home, all_of_them, port_file):
    tokens = [make_token(home, "bench%d-%d" % (i, os.getpid())) for i in range(16)]
    with open(port_file, encoding="ascii") as file:
        port = file.read().strip()
    before = [each.look() for each in all_of_them]
    time.sleep(20)
    for each, then in zip(all_of_them, before):
        now = each.look()
        print("  %s, nothing comes: %d threads, %.2f wake-ups a second, %.1f ms of the processor a second, %s" % (
            each.name, now.count, (now.woken - then.woken) / (now.at - then.at),
            1e3 * (sum(now.ran.values()) - sum(then.ran.values())) / (now.at - then.at),
            resident(each.process.pid)), flush=True)
    for each in all_of_them:
        each.begin()
    for each in all_of_them:
        each.wait()
    tool_name = os.path.join(whole.BENCH, "api_load")
    asking = [tool_name, "ask", "--rate", "5", *("--token=" + token for token in tokens[:4])]
    listening = [tool_name, "listen", "--readers", str(options.readers), "--token", tokens[4]]
    stalling = [tool_name, "stall", "--readers", str(options.stalled), *("--token=" + token for token in tokens[5:])]
    phases = {"nobody": [], "asked": [asking], "streams": [listening], "both": [asking, listening],
              "stalled": [stalling]}
    for phase in options.phases.split(",") * options.rounds:
        clients = []
        for command in reversed(phases[phase]):
            clients.append(subprocess.Popen([*command, "--port", port, "--seconds", str(options.phase + 2)],
                                            stdout=subprocess.PIPE, encoding="ascii"))
            clients[-1].stdout.readline()
        before = [each.look() for each in all_of_them]
        time.sleep(options.phase)
        after = [each.look() for each in all_of_them]
        for each, first, last in zip(all_of_them, before, after):
            each.tell(phase, first, last)
        for client in clients:
            print("".join("    " + line + "\n" for line in client.communicate()[0].splitlines()), end="", flush=True)
        time.sleep(5)


def proven(options, home):
    """Each order of starting in turn: who is started first is better off. The second collector without proof shows how
    far two of the same are apart; the one that does not ask for proof has the certificates looked at, too."""
    kinds = (("unproven", "any", False), ("proven", "proven", True), ("shown to any", "any", True),
             ("unproven again", "any", False))
    took = {name: [] for name, _, _ in kinds}
    for order in (kinds, kinds[::-1]) * options.rounds:
        place = tempfile.mkdtemp(dir=home)
        fleets = []
        try:
            for name, mode, shows in order:
                own = os.path.join(place, name)
                os.mkdir(own)
                certificates = os.path.join(own, "certificates") if shows else None
                if shows and tool("fleet_identities", os.path.join(own, "state"), certificates, "fleet@example.org",
                                  "host", options.agents).returncode != 0:
                    sys.exit("no certificates")
                fleets.append(Polled(name, own, options, ["--agents", mode], certificates=certificates))
            for fleet in fleets:
                fleet.begin()
            for fleet in fleets:
                fleet.wait()
            time.sleep(options.interval)  # who has not polled yet costs more
            before = [fleet.look() for fleet in fleets]
            time.sleep(options.phase)
            after = [fleet.look() for fleet in fleets]
            for fleet, first, last in zip(fleets, before, after):
                took[fleet.name].append(fleet.tell("", first, last))
        finally:
            for fleet in fleets:
                fleet.end()
    base = took["unproven"]
    for name, each in took.items():
        print("  %-14s us a poll: %s; %s times the unproven one" % (
            name, ", ".join("%.0f" % us for us in each), ", ".join("%.2f" % (us / of) for us, of in zip(each, base))),
            flush=True)


def metrics_of(url, token):
    """The samples without labels, and the refusals by reason."""
    request = urllib.request.Request(url + "/metrics", headers={"Authorization": "Bearer " + token})
    found = {}
    with urllib.request.urlopen(request) as answer:
        for line in answer.read().decode("utf-8").splitlines():
            name, _, value = line.rpartition(" ")
            if name.startswith("vindral_refusals_total{"):
                found[name.partition('"')[2].partition('"')[0]] = float(value)
            elif not line.startswith("#") and "{" not in name:
                found[name] = float(value)
    return found


class Disk:
    """Of a collector that is started in `env`: slow() makes it take so much longer from then on."""

    def __init__(self, home, sync_ms):
        self.sync_ms, self.env, self.control = sync_ms, None, os.path.join(home, "control")
        if sync_ms:
            library = os.path.join(home, "shim.so")
            subprocess.run(["cc", "-shared", "-fPIC", "-O1", "-o", library,
                            os.path.join(whole.TOP, "tests/system/faults/shim.c")], check=True)
            whole.peers.write_text(self.control, bytes(48))
            self.env = dict(os.environ, LD_PRELOAD=library, FAULT_CONTROL=self.control)

    def slow(self, sync_ms):
        if self.env:
            with open(self.control, "r+b") as file:
                file.write(struct.pack("6q", 0, 0, 0, 0, 0, sync_ms))


def returning(options, home):
    port_file, listed = os.path.join(home, "web-port"), os.path.join(home, "results")
    limits = [word for name in ("max-logins", "max-behind") for word in
              ("--" + name, str(getattr(options, name.replace("-", "_")))) if getattr(options, name.replace("-", "_"))]
    disk = Disk(home, options.sync_ms)
    process, port = whole.start_collector(
        home, options=[*KEEP_ALL, "--web", "127.0.0.1:0", "--web-port-file", port_file, *limits],
        program=os.path.join(whole.BUILD, "vindral-collector"), env=disk.env)
    token = make_token(home, "bench%d" % os.getpid())
    with open(port_file, encoding="ascii") as file:
        url = "http://127.0.0.1:" + file.read().strip()
    disk.slow(options.sync_ms)
    fleet = subprocess.Popen(
        [os.path.join(whole.BENCH, "fleet_return"), "--port", str(port), "--agents", str(options.agents), "--interval",
         str(options.interval), "--kept", str(options.kept), "--seconds", str(options.seconds), "--within",
         str(options.within), "--expected", listed], stdout=subprocess.PIPE, encoding="ascii")
    whole.count_on(fleet, "fleet_return")
    before, begun = None, 0
    for line in fleet.stdout:
        if not line[0].isdigit():
            print(line.rstrip() + ("\thandshakes\tbehind, s\tqueue, MB\tresident, MB\tprocessor, %"
                                   if line.startswith("second") else ""), flush=True)
            continue
        now, at = metrics_of(url, token), time.monotonic()
        before = before or dict(now, process_cpu_seconds_total=0)
        print("%s\t%d\t%.1f\t%.1f\t%.0f\t%.0f" % (
            line.rstrip(), now["vindral_connections_total"] - before["vindral_connections_total"],
            now["vindral_behind_seconds"], now["vindral_queue_bytes"] / 1e6, now["process_resident_memory_bytes"] / 1e6,
            100 * (now["process_cpu_seconds_total"] - before["process_cpu_seconds_total"]) / (at - begun) if begun else 0),
            flush=True)
        before, begun = now, at
    whole.end(fleet)
    print("# collector: %s" % ", ".join("%s %d" % (name, before[name]) for name in (
        "vindral_logins_total", "vindral_polls_total", "vindral_repeated_polls_total", "behind", "logins", "session",
        "storing", "memory", "connections", "tls", "request")), flush=True)
    peak = whole.peers.read_text("/proc/%d/status" % process.pid).partition("VmHWM:")[2].split()[0]
    print("# most memory: %.0f MB" % (int(peak) / 1024), flush=True)
    disk.slow(0)
    whole.end(process)
    if tool("fleet_return", "verify", os.path.join(home, "state"), listed).returncode != 0:
        sys.exit("not all was stored once")


PARTS = {"load": load, "history": history, "drop": drop, "test": one_test, "api": api, "proven": proven, "returning": returning,
         "peers": peers}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("parts", nargs="*", choices=[*PARTS, []])
    parser.add_argument("--agents", type=int, default=1000)
    parser.add_argument("--days", type=int, default=2)
    parser.add_argument("--before", type=int, default=30)
    parser.add_argument("--beside", action="append", default=[])
    parser.add_argument("--store")
    parser.add_argument("--ahead", action="store_true")
    parser.add_argument("--seconds", type=int, default=300)
    parser.add_argument("--directory", default="/var/tmp")
    parser.add_argument("--interval", type=int, default=60)
    parser.add_argument("--readers", type=int, default=1000)
    parser.add_argument("--stalled", type=int, default=10000)
    parser.add_argument("--phase", type=int, default=60)
    parser.add_argument("--phases", default="nobody,asked,nobody,streams,both,stalled")
    parser.add_argument("--rounds", type=int, default=2)
    parser.add_argument("--kept", type=int, default=10)
    parser.add_argument("--within", type=int, default=0)
    parser.add_argument("--max-logins", type=int)
    parser.add_argument("--max-behind", type=int)
    parser.add_argument("--sync-ms", type=int, default=0)
    options = parser.parse_args()
    for part in options.parts or PARTS:
        home = tempfile.mkdtemp(prefix="vindral-bench-", dir=options.directory)
        try:
            print("-- " + part, flush=True)
            PARTS[part](options, home)
        finally:
            shutil.rmtree(home, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
