/* Changes of tests and what became of them: those that are not confirmed first, with the reason, then
 * all of them. They come in by the stream; which of them still count is the collector's to say, so
 * the open ones are asked for again when something happened. */
import { to } from "../base/address.js";
import { oneLine, plural } from "../base/text.js";
import { announce, fill, h } from "../dom.js";
import { agentLink, busy, emptyState, failure, headed, message, oneByOne, table, timeElement }
  from "../parts.js";

const path = "/api/v1/changes";
const filters = ["agent", "group", "test", "outcome", "revision"];
const outcomes = {
  unanswered: "not told yet, or nothing came of it",
  sent: "the agent was told",
  confirmed: "a result of this revision came",
  impossible: "the agent cannot have it",
};
const overtaken = "a later change of it took its place, or there is nothing to wait for any more";
/* Which shape of a state an outcome has. */
const stateOf = { unanswered: "problem", sent: "unknown", confirmed: "ok", impossible: "silent" };
const actions = {
  add: "added", change: "changed", rename: "renamed", remove: "removed", intervals: "intervals",
};
const openAtOnce = 200, allAtOnce = 50, mostLive = 200, showEachMs = 500;
const againAfterMs = 1500, againAtLeastMs = 5000;

export const title = () => "Changes";

const wantedIn = (query) => new Map([...query].filter(([name, value]) => filters.includes(name) && value));

function outcomeElement(outcome, by) {
  return by === null ? h("span", { class: "badge", data: { state: stateOf[outcome] ?? "unknown" },
    title: outcomes[outcome] ?? null, text: outcome })
    : h("span", { class: "note", title: overtaken, text: `overtaken${by ? ` by revision ${by}` : ""}` });
}

/**
 * By which revision a change was overtaken, as what is neither confirmed nor open any more is.
 * @param {Object} change
 * @param {{open: Set<number>, fresh: Set<number>, all: Object[]}|null} known ids of those that are open, and
 *   of those that came since that was asked; null: it is not known which are open
 * @returns {?number} null: it was not; 0: nothing later of that test is in `all`
 */
export function overtakenBy(change, known) {
  const { id, agent, outcome } = change;
  if (outcome === "confirmed" || known === null || known.open.has(id) || known.fresh.has(id)) {
    return null;
  }
  const later = known.all.filter((each) => each.id > id && each.agent.name === agent.name &&
    each.agent.account === agent.account && (each.test === change.test || each.was === change.test));
  return later.reduce((first, each) => (each.id < first.id ? each : first), { id: Infinity, revision: 0 })
    .revision;
}

function testName({ test, was }) {
  const name = test === null ? "intervals" : oneLine(test, 200);
  return was ? `${name} (was ${oneLine(was, 200)})` : name;
}

function changesTable(caption, byOf = () => null) {
  const reason = (each) => [byOf(each) === null ? "" : `was ${each.outcome}`, each.reason].filter(Boolean);
  return table({
    caption, captionHidden: true, keyOf: (each) => each.id,
    version: (each) => `${each.outcome} ${byOf(each)} ${each.reason} ${each.settled} ${each.sent}`,
    columns: [
      { title: "Test", heading: true, cell: testName },
      { title: "Agent", cell: (each) => agentLink(each.agent) },
      { title: "What", cell: (each) => actions[each.action] ?? oneLine(each.action, 50) },
      { title: "Outcome", cell: (each) => outcomeElement(each.outcome, byOf(each)) },
      { title: "Reason", wide: true, cell: (each) => {
        const text = reason(each).join(": ");
        return text ? message(text) : null;
      } },
      { title: "Since", cell: (each) => timeElement(each.settled ?? each.sent ?? each.time) },
      { title: "Revision", cell: (each) => h("span", { class: "number" }, `${each.revision}, `,
        timeElement(each.time)) },
    ],
  });
}

