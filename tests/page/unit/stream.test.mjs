/* The stream against a collector and a clock that are made up: breaks, silence, sleep, changed wishes;
 * and the exchange between it and the tabs. */
import assert from "node:assert/strict";
import test from "node:test";
import { Exchange, Stream } from "../../../collector/page/stream.js";

const turn = () => new Promise((resolve) => setImmediate(resolve));

/* A clock that is wound by hand, and the collector's end of the streams. */
class World {
  now = 1000000;
  timers = [];
  requests = []; /* {url, headers, signal, send(text), end(), refuse(status, headers), fail()} */

  later = (fn, ms) => {
    const timer = { fn, at: this.now + ms };
    this.timers.push(timer);
    return () => {
      this.timers = this.timers.filter((each) => each !== timer);
    };
  };

  async pass(ms, { isAsleep = false } = {}) {
    const until = this.now + ms;
    for (;;) {
      const next = this.timers.filter((each) => each.at <= until).sort((a, b) => a.at - b.at)[0];
      if (!next) {
        break;
      }
      this.timers = this.timers.filter((each) => each !== next);
      this.now = isAsleep ? until : Math.max(this.now, next.at);
      next.fn();
      await turn();
    }
    this.now = until;
    await turn();
  }

  fetch = (url, { headers, signal }) => new Promise((resolve, reject) => {
    let controller;
    const body = new ReadableStream({ start: (c) => {
      controller = c;
    } });
    const request = { url, headers, signal,
      accept: (text) => {
        resolve(new Response(body, { headers: { "Content-Type": "text/event-stream" } }));
        request.send(text ?? "retry: 3000\nid: 1.1-5\n\n");
      },
      send: (what) => controller.enqueue(typeof what === "string" ? new TextEncoder().encode(what) : what),
      end: () => controller.close(),
      refuse: (status, more = {}) => resolve(new Response("{}", { status, headers: more })),
      fail: () => reject(new TypeError("no way to it")) };
    signal.addEventListener("abort", () => {
      reject(signal.reason);
      try {
        controller.error(signal.reason);
      } catch { /* ended before */ }
    });
    this.requests.push(request);
  });

  get last() {
    return this.requests.at(-1);
  }

  get open() {
    return this.requests.filter((each) => !each.signal.aborted).length;
  }
}

function begin(more = {}) {
  const world = new World(), messages = [], states = [];
  const stream = new Stream({ fetch: world.fetch, url: "/s",
    later: world.later, now: () => world.now, random: () => 0.5,
    onMessage: (message) => messages.push(message), onState: (state) => states.push(state.state), ...more });
  return { world, messages, states, stream };
}

test("messages come in order, also those cut between two reads; nonsense is passed over", async () => {
  const { world, messages, states, stream } = begin();
  assert.equal(world.requests.length, 0);
  stream.want(new Set(["event", "agent"]));
  assert.equal(world.last.url, "/s?kind=agent%2Cevent");
  assert.equal(world.last.headers["Last-Event-ID"], undefined);
  world.last.accept();
  await turn();
  assert.deepEqual(states, ["live"]);
  world.last.send("id: 1.1-6\nevent: agent\nda");
  world.last.send("ta: {\"id\":3}\n\n:\n\nevent: event\ndata: {broken\n\n");
  world.last.send("id: 1.1-8\nevent: lost\ndata: {}\n\n");
  await turn();
  assert.deepEqual(messages, [
    { kind: "agent", data: { id: 3 }, id: "1.1-6" }, { kind: "lost", data: {}, id: "1.1-8" },
  ]);
  assert.equal(stream.lastId, "1.1-8");
});

test("a character that is cut in two is whole again", async () => {
  const { world, messages, stream } = begin();
  stream.want(["event"]);
  world.last.accept();
  const bytes = new TextEncoder().encode("event: event\ndata: {\"message\":\"Übel\"}\n\n");
  const cut = bytes.indexOf(0xc3) + 1;
  world.last.send(bytes.slice(0, cut));
  await turn();
  world.last.send(bytes.slice(cut));
  await turn();
  assert.deepEqual(messages, [{ kind: "event", data: { message: "Übel" }, id: "1.1-5" }]);
});

