/* What the page asks the collector: its API and nothing else, so that whatever the page can do a
 * script can do. Who is turned away because there are too many is patient; who is signed out is told
 * once, by `session`, whatever it was that was asked. Each answer says what time it is there. */
import { now, setAhead } from "./base/text.js";

/** What did not work. `status` 0: there was no answer. */
export class Problem extends Error {
  constructor({ status = 0, title = "", detail = "", errors = [], retryAfter = null } = {}) {
    super(detail || title || `Status ${status}`);
    this.name = "Problem";
    this.status = status;
    this.title = title;
    this.detail = detail;
    this.errors = errors;
    this.retryAfter = retryAfter; /* seconds, or null */
  }
}

/** Has "signed-out" when an answer was 401, "clock" when now() has become another. */
export const session = new EventTarget();

const mostTries = 4, longestWaitS = 30;
const mostDifferences = 7, leastAheadMs = 30000, leastChangeMs = 5000;

/* What the tests put in its place. */
const outside = {
  fetch: (...given) => globalThis.fetch(...given),
  wait: (seconds, signal) => new Promise((resolve, reject) => {
    const timer = setTimeout(resolve, seconds * 1000);
    signal?.addEventListener("abort", () => {
      clearTimeout(timer);
      reject(signal.reason);
    }, { once: true });
  }),
};

/** For tests: another fetch, and a wait that takes no time. */
export function replaceOutside(parts) {
  Object.assign(outside, parts);
}

/** Empty ones are left out, several are with commas between. */
function addressOf(path, query) {
  const isList = query instanceof Map || query instanceof URLSearchParams;
  const entries = isList ? [...query] : Object.entries(query ?? {});
  const parts = new URLSearchParams();
  for (const [name, value] of entries) {
    const text = Array.isArray(value) || value instanceof Set ? [...value].join(",") : value;
    if (text !== null && text !== undefined && text !== "" && text !== false) {
      parts.append(name, text === true ? "1" : String(text));
    }
  }
  const all = parts.toString();
  return all ? `${path}${path.includes("?") ? "&" : "?"}${all}` : path;
}

/* By how much this device's clock is ahead, as most of the last answers say: one may have waited to be
 * read. */
let differences = [], steady = null;
function compareClocks(response) {
  const theirs = Date.parse(response.headers.get("Date") ?? "");
  if (Number.isNaN(theirs)) {
    return;
  }
  const here = Date.now(), runs = here - performance.now();
  if (Math.abs(runs - (steady ?? runs)) > leastAheadMs) { /* it was set, or has slept */
    differences = [];
  }
  steady = runs;
  differences = [...differences, here - theirs].slice(-mostDifferences);
  const middle = [...differences].sort((a, b) => a - b)[(differences.length - 1) >> 1];
  const ahead = Math.abs(middle) > leastAheadMs ? middle : 0;
  if (Math.abs(ahead - (here - now())) > leastChangeMs) {
    setAhead(ahead);
    session.dispatchEvent(new Event("clock"));
  }
}

async function problemOf(response) {
  let said = {};
  try {
    said = JSON.parse(await response.text()) ?? {};
  } catch { /* of somebody in between, in HTML */ }
  const seconds = Number.parseInt(response.headers.get("Retry-After") ?? "", 10);
  return new Problem({
    status: response.status,
    title: typeof said.title === "string" ? said.title : `Status ${response.status}`,
    detail: typeof said.detail === "string" ? said.detail : "",
    errors: Array.isArray(said.errors) ? said.errors : [],
    retryAfter: Number.isFinite(seconds) ? Math.max(0, seconds) : null,
  });
}

/* What changes something may have been done although the answer is 503: only reading is repeated
 * then. 429 comes before anything is done. */
function mayTryAgain(problem, method, tries) {
  return tries < mostTries && (problem.retryAfter ?? 0) <= longestWaitS &&
    (problem.status === 429 || (problem.status === 503 && method === "GET"));
}

async function ask(method, path,
  { query, headers = {}, body, signal, isPatient = true, isTold = true } = {}) {
  for (let tries = 1; ; tries++) {
    let response;
    try {
      response = await outside.fetch(addressOf(path, query),
        { method, headers, body, signal, cache: "no-store" });
    } catch (error) {
      if (signal?.aborted) {
        throw error;
      }
      throw new Problem({ title: "No answer",
        detail: "Is it running, and is there a way to it?" });
    }
    compareClocks(response);
    if (response.ok || response.status === 304) {
      return response;
    }
    const problem = await problemOf(response);
    if (isPatient && mayTryAgain(problem, method, tries)) {
      await outside.wait(problem.retryAfter ?? 2 ** (tries - 1), signal);
      continue;
    }
    if (problem.status === 401 && isTold) {
      session.dispatchEvent(new Event("signed-out"));
    }
    throw problem;
  }
}

