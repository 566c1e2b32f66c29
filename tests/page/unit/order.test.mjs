import assert from "node:assert/strict";
import { test } from "node:test";
import { byName, byState, byTest, natural, newestFirst,
  stateRank } from "../../../collector/page/base/order.js";

const sorted = (names) => [...names].sort(natural);

test("numbers in names by their size", () => {
  assert.deepEqual(sorted(["web-10", "web-2", "Web-3", "db", "web"]), ["db", "web", "web-2", "Web-3",
    "web-10"]);
  assert.deepEqual(sorted(["a10b2", "a10b10", "a9"]), ["a9", "a10b2", "a10b10"]);
  assert.deepEqual(sorted(["1.10", "1.9", "1"]), ["1", "1.9", "1.10"]);
});

test("names that look alike have an order all the same", () => {
  assert.deepEqual(sorted(["a1", "a01", "A1", "a001"]), sorted(["a001", "A1", "a01", "a1"]));
  assert.equal(natural("a0", "a00") === 0, false);
  assert.equal(natural("same", "same"), 0);
});

test("what is no name does no harm", () => {
  assert.equal(natural(null, ""), 0);
  assert.ok(natural(undefined, "a") < 0);
  assert.ok(natural("9".repeat(10000), "1" + "0".repeat(10000)) < 0, "longer than any number");
});

test("it is an order: who is before whom goes on", () => {
  const all = ["", "0", "00", "1", "a", "A", "a1", "a01", "a-1", "ä", "\u202e", "10", "2", "a2", "a10"];
  for (const a of all) {
    for (const b of all) {
      assert.equal(Math.sign(natural(a, b)), -Math.sign(natural(b, a)) + 0);
      for (const c of all) {
        assert.ok(!(natural(a, b) < 0 && natural(b, c) < 0) || natural(a, c) < 0, `${a} ${b} ${c}`);
      }
    }
  }
});

test("agents, tests, states, times", () => {
  assert.ok(byName({ name: "a", account: "x" }, { name: "a", account: "y" }) < 0);
  assert.ok(byName({ id: 2, name: "a" }, { id: 10, name: "a" }) < 0);
  assert.ok(byTest({ name: "disk", agent: { name: "web-2" } }, { name: "disk",
    agent: { name: "web-10" } }) < 0);
  assert.deepEqual(["ok", "unknown", "silent", "problem"].sort((a, b) => stateRank(a) - stateRank(b)),
    ["silent", "problem", "unknown", "ok"]);
  assert.equal(stateRank("toString"), stateRank("unknown"));
  assert.ok(byState({ state: "problem" }, { state: "ok" }) < 0);
  assert.ok(newestFirst("2026-05-02T00:00:00Z", "2026-05-01T00:00:00Z") < 0);
  assert.ok(newestFirst(null, "2026-05-01T00:00:00Z") > 0);
});
