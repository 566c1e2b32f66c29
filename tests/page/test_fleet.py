#!/usr/bin/python3
"""The fleet file in the browser: mistakes by line, the difference before it is applied, what became of it, two people
at once."""

import browser
from browser import Keys, harness
from place import FLEET, Collector, Place


@harness.needs_namespaces
class Fleet(browser.TestCase):
    def setUp(self):
        super().setUp()
        self.place = Place(self, "web-1").settle(3)
        self.collector = self.place.collector
        self.begin_browser(self.collector.base)
        self.sign_in_by_cookie(self.collector.token)

    def begin(self):
        self.open("/fleet")
        self.wait("document.getElementById('fleet-text')?.value.startsWith('version: 1')")
        self.wait_text("This is the text in force", "#fleet-said")

    def edit(self, old, new):
        """As if it were typed."""
        self.js("""const area = document.getElementById('fleet-text');
            const at = area.value.indexOf(arguments[0]);
            area.focus();
            area.setSelectionRange(at, at + arguments[0].length);""", old)
        self.keys(new)

    def text_there(self):
        return self.js("return document.getElementById('fleet-text').value")

    def text_in_force(self):
        return self.collector.get("/api/v1/fleet")["text"]

    def apply_elsewhere(self, old, new):
        self.collector.apply(self.text_in_force().replace(old, new))

    def test_a_mistake_then_the_difference_then_applied_and_confirmed(self):
        self.expect("/api/v1/fleet.* - Failed to load resource: .* 422")
        self.begin()
        line = FLEET.split("\n").index(next(each for each in FLEET.split("\n") if "memory:" in each)) + 1
        self.edit("free: 1 MB", "fre: 2 MB")
        self.wait_text("1 mistake, the first in line %d" % line, "#fleet-said")
        self.wait_text("Line %d, column " % line, ".mistakes")
        self.wait("document.querySelector('.editor-lines .wrong')?.textContent === arguments[0]", str(line))
        self.assertFalse(self.find("button", "Apply…").is_enabled())
        # The mistake brings one there.
        self.click(".mistakes button")
        place = self.js("""const area = document.activeElement;
            return [area.id, area.value.slice(0, area.selectionStart).split('\\n').length];""")
        self.assertEqual(place, ["fleet-text", line])
        self.edit("fre: 2 MB", "free: 2 MB")
        self.wait_text("No mistake", "#fleet-said")
        self.wait("document.querySelectorAll('.editor-lines .wrong').length === 0")
        self.wait_text("free 1 MB -> 2 MB", ".difference")
        self.assertEqual(self.text_in_force(), FLEET)
        self.click("button", "Apply…")
        self.wait_text("free 1 MB -> 2 MB", "dialog[open]")
        self.click("dialog[open] button", "Cancel")
        self.wait("document.querySelector('dialog') === null")
        self.assertEqual(self.text_in_force(), FLEET)
        self.click("button", "Apply…")
        self.find("dialog[open]")
        self.click("dialog[open] button.primary", "Apply")
        self.wait_text("Revision 2 is in force")
        self.assertEqual(self.text_in_force(), FLEET.replace("1 MB", "2 MB"))
        self.click("a", "What becomes of it")
        self.wait_heading("Changes")
        self.assertEqual(self.address, "/fleet/changes?revision=2")
        self.wait_text("confirmed", "section[aria-labelledby=changes-all] tbody")
        self.wait_text("memory", "section[aria-labelledby=changes-all] tbody")
        self.wait_text("Every change is confirmed", "#main")

    def test_two_editors(self):
        """Who is second is told, has everything still, and undoes nothing unseen."""
        self.expect("/api/v1/fleet.* - Failed to load resource: .* 409")
        self.begin()
        self.edit("1m: 8", "1m: 9")
        self.wait_text("No mistake", "#fleet-said")
        self.apply_elsewhere("free: 1 MB", "free: 3 MB")
        self.wait_text("Somebody applied another text since you began", "[role=alert]")
        self.assertIn("1m: 9", self.text_there())
        self.assertIn("free: 1 MB", self.text_there())
        self.assertFalse(self.find("button", "Apply…").is_enabled())
        self.click("button", "What they changed")
        self.wait_text("free: 3 MB", "dialog[open] .difference")
        self.click("dialog[open] button", "Close")
        self.assertIn("free: 3 MB", self.text_in_force())
        self.click("button", "Go on with mine")
        self.wait_text("free 3 MB -> 1 MB", ".difference")
        self.edit("free: 1 MB", "free: 3 MB")
        self.wait("!document.querySelector('.difference')?.innerText.includes('free 3 MB -> 1 MB')")
        self.click("button", "Apply…")
        self.click("dialog[open] button.primary", "Apply")
        self.wait_text("Revision 3 is in force")
        self.assertEqual(self.text_in_force(), FLEET.replace("1m: 8", "1m: 9").replace("1 MB", "3 MB"))

    def test_somebody_is_first_while_the_difference_is_looked_at(self):
        self.expect("/api/v1/fleet.* - Failed to load resource: .* 409")
        self.begin()
        self.edit("1m: 8", "1m: 9")
        self.wait_text("No mistake", "#fleet-said")
        self.click("button", "Apply…")
        self.find("dialog[open]")
        self.apply_elsewhere("free: 1 MB", "free: 3 MB")
        self.click("dialog[open] button.primary", "Apply")
        self.wait_text("Somebody applied another text since you began", "[role=alert]")
        self.assertIn("1m: 9", self.text_there())
        self.assertEqual(self.text_in_force(), FLEET.replace("1 MB", "3 MB"))

    def test_what_is_not_applied_outlasts_a_reload(self):
        self.begin()
        self.edit("1m: 8", "1m: 9")
        self.wait_text("No mistake", "#fleet-said")
        self.wait("sessionStorage.getItem('fleet-draft')?.includes('1m: 9')")
        self.click("#menu a", "Now")
        self.wait_heading("Now")
        self.click("#menu a", "Fleet")
        self.wait("document.getElementById('fleet-text')?.value.includes('1m: 9')")
        self.wait_text("This text is not applied yet")
        self.click("button", "Drop my changes")
        self.click("dialog[open] button.danger")
        self.wait("document.getElementById('fleet-text').value === arguments[0]", FLEET)

    def test_a_double_click_is_one(self):
        self.apply_elsewhere("1m: 8", "1m: 7")
        self.open("/fleet")
        self.wait("document.getElementById('fleet-text')?.value.includes('1m: 7')")
        self.find("button[aria-label='Show revision 1']")
        self.js("const show = document.querySelector('button[aria-label=\"Show revision 1\"]');"
                "show.click(); show.click();")
        self.find("dialog[open]")
        self.click("dialog[open] button", "Close")
        self.wait("document.querySelectorAll('dialog').length === 0")
        self.click("button[aria-label='Bring back revision 1']")
        self.wait_text("1m 7 -> 8", "dialog[open] .difference")
        self.click("dialog[open] button", "Cancel")
        self.js("const apply = [...document.querySelectorAll('button')].find((each) => each.textContent === 'Apply…');"
                "apply.click(); apply.click();")
        self.find("dialog[open]")
        self.click("dialog[open] button", "Cancel")
        self.wait("document.querySelectorAll('dialog').length === 0")

    def test_bring_back(self):
        self.apply_elsewhere("1m: 8", "1m: 7")
        self.open("/fleet")
        self.wait("document.getElementById('fleet-text')?.value.includes('1m: 7')")
        self.click("button[aria-label='Bring back revision 1']")
        self.wait_text("1m 7 -> 8", "dialog[open] .difference")
        self.click("dialog[open] button.primary", "Apply")
        self.wait_text("Revision 3 is in force")
        self.assertEqual(self.text_in_force(), FLEET)

    def test_an_empty_text(self):
        self.collector.apply("version: 1\n")
        self.open("/fleet")
        self.wait("document.getElementById('fleet-text')?.value === 'version: 1\\n'")
        self.edit("version: 1\n", Keys.DELETE)
        self.wait_text("The file is empty.", "#fleet-said")


class Empty(browser.TestCase):
    def test_nothing_was_ever_applied(self):
        collector = Collector(self).start()
        self.begin_browser(collector.base)
        self.sign_in_by_cookie(collector.token)
        for path, texts in (("/", ["No agent has reported yet", "Have a host report"]),
                            ("/events", ["Nothing has happened yet"]), ("/fleet/changes", ["No change yet"]),
                            ("/secrets", ["There is no secret yet"]), ("/admission", ["Nobody is admitted yet"])):
            self.open(path)
            for text in texts:
                self.wait_text(text, "#main")
        self.open("/fleet")
        self.click("button", "Begin with an example")
        self.wait_text("No mistake", "#fleet-said")
        self.click("button", "Apply…")
        self.click("dialog[open] button.primary", "Apply")
        self.wait_text("Revision 1 is in force")


if __name__ == "__main__":
    harness.main()
