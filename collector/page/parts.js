/* Small pieces that views are made of, so that a state, a time or a failure looks and reads the same
 * everywhere. Texts that came from somewhere are made harmless here (clean()); nodes go in as they
 * are. */
import { to } from "./base/address.js";
import { clean, clock, exact, now, oneLine, shortened, since, stateWord } from "./base/text.js";
import { breath, fill, h, keyed } from "./dom.js";

const words = { ok: "ok", problem: "problem", unknown: "unknown", stale: "stale", silent: "silent" };

/**
 * A state by shape and word.
 * @param {"ok"|"problem"|"unknown"|"silent"|"stale"} state
 * @param {{text?: string, hidden?: boolean}} [how] another word; the word for screen readers alone
 * @returns {HTMLElement} span.badge
 */
export function badge(state, { text, hidden = false } = {}) {
  const word = text ?? words[state] ?? clean(String(state));
  return h("span", { class: "badge", data: { state } },
    hidden ? h("span", { class: "hidden", text: word }) : word);
}

/** Makes a badge, or whatever has data-state and a word like one, that of another state. */
export function setBadge(element, state, text) {
  if (element.dataset.state !== state || text !== undefined) {
    element.dataset.state = state;
    (element.querySelector(".hidden") ?? element).textContent = text ?? words[state] ?? clean(String(state));
  }
}

const shown = {
  clock: (iso) => clock(iso),
  since: (iso) => since(iso),
  ago: (iso) => (now() - Date.parse(iso) < justNowMs ? "just now" : `${since(iso)} ago`),
};
const refreshMs = 15000, justNowMs = refreshMs, refreshedAtOnce = 200;

let timer = 0;

/** All times that are on the page, and again by one timer; not while nobody looks. */
export async function refreshTimes() {
  clearTimeout(timer);
  timer = 0;
  if (document.hidden) {
    return;
  }
  timer = setTimeout(refreshTimes, refreshMs);
  const all = [...document.querySelectorAll("time[data-as]")];
  for (let i = 0; i < all.length; i++) {
    const text = shown[all[i].dataset.as](all[i].dateTime);
    if (all[i].textContent !== text) {
      all[i].textContent = text;
    }
    if (i % refreshedAtOnce === refreshedAtOnce - 1) {
      await breath();
    }
  }
}
globalThis.document?.addEventListener("visibilitychange", refreshTimes);

/**
 * A time in the reader's zone, the exact one on hover; it is kept up to date.
 * @param {string|null} iso null: a dash
 * @param {{as?: "clock"|"since"|"ago"}} [how] "14:03", "3 min" or "3 min ago"
 * @returns {HTMLElement}
 */
export function timeElement(iso, { as = "clock" } = {}) {
  if (!iso) {
    return h("span", { class: "note", text: "–" });
  }
  if (timer === 0) {
    timer = setTimeout(refreshTimes, refreshMs);
  }
  return h("time", { datetime: iso, title: exact(iso), data: { as }, text: shown[as](iso) });
}

/** Makes a time element that of another time. */
export function setTime(element, iso) {
  if (element.dateTime !== iso) {
    element.dateTime = iso;
    element.title = exact(iso);
    element.textContent = shown[element.dataset.as](iso);
  }
}

/**
 * @param {{id?: number, account: string, name: string}} agent without an id (never reported): its name
 * @param {{text?: string, class?: string}} [how]
 */
export function agentLink(agent, how = {}) {
  const text = clean(how.text ?? agent.name);
  return agent.id
    ? h("a", { class: `text ${how.class ?? ""}`.trim(), href: to("agent", { id: agent.id }),
      title: oneLine(`${agent.account}/${agent.name}`, 300), text: text || "(no name)" })
    : h("span", { class: `text ${how.class ?? ""}`.trim(), text });
}

/** @param {{id?: number, name: string, target?: string|null}} test */
export function testLink(test, how = {}) {
  const text = clean(how.text ?? test.name);
  return test.id
    ? h("a", { class: `text ${how.class ?? ""}`.trim(), href: to("test", { id: test.id }),
      title: test.target && test.target !== test.name ? oneLine(test.target, 300) : null,
      text: text || "(no name)" })
    : h("span", { class: `text ${how.class ?? ""}`.trim(), text });
}

/** What an agent that is silent was last, and what to look at. */
export const silence = ({ last_poll: polled, address }) => [polled
  ? ["Its last poll came ", timeElement(polled, { as: "ago" }), address ? ` from ${clean(address)}` : ""]
  : "It does not poll", ". Does its host run, and reach the collector?"];

const shortMessage = 300, longMessage = 10000;

/**
 * A message of a result or an event: its beginning, and a button for the rest where it is long.
 * @param {string} text
 */
