import assert from "node:assert/strict";
import { test } from "node:test";
import { Model } from "../../../collector/page/base/model.js";

const at = (seconds) => new Date(Date.UTC(2026, 4, 1) + seconds * 1000).toISOString().replace(".000Z", "Z");

const agent = (id, more) => ({
  id, account: "me@example.org", name: "web-" + id, state: "ok", since: at(0), last_poll: at(100),
    first_poll: at(-1000),
  address: "192.0.2." + id, version: "3.0", groups: ["web servers"], tests: { ok: 2, problem: 0, unknown: 0 },
  identity: "proven", ...more,
});
const reference = (id) => ({ id, account: "me@example.org", name: "web-" + id });
const aTest = (id, of, more) => ({
  id, agent: reference(of), group: "everything", type: "disk", number: 401, name: "root disk", target: "/",
    state: "problem",
  since: at(50), time: at(100), status: "limit reached", message: "full", values: {}, definition: null,
    ...more,
});
const live = (id, more) => {
  const { state, since, tests, ...others } = agent(id, more);
  return { kind: "agent", data: { id, account: "me@example.org", name: others.name, state, since, tests,
    ...(more?.retired && { retired: more.retired }), ...(more?.stale && { stale: true }) } };
};
let lastEvent = 0;
const event = (of, testId, from, to, seconds, more) => ({
  kind: "event",
  data: { id: ++lastEvent, time: at(seconds), agent: reference(of), from, to, message: "m",
    test: testId && { id: testId, type: "disk", number: 401, name: "root disk", target: "/" }, ...more },
});
const result = (of, testId, seconds, more) => ({
  kind: "result",
  data: { time: at(seconds), received: at(seconds + 1), state: "ok", status: "ok", message: "fine",
    values: {}, location: 1,
    agent: reference(of), test: { id: testId, type: "disk", number: 401, name: "root disk", target: "/" },
      ...more },
});
const some = (...items) => {
  const model = new Model();
  model.setAgents(items.length > 0 ? items : [agent(1), agent(2), agent(10)]);
  return model;
};
const names = (list) => list.map((each) => each.name);
const keys = (model) => model.worstFirst().map((each) => each.key);

test("an empty model", () => {
  const model = new Model();
  assert.deepEqual(model.counts(), { ok: 0, problem: 0, unknown: 0, silent: 0 });
  assert.deepEqual(model.testCounts(), { ok: 0, problem: 0, unknown: 0 });
  assert.deepEqual(model.worstFirst(), []);
  assert.deepEqual(model.sortedAgents(), []);
  assert.deepEqual(model.search("a"), { agents: [], tests: [] });
});

test("messages that are none do nothing", () => {
  const model = some();
  const { version } = model;
  for (const message of [null, undefined, {}, { kind: "agent" }, { kind: "agent", data: null },
    { kind: "agent", data: {} },
    { kind: "event", data: {} }, { kind: "event", data: { agent: { id: 1 }, test: {} } }, { kind: "result",
      data: {} },
    { kind: "result", data: { agent: { id: "x" } } }, { kind: "change", data: { id: 1 } },
      { kind: "__proto__", data: { id: 1 } }]) {
    const changed = model.takeMessage(message);
    assert.equal(changed.agents.size + changed.tests.size + changed.again.size, 0, JSON.stringify(message));
  }
  assert.equal(model.version, version);
});

test("counts and orders of agents", () => {
  const model = some(agent(10, { state: "problem" }), agent(2), agent(1, { state: "silent" }), agent(3,
    { state: "unknown" }));
  assert.deepEqual(model.counts(), { ok: 1, problem: 1, unknown: 1, silent: 1 });
  assert.deepEqual(names(model.sortedAgents("name")), ["web-1", "web-2", "web-3", "web-10"]);
  assert.deepEqual(names(model.sortedAgents()), ["web-1", "web-10", "web-3", "web-2"]);
  assert.equal(model.sortedAgents(), model.sortedAgents(), "as long as nothing changes");
  assert.deepEqual(model.testCounts(), { ok: 8, problem: 0, unknown: 0 });
});

