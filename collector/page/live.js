/* The stream as the views see it: one of a browser, whatever the number of its tabs. Where there is
 * a SharedWorker that has it; else the tabs elect one of them by a lock, and it tells the others by
 * a channel. What came is given to listeners each frame, those of a kind together.
 *
 * Views: const off = live.on("agent", (messages) => ...) gets an array of {kind, data}, `data` as the
 * API's stream has it. Kinds: "agent", "event", "change", "result" (only of what somebody wants, see
 * want()), "lost" (read the lists again; data is {}), and "*" for all of them, in order and each with
 * its `id`, as the model likes them best.
 *   const off = live.want({results: {agents: new Set([1]), tests: new Set([7])}});
 *   live.state is {state: "connecting" | "live" | "away", since: milliseconds}
 *   const off = live.onState((state) => ...), live.onFirstLive(() => ..., afterMs)
 *   await live.soon(ms)
 * Each `off` is called when the view closes; calling it twice does no harm. */
import { throttle } from "./dom.js";
import { Exchange } from "./stream.js";

const name = "vindral-stream";        /* of worker, lock and channel: each origin has its own */
const answersWithin = 8000;           /* a worker or another tab, else there is none */
const pingedWithin = 70000;           /* asked every 20 s, unless this tab or the worker was asleep */
const looksEvery = 5000, asleepFor = 15000;
const frameMs = 8, mostAtOnce = 100;

const direct = (...given) => globalThis.fetch(...given);

/* Each of the two ways has send(message) and stop(), and calls receive(message). */

function byWorker(receive, failed) {
  const worker = new SharedWorker(new URL("./streamWorker.js", import.meta.url), { type: "module", name });
  worker.addEventListener("error", failed);
  worker.port.addEventListener("message", ({ data }) => receive(data));
  worker.port.start();
  return {
    send: (message) => worker.port.postMessage(message),
    stop: () => {
      worker.removeEventListener("error", failed);
      worker.port.postMessage({ type: "bye" });
      worker.port.close();
    },
  };
}

/* Whoever has the lock has the stream. A leader that is frozen, as phones do with tabs that nobody
 * looks at, does not answer: then a tab that is looked at takes the lock from it. */
function byLock(receive, lastId) {
  const own = crypto.getRandomValues(new Uint32Array(4)).join("-");
  const channel = typeof BroadcastChannel === "function" ? new BroadcastChannel(name) : null;
  let exchange = null, hasStopped = false, release = null;
  const lead = () => new Promise((resolve) => {
    release = resolve;
    exchange = new Exchange({ fetch: direct, lastId: lastId() });
    channel?.postMessage({ to: "all", message: { type: "leader" } });
    receive({ type: "leader" });
  });
  const resign = () => {
    exchange?.stop();
    exchange = null;
    release?.();
  };
  const stand = (steal) => {
    if (!channel || !navigator.locks) { /* each tab for itself */
      lead();
      return;
    }
    navigator.locks.request(name, steal ? { steal: true } : {}, () => hasStopped ? null : lead())
      .catch(() => { /* it was taken from this one */
        resign();
        if (!hasStopped) {
          stand(false);
        }
      });
  };
  channel?.addEventListener("message", ({ data }) => {
    if (data.to === "leader") {
      exchange?.hear(data.from, data.message, (message) => channel.postMessage({ to: data.from, message }));
    } else if (data.to === own || data.to === "all") {
      receive(data.message);
    }
  });
  stand(false);
  return {
    send: (message) => exchange ? exchange.hear(own, message, receive)
      : channel?.postMessage({ to: "leader", from: own, message }),
    stop: () => {
      if (!exchange) {
        channel?.postMessage({ to: "leader", from: own, message: { type: "bye" } });
      }
      hasStopped = true;
      resign();
      channel?.close();
    },
    takeOver: () => {
      if (!exchange) {
        stand(true);
      }
    },
  };
}

class Live {
  #listeners = new Map();   /* kind: Set of functions */
  #stateListeners = new Set();
  #wants = new Set();
  #waiting = [];
  #lastId = "";
  #way = null;
  #hasWorker = typeof SharedWorker === "function";
  #answered = 0;            /* when the other side said something last */
  #asked = 0;               /* since when an answer is waited for; 0: it is not */
  #isAway = false;          /* the page is kept for going back */
  #looked = Date.now();
  #dispatch = throttle(() => this.#giveOut());