test("comes back with the last id, later each time, and begins anew after a steady one", async () => {
  const { world, states, stream } = begin();
  stream.want(["event"]);
  world.last.accept();
  await turn();
  await world.pass(6000);
  world.last.end();
  await turn();
  assert.deepEqual(states, ["live", "away"]);
  assert.equal(world.requests.length, 1);
  const waits = [];
  for (let i = 0; i < 8; i++) {
    const before = world.now, count = world.requests.length;
    while (world.requests.length === count) {
      await world.pass(250);
    }
    waits.push(world.now - before);
    assert.equal(world.last.headers["Last-Event-ID"], "1.1-5");
    world.last.fail();
    await turn();
  }
  assert.deepEqual(waits, [1000, 2000, 4000, 8000, 16000, 30000, 30000, 30000]);
  await world.pass(30000);
  world.last.accept();
  await turn();
  assert.equal(stream.state.state, "live");
  await world.pass(5000);
  world.last.end();
  await turn();
  const count = world.requests.length;
  await world.pass(1000);
  assert.equal(world.requests.length, count + 1);
});

test("one that ends as soon as it begins is none: the waits grow", async () => {
  const { world, stream } = begin();
  stream.want(["event"]);
  for (let i = 0; i < 4; i++) {
    const count = world.requests.length;
    world.last.accept();
    await turn();
    world.last.end();
    await turn();
    await world.pass(1000 * 2 ** i - 1);
    assert.equal(world.requests.length, count);
    await world.pass(1);
    assert.equal(world.requests.length, count + 1);
  }
});

test("silence of 40 s is the end; a comment is not silence", async () => {
  const { world, stream } = begin();
  stream.want(["event"]);
  world.last.accept();
  await turn();
  for (let i = 0; i < 10; i++) {
    await world.pass(15000);
    world.last.send(":\n\n");
    await turn();
  }
  assert.equal(stream.state.state, "live");
  await world.pass(39000);
  assert.equal(stream.state.state, "live");
  await world.pass(1500);
  assert.equal(stream.state.state, "away");
  assert.ok(world.requests[0].signal.aborted);
  await world.pass(1500);
  assert.equal(world.requests.length, 2);
});

test("an answer that never comes is the end as well", async () => {
  const { world, stream } = begin();
  stream.want(["event"]);
  await world.pass(40000);
  assert.equal(stream.state.state, "away");
});

test("after sleep it is opened anew at once", async () => {
  const { world, stream } = begin();
  stream.want(["event"]);
  world.last.accept();
  await turn();
  stream.wake(); /* in doubt about nothing */
  assert.equal(world.requests.length, 1);
  world.now += 3600000; /* no timer has run */
  stream.wake();
  assert.equal(world.requests.length, 2);
  assert.equal(world.open, 1);
  assert.equal(world.last.headers["Last-Event-ID"], "1.1-5");
  world.last.fail();
  await turn();
  stream.wake();
  assert.equal(world.requests.length, 3);
});

test("several things that say that somebody looks again are one", async () => {
  const { world, stream } = begin();
  stream.want(["event"]);
  world.last.accept();
  await turn();
  world.now += 3600000;
  stream.wake();
  stream.wake();
  await world.pass(1000);
  stream.wake();
  assert.equal(world.requests.length, 2);
  await world.pass(1000); /* no answer in two seconds is in doubt again */
  stream.wake();
  assert.equal(world.requests.length, 3);
});

