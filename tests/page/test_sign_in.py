#!/usr/bin/python3
"""Signing in and out in a browser: by token, by link, wrongly, with a role that is small."""

import browser
from browser import Keys, harness
from place import Collector

WRONG = "vt_" + "A" * 44


class SignIn(browser.TestCase):
    def setUp(self):
        super().setUp()
        self.collector = Collector(self).start()
        self.begin_browser(self.collector.base)
        self.expect(r"/api/v1/agents\?limit=1 - Failed to load resource: .* 401")  # so it finds out that nobody is

    def cookies(self):
        return [each for each in self.cdp("Network.getAllCookies")["cookies"] if each["name"].startswith("vindral")]

    def everything(self):
        """All that the page has of texts: its elements, the fields, and what it keeps."""
        return self.js("""return [document.documentElement.outerHTML, location.href, document.cookie,
            ...[...document.querySelectorAll('input, textarea')].map((field) => field.value),
            ...[localStorage, sessionStorage].map((kept) => JSON.stringify({...kept})), history.length].join('\\n')""")

    def sign_in(self, token):
        self.type("#token", token + Keys.ENTER)

    def test_by_token(self):
        self.open("/events?state=problem")
        self.wait_heading("Sign in")
        self.assertEqual(self.js("return document.activeElement.id"), "token")
        self.sign_in(self.collector.token)
        self.wait_heading("Events")
        self.assertEqual(self.address, "/events?state=problem", "where one wanted to go")
        self.wait_text("system test, admin", "#who")
        self.wait_live()
        cookie, = self.cookies()
        self.assertTrue(cookie["httpOnly"])
        self.assertEqual(cookie["sameSite"], "Strict")
        self.assertNotIn(self.collector.token, self.everything())
        self.assertNotIn(cookie["value"], self.everything())

    def test_by_link(self):
        link = self.collector.link()
        secret = link.partition("#link=")[2]
        self.assertTrue(secret.startswith("vl_"))
        self.driver.get(link)
        self.wait_heading("Now")
        self.assertEqual(self.address, "/")
        self.assertNotIn(secret, self.everything())
        self.driver.refresh()
        self.wait_heading("Now")
        # Nobody finds it by going back: the entry of the history is another one.
        self.click("#menu a", "Events")
        self.wait_heading("Events")
        self.driver.back()
        self.wait_heading("Now")
        self.assertEqual(self.address, "/")
        entries = self.cdp("Page.getNavigationHistory")["entries"]
        self.assertEqual([each["url"] for each in entries if secret in each["url"]], [])
        # Once.
        self.click("#out")
        self.wait_heading("Sign in")
        self.expect("/sign-in - Failed to load resource: .* 401")
        self.open("/fleet#link=" + secret)
        self.wait_text("This link does not sign in, or no longer")
        self.assertEqual(self.address, "/fleet")
        self.assertNotIn(secret, self.everything())
        self.assertEqual(self.cookies(), [])

    def test_by_a_link_that_is_typed_into_the_field(self):
        self.open()
        self.sign_in(self.collector.link().partition("#link=")[2])
        self.wait_heading("Now")

    def test_a_link_in_a_page_that_is_open(self):
        self.open()
        self.wait_heading("Sign in")
        self.js("location.hash = arguments[0]", "link=" + self.collector.link("viewer").partition("#link=")[2])
        self.wait_heading("Now")
        self.assertEqual(self.address, "/")
        self.wait_text(", viewer", "#who")

    def test_wrong_token(self):
        self.expect("/sign-in - Failed to load resource: .* 401")
        self.open()
        self.sign_in(WRONG)
        self.wait_text("This token does not sign in, or no longer.", "[role=alert]")
        self.assertEqual(self.js("return document.activeElement.id"), "token")
        self.assertEqual(self.js("return document.getElementById('token').getAttribute('aria-invalid')"), "true")
        self.assertNotIn(WRONG, self.js("return document.documentElement.outerHTML + location.href"))
        self.assertEqual(self.cookies(), [])
        self.sign_in(self.collector.token)
        self.wait_heading("Now")

    def test_signed_out(self):
        self.sign_in_by_cookie(self.collector.token)
        self.open("/tokens")
        self.wait_text("system test", "table")
        self.click("#menu a", "Secrets")
        self.wait_heading("Secrets")
        self.click("#out")
        self.wait_heading("Sign in")
        self.wait_text("You are signed out.")
        self.assertEqual(self.cookies(), [])
        self.driver.back()
        self.wait_heading("Sign in")
        self.assertNotIn("system test", self.text())
        self.driver.refresh()
        self.wait_heading("Sign in")
        self.assertNotIn("system test", self.text())
        self.assertEqual(self.js("""return fetch('/api/v1/tokens').then((answer) => answer.status)"""), 401)
        self.expect("/api/v1/.* - Failed to load resource: .* 401")

    def test_signed_out_in_another_tab(self):
        self.sign_in_by_cookie(self.collector.token)
        self.open("/tokens")
        self.wait_heading("Tokens")
        self.new_tab()
        self.open("/")
        self.wait_heading("Now")
        self.click("#out")
        self.wait_heading("Sign in")
        self.switch_to(self.tab)
        self.wait_heading("Sign in")
        self.expect("/api/v1/.* - Failed to load resource: .* 401")

    def end_session(self):
        """As somebody else who removes it; what the page asks after that is refused."""
        session = next(each["id"] for each in self.collector.get("/api/v1/tokens?limit=100")["items"]
                       if each["kind"] == "session")
        self.expect("/api/v1/.* - Failed to load resource: .* 401")
        self.assertEqual(self.collector.ask("/api/v1/tokens/%d" % session, "DELETE")[0], 204)

    def test_ended_by_somebody_else(self):
        self.sign_in_by_cookie(self.collector.token)
        self.open("/")
        self.wait_live()
        self.end_session()
        self.click("#menu a", "Fleet")
        self.wait_heading("Sign in")
        self.wait_text("You are signed out")

    def test_ended_by_somebody_else_while_nothing_is_done(self):
        self.sign_in_by_cookie(self.collector.token)
        self.open("/")
        self.wait_live()
        self.js("""new MutationObserver(() => { window.wasAway ||= document.querySelector('#banner .banner') !== null; })
            .observe(document.getElementById('banner'), {childList: true});""")
        self.end_session()
        self.wait_heading("Sign in")
        self.wait_text("You are signed out")
        # A collector that is away is told of after 3 s: this one is not.
        ended = self.js("return performance.now()")
        self.wait("performance.now() > arguments[0] + 4000", ended)
        self.find("#token").send_keys(self.collector.token, browser.Keys.ENTER)
        self.wait_heading("Now")
        self.wait_live()
        self.assertFalse(self.js("return window.wasAway ?? false"))

    def test_viewer(self):
        self.sign_in_by_cookie(self.collector.add_token("looks only", "viewer"))
        self.open()
        self.wait_heading("Now")
        self.assertEqual([link.text for link in self.all("#menu a")], ["Now", "Events", "Fleet"])
        for path in ("/tokens", "/secrets", "/admission"):
            self.open(path)
            self.wait_text("Your role is not enough for this", "#main")
        self.assertNotIn("system test", self.text())
        self.open("/fleet")
        self.wait_text("Your role is viewer", "#main")
        self.assertEqual([each for each in self.all("textarea") if each.is_displayed()], [])

    def test_operator(self):
        self.sign_in_by_cookie(self.collector.add_token("applies", "operator"))
        self.open("/fleet")
        self.find("#fleet-text")
        self.assertEqual([link.text for link in self.all("#menu a")], ["Now", "Events", "Fleet"])


if __name__ == "__main__":
    harness.main()