export function message(text, { short = shortMessage } = {}) {
  const isLong = text.length > short;
  const place = h("span", { class: "message", text: clean(isLong ? `${shortened(text, short)}…` : text) });
  if (!isLong) {
    return place;
  }
  const rest = text.length - longMessage;
  const closed = { expanded: "false" };
  const more = h("button", { type: "button", class: "quiet", aria: closed, text: "Show all", on: {
    click: () => {
      const opens = more.getAttribute("aria-expanded") === "false";
      place.textContent = !opens ? clean(`${shortened(text, short)}…`)
        : clean(shortened(text, longMessage)) + (rest > 0 ? `… (${rest} more characters)` : "");
      more.setAttribute("aria-expanded", String(opens));
      more.textContent = opens ? "Show less" : "Show all";
    } } });
  return h("div", null, place, " ", more);
}

/**
 * A row of a timeline.
 * @param {Object} event of the API
 * @param {{time: Element, what: (Node|string|Array|null)}} how what changed, where the place does not say it
 */
export function eventItem(event, { time = timeElement(event.time), what }) {
  const state = stateWord({ state: event.to, stale: event.stale });
  return h("li", { class: "event", data: { state, key: event.id } },
    h("span", { class: "event-time" }, time),
    h("span", { class: "event-state" }, badge(event.from), h("span", { aria: { hidden: "true" }, text: "→" }),
      h("span", { class: "hidden", text: "became" }), badge(state)),
    what ? h("span", { class: "event-what" }, what) : null,
    event.message ? h("div", { class: "event-message" }, message(event.message)) : null);
}

/** A name and its value, of a dl of class "facts". */
export const fact = (name, ...what) => [h("dt", { text: name }), h("dd", null, what)];

/** Fills a section with its heading and what comes below. */
export const headed = (place, id, text, ...children) => fill(place, h("h2", { id, text }), children);

/** What an answer says that has not all. */
export const notWhole = (incomplete) => (incomplete ? h("p", { class: "note", role: "status",
  text: `Not everything could be read: ${clean(incomplete)}` }) : null);

/**
 * Nothing is there, and what to do next.
 * @param {string} title "No agent has reported yet"
 * @param {string|Node} next a sentence, or nodes
 * @param {...Node} actions buttons and links
 */
export function emptyState(title, next, ...actions) {
  return h("div", { class: "empty" }, h("p", { class: "empty-title", text: title }),
    next ? h(next instanceof Node ? "div" : "p", { class: "empty-next" }, next) : null,
    actions.length > 0 ? h("div", { class: "actions" }, actions) : null);
}

/**
 * Shows in `place`, in front of what is there, that something goes on, when it takes more than a
 * moment.
 * @template T
 * @param {Promise<T>} promise
 * @param {Element} place
 * @param {string} [text]
 * @returns {Promise<T>} the same
 */
export async function busy(promise, place, text = "Loading") {
  const shownThen = h("div", { class: "busy" },
    h("p", { role: "status", text: `${text}…` }),
    h("div", { class: "progress", role: "progressbar", aria: { label: text } }));
  const waits = setTimeout(() => {
    place.setAttribute("aria-busy", "true");
    place.prepend(shownThen);
  }, 200);
  try {
    return await promise;
  } finally {
    clearTimeout(waits);
    shownThen.remove();
    place.removeAttribute("aria-busy");
  }
}

/**
 * @param {Function} fn what a button does
 * @returns {Function} that does nothing while it is being done: a double click is one
 */
export function oneByOne(fn) {
  let isDone = true;
  return async (...given) => {
    if (!isDone) {
      return;
    }
    isDone = false;
    try {
      await fn(...given);
    } finally {
      isDone = true;
    }
  };
}

function whatFailed(problem) {
  switch (problem?.status) {
  case 0:
    return "The collector does not answer";
  case 401:
    return "You are signed out";
  case 403:
    return "Your role is not enough for this";
  case 404:
    return "There is no such thing here";
  case 429:
    return "Too many requests";
  default:
    return problem?.title ? clean(problem.title) : "That did not work";
  }
}

/**
 * What did not work and why, said at once by screen readers. Where the collector did not answer, it is
 * tried again when it is back; what is not there is not asked for again.
 * @param {Error} problem of api.js, or anything that was thrown
 * @param {(() => void)|null} [retry] has a button
 * @param {string} [text] of the button
 */
export function failure(problem, retry = null, text = "Try again") {
  const detail = problem?.detail || (problem?.status === undefined ? problem?.message : "");
  return h("div", { class: "failure", role: "alert", data: { away: problem?.status === 0 ? "" : null } },
    h("p", { class: "failure-title", text: whatFailed(problem) }),
    detail ? h("p", { class: "message", text: clean(detail) }) : null,
    retry && problem?.status !== 404 ? h("button", { type: "button", text, on: { click: retry } }) : null);
}

