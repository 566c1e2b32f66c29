/* The stream of the collector: comes back by itself, and goes on where it was. Made of fetch, not of
 * EventSource, which cannot say why it failed, nor notice that a line is dead. Runs in a worker or
 * in a page; times are milliseconds. */
import { SseParser } from "./base/sse.js";

const firstWait = 1000, longestWait = 30000;
const quietFor = 40000;      /* the server says something every 15 s */
const doubtfulAfter = 20000;
const youngFor = 2000;       /* several things say at once that somebody looks again */
const steadyAfter = 5000;    /* one that ends sooner than that was none */
const fewerAfter = 30000;    /* whoever goes from screen to screen soon wants the same again */
const mostNamed = 100;       /* agents and tests of which results are asked for; of more: of all */
const always = ["agent", "change", "event"];

/* What is asked for: kinds, and of what the results; `results` null: of all. */
class Wish {
  constructor(kinds = [], results = null) {
    const inOrder = (ids) => [...new Set(ids)].sort((a, b) => a - b);
    const agents = inOrder(results?.agents), tests = inOrder(results?.tests);
    const count = agents.length + tests.length;
    this.kinds = [...kinds].filter((kind) => kind !== "result" || !results || count > 0).sort();
    const isNamed = this.kinds.includes("result") && results && count <= mostNamed;
    this.agents = isNamed ? agents : null;
    this.tests = isNamed ? tests : null;
    this.isNone = this.kinds.length === 0;
    this.query = [["kind", this.kinds], ["result_agent", this.agents], ["result_test", this.tests]]
      .filter(([, all]) => all?.length > 0)
      .map(([name, all]) => `${name}=${encodeURIComponent(all.join(","))}`).join("&");
  }

  /* Whether all that the other one asks for comes with this, too. */
  covers(other) {
    const has = (own, wanted) => own === null
      || (wanted !== null && wanted.every((each) => own.includes(each)));
    const hasResults = has(this.agents, other.agents) && has(this.tests, other.tests);
    return has(this.kinds, other.kinds) && (hasResults || !other.kinds.includes("result"));
  }
}
const nothing = new Wish();

/** Calls fn after so many ms. @returns {() => void} calls it off */
export function laterByTimer(fn, ms) {
  const timer = setTimeout(fn, ms);
  return () => clearTimeout(timer);
}

export class Stream {
  #with;
  #wanted = nothing;
  #open = nothing;  /* what the present one was opened with */
  #attempt = 0;     /* what an earlier one still says is nobody's business */
  #abort = null;
  #failures = 0;
  #heard = 0;
  #began = 0;       /* since when it is live; 0: it is not */
  #stopWait = null; /* for the next attempt */
  #stopWatch = null;
  #stopFewer = null;
  #retryAfter = 0;
  #isOwed = false;  /* more is wanted, and it is not known yet where to go on */

  /**
   * @param {Object} outside
   * @param {Function} outside.fetch
   * @param {string} outside.url
   * @param {(message: {kind: string, data: Object, id: string}) => void} outside.onMessage
   * @param {(state: {state: string, since: number, status: number}) => void} outside.onState status: of
   *   the answer that was none, 0 without one. After 401 it waits for restart().
   * @param {Function} [outside.later] as laterByTimer
   * @param {() => number} [outside.now]
   * @param {() => number} [outside.random] from 0 to 1
   * @param {string} [lastId] where another one was
   */
  constructor({ fetch, url = "/api/v1/stream", onMessage, onState, later = laterByTimer,
    now = () => Date.now(), random = Math.random, lastId = "" }) {
    this.#with = { fetch, url, onMessage, onState, later, now, random };
    this.lastId = lastId;
    this.state = { state: "connecting", since: now(), status: 0 };
  }

