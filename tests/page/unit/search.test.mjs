import assert from "node:assert/strict";
import { test } from "node:test";
import { testQueries } from "../../../collector/page/base/search.js";

const agents = Array.from({ length: 40 }, (_, i) => ({ id: i + 1, account: "me@example.org",
  name: `web-${i + 1}`, address: `192.0.2.${i + 100}`, groups: i < 20 ? ["everything", "Web servers"] : ["everything"] }));

test("a word of a test is asked for as it is", () => {
  assert.deepEqual(testQueries(["nginx"], agents), [{ q: "nginx" }]);
  assert.deepEqual(testQueries(["root", "disk", "x"], []), [{ q: "root" }]);
});

test("an address is that of an agent, and the other words are looked for there", () => {
  assert.deepEqual(testQueries(["192.0.2.107"], agents), [{ q: "192.0.2.107" }, { agent: 8 }]);
  assert.deepEqual(testQueries(["192.0.2.107", "disk"], agents), [{ q: "disk" }, { agent: 8, q: "disk" }]);
});

test("a group is asked for by its name", () => {
  assert.deepEqual(testQueries(["web", "servers"], agents), [{ q: "servers" }, { group: "Web servers" }]);
  assert.deepEqual(testQueries(["servers", "nginx"], agents),
    [{ q: "nginx" }, { group: "Web servers", q: "nginx" }]);
});
