#!/usr/bin/python3
"""Every screen of the page against a real collector with real agents, and what happens while somebody looks at it."""

import json
import time

import browser
import records
from browser import harness
from held import hold, let_go, wait_held
from looks import MISFITS
from place import ONE_TEST, Collector, Host, Place, Told

THREE_TESTS = ONE_TEST + """\
      morning: {load: {1m: 8}}
      zebra: {load: {1m: 8}}
"""

# Answers are as if the collector had waited until the agent is silent, or its test over; `change` has the path and what
# the answer says.
CHANGED = """{
const ask = window.fetch;
const change = (path, said) => { %s };
window.fetch = async (...asked) => {
  const answer = await ask(...asked), path = String(asked[0]);
  if (!path.startsWith('/api/v1/') || !/json/.test(answer.headers.get('Content-Type') ?? '')) {
    return answer;
  }
  const said = await answer.json();
  change(path, said);
  return new Response(JSON.stringify(said), {status: answer.status, headers: answer.headers});
};
}"""


@harness.needs_namespaces
class Screens(browser.TestCase):
    def setUp(self):
        super().setUp()
        self.place = Place(self, "web-1", "db-1")
        self.collector = self.place.collector
        self.place.settle(5)
        self.begin_browser(self.collector.base)
        self.sign_in_by_cookie(self.collector.token)

    def test_now(self):
        self.open()
        self.wait_heading("Now")
        self.wait_text("nginx", ".problems")
        self.assertIn("on web-1", self.text(".problems"))
        self.assertIn("process", self.text(".problems"))
        self.wait("[...document.querySelectorAll('.tile')].map((tile) => tile.innerText.split('\\n')[0]).join()"
                  " === 'web-1,db-1'", what="two tiles, the worst first")
        self.assertEqual(self.driver.title, "Now – Vindral")
        # By state, and found by name.
        self.click(".count", "ok")
        self.wait("document.querySelectorAll('.tile').length === 1")
        self.type("#now-q", "db memory")
        self.wait_text("memory", "#main")
        self.wait("!document.getElementById('main').innerText.includes('nginx')")
        self.wait("location.search === '?q=db+memory' || location.search === '?q=db%20memory'")

    def test_search_by_group_and_by_address(self):
        found = "[...document.querySelectorAll('[aria-labelledby=now-found] .problem-title a')].map((each) => each.text)"
        self.open("/?q=web%20servers%20memory")
        self.wait(found + ".join() === 'memory'")
        self.type("#now-q", "127.0.0.1 memory")
        self.wait(found + ".join() === 'memory,memory'")

    def test_events_of_an_agent_by_its_name(self):
        self.open("/events")
        self.wait("document.querySelectorAll('.event').length >= 5")
        self.type("#events-agent", "web-1")
        self.keys(browser.Keys.ENTER)
        self.wait("location.search.includes('agent=') && document.querySelectorAll('.event').length === 3")
        self.assertNotIn("no agent", self.text("#main"))

    def test_agent(self):
        self.open("/agents/%d" % self.place.agent_id("web-1"))
        self.wait_heading("web-1")
        self.wait("document.querySelectorAll('.spark-item').length === 3")
        self.wait("document.querySelectorAll('.spark .spark-line').length > 0", what="small curves")
        text = self.text("#main")
        for part in ("user@example.net", "127.0.0.1", "every host", "web servers", "nginx", "memory"):
            self.assertIn(part, text)
        self.wait_text("of the last day", "#main")
        polls = "[...document.querySelectorAll('[aria-labelledby=agent-polls] time')].map((each) => each.dateTime)"
        first = self.wait(polls + "[0]", what="the last polls")
        self.wait(polls + "[0] > arguments[0]", first, what="one more")
        self.assertRegex(self.text("[aria-labelledby=agent-polls]"), "[0-9]{2}:[0-9]{2}:[0-9]{2}\\s+[0-9]+ result")
        self.click("summary", "(")  # an inventory
        self.wait("[...document.querySelectorAll('details[open] li')].length > 0")
        self.click("a", "nginx")
        self.wait_heading("nginx")

    def test_test(self):
        self.open("/tests/%d?range=1h" % self.place.test_id("web-1", "load"))
        self.wait_heading("load")
        self.wait("Number(document.querySelector('figure.chart')?.dataset.drawn) > 0", what="a curve")
        self.wait("document.querySelectorAll('svg.strip rect[data-state=ok]').length > 0", what="states as a strip")
        said = self.js("return document.querySelector('figure.chart p.hidden').textContent")
        self.assertRegex(said, "Limits: .*8")
        self.assertIn("0.25", self.text("figure.chart"))
        self.wait_text("Last results")
        self.wait_text("Group every host")
        lines = self.text("ol.source").strip()
        self.assertEqual(lines, "load:     {load: {1m: 8}}")
        whole = self.collector.get("/api/v1/fleet")["text"].split("\n")
        self.assertEqual(self.js("return document.querySelector('ol.source').start"), whole.index("      " + lines) + 1)
        self.wait("document.querySelectorAll('.timeline .event').length > 0")

    def test_while_a_test_is_read(self):
        """What is slow has its name at once, and says that it comes."""
        hold(self, "/results|/api/v1/events|/api/v1/fleet")
        self.open("/tests/%d?range=1h" % self.place.test_id("web-1", "load"))
        wait_held(self, 3)
        panels = "['results', 'events', 'source'].map((name) => document.querySelector(" \
                 "`section[aria-labelledby=test-${name}]`))"
        self.wait(panels + ".every((each) => each.querySelector('h2')?.id === each.getAttribute('aria-labelledby'))")
        self.wait(panels + ".every((each) => each.querySelector('[role=progressbar]') !== null)")
        let_go(self)
        self.wait(panels + ".every((each) => each.querySelector('.busy') === null)")
        self.wait_text("Group every host")

    def test_a_draft_has_the_lines_of_a_test_elsewhere(self):
        self.open("/tests/%d" % self.place.test_id("web-1", "memory"))
        self.click("section[aria-labelledby=test-source] a.button")
        chosen = "(() => { const area = document.getElementById('fleet-text');" \
                 " return area?.value.slice(area.selectionStart, area.selectionEnd).trim(); })()"
        self.wait(chosen + " === 'memory:   {memory: {free: 1 MB}}'")
        self.js("""const area = document.getElementById('fleet-text');
            area.value = '# of mine\\n\\n' + area.value;
            area.dispatchEvent(new Event('input', {bubbles: true}));""")
        self.driver.back()
        self.wait_heading("memory")
        self.click("section[aria-labelledby=test-source] a.button")
        self.wait(chosen + " === 'memory:   {memory: {free: 1 MB}}'")
        self.assertTrue(self.js("return document.getElementById('fleet-text').value.startsWith('# of mine')"))
        self.js("sessionStorage.clear()")

    def test_events_of_a_group_that_grows(self):
        """Who is in it is asked for: what comes meanwhile is not forgotten, and who joins is one of them."""
        of = "[...document.querySelectorAll('.event')].filter((each) => each.textContent.includes(arguments[0]))"
        hold(self, r"/api/v1/agents\?.*group=")
        self.open("/events?group=web%20servers")
        wait_held(self)
        self.wait_live()
        self.place.hosts["web-1"].set_load(9.5)
        self.new_tab()  # which has the same stream
        self.open("/")
        self.wait_text("load", ".problems")
        self.switch_to(self.tab)
        self.frames()
        let_go(self)
        self.wait(of + ".some((each) => each.dataset.state === 'problem')", "load")
        Host(self, self.collector, "web-2")
        self.wait(of + ".length >= 3", "web-2")

    def test_events(self):
        self.open("/events")
        self.wait_heading("Events")
        self.wait("document.querySelectorAll('.event').length >= 5")
        self.click("input[value=problem]")
        self.wait("location.search === '?state=problem'")
        self.wait("document.querySelectorAll('.event').length > 0 && "
                  "[...document.querySelectorAll('.event')].every((each) => each.dataset.state === 'problem')")
        self.driver.refresh()
        self.wait("document.querySelector('input[value=problem]')?.checked")
        self.wait("document.querySelectorAll('.event').length > 0 && "
                  "[...document.querySelectorAll('.event')].every((each) => each.dataset.state === 'problem')")

    def test_fleet_and_changes(self):
        self.open("/fleet")
        self.wait_heading("Fleet")
        self.wait("document.getElementById('fleet-text')?.value.startsWith('version: 1')")
        self.wait_text("Revision 1 by")
        self.click("#menu a", "Fleet")
        self.click("a", "Changes")
        self.wait_heading("Changes")
        self.wait_text("nginx", "#main")
        self.wait_text("confirmed", "#main")

    def test_what_somebody_left_is_not_for_another(self):
        self.open("/")
        self.wait_text("system test, admin", "#who")
        self.js("sessionStorage.setItem('fleet-draft', 'a text with a password')")
        self.driver.refresh()
        self.wait_text("system test, admin", "#who")
        self.assertIsNotNone(self.js("return sessionStorage.getItem('fleet-draft')"))
        status, _, made = self.collector.ask("/api/v1/tokens", "POST", '{"name": "ada", "role": "admin"}')
        self.assertEqual(status, 201, made)
        self.sign_in_by_cookie(json.loads(made)["token"])
        self.driver.refresh()
        self.wait_text("ada, admin", "#who")
        self.assertIsNone(self.js("return sessionStorage.getItem('fleet-draft')"))

    def test_lists_are_read_once(self):
        """When the stream is there, unless that takes long: then nothing has to be read again because of it."""
        made = self.cdp("Page.addScriptToEvaluateOnNewDocument", source="""new MutationObserver(() => {
            if (document.getElementById('connection')?.dataset.state === 'live') {
              window.liveAt ??= performance.now();
            }
        }).observe(document, {subtree: true, childList: true, attributes: true});""")
        self.open("/")
        self.wait_live()
        self.wait("document.querySelectorAll('.tile').length === 2")
        self.cdp("Page.removeScriptToEvaluateOnNewDocument", identifier=made["identifier"])
        live, asked, signed_in = self.js("""const of = (what) => performance.getEntriesByType('resource')
            .find((each) => each.name.includes(what));
            return [window.liveAt, of('/api/v1/agents?limit=1000').startTime, of('/healthz').responseEnd];""")
        self.assertTrue(asked > live - 5 or asked > signed_in + 280, (live, asked, signed_in))

    def test_what_is_not_there(self):
        self.expect(r"/api/v1/(tests|agents)/\S+ - Failed to load resource: .* 404")
        for path, text in (("/tests/nothing", "Nothing is here"), ("/tests/999999", "There is no such test"),
                           ("/agents/999999", "not here any more")):
            self.open(path)
            self.wait_text(text)
            self.assertEqual([each for each in self.all("#main button") if each.text == "Try again"], [])
        self.click("#main a", "All agents")
        self.wait_heading("Now")

    def test_a_clock_that_is_wrong(self):
        """Ages are by the collector's; and it is said."""
        for hours, said in ((3, "3 h ahead of"), (-3, "3 h behind")):
            made = self.cdp("Page.addScriptToEvaluateOnNewDocument", source="""{
                const Real = Date, shift = %d * 3600000;
                window.Date = class extends Real {
                  constructor(...given) {
                    super(...(given.length > 0 ? given : [Real.now() + shift]));
                  }
                  static now() {
                    return Real.now() + shift;
                  }
                };
            }""" % hours)
            self.open("/agents/%d" % self.place.agent_id("web-1"))
            self.wait_text("This device's clock is %s the collector's" % said, "#banner")
            self.wait("document.querySelectorAll('.spark-line').length > 0")
            last = "document.querySelector('[aria-labelledby=agent-facts] time[data-as=ago]').textContent"
            self.wait(last + " === 'just now'", what="a last poll just now, with %d h" % hours)
            for age in self.js("return [...document.querySelectorAll('time:is([data-as=since], [data-as=ago])')]"
                               ".map((each) => each.textContent)"):
                self.assertRegex(age, r"^(just now|[0-9]+ (s|min)( ago)?)$")
            self.cdp("Page.removeScriptToEvaluateOnNewDocument", identifier=made["identifier"])
        self.open("/")
        self.wait_live()
        self.assertEqual(self.text("#banner"), "")

    def test_only_its_own_server_is_asked(self):
        for path in ("/", "/tests/%d" % self.place.test_id("web-1", "load"), "/fleet"):
            self.open(path)
            self.wait_live()
            self.wait_still()
            asked = self.js("return performance.getEntriesByType('resource').map((each) => each.name)")
            self.assertTrue(asked)
            self.assertEqual([each for each in asked if not each.startswith(self.base + "/")], [])


