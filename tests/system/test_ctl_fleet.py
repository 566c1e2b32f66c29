#!/usr/bin/env python3
"""vindralctl fleet and changes against a scripted API: what is asked, what is shown, how it ends."""

import contextlib
import json
import os
import pty
import re
import subprocess
import termios
import threading

import harness
import test_ctl

FILE = "version: 1 # the file\ngroups: []\n"
PUT = "PUT /api/v1/fleet"


def answer(what, status=200, kind="application/json"):
    return status, kind, what if isinstance(what, str) else json.dumps(what)


def problem(status, detail, errors=()):
    return answer({"type": "about:blank", "title": "x", "status": status, "detail": detail, "errors": list(errors)},
                  status, "application/problem+json")


def changed(action, test, **more):
    return {"test": test, "was": None, "action": action, "type": "http", "number": 4, "impossible": None,
            "reason": None, "fields": [], **more}


def outcome(*agents, revision=7, same=False, **more):
    """`agents`: a name and its changes each."""
    every = [one for _, changes in agents for one in changes]

    def count(action):
        return sum(1 for one in every if one["action"] == action and not one["impossible"])

    return {"revision": revision, "dry_run": True, "same": same, "summary": {
        "add": count("add"), "change": count("change"), "rename": count("rename"), "remove": count("remove"),
        "intervals": count("intervals"), "impossible": sum(1 for one in every if one["impossible"]), "unchanged": 5,
        "agents": 3, "agents_changed": len(agents), "agents_without": 0, "groups_without": []}, "agents": [
            {"agent": {"id": 1, "account": "a@b.c", "name": name}, "groups": [], "poll": 60, "check": 60, "about": None,
             "changes": changes} for name, changes in agents], "more": 0, "notes": [], **more}


def change(outcome_, test="front page", **more):
    return {"id": 3, "revision": 8, "time": "2026-05-01T12:00:00Z", "agent": {"id": 1, "account": "a@b.c", "name": "web-1"},
            "test": test, "was": None, "action": "add", "type": "http", "number": 4, "sent": None,
            "settled": "2026-05-01T12:00:00Z", "outcome": outcome_, "reason": None, **more}


def listed(*items):
    return answer({"items": list(items), "next": None})


ADDED = outcome(("web-1", [changed("add", "front page")]), ("web-2", [changed("add", "front page")]))
MISTAKES = problem(422, "The fleet file has 2 mistakes: nothing was changed.",
                   [{"line": 3, "column": 7, "text": "`htttp`: no such test; `http`?"},
                    {"line": 4, "column": 1, "text": "x\x1b[2J"}])


class FleetTest(test_ctl.Served):
    def setUp(self):
        super().setUp()
        self.file = os.path.join(self.ctl_dir, "fleet.yaml")
        self.write(FILE)

    def write(self, text):
        with open(self.file, "w", encoding="utf-8") as file:
            file.write(text)

    def fleet(self, words, *answers, status=0, text=None, **more):
        """Runs it with these answers; what was asked is in `asked`: "PUT /api/v1/fleet?dry_run=1"."""
        server = self.serve(*answers)
        done = subprocess.run([test_ctl.CTL, "fleet", *words], env=self.environment(**more), input=text or "",
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False,
                              timeout=harness.PATIENCE_S)
        self.told = done.stderr
        self.assertEqual(done.returncode, status, "%s\n%s\n%s" % (words, done.stdout, done.stderr))
        self.assertEqual(server.answers, [])
        self.asked = [headers["method"] + " " + path.removeprefix("/proxy") for path, headers in server.asked]
        self.heads = [headers for _, headers in server.asked]
        self.assertNotIn("\x1b", done.stdout + done.stderr)
        return done.stdout