test("an agent's message", () => {
  const model = some();
  const old = model.agents.get(1);
  const changed = model.takeMessage(live(1, { state: "problem", since: at(200), tests: { ok: 1, problem: 1,
    unknown: 0 } }));
  assert.deepEqual([...changed.agents], [1]);
  assert.notEqual(model.agents.get(1), old);
  assert.equal(model.agents.get(1).address, "192.0.2.1", "what it does not say stays");
  assert.equal(model.counts().problem, 1);
  assert.equal(model.takeMessage(live(1, { state: "problem", since: at(200), tests: { ok: 1, problem: 1,
    unknown: 0 } })).agents.size, 0);
  model.takeMessage(live(1, { state: "ok", since: at(150) }));
  assert.equal(model.agents.get(1).state, "problem", "late");
  model.takeMessage(live(1, { state: "unknown", since: at(300), stale: true }));
  assert.equal(model.agents.get(1).stale, true);
  model.takeMessage(live(1, { state: "ok", since: at(301) }));
  assert.equal("stale" in model.agents.get(1), false);
});

test("an agent that is new", () => {
  const model = some();
  model.takeMessage(live(7));
  assert.deepEqual(model.agents.get(7).groups, []);
  assert.deepEqual(names(model.sortedAgents("name")), ["web-1", "web-2", "web-7", "web-10"]);
  model.setAgents([agent(1)]);
  assert.deepEqual([...model.agents.keys()].sort(), [1, 7], "newer than that list");
  model.takeMessage({ kind: "lost" });
  model.setAgents([agent(1)]);
  assert.deepEqual([...model.agents.keys()], [1]);
});

test("a problem comes and goes", () => {
  const model = some();
  let changed = model.takeMessage(event(1, 12, "ok", "problem", 200));
  assert.deepEqual([...changed.tests], [12]);
  assert.deepEqual(keys(model), ["test-12"]);
  assert.equal(model.tests.get(12).agent.name, "web-1");
  assert.equal(model.worstFirst(), model.worstFirst());
  changed = model.takeMessage(event(1, 12, "problem", "ok", 260));
  assert.deepEqual([...changed.tests], [12]);
  assert.equal(model.tests.has(12), false);
  assert.deepEqual(keys(model), []);
});

test("events that come late or twice", () => {
  const model = some();
  const first = event(1, 12, "ok", "problem", 200);
  const second = event(1, 12, "problem", "ok", 260);
  model.takeMessage(first);
  model.takeMessage(second);
  assert.equal(model.takeMessage(first).tests.size, 0);
  assert.equal(model.takeMessage(second).tests.size, 0);
  assert.equal(model.tests.size, 0);
  model.setProblems([aTest(13, 1, { since: at(500) })]);
  model.takeMessage(event(1, 13, "problem", "ok", 400));
  assert.equal(model.tests.get(13).state, "problem", "the list knew more");
});

test("the number of a message tells for sure", () => {
  const model = some();
  const late = { ...live(1, { state: "problem", since: at(-50) }), id: "4711.1-5" };
  model.takeMessage({ ...live(1, { state: "ok", since: at(200) }), id: "4711.1-6" });
  assert.equal(model.takeMessage(late).agents.size, 0);
  assert.equal(model.takeMessage({ ...late, id: "4711.1-7" }).agents.size, 1, "since may go back");
  assert.equal(model.takeMessage({ ...live(2, { state: "problem" }), id: "4712.9-1" }).agents.size, 1,
    "another run");
});

test("a problem that results found earlier takes the agent back in time", () => {
  const model = some(agent(1, { since: at(1000) }));
  const message = live(1, { state: "problem", since: at(900), tests: { ok: 1, problem: 1, unknown: 0 } });
  model.takeMessage(message);
  assert.equal(model.agents.get(1).state, "ok");
  model.takeMessage(event(1, 12, "ok", "problem", 900));
  model.takeMessage(message);
  assert.equal(model.agents.get(1).state, "problem");
});

