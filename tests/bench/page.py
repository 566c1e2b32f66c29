#!/usr/bin/python3
"""What the page takes in Chromium, beside a collector that a fleet polls: the first view, a curve of 30 days, an agent
with 2,000 tests that all come anew every other second, tasks that hold the browser up, and the memory of the tab. Debian's chromium, chromium-driver and python3-selenium.

    tests/bench/page.py [--agents 1000] [--interval 60] [--store DIRECTORY] [--rounds 10] [--minutes 60]
        [--directory /var/tmp]

--store: a store that `fleet.py history --store` made, with the days before; without it curves are short."""

import argparse
import os
import shutil
import statistics
import sys
import tempfile
import threading
import time

import fleet
import whole

sys.path.append(os.path.join(whole.TOP, "tests", "page"))
import browser  # noqa: E402
import raw_client  # noqa: E402
import records  # noqa: E402

# Runs before the page does. A frame is over when the one after it begins.
WATCH = """
window.seen = {tasks: [], painted: 0};
new PerformanceObserver((list) => window.seen.tasks.push(...list.getEntries().map((each) => each.duration)))
  .observe({type: "longtask", buffered: true});
window.when = (condition, done) => {
  const look = () => condition() ? requestAnimationFrame(() => requestAnimationFrame(() => done(performance.now())))
    : requestAnimationFrame(look);
  look();
};
"""


class Tab(browser.TestCase):
    def runTest(self):
        """It is driven from here."""

    def begin(self, base, token):
        self.setUp()
        self.begin_browser(base)
        self.sign_in_by_cookie(token)
        self.cdp("Page.addScriptToEvaluateOnNewDocument", source=WATCH)
        self.cdp("Performance.enable")
        self.driver.set_script_timeout(60)

    def timed(self, condition, before="", since="0"):
        """ms from `since`, an expression, to the end of the frame after the condition became true."""
        return self.driver.execute_async_script(
            "const done = arguments[0]; const since = %s; %s; when(() => %s, (at) => done(at - since));" % (
                since, before, condition))

    def tasks(self):
        return self.js("return seen.tasks")

    def memory(self):
        """MB: of its scripts after a collection, and of its process, where what it shares counts in part."""
        self.cdp("HeapProfiler.collectGarbage")
        used = {each["name"]: each["value"] for each in self.cdp("Performance.getMetrics")["metrics"]}
        return used["JSHeapUsedSize"] / 1e6, max(map(pss, renderers()))


def renderers():
    return [pid for pid in browser.processes()
            if "--type=renderer" in browser.harness.read_text("/proc/%d/cmdline" % pid)]


def pss(pid):
    with open("/proc/%d/smaps_rollup" % pid, encoding="ascii") as file:
        return sum(int(line.split()[1]) for line in file if line.startswith("Pss:")) / 1e3


class Wide:
    """An agent with many tests, of which every tenth is a problem; all report every other second."""

    def __init__(self, port, tests):
        self.client, self.tests, self.is_over = raw_client.RawClient(port), tests, threading.Event()
        self.session = self.client.session("fleet@example.org", "wide")
        self.thread = threading.Thread(target=self.report)
        self.thread.start()

    def report(self):
        for number in range(1 << 30):
            now = int(time.time())
            self.client.poll(self.session, b"".join(
                records.encode_load(records.Load(test, 1, now, (number + test % 7, 0.5, 0.25), "of many", int(test % 10 == 0)))
                for test in range(1, self.tests + 1)))
            if self.is_over.wait(2):
                return

    def end(self):
        self.is_over.set()
        self.thread.join()


def counted(tasks):
    return "%d, longest %.0f" % (len(tasks), max(tasks, default=0))


def told(name, took):
    print("%s: median %.0f ms, least %.0f, most %.0f (%d times)" % (
        name, statistics.median(took), min(took), max(took), len(took)), flush=True)


