import assert from "node:assert/strict";
import { test } from "node:test";
import {
  appendResult, chartData, clampRange, firstValue, limits, panned, readRange, strip, valueLabel, valueNames,
    wanted,
  writeRange, zoomed,
} from "../../../collector/page/base/series.js";

const at = (seconds) => new Date(Date.UTC(2026, 4, 1) + seconds * 1000).toISOString().replace(".000Z", "Z");
const ms = (seconds) => Date.UTC(2026, 4, 1) + seconds * 1000;

const column = (values) => ({ unit: "%", min: [...values], mean: [...values], max: [...values] });
function made(resolution, times, values, state, to) {
  const zeros = () => times.map(() => 0);
  return {
    test: 7, from: at(0), to: at(to ?? times.at(-1) ?? 0), resolution, time: times.map(at),
      count: times.map(() => 1),
    values: { load1: column(values) }, state: { ok: zeros(), problem: zeros(), unknown: zeros(), ...state },
      definitions: [],
  };
}

test("rows of a chart", () => {
  const series = made(300, [0, 300, 600], [1, null, 3]);
  series.values.load1.min = [0.5, null, null];
  series.values.load1.max = [2, null, NaN];
  assert.deepEqual(chartData(series, "load1"), {
    rows: [[new Date(ms(0)), [0.5, 1, 2]], [new Date(ms(300)), null], [new Date(ms(600)), [3, 3, 3]]],
    labels: ["Time", "load1"],
    unit: "%",
  });
});

test("values that are not there, and answers that are none", () => {
  assert.deepEqual(chartData(made(300, [0], [1]), "load5").rows, [[new Date(ms(0)), null]]);
  assert.deepEqual(chartData(made(300, [0], [1]), "constructor"), { rows: [[new Date(ms(0)), null]],
    labels: ["Time", "constructor"], unit: "" });
  for (const nothing of [null, undefined, {}, made(0, [], [])]) {
    assert.deepEqual(chartData(nothing, "load1").rows, []);
    assert.deepEqual(strip(nothing ?? {}), []);
  }
  assert.deepEqual(valueNames(null), []);
  const some = made(0, [0], [1]);
  some.values.none = column([null]);
  assert.deepEqual(valueNames(some), ["load1"]);
});

test("the line ends where results are missing", () => {
  const { rows } = chartData(made(0, [0, 60, 120, 180, 3600, 3660], [1, 2, 3, 4, 5, 6]), "load1");
  assert.equal(rows.length, 7);
  assert.equal(rows[4][1], null);
  assert.ok(rows[4][0] > rows[3][0] && rows[4][0] < rows[5][0]);
  assert.equal(chartData(made(0, [0, 60, 125, 250, 310], [1, 2, 3, 4, 5]), "load1").rows.length, 5);
  assert.equal(chartData(made(0, [0, 7200], [1, 2]), "load1").rows.length, 2, "that may be its interval");
});

test("times go on where the clocks are changed", () => {
  const before = Date.UTC(2026, 9, 25, 0) / 1000 - ms(0) / 1000;
  const { rows } = chartData(made(3600, [0, 1, 2, 3].map((i) => before + i * 3600), [1, 2, 3, 4]), "load1");
  assert.deepEqual(rows.slice(1).map((row, i) => row[0] - rows[i][0]), [3600000, 3600000, 3600000]);
});

test("states of points of five minutes", () => {
  const series = made(300, [0, 300, 600, 900, 1200, 1500], [], {
    ok: [300, 299, 200, 0, 100, 0], problem: [0, 1, 0, 0, 0, 0], unknown: [0, 0, 100, 300, 200, 0],
  });
  assert.deepEqual(strip(series), [
    { from: ms(0), to: ms(300), state: "ok" }, { from: ms(300), to: ms(600), state: "problem" },
    { from: ms(600), to: ms(900), state: "ok" }, { from: ms(900), to: ms(1500), state: "unknown" },
  ]);
});

