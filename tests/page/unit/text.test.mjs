import assert from "node:assert/strict";
import { afterEach, test } from "node:test";
import {
  ago, apiTime, asTyped, axisNumber, clean, clock, clockSeconds, dayKey, exact, exactNumber, isNoLongerPlanned, now,
  number, oneLine, plural, setAhead, shortened, since, stateWord,
} from "../../../collector/page/base/text.js";

const zone = process.env.TZ;
afterEach(() => {
  setAhead(0);
  if (zone === undefined) {
    delete process.env.TZ;
  } else {
    process.env.TZ = zone;
  }
});

test("what is no number is a dash", () => {
  for (const value of [null, undefined, NaN, Infinity, -Infinity, {}, [], true]) {
    assert.equal(number(value, "GB"), "–");
  }
});

test("numbers have three digits and a unit that suits them", () => {
  const expected = [
    [0, "", "0"], [-0, "", "0"], [1, "", "1"], [0.25, "", "0.25"], [12.345, "%", "12.3 %"], [99.96, "%",
      "100 %"],
    [1234, "", "1234"], [9999.4, "", "9999"], [9999.6, "", "10 k"], [1234567, "", "1.23 M"], [-1234567, "",
      "-1.23 M"],
    [12345, "/s", "12.3 k/s"], [3, "/s", "3/s"], [0.00031, "s", "0.31 ms"], [0.05, "ms", "50 µs"], [0.25,
      "s", "0.25 s"],
    [999.9, "ms", "1000 ms"], [12345, "ms", "12.3 s"], [512, "bytes", "512 bytes"], [12345, "bytes",
      "12.3 kB"],
    [100000000, "B/s", "100 MB/s"], [9000, "MB", "9000 MB"], [20480, "MB", "20 GB"], [39.1, "GB", "39.1 GB"],
    [0.05, "GB", "51.2 MB"], [20480, "GB", "20 TB"], [0, "GB", "0 GB"], [7, "widgets", "7 widgets"],
    [1e-12, "", "1e-12"], [1e30, "", "1e12 E"], [1e300, "%", "1e300 %"], [2.35e-7, "%", "0 %"], [0.01, "%", "0.01 %"], [5n, "", "5"], [3, undefined, "3"],
  ];
  for (const [value, unit, text] of expected) {
    assert.equal(number(value, unit), text, `${value} ${unit}`);
  }
});

test("a value that is a text is made harmless", () => {
  assert.equal(number("up\u202e\n1", ""), "up⟨U+202E⟩ 1");
  assert.equal(number(1, "\u202ex"), "1 ⟨U+202E⟩x");
});

test("what is shortened has all its digits somewhere", () => {
  assert.equal(exactNumber(2152345678), "2152345678");
  assert.equal(exactNumber(51599, "/s"), "51599/s");
  assert.equal(exactNumber(20480.5, "MB"), "20480.5 MB");
  for (const [value, unit] of [[7.5, "%"], [1234, ""], [null, ""], ["up", ""], [NaN, "s"], [undefined, ""]]) {
    assert.equal(exactNumber(value, unit), null, String(value));
  }
});

test("a unit is a few letters in one line", () => {
  assert.equal(number(7, "W".repeat(10000)), `7 ${"W".repeat(19)}…`);
  assert.equal(number("up", "W".repeat(10000)), `up ${"W".repeat(19)}…`);
  assert.equal(number(7, "a\nb"), "7 a b");
  assert.equal(axisNumber(7, "W".repeat(10000), 1, 9), `7 ${"W".repeat(19)}…`);
  assert.equal(number(7, "twenty letters of it"), "7 twenty letters of it");
});

