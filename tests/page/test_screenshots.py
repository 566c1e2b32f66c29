#!/usr/bin/python3
"""Pictures of the page, as the documents have them: a shop with a day behind it.

    tests/page/test_screenshots.py          draws them, and looks whether those in docs/page are of this page
    tests/page/test_screenshots.py --keep   puts them into docs/page, made small by pngquant

Pixels depend on the hour and on the fonts of the machine. So what a picture was drawn of is kept beside it in
drawn.json: the words on the screen without numbers and times, and the digest of the style."""

import base64
import contextlib
import hashlib
import json
import math
import os
import random
import re
import sqlite3
import struct
import subprocess
import sys
import time
import zlib

import browser
import records
from browser import harness
from histories import encode
from place import Collector, Told

KEPT = os.path.join(browser.HERE, "..", "..", "docs", "page")
DRAWN = "drawn.json"
STYLE = os.path.join(browser.HERE, "..", "..", "collector", "page", "page.css")
# All words of the screen, in sight or not, but times, the ends of an axis and the text in the editor.
WORDS = """
document.querySelectorAll('time, .dygraph-axis-label, textarea').forEach((each) => each.remove());
document.querySelectorAll('main *').forEach((each) => { each.style.contentVisibility = 'visible'; });
return document.body.innerText;"""
WIDE, TALL, TALLER, PHONE, TALL_PHONE = (1280, 800), (1280, 1060), (1280, 1200), (360, 740), (360, 1200)
DAY = 24 * 3600
FLEET = """\
# A web shop: web servers, a database, and a host that looks at it all as customers do.
version: 1
intervals: {poll: 60s, check: 60s}

groups:
  # What every host has.
  - name: every host
    agents: ["*"]
    tests:
      load:       {load: {5m: 8, 15m: 6}}
      cpu:        {cpu: {user: 90 %, iowait: 30 %}}
      memory:     {memory: {swap: 256 MB}}
      root disk:  {disk: /, free: 10 %}
      ssh:        {process: sshd}

  - name: web servers
    agents: ["web-*"]
    tests:
      nginx:      {process: nginx, resident: 500 MB}
      front page: {http: "http://127.0.0.1/", contains: Welcome, within: 2s}

  - name: from outside
    agents: [lookout]
    tests:
      shop:       {http: "https://shop.example.org/", contains: Welcome, within: 5s}
      balancer:   {ping: 192.0.2.10, packets: 5, lost: 1, within: 500ms}

  - name: databases
    agents: ["db-*"]
    tests:
      mariadb:    {process: mariadbd, resident: 24 GB}
"""
HOSTS = ("web-1", "web-2", "web-3", "db-1", "db-2", "lookout")
CURVE = "load"  # of web-2: the one that is shown


