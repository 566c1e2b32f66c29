#!/usr/bin/python3
"""Whoever looks: on a phone and on a wide screen, by day and by night, and with nothing but a keyboard."""

import browser
from browser import ActionChains, Keys, harness
from looks import MISFITS
from place import Place

BACKGROUND = "return getComputedStyle(document.body).backgroundColor.match(/[0-9]+/g).slice(0, 3).map(Number)"


@harness.needs_namespaces
class Looks(browser.TestCase):
    def test_every_screen_fits(self):
        place = Place(self, "web-1", "db-1")
        place.add_secret()
        place.settle(5)
        self.begin_browser(place.collector.base)
        self.sign_in_by_cookie(place.collector.token)
        misfits = []
        for name, path, there in place.screens():
            self.look((1280, 900))
            self.open(path)
            self.wait("document.querySelector(arguments[0]) !== null", there, what=name)
            self.wait_still()
            for size in ((360, 740), (768, 1024), (1920, 1080)):
                for dark in (False, True):
                    self.look(size, dark)
                    self.frames()
                    for misfit in self.js(MISFITS):
                        misfits.append((name, size, misfit))
                    background = self.js(BACKGROUND)
                    self.assertEqual(max(background) < 100, dark, background)
        self.assertEqual(sorted(set(misfits)), [])
        self.cdp("Network.clearBrowserCookies")
        self.expect("/api/v1/.* - Failed to load resource: .* 401")
        self.open("/")
        self.wait_heading("Sign in")
        for size in ((360, 740), (1920, 1080)):
            self.look(size)
            self.assertEqual(self.js(MISFITS), [])


@harness.needs_namespaces
class Keyboard(browser.TestCase):
    def setUp(self):
        super().setUp()
        self.place = Place(self, "web-1").settle(3)
        self.begin_browser(self.place.collector.base)

    def focused(self):
        return self.js("""const at = document.activeElement;
            return at === document.body ? null : `${at.localName}#${at.id} ${at.textContent.trim().slice(0, 80)}`;""")

    def check_seen(self):
        """Whatever has the focus is in sight, and looks like it."""
        seen = self.js("""const at = document.activeElement, box = at.getBoundingClientRect();
            const style = getComputedStyle(at), parent = getComputedStyle(at.parentElement);
            const rings = [style, parent].some((each) =>
              each.outlineStyle !== 'none' && parseFloat(each.outlineWidth) > 0);
            const isInSight = box.bottom > 0 && box.top < innerHeight && box.right > 0 && box.left < innerWidth;
            return {rings, isInSight};""")
        self.assertEqual(seen, {"rings": True, "isInSight": True}, self.focused())

    def tab_to(self, selector, text="", back=False, most=80):
        """Presses Tab until it is reached."""
        way = []
        for _ in range(most):
            if back:
                ActionChains(self.driver).key_down(Keys.SHIFT).send_keys(Keys.TAB).key_up(Keys.SHIFT).perform()
            else:
                self.keys(Keys.TAB)
            if self.js("return document.activeElement !== document.body"):
                self.check_seen()
            way.append(self.focused())
            if self.js("return document.activeElement.matches(arguments[0]) &&"
                       "document.activeElement.textContent.includes(arguments[1])", selector, text):
                return
        raise AssertionError("no way to %s %r by Tab: %s" % (selector, text, way))

    def wait_focus_on_heading(self, text):
        self.wait("document.activeElement.localName === 'h1' &&"
                  "document.activeElement.textContent.trim() === arguments[0]", text,
                  what="the focus on the heading; it is on %s" % self.focused())

    def test_nothing_but_keys(self):
        self.expect("/api/v1/.* - Failed to load resource: .* 401")
        self.open("/")
        self.wait_heading("Sign in")
        self.wait("document.activeElement.id === 'token'")
        self.keys(self.place.collector.token, Keys.ENTER)
        self.wait_focus_on_heading("Now")
        # To a problem, and to its test.
        self.find(".problems .problem")
        self.tab_to(".problem a", "nginx")
        self.keys(Keys.ENTER)
        self.wait_focus_on_heading("nginx")
        self.driver.back()
        self.wait_focus_on_heading("Now")
        self.find(".tile")
        self.tab_to(".tile", "web-1")
        self.keys(Keys.ENTER)
        self.wait_focus_on_heading("web-1")
        self.find(".spark-item a")
        self.tab_to(".spark-item a", "load")
        self.keys(Keys.ENTER)
        self.wait_focus_on_heading("load")
        # Another range, and closer.
        self.find(".chart-place")
        self.tab_to(".choices a", "6 hours")
        self.keys(Keys.ENTER)
        self.wait("location.search === '?range=6h'")
        self.tab_to(".chart-place")
        self.keys("-")
        self.wait("location.search !== '?range=6h'")
        self.keys(Keys.ESCAPE)
        self.wait("location.search === '?range=6h'")
        # Into the editor of the fleet file, and out of it.
        self.tab_to("#menu a", "Fleet", back=True)
        self.keys(Keys.ENTER)
        self.wait_focus_on_heading("Fleet")
        self.find("#fleet-text")
        self.tab_to("#fleet-text")
        before = self.js("return document.activeElement.value")
        self.keys(Keys.TAB)
        self.wait("document.activeElement.id === 'fleet-text' && document.activeElement.value !== arguments[0]", before)
        self.keys(Keys.ESCAPE, Keys.TAB)
        self.wait("document.activeElement.id !== 'fleet-text'")
        self.check_seen()
        self.tab_to("#fleet-text", back=True)
        self.keys(Keys.ESCAPE)
        self.tab_to("#menu a", "Events", back=True)

    def test_skip_link(self):
        self.sign_in_by_cookie(self.place.collector.token)
        self.open("/")
        self.wait_heading("Now")
        self.find(".tile")
        self.tab_to("#skip")
        box = self.js("const {left, top, width, height} = document.activeElement.getBoundingClientRect();"
                      "return [left, top, width, height]")
        self.assertTrue(box[0] >= 0 and box[1] >= 0 and box[2] > 24 and box[3] >= 24, box)
        self.keys(Keys.ENTER)
        self.wait("document.activeElement.id === 'main'")
        self.keys(Keys.TAB)
        self.wait("document.activeElement.closest('#main') !== null")

    def test_a_dialog_keeps_the_focus_and_gives_it_back(self):
        self.sign_in_by_cookie(self.place.collector.token)
        self.open("/tokens")
        self.find("tbody tr")
        self.tab_to("button[aria-label='Remove the token system test']")
        self.keys(Keys.ENTER)
        self.find("dialog[open]")
        for _ in range(6):
            self.keys(Keys.TAB)
            self.assertTrue(self.js("return document.activeElement === document.body ||"
                                    "document.activeElement.closest('dialog') !== null"), self.focused())
        self.keys(Keys.ESCAPE)
        self.wait("document.activeElement.ariaLabel === 'Remove the token system test'")
        self.assertEqual(len(self.all("tbody tr")), 2)


if __name__ == "__main__":
    harness.main()
