"""Twenty real agents in network namespaces, in five roles, with a real snmpd, MariaDB and nginx to look at, and a fleet file
that is applied and edited while collector and agents are killed and restarted at random.

After each step every agent runs exactly what the file says: by its own log, by a second opinion of what the file means
(fleet_model.py), and under the numbers that its tests have had all along. In the end the store has what the agents sent, as
a recorder between them and the collector saw it (recording.py), each result once; and each is one that the test and the
revision it is booked on can have found (judging.py).

VINDRAL_SEED repeats a course of events, as far as two processors allow."""

import collections
import http.client
import os
import random
import socket
import subprocess
import threading
import time
import zlib

import fleet_model as model
import harness
import judging
import peers
import records
from agent_log import Test
from fleet_place import ACCOUNT, SERVICES, Company, Member, at_once
from recording import compare

CTL = os.path.join(harness.BUILD, "vindralctl")
ROLES = ("web", "db", "net", "app", "edge")
NAMES = ["%s-%d" % (role, i) for role in ROLES for i in range(1, 5)]
PROVEN = [name for name in NAMES if name.startswith("web")]
LOST = 0.02  # of the answers to polls
SLOW = 2 if harness.SANITIZERS else 1

FILE = """\
# What the company watches.
version: 1
intervals: {poll: %(second)s, check: %(second)s}
groups:
  - name: everything
    agents: ["*"]
    tests:
      load:          {load: {1m: 1000, 5m: 1001, 15m: 1002}}
      cpu:           {cpu: {user: 100, system: 99, iowait: 98}}
      memory:        {memory: {free: 1 MB, swap: 2000 GB}}
      network:       {network: far, received: 1 GB}

  - name: web servers
    agents: ["web-*"]
    tests:
      front page:    {http: "http://%(host)s:%(http)d/", contains: Welcome, within: 20s}
      nginx:         {process: nginx, resident: 1 MB}
      gateway:       {ping: %(host)s, packets: 1, within: 10s}

  - name: databases
    agents: ["db-*"]
    tests:
      database:
        mysql: %(host)s
        port: %(mysql)d
        user: monitor
        password: "%(password)s"
        within: 20s
        values: {Uptime: {at least: 0}, Threads_connected: {at most: 5000}}
      mariadb:       {process: mariadbd, cpu: 10000 %%, resident: 2 MB}
      data disk:     {disk: "%(data)s", free: 10 %%}
      no disk:       {disk: /no/such/disk, free: 1 GB}

  - name: network devices
    agents: ["net-*"]
    tests:
      uptime:        {snmp: %(host)s, port: %(snmp)d, objects: [1.3.6.1.2.1.1.3.0], within: 20s}
      sensor:        {snmp: %(host)s, port: %(snmp)d, objects: {%(sensor)s: {at least: 1, at most: 5}}, within: 20s}
      table:         {snmp table: %(host)s, port: %(snmp)d, table: %(table)s, within: 20s}

  - name: applications
    agents: ["app-*"]
    tests:
      worker:        {process: vindral, resident: 1 MB, virtual: 3 MB}
      data disk:     {disk: "%(data)s", free: 5 GB}
      page:          {http: "http://%(host)s:%(http)d/news", without: Welcome, within: 20s}

  - name: edge
    agents: ["edge-*", "nobody-?"]
    intervals: {check: %(third)s}
    tests:
      way out:       {ping: %(host)s, packets: 2, lost: 0, within: 5s}
      page:          {http: "http://%(host)s:%(http)d/", contains: "nothing like this", within: 20s}
      hosts:         {discovery: %(host)s - 10.9.0.3}
      cpu:           off
"""

NGINX = """
access_log off; keepalive_timeout 0;
server {
    listen %(address)s:%(http)d;
    location = / { return 200 "Welcome to the shop"; }
    location = /news { return 200 "Nothing new"; }
    location = /private { auth_basic "staff"; auth_basic_user_file %(dir)s/users; try_files /private.html =404; }
}
"""
FIRST_SECRET, SECOND_SECRET = "first-pass-phrase", "second-pass-phrase"
SENSOR = 25