  /**
   * What is missing is asked for at once, what is too much is let go after a while; either goes on where
   * the one before was, and waits until that has said where it is. Of no kinds: it ends.
   * @param {Iterable<string>} kinds
   * @param {?{agents: Iterable<number>, tests: Iterable<number>}} [results] those alone; null: all
   */
  want(kinds, results = null) {
    const wish = new Wish(kinds, results);
    const isRefused = this.state.status === 401;
    const isSame = wish.query === this.#wanted.query;
    if (isSame && this.#stopFewer !== null) { /* said again while it is waited for */
      return;
    }
    this.#stopFewer?.();
    this.#stopFewer = null;
    this.#wanted = wish;
    if (isRefused) {
      return;
    }
    const isWaiting = isSame && this.#stopWait !== null; /* for the next attempt */
    const isMissing = !wish.isNone && !isWaiting && (this.#open.isNone || !this.#open.covers(wish));
    this.#isOwed = isMissing && this.#began !== 0 && this.lastId === "";
    if (isMissing && !this.#isOwed) {
      this.#connect();
    } else if (!isMissing && !isWaiting && wish.query !== this.#open.query) {
      this.#letGo();
    }
  }

  /** The machine was asleep, or somebody looks again: what is doubtful is not waited for. */
  wake() {
    const isDoubtful = this.#began === 0 || this.#with.now() - this.#heard > doubtfulAfter;
    const isRunning = !this.#open.isNone || this.#stopWait !== null;
    const isYoung = !this.#open.isNone && this.#with.now() - this.#heard < youngFor;
    if (!this.#wanted.isNone && this.state.status !== 401 && isRunning && isDoubtful && !isYoung) {
      this.#failures = 0;
      this.#connect();
    }
  }

  /** Somebody has signed in, maybe as somebody else. */
  restart() {
    this.#failures = 0;
    if (!this.#wanted.isNone) {
      this.#connect();
    }
  }

  stop() {
    this.#close();
    this.#wanted = nothing;
  }

  #letGo() {
    this.#stopFewer = this.#with.later(() => {
      this.#stopFewer = null;
      if (this.#wanted.isNone) {
        this.#close();
      } else {
        this.#connect();
      }
    }, fewerAfter);
  }

  #close() {
    this.#attempt++;
    for (const stop of [this.#stopWait, this.#stopWatch, this.#stopFewer]) {
      stop?.();
    }
    this.#stopWait = this.#stopWatch = this.#stopFewer = null;
    this.#abort?.abort();
    this.#abort = null;
    this.#open = nothing;
    this.#began = 0;
    this.#isOwed = false;
  }

  #tell(state, status = 0) {
    if (state !== this.state.state || status !== this.state.status) {
      const since = state === this.state.state ? this.state.since : this.#with.now();
      this.state = { state, since, status };
      this.#with.onState?.(this.state);
    }
  }

  async #connect() {
    this.#close();
    const attempt = this.#attempt, isOver = () => attempt !== this.#attempt;
    const abort = this.#abort = new AbortController();
    this.#open = this.#wanted;
    this.#heard = this.#with.now();
    this.#watch(quietFor);
    let status = 0;
    try {
      const headers = { Accept: "text/event-stream" };
      if (this.lastId !== "") {
        headers["Last-Event-ID"] = this.lastId;
      }
      const response = await this.#with.fetch(`${this.#with.url}?${this.#open.query}`,
        { headers, signal: abort.signal, cache: "no-store" });
      if (isOver()) {
        return;
      }
      if (response.ok && /^text\/event-stream/i.test(response.headers.get("Content-Type") ?? "")) {
        this.#heard = this.#began = this.#with.now();
        this.#tell("live");
        await this.#read(response.body.getReader(), isOver);
      } else {
        status = response.status;
        this.#retryAfter = 1000 * Number.parseInt(response.headers.get("Retry-After") ?? "0", 10) || 0;
        abort.abort();
      }
    } catch { /* gone, as if it had ended */ }
    if (!isOver()) {
      this.#isGone(status);
    }
  }

  async #read(reader, isOver) {
    const parser = new SseParser(this.lastId), decoder = new TextDecoder();
    for (;;) {
      const { done, value } = await reader.read();
      if (done || isOver()) {
        return;
      }
      this.#heard = this.#with.now();
      for (const each of parser.push(decoder.decode(value, { stream: true }))) {
        this.lastId = each.id;
        this.#take(each);
        if (isOver()) {
          return;
        }
      }
      this.lastId = parser.lastEventId; /* also of what had no data */
      if (this.#isOwed && this.lastId !== "") {
        this.#connect();
        return;
      }
    }
  }

  #take({ event, data, id }) {
    if (!data) { /* only an id, or when to come back */
      return;
    }
    let read;
    try {
      read = JSON.parse(data);
    } catch {
      return;
    }
    this.#with.onMessage({ kind: event, data: read, id });
  }

  /* A timer that was asleep comes late: the clock decides. */
  #watch(ms) {
    this.#stopWatch = this.#with.later(() => {
      const quiet = this.#with.now() - this.#heard;
      if (quiet >= quietFor) {
        this.#isGone(0);
      } else {
        this.#watch(quietFor - quiet);
      }
    }, ms);
  }

  #isGone(status) {
    const wasSteady = this.#began !== 0 && this.#with.now() - this.#began >= steadyAfter;
    this.#failures = wasSteady ? 0 : this.#failures;
    this.#close();
    this.#tell("away", status);
    if (status === 401) {
      return;
    }
    const spread = 0.75 + 0.5 * this.#with.random(); /* not all at once after a restart */
    const wait = Math.min(longestWait, Math.max(firstWait, firstWait * 2 ** this.#failures * spread));
    this.#failures = Math.min(this.#failures + 1, 10);
    this.#stopWait = this.#with.later(() => {
      this.#stopWait = null;
      if (!this.#wanted.isNone) {
        this.#connect();
      }
    }, Math.max(wait, Math.min(this.#retryAfter, 60000)));
    this.#retryAfter = 0;
  }
}

const batchedFor = 50, pingEvery = 20000, forgottenAfter = 60000, mostGone = 100;

/**
 * One stream for several tabs, which say what results they want and are told what came. A tab that
 * does not answer is forgotten; when it says something again (it was frozen) it has lost something.
 *
 * A tab says {type: "want", agents, tests, wake?, restart?}, {type: "pong"} or {type: "bye"}, and is
 * told {type: "state", state}, {type: "messages", messages, id} or {type: "ping"}.
 */
export class Exchange {
  #tabs = new Map(); /* key: {post, agents, tests, heard, waiting} */
  #gone = new Set();
  #stream;
  #later;
  #now;
  #stopBatch = null;
  #stopPing = null;

  constructor({ fetch, url, later = laterByTimer, now = () => Date.now(), random, lastId }) {
    this.#later = later;
    this.#now = now;
    this.#stream = new Stream({ fetch, url, later, now, random, lastId,
      onMessage: (message) => this.#give(message),
      onState: (state) => this.#tellAll({ type: "state", state }) });
  }

  /** What a tab says; `post` tells it something. */
  hear(key, message, post) {
    if (message.type === "bye") {
      this.#tabs.delete(key);
      this.#gone.delete(key);
      this.#wantAll();
      return;
    }
    let tab = this.#tabs.get(key);
    if (!tab && message.type !== "want") {
      return;
    }
    if (!tab) {
      tab = { post, agents: new Set(), tests: new Set(), waiting: [] };
      this.#tabs.set(key, tab);
      if (this.#gone.delete(key)) {
        tab.waiting.push({ kind: "lost", data: {} });
        this.#batch();
      }
    }
    tab.heard = this.#now();
    if (message.type !== "want") {
      return;
    }
    tab.agents = new Set(message.agents);
    tab.tests = new Set(message.tests);
    this.#stopPing ??= this.#later(() => this.#ping(), pingEvery);
    this.#wantAll();
    if (message.restart) {
      this.#stream.restart();
    } else if (message.wake) {
      this.#stream.wake();
    }
    tab.post({ type: "state", state: this.#stream.state });
  }

  stop() {
    this.#stream.stop();
    this.#tabs.clear();
    this.#stopBatch?.();
    this.#stopPing?.();
    this.#stopBatch = this.#stopPing = null;
  }

  #wantAll() {
    const tabs = [...this.#tabs.values()];
    this.#stream.want(tabs.length === 0 ? [] : [...always, "result"],
      { agents: tabs.flatMap((tab) => [...tab.agents]), tests: tabs.flatMap((tab) => [...tab.tests]) });
  }

  #tellAll(message) {
    for (const tab of this.#tabs.values()) {
      tab.post(message);
    }
  }

  #give(message) {
    const { kind, data } = message;
    for (const tab of this.#tabs.values()) {
      if (kind !== "result" || tab.agents.has(data.agent?.id) || tab.tests.has(data.test?.id)) {
        tab.waiting.push(message);
        this.#batch();
      }
    }
  }

  #batch() {
    this.#stopBatch ??= this.#later(() => {
      this.#stopBatch = null;
      for (const tab of this.#tabs.values()) {
        if (tab.waiting.length > 0) {
          tab.post({ type: "messages", messages: tab.waiting, id: this.#stream.lastId });
          tab.waiting = [];
        }
      }
    }, batchedFor);
  }

  #ping() {
    this.#stopPing = null;
    const before = this.#now() - forgottenAfter;
    for (const [key, tab] of this.#tabs) {
      if (tab.heard < before) {
        this.#tabs.delete(key);
        this.#gone.add(key);
        if (this.#gone.size > mostGone) { /* closed without a word, most of them */
          this.#gone.delete(this.#gone.values().next().value);
        }
      } else {
        tab.post({ type: "ping" });
      }
    }
    this.#wantAll();
    if (this.#tabs.size > 0) {
      this.#stopPing = this.#later(() => this.#ping(), pingEvery);
    }
  }
}
