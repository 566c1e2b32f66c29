/* Answers that are older than what the stream has said. */
import assert from "node:assert/strict";
import test from "node:test";
import { Heard } from "../../../collector/page/base/heard.js";

const at = (second) => `2026-05-01T12:00:${String(second).padStart(2, "0")}Z`;
const listed = (more = {}) => ({ id: 1, name: "load", state: "ok", since: at(1), time: at(10), status: "OK",
  message: null, values: { load: { value: 1, unit: "" } }, ...more });
const problem = { to: "problem", time: at(12), message: "too much" };
const none = new Map();

test("an event that came while an answer was on its way counts for more", () => {
  const heard = new Heard();
  const asked = heard.ask();
  heard.say(1, problem);
  const [found] = heard.answer(asked, [listed()], none);
  assert.deepEqual([found.state, found.since, found.message], ["problem", at(12), "too much"]);
  assert.equal(found.time, at(10));
});

test("one that came before is in the answer, as is one that is older than its state", () => {
  const heard = new Heard();
  heard.say(1, problem);
  assert.equal(heard.answer(heard.ask(), [listed()], none)[0].state, "ok");
  const asked = heard.ask();
  heard.say(1, problem);
  const silent = { state: "unknown", since: at(20) };
  assert.equal(heard.answer(asked, [listed(silent)], none)[0].state, "unknown");
});

test("a newer result stays, and the state is that of the answer", () => {
  const heard = new Heard();
  const known = new Map([[1, listed({ time: at(11), state: "problem", message: "newer", status: "BAD" })]]);
  const [found] = heard.answer(heard.ask(), [listed()], known);
  assert.deepEqual([found.time, found.message, found.status, found.state], [at(11), "newer", "BAD", "ok"]);
  const [first] = heard.answer(heard.ask(), [listed({ time: null, since: null })], known);
  assert.equal(first.time, at(11));
  const [other] = heard.answer(heard.ask(), [listed({ time: at(12) })], known);
  assert.deepEqual([other.time, other.message], [at(12), null]);
});

test("an answer that a later one has overtaken is none", () => {
  const heard = new Heard();
  const first = heard.ask(), second = heard.ask();
  assert.equal(heard.answer(second, [listed()], none).length, 1);
  assert.equal(heard.answer(first, [listed({ state: "problem" })], none), null);
});

test("answers in order keep what was said after the first question only", () => {
  const heard = new Heard();
  const first = heard.ask();
  heard.say(1, problem);
  const second = heard.ask();
  assert.equal(heard.answer(first, [listed()], none)[0].state, "problem");
  assert.equal(heard.answer(second, [listed({ state: "ok", since: at(13) })], none)[0].state, "ok");
});
