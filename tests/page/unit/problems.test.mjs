import assert from "node:assert/strict";
import { test } from "node:test";
import { grouped, readProblems } from "../../../collector/page/base/problems.js";

/* A collector with so many tests of each state; it lists those that are unknown first. */
function collector(counts) {
  const tests = Object.entries(counts)
    .flatMap(([state, count]) => Array.from({ length: count }, () => state))
    .map((state, i) => ({ id: i + 1, state: state === "stale" ? "unknown" : state, stale: state === "stale" }));
  const asked = [];
  const ask = async ({ state, limit, next }) => {
    asked.push(state);
    const found = tests.filter((each) => (state === "stale" ? each.stale : each.state === state));
    const from = Number(next ?? 0);
    const end = from + limit;
    return { items: found.slice(from, end), next: end < found.length ? String(end) : null };
  };
  return { ask, asked };
}

const count = ({ items }, state) => items.filter((each) => each.state === state).length;

test("problems come before what is stale, and others that are unknown not at all", async () => {
  const { ask, asked } = collector({ unknown: 5000, stale: 30, problem: 1200 });
  const found = await readProblems(ask, 3000);
  assert.equal(count(found, "problem"), 1200);
  assert.equal(count(found, "unknown"), 30);
  assert.equal(found.isMore, false);
  assert.deepEqual(asked, ["problem", "problem", "stale"]);
});

test("what keeps an answer from being whole is said, whichever it was", async () => {
  const { ask } = collector({ problem: 1200, stale: 3 });
  const some = async (query) => ({ ...await ask(query), incomplete: query.next ? "not kept" : undefined });
  assert.equal((await readProblems(some, 3000)).incomplete, "not kept");
  assert.equal((await readProblems(ask, 3000)).incomplete, null);
});

test("it ends at the most, and says that there are more", async () => {
  const many = collector({ problem: 5000, stale: 5 });
  const found = await readProblems(many.ask, 3000);
  assert.equal(found.items.length, 3000);
  assert.equal(found.isMore, true);
  const some = await readProblems(collector({ problem: 20, stale: 500 }).ask, 100);
  assert.deepEqual([count(some, "problem"), some.items.length, some.isMore], [20, 100, true]);
  const exactly = await readProblems(collector({ problem: 100 }).ask, 100);
  assert.deepEqual([exactly.items.length, exactly.isMore], [100, false]);
  const oneMore = await readProblems(collector({ problem: 100, stale: 1 }).ask, 100);
  assert.deepEqual([oneMore.items.length, oneMore.isMore], [100, true]);
});

test("what is the same on many agents is one, where the first of it stands", () => {
  const usual = { group: "web", type: "process", state: "problem" };
  const of = (name, more = {}) => ({ kind: "test", of: { name, ...usual, ...more } });
  const silent = (id) => ({ kind: "agent", of: { id, state: "silent" } });
  const loads = [1, 2, 3, 4, 5].map((id) => of("load", { id }));
  const agents = [1, 2, 3, 4, 5, 6].map(silent);
  const others = [of("load", { group: null }), of("load", { type: "cpu" }),
    of("load", { state: "unknown", stale: true }), of("load", { state: "unknown" }),
    ...Array.from({ length: 4 }, () => of("disk"))];
  const found = grouped([...agents, others[4], loads[0], others[5], ...loads.slice(1), ...others.slice(0, 4),
    ...others.slice(6)]);
  assert.deepEqual(found.map(({ kind, items }) => (kind === "group" ? items : null)),
    [agents, null, loads, ...new Array(7).fill(null)]);
  assert.deepEqual([found[1], ...found.slice(3)],
    [others[4], others[5], ...others.slice(0, 4), ...others.slice(6)]);
  assert.equal(found[2].of, loads[0].of);
  assert.notEqual(found[0].like, found[2].like);
  assert.deepEqual(grouped([]), []);
});