test("what else is wanted is asked for at once, what is not any more is let go later", async () => {
  const { world, messages, states, stream } = begin();
  stream.want(["event"]);
  world.last.accept();
  await turn();
  stream.want(["event", "result"]);
  assert.equal(world.requests.length, 2);
  assert.equal(world.last.url, "/s?kind=event%2Cresult");
  assert.equal(world.last.headers["Last-Event-ID"], "1.1-5");
  world.last.accept();
  assert.ok(world.requests[0].signal.aborted);
  await turn();
  assert.deepEqual(states, ["live"]); /* nobody has to see that */
  stream.want(["event"]);
  stream.want(["event"]);
  await world.pass(20000);
  assert.equal(world.requests.length, 2);
  stream.want(["result", "event"]);
  world.last.send(":\n\n");
  await turn();
  await world.pass(20000);
  world.last.send(":\n\n");
  await turn();
  await world.pass(20000);
  assert.equal(world.requests.length, 2);
  stream.want(["event"]);
  world.last.send(":\n\n");
  await turn();
  await world.pass(30000);
  assert.equal(world.requests.length, 3);
  assert.equal(world.last.url, "/s?kind=event");
  world.last.accept();
  await turn();
  stream.want([]);
  await world.pass(30000);
  assert.equal(world.open, 0);
  assert.equal(world.timers.length, 0);
  stream.want(["event"]);
  assert.equal(world.last.headers["Last-Event-ID"], "1.1-5");
  assert.deepEqual(messages, []);
});

test("what else is wanted waits for the first word of a stream that is live", async () => {
  const { world, messages, stream } = begin();
  stream.want(["event"]);
  stream.want(["event", "change"]); /* nobody was told yet that it is live */
  assert.equal(world.requests.length, 2);
  world.last.accept(":\n\n");
  await turn();
  assert.equal(stream.state.state, "live");
  stream.want(["event", "change", "result"]);
  stream.want(["event"]); /* it has that */
  stream.want(["event", "result"]);
  world.last.send("event: event\ndata: {}\n");
  await turn();
  assert.equal(world.requests.length, 2);
  world.last.send("id: 1.1-6\n\n");
  await turn();
  assert.deepEqual(messages.map(({ id }) => id), ["1.1-6"]);
  assert.equal(world.requests.length, 3);
  assert.equal(world.last.url, "/s?kind=event%2Cresult");
  assert.equal(world.last.headers["Last-Event-ID"], "1.1-6");
  assert.equal(world.open, 1);
});

test("what is wanted no more is not waited for, and a break asks for what is wanted then", async () => {
  const { world, stream } = begin();
  stream.want(["event"]);
  world.last.accept(":\n\n");
  await turn();
  stream.want(["result"]);
  stream.want(["event"]);
  world.last.send("id: 1.1-6\n\n");
  await turn();
  assert.equal(world.requests.length, 1);
  const other = begin();
  other.stream.want(["event"]);
  other.world.last.accept(":\n\n");
  await turn();
  other.stream.want(["result"]);
  other.world.last.end();
  await turn();
  await other.world.pass(1500);
  assert.equal(other.world.last.url, "/s?kind=result");
  other.world.last.accept();
  await turn();
  assert.equal(other.world.requests.length, 2);
});

test("whoever is signed out waits for signing in; 429 is waited for as long as it says", async () => {
  const { world, stream } = begin();
  stream.want(["event"]);
  world.last.refuse(401);
  await turn();
  assert.deepEqual([stream.state.state, stream.state.status], ["away", 401]);
  await world.pass(600000);
  stream.wake();
  stream.want(["event", "agent"]);
  assert.equal(world.requests.length, 1);
  stream.restart();
  assert.equal(world.requests.length, 2);
  world.last.refuse(429, { "Retry-After": "20" });
  await turn();
  assert.equal(stream.state.status, 429);
  await world.pass(19000);
  assert.equal(world.requests.length, 2);
  await world.pass(1000);
  assert.equal(world.requests.length, 3);
  world.last.accept();
  await turn();
  assert.deepEqual([stream.state.state, stream.state.status], ["live", 0]);
});

test("a page of somebody in between is no stream", async () => {
  const html = { headers: { "Content-Type": "text/html" } };
  const { world, stream } = begin({ fetch: async () => new Response("<html>", html) });
  stream.want(["event"]);
  await turn();
  assert.equal(stream.state.state, "away");
  stream.stop();
  assert.equal(world.timers.length, 0);
});

function exchange() {
  const world = new World();
  const made = new Exchange({ fetch: world.fetch, url: "/s",
    later: world.later, now: () => world.now, random: () => 0.5 });
  const tab = (key) => {
    const told = [];
    const say = (message) => made.hear(key, message, (each) => told.push(each));
    const of = (type) => told.filter((each) => each.type === type);
    return { of, say,
      want: (agents = [], tests = [], more = {}) => say({ type: "want", agents, tests, ...more }),
      kinds: () => of("messages").flatMap((each) => each.messages.map((message) => message.kind)) };
  };
  return { world, made, tab };
}

