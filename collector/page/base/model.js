/* What the page knows of agents and tests: lists fill it, messages of the stream change it. Screens read it
 * and are told what is another now.
 *
 * OBJECTS  of agents and tests are those of the API. One that changes is replaced by another: who has kept
 * the old one sees by comparing that it is. Texts of messages are cut, because a page is open for weeks.
 *
 * ORDER  Messages of one stream come in order, and each goes by what it says of its time: an event by its
 * number and `time`, an agent by `since`, a result by `received` and `time`. So what comes twice, or after a
 * list that knows more already, does nothing. With the `id` that the stream gave to a message this is exact.
 * `since` of an agent may go back for good reason, when results arrive late that found a problem earlier; the
 * event that says so comes with it, and after an event the agent's message counts whatever its time.
 *
 * LISTS  are answers of some moments ago. What messages have said since the stream was last whole counts for
 * more than an older list: a test that a list leaves out stays, when it was a message that said it is a
 * problem. After "lost" nothing that was said before does.
 *
 * SILENCE  Of a silent agent all tests are unknown, the API says, and when it is back they are what they
 * were, without events. So takeMessage() says of which agents the tests have to be asked for `again`: those
 * that are back, and whose number of problems is not the one that is known here. Give what was answered to
 * setProblemsOf(). What was unknown while the agent was silent is forgotten when it is back.
 *
 * WORK  A message costs the same whatever the number of agents; lists in order are made when they are asked
 * for, and kept until they change. */
import { byName, byTest, newestFirst, stateRank } from "./order.js";
import { shortened } from "./text.js";

const mostOfMessage = 2000;
const mostBehind = 10; /* agents that are asked for one by one when a list was cut */

const isId = (id) => Number.isInteger(id) && id > 0;
/* Not what is unknown without being stale: nothing has come of it, or its agent is silent. */
const isBad = (test) => test.state === "problem" || (test.state === "unknown" && test.stale === true);
const timeOf = (time) => (typeof time === "string" ? time : "");
const later = (one, other) => (timeOf(one) >= timeOf(other) ? one : other);
const cut = (message) => (typeof message === "string" ? shortened(message, mostOfMessage) : null);

const emptyTests = { ok: 0, problem: 0, unknown: 0 };

/* Of two objects as JSON has them, whatever the order of members. */
function isSame(one, other) {
  if (one === other) {
    return true;
  }
  if (one === null || other === null || typeof one !== "object" || typeof other !== "object") {
    return false;
  }
  const names = Object.keys(one);
  return (
    names.length === Object.keys(other).length &&
    names.every((name) => Object.hasOwn(other, name) && isSame(one[name], other[name]))
  );
}

/* `stale` is there or not, as in the API. */
function withState(of, { state, since, stale }) {
  const { stale: ignored, ...others } = of;
  return stale === true ? { ...others, state, since, stale } : { ...others, state, since };
}

/* ---- the worst first ---- */

function compareEntries(one, other) {
  return (
    stateRank(one.state) - stateRank(other.state) ||
    newestFirst(one.since, other.since) ||
    (one.kind === other.kind ? one.id - other.id : one.kind === "agent" ? -1 : 1)
  );
}

/* Where it stands in a list in that order, or would. */
function placeIn(entries, entry) {
  let from = 0;
  let end = entries.length;
  while (from < end) {
    const middle = (from + end) >> 1;
    if (compareEntries(entries[middle], entry) < 0) {
      from = middle + 1;
    } else {
      end = middle;
    }
  }
  return from;
}

/* Problems by their keys, and in order as soon as anybody has asked for that. */
class WorstList {
  #byKey = new Map();
  #sorted = null;
  #shown = null;

  /* `entry` null: it is none any more. */
  put(key, entry) {
    const old = this.#byKey.get(key);
    if (!old && !entry) {
      return;
    }
    this.#shown = null;
    if (entry) {
      this.#byKey.set(key, entry);
    } else {
      this.#byKey.delete(key);
    }
    if (this.#sorted === null) {
      return;
    }
    if (old && entry && compareEntries(old, entry) === 0) {
      this.#sorted[placeIn(this.#sorted, old)] = entry;
      return;
    }
    if (old) {
      this.#sorted.splice(placeIn(this.#sorted, old), 1);
    }
    if (entry) {
      this.#sorted.splice(placeIn(this.#sorted, entry), 0, entry);
    }
  }

