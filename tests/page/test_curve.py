#!/usr/bin/python3
"""The curve of a test: ranges, zoom by dragging and by keys, limits, states."""

import datetime
import math
import re
import time
import urllib.parse

import browser
from browser import ActionChains, Keys, harness
from held import hold, hold_too, let_go, wait_held
from place import Collector, Told

FLEET = """\
version: 1
groups:
  - name: everything
    agents: ["*"]
    tests:
      load:     {load: {1m: 8}}
"""
HOUR = 3600
# How much of each row of the curve's canvases has a colour of the page's, translucent as it may be.
PIXELS = """
const copyOf = (width, height, draw) => {
  const canvas = Object.assign(document.createElement('canvas'), {width, height});
  const to = canvas.getContext('2d', {willReadFrequently: true});
  draw(to);
  return to.getImageData(0, 0, width, height).data;
};
const wanted = copyOf(1, 1, (to) => {
  to.fillStyle = getComputedStyle(document.querySelector('figure.chart')).getPropertyValue(arguments[0]).trim();
  to.fillRect(0, 0, 1, 1);
});
const rows = new Map();
for (const canvas of document.querySelectorAll('.chart-place canvas')) {
  const {width, height} = canvas;
  const data = copyOf(width, height, (to) => to.drawImage(canvas, 0, 0));
  for (let i = 0; i < width * height; i++) {
    if (wanted.every((part, k) => Math.abs(part - data[4 * i + k]) <= 3)) {
      const row = Math.floor(i / width);
      rows.set(row, (rows.get(row) ?? 0) + 1 / width);
    }
  }
}
return Object.fromEntries(rows);
"""

# Changes what the API says of the test and of its agent.
CHANGED = """
const real = window.fetch;
window.fetch = async (...given) => {
  const answer = await real(...given);
  const of = /api\\/v1\\/(test|agent)s\\/[0-9]+$/.exec(new URL(given[0], location.href).pathname);
  if (!of) {
    return answer;
  }
  const body = await answer.json();
  const test = of[1] === 'test' ? body : {}, agent = of[1] === 'agent' ? {...body, retired: undefined} : {};
  %s;
  return new Response(JSON.stringify(of[1] === 'test' ? test : agent), {headers: answer.headers});
};
"""