/* An answer that breaks off is none. */
async function read(response, signal) {
  try {
    const text = await response.text();
    const isJson = /json/.test(response.headers.get("Content-Type") ?? "");
    return !isJson ? text : text === "" ? null : JSON.parse(text);
  } catch (error) {
    if (signal?.aborted) {
      throw error;
    }
    throw new Problem({ title: "No answer", detail: "The collector's answer broke off; try again." });
  }
}

/**
 * @param {string} path
 * @param {Object} [how]
 * @param {Object|Map|URLSearchParams} [how.query]
 * @param {Object} [how.etag] an object that is kept between two requests of the same: the second one
 *   is answered with the same data when nothing has changed
 * @param {AbortSignal} [how.signal]
 * @param {string} [how.accept] "application/yaml": the answer is a text then
 * @returns {Promise<*>}
 */
export async function get(path, { query, etag, signal, accept } = {}) {
  const headers = accept ? { Accept: accept } : {};
  const address = addressOf(path, query);
  if (etag?.value && etag.address === address) {
    headers["If-None-Match"] = etag.value;
  }
  const response = await ask("GET", address, { headers, signal });
  if (response.status === 304) {
    return etag.data;
  }
  const data = await read(response, signal);
  if (etag) {
    Object.assign(etag, { address, value: response.headers.get("ETag"), data });
  }
  return data;
}

async function change(method, path, { query, body, type, signal } = {}) {
  const isText = typeof body === "string";
  const headers = {};
  if (body !== undefined) {
    headers["Content-Type"] = type ?? (isText ? "text/plain" : "application/json");
  }
  const response = await ask(method, path, {
    query, headers, signal, body: body === undefined || isText ? body : JSON.stringify(body),
  });
  return response.status === 204 ? null : read(response, signal);
}

/** `body`: an object goes as JSON, a text as it is, with `type`. */
export const put = (path, how) => change("PUT", path, how);
export const post = (path, how) => change("POST", path, how);
export const del = (path, how) => change("DELETE", path, how);

/** As del(), for lists that others look at, too: what somebody else was quicker with is gone all the same. */
export async function remove(path, how) {
  try {
    await del(path, how);
  } catch (problem) {
    if (problem?.status !== 404) {
      throw problem;
    }
  }
}

/**
 * All items of a list.
 * @param {string} path
 * @param {Object|Map} [query]
 * @param {Object} [how]
 * @param {number} [how.limit] of one request
 * @param {number} [how.most] it ends when there are so many
 * @param {(items: Array, so: {all: Array, next: string|null}) => void} [how.onPage]
 * @param {AbortSignal} [how.signal]
 * @returns {Promise<Array>} with `next` (null at the end), and `incomplete` when not all could be read
 */
export async function pages(path, query, { limit = 1000, most = Infinity, onPage, signal } = {}) {
  const all = [];
  const asked = query instanceof Map ? Object.fromEntries(query) : { ...query };
  let next = asked.next ?? null;
  do {
    const several = Math.min(limit, most - all.length);
    const page = await get(path, { query: { ...asked, limit: several, next }, signal });
    for (const item of page.items) {
      all.push(item);
    }
    next = page.next ?? null;
    if (page.incomplete) {
      all.incomplete = page.incomplete;
    }
    onPage?.(page.items, { all, next });
  } while (next && all.length < most);
  all.next = next;
  return all;
}

/** With a token or with the secret of a link. Throws Problem: 400 and 401 are wrong ones. */
export async function signIn({ token, link }) {
  await ask("POST", "/sign-in", {
    body: JSON.stringify(link !== undefined ? { link } : { token }),
    headers: { "Content-Type": "application/json" }, isPatient: false, isTold: false,
  });
}

export async function signOut() {
  await ask("POST", "/sign-out", { isTold: false });
}

async function health() {
  return read(await ask("GET", "/healthz"));
}

/**
 * Who is signed in. /healthz says it of those who asked for something before.
 * @returns {Promise<{name: string, role: "viewer"|"operator"|"admin", version: string}|null>}
 */
export async function me() {
  let known = await health();
  if (!known.role) {
    try {
      await ask("GET", "/api/v1/agents", { query: { limit: 1 }, isTold: false });
    } catch (problem) {
      if (problem.status === 401) {
        return null;
      }
      if (problem.status !== 503) { /* the store is busy: it is known all the same who asks */
        throw problem;
      }
    }
    known = await health();
  }
  return { name: known.name ?? "", role: known.role ?? "viewer", version: known.version ?? "" };
}
