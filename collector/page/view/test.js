/* One test: how it stands, a curve of each of its values with limits and states, its last results,
 * its events, and the lines of the fleet file that made it. The time that is looked at and the values
 * that are chosen stand in the address. A time that ends now goes on by itself: results are drawn as
 * they come, and the curve is asked for again now and then. */
import { to } from "../base/address.js";
import { Heard } from "../base/heard.js";
import * as curves from "../base/series.js";
import {
  ago, asTyped, clean, clock, clockSeconds, exact, isNoLongerPlanned, now as presentTime, number, oneLine, plural,
  stateWord,
} from "../base/text.js";
import { findTest } from "../base/yamlPlace.js";
import { createChart, prepare } from "../chart.js";
import { announce, fill, h, inFrames, throttle } from "../dom.js";
import {
  agentLink, badge, busy, emptyState, eventItem, fact, failure, headed, message, notWhole, oneByOne, setBadge,
  setTime, table, timeElement,
} from "../parts.js";

const day = 86400000;
const spans = { /* besides those of base/series.js */
  "15m": 900000,
  "2y": 730 * day, /* as long as hours are kept, unless the collector is told otherwise */
};
const ranges = [["15m", "15 min"], ["1h", "1 hour"], ["6h", "6 hours"], ["1d", "Day"], ["7d", "Week"], ["30d", "Month"],
  ["2y", "Two years"]];
const mostUnasked = 6, mostCharts = 24, mostButtons = 400; /* of values */
const resultsAtOnce = matchMedia("(max-width: 40rem)").matches ? 10 : 20; /* cards are long */
const eventsAtOnce = 10, mostParts = 500, mostLines = 80;
const mostResults = 400; /* that the page keeps of those that come by themselves */
const leastAgainMs = 60000, mostAgainMs = 900000;

export const title = () => "Test";

/* ---- the time that is looked at ---- */

const spanOf = (word) => spans[word] ?? curves.ranges[word];

/**
 * @param {string} usual what is shown where the address has no time
 * @returns {{from: number, to: number, range: ?string}} with `range` it goes on with the time
 */
function rangeIn(query, usual, now = presentTime()) {
  const word = query.get("range") ?? usual;
  return Object.hasOwn(spans, word) && !query.has("from") && !query.has("to")
    ? { from: now - spans[word], to: now, range: word }
    : curves.readRange(query, now);
}

/* The shortest that shows all of what there is since a time, a day at most. */
function shortestFor(begin, now = presentTime()) {
  return ranges.find(([word]) => word === "1d" || spanOf(word) >= now - begin)[0];
}

/* When the first result of an answer was, if it is known. */
function beginOf({ time, state, values }) {
  const i = time.findIndex((_, at) => state.ok[at] > 0 || state.problem[at] > 0
    || Object.values(values).some(({ mean }) => Number.isFinite(mean[at])));
  return i < 0 ? null : Date.parse(time[i]);
}

/* Of results that follow each other closely. */
const secondsTime = (iso) => h("time", { datetime: iso, title: exact(iso), text: clockSeconds(iso) });

/* What ends now and is as long as one of the words is that word, and goes on. */
function wordOf({ from, to: end }, now = presentTime()) {
  const span = end - from;
  const found = ranges.find(([word]) => Math.abs(spanOf(word) - span) < span / 100);
  return found && end >= now - span / 100 ? found[0] : null;
}

/* Names may have commas. */
const writeNames = (names) => names.map((name) => name.replace(/[%,]/g, encodeURIComponent)).join(",");
function readNames(text) {
  return (text ?? "").split(",").filter(Boolean).map((name) => {
    try {
      return decodeURIComponent(name);
    } catch {
      return name;
    }
  });
}

/* ---- pieces ---- */

function valuesText(values, definition) {
  return Object.entries(values ?? {}).map(([name, { value, unit }]) =>
    `${curves.valueLabel(definition, name)} ${oneLine(number(value, unit), 200)}`).join(", ");
}

/* What a pass was made of; it is put there when somebody opens it. */
function partsElement(result) {
  const parts = result.parts ?? [];
  if (parts.length === 0) {
    return null;
  }
  const place = h("div");
  const details = h("details", null, h("summary", { text: plural(parts.length, "part") }), place);
  details.addEventListener("toggle", () => {
    const some = parts.slice(0, mostParts).map((part, i) => ({ ...part, i }));
    fill(place, details.open ? [
      table({
        caption: "Parts of this result", captionHidden: true, rows: some, keyOf: (part) => part.i, columns: [
          { title: "Name", heading: true, cell: (part) => oneLine(part.name, 500) || "–" },
          { title: "Status", cell: (part) => part.status ?? "–" },
          { title: "Values", cell: (part) => valuesText(part.values) || "–" },
          { title: "Message", wide: true, cell: (part) => (part.message ? message(part.message) : null) },
        ],
      }),
      parts.length > mostParts || result.parts_left_out
        ? h("p", { class: "note", text: parts.length > mostParts
          ? `The first ${mostParts} of ${parts.length}; the API has all of them.`
          : "There were more than an answer has room for." }) : null,
    ] : null);
  });
  return details;
}

