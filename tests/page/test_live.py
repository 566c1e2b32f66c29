#!/usr/bin/python3
"""The stream: a collector that goes away and comes back under the page, several tabs, one that sleeps."""

import time
import urllib.parse

import browser
from browser import harness
from place import ONE_TEST, Collector, Place, Told


@harness.needs_namespaces
class Live(browser.TestCase):
    def setUp(self):
        super().setUp()
        self.place = Place(self, "web-1", fleet=ONE_TEST).settle(1)
        self.collector = self.place.collector
        self.host = self.place.hosts["web-1"]
        self.relay = browser.Relay(self, self.collector.web_port)
        self.begin_browser("http://127.0.0.1:%d" % self.relay.port)
        self.sign_in_by_cookie(self.collector.token)

    def newest(self):
        """Time of the newest result that the screen of a test shows."""
        return self.js("return document.querySelector('section[aria-labelledby=test-results] tbody time')"
                       "?.dateTime ?? ''")

    def wait_problem(self, is_problem):
        self.wait("(document.querySelector('.problems .problem')?.dataset.state === 'problem') === arguments[0]",
                  is_problem)

    def test_collector_restarted_under_the_page(self):
        self.expect("ERR_(CONNECTION|EMPTY|INCOMPLETE|NETWORK|SOCKET)|status of 503")
        self.open("/tests/%d?range=1h" % self.place.test_id("web-1", "load"))
        self.wait_live()
        self.wait("document.querySelectorAll('section[aria-labelledby=test-results] tbody tr').length > 0")
        self.js("window.notLoadedAgain = true")
        self.collector.kill()
        self.wait("document.getElementById('connection').dataset.state === 'away'", what="it is shown as away")
        self.wait_text("Not connected since", "#connection")
        self.wait_text("The collector has not answered since", "#banner")
        before = self.newest()
        self.assertNotEqual(before, "", "what was shown goes on to be: " + self.text("#main"))
        self.collector.start()
        self.wait_live()
        self.wait("document.getElementById('banner').textContent === ''")
        harness.wait_until(lambda: self.newest() > before, "values that go on")
        self.host.set_load(9.5)
        self.wait("document.querySelector('.head .badge').dataset.state === 'problem'")
        self.assertTrue(self.js("return window.notLoadedAgain"))
        self.assertIn("system test, admin", self.text("#who"))

    def test_what_happened_meanwhile(self):
        """Where nothing of it can come by the stream any more: the lists are read again."""
        self.expect("ERR_(CONNECTION|EMPTY|INCOMPLETE|NETWORK|SOCKET)|status of 503")
        self.open("/")
        self.wait_live()
        self.wait_problem(False)
        self.collector.stop()
        self.wait("document.getElementById('connection').dataset.state === 'away'")
        self.host.set_load(9.5)
        self.collector.start()
        harness.wait_until(lambda: self.place.tests()[0]["state"] == "problem", "the collector to know")
        self.wait_live()
        self.wait_problem(True)

    def test_a_connection_that_breaks(self):
        self.expect("ERR_(CONNECTION|EMPTY|INCOMPLETE|NETWORK|SOCKET)")
        self.open("/")
        self.wait_live()
        self.relay.cut()
        self.wait("document.getElementById('connection').dataset.state !== 'live'")
        self.host.set_load(9.5)
        self.wait_live()
        self.wait_problem(True)

    def test_tabs_share_one_stream(self):
        tabs = [self.tab, self.new_tab(), self.new_tab()]
        for tab in tabs:
            self.switch_to(tab)
            self.open("/")
            self.wait_live()
        self.assertEqual(self.relay.streams, 1)
        self.host.set_load(9.5)
        for tab in tabs:
            self.switch_to(tab)
            self.wait_problem(True)
        self.assertEqual((self.relay.streams, self.relay.most), (1, 1))
        # The one that was first is closed: the others go on.
        self.switch_to(tabs[0])
        self.driver.close()
        self.switch_to(tabs[1])
        self.host.set_load(0.25)
        for tab in tabs[1:]:
            self.switch_to(tab)
            self.wait_problem(False)
        self.assertEqual(self.relay.streams, 1)

    def test_a_tab_that_slept(self):
        self.open("/")
        self.wait_live()
        self.wait_problem(False)
        self.js("document.addEventListener('freeze', () => { window.hasSlept = true; })")
        self.cdp("Page.setWebLifecycleState", state="frozen")
        self.host.set_load(9.5)
        harness.wait_until(lambda: self.place.tests()[0]["state"] == "problem", "the collector to know")
        self.cdp("Page.setWebLifecycleState", state="active")
        self.cdp("Page.bringToFront")
        self.wait_problem(True)
        self.assertTrue(self.js("return window.hasSlept"))


class Line(browser.Relay):
    """One on which streams can die without an end: nothing comes of them any more, and nobody is told."""

    def __init__(self, test, port):
        self.streams_of, self.dead = {}, set()  # by the socket to the browser
        self.asked = []  # what streams were asked for
        super().__init__(test, port)

    def die(self):
        self.dead |= {here for here, streams in list(self.streams_of.items()) if streams[0] > 0}
        return len(self.dead)

    def _copy(self, source, target, streams=None):
        here = target if streams is None else source
        if streams is not None:
            self.streams_of[here] = streams
        super()._copy(source, self.End(self, here, target), streams)

    class End:
        def __init__(self, line, here, socket):
            self.line, self.here, self.socket = line, here, socket

        def sendall(self, data):
            if data.startswith(b"GET /api/v1/stream?"):
                query = data.split(b" ")[1].partition(b"?")[2].decode()
                self.line.asked.append(dict(urllib.parse.parse_qsl(query)))
            if self.here not in self.line.dead:
                self.socket.sendall(data)

        def shutdown(self, how):
            self.socket.shutdown(how)