const result = (agent, id) => `event: result\ndata: {"agent":{"id":${agent}},"test":{"id":${id}}}\n\n`;

const withResults = "/s?kind=agent%2Cchange%2Cevent%2Cresult";

test("tabs share one stream, and each gets the results that it wants", async () => {
  const { world, tab } = exchange();
  const a = tab("a"), b = tab("b"), c = tab("c");
  a.want();
  b.want([1]);
  c.want([], [22]);
  assert.equal(world.open, 1);
  assert.equal(world.last.url, withResults + "&result_agent=1&result_test=22");
  world.last.accept();
  await turn();
  world.last.send(result(1, 11) + result(2, 22) + result(3, 33) + "event: agent\ndata: {\"id\":1}\n\n");
  await turn();
  assert.deepEqual(a.kinds(), []);
  await world.pass(50);
  assert.deepEqual(a.kinds(), ["agent"]);
  assert.deepEqual(b.kinds(), ["result", "agent"]);
  assert.deepEqual(c.kinds(), ["result", "agent"]);
  assert.equal(a.of("messages").length, 1);
  assert.deepEqual(a.of("state").map((each) => each.state.state), ["connecting", "live"]);
});

test("a tab that is gone is forgotten, and the stream ends with the last one", async () => {
  const { world, tab } = exchange();
  const a = tab("a"), b = tab("b");
  a.want();
  b.want();
  world.last.accept();
  for (let i = 0; i < 5; i++) {
    world.last.send(":\n\n");
    await turn();
    await world.pass(20000);
    b.say({ type: "pong" });
  }
  world.last.send("event: agent\ndata: {\"id\":1}\n\n");
  await turn();
  await world.pass(50);
  assert.deepEqual(a.kinds(), []);
  assert.deepEqual(b.kinds(), ["agent"]);
  a.say({ type: "pong" });
  await world.pass(50);
  assert.deepEqual(a.kinds(), []); /* it has to say what it wants */
  a.want([], [], { wake: true });
  await world.pass(50);
  assert.deepEqual(a.kinds(), ["lost"]);
  a.say({ type: "bye" });
  b.say({ type: "bye" });
  await world.pass(60000);
  assert.equal(world.open, 0);
  assert.equal(world.timers.length, 0);
});

test("who leads goes on where the one before it was", async () => {
  const world = new World();
  const made = new Exchange({ fetch: world.fetch, later: world.later, now: () => world.now,
    lastId: "1.1-77" });
  made.hear("a", { type: "want", agents: [], tests: [] }, () => {});
  assert.equal(world.last.headers["Last-Event-ID"], "1.1-77");
  made.stop();
  assert.equal(world.open, 0);
});

const range = (count, from = 1) => Array.from({ length: count }, (each, i) => from + i);

test("results are asked for of what the tabs look at, all together", async () => {
  const { world, tab } = exchange();
  const a = tab("a"), b = tab("b"), c = tab("c");
  a.want();
  assert.equal(world.last.url, "/s?kind=agent%2Cchange%2Cevent");
  world.last.accept();
  await turn();
  b.want([20, 3], [7]);
  assert.equal(world.last.url, withResults + "&result_agent=3%2C20&result_test=7");
  world.last.accept();
  await turn();
  c.want([3], [7]); /* has them already */
  assert.equal(world.requests.length, 2);
  c.want([3], [8]);
  assert.equal(world.last.url, withResults + "&result_agent=3%2C20&result_test=7%2C8");
  world.last.accept();
  await turn();
  b.say({ type: "bye" });
  for (let i = 0; i < 2; i++) {
    assert.equal(world.requests.length, 3);
    [a, c].forEach((each) => each.say({ type: "pong" }));
    world.last.send(":\n\n");
    await turn();
    await world.pass(15000);
  }
  assert.equal(world.requests.length, 4);
  assert.equal(world.last.url, withResults + "&result_agent=3&result_test=8");
  world.last.accept();
  await turn();
  assert.equal(world.open, 1);
  c.want();
  world.last.send(":\n\n");
  await turn();
  await world.pass(30000);
  assert.equal(world.last.url, "/s?kind=agent%2Cchange%2Cevent");
});