class Checked(FleetTest):
    def test_a_sound_file(self):
        shown = self.fleet(["check", self.file], answer(ADDED))
        self.assertEqual((shown, self.told), ("", "vindralctl: %s has no mistake\n" % self.file))
        self.assertEqual(self.asked, [PUT + "?dry_run=1"])
        self.assertEqual((self.heads[0]["body"], self.heads[0]["Content-Type"]), (FILE, "application/yaml"))

    def test_what_is_to_be_known_of_it(self):
        noted = dict(ADDED, notes=[{"line": 9, "column": 1, "text": "alerts: not heeded\x1b"}])
        noted["summary"] = dict(ADDED["summary"], agents_without=2, groups_without=["db", "o\x1bther"])
        for words in (["check", self.file], ["diff", self.file]):
            self.fleet(words, answer(noted), status=1 if words[0] == "diff" else 0)
            self.assertIn(self.file + ":9:1: note: alerts: not heeded?\n", self.told)
            self.assertIn("2 agents are in no group\n", self.told)
            self.assertIn('no agent is in "db", "o?ther"\n', self.told)

    def test_mistakes(self):
        lines = "%s:3:7: `htttp`: no such test; `http`?\n%s:4:1: x?[2J\n"
        shown = self.fleet(["check", self.file], MISTAKES, status=1)
        self.assertEqual(shown, lines % (self.file, self.file))
        self.assertEqual(self.told, "vindralctl: %s has 2 mistakes\n" % self.file)
        shown = self.fleet(["check", "-"], MISTAKES, status=1, text=FILE)
        self.assertEqual(shown, lines % ("<stdin>", "<stdin>"))
        self.assertEqual(self.heads[0]["body"], FILE)
        for words, status in ((["diff", self.file], 2), (["apply", self.file], 1)):
            self.assertEqual(self.fleet(words, MISTAKES, status=status), "")
            self.assertEqual(self.told, lines % (self.file, self.file)
                             + "vindralctl: %s has 2 mistakes; nothing was changed\n" % self.file)
        shown = json.loads(self.fleet(["check", self.file, "--json"], MISTAKES, status=1))
        self.assertEqual([error["line"] for error in shown["errors"]], [3, 4])

    def test_files_that_are_none(self):
        for words in (["check", "/nowhere"], ["diff", self.ctl_dir], ["apply", "-"]):
            self.assertEqual(self.fleet(words, status=2), "")
            self.assertEqual(self.asked, [])
        self.write("")
        self.fleet(["apply", self.file], status=2)
        self.write("#" * 1000001)
        self.fleet(["apply", self.file], status=2)
        self.write("#" * 1000000)
        self.fleet(["check", self.file], answer(ADDED))
        self.assertEqual(len(self.heads[0]["body"]), 1000000)


class Compared(FleetTest):
    def test_a_difference(self):
        shown = self.fleet(["diff", self.file], answer(ADDED), status=1)
        self.assertEqual(shown, "a@b.c/web-1 and a@b.c/web-2:\n  + front page  http\n"
                         "2 added on 2 of 3 agents; 5 tests as before\n")
        self.assertEqual(self.asked, [PUT + "?dry_run=1"])
        shown = self.fleet(["diff", self.file], answer(ADDED), status=1, COLUMNS="80")
        self.assertTrue(shown.startswith("web-1 and web-2:\n"))
        self.assertEqual(json.loads(self.fleet(["diff", self.file, "--json"], answer(ADDED), status=1)), ADDED)

    def test_none(self):
        for same in (outcome(same=True), outcome()):
            self.assertEqual(self.fleet(["diff", self.file], answer(same)), "no test changes; 5 tests as before\n")

    def test_trouble_is_no_difference(self):
        for wrong, status in ((problem(409, "A plan rules."), 2), (problem(403, "No."), 4), (problem(503, "Later."), 3),
                              (problem(413, "Too long."), 2), (answer("x"), 3)):
            self.assertEqual(self.fleet(["diff", self.file], wrong, status=status), "")


