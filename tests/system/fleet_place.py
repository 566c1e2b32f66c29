"""A small company: agents in network namespaces of their own, with what they watch, and a collector that they reach through
a recorder (recording.py).

Everything that agents watch has one address, SERVICES, whoever asks."""

import concurrent.futures
import json
import os
import subprocess
import urllib.parse

import harness
import peers
from agent_log import AgentLog
from asking import Asked
from peers import openssl
from raw_client import RawClient
from recording import Recorder

SERVICES = "10.9.0.1"
ACCOUNT = "user@example.net"


def at_once(function, items):
    """The function of each, in threads; the first exception is raised."""
    with concurrent.futures.ThreadPoolExecutor(max(1, min(24, len(items)))) as pool:
        return list(pool.map(function, items))


class Member:
    """An agent of the company."""

    def __init__(self, place, number, name, disks=(), identity=None):
        self.place, self.name, self.number = place, name, number
        self.side = harness.far_side(place.test, number, 2)
        subprocess.run([*self.side.enter, "ip", "route", "add", "default", "via", self.side.here], check=True)
        words = self.side.enter
        self.disks = {}  # directory: the inventory's name
        mounts = ""
        for disk, megabytes in disks:
            directory = os.path.join(place.test.dir, disk)
            os.makedirs(directory, exist_ok=True)
            mounts += "mount -t tmpfs -o size=%dm %s '%s' && " % (megabytes, disk, directory)
            self.disks[directory] = "%s(%s|tmpfs)" % (directory, disk)
        if mounts:
            words = words + ["unshare", "--mount", "sh", "-c", mounts + 'exec "$@"', "sh"]
        self.recorded = place.recorder.add("10.9.%d.2" % number, name, "127.0.1.%d" % number, identity)
        self.agent = harness.Agent(place.test, name=name, wrap=words, env=peers.MIBS, USEREMAIL=place.account,
                                   AGENTNAME=name, USEHOST="https://%s:%d/" % (SERVICES, place.recorder.port))
        self.log = AgentLog(self.agent.log_path)

    def start(self):
        self.agent.start()

    def kill(self):
        self.agent.process.kill()

    def stop(self):
        self.agent.stop()


class Company:
    def __init__(self, test, lost=0.0, seed=0, account=ACCOUNT, name="collector"):
        self.test, self.account = test, account
        subprocess.run(["ip", "addr", "replace", SERVICES + "/32", "dev", "lo"], check=True)
        self.collector = Asked(test, name=name, rules=())
        self.collector.start()
        self.recorder = Recorder(test, lambda: self.collector.port, lost, seed)
        self.members = {}

    def hire(self, *names, first=1, disks=lambda name: (), identity=lambda name: None):
        """Agents of these names, which are started."""
        made = at_once(lambda at: Member(self, first + at, names[at], disks(names[at]), identity(names[at])),
                       range(len(names)))
        self.members.update((member.name, member) for member in made)
        at_once(Member.start, made)
        return made

    def enrol(self, name):
        """Certificate and key of that agent, as the collector gives them out."""
        collector = self.collector
        agent = urllib.parse.quote(self.account + "/" + name, safe="")
        status, _, text = collector.ask("/api/v1/agents/%s/enrolment" % agent, "POST")
        self.test.assertEqual(status, 201, text)
        base = os.path.join(self.test.subdir("identity"), name)
        openssl("req", "-new", "-nodes", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-keyout",
                base + ".key", "-subj", "/CN=host", "-out", base + ".csr")
        request = harness.read_text(base + ".csr").encode()
        answer = RawClient(collector.port).exchange(
            ("POST /enrol HTTP/1.0\r\nVnd-Token: %s\r\nContent-Length: %d\r\n\r\n" % (
                json.loads(text)["token"], len(request))).encode() + request)
        self.test.assertEqual(answer.status, "HTTP/1.0 200 OK", answer)
        harness.write_text(base + ".pem", answer.body)
        return base + ".pem", base + ".key"

    def set_secret(self, name, value):
        status, _, text = self.collector.ask("/api/v1/secrets/" + name, "PUT", json.dumps({"value": value}))
        self.test.assertEqual(status, 200, text)

    def put(self, text, query="", **headers):
        """Status and what the API says of that fleet."""
        status, _, answer = self.collector.ask("/api/v1/fleet" + query, "PUT", text.encode(), **headers)
        return status, json.loads(answer)

    def all_of(self, target):
        """All items of a list."""
        items, page = [], ""
        while page is not None:
            answer = self.collector.get(target + ("&" if "?" in target else "?") + "limit=1000" +
                                        ("&next=" + urllib.parse.quote(page) if page else ""))
            items += answer["items"]
            page = answer["next"]
        return items
