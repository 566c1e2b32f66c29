"""What became of each change of the fleet: confirmed, unanswered with a reason, impossible, overtaken; a fleet file that the
collector follows; and several people at once."""

import concurrent.futures
import json
import os
import re
import subprocess
import time

import harness
from asking import Asked

CTL = os.path.join(harness.BUILD, "vindralctl")
ACCOUNT = "user@example.net"
SECOND = "intervals: {poll: 1s, check: 1s}\n"


def fleet(*tests, agents='"*"', intervals=SECOND):
    """A file of one group with these tests, one a line."""
    return "version: 1\n%sgroups:\n  - name: everything\n    agents: [%s]\n    tests:\n%s" % (
        intervals, agents, "".join("      %s\n" % test for test in tests))


LOAD = "load: {load: {1m: 1000}}"


class FleetCollector(Asked):
    """A collector whose fleet the API applies, unless `rules` say otherwise."""

    def __init__(self, test, rules=(), **named):
        super().__init__(test, rules=rules, **named)

    def put(self, text, query="", token=None):
        """Status and the answer."""
        status, _, answer = self.ask("/api/v1/fleet" + query, "PUT", text.encode(), token)
        return status, json.loads(answer)

    def apply(self, text):
        status, answer = self.put(text)
        self.test.assertEqual(status, 200, answer)
        return answer

    def changes(self, **wanted):
        """Newest first, those of which the members are these."""
        return [change for change in self.get("/api/v1/changes?limit=1000")["items"]
                if all(change[name] == value for name, value in wanted.items())]

    def wait_change(self, reason=None, **wanted):
        """Waits for a change with these members, and a reason that fits, and returns it."""
        def found():
            fits = [change for change in self.changes(**wanted)
                    if reason is None or re.search(reason, change["reason"] or "")]
            time.sleep(0 if fits else 0.1)  # not as often as the API refuses
            return fits[0] if fits else None
        return harness.wait_until(found, lambda: "a change %s %s; have\n%s\n%s" % (
            wanted, reason, "\n".join(map(str, self.changes())), self.errors()[-2000:]))

    def ctl(self, *words, status=0, text=None):
        """Output of vindralctl; with a text as its last word, a file of it."""
        if text is not None:
            path = os.path.join(self.test.subdir("file"), "fleet.yaml")
            harness.write_text(path, text)
            words = (*words, path)
        done = subprocess.run([CTL, *words], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              text=True, check=False, timeout=harness.PATIENCE_S,
                              env=dict(self.env, VINDRAL_TOKEN=self.token, TZ="UTC", LC_ALL="C.UTF-8",
                                       VINDRAL_URL="http://127.0.0.1:%d" % self.web_port))
        self.test.assertEqual(done.returncode, status, "%s\n%s\n%s" % (words, done.stdout, done.stderr))
        return done.stdout + done.stderr