class Shop:
    """What its hosts have found in the last day. The same each time, but for the hour."""

    def __init__(self, test):
        self.collector = Collector(test, name="shop").start()
        self.collector.apply(FLEET)
        self.now = int(time.time())
        for name in HOSTS:
            self.report(Told(self.collector, name), name)
        harness.wait_until(lambda: len(self.tests()) == 40, lambda: "40 tests: %s" % [
            (each["agent"]["name"], each["name"]) for each in self.tests()], browser.PATIENCE_S)
        # They have been here for a while.
        self.collector.stop()
        with contextlib.closing(sqlite3.connect(os.path.join(self.collector.state, "results.db"))) as store, store:
            store.execute("UPDATE agents SET first_seen = first_seen - ?", (30 * DAY,))
            store.execute("UPDATE definitions SET since = since - ?", (30 * DAY,))
        self.collector.start()

    def tests(self):
        return self.collector.get("/api/v1/tests?limit=1000")["items"]

    def report(self, agent, name):
        dice = random.Random(name)
        agent.report(self.inventories())

        def told_of_disks():  # which it is once they are known
            agent.report(b"")
            return any(test[0] == "DKA" for test in agent.tests)
        harness.wait_until(told_of_disks, lambda: "a test of its disk: %s" % agent.tests, browser.PATIENCE_S)
        rounds = [b""] * (3 if name == "web-2" else 0)  # the last ones come as they do, each with a poll of its own
        for code, number, revision, *fields in agent.tests:
            make = getattr(self, "_" + code.lower(), None)
            if make is not None:
                step = 60 if name == "web-2" else 300
                times = range(self.now - DAY - 3600 + dice.randrange(step), self.now - 1, step)
                test = int(number), int(revision)
                found = [b"".join(make(name, fields, (when - self.now) / 3600, dice, test, when)) for when in times]
                rounds = [before + found.pop(i - len(rounds)) for i, before in enumerate(rounds)]
                for at in range(0, len(found), 300):
                    agent.report(b"".join(found[at:at + 300]))
        for found in rounds:
            second = int(time.time())
            harness.wait_until(lambda second=second: int(time.time()) > second, "the next second")
            agent.report(found)

    def inventories(self):
        def one(kind, *items):
            return encode([kind, 0, 0], [self.now - 3], [], ["".join(item + "\t" for item in items)])
        return (one(records.INTERFACES, "eth0") +
                one(records.FILE_SYSTEMS, "/(/dev/vda1|ext4)", "/srv(/dev/vdb1|xfs)") +
                one(records.PROCESS_NAMES, "systemd", "sshd", "cron", "nginx", "vindral", "rsyslogd"))

    @staticmethod
    def busy(name, hour, dice):
        """From 0 to 1: by day more than by night, and web-2 too much since 25 minutes."""
        wave = 0.45 + 0.25 * math.sin((hour + HOSTS.index(name)) / 24 * 2 * math.pi) + 0.08 * math.sin(hour * 5) + \
            dice.gauss(0, 0.02)
        if name == "web-2" and (hour > -25 / 60 or -9.5 < hour < -9):
            wave += 0.75
        return max(0.03, wave)

    def _laa(self, name, _, hour, dice, test, when):
        one = self.busy(name, hour, dice) * 8
        five, fifteen = one * 0.97, one * 0.9
        said = "".join("Load Average %d min value: %.2f / Max value: %d\n" % each
                       for each in ((5, five, 8), (15, fifteen, 6)) if each[1] >= each[2])
        yield encode([records.LOAD_AVERAGE, *test, 2 if said else 0], [when], [one, five, fifteen],
                     [said or "Load Average values are within acceptable limits"])

    def _cua(self, name, _, hour, dice, test, when):
        user = min(88.0, self.busy(name, hour, dice) * 60)
        shares = [user, 0.2, user / 5, max(0, 97 - user * 1.25), 2.8]
        said = ["CPU usage is within acceptable limits"]
        yield encode([records.CPU, *test, 0], [when], shares, said, [encode([0], [], shares, said)])

    def _mma(self, name, _, hour, dice, test, when):
        free = 1200 - 700 * self.busy(name, hour, dice)
        yield encode([records.MEMORY, *test, 0], [when],
                     [free, 16000.0, 2000.0, 2048.0, 300.0, 6400.0, 18446744073709551616.0, 18446744073709551616.0],
                     ["Memory usage is within acceptable limits"])

    def _dka(self, name, fields, hour, dice, test, when):
        yield encode([records.DISK, *test, 0], [when], [80.0, 44.0 - (hour + 24) / 12 - HOSTS.index(name)],
                     ["Free space is within acceptable limits"])

    def _pra(self, name, fields, hour, dice, test, when):
        is_gone = name == "db-2" and "mariadbd" in fields and hour > -7 / 60
        yield encode([records.PROCESS, *test, 0 if is_gone else 700 + HOSTS.index(name), 3 if is_gone else 0], [when],
                     [0.0, 0.0, 0.0] if is_gone else [self.busy(name, hour, dice) * 30, 160.0 + dice.random(), 420.0],
                     ["The process is not running"] if is_gone else [])

    def _hpa(self, name, fields, hour, dice, test, when):
        took = int(1000 * (0.06 + 0.1 * self.busy(name, hour, dice) ** 3))
        yield encode([records.HTTP, *test, 0, took, 200, 18000 + dice.randrange(400)], [when], [],
                     ["HTTP OK HTTP/1.1 200 OK - %.3f second response time" % (took / 1000)])

    def _pga(self, name, fields, hour, dice, test, when):
        yield encode([records.PING, *test, 0, 0], [when], [11 + 3 * self.busy(name, hour, dice)],
                     ["ICMP echo results are within acceptable limits"])


def size_of(png):
    """Width and height; whether there is a picture in it at all is said by how little it can be packed."""
    if png[:8] != b"\x89PNG\r\n\x1a\n":
        raise ValueError("not a PNG")
    return struct.unpack(">II", png[16:24])


def pixels(png):
    """What its parts unpack to; it has to be whole."""
    at, packed = 8, b""
    while at < len(png):
        length, kind = struct.unpack(">I4s", png[at:at + 8])
        data = png[at + 8:at + 8 + length]
        if zlib.crc32(kind + data) != struct.unpack(">I", png[at + 8 + length:at + 12 + length])[0]:
            raise ValueError("a part of the PNG is broken")
        packed += data if kind == b"IDAT" else b""
        at += 12 + length
    return zlib.decompress(packed)


def words_of(text):
    """The lines of a screen, each once; numbers and days differ with the hour."""
    number = r"\d+(?:[.,:]\d+)*"
    month = r"(?:Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec)[a-z]*"
    lines = (" ".join(line.split()) for line in text.splitlines())
    span = r"(?: (?:h|min|s)\b(?: %s (?:min|s)\b)?)" % number
    lines = (re.sub("%s(?: %s(?: %s)?|%s)?" % (number, month, number, span), "#", line) for line in lines)
    return sorted({line for line in lines if not re.match("Today|Yesterday|[A-Z][a-z]+day #|From #", line)} - {""})


def digest_of(path):
    with open(path, "rb") as file:
        return hashlib.sha256(file.read()).hexdigest()