@harness.needs_namespaces
class Wishes(browser.TestCase):
    def test_results_of_what_the_tabs_look_at(self):
        place = Place(self, "web-1", "web-2", fleet=ONE_TEST).settle(2)
        line = Line(self, place.collector.web_port)
        self.begin_browser("http://127.0.0.1:%d" % line.port)
        self.sign_in_by_cookie(place.collector.token)
        self.open("/")
        self.wait_live()
        self.assertEqual(line.asked, [{"kind": "agent,change,event"}])
        test, agent = place.test_id("web-1", "load"), place.agent_id("web-2")
        both = {"kind": "agent,change,event,result", "result_agent": str(agent), "result_test": str(test)}
        newest = "document.querySelector('section[aria-labelledby=%s] time')?.dateTime"
        self.open("/tests/%d?range=1h" % test)
        first = self.wait(newest % "test-results")
        self.wait(newest % "test-results" + " > arguments[0]", first, what="a result that comes by itself")
        self.assertEqual(line.asked[-1], {name: both[name] for name in ("kind", "result_test")})
        other = self.new_tab()
        self.open("/agents/%d" % agent)
        first = self.wait(newest % "agent-polls")
        self.wait(newest % "agent-polls" + " > arguments[0]", first, what="a poll that comes by itself")
        self.assertEqual(line.asked[-1], both)
        self.switch_to(self.tab)
        first = self.wait(newest % "test-results")
        self.wait(newest % "test-results" + " > arguments[0]", first, what="one after the other tab was opened")
        self.assertEqual((line.asked[-1], line.streams), (both, 1))
        self.switch_to(other)


@harness.needs_namespaces
class DeadLine(browser.TestCase):
    def test_a_line_that_dies_without_an_end(self):
        """Only its silence says so: the server says something each quarter of a minute."""
        place = Place(self, "web-1", fleet=ONE_TEST).settle(1)
        line = Line(self, place.collector.web_port)
        self.begin_browser("http://127.0.0.1:%d" % line.port)
        self.sign_in_by_cookie(place.collector.token)
        self.open("/")
        self.wait_live()
        self.wait("document.querySelectorAll('.tile').length === 1")
        self.js("""window.states = [];
            new MutationObserver(() => window.states.push(document.getElementById('connection').dataset.state))
              .observe(document.getElementById('connection'), {attributes: true, attributeFilter: ['data-state']});""")
        self.assertEqual(line.die(), 1)
        place.hosts["web-1"].set_load(9.5)
        harness.wait_until(lambda: place.tests()[0]["state"] == "problem", "the collector to know")
        self.wait("/^away,(.*,)?live$/.test(window.states.join())", timeout_s=120)
        self.wait("document.querySelector('.problems .problem')?.dataset.state === 'problem'")


@harness.needs_namespaces
class Back(browser.TestCase):
    def test_an_agent_that_is_back(self):
        """While an agent is silent its tests are listed as unknown. No event says what they are after that."""
        place = Place(self, "web-1", fleet=ONE_TEST + "      memory:   {memory: {free: 1 MB}}\n").settle(2)
        self.begin_browser(place.collector.base)
        self.sign_in_by_cookie(place.collector.token)
        self.cdp("Page.addScriptToEvaluateOnNewDocument", source="""const ask = window.fetch;
            window.fetch = async (...asked) => {
              const answer = await ask(...asked);
              if (!String(asked[0]).includes('/api/v1/tests?') || window.isBack) {
                return answer;
              }
              const tests = await answer.json();
              tests.items.forEach((test) => { test.state = 'unknown'; });
              return Response.json(tests);
            };""")
        states = "[...document.querySelectorAll('.spark-item .badge')].map((each) => each.dataset.state).join()"
        self.open("/agents/%d" % place.agent_id("web-1"))
        self.wait_live()
        self.wait(states + " === 'unknown,unknown'")
        self.wait("document.querySelectorAll('.spark-line').length === 2", what="that all is read")
        self.js("window.isBack = true")
        place.hosts["web-1"].set_load(9.5)
        self.wait(states + " === 'problem,ok'")


class Curves(browser.TestCase):
    def test_those_that_could_not_be_read(self):
        """Where the collector was not well, they are asked for again, also when no result comes."""
        collector = Collector(self).start()
        collector.apply(ONE_TEST)
        now = int(time.time())
        Told(collector, "web-1").load([(now, 0.25)])
        agent, = collector.get("/api/v1/agents")["items"]
        self.begin_browser(collector.base)
        self.sign_in_by_cookie(collector.token)
        self.cdp("Page.addScriptToEvaluateOnNewDocument", source="""const ask = window.fetch;
            window.refused = 0;
            window.fetch = async (...asked) => {
              if (!String(asked[0]).includes('/series?') || window.isWell) {
                return ask(...asked);
              }
              window.refused++;
              return Response.json({title: 'Internal error'}, {status: 500});
            };""")
        self.open("/agents/%d" % agent["id"])
        self.wait("window.refused > 0")
        self.wait("document.querySelector('.spark')?.ariaLabel === 'The curve could not be read'")
        self.js("window.isWell = true")
        self.wait("document.querySelector('.spark')?.ariaLabel.includes('in the last hours')")


if __name__ == "__main__":
    harness.main()
