/* An agent: its tests with small curves, what it is, what of the last day is missing, what happened,
 * what it found on its host. Curves are asked for as they come into view, a few at a time. States
 * change by events and values by results: a late result may say another state than the test has. */
import { to } from "../base/address.js";
import { Heard } from "../base/heard.js";
import { byState, byTest, newestFirst } from "../base/order.js";
import { Polls } from "../base/polls.js";
import { firstValue, valueLabel, valueNames } from "../base/series.js";
import { sparkPath } from "../base/spark.js";
import {
  apiTime, clean, clock, clockSeconds, exact, exactNumber, isNoLongerPlanned, now, number, oneLine, plural, stateWord,
  whole,
} from "../base/text.js";
import { announce, fill, h, inFrames, keyed, svg, throttle } from "../dom.js";
import { badge, busy, confirm, emptyState, eventItem, fact, failure, message, notWhole, setBadge, setTime,
  silence, testLink, timeElement } from "../parts.js";

const curveS = 5 * 3600, curvePoints = 300, youngPoints = 1800, curvesAtOnce = 3, rateAgainMs = 60000,
  onceLiveMs = 1500, curvesAgainMs = 10000;
const curveWidth = 128, curveHeight = 32;
const mostOthers = 4, mostEvents = 10, mostItems = 200, findFrom = 12;
const mostPolled = 20, resultsOfEach = 20; /* tests whose results say when polls came */
const wholeAtOnce = 40, orderEachMs = 500; /* of rows */
const mostOfNumber = 15, mostUnwrapped = 30; /* letters */
const hourMs = 3600000, dayHours = 24;

const identities = {
  proven: "proven: it has shown its certificate",
  known: "admitted, without a certificate yet",
  waiting: "waits to be admitted",
  invited: "invited: its token has not been used",
  revoked: "revoked: it is let in no more",
  unknown: "nobody has decided anything",
};

const isNumber = (value) => typeof value === "number" && Number.isFinite(value);
/* What is no longer stays in one line. */
const wrapOf = (text, most) => (text.length < most ? "number" : "text");
const seconds = (iso) => Date.parse(iso) / 1000;
/* Without marks. */
function plainList(...items) {
  const list = h("ul", { class: "stack tight", role: "list" }, items);
  list.style.listStyle = "none";
  return list;
}

/* ---- small curves ---- */

/* One value of a test as equal steps of time; what comes live goes on from there. */
class Curve {
  constructor(type, series) {
    this.name = firstValue(type, valueNames(series));
    const value = series.values[this.name];
    this.unit = value?.unit ?? "";
    this.resolution = series.resolution;
    this.readAt = Date.now();
    this.points = value ? series.time.map((time, i) => ({ time: seconds(time), value: value.mean[i],
      count: Math.max(series.count[i], 1) })) : [];
  }

  /* A rate is of two results, and the stream has one. */
  isRateOf(value) {
    return this.unit.endsWith("/s") && !value.unit.endsWith("/s");
  }

  add(time, value) {
    const last = this.points.at(-1);
    if (last && time < last.time + this.resolution) {
      if (time >= last.time && isNumber(value)) {
        last.value = isNumber(last.value) ? (last.value * last.count + value) / (last.count + 1) : value;
        last.count++;
      }
    } else if (!last || time > last.time) {
      const starts = this.resolution > 0 ? Math.floor(time / this.resolution) * this.resolution : time;
      this.points.push({ time: starts, value, count: 1 });
      while (this.points.length > youngPoints || this.points[0].time < time - curveS - this.resolution) {
        this.points.shift();
      }
    }
  }

  drawInto(element, label) {
    const values = this.points.map((point) => point.value);
    const { path, area, gaps } = sparkPath(values, curveWidth, curveHeight);
    const middle = curveHeight / 2;
    const known = values.filter(isNumber);
    fill(element,
      area ? svg("path", { class: "spark-area", d: area }) : null,
      gaps.length > 0 ? svg("path", { class: "spark-gap",
        d: gaps.map((gap) => `M${gap.from.toFixed(1)} ${middle}H${gap.to.toFixed(1)}`).join("") }) : null,
      path ? svg("path", { class: "spark-line", d: path }) : null);
    element.setAttribute("aria-label", known.length === 0 ? `${label}: no values in the last hours`
      : `${label} in the last hours: lowest ${number(Math.min(...known), this.unit)}, highest `
        + `${number(Math.max(...known), this.unit)}`);
  }
}

