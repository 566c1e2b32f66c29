import assert from "node:assert/strict";
import { test } from "node:test";
import { leftOut, lines, makesDifference, sections,
  summary } from "../../../collector/page/base/difference.js";

const change = (more) => ({
  test: "root disk", was: null, action: "change", type: "disk", number: 4, impossible: null, reason: null,
    fields: [], ...more,
});
const agent = (name, changes, account = "me@example.org") => ({ agent: { id: 1, account, name }, groups: [],
  changes });
const textOf = (more) => lines({ agents: [agent("a", [change(more)])] })[0].text;

test("changes in the words of the command line", () => {
  const field = (name, from, to) => ({ name, from, to });
  assert.equal(textOf({ fields: [field("free", "5 GB", "10 %")] }), "disk: free 5 GB -> 10 %");
  assert.equal(textOf({ fields: [field("free", null, "10 %")] }), "disk: free now 10 %");
  assert.equal(textOf({ fields: [field("free", "10 %", null)] }), "disk: without free (was 10 %)");
  assert.equal(textOf({ action: "add", fields: [field("disk", null, "/"), field("free", null, "5 GB")] }),
    "disk /, free 5 GB");
  assert.equal(textOf({ action: "add", type: "load average", fields: [field("load", null, "5m 8")] }),
    "load average: load 5m 8");
  assert.equal(textOf({ action: "rename", was: "disk" }), "disk: was disk");
  assert.equal(textOf({ action: "remove" }), "disk");
  assert.equal(textOf({ reason: "10 % of 50 GB", fields: [field("free", "5 GB", "10 %")] }),
    "disk: free 5 GB -> 10 %; 10 % of 50 GB");
  assert.equal(textOf({ impossible: "there is no disk", reason: "there is no disk" }),
    "disk: there is no disk");
  assert.equal(textOf({ action: "intervals", type: null, test: null, fields: [field("poll", "60s",
    "30s")] }), "poll 60s -> 30s");
});

test("marks", () => {
  const all = ["add", "change", "rename", "remove", "intervals",
    "__proto__"].map((action) => change({ action }));
  const shown = lines({ agents: [agent("a", [...all, change({ action: "add", impossible: "no" })])] });
  assert.equal(shown.map((each) => each.mark).join(""), "+~>-~~!");
  assert.equal(shown[4].test, "intervals");
  assert.deepEqual([shown[6].isImpossible, shown[0].isImpossible], [true, false]);
});

test("names have the account when there are several", () => {
  const one = lines({ agents: [agent("a", [change()]), agent("b", [change()])] });
  assert.deepEqual(one.map((each) => each.name), ["a", "b"]);
  assert.deepEqual(one[0].agent, { id: 1, account: "me@example.org", name: "a" });
  const two = lines({ agents: [agent("a", [change()]), agent("b", [change()], "you")] });
  assert.deepEqual(two.map((each) => each.name), ["me@example.org/a", "you/b"]);
});

test("agents stand together over what they have in common", () => {
  const shared = change({ test: "shared" });
  const own = change({ test: "own" });
  const all = sections({ agents: [agent("a", [shared]), agent("b", [own, shared]), agent("c", [shared,
    shared])] });
  assert.deepEqual(all.map((each) => [each.agents, each.changes.map((one) => one.test)]),
    [[["a", "b", "c"], ["shared"]], [["b"], ["own"]]]);
});

test("the sentence below it", () => {
  const of = (more) => ({ summary: { add: 0, change: 0, rename: 0, remove: 0, intervals: 0, impossible: 0,
    unchanged: 316,
    agents: 20, agents_changed: 4, ...more } });
  assert.equal(summary(of({ add: 3, remove: 1, impossible: 1 })),
    "3 added, 1 removed on 4 of 20 agents; 1 cannot be; 316 tests as before");
  assert.equal(summary(of({ impossible: 2 })),
    "nothing is sent on 4 of 20 agents; 2 cannot be; 316 tests as before");
  assert.equal(summary(of({})), "no test changes; 316 tests as before");
  assert.equal(summary(of({ intervals: 1, agents: 1, agents_changed: 1 })),
    "1 with other intervals on 1 of 1 agent; 316 tests as before");
  assert.equal(makesDifference(of({})), false);
  assert.equal(makesDifference(of({ impossible: 1 })), true);
});

test("answers that are not what they should be", () => {
  for (const wrong of [null, undefined, {}, { agents: null, summary: null }, { agents: [null, 5, {},
    { changes: [null, "x", {}] }] }]) {
    assert.ok(Array.isArray(lines(wrong)));
    assert.ok(Array.isArray(sections(wrong)));
    assert.equal(summary(wrong), "no test changes; 0 tests as before");
    assert.equal(makesDifference(wrong), false);
    assert.equal(leftOut(wrong), "");
  }
  assert.equal(leftOut({ more: 5 }), "and 5 more changes, of agents that are not listed");
  const hostile = lines({ agents: [agent("a\u202e", [change({ test: "x\0".repeat(10000),
    type: "\u2066" })])] })[0];
  assert.equal(hostile.name, "a⟨U+202E⟩");
  assert.ok(!/[\0\u202e\u2066]/.test(hostile.test + hostile.text));
});