/* ---- the view ---- */

export async function open(place, params, context) {
  const { api, live, me, go } = context;
  const id = Number(params.id);
  const path = `/api/v1/tests/${id}`;
  const isOperator = me?.role === "operator" || me?.role === "admin";
  const stop = new AbortController();
  const stops = [() => stop.abort()];
  let isOpen = true;
  let query = new Map(params.query);
  let usual = "1d";
  let begins = null; /* the first result, where the address has no time and it is of the last day */
  let range = rangeIn(query, usual);
  let test = null;
  let series = null;
  let tails = new Map(); /* of the values: rows that came since the series was asked for */
  let tailStrip = [];
  let charts = new Map();
  let asked = null; /* the last request for the series */
  let meanwhile = []; /* results that came since */
  let again = 0;
  const before = []; /* queries to go back to */
  let isGoingBack = false;

  prepare().catch(() => {}); /* the chart says so when it is drawn */

  const crumbs = h("nav", { class: "crumbs", aria: { label: "Where this is" } });
  const heading = h("h1", { tabindex: "-1", text: "Test" });
  const state = badge("unknown");
  const standing = h("div", { class: "row lead" });
  const facts = h("section", { class: "panel stack tight", aria: { label: "How it stands" } });
  const tools = h("div", { class: "stack tight" });
  const choice = h("div");
  const trouble = h("div");
  const none = h("div");
  const plots = h("div", { class: "stack" });
  const gone = h("p", { class: "note", hidden: true });
  const curve = h("section", { class: "panel stack tight", aria: { labelledby: "test-curve" } },
    h("h2", { id: "test-curve", text: "Curve" }), tools, choice, trouble, none, plots);
  const results = h("section", { class: "panel", aria: { labelledby: "test-results" } });
  const events = h("section", { class: "panel", aria: { labelledby: "test-events" } });
  const source = h("section", { class: "panel stack tight", aria: { labelledby: "test-source" } });
  const all = h("div", { class: "stack" }, facts, curve, results,
    h("div", { class: "columns" }, events, source));
  all.hidden = true;
  place.append(h("div", { class: "head" }, crumbs, heading, standing, gone), all);

  /* ---- how it stands ---- */

  const since = timeElement(new Date(0).toISOString(), { as: "since" });
  let headOf = "";
  function showHead() {
    setBadge(state, stateWord(test));
    if (test.since) {
      setTime(since, test.since);
    }
    const { name, target, type, agent } = test;
    if (headOf === JSON.stringify([name, target, type, agent, !test.since])) {
      return;
    }
    headOf = JSON.stringify([name, target, type, agent, !test.since]);
    const called = clean(name) || "(no name)";
    heading.textContent = called;
    fill(crumbs, h("ol", null,
      h("li", null, h("a", { href: to("now"), text: "Now" })),
      h("li", null, agentLink(agent)),
      h("li", { aria: { current: "page" }, text: called })));
    fill(standing, state, test.since ? h("span", null, "for ", since) : null,
      h("span", { class: "text",
        text: type + (target && target !== name ? ` of ${oneLine(target, 300)}` : "") }));
  }

  /* Why nothing comes, where that is known: what stands here is of before then. */
  let agent = null;
  let goneOf = "";
  function showGone() {
    const why = !agent || !test ? "" : agent.retired ? "retired" : agent.state === "silent" ? "silent"
      : isNoLongerPlanned(test, agent) ? "gone" : "";
    if (goneOf !== why) {
      goneOf = why;
      fill(gone, why === "retired"
        ? "Its agent is retired: this test is in no list any more, and is kept until it expires."
        : why === "silent" ? ["Its agent ", agentLink(test.agent), " is silent since ", timeElement(agent.since),
          ": nobody knows how the test stands. What is shown is from before."]
        : why === "gone" ? ["It is no longer planned, since ", timeElement(test.since),
          ". What is shown is from before, and goes when it expires."] : null);
      facts.classList.toggle("past", why !== "");
      gone.hidden = why === "";
      if (why && haveBegun) {
        announce(gone.textContent);
      }
    }
  }

  let haveBegun = false;
  async function readAgent() {
    const got = await api.get(`/api/v1/agents/${test.agent.id}`, { signal: stop.signal });
    if (isOpen) {
      agent = got;
      showGone();
      haveBegun = true;
    }
  }

  /* What somebody has opened stays open when a result comes. */
  let messageOf = null;
  let messagePlace = null;
  let told = null;
  let toldOf = null;
  function showFacts() {
    const definition = test.definition;
    if (messageOf !== test.message) {
      messageOf = test.message;
      messagePlace = messageOf ? h("div", { class: "stack tight" }, message(messageOf)) : null;
    }
    if (toldOf !== JSON.stringify(definition?.fields)) {
      toldOf = JSON.stringify(definition?.fields);
      /* What is not limited need not be read. */
      const fields = Object.entries(definition?.fields ?? {})
        .filter(([, value]) => value !== -1 && value !== "" && value !== null);
      const textOf = (value) => (typeof value === "object" ? JSON.stringify(value) : String(value));
      told = fields.length > 0 ? h("details", null, h("summary", { text: `${plural(fields.length, "field")}, as the agent gets them` }),
        h("dl", { class: "facts" },
          fields.map(([name, value]) => fact(clean(name), oneLine(textOf(value), 1000))))) : null;
    }
    fill(facts, messagePlace,
      h("dl", { class: "facts", data: { key: "facts" } },
        fact("Agent", agentLink(test.agent)),
        fact("Last result", test.time
          ? [timeElement(test.time), " (", timeElement(test.time, { as: "ago" }), ")"] : "none has come yet"),
        test.status ? fact("Status", clean(test.status)) : null,
        Object.keys(test.values ?? {}).length > 0
          ? fact("Values", oneLine(valuesText(test.values, definition), 2000)) : null,
        definition ? fact("Judged by revision", String(definition.location ?? "–"),
          definition.since ? [", which it has since ", timeElement(definition.since)] : "") : null,
        told ? fact("What it is told", told) : null),
      notWhole(test.incomplete));
  }

  const heard = new Heard();
  async function readTest() {
    const asked = heard.ask();
    const got = await api.get(path, { signal: stop.signal });
    [test] = heard.answer(asked, [got], new Map([[id, test ?? {}]])) ?? [test];
    if (isOpen) {
      showGone();
      showHead();
      showFacts();
    }
  }

  /* Several messages of a moment are one question. */
  const soon = (ms, fn) => {
    let timer = 0;
    stops.push(() => clearTimeout(timer));
    return () => {
      timer ||= setTimeout(() => {
        timer = 0;
        fn().catch(() => {
          hasMissed = true; /* the connection tells of itself */
        });
      }, ms);
    };
  };

  /* What is shown goes on to be; what was not read is read when the collector is back. */
  let hasMissed = false;
  function notRead(place, id, text, problem, retry, isShown) {
    const what = failure(problem, () => {
      what.remove();
      retry();
    });
    if (!isShown) {
      headed(place, id, text, what);
    } else if (problem.status === 0) {
      hasMissed = true;
    } else {
      place.append(what);
    }
  }
  const readTestSoon = soon(500, readTest);
  const readAgentSoon = soon(500, readAgent);
  /* After a change of the fleet; while nobody looks nothing is asked for. */
  let isSourceDue = false;
  const readSourceSoon = soon(5000, async () => {
    isSourceDue = document.hidden;
    if (test.group && isOperator && !isSourceDue) {
      await readSource();
    }
  });

  /* ---- which time ---- */

  const addressOf = (next) => to("test", { id, query: next });

  function without(...names) {
    const next = new Map(query);
    names.forEach((name) => next.delete(name));
    return next;
  }

  function withRange(wanted) {
    const next = without("from", "to", "range");
    const word = typeof wanted === "string" ? wanted : wordOf(wanted);
    for (const [name, value] of Object.entries(curves.writeRange(word ?? wanted))) {
      if (value !== usual) { /* which is what is shown without a word */
        next.set(name, value);
      }
    }
    return next;
  }

  function goTo(next, { isBack = false } = {}) {
    if (addressOf(next) === addressOf(query)) {
      return;
    }
    isGoingBack = isBack;
    go(addressOf(next), { replace: isBack });
  }

  const move = {
    range: ({ from, to: end }) => goTo(withRange(curves.clampRange({ from, to: end }))),
    /* What goes on with the time does so, longer or shorter. */
    zoom: ({ factor }) => {
      const next = ranges[ranges.findIndex(([word]) => word === range.range) + (factor < 1 ? -1 : 1)];
      if (range.range && next) {
        goTo(withRange(next[0]));
      } else {
        move.range(curves.zoomed(range, factor, range.range ? range.to : undefined));
      }
    },
    back: () => {
      const last = before.pop();
      if (last || !range.range) {
        goTo(last ?? without("from", "to", "range"), { isBack: true });
      }
    },
    now: () => goTo(withRange((ranges.find(([word]) => spanOf(word) >= (range.to - range.from) * 0.99) ??
      ranges.at(-1))[0])),
  };

  function rangeText() {
    const { from, to: end } = range;
    const say = end - from < 3600000 ? clockSeconds : clock;
    return `${say(from)} to ${say(end)}, ${ago((end - from) / 1000)}`;
  }

  function showTools() {
    const button = (text, label, click, isOff = false) => h("button", {
      type: "button", aria: { label, disabled: isOff ? "true" : null }, data: { key: label }, text,
      on: isOff ? {} : { click }, /* not disabled: the focus would be lost */
    });
    const from = h("input", { type: "datetime-local", id: "test-from", value: asTyped(range.from) });
    const until = h("input", { type: "datetime-local", id: "test-to", value: asTyped(range.to) });
    const wrong = h("p", { class: "field-error", role: "alert" });
    const form = h("form", { class: "filters", on: { submit: (event) => {
      event.preventDefault();
      const wanted = { from: new Date(from.value).getTime(), to: new Date(until.value).getTime() };
      wrong.textContent = wanted.from < Math.min(wanted.to, presentTime()) ? ""
        : "A time has to begin before it ends, and not in the future.";
      if (!wrong.textContent) {
        goTo(withRange(curves.clampRange({ from: wanted.from, to: Math.min(wanted.to, presentTime()) })));
      }
    } } },
    h("div", { class: "field" }, h("label", { for: "test-from", text: "From" }), from),
    h("div", { class: "field" }, h("label", { for: "test-to", text: "To" }), until),
    h("button", { type: "submit", data: { key: "show" }, text: "Show" }), wrong);
    const isOpenNow = tools.querySelector("details")?.open ?? range.range === null;
    fill(tools,
      h("div", { class: "chart-tools" },
        h("ul", { class: "choices", aria: { label: "How long" } }, ranges.map(([word, text]) =>
          h("li", { data: { key: word } }, h("a", {
            href: addressOf(withRange(word)), text, aria: { current: range.range === word ? "true" : null },
          })))),
        h("div", { class: "choices", role: "group", aria: { label: "Which time" } },
          button("←", "Earlier", () => move.range(curves.panned(range, -0.5))),
          button("→", "Later", () => move.range(curves.panned(range, 0.5)), range.range !== null),
          button("+", "Closer", () => move.zoom({ factor: 0.5 })),
          button("−", "Wider", () => move.zoom({ factor: 2 })),
          button("Back", "Back to the time before", move.back, before.length === 0 && range.range !== null),
          button("Now", "Up to now", move.now, range.range !== null))),
      h("details", { open: isOpenNow }, h("summary", { text: "Another time" }), form),
      range.range ? null : h("p", { class: "chart-note" }, rangeText()));
  }

  /* ---- which values ---- */

  const canRate = () => test.type === "snmp" || test.type === "mysql";
  /* Objects say themselves which of them count; of the values of a query nobody knows. */
  const isRate = () => canRate() && (query.get("rate") ?? (test.type === "snmp" ? "1" : "0")) === "1";

  function chosenNames(names) {
    const given = readNames(query.get("values")).filter((name) => names.includes(name));
    if (given.length > 0) {
      return given.slice(0, mostCharts);
    }
    const first = curves.firstValue(test.type, names);
    return [...new Set([first, ...names])].filter(Boolean).slice(0, mostUnasked);
  }

  let choiceOf = "";
  function showChoice(names, chosen) {
    const definition = test.definition ?? series.definitions.at(-1);
    const shown = JSON.stringify([names, chosen, isRate(), definition]);
    if (choiceOf === shown) {
      return;
    }
    choiceOf = shown;
    const search = choice.querySelector("input[type=search]")?.value ?? "";
    const isOpenNow = choice.querySelector("details")?.open ?? names.length <= 12;
    const toggle = (name) => {
      const next = without("values");
      const isOff = chosen.includes(name);
      const wanted = isOff ? chosen.filter((each) => each !== name) : [...chosen, name];
      if (wanted.length > mostCharts) {
        announce(`${mostCharts} curves at most.`);
      } else if (wanted.length > 0) {
        next.set("values", writeNames(names.filter((each) => wanted.includes(each))));
        go(addressOf(next), { replace: true });
      }
    };
    const list = h("div", { class: "choices values", role: "group", aria: { label: "Values" } });
    const fillList = (words) => {
      const fitting = names.filter((name) =>
        curves.valueLabel(definition, name).toLowerCase().includes(words.trim().toLowerCase()));
      fill(list, fitting.slice(0, mostButtons).map((name) => h("button", {
        type: "button", data: { key: name }, aria: { pressed: String(chosen.includes(name)) },
        text: oneLine(curves.valueLabel(definition, name), 100), on: { click: () => toggle(name) },
      })), fitting.length > mostButtons
        ? h("span", { class: "note", text: `and ${fitting.length - mostButtons} more` }) : null);
    };
    fillList(search);
    fill(choice,
      names.length > 1 ? h("details", { open: isOpenNow },
        h("summary", { text: `Values: ${chosen.length} of ${names.length}` }),
        h("div", { class: "stack tight" },
          names.length > 12 ? h("div", { class: "field" },
            h("label", { for: "test-values", text: "Find a value" }),
            h("input", { type: "search", id: "test-values", value: search, data: { key: "search" },
              on: { input: (event) => fillList(event.target.value) } })) : null,
          list)) : null,
      canRate() && (!isRate() || test.type !== "snmp" || names.some((name) => series.values[name].unit.endsWith("/s")))
        ? h("label", { class: "check" }, h("input", {
        type: "checkbox", checked: isRate(), data: { key: "rate" }, on: { change: (event) => {
          const next = without("rate");
          next.set("rate", event.target.checked ? "1" : "0");
          go(addressOf(next), { replace: true });
        } } }), "Counters by how much they rise a second") : null);
  }

  /* ---- the curve ---- */

  function showCurves() {
    const definition = series.definitions.at(-1) ?? test.definition;
    const names = curves.valueNames(series);
    const chosen = chosenNames(names);
    /* Of a time in which there is nothing curves stay, empty: keys lead out of it again. */
    const drawn = chosen.length > 0 ? chosen : [...charts.keys()];
    for (const [name, chart] of charts) {
      if (!drawn.includes(name)) {
        sight.unobserve(chart.element);
        inSight.delete(chart.element);
        chart.close();
        charts.delete(name);
        old.delete(name);
      }
    }
    showChoice(names, chosen);
    fill(trouble, notWhole(series.incomplete));
    const states = [...curves.strip(series), ...tailStrip];
    fill(none, chosen.length > 0 ? null : states.length > 0
      ? emptyState("No values in this time", "The test has results, but none of them has a number to draw.")
      : emptyState("No results in this time", range.range
        ? "Results come with the agent's polls. Look at a longer time, or whether the agent is silent."
        : "Look at another time."));
    drawn.forEach((name, i) => {
      if (!charts.has(name)) {
        const chart = createChart(plots, { label: curves.valueLabel(definition, name) });
        chart.onRange((wish) => move[wish.kind](wish));
        sight.observe(chart.element);
        charts.set(name, chart);
      }
      old.set(name, { definition, states, words: i === drawn.length - 1 });
    });
    const inOrder = drawn.map((name) => charts.get(name).element);
    if (inOrder.some((element, i) => plots.children[i] !== element)) {
      plots.append(...inOrder);
    }
    for (const name of drawn) {
      drawing.add(name);
    }
  }

  /* Each curve is work: they are drawn one in a frame, and drawn again while they are in sight. */
  const old = new Map(); /* by the name of the value: what it is to be drawn with */
  const inSight = new Set(); /* their elements */
  const wereDrawn = new WeakSet();
  const drawing = inFrames((name) => {
    const chart = charts.get(name), how = old.get(name);
    if (!chart || !how || (wereDrawn.has(chart) && !inSight.has(chart.element))) {
      return;
    }
    wereDrawn.add(chart);
    old.delete(name);
    const data = curves.chartData(series, name);
    chart.show({ ...data, rows: data.rows.concat(tails.get(name) ?? []) }, {
      limits: isRate() && data.unit.endsWith("/s") ? [] : curves.limits(how.definition, name),
      strip: how.states, from: range.from, to: range.to, unit: data.unit, words: how.words,
    });
  });
  const sight = new IntersectionObserver((entries) => {
    for (const { target, isIntersecting } of entries) {
      inSight[isIntersecting ? "add" : "delete"](target);
    }
    [...old.keys()].forEach((name) => drawing.add(name));
  }, { rootMargin: "200px" });
  stops.push(() => sight.disconnect(), drawing.cancel);

  let isFresh = true; /* a time that somebody looks at stays as long as it is */
  async function readSeries() {
    clearTimeout(again);
    asked?.abort();
    const mine = new AbortController();
    asked = mine;
    meanwhile = [];
    const was = usual;
    usual = begins === null ? usual : shortestFor(begins);
    range = rangeIn(query, usual);
    if (usual !== was) {
      showTools();
    }
    const { from, to: end } = range;
    const span = end - from;
    try {
      const got = await api.get(`${path}/series`, {
        query: {
          from: new Date(from).toISOString(), to: range.range ? null : new Date(end).toISOString(),
          points: curves.wanted(from, end, tools.clientWidth || 800), rate: isRate() ? 1 : null,
        },
        signal: mine.signal,
      });
      if (!isOpen || asked !== mine) {
        return;
      }
      if (isFresh && begins === null && !["from", "to", "range"].some((name) => query.has(name))) {
        begins = beginOf(got);
      }
      isFresh = false;
      if (begins !== null && shortestFor(begins) !== usual) {
        await readSeries();
        return;
      }
      series = got;
      tails = new Map();
      tailStrip = [];
      if (range.range && !isRate()) {
        meanwhile.forEach(append);
      }
      showCurves();
    } catch (problem) {
      if (isOpen && !mine.signal.aborted) {
        fill(trouble, failure(problem, () => showSeries()));
      }
    }
    if (isOpen && asked === mine && range.range) {
      again = setTimeout(readSeriesSeen, Math.min(Math.max(span / 400, leastAgainMs), mostAgainMs));
    }
  }
  stops.push(() => {
    clearTimeout(again);
    asked?.abort();
  });
  /* While nobody looks at it nothing is asked for. */
  let isDue = false;
  async function readSeriesSeen() {
    isDue = document.hidden;
    return isDue ? null : readSeries();
  }
  const readSeriesSoon = soon(1000, readSeriesSeen);

  function showSeries() {
    return busy(readSeries(), trouble, "Reading the curve");
  }

  /* A result goes into the curve as it is where each point is a result, else behind its end until
   * the curve is asked for again. */
  function draw(result) {
    meanwhile.push(result);
    if (meanwhile.length > mostResults) {
      meanwhile.shift();
    }
    if (!series || !range.range || isDue) {
      return;
    }
    range = rangeIn(query, usual);
    if (isRate() || charts.size === 0) {
      readSeriesSoon();
      return;
    }
    haveCurves = true;
    append(result);
  }

  function append(result) {
    const time = Date.parse(result.time);
    if (series.resolution === 0) {
      curves.appendResult(series, result, range.from);
    } else {
      for (const [name, { value }] of Object.entries(result.values ?? {})) {
        if (typeof value === "number") {
          const rows = tails.get(name) ?? [];
          const last = rows.at(-1)?.[0].getTime() ?? Date.parse(series.time.at(-1));
          if (time > last) {
            tails.set(name, [...rows, [new Date(time), [value, value, value]]]);
          }
        }
      }
      const from = tailStrip.at(-1)?.to ?? Math.max(Date.parse(series.to), range.from);
      if (time > from) {
        tailStrip.push({ from, to: time, state: result.state });
      }
    }
  }

  /* ---- results ---- */

  let shownResults = [];
  let mostShown = resultsAtOnce;
  let nextResults = null;
  let resultsTable = null;
  const keyOfResult = (result) => `${result.time} ${result.received ?? ""} ${result.message?.length ?? 0}`;

  let resultsAsked = 0; /* an answer that another question has overtaken is nobody's business */
  async function readResults(next = null) {
    const mine = ++resultsAsked;
    try {
      const page = await api.get(`${path}/results`, {
        query: {
          limit: resultsAtOnce, next, to: range.range ? null : new Date(range.to).toISOString(),
        },
        signal: stop.signal,
      });
      if (isOpen && mine === resultsAsked) {
        shownResults = next ? [...shownResults, ...page.items] : page.items;
        nextResults = page.next;
        mostShown = next ? mostShown : resultsAtOnce;
        showResults();
      }
    } catch (problem) {
      if (isOpen && mine === resultsAsked) {
        notRead(results, "test-results", "Results", problem, () => readResults(next), resultsTable !== null);
      }
    }
  }
  const readResultsSoon = soon(1000, () => readResults());

  const more = h("p", { class: "more" }, h("button", {
    type: "button", text: "Show more results", on: { click: oneByOne(async () => {
      mostShown += resultsAtOnce;
      if (shownResults.length < mostShown && nextResults) {
        await busy(readResults(nextResults), more);
      } else {
        showResults();
      }
    }) },
  }));

  function showResults() {
    if (shownResults.length === 0) {
      resultsTable = null;
      headed(results, "test-results", "Results", emptyState("No results", range.range
          ? "The first one comes with a poll of the agent, after the test was done."
          : "None is kept from before the end of that time."));
      return;
    }
    if (!resultsTable) {
      resultsTable = table({
        caption: "Results, newest first", captionHidden: true, keyOf: keyOfResult, version: keyOfResult,
        columns: [
          { title: "Time", heading: true, cell: (result) => secondsTime(result.time) },
          { title: "State", cell: (result) => badge(stateWord(result)) },
          { title: "Values",
            cell: (result) => oneLine(valuesText(result.values, test.definition), 1000) || "–" },
          { title: "Message", wide: true, cell: (result) => [
            result.message ? message(result.message) : null, partsElement(result)] },
          { title: "Revision", numeric: true, cell: (result) => String(result.location ?? "–") },
        ],
      });
      fill(results, h("h2", { id: "test-results", text: range.range ? "Last results"
        : "Results before the end of that time" }), resultsTable, more);
    }
    more.hidden = !nextResults && shownResults.length <= mostShown;
    resultsTable.update(shownResults.slice(0, mostShown));
  }

  /* ---- events ---- */

  let shownEvents = [];
  let nextEvents = null;
  const eventList = h("ol", { class: "timeline" });
  const moreEvents = h("p", { class: "more" }, h("button", {
    type: "button", text: "Show more events",
    on: { click: oneByOne(() => busy(readEvents(nextEvents), moreEvents)) },
  }));

  let eventsAsked = 0;
  async function readEvents(next = null) {
    const mine = ++eventsAsked;
    try {
      const page = await api.get("/api/v1/events", {
        query: { test: id, limit: eventsAtOnce, next }, signal: stop.signal,
      });
      if (isOpen && mine === eventsAsked) {
        /* Newer ones came while this was asked for. */
        const kept = next ? shownEvents
          : shownEvents.filter((each) => each.id > (page.items[0]?.id ?? Infinity));
        const known = new Set(kept.map((each) => each.id));
        shownEvents = [...kept, ...page.items.filter((each) => !known.has(each.id))];
        nextEvents = page.next;
        showEvents();
      }
    } catch (problem) {
      if (isOpen && mine === eventsAsked) {
        notRead(events, "test-events", "Events", problem, () => readEvents(next), shownEvents.length > 0);
      }
    }
  }

  function showEvents() {
    fill(eventList, shownEvents.map((event) => eventItem(event, {})));
    moreEvents.hidden = !nextEvents;
    if (eventList.parentNode !== events || shownEvents.length === 0) {
      headed(events, "test-events", "Events", shownEvents.length > 0 ? [eventList, moreEvents]
          : emptyState("No events", "A change of the test's state is one; its first result is the first."));
    }
  }

  /* ---- the fleet file ---- */

  const fleetTag = {};
  let sourceOf = null;
  async function readSource() {
    const head = h("h2", { id: "test-source", text: "In the fleet file" });
    if (!test.group || !isOperator) {
      sourceOf = null;
    }
    if (!test.group) {
      fill(source, head, h("p", { class: "note",
        text: "This test is not of the fleet file: a plan of raw commands has it, or had it." }));
      return;
    }
    const group = h("p", null, "Group ", h("b", { class: "text", text: oneLine(test.group, 200) }));
    if (!isOperator) {
      fill(source, head, group, h("p", { class: "note",
        text: "Its lines are shown to operators: the file may have passwords in it." }));
      return;
    }
    try {
      const fleet = await api.get("/api/v1/fleet", { signal: stop.signal, etag: fleetTag });
      const now = JSON.stringify([fleet.text, fleet.read_only, test.group, test.name]);
      if (!isOpen || sourceOf === now) {
        return;
      }
      sourceOf = now;
      const found = fleet.text ? findTest(fleet.text, test.group, test.name) : null;
      const lines = found ? fleet.text.split(/\r\n|\r|\n/).slice(found.from - 1, found.to) : [];
      const rest = lines.length - mostLines;
      fill(source, head, group,
        found ? [
          h("ol", { class: "source", start: found.from, tabindex: "0",
            aria: { label: `Line ${found.from} to ${found.to} of the fleet file` } },
          lines.slice(0, mostLines).map((line) => h("li", { text: clean(line) || " " }))),
          rest > 0 ? h("p", { class: "note", text: `and ${plural(rest, "more line")}` }) : null,
        ] : h("p", { class: "note", text: "The text in force has no test of this name in that group." }),
        h("div", { class: "actions" }, h("a", {
          class: "button", href: to("fleet", { query: found
            ? { line: found.from, group: test.group, test: test.name } : {} }),
          text: fleet.read_only ? "See it in the file" : "Change it in the editor",
        })));
    } catch (problem) {
      if (isOpen && problem.status === 0 && source.querySelector(".actions")) {
        hasMissed = true;
      } else if (isOpen) {
        sourceOf = null;
        fill(source, head, group, failure(problem, readSource));
      }
    }
  }

  /* ---- live ---- */

  function takeResult(result) {
    if (!test || (test.time && Date.parse(result.time) < Date.parse(test.time))) {
      readTestSoon(); /* it came late: what counts is said by the collector */
    } else {
      const isChange = stateWord(result) !== stateWord(test);
      test = {
        ...test, time: result.time, state: result.state, stale: undefined, status: result.status,
        message: result.message, values: result.values, since: isChange ? result.time : test.since,
      };
      if (isChange || result.location !== test.definition?.location) {
        readTestSoon();
      }
    }
    draw(result);
    if (range.range) {
      putResult(result);
    }
  }

  /* What comes live has no parts: where results have some, they are asked for. */
  function putResult(result) {
    if (!resultsTable || shownResults.some((each) => each.parts?.length > 0)) {
      if (mostShown === resultsAtOnce) { /* else somebody reads further down */
        readResultsSoon();
      }
      return;
    }
    if (shownResults.some((each) => keyOfResult(each) === keyOfResult(result))) {
      return;
    }
    const at = shownResults.findIndex(({ time }) => time <= result.time);
    shownResults.splice(at < 0 ? shownResults.length : at, 0, result);
    if (shownResults.length > mostResults) {
      shownResults.length = mostResults;
      nextResults = null; /* it would go on behind those that were left out */
    }
    haveResults = true;
  }

  /* However many came, what is seen changes once. While nobody looks nothing does. */
  let haveResults = false;
  let haveCurves = false;
  const showNews = throttle(() => {
    if (document.hidden) {
      hasNews = true;
      return;
    }
    hasNews = false;
    showHead();
    showFacts();
    if (haveCurves) {
      haveCurves = false;
      showCurves();
    }
    if (haveResults) {
      haveResults = false;
      showResults();
    }
  });
  let hasNews = false;
  const looks = () => {
    if (hasNews) {
      showNews();
    }
    if (isDue) {
      readSeriesSeen();
    }
    if (isSourceDue) {
      readSourceSoon();
    }
  };
  document.addEventListener("visibilitychange", looks);
  stops.push(showNews.cancel, () => document.removeEventListener("visibilitychange", looks));

  function listen() {
    stops.push(
      live.want({ results: { agents: new Set(), tests: new Set([id]) } }),
      live.on("result", (messages) => {
        const own = messages.filter(({ data }) => data.test?.id === id);
        own.forEach(({ data }) => takeResult(data));
        if (own.length > 0 && test) {
          showNews();
        }
      }),
      live.on("event", (messages) => messages.forEach(({ data }) => {
        if (data.test?.id === id) {
          heard.say(id, data);
          if (!shownEvents.some((each) => each.id === data.id)) {
            shownEvents = [data, ...shownEvents].slice(0, mostResults);
            showEvents();
          }
          announce(`${oneLine(test.name, 100)} is ${data.to}.`);
          readTestSoon();
        } else if (!data.test && data.agent?.id === test.agent.id) {
          readTestSoon();
        }
      })),
      live.on("change", readSourceSoon),
      live.on("agent", (messages) => messages.forEach(({ data }) => {
        if (data.id === test.agent.id) {
          agent = { ...agent, ...data };
          showGone();
        }
      })),
      live.on("lost", readAgain), live.onFirstLive(readAgain), live.onState(({ state: now }) => {
        if (now === "live" && hasMissed) {
          readAgain();
        }
      }));
  }

  function readAgain() {
    hasMissed = false;
    readTestSoon();
    readAgentSoon();
    readSeriesSoon();
    readResultsSoon();
    readEvents();
    readSourceSoon();
  }

  /* ---- all of it ---- */

  async function begin() {
    try {
      await busy(readTest(), place, "Reading the test");
    } catch (problem) {
      if (isOpen) {
        const what = problem.status === 404
          ? emptyState("There is no such test",
            "It may have expired with its results. Tests are found by their agents.",
            h("a", { class: "button", href: to("now"), text: "All agents" }))
          : failure(problem, () => {
            what.remove();
            begin();
          });
        place.append(what);
      }
      return;
    }
    if (!isOpen) {
      return;
    }
    all.hidden = false;
    showTools();
    listen();
    readAgent().catch(() => {
      hasMissed = true;
    });
    showSeries();
    /* Headings at once, and what takes long says so. */
    for (const [panel, name, text, read] of [[results, "test-results", "Results", readResults],
      [events, "test-events", "Events", readEvents],
      [source, "test-source", "In the fleet file", readSource]]) {
      const status = h("div");
      headed(panel, name, text, status);
      busy(read(), status, "Reading");
    }
  }

  begin();

  return {
    update(next) {
      const old = range;
      const was = query;
      query = new Map(next.query);
      range = rangeIn(query, usual);
      if (before.length > 0 && addressOf(before.at(-1)) === addressOf(query)) {
        before.pop(); /* the browser went back */
      } else if (!isGoingBack && ["from", "to", "range"].some((name) => was.get(name) !== query.get(name))) {
        before.push(was);
      }
      isGoingBack = false;
      if (!test) {
        return;
      }
      showTools();
      showSeries();
      if (old.range === null || range.range === null) {
        resultsTable = null;
        readResults();
      }
    },
    close() {
      isOpen = false;
      for (const each of stops) {
        each();
      }
      for (const chart of charts.values()) {
        chart.close();
      }
      charts = new Map();
    },
  };
}
