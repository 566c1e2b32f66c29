"""Chromium, as the tests of the page drive it: one for all tests of a file, which take turns, with a new tab and no
cookies for each. What the browser writes to its console that no test expected is a fault."""

import atexit
import http.client
import os
import re
import shutil
import signal
import socket
import sys
import tempfile
import threading

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.append(os.path.join(HERE, "..", "system"))

import harness  # noqa: E402
import peers  # noqa: E402

if not peers.find("chromium") or not peers.find("chromedriver"):
    sys.exit("There is no chromium or no chromedriver: `scripts/setup all` installs both.")
try:
    from selenium import webdriver
    from selenium.common.exceptions import StaleElementReferenceException, WebDriverException
    from selenium.webdriver.chromium.remote_connection import ChromiumRemoteConnection
    from selenium.webdriver.common.action_chains import ActionChains
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
except ImportError:
    sys.exit("%s has no Selenium: `scripts/setup all` installs Debian's, for /usr/bin/python3." % sys.executable)

__all__ = ["ActionChains", "By", "Keys", "StaleElementReferenceException", "TestCase", "WebDriverException", "harness"]

# Nothing of its own goes out.
FLAGS = ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--hide-scrollbars",
         "--no-first-run", "--disable-extensions", "--disable-sync", "--disable-background-networking",
         "--disable-component-update", "--disable-default-apps", "--disable-domain-reliability",
         "--disable-breakpad", "--metrics-recording-only", "--password-store=basic", "--lang=en-GB",
         "--disable-features=Translate,OptimizationHints,MediaRouter,HttpsUpgrades", "--no-proxy-server",
         "--disable-ipc-flooding-protection")