  /* Before thousands are put: sorting once is less than finding a place for each. */
  forgetOrder() {
    this.#sorted = this.#shown = null;
  }

  all() {
    this.#sorted ??= [...this.#byKey.values()].sort(compareEntries);
    this.#shown ??= this.#sorted.slice();
    return this.#shown;
  }
}

/* ---- what is kept besides the objects ---- */

const newAgentNotes = () => ({
  heard: 0, /* the last message that changed it; 0: lists alone have */
  event: 0, /* number of the last one, of it or of its tests */
  isExpected: false, /* an event was the last thing: what the agent's message says is newer */
  retired: "", /* when, as long as it has not come back */
  isBack: false, /* it was silent: its tests are to be asked for */
  asked: -1, /* how many problems it had when `again` was said */
  text: null, /* that search() looks at */
  tests: new Set(), /* that are known */
});

const newTestNotes = () => ({
  heard: 0,
  state: null, /* of the last event, also when the test is not kept, because it is well */
  since: "",
  received: "", /* the last result */
  watched: 0, /* by how many */
  text: null,
});

/**
 * @typedef {object} Changed
 * @property {Set<number>} agents that are another now, came or went
 * @property {Set<number>} tests
 * @property {Set<number>} again agents of whose tests more should be asked for
 */

export class Model {
  /** Read only. @type {Map<number, object>} */
  agents = new Map();
  /** Those that are a problem or stale, and those that are watched. Read only. @type {Map<number, object>} */
  tests = new Map();
  /** Rises with each change. */
  version = 0;

  #agentNotes = new Map();
  #testNotes = new Map();
  #worst = new WorstList();
  #counts = null;
  #testCounts = null;
  #names = null; /* ids of agents by name */
  #sorted = new Map(); /* agents by the word of the order */
  #heard = 0;
  #sureFrom = 0; /* messages up to this one say nothing against a list */
  #hasProblems = false; /* a list of them was read */
  #run = "";
  #position = -1;

  /* ---- lists ---- */

  /**
   * All agents, as GET /api/v1/agents lists them. Others are gone, with their tests.
   * @param {object[]} items
   * @returns {Changed}
   */
  setAgents(items) {
    const changed = newChanged();
    const listed = new Set(items.map((item) => item?.id));
    for (const id of [...this.agents.keys()]) {
      if (!listed.has(id) && this.#agentNotes.get(id).heard <= this.#sureFrom) {
        this.#removeAgent(id, changed);
      }
    }
    return this.#listAgents(items, changed);
  }

  /**
   * Some of them: a page of the list, or one that was read by its id (its inventories are not kept).
   * @param {object[]} items
   * @returns {Changed}
   */
  addAgents(items) {
    return this.#listAgents(items, newChanged());
  }

  /**
   * All tests that are wrong, as GET /api/v1/tests?state=problem,stale lists them. Others that are known
   * are so no more and are forgotten; of those that are watched nothing is said.
   * @param {object[]} items
   * @param {{isMore?: boolean}} [how] the list was cut: the newest of the others stay, and are to be asked for
   *   by their agents, which are in `again`
   * @returns {Changed}
   */
  setProblems(items, { isMore = false } = {}) {
    const changed = newChanged();
    this.#hasProblems = true;
    this.#worst.forgetOrder();
    const old = this.#unlisted(this.tests.keys(), items).map((id) => this.tests.get(id));
    if (isMore) {
      for (const { agent } of old.filter(isBad).sort((a, b) => newestFirst(a.since, b.since))) {
        if (changed.again.size < mostBehind && isId(agent?.id)) {
          changed.again.add(agent.id);
        }
      }
    }
    for (const { id, agent } of old) {
      if (!changed.again.has(agent?.id)) {
        this.#removeTest(id, changed);
      }
    }
    return this.#listTests(items, changed);
  }

