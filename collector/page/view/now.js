/* What is wrong now, the worst first; then all agents as tiles; and where one types, agents and
 * tests that are like it. Two requests fill it, the stream goes on from there. Thousands of rows are
 * made in slices, and those that stay the same are not touched. */
import { to } from "../base/address.js";
import { byTest, stateRank } from "../base/order.js";
import { grouped, readProblems as problemsOf } from "../base/problems.js";
import { testQueries } from "../base/search.js";
import { clean, oneLine, plural, stateWord, whole } from "../base/text.js";
import { announce, fill, h, keyed } from "../dom.js";
import { agentLink, badge, busy, emptyState, failure, message, notWhole, silence, testLink, timeElement }
  from "../parts.js";

const mostProblems = 3000, mostShown = 1000;
const groupedFrom = 20, groupedUntil = 10; /* problems; not back and forth with one of them */
const mostFound = 100, showEachMs = 300, typedMs = 200, foundSaidMs = 1000;
const newSaidEachMs = 5000, againMs = 1000, againEachMs = 5000, mostAskedOne = 10, onceLiveMs = 1500;
const states = ["problem", "silent", "unknown", "ok"];

const wordsOf = (text) => text.trim().toLowerCase().split(/\s+/).filter(Boolean);

function hasWords(words, ...texts) {
  const all = texts.map((text) => text ?? "").join(" ").toLowerCase();
  return words.every((word) => all.includes(word));
}

/* ---- pieces ---- */

const versions = new WeakMap(); /* of elements: what they show */
const objects = new WeakMap();  /* and of what: the model replaces an object that changes */

/* Of a test or of an agent that is silent. */
const keyOf = (item) => `${item.kind} ${item.like ?? item.of.id}`;
const versionOf = ({ kind, of }) => [kind, of.state, of.stale, of.since, of.name, of.target, of.message,
  of.last_poll, of.agent?.name].join("\n");

function fillProblem(element, { kind, of }) {
  const state = stateWord(of);
  element.dataset.state = state;
  const since = of.since && state !== "ok"
    ? h("div", { class: "problem-since" }, "for ", timeElement(of.since, { as: "since" })) : null;
  if (kind === "agent") {
    fill(element,
      h("div", { class: "problem-title" }, badge(state), agentLink(of)),
      since,
      h("div", { class: "problem-where" }, silence(of)));
    return;
  }
  const target = of.target && of.target !== of.name ? ` · ${oneLine(of.target, 200)}` : "";
  const said = state !== "ok" && of.message ? of.message : "";
  fill(element,
    h("div", { class: "problem-title" }, badge(state), testLink(of)),
    since,
    h("div", { class: "problem-where" }, "on ", agentLink(of.agent), ` · ${clean(of.type)}`, target),
    said ? h("div", { class: "problem-message" }, message(said)) : null);
}

/* Those of a group are made when somebody unfolds them. */
const groups = new WeakMap(); /* of elements: {item, list, ...} */

function makeGroup(item) {
  const { of, items: [first] } = item, state = stateWord(of);
  const count = h("span", { class: "text" }), since = h("span"), list = h("ol", { class: "problems" });
  const details = h("details", { on: { toggle: () => updateGroup(element, groups.get(element).item) } },
    h("summary", null,
      h("span", { class: "problem-title" }, badge(state), count),
      h("span", { class: "problem-where" }, first.kind === "agent" ? null : [clean(of.type), " · ",
        of.group ? `of ${oneLine(of.group, 100)} · ` : null], since)),
    list);
  const element = h("li", { class: "problem", data: { key: keyOf(item), state } }, details);
  groups.set(element, { details, count, since, list });
  updateGroup(element, item);
  return element;
}