test("states of results hold until the next one, or until nobody knows", () => {
  const series = made(0, [0, 60, 60, 120, 1000], [], { ok: [60, 0, 0, 180, 60], problem: [0, 0, 60, 0, 0],
    unknown: [0, 0, 0, 700, 0] });
  assert.deepEqual(strip(series), [
    { from: ms(0), to: ms(60), state: "ok" }, { from: ms(60), to: ms(120), state: "problem" },
    { from: ms(120), to: ms(300), state: "ok" }, { from: ms(300), to: ms(1000), state: "unknown" },
    { from: ms(1000), to: ms(1060), state: "ok" },
  ]);
});

const of = (fields, value) => limits({ fields }, value).map((each) => [each.side, each.value, each.label]);

test("limits of each kind of test", () => {
  const load = { "1 min maximum": 8, "5 min maximum": -1, "15 min maximum": 0 };
  assert.deepEqual(of(load, "load1"), [["above", 8, "at most 8"]]);
  assert.deepEqual(of(load, "load5"), []);
  assert.deepEqual(of(load, "load15"), [["above", 0, "at most 0"]]);
  const memory = { "minimum 1": 256, "minimum 2": 20480, "minimum 3": -1, "maximum 1": 1, "maximum 2": 2 };
  assert.deepEqual(of(memory, "free"), [["below", 256, "at least 256 MB"]]);
  assert.deepEqual(of(memory, "swap_free"), [["below", 20480, "at least 20 GB"]]);
  assert.deepEqual(of(memory, "cached"), [["above", 2, "at most 2 MB"]]);
  assert.deepEqual(of(memory, "total"), []);
  assert.deepEqual(of({ name: "/(/dev/sda1|ext4)", amount: 2.5 }, "available"), [["below", 2.5,
    "at least 2.5 GB"]]);
  assert.deepEqual(of({ amount: 0 }, "available"), []);
  const process = { "maximum 1": 80, "maximum 2": 512, "maximum 3": -1, name: "nginx" };
  assert.deepEqual(of(process, "cpu"), [["above", 80, "at most 80 %"]]);
  assert.deepEqual(of(process, "processes"), []);
  const network = { name: "eth0", "maximum 1": 0, "maximum 3": 100000000, "maximum 6": 1 };
  assert.deepEqual(of(network, "sent"), [["above", 100000000, "at most 100 MB/s"]]);
  assert.deepEqual(of(network, "sent_packets"), []);
  assert.deepEqual(of(network, "received_errors"), [["above", 1, "at most 1/s"]]);
  const ping = { host: "x", "packet size": 56, "number of packets": 3, "time limit": 1000,
    "number of lost packets": 0 };
  assert.deepEqual(of(ping, "lost"), [["above", 0, "at most 0"]]);
  assert.deepEqual(of(ping, "round_trip"), [["above", 1000, "at most 1000 ms"]]);
  assert.deepEqual(of({ host: "x", "text 7": "5", "switch 1": 1, method: 0 }, "time"), [["above", 5000,
    "at most 5000 ms"]]);
  assert.deepEqual(of({ host: "x", "text 7": "a", method: 0 }, "time"), []);
  assert.deepEqual(of({ host: "x", "time limit": 2, "number of retries": 1 }, "time"), []);
});

test("system and nice time of a local test are crossed in its definition", () => {
  const cpu = { "maximum 1": 90, "maximum 2": 50, "maximum 3": 30, minimum: 5, "maximum 4": 40 };
  assert.deepEqual(of(cpu, "system"), [["above", 30, "at most 30 %"]]);
  assert.deepEqual(of(cpu, "nice"), [["above", 50, "at most 50 %"]]);
  assert.deepEqual(of({ ...cpu, host: "db1", name: "linux" }, "system"), [["above", 50, "at most 50 %"]]);
  assert.deepEqual(of(cpu, "idle"), [["below", 5, "at least 5 %"]]);
});