test("numbers of an axis share their unit and their digits", () => {
  assert.deepEqual([0, 0.5, 1].map((value) => axisNumber(value, "%", 0.5, 1)), ["0.0 %", "0.5 %", "1.0 %"]);
  assert.deepEqual([0, 5000, 20000].map((value) => axisNumber(value, "", 5000, 20000)), ["0 k", "5 k",
    "20 k"]);
  assert.equal(axisNumber(-0.0001, "", 1, 5), "0");
  assert.equal(axisNumber(NaN, "", 1, 5), "–");
  assert.equal(axisNumber(5, "GB", 0, NaN), "5 GB");
});

test("ages", () => {
  const expected = [
    [0, "0 s"], [-5, "0 s"], [59.9, "59 s"], [60, "1 min"], [180, "3 min"], [3599, "59 min"], [3600, "1 h"],
    [7500, "2 h 5 min"], [86400, "1 day"], [97200, "1 day 3 h"], [4 * 86400 + 5000, "4 days"], [86400 * 1500,
      "1,500 days"],
    [NaN, "–"], [null, "–"], [undefined, "–"],
  ];
  for (const [seconds, text] of expected) {
    assert.equal(ago(seconds), text);
  }
  assert.equal(since("2026-05-01T12:00:00Z", new Date("2026-05-01T12:03:20Z")), "3 min");
  assert.equal(since(null, 0), "–");
  assert.equal(since("tomorrow", 0), "–");
});

test("times are the reader's", () => {
  process.env.TZ = "Europe/Berlin";
  const now = new Date("2026-05-01T20:00:00Z");
  assert.equal(clock("2026-05-01T12:03:27Z", now), "14:03");
  assert.equal(clock("2026-04-30T22:30:00Z", now), "00:30", "today here, yesterday in UTC");
  assert.equal(clock("2026-04-30T12:03:27Z", now), "30 Apr 14:03");
  assert.equal(clock("2024-05-01T12:03:27Z", now), "1 May 2024 14:03");
  assert.equal(clockSeconds("2026-05-01T12:03:07Z", now), "14:03:07");
  assert.equal(clockSeconds("2026-04-30T12:03:27Z", now), "30 Apr 14:03:27");
  assert.equal(exact("2026-05-01T12:03:27Z"), "1 May 2026 14:03:27 UTC+2 (2026-05-01 12:03:27 UTC)");
  assert.equal(exact("2026-01-01T23:30:00Z"), "2 Jan 2026 00:30:00 UTC+1 (2026-01-01 23:30:00 UTC)");
  for (const wrong of [null, undefined, "", "soon", NaN]) {
    assert.equal(clock(wrong, now), "–");
    assert.equal(clockSeconds(wrong, now), "–");
    assert.equal(exact(wrong), "–");
  }
});

test("the hour that there is twice can be told apart, and the one that there is not is skipped", () => {
  process.env.TZ = "Europe/Berlin";
  assert.match(exact("2026-10-25T00:30:00Z"), /^25 Oct 2026 02:30:00 UTC\+2 /);
  assert.match(exact("2026-10-25T01:30:00Z"), /^25 Oct 2026 02:30:00 UTC\+1 /);
  const now = new Date("2026-03-29T10:00:00Z");
  assert.equal(clock("2026-03-29T00:59:59Z", now), "01:59");
  assert.equal(clock("2026-03-29T01:00:00Z", now), "03:00");
});

test("zones that are not whole hours, and UTC", () => {
  process.env.TZ = "Asia/Kolkata";
  assert.match(exact("2026-05-01T12:00:00Z"), / 17:30:00 UTC\+5:30 /);
  process.env.TZ = "America/St_Johns";
  assert.match(exact("2026-01-01T12:00:00Z"), / 08:30:00 UTC-3:30 /);
  process.env.TZ = "UTC";
  assert.equal(exact("2026-05-01T12:03:27Z"), "2026-05-01 12:03:27 UTC");
});

test("words of states", () => {
  assert.equal(stateWord({ state: "unknown", stale: true }), "stale");
  assert.equal(stateWord({ state: "silent" }), "silent");
  assert.equal(stateWord({ state: "constructor" }), "unknown");
  assert.equal(stateWord(null), "unknown");
});

