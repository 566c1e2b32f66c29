#!/usr/bin/python3
"""Texts that mean harm, in every field: nothing of them runs or becomes a part of the page, and the layout holds.

First as they can get into a collector, which refuses some; then in place of every text of every answer of its API, as
if it refused none."""

import json
import time

import browser
import records
from browser import harness
from histories import encode
from looks import MISFITS
from place import Collector, Told

MARKUP = ("<img src=x onerror=window.ran=1><x-theirs>a</x-theirs>", "\"'><svg onload=window.ran=1><x-theirs>",
          "</textarea></title><script>window.ran=1</script><x-theirs>", "javascript:window.ran=1//${window.ran=1}{{1}}")
TURNED = "\u202egnp.exe\u2066\u200b\ufeff\u00ad"
CONTROLS = "a\x07b\x1b[31mc\x7f\x00d\r\ne\x85\u2028f"
LONG = "W" * 10000
UNSEEN = "\u202e\u2066\u200b\ufeff\u00ad\x07\x1b\x7f\x00\x85\u2028"
FLEET = """\
version: 1  # %s
intervals: {poll: 1s, check: 1s}
groups:
  - name: %s
    agents: ["*", %s]
    tests:
      %s: {load: {1m: 8}}
      %s: {http: "http://127.0.0.1:1/%s", contains: %s}
      %s: {process: %s}
      values: {mysql: 127.0.0.1, user: %s, values: [%s, %s]}
  - name: %s
    agents: [nobody]
    tests: {%s: {load: {}}}
"""


# Replaces all texts of others in what the API answers, of those that people or hosts have chosen; in what comes by the
# stream, too, which the page opens by itself where there is no SharedWorker.
REPLACE = """
delete window.SharedWorker;
window.replacedKinds = {};
const chosen = new Set(['name', 'account', 'message', 'target', 'address', 'version', 'group', 'author', 'about',
  'reason', 'by', 'was', 'detail', 'file', 'platform', 'status', 'unit', 'title', 'from', 'to', 'event']);
const states = new Set(['ok', 'problem', 'unknown', 'silent', 'stale']);
const isTime = (value) => /^\\d{4}-\\d\\d-\\d\\dT/.test(value);
const lists = new Set(['groups', 'items', 'groups_without']);
const replaced = (value, key) => {
  if (Array.isArray(value)) {
    return value.map((each) => (typeof each === 'string' && lists.has(key) ? text : replaced(each, '')));
  }
  if (value && typeof value === 'object') {
    return Object.fromEntries(Object.entries(value).map(([name, each]) =>
      [key === 'values' || key === 'inventories' ? name + text.slice(0, 200) : name, replaced(each, name)]));
  }
  return typeof value === 'string' && chosen.has(key) && !states.has(value) && !isTime(value) ? text : value;
};
const replacing = () => {
  let rest = '', kind = '';
  return new TransformStream({
    transform(part, out) {
      const lines = (rest + part).split('\\n');
      rest = lines.pop();
      for (const line of lines) {
        kind = line.startsWith('event:') ? line.slice(6).trim() : kind;
        if (line.startsWith('data:') && line.includes('{')) {
          window.replacedKinds[kind] = (window.replacedKinds[kind] ?? 0) + 1;
          out.enqueue('data: ' + JSON.stringify(replaced(JSON.parse(line.slice(5)), '')) + '\\n');
        } else {
          out.enqueue(line + '\\n');
        }
      }
    },
  });
};
const real = window.fetch;
window.fetch = async (...given) => {
  const answer = await real(...given);
  if (/event-stream/.test(answer.headers.get('Content-Type') ?? '')) {
    const body = answer.body.pipeThrough(new TextDecoderStream()).pipeThrough(replacing())
      .pipeThrough(new TextEncoderStream());
    return new Response(body, {status: answer.status, headers: answer.headers});
  }
  if (!String(given[0]).includes('/api/v1/') || !/json/.test(answer.headers.get('Content-Type') ?? '')) {
    return answer;
  }
  const {status, headers} = answer;
  return new Response(JSON.stringify(replaced(await answer.json(), '')), {status, headers});
};
"""


