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
        self.assertRegex(self.js("return document.querySelector('.difference').previousElementSibling.textContent"),
                         r"^[1-9]\d* changed on ([1-9]\d*) of \1 agents?; [1-9]\d* tests as before$")
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
        # What is here would take theirs back, which the difference says at once; nothing is to be clicked unread.
        self.wait_text("free 3 MB -> 1 MB", "section[aria-labelledby=fleet-editor] .difference")
        self.wait_text("yours undoes what they changed", "[role=alert]")
        self.assertEqual(self.all("[role=alert] .primary"), [])
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

    def lose_the_answer(self, script):
        """Of the text that is applied next, after what the script does to it."""
        self.js("""const ask = window.fetch;
            window.fetch = async (address, how) => {
              if (how?.method === "PUT" && !address.includes("dry_run")) {
                window.fetch = ask;
                %s;
                throw new TypeError("lost");
              }
              return ask(address, how);
            };""" % script)
        self.edit("1m: 8", "1m: 9")
        self.wait_text("No mistake", "#fleet-said")
        self.click("button", "Apply…")
        self.click("dialog[open] button.primary", "Apply")
        self.wait_text("It is not known whether your text was applied", "[role=alert]")
        self.wait("document.querySelector('dialog') === null")

    def test_applied_without_an_answer(self):
        self.begin()
        self.lose_the_answer("await ask(address, how)")
        self.wait_text("Revision 2 is in force", "#main [role=status]")
        self.wait("!document.querySelector('#main').innerText.includes('It is not known')")
        self.wait_text("This is the text in force", "#fleet-said")
        self.assertEqual(self.text_in_force(), FLEET.replace("1m: 8", "1m: 9"))

    def test_not_applied_without_an_answer(self):
        self.begin()
        self.lose_the_answer("")
        self.wait_text("Your text was not applied", "[role=alert]")
        self.assertIn("1m: 9", self.text_there())
        self.assertEqual(self.text_in_force(), FLEET)
        self.click("button", "Apply…")
        self.click("dialog[open] button.primary", "Apply")
        self.wait_text("Revision 2 is in force", "#main [role=status]")
        self.wait("!document.querySelector('#main').innerText.includes('was not applied')")

    def test_killed_while_it_applies(self):
        """It is said once the collector is back, and all is well then."""
        self.expect("ERR_CONNECTION_REFUSED|ERR_CONNECTION_RESET|ERR_EMPTY_RESPONSE|ERR_INCOMPLETE_CHUNKED_ENCODING")
        self.begin()
        self.edit("1m: 8", "1m: 9")
        self.wait_text("No mistake", "#fleet-said")
        self.click("button", "Apply…")
        self.find("dialog[open]")
        self.collector.process.kill()
        self.collector.process.wait()
        self.click("dialog[open] button.primary", "Apply")
        self.wait_text("It is not known whether your text was applied", "[role=alert]")
        self.collector.start()
        self.wait_text("Your text was not applied", "[role=alert]")
        self.assertEqual(self.text_in_force(), FLEET)

    def test_too_large(self):
        """Is known before it is sent."""
        self.begin()
        self.js("""const area = document.getElementById('fleet-text');
            area.value += "#" + "é".repeat(600000);
            area.dispatchEvent(new Event('input'));
            window.sent = 0;
            const ask = window.fetch;
            window.fetch = (address, how) => {
              window.sent += how?.method === "PUT";
              return ask(address, how);
            };""")
        self.wait_text("The file is too large", "#fleet-said")
        size = len(FLEET.encode()) + 1 + 1200000
        self.wait_text("It may have 1,048,576 bytes, and has {:,}.".format(size), ".failure")
        self.assertNotIn("Try again", self.text(".failure"))
        self.assertFalse(self.find("button", "Apply…").is_enabled())
        self.assertEqual(self.js("return window.sent"), 0)
        self.js("""const area = document.getElementById('fleet-text');
            area.value = area.value.slice(0, 1000);
            area.dispatchEvent(new Event('input'));""")
        self.wait("window.sent > 0")
        self.wait_text("No mistake", "#fleet-said")

    def test_overtaken(self):
        """What could not be, and is another way since, is no contradiction to all being confirmed."""
        impossible = FLEET + "      data:     {disk: /no/such/disk, free: 1 MB}\n"
        row = "[...document.querySelectorAll('section[aria-labelledby=changes-all] tbody tr')].find((each) => " \
              "each.innerText.includes('/no/such/disk'))?.innerText ?? ''"
        self.open("/fleet/changes")
        self.wait_live()
        self.wait_text("Every change is confirmed.", ".lead")
        self.collector.apply(impossible)
        self.collector.wait_change(test="data", outcome="impossible")
        self.wait_text("1 change is not confirmed", ".lead")
        self.assertNotIn("overtaken", self.wait(row))
        self.collector.apply(impossible.replace("/no/such/disk", "/"))
        self.wait("/overtaken by revision [3-9]/.test(%s)" % row)
        self.wait_text("Every change is confirmed or overtaken.", ".lead")
        self.assertIn("was impossible", self.js("return " + row))
        self.driver.refresh()
        self.wait("/overtaken by revision [3-9]/.test(%s)" % row)
        self.wait_text("Every change is confirmed or overtaken.", ".lead")

    def test_what_is_refused_is_asked_once(self):
        """Changes come meanwhile; a wrong filter is wrong still."""
        self.expect("/api/v1/changes.* - Failed to load resource: .* 400")
        self.open("/fleet/changes?outcome=constructor")
        self.wait_live()
        self.wait_text('The parameter outcome is "constructor"', "section[aria-labelledby=changes-all]")
        self.wait_still()
        self.assertEqual(self.text("#main").count("Bad request"), 1)
        self.js("""window.asked = 0;
            const ask = window.fetch;
            window.fetch = (address, how) => {
              window.asked += address.startsWith("/api/v1/changes");
              return ask(address, how);
            };""")
        self.collector.apply(FLEET + "      data:     {disk: /no/such/disk, free: 1 MB}\n")
        self.wait_text("data on web-1 cannot be")
        # What it would ask again is asked within five seconds.
        self.driver.execute_async_script("setTimeout(arguments[0], 6000)")
        self.assertEqual(self.js("return window.asked"), 0)
        self.click("a", "Show all")
        self.wait("document.querySelector('section[aria-labelledby=changes-all] tbody tr') !== null")
        self.assertGreater(self.js("return window.asked"), 0)

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
        self.wait("document.querySelectorAll('dialog').length === 0")
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