test("of more than a hundred all results are asked for, and fewer are once that is over", async () => {
  const { world, tab } = exchange();
  const a = tab("a"), b = tab("b");
  a.want([], range(60));
  b.want([], range(60, 41)); /* 20 of them are the same */
  assert.match(world.last.url, /result_test=1%2C2%2C.*%2C100$/);
  world.last.accept();
  await turn();
  b.want([500], range(60, 41));
  assert.equal(world.last.url, withResults);
  world.last.accept();
  await turn();
  b.want([1000], range(500, 41)); /* comes already */
  assert.equal(world.requests.length, 3);
  b.want();
  world.last.send(":\n\n");
  await turn();
  await world.pass(30000);
  assert.equal(world.requests.length, 4);
  assert.match(world.last.url, /result_test=1%2C2%2C.*%2C60$/);
});

/* The collector as docs/api.md has it: what was stored, each with its number. */
class Log {
  stored = [];
  #served = new Map(); /* by the request: {at, wanted} */

  add(kind, agent, id) {
    this.stored.push({ kind, agent, id });
  }

  /* Whatever the last request has not had yet; `cut` in the middle of the last message. */
  serve(request, { isCut = false } = {}) {
    if (!this.#served.has(request)) {
      const query = new URL(request.url, "http://x").searchParams;
      const ids = (name) => (query.get(name) ?? "").split(",").filter(Boolean).map(Number);
      const [kinds, agents, tests] = [query.get("kind").split(","), ids("result_agent"), ids("result_test")];
      const lastId = request.headers["Last-Event-ID"];
      const at = lastId ? Number(lastId.split("-")[1]) : this.stored.length;
      const isOfAll = agents.length + tests.length === 0;
      this.#served.set(request, { at, wanted: ({ kind, agent, id }) => kinds.includes(kind)
        && (kind !== "result" || isOfAll || agents.includes(agent) || tests.includes(id)) });
      request.accept(`id: 1.1-${at}\n\n`);
    }
    const served = this.#served.get(request);
    const text = this.stored.map((each, i) => ({ ...each, number: i + 1 }))
      .slice(served.at).filter(served.wanted)
      .map(({ kind, agent, id, number }) => `id: 1.1-${number}\nevent: ${kind}\n`
        + `data: {"number":${number},"agent":{"id":${agent}},"test":{"id":${id}}}\n\n`).join("");
    served.at = this.stored.length;
    request.send(isCut ? text.slice(0, -10) : text);
  }
}

test("when wishes change no message is lost and none comes twice", async () => {
  const { world, tab } = exchange();
  const log = new Log();
  const a = tab("a"), b = tab("b");
  const numbers = ({ of }) => of("messages").flatMap((each) => each.messages.map(({ data }) => data.number));
  a.want([], [1]);
  log.serve(world.last);
  await turn();
  for (let i = 0; i < 4; i++) { /* 1 to 12: of three tests and an event in turns */
    log.add("result", 1, 1);
    log.add("result", 2, 2);
    log.add("event", 3, 3);
  }
  log.serve(world.last, { isCut: true }); /* 12 is on its way when the wish comes */
  await turn();
  b.want([2], []);
  assert.equal(world.last.headers["Last-Event-ID"], "1.1-10");
  log.add("result", 2, 4);
  log.add("result", 1, 1);
  log.serve(world.last);
  await turn();
  a.want(); /* is let go later: nothing is asked anew */
  log.add("result", 1, 1);
  log.add("event", 1, 1);
  log.serve(world.last);
  await turn();
  b.want([2], [9]);
  log.add("result", 3, 9);
  log.add("result", 1, 1);
  log.serve(world.last);
  await turn();
  await world.pass(50);
  assert.equal(world.requests.length, 3);
  assert.equal(world.open, 1);
  assert.deepEqual(numbers(a), [1, 3, 4, 6, 7, 9, 10, 12, 14, 16]);
  assert.deepEqual(numbers(b), [11, 12, 13, 16, 17]);
});