class Chaos:
    """What happens between two steps, by dice."""

    def __init__(self, test, dice):
        self.test, self.dice = test, dice
        self.counts = collections.Counter()
        self.is_up = threading.Lock()  # an agent that starts while nobody listens waits a minute before it tries again

    def rest(self, most):
        time.sleep(self.dice.uniform(0, most) * SLOW)

    def hit_collector(self, how):
        collector = self.test.company.collector
        with self.is_up:
            getattr(collector, how)()
            self.rest(0.7)
            collector.start()
        self.counts["collector: " + how] += 1

    def hit_agent(self, member, how, pause):
        getattr(member, how)()
        time.sleep(pause)
        with self.is_up:
            began = time.monotonic()
            member.start()
            harness.wait_until(lambda: any(e.is_login and e.delivered and e.at > began for e in list(member.recorded.exchanges)),
                               lambda: "%s to log in\n%s" % (member.name, member.agent.log()[-2000:]))
        self.counts["agent: " + how] += 1

    def strike(self):
        """Some agents, and the collector at the same time."""
        company = self.test.company
        hit = self.dice.sample(sorted(company.members), self.dice.choice((1, 2, 3)))
        agents = [(company.members[name], self.dice.choice(("kill", "kill", "stop")), self.dice.uniform(0, 1)) for name in hit]
        how = self.dice.choice(("kill", "kill", "stop", None))
        thread = threading.Thread(target=self.hit_collector, args=(how,)) if how else None
        if thread:
            thread.start()
        try:
            at_once(lambda what: self.hit_agent(*what), agents)
        finally:
            if thread:
                thread.join()