  /**
   * Those of an agent, as one that was told of in `again`. Others of it are so no more.
   * @param {number} agentId
   * @param {object[]} items
   * @returns {Changed}
   */
  setProblemsOf(agentId, items) {
    const changed = newChanged();
    this.#unlisted(this.#notesOfAgent(agentId).tests, items).forEach((id) => this.#removeTest(id, changed));
    return this.#listTests(items, changed);
  }

  /* Tests that a list has not, nor has a message said anything of them. */
  #unlisted(ids, items) {
    const listed = new Set(items.map((item) => item?.id));
    return [...ids].filter((id) => {
      const notes = this.#testNotes.get(id);
      return !listed.has(id) && notes.watched === 0 && notes.heard <= this.#sureFrom;
    });
  }

  /**
   * Tests that a screen shows, whatever their state: they are kept until it closes.
   * @param {object[]} items
   * @returns {function(): void} ends it; once is enough, twice does nothing more
   */
  watchTests(items) {
    const ids = new Set(items.map((item) => item?.id).filter(isId));
    for (const id of ids) {
      this.#notesOfTest(id).watched++;
    }
    this.#listTests(items, newChanged());
    return () => {
      for (const id of ids) {
        const notes = this.#notesOfTest(id);
        notes.watched--;
        const test = this.tests.get(id);
        if (notes.watched === 0 && test && !isBad(test)) {
          this.#removeTest(id, newChanged());
        }
      }
      ids.clear();
    };
  }

  /* ---- messages ---- */

  /**
   * A message of the stream. One that is none, or of something that is not known, does nothing.
   * @param {{kind: string, data: object, id?: string}} message `kind` is "agent", "event", "result", "change"
   *   or "lost"; `id` as the stream has it, where it is known
   * @returns {Changed}
   */
  takeMessage(message) {
    const changed = newChanged();
    const { kind, data, id } = message ?? {};
    if (kind === "lost") {
      this.#sureFrom = this.#heard;
      return changed;
    }
    if (data === null || typeof data !== "object" || this.#isOld(id)) {
      return changed;
    }
    this.#heard++;
    if (kind === "agent") {
      this.#takeAgent(data, id, changed);
    } else if (kind === "event") {
      this.#takeEvent(data, changed);
    } else if (kind === "result") {
      this.#takeResult(data, changed);
    }
    return changed;
  }

  /* "RUN-POSITION", and positions of a run rise. */
  #isOld(id) {
    const found = typeof id === "string" ? /^(.*)-(\d+)$/.exec(id) : null;
    if (!found) {
      return false;
    }
    const position = Number(found[2]);
    if (found[1] === this.#run && position <= this.#position) {
      return true;
    }
    this.#run = found[1];
    this.#position = position;
    return false;
  }

  #takeAgent(data, streamId, changed) {
    if (!isId(data.id)) {
      return;
    }
    const notes = this.#notesOfAgent(data.id);
    const old = this.agents.get(data.id);
    if (data.retired) {
      const isBack = streamId === undefined && old && timeOf(old.since) > timeOf(data.retired);
      if (!isBack) {
        this.#removeAgent(data.id, changed);
        notes.retired = timeOf(data.retired);
        notes.heard = this.#heard;
      }
      return;
    }
    const isSurelyNew = notes.isExpected || streamId !== undefined;
    const isLate = !isSurelyNew && timeOf(data.since) < (old ? timeOf(old.since) : notes.retired);
    if (isLate && (!old || old.state !== data.state)) {
      return;
    }
    notes.isExpected = false;
    notes.heard = this.#heard;
    notes.retired = "";
    this.#endSilence(old, data.state, notes, changed);
    const { id, account, name } = data;
    this.#putAgent(
      withState(
        {
          last_poll: null, first_poll: null, address: null, version: null, groups: [], identity: "unknown",
          ...old, id, account, name, tests: data.tests ?? emptyTests,
        },
        data,
      ),
      changed,
    );
    this.#compareProblems(data, notes, changed);
  }

  /* Asked again once for each number that is not explained: there may be reasons, such as a list that was too
   * long. */
  #compareProblems(agent, notes, changed) {
    if (!this.#hasProblems || agent.state === "silent") {
      return;
    }
    let known = 0;
    for (const id of notes.tests) {
      known += this.tests.get(id).state === "problem" ? 1 : 0;
    }
    const count = agent.tests?.problem ?? 0;
    if (known === count) {
      notes.asked = -1;
    }
    if (notes.isBack || (known !== count && notes.asked !== count)) {
      notes.isBack = false;
      notes.asked = count;
      changed.again.add(agent.id);
    }
  }

  #endSilence(agent, state, notes, changed) {
    if (agent?.state !== "silent" || state === "silent") {
      return;
    }
    notes.isBack = true;
    for (const id of [...notes.tests]) {
      if (this.tests.get(id).state === "unknown" && this.#notesOfTest(id).watched === 0) {
        this.#removeTest(id, changed);
      }
    }
  }

  #takeEvent(event, changed) {
    const agentId = event.agent?.id;
    if (!isId(agentId)) {
      return;
    }
    const notes = this.#notesOfAgent(agentId);
    if (isId(event.id)) {
      if (event.id <= notes.event) {
        return;
      }
      notes.event = event.id;
    }
    if (notes.retired !== "" && timeOf(event.time) <= notes.retired) {
      return;
    }
    const next = { state: event.to, since: event.time, stale: event.stale };
    if (event.test) {
      this.#takeTestEvent(event, next, notes, changed);
      return;
    }
    const agent = this.agents.get(agentId);
    if (agent && timeOf(event.time) >= timeOf(agent.since)) {
      notes.heard = this.#heard;
      notes.isExpected = true;
      this.#endSilence(agent, next.state, notes, changed);
      this.#putAgent(withState(agent, next), changed);
    }
  }

  #takeTestEvent(event, next, agentNotes, changed) {
    const { id, type, number, name, target } = event.test;
    if (!isId(id)) {
      return;
    }
    const old = this.tests.get(id);
    const notes = this.#notesOfTest(id);
    /* Of an unknown one it may be the silence of its agent that is newer, which says nothing of the test. */
    const since = old ? (old.state === "unknown" ? "" : old.since) : notes.since;
    if (timeOf(event.time) < timeOf(since)) {
      return;
    }
    agentNotes.isExpected = true;
    notes.heard = this.#heard;
    notes.state = next.state;
    notes.since = timeOf(next.since);
    if (!old && !isBad(next)) {
      return;
    }
    const { account, name: agentName } = event.agent;
    const test = {
      agent: { id: event.agent.id, account, name: agentName },
      group: null, time: null, status: null, values: {}, definition: null,
      ...old, id, type, number, name, target, message: cut(event.message),
    };
    /* Unknown it becomes when there is no result. */
    test.time = next.state === "unknown" ? test.time : event.time;
    this.#putTest(withState(test, next), changed);
  }

  /* States are changed by events alone: a result that was overtaken says nothing of how the test stands. */
  #takeResult(result, changed) {
    const agent = this.agents.get(result.agent?.id);
    if (agent && timeOf(result.received) > timeOf(agent.last_poll)) {
      this.#putAgent({ ...agent, last_poll: result.received }, changed);
    }
    const old = this.tests.get(result.test?.id);
    if (!old) {
      return;
    }
    const notes = this.#notesOfTest(old.id);
    const received = timeOf(result.received);
    const isLater = notes.received !== "" && received > notes.received;
    if (received < notes.received || (!isLater && timeOf(result.time) < timeOf(old.time))) {
      return;
    }
    notes.received = received;
    const { name, target } = result.test;
    const { time, status, values } = result;
    const test = { ...old, name, target, time, status, values: values ?? {}, message: cut(result.message) };
    if (!isSame(old, test)) {
      this.#putTest(test, changed);
    }
  }

  /* ---- what screens ask ---- */

  /**
   * @returns {{ok: number, problem: number, unknown: number, silent: number}} agents; not to be changed
   */
  counts() {
    if (this.#counts === null) {
      this.#counts = { ok: 0, problem: 0, unknown: 0, silent: 0 };
      for (const { state } of this.agents.values()) {
        this.#counts[Object.hasOwn(this.#counts, state) ? state : "unknown"]++;
      }
    }
    return this.#counts;
  }

  /**
   * @returns {{ok: number, problem: number, unknown: number}} tests of all agents, as these say; not to be
   *   changed
   */
  testCounts() {
    if (this.#testCounts === null) {
      this.#testCounts = { ...emptyTests };
      for (const { tests } of this.agents.values()) {
        for (const state of Object.keys(emptyTests)) {
          this.#testCounts[state] += tests?.[state] ?? 0;
        }
      }
    }
    return this.#testCounts;
  }

  /**
   * What somebody should look at: silent agents, then tests that are a problem, then unknown ones, of each
   * the newest change first. Tests of a silent agent are left out: it stands for them.
   * @returns {Array<{kind: "agent"|"test", id: number, key: string, state: string, stale: boolean, since:
   *   ?string, agent: object, test: ?object}>} the same list as long as nothing in it changes, not to be
   *   changed; so is an entry. `key` tells them apart; `agent` is the agent, of a test the reference to it.
   */
  worstFirst() {
    return this.#worst.all();
  }

  /**
   * @param {"state"|"name"} [order] by state, the worst first, and then by name; or by name
   * @returns {object[]} the same list as long as no agent changes; not to be changed
   */
  sortedAgents(order = "state") {
    if (!this.#sorted.has(order)) {
      this.#names ??= [...this.agents.values()].sort(byName).map((agent) => agent.id);
      const all = this.#names.map((id) => this.agents.get(id));
      const ranked = [[], [], [], []];
      if (order === "state") {
        all.forEach((agent) => ranked[stateRank(agent.state)].push(agent));
      }
      this.#sorted.set(order, order === "state" ? ranked.flat() : all);
    }
    return this.#sorted.get(order);
  }

  /**
   * What has all the words, whatever their case: agents in their name, account, address or a group; tests in
   * their name, target, type or group, or where their agent has them. Without words that is everything.
   * @param {string|string[]} words
   * @returns {{agents: object[], tests: object[]}} by name. Only tests that are known here: GET /api/v1/tests
   *   has all
   */
  search(words) {
    const wanted = (Array.isArray(words) ? words.join(" ") : String(words ?? ""))
      .toLowerCase()
      .split(/\s+/)
      .filter((word) => word !== "");
    const hasAll = (text) => wanted.every((word) => text.includes(word));
    return {
      agents: this.sortedAgents("name").filter((agent) => hasAll(this.#textOfAgent(agent.id))),
      tests: [...this.tests.values()].filter((test) => hasAll(this.#textOfTest(test))).sort(byTest),
    };
  }

  #textOfAgent(id) {
    const notes = this.#agentNotes.get(id);
    const agent = this.agents.get(id);
    if (!notes || !agent) {
      return "";
    }
    const { name, account, address, groups } = agent;
    notes.text ??= [name, account, address, ...(groups ?? [])].join("\n").toLowerCase();
    return notes.text;
  }

  #textOfTest(test) {
    const notes = this.#notesOfTest(test.id);
    const { account, name } = test.agent ?? {};
    notes.text ??= [test.name, test.target, test.type, test.group, account, name].join("\n").toLowerCase();
    return notes.text + "\n" + this.#textOfAgent(test.agent?.id);
  }

  /* ---- changes ---- */

  #notesOfAgent(id) {
    return noted(this.#agentNotes, id, newAgentNotes);
  }
  #notesOfTest(id) {
    return noted(this.#testNotes, id, newTestNotes);
  }

  #listAgents(items, changed) {
    for (const item of items) {
      if (!isId(item?.id) || item.retired) {
        continue;
      }
      const notes = this.#notesOfAgent(item.id);
      const old = this.agents.get(item.id);
      const isHeard = notes.heard > this.#sureFrom;
      if (isHeard && notes.retired !== "" && timeOf(item.last_poll) <= notes.retired) {
        continue;
      }
      notes.retired = "";
      const { inventories: ignored, ...agent } = item;
      const isOlder = isHeard && old && timeOf(old.since) > timeOf(item.since);
      const next = isOlder ? withState({ ...agent, tests: old.tests }, old) : agent;
      this.#putAgent({ ...next, last_poll: later(item.last_poll, old?.last_poll) ?? null }, changed);
    }
    return changed;
  }

  #listTests(items, changed) {
    if (items.length > 100) {
      this.#worst.forgetOrder();
    }
    for (const item of items) {
      if (!isId(item?.id)) {
        continue;
      }
      const notes = this.#notesOfTest(item.id);
      const old = this.tests.get(item.id);
      /* Events that are newer than the list, also those by which the test is known no more. */
      const isOlder = notes.heard > this.#sureFrom && notes.since > timeOf(item.since);
      let test = { ...item, message: cut(item.message) };
      if (old && timeOf(old.time) > timeOf(item.time)) {
        const { time, status, message, values } = old;
        test = { ...test, time, status, message, values };
      }
      if (isOlder) {
        test = withState(test, old ?? notes);
      }
      if (isBad(test) || notes.watched > 0) {
        this.#putTest(test, changed);
      } else if (old) {
        this.#removeTest(item.id, changed);
      }
    }
    return changed;
  }

  #putAgent(agent, changed) {
    const old = this.agents.get(agent.id);
    if (old && isSame(old, agent)) {
      return;
    }
    const notes = this.#notesOfAgent(agent.id);
    this.agents.set(agent.id, agent);
    this.#touch();
    changed.agents.add(agent.id);
    this.#sorted.clear();
    if (!old || old.name !== agent.name || old.account !== agent.account) {
      this.#names = null;
    }
    if (!old || old.state !== agent.state) {
      this.#counts = null;
    }
    if (!old || !isSame(old.tests, agent.tests)) {
      this.#testCounts = null;
    }
    const isNamedAnew =
      !old || old.name !== agent.name || old.account !== agent.account || old.address !== agent.address;
    if (isNamedAnew || !isSame(old.groups, agent.groups)) {
      notes.text = null;
    }
    const isSilent = agent.state === "silent";
    this.#worst.put("agent-" + agent.id, isSilent ? entryOf("agent", agent, agent, null) : null);
    if (isSilent !== (old?.state === "silent")) {
      notes.tests.forEach((id) => this.#placeTest(this.tests.get(id)));
    }
  }

  #removeAgent(id, changed) {
    const notes = this.#notesOfAgent(id);
    [...notes.tests].forEach((test) => this.#removeTest(test, changed));
    if (this.agents.delete(id)) {
      changed.agents.add(id);
      this.#touch();
    }
    this.#counts = this.#testCounts = this.#names = null;
    this.#sorted.clear();
    this.#worst.put("agent-" + id, null);
    notes.text = null;
    notes.isExpected = false;
    notes.asked = -1;
  }

  #putTest(test, changed) {
    const old = this.tests.get(test.id);
    if (old && isSame(old, test)) {
      return;
    }
    const notes = this.#notesOfTest(test.id);
    if (!isBad(test) && notes.watched === 0) {
      this.#removeTest(test.id, changed);
      return;
    }
    this.tests.set(test.id, test);
    this.#touch();
    changed.tests.add(test.id);
    if (isId(test.agent?.id)) {
      this.#notesOfAgent(test.agent.id).tests.add(test.id);
    }
    if (!old || ["name", "target", "type", "group"].some((each) => old[each] !== test[each])) {
      notes.text = null;
    }
    this.#placeTest(test);
  }

  #removeTest(id, changed) {
    const test = this.tests.get(id);
    if (!test) {
      return;
    }
    this.tests.delete(id);
    this.#agentNotes.get(test.agent?.id)?.tests.delete(id);
    this.#touch();
    changed.tests.add(id);
    this.#worst.put("test-" + id, null);
    Object.assign(this.#notesOfTest(id), { text: null, received: "" });
  }

  #placeTest(test) {
    const isOfSilent = this.agents.get(test.agent?.id)?.state === "silent";
    const isShown = isBad(test) && !isOfSilent;
    this.#worst.put("test-" + test.id, isShown ? entryOf("test", test, test.agent, test) : null);
  }

  #touch() {
    this.version++;
  }
}

function newChanged() {
  return { agents: new Set(), tests: new Set(), again: new Set() };
}

function noted(all, id, make) {
  let notes = all.get(id);
  if (!notes) {
    all.set(id, (notes = make()));
  }
  return notes;
}

function entryOf(kind, of, agent, test) {
  const { id, state, since } = of;
  return { kind, id, key: kind + "-" + id, state, stale: of.stale === true, since, agent, test };
}