test("a test is planned no more when it became unknown after its last result", () => {
  const gone = { state: "unknown", since: "2026-05-01T12:04:00Z", time: "2026-05-01T12:03:00Z" };
  const agent = { state: "ok" };
  assert.equal(isNoLongerPlanned(gone, agent), true);
  for (const other of [{ state: "ok" }, { state: "problem" }, { stale: true }, { time: null }, { since: null },
    { since: gone.time }, { since: "2026-05-01T12:02:00Z" }]) {
    assert.equal(isNoLongerPlanned({ ...gone, ...other }, agent), false, JSON.stringify(other));
  }
  assert.equal(isNoLongerPlanned(gone, { state: "silent" }), false);
  assert.equal(isNoLongerPlanned(gone, { state: "ok", retired: "2026-05-01T12:05:00Z" }), false);
  assert.equal(isNoLongerPlanned(gone, null), false, "it may be silent");
  assert.equal(isNoLongerPlanned(null, agent), false);
});

test("ages are by the collector's clock", () => {
  const before = Date.now();
  setAhead(3 * 3600 * 1000);
  assert.ok(now() - before < -3 * 3600 * 1000 + 60000);
  assert.equal(since(new Date(before - 3 * 3600 * 1000 - 90000)), "1 min");
  setAhead(-3 * 3600 * 1000);
  assert.equal(since(new Date(before + 3 * 3600 * 1000 - 90000)), "1 min");
});

test("counts with their nouns", () => {
  assert.equal(plural(0, "test"), "0 tests");
  assert.equal(plural(1, "test"), "1 test");
  assert.equal(plural(1500000, "reply", "replies"), "1,500,000 replies");
  assert.equal(plural(NaN, "test"), "0 tests");
});

test("nothing of a text can rearrange a line", () => {
  assert.equal(clean("a\0b\x1b[31m\x7f"), "a␀b␛[31m␡");
  assert.equal(clean("a\u202eb\u2066\u200b\ufeffc"), "a⟨U+202E⟩b⟨U+2066⟩⟨U+200B⟩⟨U+FEFF⟩c");
  assert.equal(clean("\ud800x\u{e0041}"), "⟨U+D800⟩x⟨U+E0041⟩");
  assert.equal(clean("<script>alert(1)</script>"), "<script>alert(1)</script>",
    "markup is text, and stays so");
  assert.equal(clean("one\r\ntwo\tthree\n\n"), "one\ntwo\tthree");
  assert.equal(clean("a\rb"), "a␍b");
  assert.equal(clean(null), "");
  assert.equal(clean(7), "7");
  assert.equal(clean("grüße 日本 😀"), "grüße 日本 😀");
  assert.equal(clean("\u202e".repeat(10000)).length, 80000);
});

test("texts that are too long are cut between characters", () => {
  assert.equal(oneLine(" a\n b\tc "), "a b c");
  assert.equal(oneLine("x".repeat(10000), 10), "xxxxxxxxx…");
  assert.equal(oneLine("short", 5), "short");
  assert.equal(shortened("ab😀", 3), "ab");
  assert.equal(shortened("ab😀", 4), "ab😀");
  assert.equal(shortened("ab", 0), "");
});

test("times as they are typed, and as the API has them", () => {
  process.env.TZ = "America/New_York";
  assert.equal(dayKey("2026-05-01T03:00:00Z"), "2026-04-30");
  assert.equal(asTyped("2026-05-01T03:04:05Z"), "2026-04-30T23:04");
  assert.equal(asTyped(Date.parse("2026-01-09T12:00:00Z")), "2026-01-09T07:00");
  assert.equal(asTyped(null), "");
  assert.equal(asTyped("tomorrow"), "");
  assert.equal(apiTime("2026-04-30T23:04"), "2026-05-01T03:04:00Z");
  assert.equal(apiTime(1777604645999), "2026-05-01T03:04:05Z");
});