test("limits of objects and of values of a query", () => {
  const snmp = { host: "x", "text 1": "1.3.6.1;sysUpTime.0;1.2", "text 8": "-;-1,5;-9223372036854775808,7" };
  assert.deepEqual(of(snmp, "object 1"), []);
  assert.deepEqual(of(snmp, "object 2"), [["below", -1, "at least -1"], ["above", 5, "at most 5"]]);
  assert.deepEqual(of(snmp, "object 3"), [["above", 7, "at most 7"]]);
  assert.deepEqual(of(snmp, "object 4"), []);
  const mysql = { host: "x", "text 4": "Threads_connected|100;Uptime||60;max_connections;a|x|1e999" };
  assert.deepEqual(of(mysql, "result"), [["above", 100, "at most 100"]]);
  assert.deepEqual(of(mysql, "result 2"), [["below", 60, "at least 60"]]);
  assert.deepEqual(of(mysql, "result 3"), []);
  assert.deepEqual(of(mysql, "result 4"), []);
  assert.equal(valueLabel({ fields: snmp }, "object 2"), "sysUpTime.0");
  assert.equal(valueLabel({ fields: mysql }, "result"), "Threads_connected");
  assert.equal(valueLabel({ fields: { "text 4": "a\u202e" } }, "result"), "a⟨U+202E⟩");
  assert.equal(valueLabel(null, "swap_free"), "swap free");
  assert.equal(valueLabel(null, "load15"), "load 15 min");
  assert.equal(valueLabel(null, "object 9"), "object 9");
});

test("definitions that are none have no limits", () => {
  for (const nothing of [null, undefined, {}, { fields: null }, { fields: "x" }]) {
    assert.deepEqual(limits(nothing, "load1"), []);
  }
  assert.deepEqual(of({ "1 min maximum": "8" }, "load1"), []);
  assert.deepEqual(of({}, "__proto__"), []);
  assert.deepEqual(limits({ fields: {} }, undefined), []);
});

test("the value to show first", () => {
  assert.equal(firstValue("disk", ["total", "available"]), "available");
  assert.equal(firstValue("ping", ["lost"]), "lost");
  assert.equal(firstValue("constructor", []), null);
});

test("times that are looked at do not go beyond now", () => {
  const now = ms(0);
  const hour = 3600000;
  assert.deepEqual(panned({ from: now - hour, to: now }, 1, now), { from: now - hour, to: now });
  assert.deepEqual(panned({ from: now - hour, to: now }, -0.5, now), { from: now - 1.5 * hour,
    to: now - 0.5 * hour });
  assert.deepEqual(zoomed({ from: now - hour, to: now }, 2, undefined, now), { from: now - 2 * hour,
    to: now });
  assert.deepEqual(zoomed({ from: now - hour, to: now }, 0.5, now, now), { from: now - hour / 2, to: now });
  assert.deepEqual(zoomed({ from: now - 1000, to: now }, 0.001, now, now), { from: now - 60000, to: now });
  const widest = zoomed({ from: now - hour, to: now }, 1e9, undefined, now);
  assert.ok(widest.from < now - 3000 * 24 * hour && widest.from > 0 && widest.to === now);
  assert.deepEqual(clampRange({ from: NaN, to: NaN }, now), { from: now - 60000, to: now });
});

test("times of an address", () => {
  const now = ms(0);
  const day = 86400000;
  const query = (object) => new Map(Object.entries(object));
  assert.deepEqual(readRange(query({}), now), { from: now - day, to: now, range: "1d" });
  assert.deepEqual(readRange(query({ range: "7d" }), now), { from: now - 7 * day, to: now, range: "7d" });
  for (const wrong of [{ range: "__proto__" }, { from: "x" }, { from: at(5), to: at(5) }, { from: at(9),
    to: at(5) }, { to: "" }]) {
    assert.deepEqual(readRange(query(wrong), now), { from: now - day, to: now, range: "1d" });
  }
  assert.deepEqual(readRange(query({ from: at(-7200), to: at(-3600) }), now), { from: ms(-7200),
    to: ms(-3600), range: null });
  assert.deepEqual(readRange(query({ from: at(-7200) }), now), { from: ms(-7200), to: now, range: null });
  assert.deepEqual(readRange(query({ to: at(-3600) }), now), { from: ms(-3600) - day, to: ms(-3600),
    range: null });
  assert.deepEqual(writeRange({ from: ms(0) + 999, to: ms(60) }), { from: at(0), to: at(60) });
  assert.deepEqual(writeRange("7d"), { range: "7d" });
});