test("the worst first, of each the newest", () => {
  const model = some(agent(1), agent(2, { state: "silent", since: at(10) }), agent(3, { state: "silent",
    since: at(20) }));
  model.setProblems([
    aTest(1, 1, { since: at(1) }), aTest(2, 1, { since: at(3) }), aTest(3, 1, { since: null }), aTest(4, 1,
      { state: "unknown", stale: true, since: at(99) }),
    aTest(7, 1, { state: "unknown", since: at(99) }), /* nothing has come of it */
    aTest(5, 1, { since: at(3) }), aTest(6, 2, { since: at(500) }),
  ]);
  assert.deepEqual(keys(model), ["agent-3", "agent-2", "test-2", "test-5", "test-1", "test-3", "test-4"]);
  model.takeMessage(event(1, 1, "problem", "unknown", 700, { stale: true }));
  model.takeMessage(event(1, 9, "ok", "problem", 800));
  assert.deepEqual(keys(model), ["agent-3", "agent-2", "test-9", "test-2", "test-5", "test-3", "test-1",
    "test-4"]);
  assert.equal(model.worstFirst()[6].stale, true);
});

test("tests of a silent agent are not told of, and asked for again when it is back", () => {
  const model = some();
  model.setProblems([aTest(12, 1)]);
  model.takeMessage(event(1, null, "problem", "silent", 300));
  assert.deepEqual(keys(model), ["agent-1"]);
  model.takeMessage(live(1, { state: "silent", since: at(300), tests: { ok: 0, problem: 0, unknown: 2 } }));
  const back = live(1, { state: "problem", since: at(250), tests: { ok: 0, problem: 2, unknown: 0 } });
  model.takeMessage(event(1, null, "silent", "problem", 400));
  let changed = model.takeMessage(back);
  assert.deepEqual(keys(model), ["test-12"]);
  assert.deepEqual([...changed.again], [1]);
  changed = model.takeMessage(back);
  assert.equal(changed.again.size, 0, "once");
  model.setProblemsOf(1, [aTest(12, 1), aTest(13, 1)]);
  assert.equal(model.takeMessage(back).again.size, 0);
  assert.deepEqual(keys(model), ["test-12", "test-13"]);
});

test("what was unknown while an agent was silent is forgotten when it is back", () => {
  const model = some(agent(1, { state: "silent", since: at(200), tests: { ok: 0, problem: 0, unknown: 2 } }));
  model.setProblems([aTest(12, 1, { state: "unknown" }), aTest(13, 1, { state: "unknown" })]);
  model.takeMessage(event(1, null, "silent", "ok", 400));
  assert.deepEqual(keys(model), []);
  const back = live(1, { state: "ok", since: at(400), tests: { ok: 1, problem: 0, unknown: 1 } });
  assert.deepEqual([...model.takeMessage(back).again], [1], "one may be unknown still");
  assert.equal(model.takeMessage(back).again.size, 0, "once");
});

test("a list of problems that is older than what was heard", () => {
  const model = some();
  model.takeMessage(event(1, 12, "ok", "problem", 200));
  model.takeMessage(event(1, 13, "ok", "problem", 200));
  model.takeMessage(event(1, 13, "problem", "ok", 250));
  model.setProblems([aTest(13, 1, { since: at(200) }), aTest(14, 1)]);
  assert.deepEqual([...model.tests.keys()].sort(), [12, 14]);
  model.setProblems([aTest(12, 1, { since: at(300), time: at(300), message: "new" })]);
  assert.deepEqual([...model.tests.keys()], [12]);
  assert.equal(model.tests.get(12).message, "new");
});

test("after something was lost lists count alone", () => {
  const model = some();
  model.takeMessage(event(1, 12, "ok", "problem", 200));
  model.takeMessage({ kind: "lost", data: "" });
  model.setProblems([]);
  assert.equal(model.tests.size, 0);
  model.takeMessage(event(1, 12, "ok", "problem", 300));
  model.takeMessage({ kind: "lost" });
  model.setProblems([aTest(12, 1, { since: at(100), state: "unknown", stale: true })]);
  assert.equal(model.tests.get(12).state, "unknown");
});

