import assert from "node:assert/strict";
import { test } from "node:test";
import { readProblems } from "../../../collector/page/base/problems.js";

/* A collector with these agents: [id, state of the agent, problems, unknown ones]; it lists by agent. */
function collector(...agents) {
  const tests = agents.flatMap(([agent, , problems, unknown]) => [
    ...Array.from({ length: problems }, () => ({ agent: { id: agent }, state: "problem" })),
    ...Array.from({ length: unknown }, () => ({ agent: { id: agent }, state: "unknown" })),
  ]).map((each, id) => ({ ...each, id: id + 1 }));
  const asked = [];
  const ask = async ({ state, agent, limit, next }) => {
    asked.push(agent ? `${state} of ${agent}` : state);
    const found = tests.filter((each) => each.state === state && (!agent || each.agent.id === agent));
    const from = Number(next ?? 0);
    const end = from + limit;
    return { items: found.slice(from, end), next: end < found.length ? String(end) : null };
  };
  const known = new Map(agents.map(([id, state, problem, unknown]) =>
    [id, { id, state, tests: { ok: 0, problem, unknown } }]));
  return { ask, known, asked };
}

const silent = (from, count) => Array.from({ length: count }, (_, i) => [from + i, "silent", 0, 20]);
const count = ({ items }, state) => items.filter((each) => each.state === state).length;

test("problems come before what is unknown, and tests of silent agents not at all", async () => {
  const { ask, known, asked } = collector(...silent(1, 200), [500, "problem", 50, 7], [501, "unknown", 0, 3]);
  const found = await readProblems(ask, async () => known, 3000);
  assert.equal(count(found, "problem"), 50);
  assert.equal(count(found, "unknown"), 10);
  assert.equal(found.isMore, false);
  assert.deepEqual(asked, ["problem", "unknown of 500", "unknown of 501"]);
});

test("of many agents that have unknown tests the list is read as far as it has to be", async () => {
  const many = Array.from({ length: 30 }, (_, i) => [300 + i, "unknown", 0, 2]);
  const { ask, known, asked } = collector(...silent(1, 100), ...many, ...silent(1000, 300));
  const found = await readProblems(ask, () => known, 3000);
  assert.equal(count(found, "unknown"), 60);
  assert.ok(found.items.every((each) => each.agent.id >= 300 && each.agent.id < 330));
  assert.equal(found.isMore, false);
  assert.equal(asked.length, 4); /* one of problems, then 2,060 tests */
});

test("nothing is asked for that cannot be there", async () => {
  const { ask, known, asked } = collector(...silent(1, 1000));
  assert.deepEqual(await readProblems(ask, () => known, 3000), { items: [], isMore: false });
  assert.deepEqual(asked, ["problem"]);
});

test("it ends at the most, and says that there are more", async () => {
  const { ask, known, asked } = collector([1, "problem", 5000, 5]);
  const found = await readProblems(ask, () => known, 3000);
  assert.equal(found.items.length, 3000);
  assert.equal(found.isMore, true);
  assert.deepEqual(asked, ["problem", "problem", "problem"]);
  const some = collector([1, "problem", 20, 50], ...Array.from({ length: 20 }, (_, i) => [i + 2, "unknown", 0, 5]));
  const cut = await readProblems(some.ask, () => some.known, 100);
  assert.equal(count(cut, "problem"), 20);
  assert.equal(cut.items.length, 100);
  assert.equal(cut.isMore, true);
});