class Applied(FleetTest):
    def test_without_a_terminal(self):
        done = dict(ADDED, revision=8, dry_run=False)
        shown = self.fleet(["apply", self.file], answer(ADDED), answer(done))
        self.assertEqual(self.asked, [PUT + "?dry_run=1", PUT + "?revision=7"])
        self.assertEqual([head["body"] for head in self.heads], [FILE, FILE])
        self.assertIn("+ front page  http\n", shown)
        self.assertEqual(self.told, "vindralctl: revision 8 is in force; agents are told with their next polls\n")
        self.assertEqual(json.loads(self.fleet(["apply", "-", "--json"], answer(ADDED), answer(done), text=FILE)), done)

    def test_what_is_in_force_already(self):
        self.fleet(["apply", self.file], answer(outcome(same=True)))
        self.assertEqual(self.told, "vindralctl: %s is in force already, as revision 7\n" % self.file)

    def test_another_text_without_a_difference_is_applied(self):
        self.fleet(["apply", self.file], answer(outcome()), answer(outcome(revision=8)))
        self.assertIn("revision 8 is in force", self.told)

    def test_somebody_else_was_faster(self):
        self.fleet(["apply", self.file], answer(ADDED), problem(409, "Somebody applied another text since."), status=1)
        self.assertIn("Somebody applied another text since.", self.told)
        self.fleet(["apply", self.file], answer(ADDED), problem(503, "The store is busy."), status=3)

    def test_waiting_for_agents(self):
        pending = "GET /api/v1/changes?revision=8&open=1&outcome=sent%2Cunanswered&limit=1"
        all_open = "GET /api/v1/changes?revision=8&open=1&limit=1000"
        done = answer(dict(ADDED, revision=8))
        self.fleet(["apply", self.file, "--wait", "60"], answer(ADDED), done, listed(change("sent")),
                   listed(change("unanswered")), listed(), listed())
        self.assertEqual(self.asked[2:], [pending, pending, pending, all_open])
        self.assertIn("every change is confirmed\n", self.told)
        shown = self.fleet(["apply", self.file, "--wait", "0"], answer(ADDED), done, listed(change("sent")),
                           listed(change("sent"), change("impossible", "data", reason="there is no disk /da\x1bta")), status=1)
        self.assertIn("2 changes are not confirmed\n", self.told)
        self.assertRegex(shown, r"(?m)^a@b\.c/web-1 +front page +add +sent$")
        self.assertRegex(shown, r"(?m) data +add +impossible +there is no disk /da\?ta$")
        self.fleet(["apply", self.file, "--wait", "5"], answer(ADDED), done, listed(), listed(change("impossible")))
        self.assertIn("1 change is not confirmed\n", self.told)

    def asking(self, typed, *answers, options=()):
        """On a terminal, where that is typed: how it ends, and what stands there."""
        server = self.serve(*answers)
        ours, its = pty.openpty()
        mode = termios.tcgetattr(its)
        mode[3] &= ~termios.ECHO
        termios.tcsetattr(its, termios.TCSANOW, mode)
        process = subprocess.Popen([test_ctl.CTL, "fleet", "apply", self.file, *options], env=self.environment(),
                                   stdin=its, stdout=its, stderr=its)
        os.close(its)
        shown = []

        def read():
            with contextlib.suppress(OSError):  # at its end
                while piece := os.read(ours, 65536):
                    shown.append(piece.decode())
                    if typed and "[y/N]" in "".join(shown):
                        os.write(ours, typed.encode())
                        return

        reader = threading.Thread(target=read)
        reader.start()
        self.addCleanup(os.close, ours)
        try:
            status = process.wait(harness.PATIENCE_S)
        finally:
            process.kill()
            process.wait()
        reader.join()
        self.asked = [headers["method"] + " " + path.removeprefix("/proxy") for path, headers in server.asked]
        return status, "".join(shown)

    def test_on_a_terminal_it_asks(self):
        done = answer(dict(ADDED, revision=8))
        for typed in ("n\n", "\n", "\x04", "yesno\n"):
            status, shown = self.asking(typed, answer(ADDED))
            self.assertEqual((status, self.asked), (1, [PUT + "?dry_run=1"]), typed)
            self.assertIn("front page", shown)
            self.assertIn("Apply this? [y/N] ", shown)
        for typed in ("y\n", "yes\n"):
            status, _ = self.asking(typed, answer(ADDED), done)
            self.assertEqual((status, self.asked), (0, [PUT + "?dry_run=1", PUT + "?revision=7"]), typed)
        status, shown = self.asking("", answer(ADDED), done, options=("--yes",))
        self.assertEqual((status, self.asked[1:]), (0, [PUT + "?revision=7"]))
        self.assertNotIn("[y/N]", shown)