/**
 * @typedef {Object} Column
 * @property {string} title
 * @property {(row) => (Node|string|number|null|Array)} cell strings are made harmless
 * @property {boolean} [numeric]
 * @property {boolean} [wide]
 * @property {boolean} [heading] names the row
 * @property {boolean} [untitled] the title is for screen readers alone
 */

const cleaned = (what) => (typeof what === "string" ? clean(what) : what);

/* A region that scrolls is one that keys reach. */
let scrolling = null;
const watchScrolling = (entries) => {
  for (const { target } of entries) {
    const box = target.closest(".table-box");
    if (box?.scrollWidth > box?.clientWidth) {
      box.tabIndex = 0;
    } else {
      box?.removeAttribute("tabindex");
    }
  }
};

/**
 * A table whose rows become cards where it is narrow. Roles are said: browsers forget them when
 * rows are laid out as something else.
 * @param {Object} what
 * @param {string} what.caption what is in it
 * @param {boolean} [what.captionHidden] where a heading says the same
 * @param {Column[]} what.columns
 * @param {Iterable} [what.rows]
 * @param {(row) => string|number} what.keyOf
 * @param {(row) => *} [what.version] a row of the same version as before is left as it is
 * @returns {HTMLElement} with update(rows), which is done when its promise is
 */
export function table({ caption, captionHidden = false, columns, rows = [], keyOf, version }) {
  const body = h("tbody", { role: "rowgroup" });
  const versions = new WeakMap();
  const attributes = (column, row) => ({
    class: [column.numeric ? "numeric" : "", column.wide ? "wide" : ""].join(" ").trim() || null,
    role: column.heading ? "rowheader" : "cell",
    scope: column.heading ? "row" : null,
    data: { label: column.title, key: `${keyOf(row)} ${column.title}` },
  });
  /* One element in a cell: cards have two columns, the title and it. */
  const cell = (column, row) => {
    const content = h("div", null, cleaned(column.cell(row)));
    content.className = /\S{33}/.test(content.textContent) ? "endless" : "";
    const made = h(column.heading ? "th" : "td", attributes(column, row), content);
    made.classList.toggle("blank", content.childNodes.length === 0);
    return made;
  };
  const make = (row) => {
    const made = h("tr", { role: "row", data: { key: keyOf(row) } },
      columns.map((column) => cell(column, row)));
    versions.set(made, version?.(row));
    return made;
  };
  const update = (element, row) => {
    const next = version?.(row);
    if (version && versions.get(element) === next) {
      return;
    }
    versions.set(element, next);
    fill(element, columns.map((column) => cell(column, row)));
  };
  const inner = h("table", { role: "table" },
    h("caption", { class: captionHidden ? "hidden" : null, text: caption }),
    h("thead", { role: "rowgroup" }, h("tr", { role: "row" }, columns.map((column) =>
      h("th", { role: "columnheader", scope: "col", class: column.numeric ? "numeric" : null },
        column.untitled ? h("span", { class: "hidden", text: column.title }) : column.title)))),
    body);
  const element = h("div", { class: "table-box", role: "group", aria: { label: caption } }, inner);
  scrolling ??= new ResizeObserver(watchScrolling);
  scrolling.observe(inner);
  element.update = (now) => keyed(body, now, keyOf, make, update);
  element.update(rows);
  return element;
}

let made = 0;
const freshId = (what) => `${what}-${++made}`;

/**
 * Tabs: arrows, Home and End move between them, as a screen reader says they do.
 * @param {{label: string, items: {id: string, title: string, open: (place: HTMLElement) => void}[],
 *   chosen?: string, onChoose?: (id: string) => void}} what
 * @returns {HTMLElement} with choose(id)
 */
export function tabs({ label, items, chosen, onChoose }) {
  const placeId = freshId("tab-place");
  const place = h("div", { class: "tab-place", id: placeId, role: "tabpanel", tabindex: "0" });
  const buttons = new Map(items.map((item) => [item.id, h("button", {
    type: "button", class: "tab", role: "tab", id: freshId("tab"), text: item.title,
    aria: { controls: placeId }, on: { click: () => choose(item.id, true) },
  })]));
  const choose = (id, isAsked = false) => {
    const item = items.find((each) => each.id === id) ?? items[0];
    for (const [each, button] of buttons) {
      button.setAttribute("aria-selected", String(each === item.id));
      button.tabIndex = each === item.id ? 0 : -1;
    }
    place.setAttribute("aria-labelledby", buttons.get(item.id).id);
    fill(place);
    item.open(place);
    if (isAsked) {
      onChoose?.(item.id);
    }
  };
  const list = h("div", { class: "tabs", role: "tablist", aria: { label } }, [...buttons.values()]);
  list.addEventListener("keydown", (event) => {
    const at = [...buttons.values()].indexOf(document.activeElement);
    const next = { ArrowLeft: at - 1, ArrowRight: at + 1, Home: 0, End: items.length - 1 }[event.key];
    if (at >= 0 && next !== undefined) {
      event.preventDefault();
      const item = items[(next + items.length) % items.length];
      buttons.get(item.id).focus();
      choose(item.id, true);
    }
  });
  const element = h("div", null, list, place);
  element.choose = choose;
  choose(chosen);
  return element;
}

