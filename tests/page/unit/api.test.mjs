/* What the page asks, against a collector that is made up: addresses, ETags, patience, and what is
 * said of what did not work. */
import assert from "node:assert/strict";
import test, { beforeEach } from "node:test";
import { now } from "../../../collector/page/base/text.js";
import * as api from "../../../collector/page/api.js";

let asked, answers, waited, signedOut = 0;

const json = (status, body, headers = {}) => () => {
  const type = status < 400 ? "application/json" : "application/problem+json";
  return new Response(status === 204 || status === 304 ? null : JSON.stringify(body),
    { status, headers: { "Content-Type": type, ...headers } });
};

beforeEach(() => {
  asked = [];
  answers = [];
  waited = [];
  signedOut = 0;
  api.replaceOutside({
    fetch: async (address, how) => {
      asked.push({ address, ...how });
      how.signal?.throwIfAborted();
      assert.ok(answers.length > 0, `nobody expected ${how.method} ${address}`);
      return answers.shift()();
    },
    wait: async (seconds) => {
      waited.push(seconds);
    },
  });
});
api.session.addEventListener("signed-out", () => {
  signedOut++;
});

test("a query leaves out what is empty, and several are with commas", async () => {
  answers = [json(200, { items: [] }), json(200, {}), json(200, {})];
  const query = { state: ["problem", "unknown"], q: "a b&c", next: null, agent: "", limit: 5 };
  await api.get("/api/v1/tests", { query });
  assert.equal(asked[0].address, "/api/v1/tests?state=problem%2Cunknown&q=a+b%26c&limit=5");
  assert.equal(asked[0].method, "GET");
  await api.get("/api/v1/tests", { query: new Map([["q", "ü"]]) });
  assert.equal(asked[1].address, "/api/v1/tests?q=%C3%BC");
  await api.get("/api/v1/tests", { query: {} });
  assert.equal(asked[2].address, "/api/v1/tests");
});

test("with an etag the same answer is not read twice", async () => {
  const etag = {};
  answers = [json(200, { items: [1] }, { ETag: "\"a\"" }), json(304, null),
    json(200, { items: [2] }, { ETag: "\"b\"" })];
  const first = await api.get("/api/v1/agents", { etag });
  assert.equal(asked[0].headers["If-None-Match"], undefined);
  assert.equal(await api.get("/api/v1/agents", { etag }), first);
  assert.equal(asked[1].headers["If-None-Match"], "\"a\"");
  await api.get("/api/v1/agents", { etag, query: { q: "x" } }); /* of another address it says nothing */
  assert.equal(asked[2].headers["If-None-Match"], undefined);
});

test("what is no JSON is a text, and nothing is null", async () => {
  const yaml = { headers: { "Content-Type": "application/yaml" } };
  answers = [() => new Response("version: 1\n", yaml), json(204)];
  assert.equal(await api.get("/api/v1/fleet", { accept: "application/yaml" }), "version: 1\n");
  assert.equal(asked[0].headers.Accept, "application/yaml");
  assert.equal(await api.del("/api/v1/tokens/3"), null);
});

test("bodies go as JSON, or as they are", async () => {
  answers = [json(201, { id: 1 }), json(200, {}), json(202, {})];
  await api.post("/api/v1/tokens", { body: { name: "x" } });
  assert.deepEqual([asked[0].body, asked[0].headers["Content-Type"]],
    ["{\"name\":\"x\"}", "application/json"]);
  await api.put("/api/v1/fleet",
    { body: "version: 1\n", type: "application/yaml", query: { dry_run: true, revision: 0 } });
  assert.deepEqual([asked[1].address, asked[1].body, asked[1].headers["Content-Type"]],
    ["/api/v1/fleet?dry_run=1&revision=0", "version: 1\n", "application/yaml"]);
  await api.post("/api/v1/agents/1/check");
  assert.deepEqual([asked[2].body, asked[2].headers["Content-Type"]], [undefined, undefined]);
});

test("a problem has what the collector says, or what can be said without", async () => {
  answers = [
    json(422, { title: "Mistakes", status: 422, detail: "Two of them.",
      errors: [{ line: 3, column: 7, text: "no" }] }),
    () => new Response("<h1>Bad gateway</h1>", { status: 502 }),
    () => {
      throw new TypeError("fetch failed");
    },
    () => new Response("{\"half", { headers: { "Content-Type": "application/json" } }),
  ];
  await assert.rejects(api.put("/f", { body: "x" }), (problem) => problem instanceof api.Problem &&
    problem.status === 422 && problem.detail === "Two of them." && problem.errors[0].line === 3);
  await assert.rejects(api.get("/f"), (problem) => problem.status === 502 && problem.title === "Status 502");
  await assert.rejects(api.get("/f"), (problem) => problem instanceof api.Problem && problem.status === 0 &&
    /Is it running/.test(problem.detail));
  await assert.rejects(api.get("/f"), (problem) => problem.status === 0 && /broke off/.test(problem.detail));
});