class TakenBack(FleetTest):
    APPLIED = ({"revision": 7}, {"revision": 4})

    def test_the_one_before(self):
        self.fleet(["rollback"], listed(*self.APPLIED), answer("old: 1\n", kind="application/yaml"), answer(ADDED),
                   answer(dict(ADDED, revision=8)))
        self.assertEqual(self.asked, ["GET /api/v1/fleet/revisions?applied=1&limit=2", "GET /api/v1/fleet?revision=4",
                                      PUT + "?dry_run=1", PUT + "?revision=7"])
        self.assertEqual(self.heads[1]["Accept"], "application/yaml")
        self.assertEqual([head["body"] for head in self.heads[2:]], ["old: 1\n"] * 2)
        self.fleet(["rollback"], listed({"revision": 7}), status=5)
        self.assertIn("no text before", self.told)
        self.fleet(["rollback"], listed(), status=5)

    def test_a_certain_one(self):
        self.fleet(["rollback", "3", "--yes"], answer("old: 1\n", kind="application/yaml"), answer(outcome(same=True)))
        self.assertEqual(self.asked, ["GET /api/v1/fleet?revision=3", PUT + "?dry_run=1"])
        self.assertIn("revision 3 is in force already", self.told)
        self.fleet(["rollback", "9"], problem(404, "There is no revision 9; the newest is 7."), status=5)
        for word in ("x", "-1", "3.5", "99999999999"):
            self.fleet(["rollback", word], status=2)
        # what it cannot be read by is told with where in that text
        self.fleet(["rollback", "3"], answer("", kind="application/yaml"), MISTAKES, status=1)
        self.assertIn("revision 3:3:7: `htttp`", self.told)
        self.assertEqual(self.heads[1]["body"], "\n")


