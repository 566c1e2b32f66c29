/* Events: what changed when, the newest first, by the reader's days. What is filtered stands in the
 * address, so that it can be kept and passed on. New ones come in by themselves, but never move what
 * somebody reads: then they wait behind a button. */
import { to } from "../base/address.js";
import { natural, newestFirst } from "../base/order.js";
import { apiTime, asTyped, clean, dayKey, exact, now, plural } from "../base/text.js";
import { announce, fill, h, keyed } from "../dom.js";
import { agentLink, badge, busy, emptyState, eventItem, failure, notWhole, testLink } from "../parts.js";

const path = "/api/v1/events";
const filters = ["state", "agent", "group", "type", "test", "q", "from", "to"];
const states = ["problem", "unknown", "silent", "ok"];
const types = ["network", "discovery", "process", "cpu", "disk", "memory", "ping", "http", "snmp",
  "load average", "snmp table", "mysql"];
const mostLive = 1000, mostComing = 1000, showEachMs = 500, membersAgainMs = 5000;
const atOnce = 100, mostPagesUnasked = 5, announcedEachMs = 15000, typedMs = 400;

/* ---- times of the reader ---- */

function dayText(key, present = new Date(now())) {
  const yesterday = new Date(present);
  yesterday.setDate(present.getDate() - 1);
  const day = new Date(`${key}T12:00:00`);
  const text = day.toLocaleDateString("en-GB", { weekday: "long", day: "numeric", month: "long",
    year: day.getFullYear() === present.getFullYear() ? undefined : "numeric" });
  return key === dayKey(present) ? `Today, ${text}` : key === dayKey(yesterday) ? `Yesterday, ${text}` : text;
}

/* The day stands above. Where a neighbour has the same minute, seconds tell them apart. */
const minuteOf = (event) => Math.floor(Date.parse(event?.time) / 60000);

export function timesOf(events) {
  return events.map((event, i) => {
    const minute = minuteOf(event);
    const isAmong = minute === minuteOf(events[i - 1]) || minute === minuteOf(events[i + 1]);
    return asTyped(event.time).slice(-5) + (isAmong ? event.time.slice(16, 19) : "");
  });
}

const fromTyped = (text) => (Number.isNaN(Date.parse(text)) ? "" : apiTime(text));

/* ---- what is wanted ---- */

/* The same query has the same text. */
const textOf = (query) => JSON.stringify(filters.map((name) => query.get(name) ?? ""));

function wantedIn(query) {
  return new Map(filters.filter((name) => query?.get(name)).map((name) => [name, query.get(name)]));
}

/**
 * Whether the server would have let it through; it says of new ones nothing but that they came.
 * @param {Object} event
 * @param {Map<string, string>} query
 * @param {Set<number>|null} members of the group; null: not known
 */
function isWanted(event, query, members) {
  const has = (name, test) => !query.has(name) || test(query.get(name));
  const inText = (text, part) => (text ?? "").toLowerCase().includes(part);
  const { agent, test } = event;
  const isState = (word) => word === event.to || (word === "stale" && event.stale);
  return has("state", (list) => list.split(",").some(isState))
    && has("agent", (called) => called === String(agent.id) || called === `${agent.account}/${agent.name}`)
    && has("group", () => members?.has(agent.id))
    && has("type", (list) => test !== null && list.split(",").includes(test.type))
    && has("test", (id) => test !== null && id === String(test.id))
    && has("from", (from) => Date.parse(event.time) >= Date.parse(from))
    && has("to", (end) => Date.parse(event.time) < Date.parse(end))
    && has("q", (q) => {
      const part = q.toLowerCase();
      return [event.message, agent.name, agent.account, test?.name, test?.target].some((text) =>
        inText(text, part));
    });
}

const inOrder = (a, b) => newestFirst(a.time, b.time) || b.id - a.id;

const makeEvent = ({ event, text }) => eventItem(event, {
  time: h("time", { datetime: event.time, title: exact(event.time), text }),
  what: [event.test ? [testLink(event.test), " on "] : "the agent ", agentLink(event.agent)] });

export const title = () => "Events";