class Screenshots(browser.TestCase):
    keep = False

    def setUp(self):
        super().setUp()
        self.shop = Shop(self)
        self.place, self.sizes, self.words = self.subdir("pictures"), {}, {}
        self.begin_browser(self.shop.collector.base)
        self.sign_in_by_cookie(self.shop.collector.add_token("ada", "admin"))

    def draw(self, name, path, there, size=WIDE, dark=False, before=None):
        self.sizes[name + ".png"] = size
        self.look(size, dark)
        self.open(path)
        self.wait("document.querySelector(arguments[0]) !== null", there, what=name)
        self.wait_live()
        if before is not None:
            before()
        self.wait_still()
        self.js("document.activeElement.blur(); scrollTo(0, 0)")
        self.frames()
        png = base64.b64decode(self.cdp("Page.captureScreenshot", format="png")["data"])
        harness.write_text(os.path.join(self.place, name + ".png"), png)
        self.words[name + ".png"] = words_of(self.js(WORDS))

    def edit(self):
        self.wait_text("This is the text in force", "#fleet-said")
        self.js("""const area = document.getElementById('fleet-text');
            const at = area.value.indexOf('resident: 500 MB');
            area.focus();
            area.setSelectionRange(at, at + 'resident: 500 MB'.length);""")
        browser.ActionChains(self.driver).send_keys("resident: 800 MB").perform()
        self.wait_text("500 MB -> 800 MB", ".difference")
        self.js("document.getElementById('fleet-text').scrollTop = 0")

    def test_draw_all(self):
        ids = {(each["agent"]["name"], each["name"]): each for each in self.shop.tests()}
        problem = ids["web-2", CURVE]
        self.assertEqual(sorted((who, name) for (who, name), each in ids.items() if each["state"] == "problem"),
                         [("db-2", "mariadb"), ("web-2", "load")])
        test = "/tests/%d?range=1d&values=load5" % problem["id"]
        self.draw("now", "/", ".problems .problem")
        self.draw("now-dark", "/", ".problems .problem", dark=True)
        self.draw("now-phone", "/", ".problems .problem", size=PHONE)
        self.draw("agent", "/agents/%d" % problem["agent"]["id"], ".spark-line",
                  size=TALL, before=lambda: self.wait("document.querySelectorAll('.spark-line').length >= 6"))
        self.draw("test", test, "figure.chart[data-drawn] svg.strip rect", size=TALLER)
        self.draw("test-phone", test, "figure.chart[data-drawn] svg.strip rect", size=TALL_PHONE)
        self.draw("events", "/events", ".timeline .event")
        self.draw("fleet", "/fleet", ".editor-lines div", before=self.edit, size=TALL)
        names = sorted(os.listdir(self.place))
        for name in names:
            with self.subTest(name):
                with open(os.path.join(self.place, name), "rb") as file:
                    png = file.read()
                self.assertEqual(size_of(png), self.sizes[name])
                # An empty page packs to next to nothing.
                self.assertGreater(len(png), len(pixels(png)) / 500, "nothing is drawn")
        if self.keep:
            self.put(names)
        self.check_kept(names)

    def put(self, names):
        os.makedirs(KEPT, exist_ok=True)
        for name in names:
            subprocess.run(["pngquant", "--force", "--speed", "1", "--strip", "--nofs", "--output",
                            os.path.join(KEPT, name), "128", os.path.join(self.place, name)], check=True)
        drawn = {"style": digest_of(STYLE), "words": self.words,
                 "pictures": {name: digest_of(os.path.join(KEPT, name)) for name in names}}
        harness.write_text(os.path.join(KEPT, DRAWN), json.dumps(drawn, indent=1, sort_keys=True) + "\n")
        print("docs/page: " + ", ".join("%s %d KB" % (name, os.path.getsize(os.path.join(KEPT, name)) // 1024)
                                        for name in names))

    def check_kept(self, names):
        """That the pictures are those that were drawn, and of what the page is now."""
        again = "draw anew: tests/page/test_screenshots.py --keep"
        self.assertEqual(sorted([*names, DRAWN]), sorted(os.listdir(KEPT)), again)
        drawn = json.loads(harness.read_text(os.path.join(KEPT, DRAWN)))
        self.assertEqual(drawn["style"], digest_of(STYLE), again)
        for name in names:
            with self.subTest(name):
                with open(os.path.join(KEPT, name), "rb") as file:
                    kept = file.read()
                self.assertEqual(size_of(kept), self.sizes[name], again)
                self.assertGreater(len(pixels(kept)), 0)
                self.assertEqual(digest_of(os.path.join(KEPT, name)), drawn["pictures"][name], again)
                self.assertEqual(drawn["words"][name], self.words[name], again)


if __name__ == "__main__":
    os.environ.setdefault("TZ", "UTC")
    Screenshots.keep = sys.argv[1:] == ["--keep"]
    harness.main([] if Screenshots.keep else None)