function updateGroup(element, item) {
  const group = groups.get(element), { items, of } = item;
  const agents = plural(items.length, "agent");
  group.count.textContent = items[0].kind === "agent" ? agents : `${oneLine(of.name, 100)} on ${agents}`;
  if (group.item?.of.since !== of.since) {
    fill(group.since, "newest ", timeElement(of.since, { as: "ago" }));
  }
  group.item = item;
  return keyed(group.list, group.details.open ? items : [], keyOf, makeProblem, updateProblem);
}

function makeProblem(item) {
  if (item.kind === "group") {
    return makeGroup(item);
  }
  const element = h("li", { class: "problem", data: { key: keyOf(item) } });
  objects.set(element, item.of);
  versions.set(element, versionOf(item));
  fillProblem(element, item);
  return element;
}

function updateProblem(element, item) {
  if (item.kind === "group") {
    updateGroup(element, item);
    return;
  }
  if (objects.get(element) === item.of) {
    return;
  }
  objects.set(element, item.of);
  const version = versionOf(item);
  if (versions.get(element) !== version) {
    versions.set(element, version);
    fillProblem(element, item);
  }
}

const tileVersion = ({ state, stale, name, tests }) =>
  `${state} ${stale ?? ""} ${tests?.ok} ${tests?.problem} ${tests?.unknown} ${name}`;

/* The word of the state is left to the sentence where that has it. */
function tileNote({ tests }, state) {
  const { ok = 0, problem = 0, unknown = 0 } = tests ?? {};
  const all = plural(ok + problem + unknown, "test");
  const bad = state === "silent" ? "" : [problem > 0 ? plural(problem, "problem") : "",
    unknown > 0 ? `${unknown} unknown` : ""].filter(Boolean).join(", ");
  return [badge(state, { hidden: bad.includes(state) }), h("span", { text: bad ? `${bad} of ${all}` : all })];
}

function makeTile(agent) {
  const state = stateWord(agent);
  const element = h("li", { data: { key: agent.id } },
    h("a", { class: "tile", href: to("agent", { id: agent.id }), data: { state },
      title: clean(`${agent.account}/${agent.name}`) },
    h("span", { class: "tile-name" }), h("span", { class: "tile-note" })));
  updateTile(element, agent);
  return element;
}

function updateTile(element, agent) {
  if (objects.get(element) === agent) {
    return;
  }
  objects.set(element, agent);
  const version = tileVersion(agent);
  if (versions.get(element) === version) {
    return;
  }
  versions.set(element, version);
  const state = stateWord(agent), tile = element.firstChild;
  tile.dataset.state = state;
  tile.firstChild.textContent = clean(agent.name) || "(no name)";
  fill(tile.lastChild, tileNote(agent, state));
}

export const title = () => "Now";

