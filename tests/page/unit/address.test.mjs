import assert from "node:assert/strict";
import { test } from "node:test";
import { read, to } from "../../../collector/page/base/address.js";

test("each screen has an address that is read back", () => {
  for (const view of ["now", "events", "fleet", "changes", "admission", "tokens", "secrets"]) {
    assert.equal(read(to(view)).view, view);
  }
  for (const [view, id] of [["agent", "12"], ["agent", "me@example.org/web-1"], ["agent", "100%"], ["test",
    "7"]]) {
    const back = read(to(view, { id }));
    assert.deepEqual([back.view, back.id], [view, id]);
  }
  assert.equal(to("agent", { id: "me@example.org/web-1" }), "/agents/me%40example.org%2Fweb-1");
  assert.equal(to("changes"), "/fleet/changes");
});

test("what is no screen is unknown", () => {
  for (const path of ["/nothing", "/agents", "/agents/", "/agents/1/2", "/tests/one", "/tests/-1",
    "/fleet/other",
    "/__proto__", "/constructor", "/agents/%E0%A4%A", "/tests/%31%00"]) {
    assert.equal(read(path).view, "unknown", path);
  }
  assert.equal(to("nothing"), "/");
  assert.equal(to("agent"), "/");
  assert.equal(to("__proto__"), "/");
});

test("slashes around it do not matter", () => {
  assert.equal(read("/fleet/").view, "fleet");
  assert.equal(read("").view, "now");
  assert.equal(read(new URL("http://host/tests/5?range=1h#x")).id, "5");
  assert.equal(read("/tests/5?range=1h#x").query.get("range"), "1h");
});

test("queries", () => {
  const query = new Map([["from", "2026-05-01T00:00:00Z"], ["state", "problem,silent"], ["q",
    "a&b=c #\u202e"], ["to", ""]]);
  const path = to("events", { query });
  assert.ok(path.startsWith("/events?from=2026-05-01T00:00:00Z&state=problem,silent&q="));
  query.delete("to");
  assert.deepEqual([...read(path).query], [...query]);
  assert.equal(to("events", { query: { state: null, q: undefined } }), "/events");
  assert.equal(to("events", { query: { limit: 0 } }), "/events?limit=0");
  assert.equal(read("/events?a=1&a=2").query.get("a"), "1");
});