class Shown(FleetTest):
    FLEET = {"revision": 7, "time": "2026-05-01T12:00:00Z", "author": "ann", "about": "3 added", "text_revision": 7,
             "in_force": True, "text": FILE, "content": {}, "plan": False, "file": None, "read_only": False, "trouble": None,
             "agents": 2, "tests": 9, "changes": {"waiting": 0, "sent": 0, "confirmed": 9, "unanswered": 0, "impossible": 0}}

    def test_export(self):
        text = "version: 1\r\n\tx: \u00e9 \x1b no line end"
        server = self.serve(answer("version: 1\r\n\tno line end", kind="application/yaml"))
        done = subprocess.run([test_ctl.CTL, "fleet", "export", "--revision", "3"], env=self.environment(),
                              stdout=subprocess.PIPE, check=True, timeout=harness.PATIENCE_S)
        self.assertEqual(done.stdout, b"version: 1\r\n\tno line end")
        self.assertEqual(server.asked[0][0], "/proxy/api/v1/fleet?revision=3")
        self.assertEqual(server.asked[0][1]["Accept"], "application/yaml")
        self.fleet(["export"], answer({"revision": 3}), status=3)
        self.fleet(["export"], problem(404, "There is no fleet yet."), status=5)
        self.fleet(["export"], problem(403, "Needs operator."), status=4)
        ours, its = pty.openpty()
        self.addCleanup(os.close, ours)
        self.serve((200, "application/yaml", text.replace("\u00e9", "e")))
        subprocess.run([test_ctl.CTL, "fleet", "export"], env=self.environment(), stdin=subprocess.DEVNULL, stdout=its,
                       check=True, timeout=harness.PATIENCE_S)
        os.close(its)
        shown = os.read(ours, 65536).decode()
        self.assertEqual(shown, "version: 1\r\n x: e ? no line end")

    def test_status(self):
        shown = self.fleet(["status"], answer(self.FLEET))
        for fact in ("ruled by +what is applied by the API", "revision +7 by ann, 2026-05-01 12:00:00 .*ago", "about +3 added",
                     "agents +2", "tests +9", "changes +9 confirmed"):
            self.assertRegex(shown, "(?m)^%s" % fact)
        self.assertEqual(self.asked, ["GET /api/v1/fleet"])
        went_on = dict(self.FLEET, revision=8, author="collector", about="1 changed")
        shown = self.fleet(["status"], answer(went_on), listed(self.FLEET))
        self.assertEqual(self.asked[1], "GET /api/v1/fleet/revisions?applied=1&limit=1")
        self.assertRegex(shown, r"(?m)^applied +7 by ann, .*\nabout +3 added\nrevision +8 by collector, .*\nabout +1 changed$")
        self.fleet(["status", "--fail"], answer(self.FLEET))

        behind = dict(self.FLEET, changes=dict(self.FLEET["changes"], unanswered=1, impossible=1))
        answers = (answer(behind), listed(change("unanswered", reason="the agent is silent"), change("impossible", "data")))
        shown = self.fleet(["status"], *answers)
        self.assertEqual(self.asked[1], "GET /api/v1/changes?open=1&limit=100")
        self.assertRegex(shown, r"(?m)^changes +9 confirmed, 1 unanswered, 1 impossible$")
        self.assertRegex(shown, r"(?m) front page +add +unanswered +the agent is silent$")
        self.fleet(["status", "--fail"], *answers, status=1)
        shown = self.fleet(["status"], *answers, COLUMNS="80")
        self.assertLessEqual(max(map(len, shown.splitlines())), 80)
        self.assertEqual(json.loads(self.fleet(["status", "--json"], answer(behind))), behind)

    def test_who_rules(self):
        ruled = dict(self.FLEET, file="/etc/fle\x1bet.yaml", read_only=True, trouble="line 3: no such test")
        shown = self.fleet(["status"], answer(ruled))
        self.assertRegex(shown, r"(?m)^ruled by +the file /etc/fle\?et\.yaml \(--fleet\)$")
        self.assertRegex(shown, r"(?m)^trouble +line 3: no such test$")
        shown = self.fleet(["status"], answer({"revision": 0, "plan": True}))
        self.assertRegex(shown, r"(?m)^ruled by +a plan of raw commands")
        self.assertNotIn("revision", shown)
        shown = self.fleet(["status"], answer({"revision": 0, "plan": False}))
        self.assertRegex(shown, r'(?m)^revision +nothing was ever applied; "vindralctl fleet apply FILE" does$')

    def test_log(self):
        one = {"revision": 7, "time": "2026-05-01T12:00:00Z", "author": "ann", "about": "3 added", "has_text": True}
        shown = self.fleet(["log"], listed(one))
        self.assertEqual(self.asked, ["GET /api/v1/fleet/revisions?applied=1&limit=20"])
        self.assertRegex(shown, r"(?m)^ +7 +2026-05-01 12:00:00 +ann +3 added$")
        shown = self.fleet(["log", "--all", "--limit", "2"], listed(dict(one, has_text=False), one))
        self.assertEqual(self.asked, ["GET /api/v1/fleet/revisions?limit=2"])
        self.assertEqual(re.findall(r"ann +(as before|applied) +3 added", shown), ["as before", "applied"])
        self.fleet(["log"], listed())
        self.assertIn("nothing was ever applied", self.told)

    def test_schema(self):
        self.assertEqual(self.fleet(["schema"], answer({"type": "object"})), '{"type":"object"}\n')
        self.assertEqual(self.asked, ["GET /api/v1/fleet/schema"])

    def test_changes(self):
        agent = {"id": 3, "account": "a@b.c", "name": "web-1"}
        server = self.serve(answer(agent), listed(change("confirmed", "shop", was="front", action="rename"),
                                                  change("sent", None, action="intervals")))
        shown = self.ctl("changes", "--agent", "3", "--group", "web servers", "--test", "front page", "--outcome",
                         "sent,confirmed", "--revision", "8", "--open", "--from", "2026-05-01T00:00:00Z", "--to",
                         "2026-05-02T00:00:00Z")
        self.assertEqual(server.asked[1][0], "/proxy/api/v1/changes?agent=3&group=web%20servers&test=front%20page&"
                         "outcome=sent%2Cconfirmed&revision=8&open=1&from=2026-05-01T00%3A00%3A00Z&"
                         "to=2026-05-02T00%3A00%3A00Z&limit=100")
        self.assertRegex(shown, r"(?m)^2026-05-01 12:00:00 +8 +a@b\.c/web-1 +shop \(was front\) +rename +confirmed$")
        self.assertRegex(shown, r"(?m) \(intervals\) +intervals +sent$")
        self.serve(listed())
        self.ctl("changes")
        self.assertIn("there are no changes yet", self.told)

    def test_watched(self):
        stream = test_ctl.head("Content-Type: text/event-stream")
        told = change("unanswered", reason="the agent is silent\x1b")
        message = ("event: change\ndata: %s\n\n" % json.dumps(told)).encode()
        server = self.serve(stream + message)
        shown = self.ctl("watch", "--kind", "change", "--limit", "1")
        self.assertEqual(server.asked[0][0], "/proxy/api/v1/stream?kind=change")
        self.assertEqual(shown, "2026-05-01 12:00:00  change  unanswered a@b.c/web-1               front page"
                         "                add, revision 8; the agent is silent?\n")
        self.serve(stream + message)
        shown = self.ctl("watch", "--limit", "1", COLUMNS="60")
        self.assertLessEqual(len(shown), 61)