class Fleet(harness.TestCase):
    def set_up(self):
        seed = int(os.environ.get("VINDRAL_SEED") or random.SystemRandom().randrange(1, 10 ** 6))
        print("VINDRAL_SEED=%d" % seed, flush=True)
        self.dice = random.Random(seed)
        self.chaos = Chaos(self, self.dice)
        self.began = time.monotonic()
        self.company = Company(self, lost=LOST, seed=seed)
        self.start_services()
        self.data = os.path.join(self.dir, "data")
        self.secrets = {}
        self.settled = {name: {} for name in NAMES}  # {test's name: (list, number, location, fields)}
        self.used = {name: set() for name in NAMES}  # (list, number)
        self.told = []                               # all that was settled: (agent, list, number, location, fields)
        self.text = ""
        self.revision = 0

    def hire(self):
        identities = dict(zip(PROVEN, at_once(self.company.enrol, PROVEN)))
        self.company.hire(*NAMES, disks=lambda name: [("data", 64)] if name[:2] in ("db", "ap") else [], identity=identities.get)
        for member in self.company.members.values():  # before anything is killed: see Chaos.is_up
            harness.wait_until(lambda: member.recorded.told(), member.name)

    def start_services(self):
        def mariadb():
            self.mariadb = harness.start_mariadb(self, "--bind-address=" + SERVICES)
            self.mariadb.sql("CREATE USER %s@'%%' IDENTIFIED BY \"%s\"" % (peers.ACCOUNT, "pass-word"))

        def snmpd():
            self.snmp_port = harness.free_port(socket.SOCK_DGRAM)
            table = ["override %s.1.%d.%d integer %d" % (peers.TABLE, column, row, column * row)
                     for column in range(1, 5) for row in range(1, 4)]
            harness.start_snmpd(self, "override %s2.0 integer %d" % (peers.TEST, SENSOR), *table,
                                more_addresses=("udp:%s:%d" % (SERVICES, self.snmp_port),))

        def nginx():
            self.nginx = harness.start_peer(self, peers.Nginx, NGINX, ["http"], address="0.0.0.0")
            harness.write_text(os.path.join(self.nginx.directory, "private.html"), "Only for staff")
            self.set_page_password(FIRST_SECRET)
        at_once(lambda start: start(), [mariadb, snmpd, nginx])
        judging.Pages.texts = {("/", "", ""): "Welcome to the shop", ("/news", "", ""): "Nothing new"}

    def set_page_password(self, password):
        """Of nginx, which reads it for each request."""
        path = os.path.join(self.nginx.directory, "users")
        harness.write_text(path + ".new", "clerk:{PLAIN}%s\n" % password)
        os.rename(path + ".new", path)

    # ---- the file ----

    def first_text(self):
        return FILE % {"host": SERVICES, "http": self.nginx.ports["http"], "mysql": self.mariadb.port, "snmp": self.snmp_port,
                       "password": "pass-word", "data": self.data, "sensor": peers.TEST + "2.0", "table": peers.TABLE,
                       "second": "%ds" % SLOW, "third": "%ds" % (2 * SLOW)}

    def edited(self, *edits):
        text = self.text
        for old, new in edits:
            self.assertEqual(text.count(old), 1, "%r in\n%s" % (old, text))
            text = text.replace(old, new)
        return text

    def in_force(self):
        status, headers, text = self.company.collector.ask("/api/v1/fleet", Accept="application/yaml")
        return text if status == 200 else ""

    def put(self, text):
        """By the API or by vindralctl."""
        if self.dice.random() < 0.5:
            status, answer = self.company.put(text)
            self.assertEqual(status, 200, answer)
        else:
            path = os.path.join(self.dir, "fleet.yaml")
            harness.write_text(path, text)
            done = subprocess.run([CTL, "fleet", "apply", path], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE, text=True, check=False, timeout=harness.PATIENCE_S,
                                  env=dict(harness.sanitizer_environment(self.dir), VINDRAL_TOKEN=self.company.collector.token,
                                           VINDRAL_URL="http://127.0.0.1:%d" % self.company.collector.web_port))
            self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

    def apply(self, text):
        """Now and then the collector is killed meanwhile: then it is in force or not, and whole in either case."""
        if self.dice.random() < 0.3:
            collector = self.company.collector

            def attempt():
                try:
                    self.company.put(text)
                except (OSError, ValueError, http.client.HTTPException):
                    pass
            thread = threading.Thread(target=attempt)
            thread.start()
            time.sleep(self.dice.uniform(0, 0.1) * SLOW)
            collector.kill()
            thread.join()
            collector.start()
            self.chaos.counts["applying: kill"] += 1
            self.assertIn(self.in_force(), (self.text, text))
        if self.in_force() != text:
            self.put(text)
        self.assertEqual(self.in_force(), text)
        before, self.revision = self.revision, self.company.collector.get("/api/v1/fleet")["revision"]
        self.assertGreaterEqual(self.revision, before)
        self.text, self.fleet = text, model.read(text)

    # ---- what is and what is to be ----

    def wanted(self, member, fleet=None):
        """{test's name: (list, type, fields)} of what the agent can have, and its intervals."""
        want = model.wanted(fleet or self.fleet, ACCOUNT, member.name)
        disks = {directory: (name, 64 / 1024) for directory, name in member.disks.items()}
        secrets = self.secrets if member.name in PROVEN else {}
        found = {}
        for name, test in want.tests.items():
            fields = model.fields_of(test, disks, secrets)
            if fields is not None:
                found[name] = (*model.KINDS[model.kind_of(test)][:2], fields)
        return found, want

    def given(self):
        """What the collector says of the tests of each agent, by all changes: {agent: {name: (type, number, revision)}}."""
        given = {name: {} for name in NAMES}
        order = {"remove": 0, "rename": 1}  # of one revision
        for change in sorted(self.company.all_of("/api/v1/changes"),
                             key=lambda change: (change["revision"], order.get(change["action"], 2), change["id"])):
            tests = given[change["agent"]["name"]]
            name, was, action = change["test"], change["was"], change["action"]
            if action == "intervals":
                continue
            if action == "remove":
                tests.pop(name, None)
            else:
                if action == "rename":
                    tests.pop(was, None)
                tests[name] = (change["type"], change["number"], change["revision"])
        return given

    def differences(self, given):
        """In words, where an agent is not yet as it is to be."""
        found = []
        for member in self.company.members.values():
            found += ["%s: %s" % (member.name, text) for text in self.difference(member, given[member.name])]
        return found

    def difference(self, member, given):
        life = member.log.read()
        if life is None:
            return ["it has not started"]
        tests, want = self.wanted(member)
        found = []
        if (life.poll, life.check) != (want.poll, want.check):
            found.append("intervals %s, wanted %s" % ((life.poll, life.check), (want.poll, want.check)))
        left = dict(life.tests)
        for name, (kind, _, fields) in tests.items():
            _, number, revision = given.get(name, (None, None, None))
            has = left.pop((kind, number), None) or self.done_before(member, kind, number, revision)
            if has is None or not model.same(fields, has.fields):
                found.append("%s (%s %s) is %s, wanted %s" % (name, kind, number, has, fields))
        found += ["%s %d is left: %s" % (*key, test) for key, test in left.items()]
        return found + life.contradictions()

    def done_before(self, member, kind, number, revision):
        """A scan that brought results is not begun again by an agent that starts anew: what it was told once."""
        if kind == "discovery" and any(record.ui32 == [records.DISCOVERY, number, revision] for record in member.recorded.sent()):
            for _, _, lines in member.recorded.told():
                for line in lines:
                    code, *fields = line.split("\t")
                    if code in ("DCA", "DCM") and fields[:2] == [str(number), str(revision)]:
                        return Test(revision, ("DC", *fields[2:]))
        return None

    def settle(self):
        """Waits until every agent runs what the file says, and checks by which numbers."""
        last, began = [None], time.monotonic()

        def is_settled():
            now = self.differences(self.given())
            if not now and time.monotonic() > began + 10 * SLOW:
                print("%5.1f s, late: %s" % (time.monotonic() - self.began, last[0]), flush=True)
            last[0] = now
            if now:
                time.sleep(0.2)
            return not now
        harness.wait_until(is_settled, lambda: "every agent to run what the file says:\n%s\n%s" % (
            "\n".join(last[0][:20]), self.company.collector.errors()[-3000:]))
        given = self.given()
        for member in self.company.members.values():
            self.check_numbers(member, given[member.name])

    def check_numbers(self, member, given):
        """A test keeps its number for life, and its revision as long as it stays as it is; no number comes again."""
        life, before = member.log.read(), self.settled[member.name]
        tests, want = self.wanted(member)
        now = {}
        for name, (kind, _, _) in tests.items():
            _, number, revision = given[name]
            has = life.tests.get((kind, number)) or self.done_before(member, kind, number, revision)
            now[name] = (kind, number, has.location, has.fields)
            was = want.tests[name].spelling.get("was")
            old = before.get(name) or before.get(was)
            where = "%s: %s is %s, was %s" % (member.name, name, now[name], old)
            if old and old[0] == kind and old[3][0] == has.fields[0]:
                self.assertEqual(number, old[1], where)
                if model.same(old[3], has.fields):
                    self.assertEqual(has.location, old[2], where)
                else:
                    self.assertGreater(has.location, old[2], where)
            else:
                self.assertNotIn(number, self.used[member.name], where)
            self.assertLessEqual(has.location, self.company.collector.get("/api/v1/fleet")["revision"], where)
        self.used[member.name] |= {number for _, number, _, _ in now.values()}
        self.assertEqual(len({number for _, number, _, _ in now.values()}), len(now), member.name)
        self.settled[member.name] = now
        self.told += [(member.name, *test) for test in now.values()]

    def step(self, what, *edits, settle=True, strikes=1):
        """Edits the file, applies it, lets things happen, and waits until all is well."""
        began = time.monotonic()
        text = self.edited(*edits)
        if settle and strikes == 1:
            self.check_trial(text)
        self.apply(text)
        for _ in range(strikes):
            self.chaos.strike()
        if settle:
            self.settle()
        print("%5.1f s: %s, %.1f s" % (time.monotonic() - self.began, what, time.monotonic() - began), flush=True)

    def check_trial(self, text):
        """What the collector says would change, against what the model says of the two texts."""
        status, trial = self.company.put(text, "?dry_run=true")
        self.assertEqual((status, trial["dry_run"], trial["summary"]["agents"], trial["more"]), (200, True, len(NAMES), 0), trial)
        said = {one["agent"]["name"]: {(change["action"], change["test"]) for change in one["changes"] if not change["impossible"]}
                for one in trial["agents"]}
        fleet = model.read(text)
        for member in self.company.members.values():
            expected = self.expected_changes(member, fleet)
            self.assertEqual(said.get(member.name, set()), expected, "%s: %s" % (member.name, trial))
        self.assertEqual(self.in_force(), self.text)

    def expected_changes(self, member, fleet):
        before, had = self.wanted(member)
        after, want = self.wanted(member, fleet)
        expected, kept = set(), set()
        for name, (kind, record, fields) in after.items():
            was = want.tests[name].spelling.get("was")
            old = name if name in before else was if was in before and was not in after else None
            if old is None or before[old][1] != record:
                expected.add(("add", name))
                continue
            kept.add(old)
            if old != name:
                expected.add(("rename", name))
            if not model.same(before[old][2], fields):
                expected.add(("change", name))
        expected |= {("remove", name) for name in before.keys() - kept}
        if (had.poll, had.check) != (want.poll, want.check):
            expected.add(("intervals", None))
        return expected

    # ---- the course of events ----

    @harness.needs_namespaces
    def test_twenty_agents(self):
        self.set_up()
        text = self.first_text()
        status, trial = self.company.put(text, "?dry_run=true")
        self.assertEqual((status, trial["dry_run"], trial["summary"]["agents"]), (200, True, 0), trial)
        self.assertEqual(self.in_force(), "")
        self.apply(text)  # first: an agent that is told nothing when it logs in comes again a minute later
        self.hire()
        self.chaos.strike()
        self.settle()
        print("%5.1f s: applied" % (time.monotonic() - self.began), flush=True)

        self.step("limits are edited",
                  ("1m: 1000", "1m: 1"), ("contains: Welcome", 'contains: "Good bye"'), ("resident: 2 MB", "resident: 3 MB"),
                  ("at least: 1, at most: 5", "at least: 20, at most: 30"), ("free: 10 %", "free: 20 %"),
                  ("packets: 2, lost: 0", "packets: 3, lost: 1"), ("Uptime: {at least: 0}", "Uptime: {at most: 0}"), ("10.9.0.3", "10.9.0.2"))
        self.step("tests are renamed, one of them with another limit",
                  ("      front page:    {http:", "      start page:    {was: front page, http:"),
                  ("      load:          {load: {1m: 1,", "      load average:  {was: load, load: {1m: 1,"),
                  ("      worker:        {process: vindral, resident: 1 MB", "      agent:         {was: worker, process: vindral, resident: 2 MB"),
                  ("      sensor:        {snmp:", "      temperature:   {was: sensor, snmp:"))
        self.step("tests are removed",
                  ("      nginx:         {process: nginx, resident: 1 MB}\n", ""),
                  ("      cpu:           {cpu: {user: 100, system: 99, iowait: 98}}\n", ""), ("      cpu:           off\n", ""),
                  ("      table:         {snmp table: %s, port: %d, table: %s, within: 20s}\n" % (SERVICES, self.snmp_port, peers.TABLE), ""))
        self.step("agents move between groups",
                  ('agents: ["web-*"]', 'agents: ["web-1", "web-2", "*/web-3"]'), ('agents: ["db-*"]', 'agents: ["db-*", "web-4"]'),
                  ('agents: ["net-*"]', 'agents: ["net-*", "edge-4"]'), ('agents: ["edge-*", "nobody-?"]', 'agents: ["edge-?", "app-?"]'),
                  ('agents: ["app-*"]', 'agents: ["app-*", "%s/net-1"]' % ACCOUNT))
        self.step("intervals are changed",
                  ("intervals: {poll: %ds, check: %ds}" % (SLOW, SLOW), "intervals: {poll: %ds, check: %ds}" % (2 * SLOW, 2 * SLOW)),
                  ("    intervals: {check: %ds}" % (2 * SLOW), "    intervals: {check: %ds, poll: %ds}" % (SLOW, SLOW)))
        self.step("a kind is another, and tests that were removed are back",
                  ("mariadb:       {process: mariadbd, cpu: 10000 %, resident: 3 MB}", "mariadb:       {load: {1m: 500}}"),
                  ("      network:       {network: far", "      cpu:           {cpu: {idle: 100}}\n      network:       {network: far"),
                  ("gateway:       {ping: %s, packets: 1" % SERVICES, "nginx:         {process: nginx, virtual: 2 MB}\n      gateway:       {ping: %s, packets: 1, size: 100" % SERVICES))
        self.secret_steps()
        self.step("and again, before all have heard of it", ("15m: 1002", "15m: 1"), ("free: 5 GB", "free: 6 GB"), settle=False, strikes=0)
        self.step("at once", ("15m: 1", "15m: 1003"), ("free: 6 GB", "free: 1 MB"), ("{1m: 500}", "{1m: 501}"), strikes=2)
        self.roll_back()
        self.finish()

    def secret_steps(self):
        private = "      private page:  {http: \"http://%s:%d/private\", contains: staff, user: clerk, password: \"${secret:staff}\", within: 20s}\n" % (
            SERVICES, self.nginx.ports["http"])
        self.step("a test with a secret that is not there", ("      start page:", private + "      start page:"))
        self.company.set_secret("staff", FIRST_SECRET)
        self.secrets["staff"] = FIRST_SECRET
        judging.Pages.texts["/private", "clerk", FIRST_SECRET] = "Only for staff"
        self.settle()
        self.company.set_secret("staff", SECOND_SECRET)
        self.secrets["staff"] = SECOND_SECRET
        self.chaos.strike()
        self.settle()
        print("%5.1f s: the secret was set, and set anew" % (time.monotonic() - self.began), flush=True)

    def roll_back(self):
        """To the text that was applied first but one."""
        revisions = self.company.all_of("/api/v1/fleet/revisions?applied=true")
        second = sorted(revision["revision"] for revision in revisions)[1]
        status, _, text = self.company.collector.ask("/api/v1/fleet?revision=%d" % second, Accept="application/yaml")
        self.assertEqual(status, 200, text)
        self.assertIn("front page", text)
        # Names that the text has by which others went: a test that was renamed since is another one.
        self.apply(text)
        self.chaos.strike()
        self.settle()
        print("%5.1f s: rolled back to revision %d" % (time.monotonic() - self.began, second), flush=True)

    # ---- in the end ----

    def finish(self):
        self.check_outcomes()
        self.check_names()
        at_once(Member.stop, list(self.company.members.values()))
        self.check_shown_results()
        self.company.collector.stop()
        rows = self.company.collector.rows()
        self.check_agents_own_records()
        wrong = compare([member.recorded for member in self.company.members.values()], rows)
        self.assertEqual(wrong[:10], [], "%d" % len(wrong))
        self.check_judged(rows)
        self.check_the_checks(rows)
        recorder = self.company.recorder
        twins = [block for member in self.company.members.values() for block in member.recorded.blocks if block.is_twin]
        print("%d results, %d twins; %d answers lost, %d exchanges cut short; %s" % (
            len(rows), len(twins), recorder.lost_answers, recorder.cut_exchanges, dict(self.chaos.counts)), flush=True)
        self.assertFalse(os.path.exists(os.path.join(self.company.collector.state, "undecodable")))

    def check_outcomes(self):
        """Each test's newest change was confirmed, or is impossible because there is no such disk or it is not proven."""
        def open_changes():
            newest = {}
            for change in self.company.all_of("/api/v1/changes"):
                key = (change["agent"]["name"], change["test"] if change["action"] != "intervals" else None)
                newest[key] = max(newest.get(key, change), change, key=lambda one: one["id"])
            return ["%s: %s" % (key, change) for key, change in newest.items()
                    if change["outcome"] != "confirmed" and (change["outcome"], change["test"]) != ("impossible", "no disk")]
        harness.wait_until(lambda: not open_changes(), lambda: "changes to be confirmed: %s" % open_changes()[:5])

    def check_names(self):
        """The tests that agents have go by their names everywhere."""
        shown = collections.defaultdict(dict)
        for test in self.company.all_of("/api/v1/tests"):
            shown[test["agent"]["name"]][test["name"], test["number"]] = test
        for member in self.company.members.values():
            _, want = self.wanted(member)
            for name, (_, number, _, _) in self.settled[member.name].items():
                test = shown[member.name].get((name, number))
                self.assertIsNotNone(test, "%s: %s %d of %s" % (member.name, name, number, sorted(shown[member.name])))
                self.assertEqual(test["group"], want.tests[name].group)

    def check_shown_results(self):
        """The API shows each result with the test that it is of, also of tests that are gone or had other names."""
        kinds = {"load average": records.LOAD_AVERAGE, "disk": records.DISK, "http": records.HTTP, "memory": records.MEMORY}
        tests = [test for test in self.company.all_of("/api/v1/tests") if test["type"] in kinds]
        self.assertGreater(len(tests), len(NAMES))
        for test in self.dice.sample(tests, 20):
            member = self.company.members[test["agent"]["name"]]
            # What was found in the same second may be one result. A block that an agent lost before it heard that it is
            # stored may be.
            shown = {result["time"] for result in self.company.all_of("/api/v1/tests/%d/results" % test["id"])}
            stored, sent = set(), set()
            for block in member.recorded.blocks:
                times = {time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(record.i64[0])) for record in block.records
                         if record.ui32[:2] == [kinds[test["type"]], test["number"]]}
                sent |= times
                if block.is_stored:
                    stored |= times
            self.assertEqual((stored - shown, shown - sent), (set(), set()), test)

    def check_agents_own_records(self):
        """What the recorder has of an agent's last life is what the agent says it sent, by the sums of the blocks."""
        for member in self.company.members.values():
            life = member.log.read()
            mine = [zlib.adler32(block.body) for block in member.recorded.blocks]
            missing = [checksum for checksum in life.accepted if checksum not in mine]
            self.assertEqual(missing, [], member.name)
            self.assertGreater(len(life.accepted), 0, member.name)

    def check_judged(self, rows):
        """Each result against the fields with which the agent was given that number and location."""
        definitions = {}
        codes = {records.SNMP: "SP", records.SNMP_TABLE: "ST"}
        for member in self.company.members.values():
            for _, _, lines in member.recorded.told():
                for line in lines:
                    code, *fields = line.split("\t")
                    if len(fields) > 2:
                        key = (member.name, code[:2], int(fields[0]), int(fields[1]))
                        self.assertEqual(definitions.setdefault(key, fields[2:]), fields[2:], "%s has two meanings" % (key,))
        for agent, kind, number, location, fields in self.told:
            self.assertEqual(tuple(definitions[agent, fields[0], number, location]), tuple(fields[1:]))
        codes.update({kind_type: {"load": "LA", "cpu": "CU", "memory": "MM", "disk": "DK", "process": "PR", "network": "NT",
                                  "ping": "PG", "http": "HP", "mysql": "MQ", "discovery": "DC"}[name]
                      for name, (_, kind_type, _) in model.KINDS.items() if not name.startswith("snmp")})
        wrong, statuses = [], collections.Counter()
        for row in rows:
            fields = definitions.get((row.agent, codes[row.type], row.test, row.location))
            record, = records.decode(row.record)
            misfit = judging.misfit(row.type, fields, record) if fields else "it was never told of that"
            statuses[row.type, judging.status_of(record)] += 1
            if misfit:
                wrong.append("%s: type %d, test %d, location %d: %s: %s" % (row.agent, row.type, row.test, row.location, fields, misfit))
        self.assertEqual(wrong[:10], [], "%d of %d" % (len(wrong), len(rows)))
        self.assertEqual({kind for _, kind, _ in model.KINDS.values()}, {kind for kind, _ in statuses})
        self.definitions, self.codes = definitions, codes

    def check_the_checks(self, rows):
        """What would be wrong is found: a result that is missing, one that is there twice, one on another revision."""
        recorded = [member.recorded for member in self.company.members.values()]
        row = self.dice.choice(rows)
        self.assertEqual(len(compare(recorded, [other for other in rows if other is not row])), 1)
        self.assertEqual(len(compare(recorded, rows + [row])), 1)
        by_test = collections.defaultdict(set)
        for agent, code, number, location in self.definitions:
            by_test[agent, code, number].add(location)
        found = 0
        for row in rows:
            for location in by_test[row.agent, self.codes[row.type], row.test] - {row.location}:
                record, = records.decode(row.record)
                found += judging.misfit(row.type, self.definitions[row.agent, self.codes[row.type], row.test, location], record) != ""
        self.assertGreater(found, 100)


if __name__ == "__main__":
    harness.main()
