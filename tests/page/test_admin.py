#!/usr/bin/python3
"""What admins do in the browser: who is let in, tokens, secrets."""

import os

import browser
from browser import harness
from enrolling import Host
from place import ACCOUNT, FLEET, Collector


class Tokens(browser.TestCase):
    def setUp(self):
        super().setUp()
        self.collector = Collector(self).start()
        self.begin_browser(self.collector.base)
        self.sign_in_by_cookie(self.collector.token)

    def tokens(self):
        return [each["name"] for each in self.collector.get("/api/v1/tokens?limit=100")["items"]
                if each["kind"] == "token"]

    def test_a_token_is_made_shown_once_and_removed(self):
        self.open("/tokens")
        self.wait_text("system test", "table")
        self.type("#token-name", "dashboards")
        self.js("document.getElementById('token-role').value = 'operator';"
                "document.getElementById('token-role').dispatchEvent(new Event('change', {bubbles: true}))")
        self.wait_text("Applies the fleet file", "#token-role-hint")
        self.click("button", "Make it")
        secret = self.find(".once-text").text.strip()
        self.assertTrue(secret.startswith("vt_"), secret)
        self.assertIn("The secret of dashboards", self.js("return document.activeElement.textContent"))
        self.wait_text("dashboards", "table")
        self.assertEqual(self.collector.ask("/api/v1/agents", token=secret)[0], 200)
        self.click("button", "I have it")
        self.wait("!document.documentElement.outerHTML.includes(arguments[0])", secret)
        self.driver.refresh()
        self.wait_text("dashboards", "table")
        self.assertFalse(self.js("return document.documentElement.outerHTML.includes(arguments[0])", secret))
        self.click("button[aria-label='Remove the token dashboards']")
        self.click("dialog[open] button", "Cancel")
        self.wait("document.querySelector('dialog') === null")
        self.assertEqual(self.js("return document.activeElement.ariaLabel"), "Remove the token dashboards")
        self.click("button[aria-label='Remove the token dashboards']")
        self.click("dialog[open] button.danger", "Remove")
        self.wait("!document.querySelector('table').innerText.includes('dashboards')")
        self.assertEqual(self.tokens(), ["system test"])
        self.assertEqual(self.collector.ask("/api/v1/agents", token=secret)[0], 401)

    def test_which_session_is_this_browser(self):
        """Others are ended without a word about oneself; one's own signs this page out."""
        self.expect("/api/v1/.* - Failed to load resource: .* 401")
        self.sign_in_by_cookie(self.collector.token)  # the one before is another browser's
        self.open("/tokens")
        self.wait_text("1 token, 2 sessions", "#tokens-heading")
        rows = [row.text for row in self.all("tbody tr")]
        self.assertEqual(["this browser" in row for row in rows].count(True), 1, rows)
        self.assertNotIn("this browser", rows[0])
        self.click("button[aria-label='End the session of system test']")
        self.wait_text("The browser that has this session is signed out", "dialog[open]")
        self.assertNotIn("You may be", self.text("dialog[open]"))
        self.click("dialog[open] button.danger", "End it")
        self.wait_text("1 token, 1 session", "#tokens-heading")
        self.click("button[aria-label='End the session of this browser']")
        self.wait_text("this page is signed out at once", "dialog[open]")
        self.click("dialog[open] button.danger", "Sign out")
        self.wait("document.querySelector('table') === null && document.querySelector('main form input') !== null")

    def test_a_name_that_is_taken(self):
        self.expect("/api/v1/tokens - Failed to load resource: .* 409")
        self.open("/tokens")
        self.type("#token-name", "system test")
        self.click("button", "Make it")
        self.wait("document.querySelector('.failure[role=alert]') !== null")
        self.assertEqual(self.tokens(), ["system test"])

    def test_a_secret_is_set_and_never_shown(self):
        value = "correct horse battery"
        self.open("/secrets")
        self.wait_heading("Secrets")
        self.assertEqual(self.js("return document.getElementById('secret-value').type"), "password")
        for value, said in ((value, "1 secret"), ("another one", "1 secret")):
            self.type("#secret-name", "db-monitor")
            self.type("#secret-value", value)
            self.click("button", "Set it")
            self.wait_text("db-monitor", "table")
            self.wait("document.getElementById('secret-value').value === ''")
            self.wait_text(said, "#secrets-heading")
            self.assertFalse(self.js("return document.documentElement.outerHTML.includes(arguments[0])", value))
        self.driver.refresh()
        self.wait_text("db-monitor", "table")
        self.assertFalse(self.js("return document.documentElement.outerHTML.includes(arguments[0])", value))
        self.click("button[aria-label='Remove db-monitor']")
        self.click("dialog[open] button.danger", "Remove")
        self.wait_text("There is no secret yet")
        self.assertEqual(self.collector.get("/api/v1/secrets?limit=10")["items"], [])