/**
 * @typedef {Object} Action
 * @property {string} text
 * @property {*} [value] what the dialog is answered with; null as for Escape
 * @property {"primary"|"danger"|"quiet"} [kind] Enter presses the first primary or danger one
 * @property {() => Promise<*>} [run] done first: what it returns is the answer, unless undefined; false
 *   keeps the dialog open, and what it throws is shown in it
 */

/**
 * A dialog over the page. The focus goes back to where it was.
 * @param {{title: string, body: Node|Array|string, actions: Action[], large?: boolean}} what
 * @returns {Promise<*>} the value of the action; null when it was closed otherwise
 */
export function dialog({ title, body, actions, large = false }) {
  const before = document.activeElement;
  const heading = h("h2", { id: freshId("dialog"), text: clean(title) });
  const trouble = h("div");
  let isRunning = false;
  return new Promise((resolve) => {
    let answer = null;
    const run = async (action) => {
      if (isRunning) {
        return;
      }
      isRunning = true;
      form.setAttribute("aria-busy", "true");
      fill(trouble);
      try {
        const result = action.run ? await busy(action.run(), trouble, action.text) : undefined;
        if (result !== false) {
          answer = result === undefined ? action.value ?? null : result;
          box.close();
        }
      } catch (problem) {
        fill(trouble, failure(problem));
      } finally {
        isRunning = false;
        form.removeAttribute("aria-busy");
      }
    };
    const main = actions.find((action) => action.kind === "primary" || action.kind === "danger");
    const form = h("form", { method: "dialog", on: {
      submit: (event) => {
        event.preventDefault();
        if (main) {
          run(main);
        }
      } } },
    heading, h("div", { class: "dialog-body", ...large ? { role: "region", tabindex: "0",
      "aria-labelledby": heading.id } : null }, cleaned(body)), trouble,
    h("div", { class: "actions" }, actions.map((action, i) => h("button", {
      type: action === main ? "submit" : "button", class: action.kind ?? null, text: action.text,
      autofocus: i === 0,
      on: action === main ? {} : { click: () => run(action) },
    }))));
    const box = h("dialog",
      { class: large ? "dialog large" : "dialog", aria: { labelledby: heading.id } }, form);
    box.addEventListener("cancel", (event) => {
      if (isRunning) {
        event.preventDefault();
      }
    });
    box.addEventListener("close", () => {
      box.remove();
      const isThere = before?.isConnected && before !== document.body;
      const next = isThere ? before : document.querySelector("h1[tabindex]");
      next?.focus({ preventScroll: true });
      resolve(answer);
    });
    document.body.append(box);
    box.showModal();
  });
}

/** Closes what lies over the page, as for Escape: another screen comes. */
export function closeDialogs() {
  for (const box of document.querySelectorAll("dialog[open]")) {
    box.close();
  }
}

/**
 * Asks before something that cannot be undone.
 * @param {{title: string, body: Node|string, action: string, danger?: boolean, run?: () => Promise}} what
 * @returns {Promise<boolean>}
 */
export async function confirm({ title, body, action, danger = false, run }) {
  const does = run ? async () => {
    await run();
    return true;
  } : undefined;
  return await dialog({ title,
    body: typeof body === "string" ? h("p", { class: "text", text: clean(body) }) : body,
    actions: [
      { text: "Cancel", value: false },
      { text: action, value: true, kind: danger ? "danger" : "primary", run: does },
    ] }) === true;
}

/**
 * A secret or a command that is shown this one time, with a button that copies it.
 * @param {string} text
 */
export function once(text) {
  const output = h("pre", { class: "once-text", tabindex: "0", text });
  const said = h("span", { class: "hidden", role: "status" });
  const copy = h("button", { type: "button", text: "Copy", on: {
    click: async () => {
      try {
        await navigator.clipboard.writeText(text);
        copy.textContent = "Copied";
        said.textContent = "Copied";
      } catch { /* not allowed, or no TLS: it can be copied by hand */
        getSelection().selectAllChildren(output);
      }
    } } });
  return h("div", { class: "once" }, output, copy, said);
}