export async function open(place, params, { api, live, go }) {
  const stop = new AbortController();
  const stops = [() => stop.abort()];
  let isOpen = true;
  let wanted = wantedIn(params.query);
  let asks = 0; /* answers of an earlier filter are nobody's business */
  let isRefused = false; /* as another time, too, until the filter is another */

  const form = h("div");
  const standing = h("p", { class: "lead", role: "status" });
  const openPlace = h("section", { class: "panel", aria: { labelledby: "changes-open" } });
  const allPlace = h("section", { class: "panel", aria: { labelledby: "changes-all" } });
  place.append(
    h("div", { class: "head" },
      h("div", { class: "spread" }, h("h1", { tabindex: "-1", text: "Changes" }),
        h("ul", { class: "choices" },
          h("li", null, h("a", { href: to("fleet"), text: "File" })),
          h("li", null, h("a", { href: to("changes"), aria: { current: "true" }, text: "Changes" })))),
      standing),
    h("div", { class: "stack" }, form, openPlace, allPlace));

  /* ---- which ones ---- */

  function showForm() {
    const field = (name, label, props = {}) => h("div", { class: "field" },
      h("label", { for: `changes-${name}`, text: label }),
      h("input", { type: "text", id: `changes-${name}`, name, value: wanted.get(name) ?? "", ...props }));
    const choice = h("select", { id: "changes-outcome", name: "outcome", value: wanted.get("outcome") ?? "" },
      h("option", { value: "", text: "all" }),
      Object.keys(outcomes).map((outcome) => h("option", { value: outcome, text: outcome })));
    fill(form, h("form", { class: "filters", role: "search", aria: { label: "Changes" }, on: {
      submit: (event) => {
        event.preventDefault();
        const query = new Map();
        for (const name of filters) {
          const value = event.target.elements.namedItem(name).value.trim();
          if (value) {
            query.set(name, value);
          }
        }
        go(to("changes", { query }));
      } } },
    field("agent", "Agent", { placeholder: "account/name" }), field("group", "Group"), field("test", "Test"),
    h("div", { class: "field" }, h("label", { for: "changes-outcome", text: "Outcome" }), choice),
    field("revision", "Revision", { inputmode: "numeric", pattern: "[0-9]*" }),
    h("button", { type: "submit", text: "Show" }),
    wanted.size > 0 ? h("a", { class: "button quiet", href: to("changes"), text: "Show all" }) : null));
  }

  /* ---- those that are not confirmed ---- */

  let openOnes = [];
  let openTable = null;
  let lastAsked = 0;
  let isWhole = false; /* those are all that are open, but for `fresh` ones */
  const fresh = new Set();

  async function readOpen() {
    const mine = asks, before = [...fresh];
    lastAsked = performance.now();
    try {
      const all = await api.pages(path, { ...Object.fromEntries(wanted), open: 1 },
        { limit: openAtOnce, most: openAtOnce, signal: stop.signal });
      if (!isOpen || mine !== asks) {
        return;
      }
      openOnes = all;
      isWhole = all.next === null;
      before.forEach((id) => fresh.delete(id));
      showOpen(!isWhole);
      if (allTable) {
        showAll();
      }
    } catch (problem) {
      if (isOpen && mine === asks) {
        openTable = null;
        headed(openPlace, "changes-open", "Not confirmed", failed(problem, readOpen));
      }
    }
  }

  function failed(problem, again) {
    isRefused ||= problem.status === 400 || problem.status === 404;
    openPlace.hidden = standing.hidden = isRefused; /* it is said once */
    return failure(problem, isRefused ? null : again);
  }

  /* Only what is shown says by which. Of hundreds it is looked up once. */
  let by = new Map();
  function findOvertaken() {
    const known = isWhole ? { open: new Set(openOnes.map(({ id }) => id)), fresh, all: shown } : null;
    by = new Map(shown.map((each) => [each.id, overtakenBy(each, known)]));
  }

  let said = "";
  function showLead(isMore) {
    findOvertaken();
    const isOvertaken = [...by.values()].some((each) => each !== null);
    const text = openOnes.length === 0 ? `Every change is confirmed${isOvertaken ? " or overtaken" : ""}.`
      : `${isMore ? `${openOnes.length} changes and more are` : `${plural(openOnes.length, "change")} ` +
        (openOnes.length === 1 ? "is" : "are")} not confirmed.`;
    if (text !== said) {
      said = text;
      standing.textContent = text;
    }
  }

  function showOpen(isMore) {
    const count = `${openOnes.length}${isMore ? " and more" : ""}`;
    showLead(isMore);
    if (openOnes.length === 0) {
      openTable = null;
      headed(openPlace, "changes-open", "Not confirmed", emptyState(
        wanted.size > 0 ? "None of these is open" : "None is open",
        "A change is confirmed when a result comes that was found with it, and overtaken when a later one " +
        "takes its place. Until then it stands here, with the reason."));
      return;
    }
    if (!openTable) {
      openTable = changesTable("Changes that are not confirmed");
      headed(openPlace, "changes-open", "Not confirmed ", openTable);
      openPlace.querySelector("h2").append(h("span", { class: "note" }));
    }
    openPlace.querySelector("h2 .note").textContent = `(${count})`;
    openTable.update(openOnes);
  }

  /* ---- all ---- */

  let shown = [];
  let next = null;
  let allTable = null;
  const more = h("p", { class: "more" }, h("button", {
    type: "button", text: "Show more", on: { click: oneByOne(() => busy(readAll(next), more)) },
  }));

  async function readAll(behind = null) {
    const mine = asks;
    try {
      const page = await api.get(path, {
        query: { ...Object.fromEntries(wanted), limit: allAtOnce, next: behind }, signal: stop.signal,
      });
      if (!isOpen || mine !== asks) {
        return;
      }
      const known = new Set(behind ? shown.map(({ id }) => id) : []);
      shown = [...behind ? shown : [], ...page.items.filter(({ id }) => !known.has(id))];
      next = page.next;
      showAll();
    } catch (problem) {
      if (isOpen && mine === asks) {
        allTable = null;
        headed(allPlace, "changes-all", "All changes", failed(problem, () => readAll(behind)));
      }
    }
  }

  function showAll() {
    if (isWhole) {
      showLead(false);
    }
    more.hidden = !next;
    openPlace.hidden = shown.length === 0 && !next && openOnes.length === 0 && wanted.size === 0;
    standing.hidden = openPlace.hidden;
    if (shown.length === 0 && !next) {
      allTable = null;
      headed(allPlace, "changes-all", "All changes", wanted.size > 0
        ? emptyState("No such change", "Look with fewer words.",
          h("a", { class: "button", href: to("changes"), text: "Show all" }))
        : emptyState("No change yet", "When a fleet file is applied, what changes on each agent stands here.",
          h("a", { class: "button", href: to("fleet"), text: "The fleet file" })));
      return;
    }
    if (!allTable) {
      allTable = changesTable("All changes, newest first", ({ id }) => by.get(id) ?? null);
      headed(allPlace, "changes-all", "All changes, newest first", allTable, more);
    }
    allTable.update(shown);
  }

  /* ---- live ---- */

  let timer = 0;
  stops.push(() => clearTimeout(timer));
  function readOpenSoon() {
    timer ||= setTimeout(() => {
      timer = 0;
      if (!isRefused) {
        readOpen();
      }
    }, Math.max(againAfterMs, lastAsked + againAtLeastMs - performance.now()));
  }

  /* Whether a new one fits the filters is asked; with none all fit. */
  function take(messages) {
    const known = new Map(shown.map((each, i) => [each.id, i]));
    const changed = new Map();
    const isKnownOpen = new Set(openOnes.map(({ id }) => id));
    const before = shown.length;
    let isNew = false;
    for (const { data } of messages) {
      fresh.add(data.id);
      if (known.has(data.id)) {
        shown[known.get(data.id)] = data;
      } else if (wanted.size === 0 && (shown.length === 0 || data.id > shown.at(-1).id || !next)) {
        known.set(data.id, shown.push(data) - 1);
      } else {
        isNew ||= wanted.size > 0;
      }
      if (isKnownOpen.has(data.id)) {
        changed.set(data.id, data);
      }
      if (data.outcome === "impossible") {
        announce(`${testName(data)} on ${oneLine(data.agent.name, 100)} cannot be.`);
      }
    }
    shown.sort((a, b) => b.id - a.id);
    if (changed.size > 0) {
      openOnes = openOnes.map((each) => changed.get(each.id) ?? each)
        .filter(({ outcome }) => outcome !== "confirmed");
    }
    came += shown.length - before;
    hasNew ||= isNew;
    showing ||= setTimeout(showNew, showEachMs);
    readOpenSoon();
  }

  /* Of what came by itself the newest are kept; the list begins anew for older ones. */
  let came = 0;
  let hasNew = false;
  let showing = 0;
  stops.push(() => clearTimeout(showing));
  function showNew() {
    showing = 0;
    if (isRefused) {
      return;
    }
    if ((hasNew && shown.length <= allAtOnce) || (came > mostLive && shown.length > mostLive)) {
      came = 0;
      readAll();
    } else {
      showAll();
    }
    hasNew = false;
    if (openTable) {
      showOpen(openOnes.length >= openAtOnce);
    }
  }

  stops.push(live.on("change", take), live.on("lost", () => {
    if (!isRefused) {
      isWhole = false;
      readOpenSoon();
      readAll();
    }
  }));

  function begin() {
    asks++;
    isRefused = isWhole = openPlace.hidden = standing.hidden = false;
    openOnes = [];
    shown = [];
    next = null;
    openTable = null;
    allTable = null;
    showForm();
    fill(openPlace, h("h2", { id: "changes-open", text: "Not confirmed" }));
    fill(allPlace, h("h2", { id: "changes-all", text: "All changes" }));
    busy(readOpen(), openPlace);
    busy(readAll(), allPlace);
  }
  begin();

  return {
    update(now) {
      wanted = wantedIn(now.query);
      begin();
    },
    close() {
      isOpen = false;
      for (const each of stops) {
        each();
      }
    },
  };
}