def measure(options, home, beside):
    port_file = os.path.join(beside, "web-port")
    polled = fleet.Polled("this one", home, options, ["--web", "127.0.0.1:0", "--web-port-file", port_file],
                          os.path.join(whole.BUILD, "vindral-collector"))
    try:
        token = fleet.make_token(home, "page%d" % os.getpid())
        with open(port_file, encoding="ascii") as file:
            base = "http://127.0.0.1:" + file.read().strip()
        polled.begin()
        polled.wait()
        time.sleep(options.interval + 5)  # all have polled
        tab = Tab()
        try:
            tab.begin(base, token)
            look(options, tab, polled)
        finally:
            tab.doCleanups()
    finally:
        polled.end()


def look(options, tab, polled):
    all_there = "document.querySelectorAll('.tiles > *').length >= %d" % options.agents
    for cached in (False, True):
        tab.cdp("Network.enable")
        tab.cdp("Network.setCacheDisabled", cacheDisabled=not cached)
        took, tasks = [], []
        for _ in range(options.rounds):
            tab.open("/")
            took.append(tab.timed(all_there))
            tasks += tab.tasks()
        told("first view of %d agents, %s" % (options.agents, "files in the cache" if cached else "nothing cached"), took)
        print("  tasks above 50 ms: %s" % counted(tasks), flush=True)
    first = tab.js("""return fetch('/api/v1/tests?limit=20').then((all) => all.json())
        .then((all) => all.items.map((each) => each.id))""")
    drawn = "document.querySelectorAll('#main canvas').length > 0"
    took = []
    for test in first[:options.rounds]:
        tab.open("/events")
        tab.wait_heading("Events")
        took.append(tab.timed(drawn, before="history.pushState(null, '', '/tests/%s?range=30d');"
                              " dispatchEvent(new PopStateEvent('popstate'))" % test, since="performance.now()"))
    told("a curve of 30 days", took)
    look_at_many(tab, polled.port)
    tab.open("/")
    tab.timed(all_there)
    tab.js("seen.tasks.length = 0")
    began = time.monotonic()
    print("memory after 0 min: %.1f MB of scripts, %.0f MB of the process" % tab.memory(), flush=True)
    for minute in range(1, options.minutes + 1):
        time.sleep(max(0, began + 60 * minute - time.monotonic()))
        if minute in (1, 5, 15, 30, options.minutes):
            print("memory after %d min: %.1f MB of scripts, %.0f MB of the process; tasks above 50 ms: %s" % (
                minute, *tab.memory(), counted(tab.tasks())), flush=True)
    print("the collector: %s" % fleet.resident(polled.process.pid), flush=True)


def look_at_many(tab, port, tests=2000, seconds=60):
    wide = Wide(port, tests)
    try:
        def known():
            return tab.js("return fetch('/api/v1/agents?q=wide').then((all) => all.json())")["items"]
        whole.wait_for(lambda: known() and sum(known()[0]["tests"].values()) >= tests, "all tests", step_s=1)
        for name, path, rows in (("its agent", "/agents/%s" % known()[0]["id"], ".spark-item"), ("Now", "/", ".problems > li")):
            tab.open(path)
            took = tab.timed("document.querySelectorAll('%s').length >= %d" % (
                rows, tests if path != "/" else tests // 10))
            first = tab.tasks()
            tab.js("seen.tasks.length = 0")
            time.sleep(seconds)
            print("%d tests, %s: there after %.0f ms; tasks above 50 ms: %s; in the %d s after: %s" % (
                tests, name, took, counted(first), seconds, counted(tab.tasks())), flush=True)
    finally:
        wide.end()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--agents", type=int, default=1000)
    parser.add_argument("--interval", type=int, default=60)
    parser.add_argument("--store")
    parser.add_argument("--days", type=int, default=2)
    parser.add_argument("--before", type=int, default=30)
    parser.add_argument("--rounds", type=int, default=10)
    parser.add_argument("--minutes", type=int, default=60)
    parser.add_argument("--directory", default="/var/tmp")
    options = parser.parse_args()
    beside = tempfile.mkdtemp(prefix="vindral-bench-", dir=options.directory)
    try:
        measure(options, fleet.fill_fleet(options, beside) if options.store else beside, beside)
    finally:
        shutil.rmtree(beside, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