test("of a list that was cut the newest others stay, until their agents are asked", () => {
  const all = Array.from({ length: 14 }, (each, i) => agent(i + 1));
  const model = some(...all);
  for (const { id } of all) {
    model.takeMessage(event(id, 100 + id, "ok", "problem", 200 + id));
  }
  model.takeMessage(event(14, 99, "ok", "problem", 1)); /* of an agent that is asked anyway */
  model.takeMessage({ kind: "lost", data: {} });
  const changed = model.setProblems([aTest(101, 1), aTest(500, 2)], { isMore: true });
  assert.deepEqual([...changed.again], [14, 13, 12, 11, 10, 9, 8, 7, 6, 5]);
  assert.deepEqual([...model.tests.keys()].sort((a, b) => a - b),
    [99, 101, 105, 106, 107, 108, 109, 110, 111, 112, 113, 114, 500]);
  model.setProblemsOf(14, [aTest(114, 14)]);
  assert.equal(model.tests.has(99), false, "it is so no more");
  assert.equal(model.tests.has(114), true);
  model.takeMessage(event(13, 98, "ok", "problem", 400));
  model.setProblemsOf(13, []);
  assert.deepEqual([model.tests.has(113), model.tests.has(98)], [false, true], "the stream knows more");
  model.setProblems([aTest(500, 2)]);
  assert.deepEqual([...model.tests.keys()].sort((a, b) => a - b), [98, 500]);
});

test("a retired agent goes with its tests, and may come back", () => {
  const model = some();
  model.setProblems([aTest(12, 1), aTest(13, 2)]);
  const retired = live(1, { retired: at(300), since: null });
  const changed = model.takeMessage(retired);
  assert.deepEqual([[...changed.agents], [...changed.tests]], [[1], [12]]);
  assert.deepEqual(keys(model), ["test-13"]);
  assert.deepEqual(names(model.sortedAgents()), ["web-2", "web-10"]);
  assert.equal(model.takeMessage(retired).agents.size, 0);
  model.takeMessage(live(1, { since: at(200) }));
  model.takeMessage(event(1, 12, "ok", "problem", 250));
  model.setAgents([agent(1), agent(2), agent(10)]);
  assert.equal(model.agents.has(1), false, "late");
  model.takeMessage(live(1, { since: at(400) }));
  assert.equal(model.agents.has(1), true);
  model.takeMessage(retired);
  assert.equal(model.agents.has(1), true, "the old message again");
});

test("a list without an agent takes it and its tests away", () => {
  const model = some();
  model.setProblems([aTest(12, 1)]);
  const changed = model.setAgents([agent(2), agent(10)]);
  assert.deepEqual([[...changed.agents], [...changed.tests]], [[1], [12]]);
  model.addAgents([agent(3)]);
  assert.equal(model.agents.size, 3);
});

test("watched tests are kept when they are ok, until nobody watches", () => {
  const model = some();
  const end = model.watchTests([aTest(12, 1, { state: "ok" }), aTest(13, 1)]);
  const endOther = model.watchTests([aTest(12, 1, { state: "ok" })]);
  assert.equal(model.tests.get(12).state, "ok");
  assert.deepEqual(keys(model), ["test-13"]);
  model.takeMessage(event(1, 13, "problem", "ok", 200));
  assert.equal(model.tests.get(13).state, "ok");
  model.setProblems([]);
  assert.equal(model.tests.size, 2);
  end();
  end();
  assert.deepEqual([...model.tests.keys()], [12]);
  endOther();
  assert.equal(model.tests.size, 0);
});

test("results of tests that are known", () => {
  const model = some();
  model.watchTests([aTest(12, 1, { state: "ok" })]);
  let changed = model.takeMessage(result(1, 12, 200, { values: { total: { value: 5, unit: "GB" } } }));
  assert.deepEqual([[...changed.tests], [...changed.agents]], [[12], [1]]);
  assert.equal(model.tests.get(12).values.total.value, 5);
  assert.equal(model.agents.get(1).last_poll, at(201));
  changed = model.takeMessage(result(1, 12, 200, { values: { total: { unit: "GB", value: 5 } } }));
  assert.equal(changed.tests.size + changed.agents.size, 0, "twice");
  model.takeMessage(result(1, 12, 150, { message: "late" }));
  assert.equal(model.tests.get(12).message, "fine");
  model.takeMessage(result(1, 12, 100, { received: at(300), message: "its clock was set back" }));
  assert.equal(model.tests.get(12).message, "its clock was set back");
  assert.equal(model.takeMessage(result(1, 99, 400)).tests.size, 0);
  assert.equal(model.tests.get(12).state, "ok");
});