class Outcomes(harness.TestCase):
    def start(self, *names, **options):
        self.collector = FleetCollector(self).start()
        self.agents = [self.add(name, **options) for name in names]

    def add(self, name, **options):
        return harness.Agent(self, self.collector.port, name=name, AGENTNAME=name, **options).start()

    def test_confirmed(self):
        self.start("web-1")
        first = self.collector.apply(fleet(LOAD, "two: {cpu: {user: 100}}"))
        self.assertEqual((first["dry_run"], first["same"], first["summary"]["add"]), (False, False, 0 if not first["agents"] else 2))
        change = self.collector.wait_change(test="load", outcome="confirmed")
        self.assertEqual((change["action"], change["was"], change["reason"]), ("add", None, None))
        self.assertEqual(change["agent"]["name"], "web-1")
        self.assertIsNotNone(change["sent"])
        self.assertLessEqual(change["sent"], change["settled"])
        self.assertGreaterEqual(change["revision"], first["revision"])
        self.collector.wait_change(test="two", outcome="confirmed")
        self.collector.wait_change(action="intervals", outcome="confirmed")

        second = self.collector.apply(fleet("load: {load: {1m: 999}}"))
        self.assertEqual({(change["test"], change["action"]) for change in second["agents"][0]["changes"]},
                         {("load", "change"), ("two", "remove")}, second)
        self.assertIn({"name": "1m", "from": "1000", "to": "999"},
                      [field for change in second["agents"][0]["changes"] for field in change["fields"]])
        changed = self.collector.wait_change(test="load", action="change", outcome="confirmed")
        self.assertEqual((changed["revision"], changed["number"]), (second["revision"], change["number"]))
        two = self.collector.wait_change(test="two", action="remove", outcome="confirmed")
        self.assertIn("\nCUD\t%d\t0\n" % two["number"], self.agents[0].log())

        same = self.collector.apply(fleet("load: {load: {1m: 999}}"))
        self.assertEqual((same["same"], same["revision"], same["agents"]), (True, second["revision"], []))
        renamed = self.collector.apply(fleet("load average: {was: load, load: {1m: 999}}"))
        self.assertEqual([(change["test"], change["was"], change["action"]) for change in renamed["agents"][0]["changes"]],
                         [("load average", "load", "rename")])
        test = harness.wait_until(lambda: next((test for test in self.collector.get("/api/v1/tests")["items"]
                                                if test["name"] == "load average"), None),
                                  lambda: self.collector.get("/api/v1/tests"))
        self.assertEqual((test["number"], test["group"]), (change["number"], "everything"))
        status = self.collector.ctl("fleet", "status")
        self.assertIn(str(renamed["revision"]), status)

    def test_agent_that_is_away(self):
        self.start("web-1")
        self.collector.apply(fleet(LOAD))
        self.collector.wait_change(test="load", outcome="confirmed")
        self.agents[0].process.kill()
        self.collector.apply(fleet("load: {load: {1m: 999}}"))
        change = self.collector.wait_change("silent since|has not polled", test="load", action="change", outcome="unanswered")
        self.assertIsNone(change["sent"])
        # What another one overtakes is never sent.
        second = self.collector.apply(fleet("load: {load: {1m: 998}}"))
        change = self.collector.wait_change("revision %d took its place before it was sent" % second["revision"],
                                            id=change["id"], outcome="unanswered")
        self.agents[0].start()
        self.collector.wait_change(test="load", revision=second["revision"], outcome="confirmed")
        self.assertEqual(self.collector.changes(id=change["id"])[0]["outcome"], "unanswered")

    def test_no_library(self):
        """An agent that says nothing of tests of a kind whose library is missing."""
        directory = self.subdir("libraries")
        for name in ("libsnmp.so", "libsnmp.so.40", "libsnmp.so.35"):
            harness.write_text(os.path.join(directory, name), "this is no library\n")
        self.start("net-1", env={"LD_LIBRARY_PATH": directory})
        self.collector.apply(fleet(LOAD, "sensor: {snmp: 127.0.0.1, objects: [1.3.6.1.2.1.1.3.0]}"))
        self.collector.wait_change(test="load", outcome="confirmed")
        change = self.collector.wait_change("SNMP library", test="sensor", outcome="unanswered")
        self.assertIsNotNone(change["sent"])

    def test_impossible(self):
        self.start("db-1")
        answer = self.collector.apply(fleet(LOAD, 'data: {disk: /no/such/disk, free: 1 GB}', "net: {network: nothing0}"))
        self.assertEqual(len(answer["notes"]), 0)
        disk = self.collector.wait_change("/no/such/disk.*there (is|are).*/", test="data", outcome="impossible")
        self.collector.wait_change("nothing0", test="net", outcome="impossible")
        self.assertIsNone(disk["sent"])
        self.collector.wait_change(test="load", outcome="confirmed")
        self.assertNotIn("DKA", self.agents[0].log())
        self.assertNotIn("NTA", self.agents[0].log())
        status = self.collector.ctl("fleet", "status")
        self.assertRegex(status, "impossible")

    @harness.needs_namespaces
    def test_disk_that_comes_later(self):
        """And a share of it in percent, which is reckoned when its size is known."""
        data = os.path.join(self.dir, "data")
        os.mkdir(data)
        self.start()
        self.collector.apply(fleet("data: {disk: %s, free: 25 %%}" % data))
        agent = self.add("db-1")
        change = self.collector.wait_change(test="data", outcome="impossible")
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=64m", "volume", data], check=True)
        self.addCleanup(subprocess.run, ["umount", data], check=True)
        added = self.collector.wait_change(test="data", action="add", outcome="confirmed")
        self.assertGreater(added["revision"], change["revision"])
        changed = self.collector.wait_change(r"25 %.*of", test="data", action="change", outcome="confirmed")
        self.assertGreater(changed["revision"], added["revision"])
        self.assertEqual(changed["number"], added["number"])
        agent.wait_log("modify_disk. Modified test. tid:%d, lid:%d, disk:'%s(volume|tmpfs)', min_free_space:0.015625" % (
            changed["number"], changed["revision"], data))

    def test_secret_for_an_unproven_agent(self):
        self.start("web-1")
        status, _, text = self.collector.ask("/api/v1/secrets/page", "PUT", json.dumps({"value": "a pass phrase"}))
        self.assertEqual(status, 200, text)
        self.collector.apply(fleet(
            LOAD, 'page: {http: "http://127.0.0.1:1/", user: ann, password: "${secret:page}"}',
            'other: {http: "http://127.0.0.1:1/", user: ann, password: "${secret:nobody-set-it}"}'))
        self.collector.wait_change(test="load", outcome="confirmed")
        self.collector.wait_change("proven", test="page", outcome="unanswered")
        self.collector.wait_change("nobody-set-it", test="other", outcome="impossible")
        for text in (self.agents[0].log(), json.dumps(self.collector.changes()), self.collector.errors()):
            self.assertNotIn("a pass phrase", text)


