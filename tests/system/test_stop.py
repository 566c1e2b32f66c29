"""SIGHUP ends the agent from every state, at any moment, without a hang and in order."""

import fcntl
import itertools
import os
import random
import socket
import subprocess
import time

import harness
from scripted_server import ScriptedServer, accept_login

STOPS = 48 if harness.SANITIZERS else 200
COMMANDS = 5000 if harness.SANITIZERS else 100000
AT_ONCE = 12 if harness.SANITIZERS else 40
DEADLINE_S = 60 if harness.SANITIZERS else 20  # two seconds are the log writer's; the rest is doubt
FAREWELL = "SIGHUP Received, Shutting down."


def hold_handshake(peer):
    peer.hold()


def hold_answer(peer):
    peer.read_request()
    peer.hold()


def drip(peer):
    peer.read_request()
    peer.send(b"HTTP/1.0 200 OK\r\nContent-Length: 1000000\r\n\r\n")
    while not peer.server.stopping:
        peer.send(b"x")
        time.sleep(0.01)


class State:
    """Brings an agent into a state. `start` returns when it is (nearly) there."""

    def __init__(self, test, number, chance):
        self.test = test
        self.number = number
        self.chance = chance

    def agent(self, port, **settings):
        settings.setdefault("level", self.chance.choice([0, 6]))
        return harness.Agent(self.test, port, name="agent%d" % self.number, **settings)

    def server(self, *steps):
        return ScriptedServer(self.test).then(*steps)

    def started_with(self, *steps, taken):
        """An agent whose server has taken so many connections."""
        server = self.server(*steps)
        agent = self.agent(server.port).start()
        harness.wait_until(lambda: server.connections >= taken, "connection %d" % taken)
        return agent

    def idle(self):
        return self.started_with(accept_login(), taken=2)

    def handshake(self):
        return self.started_with(hold_handshake, taken=1)

    def handshake_of_a_later_poll(self):
        return self.started_with(accept_login(), hold_handshake, taken=2)

    def answer(self):
        return self.started_with(accept_login(), hold_answer, taken=2)

    def slow_answer(self):
        return self.started_with(accept_login(), drip, taken=2)

    def connecting(self):
        return self.agent(harness.black_hole(self.test)).start()

    def refused(self):
        """Nobody listens."""
        return self.agent(harness.free_port()).start()

    def polling(self):
        """Polls and passes all the time."""
        commands = "POL\t0\t1\nCHK\t0\t1\n" + "".join("LAA\t%d\t1\t0\t0\t0\n" % n for n in range(1, 60))
        agent = self.started_with(accept_login(commands=commands), taken=1 + self.chance.randrange(3))
        time.sleep(self.chance.uniform(0, 1))
        return agent

    def executing(self):
        """Works through a reply of very many commands, most of which wake the checker."""
        commands = "LAA\t1\t1\t-1\t-1\t-1\n" + "LAM\t1\t1\t0\t-1\t-1\n" * COMMANDS
        agent = self.started_with(accept_login(commands=commands), taken=1)
        time.sleep(self.chance.uniform(0, 0.2))
        return agent

    def updater(self):
        server = self.server(accept_login(commands="UPD\ta\tb\tc\n"))
        agent = self.agent(server.port)
        program = os.path.join(agent.dir, "bin", "updater")
        os.mkdir(os.path.dirname(program))
        harness.write_text(program, '#!/bin/sh\necho $$ > "$0.new"; mv "$0.new" "$0.pid"; exec sleep 600\n')
        os.chmod(program, 0o755)
        agent.start()
        pid = harness.wait_until(lambda: harness.read_text(program + ".pid"), "the updater")
        agent.updater = harness.Process(int(pid))
        self.test.addCleanup(agent.updater.kill)
        return agent

    def resolving(self):
        """Waits for a name server that does not answer."""
        if not self.test.silent_name_server:
            return self.idle()
        agent = self.agent(None, USEHOST="https://collector.example.net/fcgi-bin/agentgateway",
                           wrap=harness.mounted(self.test.resolv_conf, "/etc/resolv.conf")).start()
        harness.wait_until(lambda: "resolver" in self.thread_names(agent), "the resolver's thread")
        return agent

    @staticmethod
    def thread_names(agent):
        tasks = "/proc/%d/task" % agent.process.pid
        return [harness.read_text("%s/%s/comm" % (tasks, task)).strip() for task in os.listdir(tasks)]

    def just_started(self):
        """Anything from before the PID file is written to the first poll."""
        server = self.server()
        agent = self.agent(server.port)
        agent.write_config()
        parent = subprocess.Popen([harness.AGENT, "-C", agent.conf], env=agent.env,
                                  stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        child = harness.wait_until(lambda: first_child(parent, agent), "the child")
        agent.process = harness.Process(child)
        if self.chance.random() < 0.5:
            time.sleep(self.chance.uniform(0, 0.03))
        agent.hang_up()
        self.test.assertEqual(parent.wait(), 1)
        return agent

    STATES = [just_started, idle, handshake, handshake_of_a_later_poll, answer, slow_answer, connecting,
              refused, polling, executing, updater, resolving, just_started, polling]


def first_child(parent, agent):
    """Id of the process that the parent forked, from the kernel's list or from the PID file."""
    children = harness.read_text("/proc/%d/task/%d/children" % (parent.pid, parent.pid)).split()
    if children:
        return int(children[0])
    return int(harness.read_text(agent.pid_path) or 0)


class Stop(harness.TestCase):
    def setUp(self):
        super().setUp()
        self.resolv_conf = os.path.join(self.dir, "resolv.conf")
        harness.write_text(self.resolv_conf, "nameserver 127.0.0.1\n")
        self.silent_name_server = None
        if harness.isolated and os.path.exists("/etc/resolv.conf"):
            self.silent_name_server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            self.addCleanup(self.silent_name_server.close)
            self.silent_name_server.bind(("127.0.0.1", 53))

    def test_stops(self):
        seed = random.randrange(1 << 32)
        print("stopping with seed %d" % seed, flush=True)
        states = itertools.islice(itertools.cycle(State.STATES), STOPS)
        harness.in_parallel(self, [
            ("%s %d" % (state.__name__, n),
             lambda state=state, n=n: self.stop(state, n, random.Random(seed + n)))
            for n, state in enumerate(states)], at_once=AT_ONCE)

    def stop(self, state, number, chance):
        agent = state(State(self, number, chance))
        # Once, or more often than needed.
        hang_ups = chance.choice([1, 1, 1, 2, 5])
        for _ in range(hang_ups):
            agent.hang_up()
        agent.check_end(DEADLINE_S)
        messages = agent.messages()
        self.assertIn(FAREWELL, messages)
        self.assertIn("Main Worker thread created successfully", messages)
        self.assertLess(messages.index("Main Worker thread created successfully"),
                        messages.index(FAREWELL))
        self.assertEqual(harness.read_text(agent.pid_path), "%d\n" % agent.process.pid)
        with open(agent.pid_path, "r+b") as pid_file:
            fcntl.lockf(pid_file, fcntl.LOCK_EX | fcntl.LOCK_NB)  # raises when it is not free
        if state is State.updater:
            self.assertFalse(agent.updater.ended())


if __name__ == "__main__":
    harness.main()