test("search", () => {
  const model = some(agent(1), agent(2, { groups: ["Databases"], address: "198.51.100.2" }), agent(10));
  model.setProblems([aTest(12, 2, { name: "Root <b>disk</b>", target: "/srv" }), aTest(13, 1, { type: "ping",
    name: "gateway" })]);
  const found = (words) => {
    const { agents, tests } = model.search(words);
    return [agents.map((each) => each.id), tests.map((each) => each.id)];
  };
  assert.deepEqual(found("WEB-2"), [[2], [12]]);
  assert.deepEqual(found("databases disk"), [[], [12]]);
  assert.deepEqual(found(["198.51", "me@"]), [[2], [12]]);
  assert.deepEqual(found("  "), [[1, 2, 10], [13, 12]]);
  assert.deepEqual(found(null)[0].length, 3);
  assert.deepEqual(found("x".repeat(10000)), [[], []]);
  assert.deepEqual(found("\u202e"), [[], []]);
  model.setAgents([agent(1), agent(2, { address: "203.0.113.9" })]);
  assert.deepEqual(found("203.0"), [[2], [12]]);
  assert.deepEqual(found("198.51"), [[], []]);
  model.takeMessage(live(2, { name: "renamed", since: at(999) }));
  assert.deepEqual(found("renamed"), [[2], [12]]);
});

test("long messages are cut", () => {
  const model = some();
  model.takeMessage(event(1, 12, "ok", "problem", 200, { message: "😀".repeat(10000) }));
  assert.equal(model.tests.get(12).message.length, 2000);
  model.setProblems([aTest(13, 1, { message: null })]);
  assert.equal(model.tests.get(13).message, null);
});

test("order stays right under many messages", () => {
  const model = some(...Array.from({ length: 20 }, (_, i) => agent(i + 1)));
  model.setProblems([]);
  model.worstFirst();
  let seed = 7;
  const random = (below) => (seed = (seed * 48271) % 2147483647) % below;
  for (let i = 0; i < 5000; i++) {
    const of = 1 + random(20);
    const to = ["ok", "problem", "unknown"][random(3)];
    model.takeMessage(random(10) === 0
      ? event(of, null, "ok", random(2) ? "silent" : "ok", 200 + i)
      : event(of, of * 100 + random(20), "ok", to, 200 + i));
    if (i % 50 === 0) {
      const kept = keys(model);
      const fresh = new Model();
      fresh.setAgents([...model.agents.values()]);
      fresh.setProblems([...model.tests.values()]);
      assert.deepEqual(kept, keys(fresh));
    }
  }
});

test("20,000 tests and a minute of messages are little work", (t) => {
  const model = new Model();
  model.setAgents(Array.from({ length: 1000 }, (_, i) => agent(i + 1)));
  const all = [];
  for (let i = 0; i < 20000; i++) {
    all.push(aTest(i + 1, 1 + (i % 1000), { since: at(i) }));
  }
  model.setProblems(all);
  model.worstFirst();
  model.sortedAgents();
  /* Work is counted, not timed: whole lists are sorted once, and each change is put in its place. */
  const { sort, splice } = Array.prototype;
  let sorts = 0, puts = 0;
  t.after(() => Object.assign(Array.prototype, { sort, splice }));
  Object.assign(Array.prototype, {
    sort(...given) {
      sorts += this.length > 1 ? 1 : 0;
      return sort.apply(this, given);
    },
    splice(...given) {
      puts++;
      return splice.apply(this, given);
    },
  });
  let events = 0;
  for (let i = 0; i < 20000; i++) {
    model.takeMessage(result(1 + (i % 1000), 1 + i, 20000 + (i / 333)));
    if (i % 20 === 0) {
      model.takeMessage(live(1 + (i % 1000), { state: i % 40 ? "ok" : "problem", since: at(20000 + i) }));
      model.takeMessage(event(1 + (i % 1000), 1 + i, "ok", i % 3 ? "problem" : "ok", 20000 + i));
      events++;
    }
    if (i % 6 === 0) {
      model.counts();
      model.worstFirst();
      model.sortedAgents();
    }
  }
  Object.assign(Array.prototype, { sort, splice });
  assert.equal(sorts, 0);
  assert.ok(puts > 0 && puts <= 2 * events, `${puts} for ${events} events`);
  assert.deepEqual(model.worstFirst().map(({ key }) => key), (() => {
    const fresh = new Model();
    fresh.setAgents([...model.agents.values()]);
    fresh.setProblems([...model.tests.values()]);
    return fresh.worstFirst().map(({ key }) => key);
  })());
});