@harness.needs_namespaces
class Admission(browser.TestCase):
    """Hosts that enrol, with the program of the package."""

    def setUp(self):
        super().setUp()
        self.collector = Collector(self, options=["--agents", "proven"]).start()
        self.collector.apply(FLEET)
        self.host = Host(self)
        self.url = "https://localhost:%d" % self.collector.port

    def begin(self):
        self.begin_browser(self.collector.base)
        self.sign_in_by_cookie(self.collector.token)
        self.open("/admission")
        self.wait_heading("Admission")

    def wait_proven(self):
        """Who is invited or has no certificate yet is asked for more often than all names are, each half minute."""
        path = "/api/v1/agents/%s%%2Fweb-1/enrolment" % ACCOUNT
        harness.wait_until(lambda: self.collector.get(path)["state"] == "proven", "the host to be proven")
        self.wait_text("proven", "table", timeout_s=20)

    def test_from_an_invitation_to_a_tile(self):
        self.begin()
        self.type("#invite-name", ACCOUNT + "/web-1")
        self.click("button", "Make the command")
        command = self.find(".once-text").text
        self.wait_text(ACCOUNT + "/web-1", "table")
        self.wait_text("invited", "table")
        token = next(word for word in command.replace("'", "").split() if word.startswith("ve_"))
        self.click("button", "Done")
        self.wait("!document.documentElement.outerHTML.includes(arguments[0])", token)
        self.host.enrol(self.url, token)
        self.wait_proven()
        self.open("/")
        self.wait_text("web-1", ".tile")
        self.assertEqual(self.js("return document.querySelectorAll('.tile').length"), 1)

    def test_a_host_that_waits_is_admitted(self):
        process, key = self.host.ask(self.url, "--ca", os.path.join(self.collector.state, "ca.pem"),
                                     "--account", ACCOUNT, "--name", "web-1")
        self.addCleanup(self.end, process)
        self.begin()
        self.wait_text(key, ".problems")
        self.click("button[aria-label='Admit %s/web-1']" % ACCOUNT)
        self.wait_text(key, "dialog[open]")
        self.click("dialog[open] button.primary", "Admit")
        self.wait_text("Nobody. A host that asks")
        self.assertEqual(process.wait(harness.PATIENCE_S), 0)
        self.wait_proven()
        self.click("button[aria-label='Revoke %s/web-1']" % ACCOUNT)
        self.click("dialog[open] button.danger", "Revoke")
        self.wait_text("revoked", "table")

    def test_a_host_that_waits_is_refused(self):
        process = self.host.begin(self.url, "--ca", os.path.join(self.collector.state, "ca.pem"), "--account", ACCOUNT,
                                  "--name", "web-1")
        self.addCleanup(self.end, process)
        self.begin()
        self.click("button[aria-label='Refuse %s/web-1']" % ACCOUNT)
        self.click("dialog[open] button.danger", "Refuse")
        self.wait_text("Nobody. A host that asks")

    @staticmethod
    def end(process):
        process.kill()
        process.wait()
        process.stdout.close()


if __name__ == "__main__":
    harness.main()
