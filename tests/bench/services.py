#!/usr/bin/env python3
"""What it costs to ask databases and to take in what local programs push: rounds of MySQL tests of the agent,
and other tools with the same two queries, in one run; chunks a second and memory of the feed listener. CPU
time is that of the asker alone, its children and system calls included.

    tests/bench/services.py [--tests 200] [--rounds 5] [mysql] [feed]

`mysql` is beside the mariadb client and mysqld_exporter with the same queries. Needs root and Debian's
mariadb-server-core and mariadb-client-core; prometheus-mysqld-exporter is left out where it is missing.
"""

import argparse
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from local import Agent, cpu_seconds, free_port  # noqa: E402
from probes import answered, exporter_rate, idle  # noqa: E402
from snmp import agent_rounds, tool  # noqa: E402
from whole import PATIENCE_S, TOOL_S, end, join, memory_kb, peers, started  # noqa: E402

CHUNK = b"16\r\nsome_name=123456"
CHUNKS = 200000


def start_mariadb(home):
    return started(peers.Mariadb(tempfile.mkdtemp(dir=home), "--max-connections=1000", light=False))


def start_exporter(home, database, address="127.0.0.1"):
    port = free_port()
    with open(home + "/my.cnf", "w", encoding="ascii") as file:
        file.write("[client]\nuser=root\npassword=x\nsocket=%s\n" % database.socket)
    collectors = ["--collect.global_status", "--collect.global_variables", "--no-collect.slave_status",
                  "--no-collect.info_schema.innodb_cmp", "--no-collect.info_schema.innodb_cmpmem",
                  "--no-collect.info_schema.query_response_time"]
    process = subprocess.Popen(
        ["prometheus-mysqld-exporter", "--config.my-cnf=" + home + "/my.cnf",
         "--web.listen-address=%s:%d" % (address, port), *collectors],
        env=dict(os.environ, DATA_SOURCE_NAME="root@unix(%s)/" % database.socket),
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return process, port


def exporter(home, database, count):
    if not shutil.which("prometheus-mysqld-exporter"):
        return
    process, port = start_exporter(home, database)
    exporter_rate("mysqld_exporter", process,
                  lambda: answered("http://127.0.0.1:%d/metrics" % port, b"mysql_up 1"), count, 4)


def databases(home, tests, rounds):
    database = start_mariadb(home)
    plan = ["MQA\t%d\t1\tlocalhost\t0\t%s\troot\t\tUptime;Threads_connected|5000;max_connections|9000|1\t10"
            % (i, database.socket) for i in range(1, tests + 1)]
    for _ in range(2):
        agent_rounds(tempfile.mkdtemp(dir=home), plan, 74, tests, rounds)
        tool("mariadb", "mariadb --no-defaults -u root -S %s -N -e 'SHOW GLOBAL STATUS; SHOW VARIABLES'"
             % database.socket, tests)
        exporter(home, database, tests)
    end(database.process)


def push(port, count, per_send=100):
    """Sends so many chunks; returns when the listener has taken them all and closed."""
    with socket.create_connection(("127.0.0.1", port), timeout=PATIENCE_S) as peer:
        for _ in range(count // per_send):
            peer.sendall(CHUNK * per_send)
        peer.shutdown(socket.SHUT_WR)
        peer.recv(1)


def feed(home):
    port = free_port()
    for connections in (1, 100):
        agent = Agent(tempfile.mkdtemp(dir=home), ["POL\t0\t600", "TSA\t1\t%d\tall" % port])
        idle(agent.pid)
        before, began = cpu_seconds(agent.pid), time.monotonic()
        threads = [threading.Thread(target=push, args=(port, CHUNKS // connections)) for _ in range(connections)]
        for thread in threads:
            thread.start()
        for thread in threads:
            join(thread, "the chunks", TOOL_S)
        took, used = time.monotonic() - began, cpu_seconds(agent.pid) - before
        print("%3d connections: %d chunks/s, %.2f us CPU a chunk" % (connections, CHUNKS / took,
                                                                     used * 1e6 / CHUNKS), flush=True)
        agent.stop()
        port = free_port()
    agent = Agent(tempfile.mkdtemp(dir=home), ["POL\t0\t600", "TSA\t1\t%d\tall" % port])
    idle(agent.pid)
    resting, _ = memory_kb(agent.pid)
    peers = [socket.create_connection(("127.0.0.1", port), timeout=PATIENCE_S) for _ in range(200)]
    for peer in peers:
        peer.sendall(CHUNK)
    idle(agent.pid)
    print("200 connections: %.1f KB resident each" % ((memory_kb(agent.pid)[0] - resting) / len(peers)))
    agent.stop()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tests", type=int, default=200)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    parser.add_argument("what", nargs="*", default=["mysql", "feed"])
    options = parser.parse_args()
    if not options.inside:  # the agent is a daemon: its namespace's first process inherits it
        os.execvp("unshare", ["unshare", "--pid", "--mount-proc", "--net", "--fork", "--kill-child",
                              sys.executable, os.path.abspath(__file__), "--inside", "--tests",
                              str(options.tests), "--rounds", str(options.rounds), *options.what])
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    for what in options.what:
        home = tempfile.mkdtemp(prefix="vindral-bench-", dir="/var/tmp")
        try:
            print("--- %s" % what, flush=True)
            if what == "mysql":
                databases(home, options.tests, options.rounds)
            else:
                feed(home)
        finally:
            shutil.rmtree(home, ignore_errors=True)


if __name__ == "__main__":
    main()
