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

test("tabs share one stream, and each gets the results that it wants", async () => {
  const { world, tab } = exchange();
  const a = tab("a"), b = tab("b"), c = tab("c");
  a.want();
  b.want([1]);
  c.want([], [22]);
  assert.equal(world.open, 1);
  assert.equal(world.last.url, "/s?kind=agent%2Cchange%2Cevent%2Cresult");
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