@harness.needs_namespaces
class Failing(browser.TestCase):
    """A test that fails and comes back is seen without loading anything again."""

    def setUp(self):
        super().setUp()
        self.place = Place(self, "web-1", fleet=ONE_TEST)
        self.host = self.place.hosts["web-1"]
        self.place.settle(1)
        self.begin_browser(self.place.collector.base)
        self.sign_in_by_cookie(self.place.collector.token)

    def follow(self, path, state):
        """`state` is an expression: ok, problem or nothing yet, as the screen has it."""
        self.open(path)
        self.wait_live()
        self.wait(state + " === 'ok'", what=path)
        self.js("window.notLoadedAgain = true")
        for value, wanted in ((9.5, "problem"), (0.25, "ok")):
            self.host.set_load(value)
            self.wait("%s === '%s'" % (state, wanted), what="%s at %s" % (wanted, path), timeout_s=30)
        self.assertTrue(self.js("return window.notLoadedAgain"))

    def test_now(self):
        self.follow("/", "(document.querySelector('.problems .problem')?.dataset.state ?? "
                    "document.querySelector('.tile')?.dataset.state)")
        self.wait_text("All is well")

    def test_agent(self):
        self.follow("/agents/%d" % self.place.agent_id("web-1"),
                    "document.querySelector('.spark-item .badge')?.dataset.state")
        self.wait("document.querySelectorAll('.timeline .event').length >= 3")

    def test_test(self):
        self.follow("/tests/%d?range=1h" % self.place.test_id("web-1", "load"),
                    "document.querySelector('.head .badge')?.dataset.state")
        self.wait("document.querySelectorAll('svg.strip rect[data-state=problem]').length > 0")
        self.wait("document.querySelectorAll('.timeline .event').length >= 3")
        self.wait_text("9.5", "#main")

    def test_events(self):
        self.follow("/events", "document.querySelector('.event')?.dataset.state")

    def test_the_focus_when_a_problem_goes(self):
        self.open("/")
        self.wait_live()
        self.host.set_load(9.5)
        self.wait("document.querySelector('.problems .problem')?.dataset.state === 'problem'")
        self.js("document.querySelector('.problems .problem a').focus()")
        self.host.set_load(0.25)
        self.wait("document.querySelector('.problems .problem') === null")
        self.frames()
        self.assertEqual(self.js("return document.activeElement.textContent"), "What is wrong")

    def test_an_agent_that_is_retired(self):
        """Its test, which somebody looks at, says so."""
        self.open("/tests/%d" % self.place.test_id("web-1", "load"))
        self.wait_live()
        self.wait_text("Last results")
        self.host.agent.stop()
        status, _, said = self.place.collector.ask("/api/v1/agents/%d" % self.place.agent_id("web-1"), "DELETE")
        self.assertEqual(status, 204, said)
        self.wait_text("Its agent is retired", ".head")