class Hostile(browser.TestCase):
    def setUp(self):
        super().setUp()
        self.collector = Collector(self, options=["--agents", "any"]).start()
        texts = [json.dumps(text[:100], ensure_ascii=False) for text in (*MARKUP, "name" + TURNED, LONG)]
        one, two, three, four, turned, long_one = texts
        fleet = FLEET % (MARKUP[0] + LONG + TURNED, one, three, one, two, LONG[:200], three, turned, four[:14] + '"',
                         four, '"<img/src=x/onerror=window.ran=1>"', json.dumps(LONG[:250]), long_one, long_one)
        self.fleet, self.limit = fleet, 8
        status, answer = self.collector.put(fleet)
        self.assertEqual(status, 200, answer)
        for name in (*MARKUP, LONG[:100]):
            body = json.dumps({"name": name[:100], "role": "viewer"})
            status, _, text = self.collector.ask("/api/v1/tokens", "POST", body)
            self.assertEqual(status, 201, text)
        self.now = int(time.time()) - 500
        self.agents = [Told(self.collector, name[:100]) for name in
                       (*MARKUP, TURNED.strip() + "web", LONG[:100], "plain")]
        for agent in self.agents:
            self.report(agent)
        self.begin_browser(self.collector.base)
        self.sign_in_by_cookie(self.collector.token)

    def report(self, agent, steps=4):
        """Messages, values and inventories; of each text an earlier and a later result, so that there are events."""
        kinds = {code: next((int(test[1]), int(test[2])) for test in agent.tests if test[0] == code)
                 for code in ("LAA", "HPA", "PRA", "MQA")}
        messages = MARKUP[0] + "\n", CONTROLS.replace("\0", ""), LONG, TURNED + MARKUP[2]
        for step, message in enumerate(messages[:steps]):
            self.now += 1
            when = self.now
            bad = 2 if step % 2 else 0
            names = "".join("%s|%s|%d;" % (name, value, bad) for name, value in (
                ("<img/src=x/onerror=window.ran=1>", MARKUP[1]), (LONG[:250], "5"), ("v", LONG), ("n" + TURNED, "7.5")))
            agent.report(
                encode([records.LOAD_AVERAGE, *kinds["LAA"], bad], [when], [9.0, 1.0, 1.0], [message]) +
                encode([records.PROCESS, *kinds["PRA"], 0, 3], [when], [0.0, 0.0, 0.0], [message]) +
                encode([records.MYSQL, *kinds["MQA"], bad, 5], [when], [], [names, message]) +
                b"".join(encode([kind, 0, 0], [when], [], ["\t".join((*MARKUP, TURNED, LONG, message)) + "\t"])
                         for kind in records.INVENTORIES))

    def tell_anew(self):
        """Another limit for all of them; each takes it."""
        self.limit += 1
        status, answer = self.collector.put(self.fleet.replace("{1m: 8}", "{1m: %d}" % self.limit))
        self.assertEqual(status, 200, answer)
        self.agents[-1].report(b"")

    def paths(self):
        tests = self.collector.get("/api/v1/tests?limit=1000")["items"]
        self.assertGreater(len(tests), 20)
        agents = self.collector.get("/api/v1/agents?limit=1000")["items"]
        some = {}
        for test in tests:  # one of each kind and agent's name would be too many: the names take turns
            some.setdefault(test["type"], []).append(test["id"])
        return (["/", "/?q=img", "/events", "/fleet", "/fleet/changes", "/tokens", "/admission", "/secrets"] +
                ["/tests/%d?range=1h" % ids[i % len(ids)] for i, ids in enumerate(some.values())] +
                ["/agents/%d" % agent["id"] for agent in agents[:3]])

    def check(self, path):
        """That nothing happened; for what is unfolded, too."""
        self.wait("document.querySelector('h1') !== null")
        self.wait_still()
        self.js("document.querySelectorAll('details').forEach((each) => { each.open = true; });"
                "document.querySelectorAll('button[aria-expanded=false]').forEach((each) => each.click())")
        for size in ((360, 740), (1280, 900)):
            self.look(size)
            self.frames()
            self.wait_still()
            found = self.js("""
                const all = (selector) => [...document.querySelectorAll(selector)];
                const theirs = all('x-theirs, #main img, #main script, iframe, object, embed, [onerror], [onload],' +
                  'link:not([rel=stylesheet], [rel=icon], [rel=modulepreload]), main [style*=url]')
                  .concat(all('a[href]').filter(({href}) => !/^(https?|blob):/.test(href)));
                const shown = [document.title, document.body.innerText,
                  ...all('[title], [aria-label]').flatMap((each) => [each.title, each.ariaLabel ?? ''])].join(' ');
                const unseen = [...arguments[0]].filter((sign) => shown.includes(sign));
                return {
                  ran: window.ran ?? null,
                  theirs: theirs.map((each) => each.outerHTML.slice(0, 200)),
                  unseen: unseen.map((sign) => sign.codePointAt(0)),
                };""", UNSEEN)
            self.assertEqual(found, {"ran": None, "theirs": [], "unseen": []}, path)
            screen = path.partition("?")[0].rstrip("0123456789")
            self.misfits |= {(screen, size[0], misfit[:80]) for misfit in self.js(MISFITS)}

    def test_as_they_come_through_the_collector(self):
        self.misfits = set()
        for path in self.paths():
            self.open(path)
            self.check(path)
        self.assertEqual(sorted(self.misfits), [])

    def test_in_every_answer(self):
        self.misfits = set()
        paths = self.paths()
        for text in (MARKUP[0] + MARKUP[2], CONTROLS + TURNED + MARKUP[1], LONG):
            script = self.cdp("Page.addScriptToEvaluateOnNewDocument", source="{const text = %s;%s}" % (
                json.dumps(text), REPLACE))["identifier"]
            for path in paths:
                self.open(path)
                self.check(path)
            self.cdp("Page.removeScriptToEvaluateOnNewDocument", identifier=script)
        self.assertEqual(sorted(self.misfits), [])

    def test_in_every_message_of_the_stream(self):
        self.misfits = set()
        plain = next(each["id"] for each in self.collector.get("/api/v1/agents?limit=1000")["items"]
                     if each["name"] == "plain")
        tests = {each["type"]: each["id"] for each in self.collector.get("/api/v1/tests?agent=%d" % plain)["items"]}
        paths = {"/": "event", "/events": "event", "/agents/%d" % plain: "result", "/fleet/changes": "change",
                 **{"/tests/%d?range=1h" % tests[kind]: "result" for kind in ("load average", "process", "mysql")}}
        for text in (MARKUP[0] + MARKUP[2], CONTROLS + TURNED + MARKUP[1], LONG):
            script = self.cdp("Page.addScriptToEvaluateOnNewDocument", source="{const text = %s;%s}" % (
                json.dumps(text), REPLACE))["identifier"]
            for path, kind in paths.items():
                self.open(path)
                self.wait_live()
                self.wait_still()
                before = self.js("return window.replacedKinds[arguments[0]] ?? 0", kind)
                if kind == "change":
                    self.tell_anew()
                else:
                    self.report(self.agents[-1], steps=2)
                self.wait("(window.replacedKinds[arguments[0]] ?? 0) > arguments[1]", kind, before, what=kind)
                self.frames()
                self.check(path)
            self.cdp("Page.removeScriptToEvaluateOnNewDocument", identifier=script)
        self.assertEqual(sorted(self.misfits), [])

    def test_in_the_address(self):
        self.misfits = set()
        self.expect("(/api/v1/.*|/sign-in) - Failed to load resource: .* (400|401|404)")
        for path in ("/?q=%3Cimg%20src=x%20onerror=window.ran=1%3E%3Cx-theirs%3E",
                     "/events?q=%3Cx-theirs%3E&agent=%3Cimg%20src=x%3E",
                     "/events?state=%3Cx-theirs%3E&type=%3Cx-theirs%3E&group=%E2%80%AE&from=%3Cx-theirs%3E",
                     "/tests/1?values=%3Cimg%20src=x%20onerror=window.ran=1%3E&range=javascript:window.ran=1&from=%00",
                     "/agents/%3Cimg%20src=x%20onerror=window.ran=1%3E", "/agents/" + "W" * 2000,
                     "/agents/%E2%80%AEtxt",
                     "/fleet/changes?agent=%3Cx-theirs%3E&test=%E2%80%AE", "/#link=%3Cimg%20src=x%3E",
                     "/fleet?line=-1e9"):
            self.open(path)
            self.check(path)
        self.assertEqual(sorted(self.misfits), [])


if __name__ == "__main__":
    harness.main()
