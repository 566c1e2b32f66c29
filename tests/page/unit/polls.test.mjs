import assert from "node:assert/strict";
import { test } from "node:test";
import { Polls } from "../../../collector/page/base/polls.js";

const at = (second) => new Date(Date.UTC(2026, 4, 1) + second * 1000).toISOString().replace(".000Z", "Z");
const result = (time, received) => ({ time: at(time), received: at(received) });
const seen = (polls) => polls.newest().map(({ received, results }) =>
  [(Date.parse(received) / 1000) % 86400, results]);

test("results of one second are of one poll, and each counts once", () => {
  const polls = new Polls();
  [[1, 1, 10], [2, 1, 10], [1, 5, 20], [1, 5, 20], [2, 9, 20], [1, 9, 20]].forEach(([of, time, received]) =>
    polls.add(of, result(time, received)));
  assert.deepEqual(seen(polls), [[20, 3], [10, 2]]);
});

test("the last ten are kept, and what is late of those before does not come back", () => {
  const polls = new Polls();
  for (let i = 1; i <= 15; i++) {
    polls.add(1, result(i, i));
  }
  polls.add(2, result(3, 3));
  assert.equal(seen(polls).length, 10);
  assert.deepEqual(seen(polls).at(-1), [6, 1]);
});

test("lists say what was before, with what came live meanwhile", () => {
  const polls = new Polls();
  polls.add(1, result(29, 30));
  polls.addLists([
    { test: 1, items: [result(29, 30), result(19, 20), result(9, 10)], next: null },
    { test: 2, items: [result(28, 30), result(18, 20)], next: "more" },
  ]);
  /* Of the second test there may be more that came at 20. */
  assert.deepEqual(seen(polls), [[30, 2]]);
  polls.add(2, result(18, 20));
  assert.deepEqual(seen(polls), [[30, 2]]);
  polls.clear();
  const many = Array.from({ length: 30 }, (_, i) => result(100 - i, 100 - i));
  polls.addLists([{ test: 1, items: many, next: null }]);
  assert.deepEqual(seen(polls), Array.from({ length: 10 }, (_, i) => [100 - i, 1]));
});