test("who is turned away tries again when it was told to, three times", async () => {
  const busy = json(429, { title: "Too many" }, { "Retry-After": "2" });
  answers = [busy, json(503, {}), json(200, { ok: true })];
  assert.deepEqual(await api.get("/f"), { ok: true });
  assert.deepEqual(waited, [2, 2]);
  answers = [busy, busy, busy, busy];
  await assert.rejects(api.get("/f"), (problem) => problem.status === 429 && problem.retryAfter === 2);
  assert.equal(answers.length, 0);
});

test("what may have been done is not done again, and nobody waits for minutes", async () => {
  answers = [json(503, {})];
  await assert.rejects(api.put("/f", { body: "x" }), { status: 503 });
  answers = [json(429, {}, { "Retry-After": "1" }), json(200, {})];
  await api.put("/f", { body: "x" });
  answers = [json(429, {}, { "Retry-After": "60" })];
  await assert.rejects(api.get("/f"), { status: 429, retryAfter: 60 });
});

test("who is signed out is told so, but not who signs in wrongly", async () => {
  answers = [json(401, { detail: "No." })];
  await assert.rejects(api.get("/f"), { status: 401 });
  assert.equal(signedOut, 1);
  answers = [json(401, {}), json(429, {}, { "Retry-After": "5" }), json(204)];
  await assert.rejects(api.signIn({ token: "vt_x" }), { status: 401 });
  await assert.rejects(api.signIn({ link: "vl_x" }), { status: 429, retryAfter: 5 });
  await api.signIn({ link: "vl_y" });
  assert.equal(asked.at(-1).body, "{\"link\":\"vl_y\"}");
  assert.equal(signedOut, 1);
  assert.deepEqual(waited, []);
});

test("whoever gives up is not told of a problem", async () => {
  const leaving = new AbortController();
  leaving.abort();
  await assert.rejects(api.get("/f", { signal: leaving.signal }), { name: "AbortError" });
});

test("a list is read to its end, or until there are enough", async () => {
  const page = (items, next) => json(200, { items, next });
  const seen = [];
  answers = [page([1, 2], "n1"), page([], "n2"), page([3], null)];
  const onPage = (items, { next }) => seen.push([items, next]);
  const all = await api.pages("/l", { state: "problem" }, { limit: 2, onPage });
  assert.deepEqual([...all], [1, 2, 3]);
  assert.equal(all.next, null);
  assert.deepEqual(asked.map((each) => each.address),
    ["/l?state=problem&limit=2", "/l?state=problem&limit=2&next=n1", "/l?state=problem&limit=2&next=n2"]);
  assert.deepEqual(seen, [[[1, 2], "n1"], [[], "n2"], [[3], null]]);
  answers = [page([1, 2], "n1"), page([3], "n2")];
  const some = await api.pages("/l", {}, { limit: 2, most: 3 });
  assert.deepEqual([[...some], some.next], [[1, 2, 3], "n2"]);
  assert.equal(asked.at(-1).address, "/l?limit=1&next=n1");
  answers = [page([4], null)];
  await api.pages("/l", { next: some.next });
  assert.equal(asked.at(-1).address, "/l?next=n2&limit=1000");
});

test("who one is, is known without asking for anything, after asking for something, or not", async () => {
  const known = json(200, { status: "ok", name: "ann", role: "admin", version: "3.1" });
  answers = [known];
  assert.deepEqual(await api.me(), { name: "ann", role: "admin", version: "3.1" });
  answers = [json(200, { status: "ok" }), json(200, { items: [] }), known];
  assert.equal((await api.me()).role, "admin");
  answers = [json(200, { status: "ok" }), json(401, {})];
  assert.equal(await api.me(), null);
  assert.equal(signedOut, 0);
});

test("this device's clock is compared with the collector's", async () => {
  let told = 0;
  api.session.addEventListener("clock", () => told++);
  const answered = async (...ahead) => {
    for (const seconds of ahead) {
      const date = seconds === null ? {} : { Date: new Date(Date.now() - seconds * 1000).toUTCString() };
      answers = [json(200, {}, date)];
      await api.get("/api/v1/agents");
    }
    return Math.round((Date.now() - now()) / 10000) * 10;
  };
  assert.equal(await answered(null, 0, 20, -20), 0, "as good as right");
  assert.equal(await answered(7200), 0, "one answer that waited");
  assert.equal(told, 0);
  assert.equal(await answered(7200, 7200, 7201, 7200), 7200);
  assert.equal(told, 1);
  assert.equal(await answered(7202, 7199, 0, null), 7200, "little else, once");
  assert.equal(told, 1);
  assert.equal(await answered(-600, -600, -600, -600), -600);
  assert.equal(await answered(0, 0, 0, 0), 0);
});

test("a clock that was set is believed at once", async (t) => {
  t.after(() => t.mock.reset());
  const real = Date.now;
  let aheadMs = 0;
  t.mock.method(Date, "now", () => real() + aheadMs);
  const ask = async () => {
    answers = [json(200, {}, { Date: new Date(real()).toUTCString() })];
    await api.get("/api/v1/agents");
    return Math.abs(now() - real()) < 5000;
  };
  for (aheadMs of [0, 3 * 3600000, -3 * 3600000, 0]) {
    assert.equal(await ask(), true, String(aheadMs));
  }
});