PATIENCE_S = 60  # how long something may take to be shown
SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class Chromedriver(peers.Peer):
    """With whatever it starts, in a session of its own; all of that ends with it."""

    programs = ("chromium", "chromedriver")
    own_session = True

    def __init__(self, directory):
        super().__init__(directory)
        self.port = harness.free_port()
        self.launch(["chromedriver", "--port=%d" % self.port, "--log-path=" + self.log, "--log-level=WARNING"],
                    env=dict(os.environ, HOME=directory, TMPDIR=directory, XDG_CONFIG_HOME=directory,
                             XDG_CACHE_HOME=directory, LANGUAGE="en_GB", DBUS_SESSION_BUS_ADDRESS="disabled:"))

    def ready(self):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=5)
        try:
            connection.request("GET", "/status")
            return b'"ready":true' in connection.getresponse().read()
        except OSError:
            return False
        finally:
            connection.close()

    def session(self):
        """Ids of all processes of its session."""
        found = []
        for entry in filter(str.isdigit, os.listdir("/proc")):
            fields = harness.read_text("/proc/%s/stat" % entry).rpartition(")")[2].split()
            if fields and int(fields[3]) == self.process.pid and fields[0] != "Z":
                found.append(int(entry))
        return found

    def end(self):
        if self.process is None:
            return
        while left := self.session():  # one may start another meanwhile
            for pid in left:
                try:
                    os.kill(pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
            self.process.poll()
        self.process.wait()
        self.process = None


class _Browser:
    """Begun by the first test that wants it, ended with the file."""

    def __init__(self):
        self.turn = threading.Lock()
        self.directory = self.driver_process = self.driver = None
        self.is_over = False

    def begin(self):
        if self.is_over:
            raise RuntimeError("interrupted")
        if self.driver is not None:
            return self.driver
        self.directory = tempfile.mkdtemp(prefix="chromium-")
        self.driver_process = Chromedriver(self.directory)
        harness.wait_until(self.driver_process.ready, lambda: "chromedriver: " + self.driver_process.errors())
        options = webdriver.ChromeOptions()
        for flag in (*FLAGS, "--user-data-dir=" + os.path.join(self.directory, "profile")):
            options.add_argument(flag)
        options.binary_location = peers.find("chromium")
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        where = "http://127.0.0.1:%d" % self.driver_process.port
        self.driver = webdriver.Remote(ChromiumRemoteConnection(where, "goog", "chrome"), options=options)
        self.driver.set_page_load_timeout(PATIENCE_S)
        self.driver.set_script_timeout(PATIENCE_S)
        return self.driver

    def end(self):
        self.is_over = True
        self.drop()

    def drop(self):
        """The next test that wants one begins another."""
        if self.driver_process is not None:
            self.driver_process.end()
            self.driver_process = self.driver = None
            shutil.rmtree(self.directory, ignore_errors=True)


_browser = _Browser()
harness.at_end(_browser.end)
atexit.register(_browser.end)  # where it does not come to that


def processes():
    """Ids of the driver and of all that it has started."""
    return _browser.driver_process.session()


def _end_at_signal(number, _):
    _browser.end()
    signal.signal(number, signal.SIG_DFL)
    os.kill(os.getpid(), number)


for _number in SIGNALS:
    signal.signal(_number, _end_at_signal)


class TestCase(harness.TestCase):
    """A test that has the browser to itself from `begin_browser()` on. What takes time without it (collectors and
    agents) is begun before."""

    size = (1280, 900)

    def begin_browser(self, base):
        """A new tab; `base` is where the collector is: http://127.0.0.1:PORT."""
        _browser.turn.acquire()
        self.addCleanup(_browser.turn.release)
        self.base, self.expected = base, []
        self.driver = _browser.begin()
        self.addCleanup(self._leave)
        self.tab = self.new_tab()

    def _leave(self):
        """To an empty tab alone; where that cannot be, the next test has another browser."""
        try:
            try:
                self.check_console()
            finally:
                self._begin_anew()
        except AssertionError:
            raise
        except Exception:  # of the driver, or of the way to it
            _browser.drop()
            raise

    def _begin_anew(self):
        old = self.driver.window_handles
        self.driver.switch_to.window(old[0])
        self.driver.switch_to.new_window("tab")
        new = self.driver.current_window_handle
        for handle in old:
            self.driver.switch_to.window(handle)
            self.cdp("Page.setWebLifecycleState", state="active")
            self.js("window.onbeforeunload = null")
            self.driver.close()
        self.driver.switch_to.window(new)
        self.cdp("Network.clearBrowserCookies")
        self.driver.get_log("browser")

    # ---- tabs ----

    def new_tab(self):
        self.driver.switch_to.new_window("tab")
        self.look()
        return self.driver.current_window_handle

    def switch_to(self, tab):
        self.driver.switch_to.window(tab)

    def look(self, size=None, dark=False):
        """Size of the window in pixels, and what the reader's system prefers."""
        width, height = size or self.size
        self.cdp("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1,
                 mobile=width < 500)
        self.cdp("Emulation.setEmulatedMedia", features=[
            {"name": "prefers-color-scheme", "value": "dark" if dark else "light"},
            {"name": "prefers-reduced-motion", "value": "reduce"}])

    def cdp(self, command, **parameters):
        return self.driver.execute("executeCdpCommand", {"cmd": command, "params": parameters})["value"]

    def js(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    def open(self, path="/"):
        self.driver.get(self.base + path)

    @property
    def address(self):
        return self.driver.current_url[len(self.base):]

    # ---- what is there ----

    def wait(self, script, *arguments, what=None, timeout_s=None):
        """Until the script, an expression, is true; returns its value."""
        def state():
            return "%s %s at %s\n%s" % (what or script, arguments or "", self.driver.current_url, self.text()[:3000])
        return harness.wait_until(lambda: self.js("return " + script, *arguments), state, timeout_s or PATIENCE_S)

    def all(self, selector):
        return self.driver.find_elements(By.CSS_SELECTOR, selector)

    def find(self, selector, text=None):
        """The first one that is seen, once it is; with a text, the first that has it."""
        return self.wait("""[...document.querySelectorAll(arguments[0])].find((element) =>
            element.checkVisibility({visibilityProperty: true}) &&
            (arguments[1] === null || element.textContent.includes(arguments[1])))""", selector, text)

    def click(self, selector, text=None):
        """As soon as it is there and stands still."""
        def done():
            try:
                self.find(selector, text).click()
                return True
            except (StaleElementReferenceException, WebDriverException) as error:
                if "intercept" not in str(error) and "stale" not in str(error) and "interactable" not in str(error):
                    raise
                return False
        harness.wait_until(done, lambda: "a click at %s %s\n%s" % (selector, text, self.text()[:3000]),
                           PATIENCE_S)

    def type(self, selector, text):
        element = self.find(selector)
        element.clear()
        element.send_keys(text)
        return element

    def keys(self, *keys):
        """To whatever has the focus."""
        ActionChains(self.driver).send_keys(*keys).perform()

    def text(self, selector="body"):
        return self.js("return document.querySelector(arguments[0])?.innerText ?? ''", selector)

    def wait_text(self, text, selector="body", timeout_s=None):
        self.wait("(document.querySelector(arguments[0])?.innerText ?? '').includes(arguments[1])", selector, text,
                  what="a text", timeout_s=timeout_s)

    def wait_heading(self, text):
        self.wait("[...document.querySelectorAll('h1')].some((each) => each.textContent.trim() === arguments[0])", text,
                  what="the heading")

    def wait_live(self):
        self.wait("document.getElementById('connection')?.dataset.state === 'live'", what="the stream")

    def wait_still(self):
        """Nothing is on its way any more: all that was asked for is answered and shown."""
        self.wait("document.querySelector('h1') !== null && !document.querySelector('[aria-busy=true], .busy')"
                  " && performance.getEntriesByType('resource').every((each) => each.responseEnd > 0)",
                  what="everything to be there")

    def frames(self):
        """What follows the size of the window has done so, and is drawn."""
        self.driver.execute_async_script("""const done = arguments[0];
            document.fonts.ready.then(() =>
              requestAnimationFrame(() => requestAnimationFrame(() => setTimeout(done))));""")

    # ---- the console ----

    def expect(self, pattern):
        """What a test provokes is no fault."""
        self.expected.append(re.compile(pattern))

    def check_console(self):
        said = []
        for handle in self.driver.window_handles:
            self.driver.switch_to.window(handle)
            said += self.driver.get_log("browser")
        unexpected = ["%(level)s %(source)s %(message)s" % each for each in said
                      if each["level"] in ("SEVERE", "WARNING")
                      and not any(pattern.search(each["message"]) for pattern in self.expected)]
        self.assertEqual(unexpected, [])

    # ---- signing in ----

    def sign_in_by_cookie(self, token):
        """Without the form."""
        host, _, port = self.base.rpartition("/")[2].partition(":")
        connection = http.client.HTTPConnection(host, int(port), timeout=harness.PATIENCE_S)
        try:
            connection.request("POST", "/sign-in", '{"token": "%s"}' % token)
            answer = connection.getresponse()
            self.assertEqual(answer.status, 204, answer.read())
            name, _, value = answer.headers["Set-Cookie"].partition(";")[0].partition("=")
        finally:
            connection.close()
        self.cdp("Network.setCookie", name=name, value=value, url=self.base, httpOnly=True, sameSite="Strict")


class Relay:
    """Stands between browser and collector, and counts the streams that are open through it."""

    def __init__(self, test, port):
        self.port_there, self.streams, self._lock = port, 0, threading.Lock()
        self.most, self._open, self._ended = 0, set(), False
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()
        test.addCleanup(self.end)

    def end(self):
        self._ended = True
        self.listener.close()
        self.cut()

    def cut(self):
        """All connections."""
        with self._lock:
            for each in self._open:
                try:
                    each.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass

    def _accept(self):
        while not self._ended:
            try:
                here, _ = self.listener.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(here,), daemon=True).start()

    def _serve(self, here):
        try:
            there = socket.create_connection(("127.0.0.1", self.port_there))
        except OSError:
            here.close()
            return
        with self._lock:
            self._open |= {here, there}
        streams = [0]

        def back():
            self._copy(there, here)
        thread = threading.Thread(target=back, daemon=True)
        thread.start()
        self._copy(here, there, streams)
        thread.join()
        with self._lock:
            self.streams -= streams[0]
            self._open -= {here, there}
        here.close()
        there.close()

    def _copy(self, source, target, streams=None):
        try:
            while data := source.recv(65536):
                if streams is not None and data.startswith(b"GET /api/v1/stream"):
                    with self._lock:
                        streams[0] += 1
                        self.streams += 1
                        self.most = max(self.most, self.streams)
                target.sendall(data)
        except OSError:
            pass
        for each in (source, target):
            try:
                each.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
