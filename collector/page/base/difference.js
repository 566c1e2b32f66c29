/* What a fleet file changes (the answer to PUT /api/v1/fleet), in the words of vindralctl: who looks at both
 * is not to wonder whether they mean the same. */
import { clean } from "./text.js";

const textIn = (of, name) => (typeof of?.[name] === "string" ? of[name] : "");
const countIn = (of, name) => (Number.isInteger(of?.[name]) ? of[name] : 0);
const listIn = (of, name) =>
  Array.isArray(of?.[name]) ? of[name].filter((each) => each !== null && typeof each === "object") : [];

function fieldText(field, isAdded) {
  const name = textIn(field, "name");
  const from = textIn(field, "from");
  const to = textIn(field, "to");
  if (isAdded) {
    return name + " " + to;
  }
  if (to === "") {
    return `without ${name} (was ${from})`;
  }
  return from === "" ? `${name} now ${to}` : `${name} ${from} -> ${to}`;
}

/* "disk: free 5 GB -> 10 %; 10 % of 50 GB"; of one that is added "disk /, free 10 %". */
function detailOf(change) {
  const type = textIn(change, "type");
  const was = textIn(change, "was");
  const isAdded = textIn(change, "action") === "add";
  let text = was === "" ? "" : "was " + was;
  const add = (more, between) => {
    text += (text === "" || more === "" ? "" : between) + more;
  };
  for (const field of listIn(change, "fields")) {
    add(fieldText(field, isAdded), ", ");
  }
  const impossible = textIn(change, "impossible");
  const reason = textIn(change, "reason");
  add(impossible, "; ");
  if (reason !== impossible) {
    add(reason, "; ");
  }
  if (isAdded && text.startsWith(type + " ")) {
    return text;
  }
  return type + (type === "" || text === "" ? "" : ": ") + text;
}

const marks = { add: "+", remove: "-", rename: ">" };

function shownChange(change) {
  const action = textIn(change, "action");
  const isImpossible = textIn(change, "impossible") !== "";
  return {
    mark: isImpossible ? "!" : Object.hasOwn(marks, action) ? marks[action] : "~",
    action,
    isImpossible,
    test: action === "intervals" ? "intervals" : clean(textIn(change, "test")),
    text: clean(detailOf(change)),
  };
}

/* As the command line has them: without the account when all agents have the same. */
function namesOf(agents) {
  const accounts = new Set(agents.map((each) => textIn(each.agent, "account")));
  return agents.map((each) => {
    const account = accounts.size === 1 ? "" : textIn(each.agent, "account") + "/";
    return clean(account + textIn(each.agent, "name"));
  });
}

/**
 * @typedef {object} ShownChange
 * @property {"+"|"~"|">"|"-"|"!"} mark added, changed, renamed, removed, cannot be
 * @property {string} action as the API has it
 * @property {boolean} isImpossible the agent cannot have it; nothing is sent
 * @property {string} test its name; "intervals" for those of the agent
 * @property {string} text "disk: free 5 GB -> 10 %"; may be ""
 */

/**
 * A line for each change of each agent, safe to show, in the order of the answer.
 * @param {object} answer of PUT /api/v1/fleet
 * @returns {Array<ShownChange & {agent: {id: ?number, account: string, name: string}, name: string}>} `agent`
 *   is the reference as it came, without an id when it has never reported; `name` what to call it
 */
export function lines(answer) {
  const agents = listIn(answer, "agents");
  const names = namesOf(agents);
  return agents.flatMap((each, i) => {
    const agent = each.agent ?? { id: null, account: "", name: "" };
    return listIn(each, "changes").map((change) => ({ agent, name: names[i], ...shownChange(change) }));
  });
}

/**
 * The same for thousands of agents: those that have changes in common stand over them together, in the order
 * in which they come first.
 * @param {object} answer
 * @returns {Array<{agents: string[], changes: ShownChange[]}>}
 */
export function sections(answer) {
  const agents = listIn(answer, "agents");
  const names = namesOf(agents);
  const known = new Map(); /* by what is shown */
  agents.forEach((each, i) => {
    for (const one of listIn(each, "changes")) {
      const change = shownChange(one);
      const key = change.mark + change.test + "\n" + change.text;
      const found = known.get(key);
      if (!found) {
        known.set(key, { change, who: [i] });
      } else if (found.who.at(-1) !== i) {
        found.who.push(i);
      }
    }
  });
  const byAgents = new Map();
  for (const { change, who } of known.values()) {
    const key = who.join();
    if (!byAgents.has(key)) {
      byAgents.set(key, { agents: who.map((i) => names[i]), changes: [] });
    }
    byAgents.get(key).changes.push(change);
  }
  return [...byAgents.values()];
}

const words = [
  ["add", "added"],
  ["change", "changed"],
  ["rename", "renamed"],
  ["remove", "removed"],
  ["intervals", "with other intervals"],
];

/**
 * @param {object} answer
 * @returns {boolean} whether any agent gets anything else to do; another text need not make a difference
 */
export function makesDifference(answer) {
  const members = [...words.map(([member]) => member), "impossible"];
  return members.some((member) => countIn(answer?.summary, member) !== 0);
}

/**
 * @param {object} answer
 * @returns {string} "3 added, 1 removed on 4 of 20 agents; 1 cannot be; 316 tests as before"
 */
export function summary(answer) {
  const of = answer?.summary;
  const parts = words
    .filter(([member]) => countIn(of, member) > 0)
    .map(([member, word]) => countIn(of, member) + " " + word);
  const impossible = countIn(of, "impossible");
  const agents = countIn(of, "agents");
  let text = "no test changes";
  if (parts.length > 0 || impossible > 0) {
    const changed = `${countIn(of, "agents_changed")} of ${agents}${agents === 1 ? " agent" : " agents"}`;
    text = `${parts.join(", ") || "nothing is sent"} on ${changed}`;
  }
  text += impossible > 0 ? `; ${impossible} cannot be` : "";
  return `${text}; ${countIn(of, "unchanged")} tests as before`;
}

/**
 * @param {object} answer
 * @returns {string} what lines() and sections() do not have, for want of room in the answer; "" for nothing
 */
export function leftOut(answer) {
  const more = countIn(answer, "more");
  return more > 0 ? `and ${more} more changes, of agents that are not listed` : "";
}
