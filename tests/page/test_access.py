#!/usr/bin/python3
"""Accessibility, by axe-core: no finding that is serious, on any screen, by day and by night, narrow and wide.

axe-core comes from npm's registry, in the version and with the hash of axe/package-lock.json, into build/axe; only the
first run asks the registry."""

import os
import sys

import browser
import npm
from browser import harness
from looks import MISFITS
from place import Place

HERE = os.path.dirname(os.path.abspath(__file__))
AXE = os.path.join(HERE, "..", "..", "build", "axe")
LEAST = ("serious", "critical")
RUN = """
const done = arguments[0];
axe.run(document, {resultTypes: ['violations']}).then(({violations}) =>
  done(violations.map(({id, impact, help, nodes}) => ({id, impact, help, at: nodes.slice(0, 5).map((node) =>
    [node.target.join(' '), node.html.slice(0, 200), node.failureSummary].join(' | '))}))),
  (error) => done([{id: String(error), impact: 'critical'}]));
"""


@harness.needs_namespaces
class Access(browser.TestCase):
    def setUp(self):
        super().setUp()
        self.axe = harness.read_text(os.path.join(AXE, "node_modules/axe-core/axe.min.js"))
        self.found = []
        self.place = Place(self, "web-1", "db-1")
        self.place.add_secret()
        self.place.settle(5)
        self.begin_browser(self.place.collector.base)
        self.cdp("Page.setBypassCSP", enabled=True)  # of what the tests put there alone: others have the real one
        self.addCleanup(self.cdp, "Page.setBypassCSP", enabled=False)

    def check(self, name):
        """As it is now, but in each look."""
        if not self.js("return window.axe !== undefined"):
            self.js(self.axe)
        for size in ((360, 740), (1280, 900)):
            for dark in (False, True):
                self.look(size, dark)
                self.found += [(name, size, each) for each in self.js(MISFITS) if (name, size, each) not in self.found]
                found = self.driver.execute_async_script(RUN)
                self.found += [(name, each) for each in found
                               if each["impact"] in LEAST and (name, each) not in self.found]

    def check_all(self):
        self.assertEqual(self.found, [])

    def test_every_screen(self):
        self.sign_in_by_cookie(self.place.collector.token)
        for name, path, there in self.place.screens():
            self.open(path)
            self.wait("document.querySelector(arguments[0]) !== null", there, what=name)
            self.wait_still()
            self.check(name)
        self.check_all()

    def test_what_lies_over_it(self):
        """Dialogs, messages of what is wrong, a secret that is shown once, what is unfolded."""
        self.sign_in_by_cookie(self.place.collector.token)
        self.expect("Failed to load resource: .* (401|409|422)")
        self.open("/tokens")
        self.click("button[aria-label='Remove the token system test']")
        self.find("dialog[open]")
        self.check("a dialog")
        self.click("dialog[open] button", "Cancel")
        self.type("#token-name", "system test")
        self.click("button", "Make it")
        self.wait("document.querySelector('.failure[role=alert]') !== null")
        self.check("a failure")
        self.type("#token-name", "another")
        self.click("button", "Make it")
        self.find(".once-text")
        self.check("shown once")
        self.open("/fleet")
        self.wait_text("This is the text in force", "#fleet-said")
        area = self.find("#fleet-text")
        area.send_keys("mistake")
        self.wait_text("1 mistake", "#fleet-said")
        self.check("a mistake")
        self.click("button", "Drop my changes")
        self.click("dialog[open] button.danger")
        self.wait_text("This is the text in force", "#fleet-said")
        self.open("/tests/%d?range=1h" % self.place.test_id("web-1", "load"))
        self.wait("Number(document.querySelector('figure.chart')?.dataset.drawn) > 0")
        self.js("document.querySelectorAll('details').forEach((each) => { each.open = true; })")
        self.wait_still()
        self.check("unfolded")
        self.check_all()

    def test_signing_in(self):
        self.expect("Failed to load resource: .* 401")
        self.open("/")
        self.type("#token", "vt_wrong\n")
        self.wait_text("This token does not sign in", "[role=alert]")
        self.check("sign in")
        self.check_all()


if __name__ == "__main__":
    try:  # before the tests have a network of their own
        npm.install(os.path.join(HERE, "axe"), AXE)
    except npm.Failure as why:
        sys.exit("axe-core: %s" % why)
    harness.main()