class Together(harness.TestCase):
    def setUp(self):
        super().setUp()
        self.collector = FleetCollector(self).start()

    def test_one_of_several_wins(self):
        """Each expects the revision that it has seen."""
        base = self.collector.apply(fleet(LOAD))["revision"]
        for _ in range(5):
            texts = [fleet("load: {load: {1m: %d}}" % (1000 * base + i)) for i in range(1, 9)]
            with concurrent.futures.ThreadPoolExecutor(len(texts)) as pool:
                outcomes = list(pool.map(lambda text: self.collector.put(text, "?revision=%d" % base), texts))
            won = [i for i, (status, _) in enumerate(outcomes) if status == 200]
            self.assertEqual(len(won), 1, outcomes)
            self.assertEqual({status for status, _ in outcomes} - {200, 409, 503}, set(), outcomes)
            status, _, text = self.collector.ask("/api/v1/fleet", Accept="application/yaml")
            self.assertEqual((status, text), (200, texts[won[0]]))
            base = outcomes[won[0]][1]["revision"]

    def test_conflicts(self):
        first = self.collector.apply(fleet(LOAD))["revision"]
        second = self.collector.apply(fleet("load: {load: {1m: 2}}"))["revision"]
        self.assertGreater(second, first)
        status, answer = self.collector.put(fleet("load: {load: {1m: 3}}"), "?revision=%d" % first)
        self.assertEqual((status, answer["status"]), (409, 409), answer)
        self.assertIn(str(second), answer["detail"])
        self.assertEqual(self.collector.put(fleet("load: {load: {1m: 3}}"), "?revision=%d" % (second + 1000))[0], 409)
        self.assertEqual(self.collector.put(fleet("load: {load: {1m: 3}}"), "?revision=%d" % second)[0], 200)

    def test_mistakes(self):
        """All of them at once, with their places; and nothing is changed."""
        self.collector.apply(fleet(LOAD))
        before = self.collector.get("/api/v1/fleet")
        wrong = fleet("a: {htttp: \"http://a/\"}", "b: {load: {1m: many}}", "c: {disk: /, fre: 5 GB}")
        status, answer = self.collector.put(wrong)
        self.assertEqual(status, 422, answer)
        places = [(error["line"], error["column"]) for error in answer["errors"]]
        self.assertEqual(places, [(7, 11), (8, 22), (9, 20)], answer)
        self.assertRegex(answer["errors"][0]["text"], "htttp.*http")
        self.assertRegex(answer["errors"][2]["text"], "fre.*free")
        told = self.collector.ctl("fleet", "check", status=1, text=wrong)
        for line, column in places:
            self.assertIn(":%d:%d:" % (line, column), told)
        self.collector.ctl("fleet", "apply", status=1, text=wrong)
        self.assertEqual(self.collector.get("/api/v1/fleet"), before)

    def test_applied_is_applied(self):
        """A collector that is killed as soon as it has answered."""
        for i in range(5):
            text = fleet("load: {load: {1m: %d}}" % (100 + i))
            revision = self.collector.apply(text)["revision"]
            self.collector.kill()
            self.collector.start()
            found = self.collector.get("/api/v1/fleet")
            self.assertEqual((found["text"], found["text_revision"]), (text, revision))

    def test_roles(self):
        viewer, operator = (self.collector.add_token(role, role) for role in ("viewer", "operator"))
        self.assertEqual(self.collector.put(fleet(LOAD), token=viewer)[0], 403)
        self.assertEqual(self.collector.put(fleet(LOAD), token=operator)[0], 200)