class Soon(browser.TestCase):
    def test_shown_within_a_second_of_its_poll(self):
        collector = Collector(self).start()
        collector.apply(ONE_TEST)
        agent = Told(collector, "web-1")
        begun = int(time.time()) - 100
        agent.load([(begun, 1.0)])
        test, = collector.get("/api/v1/tests")["items"]
        self.begin_browser(collector.base)
        self.sign_in_by_cookie(collector.token)
        self.open("/tests/%d?range=1h" % test["id"])
        self.wait_live()
        self.wait("document.querySelectorAll('section[aria-labelledby=test-results] tbody tr').length > 0")
        self.js(r"""window.seen = {};
            const facts = document.querySelector('section[aria-label="How it stands"]');
            new MutationObserver(() => {
              window.seen[/\b2\.\d\d\b/.exec(facts.innerText)?.[0]] ??= Date.now();
            }).observe(facts, {childList: true, subtree: true, characterData: true});
            """)
        late = []
        for i in range(11, 19):
            polled = time.time()
            agent.load([(begun + i, 2 + i / 100)])
            seen = self.wait("window.seen[arguments[0]]", "2.%d" % i)
            late.append(seen / 1000 - polled)
        self.assertLess(sorted(late)[len(late) // 2], 1.0, late)
        self.assertLess(max(late), 3.0, late)


class Past(browser.TestCase):
    """What an agent that is silent said, and a test that nothing plans any more."""

    def setUp(self):
        super().setUp()
        self.collector = Collector(self).start()
        self.collector.apply(THREE_TESTS)
        agent = Told(self.collector, "web-1")
        begun = int(time.time()) - 50
        for test, value in zip([test for test in agent.tests if test[0] == "LAA"], (1.23456, 1.0, 9.0)):
            agent.report(records.encode_load(records.Load(
                int(test[1]), int(test[2]), begun, (value, value, value), "said\n", 2 if value > 8 else 0)))
        self.assertEqual(sorted((test["name"], test["state"]) for test in self.collector.get("/api/v1/tests")["items"]),
                         [("load", "ok"), ("morning", "ok"), ("zebra", "problem")])
        self.agent, = self.collector.get("/api/v1/agents")["items"]
        self.begin_browser(self.collector.base)
        self.sign_in_by_cookie(self.collector.token)

    def open_changed(self, change):
        made = self.cdp("Page.addScriptToEvaluateOnNewDocument", source=CHANGED % change)
        self.open("/agents/%d" % self.agent["id"])
        self.cdp("Page.removeScriptToEvaluateOnNewDocument", identifier=made["identifier"])
        self.wait("document.querySelectorAll('.spark-item .spark-value').length === 3")
        self.frames()
        return [item.text.replace("\n", " ") for item in self.all(".spark-item")]

    def test_an_agent_that_is_silent(self):
        rows = self.open_changed("""
            const silent = {state: 'unknown', since: new Date().toISOString().replace(/[.].*/, 'Z')};
            if (/agents.[0-9]+$/.test(path)) {
              window.since = silent.since;
              Object.assign(said, silent, {state: 'silent', tests: {ok: 0, problem: 0, unknown: 3}});
            } else if (path.includes('/tests?')) {
              said.items.forEach((test) => Object.assign(test, silent, {since: window.since}));
            }""")
        self.assertIn("zebra was a problem", rows[0])
        self.assertIn("said", rows[0])
        self.assertNotIn("said", rows[1], "a message of what was well")
        self.assertNotIn("Nothing has come", " ".join(rows))
        head = self.text(".head")
        self.assertRegex(head, r"Its last poll came .* from 127\.0\.0\.1\. Does its host run, and reach")
        self.assertIn("3 tests: 3 unknown", head)
        self.assertNotIn("0 ok", head)
        self.assertEqual(self.js("return ['.spark-value b', '.message', '.note'].map((each) => getComputedStyle("
                                 "document.querySelector(`.spark-item ${each}`)).color).filter((each, i, all) =>"
                                 "all.indexOf(each) === i).length"), 1, "what was is grey")

    def test_no_longer_planned(self):
        rows = self.open_changed("""
            if (/agents.[0-9]+$/.test(path)) {
              said.tests = {ok: 1, problem: 1, unknown: 1};
            } else if (path.includes('/tests?')) {
              Object.assign(said.items.find((test) => test.name === 'load'),
                {state: 'unknown', since: new Date().toISOString().replace(/[.].*/, 'Z')});
            }""")
        self.assertRegex(rows[2], r"^unknown load no longer planned since [0-9]+:[0-9]+")
        self.assertNotIn("Nothing has come", rows[2])
        self.wait_text("2 tests: 1 problem, 1 ok, 1 no longer planned", ".head")
        self.assertEqual(self.text("#agent-tests"), "2 tests, 1 no longer planned")
        self.assertEqual(self.js("return document.querySelectorAll('.spark-value b')[2].title"), "1.23456")


class Many(browser.TestCase):
    def test_the_same_on_many_agents(self):
        """One line that unfolds, until few are left; what is well again is said."""
        collector = Collector(self).start()
        collector.apply(ONE_TEST)
        begun = int(time.time()) - 50
        agents = [Told(collector, "web-%d" % i) for i in range(25)]
        for agent in agents:
            agent.load([(begun, 9.0)])
        self.begin_browser(collector.base)
        self.sign_in_by_cookie(collector.token)
        self.open("/")
        self.wait_live()
        own = "document.querySelectorAll('[aria-labelledby=now-problems] > .problems > .problem')"
        self.wait("[...%s].map((each) => each.querySelector('.problem-title').innerText.replace(/\\s+/g, ' '))"
                  ".join() === 'problem load on 25 agents'" % own)
        self.assertEqual(self.text("#now-problems"), "What is wrong (25)")
        self.assertEqual(self.all(".problem a"), [])
        self.js("document.querySelector('.problem summary').focus()")
        self.keys(browser.Keys.ENTER)
        self.assertEqual(self.text(".lead"), "Of 25 agents 25 have problems.")
        self.wait("document.querySelectorAll('.problem .problem a').length === 50")
        self.keys(browser.Keys.TAB)
        self.assertEqual(self.js("return document.activeElement.textContent"), "load")
        for size in ((360, 740), (1280, 900)):
            self.look(size)
            self.assertEqual(self.js(MISFITS), [])
        self.click(".lead a", "25 agents")
        self.assertEqual(self.js("return [document.activeElement.id, location.pathname + location.hash]"),
                         ["now-agents", "/"])
        self.js("""window.said = [];
            new MutationObserver(() => window.said.push(document.getElementById('said').textContent)).observe(
              document.getElementById('said'), {childList: true, characterData: true, subtree: true});
            document.querySelector('.problem summary').focus();""")
        agents[0].load([(begun + 1, 1.0)])
        self.wait("document.querySelector('.problem .problem-title').innerText.includes('24 agents')")
        self.assertEqual(self.js("return document.activeElement.localName"), "summary")
        self.assertEqual(len(self.all(".problem .problem")), 24)
        self.wait("window.said.includes('load on web-0 is ok again.')")
        for agent in agents[1:16]:
            agent.load([(begun + 1, 1.0)])
        self.wait(own + ".length === 9")
        self.assertEqual(self.all(".problem details"), [])


if __name__ == "__main__":
    harness.main()