class Curve(browser.TestCase):
    def setUp(self):
        super().setUp()
        self.collector = Collector(self).start()
        self.collector.apply(FLEET)
        agent = self.agent = Told(self.collector, "web-1")
        self.now = int(time.time())
        # A wave of a day and a half, one result a minute; it was too much an hour ago, for six minutes.
        agent.load((when, 10.0 if HOUR - 360 <= self.now - when < HOUR else 4 + 3 * math.sin(when / 3000))
                   for when in range(self.now - 36 * HOUR, self.now, 60))
        test, = self.collector.get("/api/v1/tests")["items"]
        self.path = "/tests/%d" % test["id"]
        self.begin_browser(self.collector.base)
        self.sign_in_by_cookie(self.collector.token)

    def begin(self, query=""):
        self.open(self.path + query)
        self.wait_drawn()

    def wait_drawn(self):
        self.wait("Number(document.querySelector('figure.chart')?.dataset.drawn) > 0", what="a curve")

    def asked(self):
        """The time of which the curve was asked for last: begin and end in seconds; None for now."""
        url = self.js("return performance.getEntriesByType('resource').filter((each) => each.name.includes('/series?'))"
                      ".at(-1)?.name ?? ''")
        query = urllib.parse.parse_qs(urllib.parse.urlsplit(url).query)
        return tuple(self.seconds(query[name][0]) if name in query else None for name in ("from", "to"))

    def shown(self):
        """The same of the address bar."""
        query = urllib.parse.parse_qs(urllib.parse.urlsplit(self.address).query)
        return tuple(self.seconds(query[name][0]) for name in ("from", "to"))

    @staticmethod
    def seconds(text):
        return datetime.datetime.fromisoformat(text.replace("Z", "+00:00")).timestamp()

    def wait_asked(self, condition, what):
        harness.wait_until(lambda: condition(*self.asked()), lambda: "%s; asked for %s, at %s" % (
            what, self.asked(), self.address), browser.PATIENCE_S)
        self.wait_drawn()

    def drag(self, begin, end, down=Keys.NULL):
        """From one share of the curve's width to another."""
        plot = self.find(".chart-place")
        self.js("arguments[0].scrollIntoView({block: 'center'})", plot)
        width = plot.size["width"]
        ActionChains(self.driver, duration=50).move_to_element_with_offset(plot, round((begin - 0.5) * width), 0) \
            .click_and_hold().move_by_offset(round((end - begin) * width / 2), 3) \
            .move_by_offset(round((end - begin) * width / 2), 0).release().perform()

    def test_zoom_by_dragging(self):
        self.begin("?range=6h")
        self.drag(0.4, 0.6)
        self.wait("location.search.includes('from=')")
        self.wait_asked(lambda begin, end: end is not None, "a time that ends")
        begin, end = self.shown()
        self.assertAlmostEqual(end - begin, 0.2 * 6 * HOUR, delta=0.05 * 6 * HOUR)
        self.assertAlmostEqual((begin + end) / 2, self.now - 3 * HOUR, delta=0.1 * 6 * HOUR)
        for asked, address in zip(self.asked(), (begin, end)):
            self.assertAlmostEqual(asked, address, delta=1)
        self.assertIn("Results before the end of that time", self.text("#main"))
        # To the left, and closer still.
        self.drag(0.8, 0.3)
        self.wait_asked(lambda other, _: other > begin + 60, "closer")
        self.assertLess(self.shown()[1], end)
        self.driver.back()
        self.wait_asked(lambda other, _: abs(other - begin) < 2, "back to the first one")
        self.driver.back()
        self.wait("location.search === '?range=6h'")
        self.wait_asked(lambda other, end: end is None and abs(other - (self.now - 6 * HOUR)) < HOUR / 2, "back to now")
        self.driver.forward()
        self.wait_asked(lambda other, _: abs(other - begin) < 2, "forward again")

    def test_a_click_is_no_zoom(self):
        self.begin("?range=6h")
        self.drag(0.5, 0.502)
        self.find(".chart-place").click()
        self.assertEqual(self.address, self.path + "?range=6h")

    def test_zoom_by_keys(self):
        past = [time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(self.now - back * HOUR)) for back in (16, 10)]
        self.begin("?from=%s&to=%s" % tuple(past))
        self.js("document.querySelector('.chart-place').focus()")
        self.keys("+")
        self.wait("!location.search.includes(arguments[0])", past[0])
        begin, end = self.shown()
        self.assertAlmostEqual(end - begin, 3 * HOUR, delta=120)
        self.assertAlmostEqual(end, self.now - 11.5 * HOUR, delta=120)
        self.keys(Keys.ARROW_LEFT)
        self.wait_asked(lambda other, _: other < begin - HOUR / 2, "earlier")
        moved = self.shown()
        self.assertAlmostEqual(moved[1] - moved[0], 3 * HOUR, delta=120)
        self.keys("-")
        self.wait_asked(lambda other, _: other < moved[0] - HOUR, "wider")
        self.keys(Keys.ESCAPE)
        self.wait_asked(lambda other, _: abs(other - moved[0]) < 2, "back")
        self.keys(Keys.HOME)
        self.wait_asked(lambda _, end: end is None, "now")
        self.assertEqual(self.js("return document.activeElement.className"), "chart-place", "the focus stays")

    def test_zoom_of_what_goes_on(self):
        """It ends now, whatever it is zoomed to; what is shorter than the shortest is a time of its own."""
        self.begin("?range=6h")
        self.js("document.querySelector('.chart-place').focus()")
        for key, word in (("+", "1h"), ("+", "15m"), ("-", "1h"), ("-", "6h"), ("-", "")):
            self.keys(key)
            self.wait("location.search === arguments[0]", "?range=" + word if word else "")
            self.wait_asked(lambda _, end: end is None, word)
        self.open(self.path + "?range=15m")
        self.wait_drawn()
        self.click("button", "+")
        self.wait("location.search.includes('from=')")
        begin, end = self.shown()
        self.assertAlmostEqual(end - begin, HOUR / 8, delta=2)
        self.assertLess(abs(end - time.time()), browser.PATIENCE_S)
        said = self.text("section[aria-labelledby=test-curve]")
        self.assertRegex(said, r"\d\d:\d\d:\d\d to \d\d:\d\d:\d\d, 7 min")

    def test_a_young_test_shows_what_there_is(self):
        """Not a day of which nothing is known, unless that is asked for."""
        young = Told(self.collector, "young")
        young.load((when, 2.0) for when in range(int(time.time()) - 300, int(time.time()) - 1, 10))
        test, = [each for each in self.collector.get("/api/v1/tests")["items"] if each["agent"]["name"] == "young"]
        self.path = "/tests/%d" % test["id"]
        self.begin()
        self.assertEqual(self.find(".chart-tools .choices a[aria-current]").text, "15 min")
        self.wait_asked(lambda begin, end: end is None and time.time() - begin < HOUR, "what there is")
        self.click(".chart-tools .choices a", "Day")
        self.wait("location.search === '?range=1d'")
        self.wait_asked(lambda begin, _: time.time() - begin > 23 * HOUR, "a day")
        self.assertEqual(self.find(".chart-tools .choices a[aria-current]").text, "Day")

    def test_why_nothing_comes(self):
        """Nothing on the screen is to look as if the test were well."""
        self.begin("?range=1h")
        self.assertNotIn("agent", self.text(".head"))
        # What takes some intervals to come is put into the answers.
        for script, said in (
                ("test.state = 'unknown'; test.since = new Date().toISOString()", "It is no longer planned, since "),
                ("agent.state = 'silent'", "Its agent web-1 is silent since ")):
            made = self.cdp("Page.addScriptToEvaluateOnNewDocument", source=CHANGED % script)["identifier"]
            self.open(self.path)
            self.wait_text(said, ".head")
            self.assertTrue(self.find("section.past[aria-label='How it stands']"))
            self.cdp("Page.removeScriptToEvaluateOnNewDocument", identifier=made)
        self.begin("?range=1h")
        self.assertEqual(self.collector.ask("/api/v1/agents/%d" % self.agent_id(), "DELETE")[0], 204)
        self.wait_text("Its agent is retired", ".head")

    def agent_id(self):
        return self.collector.get("/api/v1/agents")["items"][0]["id"]

    def test_results_are_told_apart(self):
        self.begin("?range=1h")
        self.wait("document.querySelectorAll('section[aria-labelledby=test-results] tbody tr').length > 3")
        times = self.js("return [...document.querySelectorAll('section[aria-labelledby=test-results] tbody time')]"
                        ".map((each) => each.textContent)")
        self.assertRegex(times[0], r"\d\d:\d\d:\d\d$")

    def test_a_time_without_results(self):
        """Keys lead out of it, too."""
        path = "?from=2020-01-01T00:00:00Z&to=2020-01-02T00:00:00Z"
        self.begin("?range=6h")
        self.js("document.querySelector('.chart-place').focus()")
        self.js("history.pushState(null, '', arguments[0]); dispatchEvent(new PopStateEvent('popstate'))",
                self.path + path)
        self.wait_text("No results in this time")
        self.keys("+")
        self.wait("location.search.includes('from=2020-01-01T06:00:00Z')")
        self.assertNotEqual(self.js("return document.activeElement.localName"), "body", "the focus is somewhere")
        self.keys(Keys.HOME)
        self.wait("!location.search.includes('from=')")
        self.wait_drawn()

    def test_ranges(self):
        self.begin()
        for name, word, span in (("1 hour", "?range=1h", HOUR), ("Week", "?range=7d", 7 * 24 * HOUR),
                                 ("Month", "?range=30d", 30 * 24 * HOUR), ("Two years", "?range=2y", 730 * 24 * HOUR),
                                 ("Day", "", 24 * HOUR)):
            self.click(".chart-tools .choices a", name)
            self.wait("location.search === arguments[0]", word)
            self.wait_asked(lambda begin, end, span=span:
                            end is None and abs(time.time() - span - begin) < span / 50 + 60, name)
            self.assertEqual(self.find(".chart-tools .choices a[aria-current]").text, name)
        # Any time at all.
        self.click("summary", "Another time")
        self.js("""for (const [id, value] of Object.entries(arguments[0])) {
            document.getElementById(id).value = value;
        }""", {"test-from": time.strftime("%Y-%m-%dT%H:%M", time.localtime(self.now - 5 * HOUR)),
               "test-to": time.strftime("%Y-%m-%dT%H:%M", time.localtime(self.now - 4 * HOUR))})
        self.click("form button", "Show")
        self.wait_asked(lambda begin, end: end is not None, "another time")
        self.assertAlmostEqual(self.shown()[0], self.now - 5 * HOUR, delta=60)
        self.driver.refresh()
        self.wait_drawn()
        self.assertAlmostEqual(self.asked()[1], self.now - 4 * HOUR, delta=60)

    def test_limits_are_lines(self):
        self.begin("?range=6h")
        self.wait("[...document.querySelectorAll('.chart-place canvas')].length > 0")
        rows = harness.wait_until(lambda: {int(row): share for row, share in self.js(PIXELS, "--problem").items()
                                           if share > 0.3}, "a line of the limit's colour", browser.PATIENCE_S)
        self.assertLessEqual(len(rows), 3, rows)  # dashed, and but a pixel or two high
        self.assertTrue(self.js(PIXELS, "--accent"), "the curve itself")
        said = self.js("return document.querySelector('figure.chart p.hidden').textContent")
        self.assertRegex(said, r"Limits: .*\b8\b")

    def test_states_are_a_strip(self):
        self.begin("?range=6h")
        boxes = self.wait("""(() => {
            const strip = document.querySelector('figure.chart svg.strip');
            const all = [...strip?.querySelectorAll('rect[data-state]') ?? []].map((each) => ({
              state: each.dataset.state, x: Number(each.getAttribute('x')), width: Number(each.getAttribute('width')),
            }));
            return all.some(({state}) => state === 'problem') && all;
        })()""")
        problem, = [box for box in boxes if box["state"] == "problem"]
        whole = max(box["x"] + box["width"] for box in boxes) - min(box["x"] for box in boxes)
        self.assertAlmostEqual(problem["width"] / whole, 360 / (6 * HOUR), delta=0.01)
        self.assertIn("problem 6 min", self.text("section[aria-labelledby=test-curve]"))
        self.assertIn("problem 6 min", self.js("return document.querySelector('svg.strip').getAttribute('aria-label')"))

    def test_exact_times(self):
        self.begin("?range=1h")
        plot = self.find(".chart-place")
        ActionChains(self.driver).move_to_element(plot).perform()
        reading = self.wait("(() => { const note = document.querySelector('figure.chart .chart-note');"
                            " return note.title !== '' && [note.textContent, note.title]; })()")
        found = re.match(r"(\d+ [A-Z][a-z]+ )?(\d\d:\d\d:\d\d): [\d.]+", reading[0])  # the day unless it is today
        self.assertTrue(found, reading)
        self.assertIn(found[2], reading[1])
        strip = self.find("figure.chart svg.strip")
        ActionChains(self.driver).move_to_element(strip).perform()
        self.wait(r"/^ok from .*\d\d:\d\d:\d\d.* to /.test(document.querySelector('svg.strip title')?.textContent)")

    def test_results_that_come_before_their_curve(self):
        """Of an answer that was on its way when they came."""
        hold(self, "/series")
        self.open(self.path + "?range=1h")
        wait_held(self)
        self.wait_live()
        self.wait("document.querySelectorAll('section[aria-labelledby=test-results] tbody tr').length > 0")
        hold_too(self, "/results")  # that it is seen says that the stream has brought it
        self.agent.load([(self.now, 0.07)])  # none of the wave, nor a part of it
        self.wait_text("0.07", "section[aria-labelledby=test-results]")
        self.assertFalse(self.js("return document.querySelector('figure.chart')"))
        let_go(self)
        self.wait_drawn()
        self.assertIn("newest 0.07", self.text("figure.chart"))

    def test_as_a_table(self):
        self.begin("?range=1h")
        self.click("summary", "As a table")
        self.wait("document.querySelectorAll('figure.chart tbody tr').length > 30")

    def test_a_month_has_a_band(self):
        """Where points are of several results, lowest and highest are drawn around the mean."""
        self.begin("?range=30d")
        harness.wait_until(lambda: self.js(PIXELS, "--band"), "a band", browser.PATIENCE_S)


if __name__ == "__main__":
    harness.main()