class FileThatRules(harness.TestCase):
    def setUp(self):
        super().setUp()
        self.path = os.path.join(self.dir, "fleet.yaml")

    def write(self, text):
        """By a rename, as an editor does it."""
        harness.write_text(self.path + ".new", text)
        os.rename(self.path + ".new", self.path)

    def make(self):
        return FleetCollector(self, rules=("--fleet", self.path))

    def wait_in_force(self, collector, text):
        def found():
            status, _, now = collector.ask("/api/v1/fleet", Accept="application/yaml")
            time.sleep(0.05)
            return status == 200 and now == text
        harness.wait_until(found, lambda: "%s\n to be in force\n%s" % (text, collector.errors()))

    def test_followed(self):
        self.write(fleet(LOAD))
        collector = self.make().start()
        agent = harness.Agent(self, collector.port, name="web-1").start()
        collector.wait_change(test="load", outcome="confirmed")
        found = collector.get("/api/v1/fleet")
        self.assertEqual((found["file"], found["read_only"], found["trouble"], found["author"]),
                         (self.path, True, None, "file"))
        status, answer = collector.put(fleet("load: {load: {1m: 5}}"))
        self.assertEqual(status, 409)
        self.assertIn(self.path, answer["detail"])
        status, answer = collector.put(fleet("load: {load: {1m: 5}}"), "?dry_run=true")
        self.assertEqual((status, answer["dry_run"], answer["summary"]["change"]), (200, True, 1), answer)

        # A mistake: the old one goes on, and the place is told.
        self.write(fleet("load: {load: {1m: 7, 2m: 8}}"))
        collector.wait_errors("%s:7:28: " % self.path)
        trouble = harness.wait_until(lambda: collector.get("/api/v1/fleet")["trouble"], collector.errors)
        self.assertIn("7:28", trouble)
        self.assertIn("2m", collector.errors())
        text = fleet("load: {load: {1m: 7}}")
        self.write(text)
        self.wait_in_force(collector, text)
        collector.wait_change(test="load", action="change", outcome="confirmed")
        harness.wait_until(lambda: collector.get("/api/v1/fleet")["trouble"] is None, "no trouble")

        # Written where it stands, slowly: not before it is whole.
        whole = fleet("load: {load: {1m: 8}}", "cpu: {cpu: {user: 50}}")
        with open(self.path, "w", encoding="utf-8") as file:
            for part in range(0, len(whole), 30):
                file.write(whole[part:part + 30])
                file.flush()
                time.sleep(0.1)
        self.wait_in_force(collector, whole)
        revisions = collector.get("/api/v1/fleet/revisions?applied=true")["items"]
        self.assertEqual(len(revisions), 3, revisions)

        # A restart with a broken file: the fleet in force goes on, and the log says why.
        collector.stop()
        self.write(whole + "      - what\n")
        before = collector.errors().count("%s:" % self.path)
        collector.start()
        collector.wait_errors("%s:" % self.path, before + 1)
        self.wait_in_force(collector, whole)
        count = len(collector.results())
        harness.wait_until(lambda: len(collector.results()) > count + 2, "results to go on")
        # ... and one without the file at all.
        collector.stop()
        os.unlink(self.path)
        collector.start()
        self.wait_in_force(collector, whole)
        self.write(text)
        self.wait_in_force(collector, text)
        self.assertEqual([message for message in agent.messages() if "Invalid test" in message], [])

    def test_broken_from_the_first(self):
        """There is nothing to go on with: all mistakes are told, and that is it."""
        self.write(fleet("a: {htttp: \"http://a/\"}", "b: {load: {1m: many}}"))
        collector = self.make().launch()
        self.assertEqual(collector.process.wait(harness.PATIENCE_S), 1)
        for place in ("7:11", "8:22"):
            self.assertIn("%s:%s: " % (self.path, place), collector.errors())
        self.write(fleet(LOAD))
        collector.start()
        self.wait_in_force(collector, fleet(LOAD))

    def test_no_such_file(self):
        collector = self.make().launch()
        self.assertEqual(collector.process.wait(harness.PATIENCE_S), 1)
        self.assertIn(self.path, collector.errors())

    def test_plan_and_fleet(self):
        self.write(fleet(LOAD))
        collector = FleetCollector(self, rules=("--fleet", self.path, "--plan", os.devnull)).launch()
        self.assertNotEqual(collector.process.wait(harness.PATIENCE_S), 0)
        self.assertIn("--plan", collector.errors())

    def test_plan_rules(self):
        self.write("")
        collector = FleetCollector(self, rules=("--plan", self.path)).start()
        status, answer = collector.put(fleet(LOAD))
        self.assertEqual(status, 409)
        self.assertIn("--plan", answer["detail"])
        found = collector.get("/api/v1/fleet")
        self.assertEqual((found["plan"], found["read_only"], found["revision"]), (True, True, 0))


if __name__ == "__main__":
    harness.main()
