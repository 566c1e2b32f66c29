import assert from "node:assert/strict";
import { test } from "node:test";
import { overtakenBy } from "../../../collector/page/view/changes.js";

const web = { account: "a", name: "web-1" };
const change = (id, outcome, more = {}) =>
  ({ id, revision: id * 10, agent: web, test: "data", was: null, outcome, ...more });
const known = (all, { open = [], fresh = [] } = {}) => ({ open: new Set(open), fresh: new Set(fresh), all });

test("what is not open any more was overtaken by the next change of the same test", () => {
  const first = change(1, "impossible");
  const all = [change(4, "confirmed"), change(3, "confirmed", { test: "other" }), change(2, "sent"), first];
  assert.equal(overtakenBy(first, known(all)), 20);
  assert.equal(overtakenBy(all[2], known(all)), 40);
  assert.equal(overtakenBy(all[0], known(all)), null);
  const renamed = change(5, "confirmed", { test: "disk", was: "data" });
  assert.equal(overtakenBy(first, known([renamed, first])), 50);
});

test("a later change of a namesake on another agent is none of it, and who retired has none", () => {
  const first = change(1, "unanswered");
  const others = [change(2, "confirmed", { agent: { account: "b", name: "web-1" } }),
    change(3, "confirmed", { agent: { account: "a", name: "web-2" } })];
  assert.equal(overtakenBy(first, known([...others, first])), 0);
});

test("what is open, came after that was asked, or is not known is not called overtaken", () => {
  const first = change(1, "impossible");
  const all = [change(2, "confirmed"), first];
  assert.equal(overtakenBy(first, known(all, { open: [1] })), null);
  assert.equal(overtakenBy(first, known(all, { fresh: [1] })), null);
  assert.equal(overtakenBy(first, null), null);
});