FLEET = """version: 1  # end to end
intervals: {poll: 1s, check: 1s}
groups:
  - name: everything
    agents: ["*"]
    tests:
      load: {load: {1m: 100}}
      root: {disk: /, free: 1 %}
      nowhere: {disk: /no/such/place}
"""


class EndToEnd(test_ctl.Collected):
    """A collector, an agent, and a fleet that is applied, changed and taken back."""

    def setUp(self):
        super().setUp()
        self.collector = harness.Collector(self, rules=())
        port_file = os.path.join(self.collector.dir, "web port")
        self.collector.start("--web", "127.0.0.1:0", "--web-port-file", port_file)
        self.url = "http://127.0.0.1:%s" % harness.read_text(port_file).strip()
        self.viewer, self.token = self.make_token("viewer"), self.make_token("operator")
        self.file = os.path.join(self.ctl_dir, "fleet.yaml")
        self.write(FLEET)

    def write(self, text):
        with open(self.file, "w", encoding="utf-8") as file:
            file.write(text)

    def start_agent(self):
        """With the intervals of the file from its login on."""
        self.write(FLEET.partition("groups:")[0])
        self.ctl("fleet", "apply", self.file)
        self.write(FLEET)
        harness.Agent(self, self.collector.port, name="web-1").start()
        harness.wait_until(lambda: self.rows("agents"), "the agent")

    def test_applied_changed_and_taken_back(self):
        self.ctl("fleet", "export", status=5)
        self.ctl("fleet", "check", self.file)
        self.start_agent()
        self.ctl("fleet", "status")
        shown = self.ctl("fleet", "diff", self.file, status=1)
        self.assertRegex(shown, r"(?m)^  \+ load +load average")
        shown = self.ctl("fleet", "apply", self.file, "--wait", str(harness.PATIENCE_S))
        self.assertIn("1 change is not confirmed", self.told)
        self.assertRegex(shown, r"(?m) nowhere +add +impossible +there is no disk /no/such/place")
        self.assertEqual(self.ctl("fleet", "export"), FLEET)
        self.assertEqual(self.ctl("fleet", "diff", self.file).count("\n"), 1)
        self.ctl("fleet", "apply", self.file)
        self.assertIn("in force already", self.told)
        self.assertEqual({test["name"] for test in self.rows("tests")} & {"load", "root"}, {"load", "root"})
        self.assertEqual(len(self.rows("tests", "--group", "everything")), 2)
        self.assertEqual([agent["groups"] for agent in self.rows("agents", "--group", "everything")], [["everything"]])
        self.assertRegex(self.ctl("agents", "show", "web-1"), r"(?m)^groups +everything$")
        self.assertEqual(self.rows("agents", "--group", "nothing"), [])
        shown = self.ctl("fleet", "status")
        self.assertRegex(shown, r"(?m)^(applied|revision) +2 by of operator, ")  # the share of / may have come in between
        self.assertRegex(shown, r"(?m) nowhere .*impossible")
        self.ctl("fleet", "status", "--fail", status=1)
        self.assertIn("audit: of operator (operator) from 127.0.0.1: applied fleet revision", self.collector.errors())

        first = self.rows("fleet", "status")[0]["text_revision"]
        self.write(FLEET.replace("nowhere: {disk: /no/such/place}", "memory: {memory: {free: 1 MB}}").replace("100", "99"))
        shown = self.ctl("fleet", "apply", self.file, "--wait", str(harness.PATIENCE_S))
        for line in (r"\+ memory +memory", r"~ load +load average: .*100 -> 99", r"- nowhere"):
            self.assertRegex(shown, "(?m)^  %s" % line)
        self.assertIn("every change is confirmed", self.told)
        harness.wait_until(lambda: self.rows("changes", "--open") == [], "the share of the disk")
        self.ctl("fleet", "status", "--fail")
        shown = self.ctl("fleet", "rollback", "--wait", str(harness.PATIENCE_S))
        self.assertRegex(shown, r"(?m)^  - memory +memory")
        self.assertEqual(self.ctl("fleet", "export"), FLEET)
        self.assertEqual(self.ctl("fleet", "export", "--revision", str(first)), FLEET)
        self.ctl("fleet", "rollback", str(first))
        self.assertIn("in force already", self.told)
        self.assertEqual(len(self.rows("fleet", "log")), 4)
        outcomes = {change["outcome"] for change in self.rows("changes", "--agent", "web-1", "--test", "load")}
        self.assertEqual(outcomes, {"confirmed"})
        self.assertEqual(self.rows("fleet", "schema")[0]["type"], "object")

    def test_mistakes_roles_and_size(self):
        self.write(FLEET.replace("disk: /,", "dsik: /,"))
        shown = self.ctl("fleet", "check", self.file, status=1)
        self.assertRegex(shown, r"\A.*fleet\.yaml:8:\d+: `dsik`: .*`disk`\?\n\Z")
        self.ctl("fleet", "apply", self.file, status=1)
        self.assertEqual(self.rows("fleet", "log"), [])
        long = FLEET + "# " + "x" * (1000000 - len(FLEET) - 3) + "\n"
        self.write(long)
        self.ctl("fleet", "apply", self.file)
        self.assertEqual(self.ctl("fleet", "export"), long)
        self.token = self.viewer
        self.ctl("fleet", "export", status=4)
        self.ctl("fleet", "diff", self.file, status=4)
        self.ctl("fleet", "status")
        self.assertIsNone(self.rows("fleet", "status")[0]["text"])
        self.ctl("changes")

    def test_changes_are_told_as_they_happen(self):
        self.start_agent()
        watching = subprocess.Popen([test_ctl.CTL, "watch", "--kind", "change", "--json", "--agent", "web-1"],
                                    env=self.environment(), stdout=subprocess.PIPE, text=True)
        self.addCleanup(watching.stdout.close)
        self.addCleanup(watching.wait)
        self.addCleanup(watching.kill)
        seen = []
        reader = threading.Thread(target=lambda: seen.extend(iter(watching.stdout.readline, "")))

        def told():
            return {(change["test"], change["outcome"]) for change in (json.loads(line)["data"] for line in list(seen))}

        reader.start()
        self.addCleanup(reader.join)
        self.addCleanup(watching.kill)
        limit = iter(range(1, 1000))

        def applied():  # until somebody listens nobody is told
            self.write(FLEET.replace("100", str(1000 + next(limit))))
            self.ctl("fleet", "apply", self.file, "--wait", str(harness.PATIENCE_S))
            return ("load", "confirmed") in told()

        harness.wait_until(applied, lambda: "a change on the stream: %s" % told())


if __name__ == "__main__":
    harness.main()
