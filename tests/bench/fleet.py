#!/usr/bin/env python3
"""A fleet of 1,000 agents with 20 tests each that poll once a minute over real TLS: what the collector takes of a
core, what a poll waits, what a result takes on disk, and how long reading takes, with a history and while results
come. Beside it, where they are installed, Prometheus and VictoriaMetrics with the same samples of fewer agents.

    tests/bench/fleet.py [load] [history] [test] [peers] [--agents 1000] [--days 3] [--seconds 300] [--directory /var/tmp]

`history` makes the last --days of the fleet by simulated clocks before it is read: some 1.2 million results an agent
in a month. `test` is one agent over two years. Debian's prometheus (with promtool) and victoria-metrics for the peers."""

import argparse
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time
import urllib.parse
import urllib.request

import whole

PEER_AGENTS, PEER_DAYS = 20, 3


def megabytes(directory):
    return sum(os.path.getsize(os.path.join(place, name)) for place, _, names in os.walk(directory)
               for name in names) / 1e6


def tool(name, *arguments):
    return subprocess.run([os.path.join(whole.BENCH, name), *map(str, arguments)], check=False)


def start(home):
    return whole.start_collector(home, options=["--keep-days", "0", "--keep-5min-days", "0", "--keep-hour-days", "0"])


def load(options, home):
    process, port = start(home)
    tool("fleet_load", "--port", port, "--agents", options.agents, "--seconds", options.seconds, "--pid", process.pid)
    whole.end(process)
    print("state directory: %.1f MB" % megabytes(os.path.join(home, "state")), flush=True)


def history(options, home):
    state = os.path.join(home, "state")
    tool("fleet_store", "fill", state, options.agents, options.days, 60)
    whole_start = time.monotonic()
    process, port = start(home)
    print("start with that: %.2f s" % (time.monotonic() - whole_start), flush=True)
    for cold in ([], ["--cold"]):
        print("at rest, %s:" % ("cold" if cold else "warm"), flush=True)
        tool("fleet_store", "query", state, 200, *cold)
    polls = subprocess.Popen([os.path.join(whole.BENCH, "fleet_load"), "--port", str(port), "--agents",
                              str(options.agents), "--seconds", "120", "--pid", str(process.pid)])
    time.sleep(10)
    for cold in ([], ["--cold"]):
        print("while results come, %s:" % ("cold" if cold else "warm"), flush=True)
        tool("fleet_store", "query", state, 200, *cold)
    polls.wait()
    whole.end(process)


def one_test(_, home):
    """Two years of one agent: what is kept of them by default."""
    state = os.path.join(home, "state")
    tool("fleet_store", "fill", state, 1, 730, 60)
    print("%.2f MB a test" % (megabytes(state) / 20), flush=True)


def asked(url, what, times):
    took = []
    for i in range(times):
        query = 'vindral{host="host%04d",test="%d"}' % (i * 7 % PEER_AGENTS, 1 + i * 3 % 20)
        end = int(time.time())
        parameters = {"query": query, "start": end - PEER_DAYS * 86400, "end": end, "step": PEER_DAYS * 86400 // 800}
        began = time.monotonic()
        with urllib.request.urlopen(url + "/api/v1/query_range?" + urllib.parse.urlencode(parameters)) as answer:
            found = json.load(answer)["data"]["result"]
        took.append(1000 * (time.monotonic() - began))
        if not found:
            sys.exit("%s has nothing of %s" % (what, query))
    took.sort()
    print("%s: series of %d days p50 %.1f ms, p99 %.1f ms, by HTTP" % (
        what, PEER_DAYS, took[len(took) // 2], took[len(took) * 99 // 100]), flush=True)


def answers(url):
    try:
        with urllib.request.urlopen(url) as answer:
            return answer.status == 200
    except OSError:
        return False


def peers(_, home):
    samples = os.path.join(home, "samples")
    with open(samples, "wb") as file:
        subprocess.run([os.path.join(whole.BENCH, "fleet_store"), "samples", str(PEER_AGENTS), str(PEER_DAYS), "60"],
                       stdout=file, check=True)
    results = PEER_AGENTS * PEER_DAYS * 1440 * 20
    with open(samples, "rb") as file:
        lines = sum(1 for _ in file) - 1
    print("%d results are %d samples" % (results, lines), flush=True)
    tool("fleet_store", "fill", os.path.join(home, "ours"), PEER_AGENTS, PEER_DAYS, 60)
    tool("fleet_store", "query", os.path.join(home, "ours"), 200)
    if shutil.which("prometheus") and shutil.which("promtool"):
        data = os.path.join(home, "prometheus")
        subprocess.run(["promtool", "tsdb", "create-blocks-from", "openmetrics", samples, data], check=True,
                       stdout=subprocess.DEVNULL)
        print("prometheus: %.1f bytes a result" % (1e6 * megabytes(data) / results), flush=True)
        config = os.path.join(home, "prometheus.yml")
        whole.peers.write_text(config, "global: {}\n")
        port = whole.peers.free_port()
        process = subprocess.Popen(["prometheus", "--config.file", config, "--storage.tsdb.path", data,
                                    "--storage.tsdb.retention.time", "10y",
                                    "--web.listen-address", "127.0.0.1:%d" % port], stderr=subprocess.DEVNULL)
        whole.count_on(process, "prometheus")
        url = "http://127.0.0.1:%d" % port
        whole.wait_for(lambda: answers(url + "/-/ready"), "prometheus")
        asked(url, "prometheus", 200)
        whole.end(process)
    else:
        print("prometheus is not installed")
    name = shutil.which("victoria-metrics")
    if name:
        data = os.path.join(home, "victoria")
        port = whole.peers.free_port()
        process = subprocess.Popen([name, "-storageDataPath", data, "-retentionPeriod", "10y",
                                    "-httpListenAddr", "127.0.0.1:%d" % port], stderr=subprocess.DEVNULL)
        whole.count_on(process, "victoria-metrics")
        url = "http://127.0.0.1:%d" % port
        whole.wait_for(lambda: answers(url + "/health"), "victoria-metrics")
        # Its import takes milliseconds.
        subprocess.run("sed '/^#/d; s/$/000/' '%s' | curl -sS -T - '%s/api/v1/import/prometheus'" % (samples, url),
                       shell=True, check=True)
        with urllib.request.urlopen(url + "/internal/force_flush") as answer:
            answer.read()
        asked(url, "victoria-metrics", 200)
        whole.end(process)
        print("victoria-metrics: %.1f bytes a result" % (1e6 * megabytes(data) / results), flush=True)
    else:
        print("victoria-metrics is not installed")


PARTS = {"load": load, "history": history, "test": one_test, "peers": peers}


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("parts", nargs="*", choices=[*PARTS, []])
    parser.add_argument("--agents", type=int, default=1000)
    parser.add_argument("--days", type=int, default=3)
    parser.add_argument("--seconds", type=int, default=300)
    parser.add_argument("--directory", default="/var/tmp")
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