  constructor() {
    this.state = { state: "connecting", since: Date.now(), status: 0 };
    this.#begin();
    setInterval(() => this.#look(), looksEvery);
    const wakes = () => {
      if (!document.hidden) {
        this.wake();
      }
    };
    document.addEventListener("visibilitychange", wakes);
    document.addEventListener("resume", wakes);
    window.addEventListener("online", wakes);
    window.addEventListener("pageshow", (event) => {
      if (event.persisted) {
        this.#isAway = false;
        this.#begin();
        this.#take([{ kind: "lost", data: {} }]);
      }
    });
    window.addEventListener("pagehide", () => {
      this.#isAway = true;
      this.#way?.stop();
      this.#way = null;
    });
  }

  on(kind, fn) {
    if (!this.#listeners.has(kind)) {
      this.#listeners.set(kind, new Set());
    }
    const listener = { fn }; /* the same function twice is two */
    this.#listeners.get(kind).add(listener);
    return () => this.#listeners.get(kind).delete(listener);
  }

  onState(fn) {
    const listener = { fn };
    this.#stateListeners.add(listener);
    return () => this.#stateListeners.delete(listener);
  }

  /** When it becomes live, unless it is: what changed between a list and then, nobody has said. */
  onFirstLive(fn, afterMs = 0) {
    let timer = 0;
    const off = this.state.state === "live" ? () => {} : this.onState(({ state }) => {
      if (state === "live") {
        off();
        timer = setTimeout(fn, afterMs);
      }
    });
    return () => {
      off();
      clearTimeout(timer);
    };
  }

  /** Once it is live, or when that takes longer: what is read after it is live need not be read again. */
  soon(ms) {
    return new Promise((resolve) => {
      const done = () => {
        off();
        clearTimeout(timer);
        resolve();
      };
      const look = ({ state }) => (state === "connecting" ? null : done());
      const off = this.onState(look), timer = setTimeout(done, ms);
      look(this.state);
    });
  }

  want({ results = {} } = {}) {
    const wish = { agents: new Set(results.agents ?? []), tests: new Set(results.tests ?? []) };
    this.#wants.add(wish);
    this.#say();
    return () => {
      if (this.#wants.delete(wish)) {
        this.#say();
      }
    };
  }

  /** Back from sleep, or somebody looks again: what may be dead is opened anew. */
  wake() {
    this.#say({ wake: true });
  }

  /** Somebody has signed in. */
  restart() {
    this.#say({ restart: true });
  }

  #begin() {
    if (this.#isAway || this.#way) {
      return;
    }
    try {
      this.#way = this.#hasWorker ? byWorker((message) => this.#hear(message), () => this.#withoutWorker())
        : byLock((message) => this.#hear(message), () => this.#lastId);
    } catch {
      this.#withoutWorker();
      return;
    }
    this.#say();
  }

  #withoutWorker() {
    if (this.#hasWorker) {
      this.#hasWorker = false;
      this.#way?.stop();
      this.#way = null;
      this.#begin();
    }
  }

  #say(more = {}) {
    const agents = new Set(), tests = new Set();
    for (const wish of this.#wants) {
      wish.agents.forEach((id) => agents.add(id));
      wish.tests.forEach((id) => tests.add(id));
    }
    if (this.#way) {
      this.#asked ||= Date.now();
      this.#way.send({ type: "want", agents: [...agents], tests: [...tests], ...more });
    }
  }

  #hear(message) {
    this.#answered = Date.now();
    this.#asked = 0;
    switch (message.type) {
    case "ping":
      this.#way?.send({ type: "pong" });
      break;
    case "leader":
      this.#say();
      break;
    case "state":
      this.#setState(message.state);
      break;
    case "messages":
      this.#lastId = message.id || this.#lastId;
      this.#take(message.messages);
      break;
    default:
      break;
    }
  }

  #setState(state) {
    const was = this.state;
    if (state.state === was.state && state.since === was.since && state.status === was.status) {
      return;
    }
    this.state = state;
    for (const { fn } of [...this.#stateListeners]) {
      fn(state);
    }
  }

  #take(messages) {
    for (const message of messages) {
      this.#waiting.push(message);
    }
    this.#dispatch();
  }

  /* After a sleep there may be thousands: as many as take some milliseconds of a frame. */
  #giveOut() {
    const until = performance.now() + frameMs; /* a hidden page may have its turn once a minute */
    do {
      this.#giveSome(this.#waiting.splice(0, mostAtOnce));
    } while (this.#waiting.length > 0 && (document.hidden || performance.now() < until));
    if (this.#waiting.length > 0) {
      this.#dispatch();
    }
  }

  #giveSome(messages) {
    const kinds = new Map();
    for (const message of messages) {
      const { kind, data } = message; /* kinds one by one are out of order: an id would mislead */
      if (kinds.has(kind)) {
        kinds.get(kind).push({ kind, data });
      } else {
        kinds.set(kind, [{ kind, data }]);
      }
    }
    kinds.set("*", messages);
    for (const [kind, list] of kinds) {
      for (const { fn } of [...this.#listeners.get(kind) ?? []]) {
        try {
          fn(list);
        } catch (error) { /* of one view: the others are told all the same */
          console.error(error);
        }
      }
    }
  }

  /* Has the machine slept, is the other side there? */
  #look() {
    const now = Date.now(), wasAsleep = now - this.#looked > asleepFor;
    this.#looked = now;
    if (this.#isAway) {
      return;
    }
    if (wasAsleep) {
      this.#asked = 0;
      this.#answered = now;
      if (!document.hidden) {
        this.wake();
      }
      return;
    }
    if (this.#asked !== 0 && now - this.#asked > answersWithin) {
      this.#asked = 0;
      if (this.#hasWorker) {
        this.#withoutWorker();
      } else if (!document.hidden) {
        this.#way?.takeOver?.();
      }
    } else if (this.#answered !== 0 && now - this.#answered > pingedWithin && !document.hidden) {
      this.#answered = now;
      this.wake();
    }
  }
}

/** One for the page. @returns {Live} */
export function connectLive() {
  return new Live();
}