export const title = (params) => `Agent ${clean(params?.id ?? "")}`.trim();

export async function open(place, params, context) {
  const { api, live, me, go } = context;
  const leaving = new AbortController();
  const { signal } = leaving;
  const called = String(params.id);
  const own = `/api/v1/agents/${encodeURIComponent(called)}`;
  const mayOperate = me?.role === "operator" || me?.role === "admin";
  let agent = null, standing = null, tests = new Map(), events = [];
  const offs = [];

  const isOver = () => signal.aborted;

  /* A part of the screen that is read by itself: one that fails leaves the others. */
  async function part(status, what, read, show) {
    fill(status);
    try {
      const found = await busy(read(), status, `Loading ${what}`);
      if (!isOver()) {
        await show(found);
      }
    } catch (problem) {
      if (!isOver()) {
        fill(status, problem?.status === 404 && !agent ? notHere()
          : failure(problem, () => part(status, what, read, show)));
      }
    }
  }

  const notHere = () => h("div", { role: "alert" },
    emptyState("This agent is not here any more, or never was",
      "What a retired agent reported is kept for a time; or the address was cut.",
      h("a", { class: "button", href: to("now"), text: "All agents" })));

  /* ---- what it is ---- */

  const heading = h("h1", { tabindex: "-1", class: "text", text: "Agent" });
  const crumb = h("li", { aria: { current: "page" }, text: "Agent" });
  const lead = h("div", { class: "row" }), facts = h("dl", { class: "facts" });
  const silent = h("p"), headStatus = h("div"), doneStatus = h("div");
  const lastPoll = h("dd");
  let pollTime = null;

  function certificateText() {
    const certificate = standing?.certificate;
    if (!certificate || standing.revoked) {
      return null;
    }
    return fact("Certificate", Date.parse(certificate.ends) > now() ? "until " : "ended ",
      timeElement(certificate.ends),
      certificate.ends_soon ? h("p", { class: "note", text: "It should have been renewed: is "
        + "vindral-enrol.timer running on the host?" }) : null);
  }

  function showAgent() {
    const name = clean(agent.name) || "(no name)";
    if (heading.textContent !== name) {
      heading.textContent = name;
      crumb.textContent = name;
    }
    const state = stateWord(agent);
    const { ok, problem } = agent.tests;
    const gone = goneTests();
    const unknown = Math.max(agent.tests.unknown - gone, 0);
    const counts = [problem > 0 ? plural(problem, "problem") : "", unknown > 0 ? `${unknown} unknown` : "",
      ok > 0 ? `${ok} ok` : "", gone > 0 ? `${gone} no longer planned` : ""].filter(Boolean).join(", ");
    fill(lead, agent.retired ? null : [badge(state), agent.since ? h("span", null, "for ",
      timeElement(agent.since, { as: "since" })) : null],
    h("span", { class: "note", text: plural(ok + problem + unknown, "test") + (counts && `: ${counts}`) }));
    fill(silent, isSilent() ? [silence(agent), " What stands here is from before."] : null);
    silent.hidden = !isSilent();
    list.classList.toggle("past", isSilent());
    fill(lastPoll, pollTime ?? "never");
    fill(facts,
      agent.retired ? fact("Retired", timeElement(agent.retired),
        h("p", { class: "note", text: "It is in no list any more. What it reported can be read until it "
        + "expires; when it polls again it begins anew." })) : null,
      h("dt", { text: "Last poll" }), lastPoll,
      fact("First poll", timeElement(agent.first_poll)),
      fact("Address", clean(agent.address ?? "–")),
      fact("Version", clean(agent.version ?? "–")),
      fact("Account", clean(agent.account)),
      fact("Groups", agent.groups.length > 0 ? agent.groups.map((group, i) => [i > 0 ? ", " : "",
        h("a", { class: "text", href: to("events", { query: { group } }), title: "Events of this group",
          text: clean(group) })])
        : "none"),
      fact("Identity", identities[agent.identity] ?? clean(agent.identity)),
      certificateText());
    for (const button of [checkButton, retireButton]) {
      button.disabled = Boolean(agent.retired);
    }
  }

  function polledAt(iso) {
    if (!iso) {
      return;
    }
    if (!agent.last_poll || iso > agent.last_poll) {
      agent.last_poll = iso;
    }
    if (pollTime) {
      setTime(pollTime, agent.last_poll);
    } else {
      pollTime = timeElement(agent.last_poll, { as: "ago" });
      fill(lastPoll, pollTime);
    }
  }

  let agentAsked = 0, agentSaid = -1; /* by the stream: after which question */

  async function readAgent() {
    const mine = ++agentAsked;
    const found = await api.get(own, { signal });
    const was = agent;
    agent = found;
    if (agentSaid >= mine) {
      const { state, stale, since, tests: counts, retired } = was;
      Object.assign(agent, { state, stale, since, tests: counts, retired });
    }
    if (was && was.last_poll > agent.last_poll) {
      agent.last_poll = was.last_poll;
    }
    polledAt(agent.last_poll);
    return found;
  }

  async function readStanding() {
    try {
      standing = await api.get(`${own}/enrolment`, { signal });
      if (agent && !isOver()) {
        showAgent();
      }
    } catch { /* the rest is of use without it */ }
  }

  /* ---- what can be done ---- */

  const checkButton = h("button", { type: "button", text: "Check now", on: { click: checkNow } });
  const retireButton = h("button", { type: "button", class: "danger", text: "Retire",
    on: { click: retire } });
  const actions = h("div", { class: "actions", hidden: true }, checkButton, retireButton);

  async function checkNow() {
    if (checkButton.getAttribute("aria-disabled") === "true") {
      return;
    }
    checkButton.setAttribute("aria-disabled", "true"); /* keeps the focus */
    try {
      await busy(api.post(`/api/v1/agents/${agent.id}/check`), doneStatus, "Telling the agent");
      const said = "It is told with its next poll to do all tests; the results come with the poll after "
        + "that.";
      fill(doneStatus, h("p", { class: "note", text: said }));
      announce(said);
    } catch (problem) {
      if (!isOver()) {
        fill(doneStatus, failure(problem));
      }
    } finally {
      setTimeout(() => checkButton.removeAttribute("aria-disabled"), 3000);
    }
  }

  async function retire() {
    const name = clean(agent.name);
    const done = await confirm({ title: `Retire ${name}?`, action: "Retire", danger: true,
      body: "It is in no list any more and silent to nobody. What it reported stays until it expires. If it "
        + "polls again it begins anew; that it may not any more is up to Admission.",
      run: () => api.del(`/api/v1/agents/${agent.id}`) });
    if (done) {
      announce(`${name} is retired.`);
      go(to("now"));
    }
  }

  /* ---- tests ---- */

  const testStatus = h("div"), notAll = h("div"), noTests = h("div"), list = h("ul", { class: "sparks" });
  const testsHeading = h("h2", { id: "agent-tests", text: "Tests" });
  const find = h("input", { id: "agent-find", type: "search", autocomplete: "off", spellcheck: "false" });
  const findField = h("div", { class: "field", hidden: true },
    h("label", { for: "agent-find", text: "Part of a name, a type or a target" }), find);
  const items = new Map(); /* by the id of the test */
  let order = new Map(); /* by name */
  find.addEventListener("input", () => showTests());

  function label(test, name) {
    return valueLabel(test.definition, name);
  }

  function mainValue(test) {
    const item = items.get(test.id);
    const names = Object.keys(test.values ?? {}).filter((name) => test.values[name]?.value !== null);
    const name = item?.curve?.name && test.values[item.curve.name] ? item.curve.name
      : firstValue(test.type, names);
    return name ?? names[0] ?? null;
  }

  function makeTest(test) {
    const known = items.get(test.id); /* with its curve: it was filtered out */
    if (known) {
      mark(test.id);
      return known.element;
    }
    const item = { element: h("li", { class: "spark-item", data: { key: test.id, test: test.id } }),
      badge: badge(stateWord(test)), isOld: true, isSeen: false, isRead: false, isAsked: false, curve: null };
    item.name = h("div", { class: "spark-name" }, h("div", { class: "row" }, item.badge, testLink(test)));
    item.element.append(item.name);
    items.set(test.id, item);
    if (items.size <= wholeAtOnce) {
      updateTest(item.element, test);
    }
    seen.observe(item.element);
    return item.element;
  }

  /* The rest of a row, of which there may be thousands, is made when it comes into sight. */
  function completeTest(item, test) {
    Object.assign(item, {
      since: h("span", { class: "note" }),
      message: h("div"),
      others: h("p", { class: "note" }),
      value: h("b", { class: "number" }),
      valueName: h("span", { class: "note" }),
      time: h("span", { class: "note" }),
      curveElement: svg("svg", { class: "spark", viewBox: `0 0 ${curveWidth} ${curveHeight}`,
        preserveAspectRatio: "none", role: "img", "aria-label": "No curve yet" }),
      version: "", said: "",
    });
    item.name.firstChild.append(item.since);
    item.name.append(
      h("p", { class: "note", text: [test.type,
        test.target && test.target !== test.name ? oneLine(test.target, 200) : "",
        test.group ? `of ${oneLine(test.group, 100)}` : ""].filter(Boolean).join(" · ") }),
      item.message, item.others);
    item.element.append(item.curveElement,
      h("div", { class: "spark-value" }, item.value, " ", item.valueName, h("div", null, item.time)));
  }

  /* Rows in sight are brought up to date some in each frame, others when they come into sight. */
  const rows = inFrames((id) => {
    const item = items.get(id), test = tests.get(id);
    if (item?.isSeen && item.isOld && test) {
      updateTest(item.element, test);
      draw(item, test);
    }
  });

  function mark(id) {
    const item = items.get(id), test = tests.get(id);
    if (item && test) {
      item.isOld = true;
      setBadge(item.badge, stateWord(test));
      if (item.isSeen) {
        rows.add(id);
      }
    }
  }

  function updateTest(element, test) {
    const item = items.get(test.id);
    if (!item.curveElement) {
      completeTest(item, test);
    }
    item.isOld = false;
    const name = mainValue(test);
    const { time: newest, since, state: known, stale, message: text } = test;
    const isGone = isPlannedNoMore(test), wasBad = wasProblem(test);
    const version = [isNothing(test), isGone, wasBad, isSilent(), newest, since, known, stale, text, name]
      .join(" ");
    if (item.version === version) {
      return;
    }
    item.version = version;
    const state = stateWord(test);
    setBadge(item.badge, state);
    element.classList.toggle("past", isGone);
    fill(item.since, isGone ? ["no longer planned since ", timeElement(test.since)]
      : wasBad ? "was a problem"
      : state !== "ok" && test.since ? ["for ", timeElement(test.since, { as: "since" })] : null);
    const said = isGone || (isSilent() && !wasBad) ? ""
      : isNothing(test) ? "Nothing has come of it."
      : state !== "ok" && test.message ? test.message : "";
    if (item.said !== said) {
      item.said = said;
      fill(item.message, said ? message(said) : null);
    }
    const main = name === null ? null : test.values[name];
    item.value.textContent = main ? oneLine(number(main.value, main.unit), 80) : "";
    item.value.title = exactNumber(main?.value, main?.unit) ?? "";
    item.value.className = wrapOf(item.value.textContent, mostOfNumber);
    item.valueName.textContent = main ? label(test, name) : "";
    const others = Object.entries(test.values ?? {})
      .filter(([each, { value }]) => each !== name && value !== null).slice(0, mostOthers)
      .map(([each, { value, unit }]) => [`${label(test, each)} ${oneLine(number(value, unit), 80)}`,
        exactNumber(value, unit)]);
    fill(item.others, others.map(([text, title], i) => [i > 0 ? " · " : "",
      h("span", { class: wrapOf(text, mostUnwrapped), title, text })]));
    item.others.hidden = others.length === 0;
    const time = item.time.firstElementChild;
    if (time?.localName === "time" && test.time) {
      setTime(time, test.time);
    } else {
      fill(item.time, test.time ? timeElement(test.time, { as: "ago" }) : "no result yet");
    }
  }

  /* Of a silent agent all tests are unknown, until they are read after its silence. */
  let wasSilent = false;
  const isSilent = () => agent?.state === "silent" && !agent.retired;
  const isPlannedNoMore = (test) => !wasSilent && isNoLongerPlanned(test, agent);
  const goneTests = () => [...tests.values()].filter(isPlannedNoMore).length;

  /* Nothing has come of it yet, or not again since it is in no plan any more. */
  const isNothing = (test) => test.state === "unknown" && !test.stale && !wasSilent && !isSilent();

  /* As the silence began: what was unknown before has become so earlier. */
  const wasProblem = (test) => isSilent() && !test.stale && test.since >= agent.since &&
    (test.status ?? "ok") !== "ok";

  function showTests() {
    const part = find.value.trim().toLowerCase();
    const all = [...tests.values()];
    const found = all.filter((test) => !part || [test.name, test.type, test.target, test.group].some((text) =>
      (text ?? "").toLowerCase().includes(part)))
      .sort((a, b) => isPlannedNoMore(a) - isPlannedNoMore(b) || isNothing(a) - isNothing(b) || byState(a, b)
        || wasProblem(b) - wasProblem(a) || order.get(a.id) - order.get(b.id));
    const gone = goneTests();
    testsHeading.textContent = all.length === 0 ? "Tests"
      : plural(all.length - gone, "test") + (gone > 0 ? `, ${gone} no longer planned` : "");
    if (agent && gone !== goneShown) {
      goneShown = gone;
      showAgentSoon();
    }
    findField.hidden = all.length < findFrom && !part;
    fill(noTests, found.length > 0 ? null : all.length > 0 ? emptyState("No test is like that",
      "Take some of the text away.")
      : agent?.retired ? emptyState("It is retired", "Its tests are in no list any more. Each can still be "
      + "read by its own address, from the events below.")
      : emptyState("No test has reported yet", h("p", null, "What it is to do stands in the ",
        h("a", { href: to("fleet"), text: "fleet file" }), ". It is told with its next poll, and results "
          + "come in here by themselves.")));
    list.hidden = found.length === 0;
    return keyed(list, found, (test) => test.id, makeTest, (element, test) => mark(test.id));
  }

  let orderTimer = 0, goneShown = 0;
  function showTestsSoon() {
    orderTimer ||= setTimeout(() => {
      orderTimer = 0;
      showTests();
    }, orderEachMs);
  }

  const heard = new Heard();

  async function readTests() {
    const asked = heard.ask();
    const found = await api.pages("/api/v1/tests", { agent: called }, { limit: 1000, signal });
    const all = heard.answer(asked, found, tests);
    if (!all) {
      return;
    }
    order = new Map(all.slice().sort(byTest).map((test, i) => [test.id, i]));
    tests = new Map(all.map((test) => [test.id, test]));
    wasSilent = agent?.state === "silent";
    for (const id of items.keys()) {
      if (!tests.has(id)) {
        seen.unobserve(items.get(id).element);
        items.delete(id);
      }
    }
    fill(notAll, notWhole(found.incomplete));
  }

  /* ---- curves ---- */

  const wanted = new Set(); /* ids of tests whose curves are to be read, in the order they came into view */
  let reading = 0;
  const seen = new IntersectionObserver((entries) => {
    for (const { target, isIntersecting } of entries) {
      const item = items.get(Number(target.dataset.test));
      if (!item) {
        continue;
      }
      item.isSeen = isIntersecting;
      want(Number(target.dataset.test));
      if (isIntersecting && item.isOld) {
        rows.add(Number(target.dataset.test));
      }
    }
    readCurves();
  }, { rootMargin: "200px" });

  /* What is scrolled past is not read. */
  function want(id) {
    const item = items.get(id);
    if (item?.isSeen && !item.isRead && !item.isAsked) {
      wanted.add(id);
    } else {
      wanted.delete(id);
    }
  }

  let curvesTimer = 0;
  function wantSeen() {
    clearTimeout(curvesTimer);
    curvesTimer = 0;
    [...items.keys()].forEach(want);
    readCurves();
  }

  function readCurves() {
    while (reading < curvesAtOnce && wanted.size > 0 && !isOver()) {
      const [id] = wanted;
      wanted.delete(id);
      readCurve(id);
    }
  }

  async function readCurve(id) {
    const item = items.get(id), test = tests.get(id);
    if (!item || !test) {
      return;
    }
    reading++;
    item.isAsked = true;
    try {
      /* Of an agent that has just begun every result is shown. */
      const isYoung = agent?.first_poll && now() - Date.parse(agent.first_poll) < hourMs;
      const from = isYoung ? Date.parse(agent.first_poll) : now() - curveS * 1000;
      const series = await api.get(`/api/v1/tests/${id}/series`, { signal, query: {
        from: apiTime(from), points: isYoung ? youngPoints : curvePoints,
        rate: test.type === "snmp" ? 1 : null } });
      item.curve = new Curve(test.type, series);
      item.isRead = true;
      mark(id);
    } catch (problem) {
      if (!isOver()) {
        item.curveElement?.setAttribute("aria-label", "The curve could not be read");
        /* Asked for again when the collector is back, or well. */
        item.isRead = problem?.status > 0 && problem.status !== 429 && problem.status < 500;
        if (!item.isRead && live.state.state === "live") {
          curvesTimer ||= setTimeout(wantSeen, curvesAgainMs);
        }
      }
    } finally {
      item.isAsked = false;
      reading--;
      readCurves();
    }
  }

  function draw(item, test) {
    if (item.curve) {
      item.curve.drawInto(item.curveElement, item.curve.name ? label(test, item.curve.name) : "Values");
    }
  }

  /* ---- polls ---- */

  const polls = new Polls();
  const pollList = h("ol", { class: "stack tight", role: "list" }), pollNote = h("p", { class: "note" });
  pollList.style.listStyle = "none";
  let knowsBefore = false;

  const showPolls = throttle(() => {
    const all = polls.newest();
    fill(pollList, all.map(({ received, results }) => h("li", { class: "spread note" },
      h("time", { datetime: received, title: exact(received), text: clockSeconds(received) }),
      h("span", { text: plural(results, "result") }))));
    pollList.hidden = all.length === 0;
    pollNote.hidden = all.length > 0 && knowsBefore;
    pollNote.textContent = all.length > 0 ? "Those that came since this page was opened."
      : "The next one that brings results appears here.";
  });

  /* Of many tests that would be many requests: then those that come are listed. */
  async function readPolls() {
    polls.clear();
    knowsBefore = false;
    if (tests.size <= mostPolled) {
      const lists = [];
      for (const test of tests.keys()) {
        try {
          const { items: found, next } = await api.get(`/api/v1/tests/${test}/results`,
            { signal, query: { limit: resultsOfEach } });
          lists.push({ test, items: found, next });
        } catch { /* those that come are listed all the same */
          return;
        }
      }
      polls.addLists(lists);
      knowsBefore = true;
    }
    showPolls();
  }

  /* ---- the ledger ---- */

  const ledgerStatus = h("div"), ledger = h("div", { class: "stack tight" });

  function showLedger(hours) {
    const begin = Math.floor(now() / hourMs) * hourMs - (dayHours - 1) * hourMs;
    const sum = { expected: 0, missing: 0, repeated: 0 };
    for (const hour of hours) {
      sum.expected += hour.expected;
      sum.missing += hour.missing;
      sum.repeated += hour.repeated;
    }
    const inWords = (hour) => `${clock(hour.hour)}: ${hour.missing > 0
      ? `${whole(hour.missing)} of ${plural(hour.expected, "result")} missing`
      : `all of ${plural(hour.expected, "result")}`}`;
    const sentence = sum.expected === 0 ? "No result was expected in the last day."
      : sum.missing === 0 && sum.expected === 1 ? "The only result of the last day came."
      : sum.missing === 0 ? `All ${plural(sum.expected, "result")} of the last day came.`
      : `Of ${plural(sum.expected, "result")} of the last day ${whole(sum.missing)} `
        + `${sum.missing === 1 ? "is" : "are"} missing.`;
    const cells = hours.filter((hour) => hour.expected > 0 && Date.parse(hour.hour) >= begin).map((hour) =>
      svg("rect", { x: (Date.parse(hour.hour) - begin) / hourMs + 0.03, y: 0, width: 0.94, height: 1,
        "data-state": hour.missing > 0 ? "problem" : "ok" }, svg("title", null, inWords(hour))));
    const worst = hours.filter((hour) => hour.missing > 0);
    const most = 6;
    fill(ledger, h("p", { text: sentence }),
      svg("svg", { class: "strip", viewBox: `0 0 ${dayHours} 1`, preserveAspectRatio: "none", role: "img",
        "aria-label": `The last 24 hours. ${sentence}` }, cells),
      h("p", { class: "spread note" }, h("span", { title: exact(begin), text: clock(begin) }),
        h("span", { text: "now" })),
      worst.length > 0
        ? plainList(worst.slice(-most).map((hour) => h("li", { class: "note",
          title: exact(hour.hour), text: inWords(hour) }))) : null,
      worst.length > most
        ? h("p", { class: "note", text: `And ${plural(worst.length - most, "hour")} before.` }) : null,
      sum.missing > 0 ? h("p", { class: "note", text: "Missing is what was never measured or has not arrived "
        + "yet: an agent brings what it kept when it is back." }) : null,
      sum.repeated > 0
        ? h("p", { class: "note", text: `${plural(sum.repeated, "result")} came twice, which does no harm.` })
        : null);
  }

  const readLedger = () => api.pages("/api/v1/ledger", { agent: called }, { limit: 1000, signal });

  /* ---- events ---- */

  const eventStatus = h("div"), noEvents = h("div"), eventList = h("ol", { class: "timeline" });
  const allEvents = h("a", { href: to("events", { query: { agent: called } }),
    text: "All events of this agent" });

  const makeEvent = (event) =>
    eventItem(event, { what: event.test ? testLink(event.test) : "the agent itself" });

  function showEvents() {
    const byId = new Map(events.map((event) => [event.id, event]));
    events = [...byId.values()].sort((a, b) => newestFirst(a.time, b.time) || b.id - a.id)
      .slice(0, mostEvents);
    fill(noEvents, events.length > 0 ? null : h("p", { class: "note", text: "Nothing has changed its state "
      + "yet." }));
    return keyed(eventList, events, (event) => event.id, makeEvent);
  }

  async function readEvents() {
    const found = await api.get("/api/v1/events", { query: { agent: called, limit: mostEvents }, signal });
    events = [...events, ...found.items];
  }

  /* ---- the inventory ---- */

  const inventory = h("div", { class: "stack tight" });

  function showInventory() {
    const kinds = Object.entries(agent.inventories ?? {});
    fill(inventory, kinds.length === 0 ? h("p", { class: "note", text: "It has not said yet what its host "
      + "has. It does so with its first polls." }) : kinds.map(([kind, found]) => {
      const count = found.items.length + (found.left_out ?? 0);
      const content = h("div");
      /* Thousands of names of processes are made when somebody looks. */
      const show = (most) => fill(content,
        h("p", { class: "note" }, "Found ", timeElement(found.time), "."),
        plainList(found.items.slice(0, most).map((item) => h("li", { class: "mono text",
          text: oneLine(item, 500) }))),
        found.items.length > most ? h("p", { class: "more" }, h("button", { type: "button",
          text: `Show all ${found.items.length}`, on: { click: () => show(found.items.length) } })) : null,
        found.left_out && found.items.length <= most ? h("p", { class: "note",
          text: `And ${found.left_out} more, for which an answer has no room.` }) : null);
      return h("details", { data: { key: kind }, on: { toggle: (event) => {
        if (event.target.open && content.childElementCount === 0) {
          show(mostItems);
        }
      } } }, h("summary", { text: `${clean(kind)} (${count})` }), content);
    }));
  }

  /* ---- live ---- */

  let testsTimer = 0, ledgerTimer = 0;

  /* A test that nobody knew, or one that has another name: a while later, for more will come. */
  function readTestsSoon() {
    if (!testsTimer) {
      testsTimer = setTimeout(() => {
        testsTimer = 0;
        readTests().then(() => (isOver() ? null : showTests())).catch(() => null);
      }, 1000);
    }
  }

  function takeResults(results) {
    let polled = "";
    for (const { data } of results) {
      if (data.agent.id !== agent?.id) {
        continue;
      }
      polled = data.received > polled ? data.received : polled;
      polls.add(data.test.id, data);
      const test = tests.get(data.test.id);
      if (!test) {
        readTestsSoon();
        continue;
      }
      if (test.time && data.time < test.time) {
        continue;
      }
      Object.assign(test, { time: data.time, status: data.status, message: data.message || null,
        values: data.values });
      if (test.name !== data.test.name) {
        readTestsSoon();
      }
      const item = items.get(test.id);
      if (!item) {
        continue;
      }
      const value = item.curve?.name ? data.values[item.curve.name] : null;
      if (item.curve && value && item.curve.isRateOf(value)) {
        if (Date.now() - item.curve.readAt > rateAgainMs) {
          item.isRead = false;
          want(test.id);
          readCurves();
        }
      } else if (item.curve?.name) {
        item.curve.add(seconds(data.time), isNumber(value?.value) ? value.value : null);
      } else if (item.isRead) { /* the first one that has a curve */
        item.isRead = false;
        want(test.id);
        readCurves();
      }
      mark(test.id);
    }
    polledAt(polled);
    showPolls();
  }

  const showEventsSoon = throttle(() => showEvents());

  function takeEvents(messages) {
    let isOther = false;
    const known = new Set(events.map((event) => event.id));
    for (const { data } of messages) {
      if (data.agent.id !== agent?.id || known.has(data.id)) {
        continue;
      }
      events.push(data);
      known.add(data.id);
      isOther = true;
      const test = data.test ? tests.get(data.test.id) : null;
      if (data.test) {
        heard.say(data.test.id, data);
      }
      if (data.test && !test) {
        readTestsSoon();
      } else if (test && !(Date.parse(data.time) < Date.parse(test.since))) {
        test.state = data.to;
        test.stale = data.stale;
        test.since = data.time;
        test.message = data.message || test.message;
        mark(test.id);
        announce(`${clean(test.name)} is ${stateWord(test)}.`);
      }
    }
    if (isOther) {
      showEventsSoon();
      showTestsSoon();
    }
  }

  /* Of a silent agent all tests are unknown; when it is back they are what they were. No event says so: the
   * agent's counts do. Those of tests whose events are on their way fit a moment later. */
  let countsTimer = 0;
  function compareCounts() {
    countsTimer = 0;
    const known = { ok: 0, problem: 0, unknown: 0 };
    for (const { state } of tests.values()) {
      known[state]++;
    }
    if (!agent.retired && Object.keys(known).some((state) => known[state] !== agent.tests[state])) {
      readTestsSoon();
    }
  }

  const showAgentSoon = throttle(() => showAgent());

  function takeAgents(messages) {
    for (const { data } of messages) {
      if (agent && data.id === agent.id) {
        agentSaid = agentAsked;
        const { state, stale, since, tests: counts, retired } = data;
        const isOther = state !== agent.state || stale !== agent.stale || retired !== agent.retired
          || since !== agent.since || JSON.stringify(counts) !== JSON.stringify(agent.tests);
        if (isOther) {
          wasSilent ||= agent.state === "silent";
          if ((agent.state === "silent") !== (state === "silent")) {
            readTestsSoon();
          }
          Object.assign(agent, { state, stale, since, tests: counts, retired });
          showAgentSoon();
          countsTimer ||= setTimeout(compareCounts, 500);
        }
      }
    }
  }

  /* What was missed is read as at the beginning; what is on the page stays until it is there. */
  async function readAgain() {
    try {
      await Promise.all([readAgent(), readTests(), readEvents()]);
      if (isOver()) {
        return;
      }
      showAgent();
      showInventory();
      showEvents();
      await showTests();
      for (const [id, item] of items) {
        item.isRead = false;
        want(id);
      }
      readCurves();
      readPolls();
      showLedger(await readLedger());
    } catch (problem) {
      if (!isOver()) {
        fill(headStatus, failure(problem, () => {
          fill(headStatus);
          readAgain();
        }));
      }
    }
  }

  function listen() {
    offs.push(live.want({ results: { agents: new Set([agent.id]), tests: new Set() } }),
      live.on("result", takeResults), live.on("event", takeEvents), live.on("agent", takeAgents),
      live.on("lost", readAgain), live.onFirstLive(readAgain, onceLiveMs),
      live.onState(({ state }) => (state === "live" ? wantSeen() : null)));
    ledgerTimer = setInterval(() => (document.hidden ? null
      : readLedger().then((hours) => (isOver() ? null : showLedger(hours))).catch(() => null)), 5 * 60000);
  }

  /* ---- the screen ---- */

  const section = (id, text, ...content) => h("section", { class: "panel", aria: { labelledby: id } },
    h("h2", { id, text }), content);
  const rest = h("div", { class: "stack" },
    h("div", { class: "columns" },
      h("section", { class: "panel stack tight", aria: { labelledby: "agent-tests" } }, testsHeading,
        findField, testStatus, notAll, noTests, list),
      h("div", { class: "stack" },
        section("agent-facts", "The agent", facts),
        section("agent-polls", "Last polls", pollList, pollNote),
        section("agent-ledger", "Results of the last day", ledgerStatus, ledger),
        section("agent-inventory", "What its host has", inventory))),
    section("agent-events", "What happened", eventStatus, noEvents, eventList, h("p", { class: "more" },
      allEvents)));
  fill(place,
    h("header", { class: "head" },
      h("nav", { class: "crumbs", aria: { label: "Where this is" } },
        h("ol", null, h("li", null, h("a", { href: to("now"), text: "Now" })), crumb)),
      heading, lead, silent, actions, doneStatus),
    headStatus, rest);
  rest.hidden = true;

  async function load() {
    await part(headStatus, "the agent", readAgent, () => {
      rest.hidden = false;
      actions.hidden = !mayOperate;
      showAgent();
      showInventory();
      listen();
      readStanding();
      part(testStatus, "tests", readTests, () => {
        readPolls();
        return showTests();
      });
      part(ledgerStatus, "what is missing", readLedger, showLedger);
      part(eventStatus, "events", readEvents, showEvents);
    });
  }
  load();

  return {
    close() {
      leaving.abort();
      seen.disconnect();
      [rows, showPolls, showEventsSoon, showAgentSoon].forEach((each) => each.cancel());
      [testsTimer, orderTimer, countsTimer, curvesTimer].forEach((timer) => clearTimeout(timer));
      clearInterval(ledgerTimer);
      offs.forEach((off) => off());
    },
  };
}