export async function open(place, params, context) {
  const { api, live, model, go } = context;
  let query = wantedIn(params.query);
  let known = new Map(), coming = new Map(); /* shown, and those that wait behind the button, by id */
  let came = 0, asIf = null; /* by themselves; a time from which older ones are asked for, without `next` */
  let next = null, request = null, isClosed = false, members = null;
  let unsaid = 0, saidAt = 0;

  /* ---- the filters ---- */

  const boxes = states.map((state) => h("input", { type: "checkbox", value: state }));
  const agent = h("input", { id: "events-agent", type: "text", list: "events-agents", autocomplete: "off",
    autocapitalize: "none", spellcheck: "false" });
  const group = h("input", { id: "events-group", type: "text", list: "events-groups", autocomplete: "off",
    autocapitalize: "none", spellcheck: "false" });
  const type = h("select", { id: "events-type" }, h("option", { value: "", text: "all" }),
    types.map((each) => h("option", { value: each, text: each })));
  const q = h("input", { id: "events-q", type: "search", autocomplete: "off", spellcheck: "false" });
  const from = h("input", { id: "events-from", type: "datetime-local" });
  const until = h("input", { id: "events-to", type: "datetime-local" });
  const clear = h("button", { type: "button", class: "quiet", text: "Clear",
    on: { click: () => use(new Map()) } });
  const ofTest = h("p", { class: "note" });
  const agentNames = h("datalist", { id: "events-agents" });
  const groupNames = h("datalist", { id: "events-groups" });
  const field = (input, label, kind = "") =>
    h("div", { class: `field ${kind}`.trim() }, h("label", { for: input.id, text: label }), input);

  /* An agent is called by its name where that is clear. */
  const isWhole = (called) => !called || called.includes("/") || /^\d+$/.test(called);
  function agentTyped() {
    const text = agent.value.trim();
    const found = isWhole(text) ? [] : agents.filter((each) => each.name === text);
    return found.length === 1 ? `${found[0].account}/${found[0].name}` : text;
  }

  function agentShown(called) {
    const found = /^\d+$/.test(called ?? "") ? model.agents.get(Number(called)) : null;
    return found ? `${found.account}/${found.name}` : called ?? "";
  }

  function typed() {
    const wanted = new Map();
    const put = (name, value) => (value ? wanted.set(name, value) : null);
    put("state", boxes.filter((box) => box.checked).map((box) => box.value).join(","));
    put("agent", agentTyped());
    put("group", group.value.trim());
    put("type", type.value);
    put("test", query.get("test"));
    put("q", q.value.trim());
    /* What the fields cannot show exactly stays as it was. */
    put("from", from.value === asTyped(query.get("from")) ? query.get("from") : fromTyped(from.value));
    put("to", until.value === asTyped(query.get("to")) ? query.get("to") : fromTyped(until.value));
    return wanted;
  }

  /* A field in which somebody types stays as it is, unless it was the address that changed. */
  function showQuery(isAsked = false) {
    const on = (query.get("state") ?? "").split(",");
    for (const box of boxes) {
      box.checked = on.includes(box.value) || (box.value === "unknown" && on.includes("stale"));
    }
    const set = (input, value) => {
      if (input.value !== value && (isAsked || input !== document.activeElement)) {
        input.value = value;
      }
    };
    set(agent, agentShown(query.get("agent")));
    set(group, query.get("group") ?? "");
    if (query.get("type")?.includes(",") && ![...type.options].some((each) =>
      each.value === query.get("type"))) {
      type.append(h("option", { value: query.get("type"), text: clean(query.get("type")) }));
    }
    set(type, query.get("type") ?? "");
    set(q, query.get("q") ?? "");
    set(from, asTyped(query.get("from")));
    set(until, asTyped(query.get("to")));
    clear.hidden = query.size === 0;
    fill(ofTest, query.has("test") ? ["Only those of one test. ",
      testLink({ id: query.get("test"), name: "The test" })]
      : null);
    ofTest.hidden = !query.has("test");
  }

  function use(wanted) {
    clearTimeout(typing);
    if (textOf(wanted) === textOf(query)) {
      return;
    }
    query = wanted;
    if (wanted.size === 0) {
      form.reset();
    }
    showQuery();
    go(to("events", { query }), { replace: true });
    begin();
  }

  let typing = 0;
  const useSoon = () => {
    clearTimeout(typing);
    typing = setTimeout(useTyped, typedMs);
  };

  async function useTyped() {
    if (!isWhole(agent.value.trim())) {
      await offerNames();
    }
    if (!isClosed) {
      use(typed());
    }
  }

  /* Names to choose from, once somebody is about to. */
  let agents = [], offering = null;
  const offerNames = () => (offering ??= readNames());

  async function readNames() {
    agents = [...model.agents.values()];
    if (agents.length === 0) {
      try {
        agents = await api.pages("/api/v1/agents", {}, { limit: 1000 });
      } catch { /* then they are typed */
        offering = null;
        return;
      }
    }
    const names = agents.map((each) => `${each.account}/${each.name}`).sort(natural);
    fill(agentNames, names.slice(0, 1000).map((name) => h("option", { value: name })));
    const groups = [...new Set(agents.flatMap((each) => each.groups ?? []))].sort(natural);
    fill(groupNames, groups.map((name) => h("option", { value: name })));
  }

  const form = h("form", { class: "filters", role: "search", aria: { label: "Which events" }, on: {
    submit: (event) => {
      event.preventDefault();
      useTyped();
    },
    change: useTyped,
    input: (event) => (event.target === q ? useSoon() : null),
  } },
  h("fieldset", { class: "field line" }, h("legend", { text: "Changes to" }), h("div", { class: "counts" },
    boxes.map((box) => h("label", { class: "count" }, box, badge(box.value))))),
  field(q, "Text in it", "wide"), field(agent, "Agent"), field(group, "Group"), field(type, "Type of test"),
  field(from, "From", "when"), field(until, "To", "when"), clear, agentNames, groupNames);
  agent.addEventListener("focus", offerNames);
  group.addEventListener("focus", offerNames);

  /* ---- the list ---- */

  const status = h("div"), none = h("div"), days = h("div"), more = h("div", { class: "more" });
  const newOnes = h("div"), notAll = h("div");
  newOnes.style.position = "sticky";
  newOnes.style.top = "0.5rem";
  newOnes.style.zIndex = "1";
  newOnes.style.minHeight = "2.25rem"; /* what comes in it moves nothing */
  const older = h("button", { type: "button", text: "Show older ones", on: { click: () => readOlder() } });
  const moreSaid = h("span", { class: "note", tabindex: "-1" });

  function makeDay(day) {
    const list = h("ol", { class: "timeline" });
    const section = h("section", null, h("h2", { class: "timeline-day", tabindex: "-1" }), list);
    updateDay(section, day);
    return section;
  }

  function updateDay(section, day) {
    const text = dayText(day.key);
    if (section.firstChild.textContent !== text) {
      section.firstChild.textContent = text;
    }
    /* Events never change: as many of them, from the same first one on, are the same. */
    const version = `${day.events[0].id} ${day.events.at(-1).id} ${day.events.length}`;
    if (section.dataset.version !== version) {
      section.dataset.version = version;
      const texts = timesOf(day.events);
      keyed(section.lastChild, day.events.map((event, i) => ({ event, text: texts[i] })),
        ({ event }) => event.id, makeEvent, (item, { text }) => {
          const time = item.querySelector("time");
          if (time.textContent !== text) {
            time.textContent = text;
          }
        });
    }
  }

  let showing = 0;
  const showSoon = () => {
    showing ||= setTimeout(show, showEachMs);
  };

  /* A page is open for weeks: of what came by itself the newest are kept, older ones are asked for again. */
  function forget() {
    const sorted = [...known.values()].sort(inOrder);
    if (came > mostLive && sorted.length > mostLive) {
      for (const { id } of sorted.splice(mostLive)) {
        known.delete(id);
      }
      came = 0;
      next = null;
      asIf = sorted.at(-1).time;
    }
    return sorted;
  }

  function show() {
    clearTimeout(showing);
    showing = 0;
    const byDay = new Map();
    for (const event of forget()) {
      const key = dayKey(event.time);
      if (!byDay.has(key)) {
        byDay.set(key, { key, events: [] });
      }
      byDay.get(key).events.push(event);
    }
    fill(none, known.size > 0 || hasOlder() || request ? null : query.size > 0
      ? emptyState("No event is like that", "Take a filter away, or look at a longer time.",
      h("button", { type: "button",
        text: "Clear all filters", on: { click: () => use(new Map()) } }))
      : emptyState("Nothing has happened yet", "An event is a change of state of a test or an agent. They "
      + "come in here by themselves once agents report. How to have a host report: Admission, or vindralctl "
        + "enrol."));
    showMore();
    return keyed(days, byDay.values(), (day) => day.key, makeDay, updateDay);
  }

  const hasOlder = () => next !== null || asIf !== null;

  function showMore() {
    older.hidden = !hasOlder();
    moreSaid.textContent = known.size === 0 ? "" : !hasOlder()
      ? `${plural(known.size, "event")}. There are no older ones.`
      : plural(known.size, "event");
  }

  function showNew() {
    if (coming.size > 0) {
      const button = newOnes.querySelector("button");
      const text = coming.size > mostComing ? `Show more than ${mostComing} new events`
        : `Show ${plural(coming.size, "new event")}`;
      if (button) {
        button.textContent = text;
        return;
      }
      fill(newOnes, h("button", { type: "button", class: "primary", text,
        on: { click: takeComing } }));
    } else {
      fill(newOnes, h("p", { class: "note", text: query.has("to") && Date.parse(query.get("to")) <= now()
        ? "Nothing new comes in: the time ends before now." : "New ones come in by themselves." }));
    }
  }

  function takeComing() {
    const isFar = coming.size > mostComing; /* not all of them are here */
    for (const [id, event] of coming) {
      known.set(id, event);
    }
    came += coming.size;
    coming.clear();
    showNew();
    if (isFar) {
      begin();
    } else {
      show();
    }
    window.scrollTo({ top: 0 });
    (days.querySelector("h2") ?? place.querySelector("h1"))?.focus({ preventScroll: true });
  }

  /* ---- reading ---- */

  async function page(signal, behind = null) {
    const asked = { ...Object.fromEntries(query), limit: atOnce };
    if (behind?.to) { /* those of that second are asked for once more */
      asked.to = apiTime(Date.parse(behind.to) + 1000);
    } else if (behind !== null) {
      asked.next = behind;
    }
    return api.get(path, { query: asked, signal });
  }

  /* An answer looks at so many events, and may have none of those that are wanted. */
  let incomplete = null;
  async function read(signal, behind = null) {
    let count = 0, at = behind;
    for (let i = 0; i < mostPagesUnasked; i++) {
      const answer = await page(signal, at);
      signal.throwIfAborted();
      incomplete = answer.incomplete ?? incomplete;
      for (const event of answer.items) {
        count += known.has(event.id) ? 0 : 1;
        known.set(event.id, event);
      }
      at = answer.next;
      if (at === null || count >= atOnce / 2) {
        break;
      }
    }
    next = at;
    asIf = null;
    fill(notAll, notWhole(incomplete));
    return count;
  }

  /* The stream does not say in which groups an agent is. */
  async function readMembers(signal) {
    const group = query.get("group");
    const found = await api.pages("/api/v1/agents", { group }, { signal });
    signal?.throwIfAborted();
    if (group === query.get("group")) {
      members = new Set(found.map((each) => each.id));
      strangers.clear();
    }
  }

  /* Agents join later, or become members: of one that was no member it is asked once, and after each change
   * once more. */
  let hasMissed = false, membersTimer = 0;
  const strangers = new Set();

  function askForMembers(events) {
    const fresh = events.filter(({ agent: { id } }) => !members.has(id) && !strangers.has(id));
    fresh.forEach((event) => strangers.add(event.agent.id));
    if (fresh.length > 0) {
      membersTimer ||= setTimeout(async () => {
        membersTimer = 0;
        const asked = textOf(query), before = members, known = [...strangers];
        try {
          await readMembers();
          known.forEach((id) => strangers.add(id));
          if (!isClosed && asked === textOf(query) && [...members].some((id) => !before?.has(id))) {
            catchUp();
          }
        } catch { /* at the next event of one of them */
          strangers.clear();
        }
      }, membersAgainMs);
    }
  }

  async function begin() {
    request?.abort();
    const mine = request = new AbortController();
    known = new Map();
    coming.clear();
    came = 0;
    next = asIf = incomplete = null;
    fill(status);
    fill(notAll);
    showNew();
    show();
    try {
      members = null;
      hasMissed = false;
      await busy(Promise.all([read(mine.signal), query.has("group") ? readMembers(mine.signal) : null]),
        status,
        "Loading events");
      if (request === mine) {
        request = null;
        await show();
        if (hasMissed) {
          hasMissed = false;
          catchUp();
        }
      }
    } catch (problem) {
      if (request === mine && !isClosed) {
        request = null;
        showMore();
        fill(status, failure(problem, begin));
      }
    }
  }

  async function readOlder() {
    if (request) {
      return;
    }
    const mine = request = new AbortController();
    older.disabled = true;
    fill(status);
    try {
      const count = await busy(read(mine.signal, asIf ? { to: asIf } : next), more, "Loading older events");
      if (request === mine) {
        request = null;
        const isEnd = !hasOlder();
        await show();
        announce(`${plural(count, "older event")}${isEnd ? ", the last ones" : ""}.`);
        if (isEnd) {
          moreSaid.focus({ preventScroll: true });
        }
      }
    } catch (problem) {
      if (request === mine && !isClosed) {
        request = null;
        fill(status, failure(problem, readOlder));
      }
    } finally {
      older.disabled = false;
    }
  }

  /* ---- live ---- */

  function isReading() {
    const chosen = document.getSelection();
    const active = document.activeElement; /* a heading has it when new ones were shown */
    return days.getBoundingClientRect().top < 0 || (days.contains(active) && active.matches("a,button"))
      || (chosen && !chosen.isCollapsed && days.contains(chosen.anchorNode));
  }

  function take(events) {
    if (query.has("group") && members === null) {
      hasMissed = true;
      return;
    }
    if (query.has("group")) {
      askForMembers(events);
    }
    const fresh = events.filter((event) => !known.has(event.id)
      && !coming.has(event.id)
      && isWanted(event, query, members));
    if (fresh.length === 0) {
      return;
    }
    if (isReading()) {
      for (const event of fresh) {
        if (coming.size <= mostComing) {
          coming.set(event.id, event);
        }
      }
      showNew();
    } else {
      for (const event of fresh) {
        known.set(event.id, event);
      }
      came += fresh.length;
      showSoon();
    }
    unsaid += fresh.length;
    if (Date.now() - saidAt > announcedEachMs) {
      announce(`${plural(unsaid, "new event")}.`);
      unsaid = 0;
      saidAt = Date.now();
    }
  }

  /* What was missed is read back to what is known; when that is far, the list begins anew. */
  async function catchUp() {
    const newest = [...known.values()].sort(inOrder)[0];
    if (!newest || request) {
      begin();
      return;
    }
    const asked = textOf(query);
    try {
      let behind = null;
      for (let i = 0; i < mostPagesUnasked; i++) {
        const answer = await page(undefined, behind);
        if (isClosed || textOf(query) !== asked) {
          return;
        }
        const meets = answer.next === null || answer.items.some((event) => known.has(event.id));
        take(answer.items);
        if (meets) {
          return;
        }
        behind = answer.next;
      }
      begin();
    } catch (problem) {
      if (!isClosed) {
        fill(status, failure(problem, begin));
      }
    }
  }

  const offs = [
    live.on("event", (messages) => take(messages.map((each) => each.data))),
    live.on("change", () => strangers.clear()), live.on("lost", catchUp), live.onFirstLive(catchUp),
  ];

  fill(more, older, moreSaid);
  fill(place,
    h("header", { class: "head" }, h("h1", { tabindex: "-1", text: "Events" }),
      h("p", { class: "lead", text: "Each change of state of a test or an agent, the newest first." })),
    h("div", { class: "stack" }, h("div", { class: "panel" }, form, ofTest),
      h("section", { aria: { label: "Events" } }, newOnes, status, notAll, none, days, more)));
  showQuery();
  begin();

  return {
    update(now) {
      const wanted = wantedIn(now.query);
      if (textOf(wanted) !== textOf(query)) { /* went back, or followed a link */
        query = wanted;
        form.reset();
        showQuery(true);
        begin();
      }
    },
    close() {
      isClosed = true;
      clearTimeout(typing);
      clearTimeout(showing);
      clearTimeout(membersTimer);
      request?.abort();
      offs.forEach((off) => off());
    },
  };
}