export async function open(place, params, context) {
  const { api, live, model, me, go } = context;
  const leaving = new AbortController();
  const { signal } = leaving;
  const isOver = () => signal.aborted;
  let hasAgents = model.agents.size > 0, hasTests = hasAgents;
  let left = false; /* more problems than are shown */
  let isGrouped = false;
  let chosen = null; /* a state: only tiles of it */

  const lead = h("p", { class: "lead" }), status = h("div"), notAll = h("div");
  const noProblems = h("div"), problems = h("ol", { class: "problems" });
  const moreProblems = h("p", { class: "more note", hidden: true });
  const problemsHeading = h("h2", { id: "now-problems", text: "What is wrong" });
  const counts = h("ul", { class: "counts" }), noAgents = h("div"), tiles = h("ul", { class: "tiles" });
  const agentsHeading = h("h2", { id: "now-agents", tabindex: "-1", text: "Agents" });

  /* ---- what is wrong ---- */

  const itemOf = (entry) => ({ kind: entry.kind, of: entry[entry.kind] });

  function showProblems() {
    const all = model.worstFirst().map(itemOf);
    const ofAll = `${whole(all.length)}${left ? " and more" : ""}`;
    problemsHeading.textContent = all.length === 0 ? "What is wrong"
      : `What is wrong (${ofAll})`;
    fill(noProblems, all.length > 0 || !hasTests || !hasAgents || model.agents.size === 0 ? null
      : h("p", { class: "row" }, badge("ok", { text: "All is well" }),
        "No test is a problem, and no agent is silent. What goes wrong appears here by itself."));
    isGrouped = all.length > (isGrouped ? groupedUntil : groupedFrom);
    const shown = isGrouped ? grouped(all) : all;
    const isCut = shown.length > mostShown;
    fill(moreProblems, isCut ? `The first ${whole(mostShown)} of ${ofAll}. `
      : "There are more tests that are not ok. ", "All of an agent stand on its own screen.");
    moreProblems.hidden = !left && !isCut;
    problems.hidden = all.length === 0;
    problemsSection.hidden = hasAgents && model.agents.size === 0 && all.length === 0;
    return keyed(problems, isCut ? shown.slice(0, mostShown) : shown, keyOf, makeProblem, updateProblem);
  }

  /* ---- agents ---- */

  const countButtons = new Map(states.map((state) => [state, { number: h("b", { text: "0" }) }]));
  for (const [state, it] of countButtons) {
    it.button = h("button", { type: "button", class: "count", aria: { pressed: "false" }, on: { click: () => {
      chosen = chosen === state ? null : state;
      showAgents();
    } } }, badge(state), it.number);
    it.item = h("li", null, it.button);
    counts.append(it.item);
  }
  counts.setAttribute("aria-label", "Agents by state; each shows those of one");

  function showAgents() {
    const now = model.counts();
    const total = model.agents.size;
    if (chosen && !(now[chosen] > 0)) {
      chosen = null;
    }
    for (const [state, { button, number: count, item }] of countButtons) {
      count.textContent = whole(now[state] ?? 0);
      item.hidden = !(now[state] > 0);
      button.setAttribute("aria-pressed", String(chosen === state));
    }
    counts.hidden = total === 0;
    agentsHeading.textContent = total > 0 ? plural(total, "agent") : "Agents";
    showLead(hasAgents && total > 0 ? leadText(now, total) : "", plural(total, "agent"));
    fill(noAgents, !hasAgents || total > 0 ? null : emptyState("No agent has reported yet",
      h("p", null, "Install the agent on a host and have it poll this collector. ", me?.role === "admin"
        ? "The command that does so for one host is made under Admission; hosts that ask by themselves wait "
        + "there, too."
        : "Who has the role admin makes the command for a host, under Admission.",
      " It appears here by itself."),
      ...(me?.role === "admin"
        ? [h("a", { class: "button primary", href: to("admission"), text: "Have a host report" })] : [])));
    const all = model.sortedAgents("state");
    return keyed(tiles, chosen ? all.filter((agent) => agent.state === chosen) : all, (agent) => agent.id,
      makeTile, updateTile);
  }

  /* With a way to the agents, which may stand below many problems. */
  function showLead(text, agents) {
    const [before, after] = text.split(agents);
    if (lead.textContent === text) { /* somebody may be about to click */
      return;
    }
    fill(lead, before, after && h("a", { href: "#now-agents", data: { key: "agents" }, text: agents, on: {
      click: (event) => {
        event.preventDefault();
        agentsHeading.focus();
      } } }), after);
  }

  function leadText(now, total) {
    const are = (state) => `${whole(now[state])} ${now[state] === 1 ? "is" : "are"} ${state}`;
    const have = now.problem === 1 ? "has problems" : "have problems";
    const parts = [now.problem > 0 ? `${whole(now.problem)} ${have}` : "",
      now.silent > 0 ? are("silent") : "", now.unknown > 0 ? are("unknown") : ""].filter(Boolean);
    const [alone] = states.filter((state) => now[state] > 0);
    return total === 1 ? `The agent ${alone === "problem" ? "has a problem" : `is ${alone}`}.`
      : parts.length === 0 ? `All ${whole(total)} agents are ok.`
      : `Of ${plural(total, "agent")} ${(now.ok > 0 ? [...parts, are("ok")] : parts).join(", ")}.`;
  }

  /* ---- search ---- */

  const q = h("input", { id: "now-q", type: "search", autocomplete: "off", autocapitalize: "none",
    spellcheck: "false", placeholder: "Name, target, group, address" });
  const foundStatus = h("div"), noneFound = h("div"), moreFound = h("p", { class: "note" });
  const foundTiles = h("ul", { class: "tiles" }), foundTests = h("ol", { class: "problems" });
  const foundHeading = h("h2", { id: "now-found", text: "Found" });
  let words = [], asking = null, typing = 0, saying = 0;
  let found = new Map(); /* tests that the collector found, by id */
  let foundAll = true, hits = [];

  const isLike = ({ name, target, type, group, agent }) => {
    const { address, groups = [] } = model.agents.get(agent.id) ?? {};
    return hasWords(words, name, target, type, group, agent.name, agent.account, address, ...groups);
  };

  function showFound() {
    const { agents, tests } = model.search(words);
    /* What is known by the stream is newer than what was found. */
    const all = new Map([...[...found.values()].filter(isLike), ...tests].map((test) => [test.id, test]));
    const sorted = [...all.values()].sort((a, b) => stateRank(a.state) - stateRank(b.state) || byTest(a, b));
    hits = [...agents.map((of) => to("agent", { id: of.id })),
      ...sorted.map((of) => to("test", { id: of.id }))];
    const more = !foundAll || sorted.length > mostFound;
    foundHeading.textContent = `${plural(agents.length, "agent")}, ${more ? `${mostFound} tests and more`
      : plural(sorted.length, "test")}`;
    fill(noneFound, hits.length > 0 || asking ? null : emptyState("Nothing is like that",
      "Names, targets, types and groups of tests and agents are searched, and agents' addresses: fewer "
        + "letters find more."));
    fill(moreFound, more ? "There are more tests like that: type more of the name." : null);
    moreFound.hidden = !more;
    foundTiles.hidden = agents.length === 0;
    foundTests.hidden = sorted.length === 0;
    keyed(foundTiles, agents, (agent) => agent.id, makeTile, updateTile);
    return keyed(foundTests, sorted.slice(0, mostFound).map((of) => ({ kind: "test", of })), keyOf,
      makeProblem, updateProblem);
  }

  async function askForTests() {
    asking?.abort();
    const mine = asking = new AbortController();
    fill(foundStatus);
    try {
      const items = [];
      let isAll = true;
      /* The collector looks for one text; the other words are looked for here. */
      for (const query of testQueries(words, [...model.agents.values()])) {
        let next = null;
        for (let pages = 0; pages < 3 && items.length < mostFound; pages++) {
          const answer = await api.get("/api/v1/tests",
            { signal: mine.signal, query: { ...query, limit: 300, next } });
          items.push(...answer.items.filter(isLike));
          next = answer.next;
          if (next === null) {
            break;
          }
        }
        isAll &&= next === null;
      }
      if (asking === mine) {
        asking = null;
        found = new Map(items.map((test) => [test.id, test]));
        foundAll = isAll && items.length < mostFound;
        showFound();
        clearTimeout(saying);
        saying = setTimeout(() => announce(hits.length === 0 ? "Nothing found."
          : `Found ${foundHeading.textContent}.`), foundSaidMs);
      }
    } catch (problem) {
      if (asking === mine && !isOver()) {
        asking = null;
        fill(foundStatus, failure(problem, () => askForTests()));
      }
    }
  }

  function search(text) {
    words = wordsOf(text);
    const isSearch = words.length > 0;
    foundSection.hidden = !isSearch;
    nowSections.hidden = isSearch;
    if (isSearch) {
      found = new Map([...found].filter(([, test]) => isLike(test)));
      busy(askForTests(), foundStatus, "Searching");
      showFound();
    } else {
      clearTimeout(saying);
      asking?.abort();
      asking = null;
      found = new Map();
      changed.agents = changed.tests = true;
      show();
    }
  }

  function typed() {
    clearTimeout(typing);
    const text = q.value.trim();
    if (wordsOf(text).join(" ") !== words.join(" ")) {
      search(text);
      go(to("now", { query: { q: text } }), { replace: true });
    }
  }

  const form = h("form", { role: "search", class: "filters", aria: { label: "Agents and tests" }, on: {
    submit: (event) => {
      event.preventDefault();
      typed();
      if (!asking && hits.length === 1) {
        go(hits[0]);
      }
    },
    input: () => {
      clearTimeout(typing);
      typing = setTimeout(typed, typedMs);
    },
  } }, h("div", { class: "field wide" }, h("label", { for: "now-q", text: "Search agents and tests" }), q));

  /* ---- live ---- */

  const changed = { agents: false, tests: false };
  let showing = 0, newOnes = [], wellOnes = [], newSaidAt = 0, newTimer = 0;

  function show() {
    clearTimeout(showing);
    showing = 0;
    const { agents, tests } = changed;
    changed.agents = changed.tests = false;
    if (words.length > 0) {
      return showFound();
    }
    return Promise.all([agents ? showAgents() : null, agents || tests ? showProblems() : null]);
  }

  function showSoon() {
    showing ||= setTimeout(show, showEachMs);
  }

  function sayNew() {
    clearTimeout(newTimer);
    const wait = newSaidAt + newSaidEachMs - Date.now();
    if (wait > 0) {
      newTimer = setTimeout(sayNew, wait);
      return;
    }
    newSaidAt = Date.now();
    const said = (ones, what) => (ones.length > 1 ? `${ones.length} ${what}.` : ones[0] ?? "");
    announce(`${said(newOnes, "new problems")} ${said(wellOnes, "are ok again")}`.trim());
    newOnes = [];
    wellOnes = [];
  }

  function take(messages) {
    for (const each of messages) {
      if (each.kind === "lost") {
        readAgain();
        continue;
      }
      const other = model.takeMessage(each);
      changed.agents ||= other.agents.size > 0;
      changed.tests ||= other.tests.size > 0;
      other.again.forEach((id) => again.add(id));
      const { data } = each;
      if (each.kind === "event") {
        const test = data.test ? found.get(data.test.id) : null;
        if (test) {
          found.set(test.id, { ...test, state: data.to, stale: data.stale, since: data.time,
            message: data.message });
          changed.tests = true;
        }
        const isNews = other.agents.size > 0 || other.tests.size > 0;
        const name = clean(data.agent.name), what = data.test ? `${clean(data.test.name)} on ${name}` : name;
        if (isNews && data.from === "silent") {
          wellOnes.push(`${name} polls again.`);
        } else if (isNews && (data.to === "problem" || data.to === "silent")) {
          newOnes.push(`${what} is ${data.to === "problem" ? "a problem" : "silent"}.`);
        } else if (isNews && data.test && data.to === "ok" && data.from !== "ok") {
          wellOnes.push(`${what} is ok again.`);
        }
      }
    }
    if (changed.agents || changed.tests) {
      showSoon();
    }
    if (newOnes.length + wellOnes.length > 0) {
      sayNew();
    }
    askAgainSoon();
  }

  /* Agents of whose tests the stream did not say everything, as of those that are back from silence. */
  const again = new Set();
  let againTimer = 0;

  function askAgainSoon() {
    if (again.size > 0) {
      againTimer ||= setTimeout(askAgain, againMs);
    }
  }

  async function askAgain() {
    const ids = [...again];
    again.clear();
    try {
      if (ids.length > mostAskedOne) {
        await readProblems();
        return;
      }
      for (const id of ids) {
        const items = await api.pages("/api/v1/tests", { agent: id, state: "problem,stale" }, { signal });
        const { tests } = model.setProblemsOf(id, items);
        changed.tests ||= tests.size > 0;
      }
      if (!isOver() && changed.tests) {
        showSoon();
      }
    } catch {
      ids.forEach((id) => again.add(id));
    } finally {
      againTimer = isOver() ? 0 : setTimeout(() => {
        if (again.size > 0) {
          askAgain();
        } else {
          againTimer = 0;
        }
      }, againEachMs);
    }
  }

  /* ---- reading ---- */

  const why = { agents: null, problems: null }; /* not all could be read */

  async function readAgents() {
    const isFirst = !hasAgents;
    const all = await api.pages("/api/v1/agents", {}, { limit: 1000, signal, onPage: (items, { next }) => {
      if (isFirst && next && !isOver()) {
        model.addAgents(items);
        changed.agents = true;
        showSoon();
      }
    } });
    if (isOver()) {
      return;
    }
    why.agents = all.incomplete;
    fill(notAll, notWhole(why.agents ?? why.problems));
    model.setAgents(all);
    hasAgents = changed.agents = true;
    if (isFirst && words.length > 0) { /* their groups and addresses say what to ask for */
      askForTests();
    }
    await show();
  }

  async function readProblems() {
    const ask = (query) => api.get("/api/v1/tests", { query, signal });
    const { items, isMore, incomplete } = await problemsOf(ask, mostProblems);
    if (isOver()) {
      return;
    }
    left = isMore;
    why.problems = incomplete;
    fill(notAll, notWhole(why.agents ?? why.problems));
    model.setProblems(items, { isMore }).again.forEach((id) => again.add(id));
    askAgainSoon();
    hasTests = changed.tests = true;
    await show();
  }

  let reading = false, isAgain = false;

  async function load() {
    if (reading) {
      isAgain = true;
      return;
    }
    fill(status);
    reading = true;
    try {
      await busy(Promise.all([readAgents(), readProblems()]), status, "Loading agents and what is wrong");
    } catch (problem) {
      if (!isOver()) {
        fill(status, failure(problem, load));
      }
    } finally {
      reading = false;
      if (isAgain && !isOver()) {
        isAgain = false;
        load();
      }
    }
  }

  /* What was heard before counts no more. */
  function readAgain() {
    model.takeMessage({ kind: "lost", data: {} });
    load();
  }

  const offs = [live.on("*", take), live.onFirstLive(readAgain, onceLiveMs)];

  /* ---- the screen ---- */

  const problemsSection = h("section", { class: "stack tight", aria: { labelledby: "now-problems" } },
    problemsHeading, noProblems, problems, moreProblems);
  const nowSections = h("div", { class: "stack" }, problemsSection,
    h("section", { class: "stack tight", aria: { labelledby: "now-agents" } }, agentsHeading, counts,
      noAgents, tiles));
  const foundSection = h("section", { class: "stack tight", hidden: true, aria: { labelledby: "now-found" } },
    foundHeading, foundStatus, noneFound, foundTiles, foundTests, moreFound);
  fill(place,
    h("header", { class: "head" }, h("h1", { tabindex: "-1", text: "Now" }), lead),
    h("div", { class: "stack" }, form, status, notAll, nowSections, foundSection));
  if (hasAgents) { /* what was known when this was left, until it is read again */
    changed.agents = changed.tests = true;
    show();
  }
  const update = (now) => {
    const text = now.query?.get("q") ?? "";
    if (wordsOf(text).join(" ") !== words.join(" ")) {
      q.value = text;
      search(text);
    }
  };
  update(params);
  readAgain();

  return {
    update,
    close() {
      leaving.abort();
      asking?.abort();
      [showing, typing, saying, newTimer, againTimer].forEach((timer) => clearTimeout(timer));
      offs.forEach((off) => off());
    },
  };
}