test("points for a width", () => {
  assert.equal(wanted(at(0), at(86400), 800), 400);
  assert.equal(wanted(ms(0), new Date(ms(86400)), 1e9), 2000);
  assert.equal(wanted(at(0), at(100), 800), 100);
  assert.equal(wanted(at(0), at(1), 0), 50);
  assert.equal(wanted(at(0), at(3600), 800), 2000);
  assert.equal(wanted("x", null, NaN), 400);
});

const result = (seconds, value, state = "ok") => ({ time: at(seconds), received: at(seconds + 1), state,
  values: { load1: { value, unit: "" } } });

test("results as they come", () => {
  const series = made(0, [0, 60], [1, 2], { ok: [60, 30], problem: [0, 0], unknown: [0, 0] }, 90);
  appendResult(series, result(120, 3, "problem"));
  appendResult(series, result(180, 4));
  assert.deepEqual(series.values.load1.mean, [1, 2, 3, 4]);
  assert.deepEqual(strip(series).map((each) => [each.state, (each.to - each.from) / 1000]), [["ok", 120],
    ["problem", 60], ["ok", 1]]);
  const before = structuredClone(series);
  appendResult(series, result(180, 4));
  assert.deepEqual(series, before, "twice");
  appendResult(series, result(90, 9));
  assert.deepEqual(series.values.load1.mean, [1, 2, 9, 3, 4], "late");
  assert.deepEqual(series.time, [0, 60, 90, 120, 180].map(at));
  appendResult(series, { ...result(240, null), values: { other: { value: 5, unit: "x" }, text: { value: "up",
    unit: "" } } });
  assert.deepEqual(series.values.load1.mean.at(-1), null);
  assert.deepEqual(series.values.other.max, [null, null, null, null, null, 5]);
  assert.equal("text" in series.values, false);
  for (const all of [series.count, ...Object.values(series.state), series.values.load1.min]) {
    assert.equal(all.length, 6);
  }
});

test("results move on with the time that is shown", () => {
  const series = made(0, [0, 60], [1, 2], { ok: [60, 60], problem: [0, 0], unknown: [0, 0] });
  appendResult(series, result(120, 3), ms(60));
  assert.deepEqual(series.values.load1.mean, [2, 3]);
  assert.equal(series.from, at(60));
  appendResult(series, result(30, 3), ms(60));
  assert.equal(series.time.length, 2);
});

test("a long pause is not taken for the state before it", () => {
  const series = made(0, [0, 60, 120], [1, 2, 3], { ok: [60, 60, 1], problem: [0, 0, 0], unknown: [0, 0,
    0] });
  appendResult(series, result(7200, 3));
  assert.deepEqual(strip(series).map((each) => each.state), ["ok", "unknown", "ok"]);
});

test("series of other points, and results that are none, are left alone", () => {
  const series = made(300, [0], [1]);
  const before = structuredClone(series);
  assert.equal(appendResult(series, result(300, 2)), series);
  assert.deepEqual(series, before);
  const fine = made(0, [0], [1], { ok: [1], problem: [0], unknown: [0] });
  for (const wrong of [null, undefined, {}, { time: "x" }]) {
    appendResult(fine, wrong);
  }
  assert.equal(fine.time.length, 1);
  const empty = made(0, [], [], { ok: [], problem: [], unknown: [] });
  appendResult(empty, result(5, 1));
  assert.deepEqual(chartData(empty, "load1").rows, [[new Date(ms(5)), [1, 1, 1]]]);
});
