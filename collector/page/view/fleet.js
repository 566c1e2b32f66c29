/* The fleet file: what is in force, an editor that is checked as one types, and the difference before
 * anything is applied. A text that is not applied yet stays in the tab over a reload, with the
 * revision that it was begun from; when somebody was first, that is said, and nothing is overwritten.
 * Going back to an older text is applying it. Of 10,000 lines the numbers of those in sight are
 * there. */
import { to } from "../base/address.js";
import { leftOut, makesDifference, sections, summary } from "../base/difference.js";
import { clean, oneLine, plural, whole } from "../base/text.js";
import { findTest } from "../base/yamlPlace.js";
import { announce, fill, h, throttle } from "../dom.js";
import { busy, confirm, dialog, emptyState, fact, failure, headed, oneByOne, table, timeElement }
  from "../parts.js";

const path = "/api/v1/fleet";
const yaml = "application/yaml";
const draftKey = "fleet-draft";
const checkAfterMs = 400, againAfterMs = 3000;
const mostBytes = 1048576; /* that the collector takes */
const mostMistakes = 200, mostChanges = 400, mostAgentsNamed = 12;
const mostCompared = 3000; /* lines: more take too long to compare one by one */
const indent = "  ";
const example = `version: 1
groups:
  - name: everything
    agents: ["*"]
    tests:
      load:       {load: {5m: 8}}
      root disk:  {disk: /, free: 10 %}
`;

export const title = () => "Fleet";

/* ---- the text that is not applied yet ---- */

/** @returns {?{text: string, base: number}} null for none, and for what somebody else began */
function readDraft(who) {
  try {
    const draft = JSON.parse(sessionStorage.getItem(draftKey));
    if (typeof draft?.text === "string" && draft.who === who) {
      return draft;
    }
  } catch { /* no storage, or something else in it */ }
  dropDraft();
  return null;
}

/** @returns {boolean} whether it would outlast a reload */
function keepDraft(draft) {
  try {
    sessionStorage.setItem(draftKey, JSON.stringify(draft));
    return true;
  } catch {
    return false;
  }
}

function dropDraft() {
  try {
    sessionStorage.removeItem(draftKey);
  } catch { /* there is none then */ }
}

/** @returns {?Object} a problem when the collector would not take it: that is known before it is sent */
export function tooLarge(size) {
  return size <= mostBytes ? null : { status: 413, title: "The file is too large",
    detail: `It may have ${whole(mostBytes)} bytes, and has ${whole(size)}.` };
}

/* As a textarea has it. What was written with carriage returns is sent with them again. */
const plain = (text) => (text ?? "").replace(/\r\n?/g, "\n");

/* ---- two texts, line by line ---- */

/**
 * @param {string} before
 * @param {string} after
 * @returns {{sign: " "|"+"|"-", text: string}[]} what differs with three lines around it; between two
 *   such places a line with the text null
 */
export function lineDifference(before, after) {
  const a = plain(before).split("\n");
  const b = plain(after).split("\n");
  let first = 0;
  while (first < a.length && first < b.length && a[first] === b[first]) {
    first++;
  }
  let endA = a.length;
  let endB = b.length;
  while (endA > first && endB > first && a[endA - 1] === b[endB - 1]) {
    endA--;
    endB--;
  }
  const all = a.slice(0, first).map((text) => ({ sign: " ", text }));
  all.push(...middle(a.slice(first, endA), b.slice(first, endB)));
  all.push(...a.slice(endA).map((text) => ({ sign: " ", text })));
  const isNear = all.map(() => false);
  all.forEach(({ sign }, i) => {
    for (let near = i - 3; sign !== " " && near <= i + 3; near++) {
      isNear[near] = true;
    }
  });
  const shown = [];
  all.forEach((line, i) => {
    if (isNear[i]) {
      shown.push(line);
    } else if (shown.length > 0 && shown.at(-1).text !== null) {
      shown.push({ sign: " ", text: null });
    }
  });
  return shown.at(-1)?.text === null ? shown.slice(0, -1) : shown;
}

/* By the longest common run of lines. Of too many all are said to be others. */
function middle(a, b) {
  const out = [];
  let i = 0;
  let j = 0;
  if (a.length <= mostCompared && b.length <= mostCompared) {
    const width = b.length + 1;
    const longest = new Uint16Array((a.length + 1) * width);
    for (let x = a.length - 1; x >= 0; x--) {
      for (let y = b.length - 1; y >= 0; y--) {
        longest[x * width + y] = a[x] === b[y] ? longest[(x + 1) * width + y + 1] + 1
          : Math.max(longest[(x + 1) * width + y], longest[x * width + y + 1]);
      }
    }
    while (i < a.length && j < b.length) {
      if (a[i] === b[j]) {
        out.push({ sign: " ", text: a[i++] });
        j++;
      } else if (longest[(i + 1) * width + j] >= longest[i * width + j + 1]) {
        out.push({ sign: "-", text: a[i++] });
      } else {
        out.push({ sign: "+", text: b[j++] });
      }
    }
  }
  out.push(...a.slice(i).map((text) => ({ sign: "-", text })));
  out.push(...b.slice(j).map((text) => ({ sign: "+", text })));
  return out;
}

function lineDifferenceElement(before, after) {
  const all = lineDifference(before, after);
  if (all.length === 0) {
    return h("p", { class: "note", text: "Both texts are the same." });
  }
  const rest = all.length - mostChanges;
  return h("div", { class: "stack tight" },
    h("ul", { class: "difference mono", aria: { label: "Lines that differ" } },
      all.slice(0, mostChanges).map(({ sign, text }) =>
        h("li", { class: "change", data: { action: { "+": "add", "-": "remove" }[sign] ?? "same" } },
          h("span", { class: "change-sign", text: text === null ? "" : sign }),
          h("span", { class: "change-text message", text: text === null ? "…" : clean(text) || " " })))),
    rest > 0 ? h("p", { class: "note", text: `and ${plural(rest, "more line")}` }) : null);
}

/* ---- what a text would change ---- */

function named(agents) {
  const rest = agents.length - mostAgentsNamed;
  return rest > 0
    ? `${agents.slice(0, mostAgentsNamed).join(", ")} and ${rest} more`
    : agents.join(", ");
}

/**
 * The answer to a PUT of a fleet file: those agents together that have changes in common.
 * @param {Object} answer
 * @returns {HTMLElement}
 */
function differenceElement(answer) {
  let left = mostChanges;
  const parts = [];
  const all = sections(answer);
  for (const { agents, changes } of all) {
    if (left <= 0) {
      break;
    }
    const some = changes.slice(0, left);
    left -= some.length;
    const count = agents.length > 1 ? ` (${plural(agents.length, "agent")})` : "";
    parts.push(h("li", null,
      h("h3", { text: named(agents) + count }),
      h("ul", null, some.map((change) =>
        h("li", { class: "change", data: { action: change.isImpossible ? "impossible" : change.action } },
          h("span", { class: "change-sign", aria: { hidden: "true" }, text: change.mark }),
          h("span", { class: "change-text" },
            h("span", { class: "hidden", text: change.isImpossible ? "cannot be: " : `${change.action}: ` }),
            h("b", { text: change.test }), change.text ? ` ${change.text}` : ""))))));
  }
  const count = all.reduce((sum, { changes }) => sum + changes.length, 0);
  return h("div", { class: "stack tight" },
    h("p", { text: summary(answer).replace(/\d+/g, (digits) => whole(Number(digits))) }),
    parts.length > 0 ? h("ul", { class: "difference" }, parts) : null,
    count > mostChanges
      ? h("p", { class: "note", text: `and ${whole(count - mostChanges)} more that are not shown here` })
      : null,
    leftOut(answer) ? h("p", { class: "note", text: leftOut(answer) }) : null);
}

/** What is to be known of a file that has no mistake. */
function remarksOf(answer) {
  const without = answer.summary.agents_without;
  const groups = answer.summary.groups_without;
  return [
    without > 0 ? `${plural(without, "agent")} ${without === 1 ? "is" : "are"} in no group.` : "",
    groups.length > 0 ? `No agent is in ${groups.map((name) => `"${oneLine(name, 100)}"`).join(", ")}.` : "",
  ].filter(Boolean);
}

/* ---- the editor ---- */

/**
 * A textarea with numbers of lines. Tab indents, and leaves after Escape.
 * @param {{onInput: () => void, isReadOnly: boolean}} how
 */
function createEditor({ onInput, isReadOnly }) {
  const numbers = h("div", { class: "editor-lines", aria: { hidden: "true" } });
  const area = h("textarea", {
    class: "editor-text", id: "fleet-text", wrap: "off", spellcheck: "false", autocomplete: "off",
    autocapitalize: "off", readonly: isReadOnly, aria: { describedby: "fleet-keys fleet-said" },
  });
  const element = h("div", { class: "editor" }, numbers, area);
  let wrong = new Set();
  let count = 1;
  let leaves = false;
  let metrics = null;

  const measure = () => {
    const style = getComputedStyle(area);
    metrics = { line: parseFloat(style.lineHeight) || 24, top: parseFloat(style.paddingTop) || 0 };
  };

  const draw = throttle(() => {
    if (!metrics) {
      measure();
    }
    const first = Math.max(0, Math.floor((area.scrollTop - metrics.top) / metrics.line));
    const most = Math.ceil(area.clientHeight / metrics.line) + 1;
    const lines = [];
    for (let i = first; i < Math.min(first + most, count); i++) {
      const line = h("div", { class: wrong.has(i + 1) ? "wrong" : null, text: i + 1 });
      line.style.height = `${metrics.line}px`;
      lines.push(line);
    }
    if (lines.length > 0) {
      lines[0].style.marginTop = `${first * metrics.line - area.scrollTop}px`;
    }
    numbers.style.minWidth = `${Math.max(5, String(count).length + 3)}ch`;
    fill(numbers, lines);
  });

  /* As if it had been typed, so that the browser's own undoing knows of it. */
  const insert = (text) => {
    if (!document.execCommand("insertText", false, text)) {
      area.setRangeText(text, area.selectionStart, area.selectionEnd, "end");
      area.dispatchEvent(new Event("input"));
    }
  };

  const indentLines = (isBack) => {
    const { selectionStart: start, selectionEnd: end, value } = area;
    if (!isBack && start === end) {
      const column = start - (value.lastIndexOf("\n", start - 1) + 1);
      insert(indent.slice(column % indent.length));
      return;
    }
    const from = value.lastIndexOf("\n", start - 1) + 1;
    const last = end > start && value[end - 1] === "\n" ? end - 1 : end;
    const until = value.indexOf("\n", last) < 0 ? value.length : value.indexOf("\n", last);
    const lines = value.slice(from, until).split("\n");
    const text = lines.map((line) =>
      (isBack ? line.replace(/^ {1,2}/, "") : line && indent + line)).join("\n");
    area.setSelectionRange(from, until);
    insert(text);
    area.setSelectionRange(from, from + text.length);
  };

  area.addEventListener("keydown", (event) => {
    if (event.key === "Escape") {
      leaves = true;
    } else if (event.key === "Tab" && !leaves && !area.readOnly &&
      !event.ctrlKey && !event.altKey && !event.metaKey) {
      event.preventDefault();
      indentLines(event.shiftKey);
    } else if (event.key !== "Shift" && event.key !== "Tab") {
      leaves = false;
    }
  });
  area.addEventListener("blur", () => {
    leaves = false;
  });
  area.addEventListener("input", () => {
    count = lineCount();
    draw();
    onInput();
  });
  area.addEventListener("scroll", draw);
  const sized = new ResizeObserver(() => {
    metrics = null;
    draw();
  });
  sized.observe(area);

  function lineCount() {
    let lines = 1;
    for (let at = area.value.indexOf("\n"); at >= 0; at = area.value.indexOf("\n", at + 1)) {
      lines++;
    }
    return lines;
  }

  return {
    element,
    area,
    get text() {
      return area.value;
    },
    set(text) {
      area.value = text;
      count = lineCount();
      wrong = new Set();
      draw();
    },
    mark(lines) {
      wrong = new Set(lines);
      area.setAttribute("aria-invalid", String(wrong.size > 0));
      draw();
    },
    goTo(line, column = 1) {
      measure();
      const lines = area.value.split("\n");
      const at = Math.min(Math.max(line, 1), lines.length);
      const start = lines.slice(0, at - 1).reduce((sum, each) => sum + each.length + 1, 0);
      /* Columns count characters, the selection counts units of UTF-16. */
      const caret = start + [...lines[at - 1]].slice(0, Math.max(column - 1, 0)).join("").length;
      area.focus({ preventScroll: true });
      area.setSelectionRange(caret, column > 1 ? caret : start + lines[at - 1].length);
      area.scrollTop = metrics.top + (at - 1) * metrics.line - area.clientHeight / 3;
      area.scrollLeft = 0;
      element.scrollIntoView({ block: "nearest" });
      draw();
    },
    close: () => {
      sized.disconnect();
      draw.cancel();
    },
  };
}

/* ---- the view ---- */

export async function open(place, params, { api, live, me }) {
  const isOperator = me?.role === "operator" || me?.role === "admin";
  const stops = [];
  const stop = new AbortController();
  let isOpen = true;
  let fleet = null;
  let editor = null;
  let isReadOnly = true;
  let base = 0; /* the revision that the text in the editor was begun from */
  let appliedText = ""; /* of that revision */
  let checked = null; /* {text, answer} or {text, problem} */
  let checking = null;
  let checkTimer = 0;
  let wanted = params.query;

  const lead = h("p", { class: "lead" });
  const banner = h("div", { class: "stack tight" });
  const standing = h("section", { class: "panel" });
  const body = h("div", { class: "stack" });
  const revisions = h("section", { class: "panel", aria: { labelledby: "fleet-revisions" } });
  place.append(
    h("div", { class: "head" },
      h("div", { class: "spread" }, h("h1", { tabindex: "-1", text: "Fleet" }),
        h("ul", { class: "choices" },
          h("li", null, h("a", { href: to("fleet"), aria: { current: "true" }, text: "File" })),
          h("li", null, h("a", { href: to("changes"), text: "Changes" })))),
      lead),
    h("div", { class: "stack" }, banner, body, h("div", { class: "columns" }, revisions, standing)));

  const asWritten = (text) => (fleet.text?.includes("\r\n") ? text.replaceAll("\n", "\r\n") : text);
  const isDirty = () => editor !== null && editor.text !== appliedText;

  const asks = (event) => {
    if (isDirty()) {
      keepDraft({ text: editor.text, base, who: me?.name });
      event.preventDefault();
    }
  };
  window.addEventListener("beforeunload", asks);
  stops.push(() => window.removeEventListener("beforeunload", asks));

  /* ---- what is in force ---- */

  function showLead() {
    if (fleet.plan) {
      fill(lead, "A plan of raw commands rules this collector: there is no fleet.");
    } else if (fleet.revision === 0) {
      fill(lead, "Nothing was ever applied: no agent has a test from here.");
    } else {
      fill(lead, `Revision ${fleet.revision} by ${oneLine(fleet.author, 100)}, `,
        timeElement(fleet.time, { as: "ago" }),
        `: ${plural(fleet.tests, "test")} on ${plural(fleet.agents, "agent")}.`);
    }
  }

  function whyReadOnly() {
    if (fleet.plan) {
      return "This collector was started with --plan: tests are changed in that file. Start it without, " +
        "and it has a fleet.";
    }
    if (fleet.file) {
      return `The file ${clean(fleet.file)} of the collector's host rules (--fleet). Change that one: ` +
        "the collector reads it within two seconds.";
    }
    if (fleet.read_only) {
      return "Nothing can be applied to this collector.";
    }
    return isOperator ? "" : "Your role is viewer. Reading and applying the file takes the role operator, " +
      "because there may be passwords in it.";
  }

  function showStanding() {
    const counts = fleet.changes ?? {};
    const word = (outcome) => (counts[outcome] > 0 ? `${whole(counts[outcome])} ${outcome}` : "");
    const texts = [word("confirmed"), word("waiting"), word("sent"), word("unanswered"), word("impossible")]
      .filter(Boolean);
    const isApart = fleet.text_revision && fleet.text_revision !== fleet.revision;
    fill(standing, h("h2", { text: "In force" }),
      h("dl", { class: "facts" },
        fact("Source", fleet.plan ? "a plan of raw commands (--plan)"
          : fleet.file ? `the file ${clean(fleet.file)} (--fleet)` : "applied here or by the API"),
        fleet.revision > 0 ? [
          fact("Revision", String(fleet.revision)),
          isApart ? fact("Text of revision", String(fleet.text_revision)) : null,
          fact("By", oneLine(fleet.author, 100)),
          fact("Since", timeElement(fleet.time)),
          fleet.about ? fact("About", oneLine(fleet.about, 300)) : null,
          fact("Agents", whole(fleet.agents)),
          fact("Tests", whole(fleet.tests)),
        ] : null,
        fact("Changes", h("a", { href: to("changes"), text: texts.join(", ") || "none" }))));
  }

  let isKeptFromBefore = false; /* the text is not what was in force when this screen came */
  let justApplied = 0;
  let unsure = null; /* {text, isLooked}: whether it was applied was not answered */

  /* Why nothing can be applied, what is wrong with the file that rules, and who was first. */
  let bannerOf = "";
  function showBanner() {
    const why = whyReadOnly();
    const shown = JSON.stringify([why, fleet.trouble, justApplied, unsure?.isLooked,
      isDirty() && isKeptFromBefore, isConflict() && [fleet.text_revision, base], editor !== null]);
    if (bannerOf === shown) { /* what is said again is read out again */
      return;
    }
    bannerOf = shown;
    const box = (...what) => h("div", { class: "panel stack tight" }, what);
    const parts = [];
    if (fleet.trouble) {
      parts.push(h("div", { class: "failure" },
        h("p", { class: "failure-title", text: "The file that rules is wrong; what was in force goes on" }),
        h("p", { class: "message", text: clean(fleet.trouble) })));
    }
    if (why && editor) { /* else it stands where the text would be */
      parts.push(box(h("p", { text: why })));
    }
    if (unsure) {
      parts.push(h("div", { class: "failure", role: "alert" },
        h("p", { class: "failure-title", text: unsure.isLooked ? "Your text was not applied"
          : "It is not known whether your text was applied" }),
        h("p", { text: unsure.isLooked
          ? `Revision ${fleet.text_revision} is in force. Your text is here still: apply it again.`
          : "The collector did not answer. When it does, this page looks by itself." })));
    }
    if (justApplied) {
      parts.push(box(h("p", { role: "status" },
        `Revision ${justApplied} is in force; agents are told with their next polls. `,
        h("a", { href: to("changes", { query: { revision: justApplied } }), text: "What becomes of it" }))));
    }
    if (isConflict()) {
      parts.push(conflictElement());
    } else if (isDirty() && isKeptFromBefore) {
      parts.push(box(h("p", { text: "This text is not applied yet: it is what you left here." }),
        h("div", { class: "actions" }, discardButton())));
    }
    fill(banner, parts);
  }

  /* ---- somebody was first ---- */

  const isConflict = () => isDirty() && fleet.text_revision > base;

  function conflictElement() {
    const button = (text, click, kind = null) =>
      h("button", { type: "button", class: kind, text, on: { click } });
    return h("div", { class: "failure", role: "alert" },
      h("p", { class: "failure-title", text: "Somebody applied another text since you began" }),
      h("p", null, `Revision ${fleet.text_revision} is newer than ${base}, from which your text was begun. ` +
        "Applied as it is, yours undoes what they changed: the difference below has that, too. Look at " +
        "what they changed and write it into yours, or take theirs."),
      h("div", { class: "actions" },
        button("What they changed", showTheirs),
        button(`Go on with mine, on revision ${fleet.text_revision}`, goOnWithMine),
        button("Download mine", download),
        button("Take theirs", takeTheirs, "danger")));
  }

  async function textOf(revision) {
    return api.get(path, { query: { revision }, accept: yaml, signal: stop.signal });
  }

  async function showTheirs() {
    try {
      const before = base > 0 ? await textOf(base) : "";
      await dialog({
        title: `From revision ${base} to revision ${fleet.text_revision}`, large: true,
        body: lineDifferenceElement(before, fleet.text ?? ""), actions: [{ text: "Close" }],
      });
    } catch (problem) {
      banner.append(failure(problem));
    }
  }

  function goOnWithMine() {
    base = fleet.text_revision;
    appliedText = plain(fleet.text);
    keep();
    showBanner();
    check();
    editor.area.focus();
    announce("Your text stands on the newest revision now. The difference shows what it undoes of theirs.");
  }

  async function takeTheirs() {
    const isSure = await confirm({
      title: "Take their text?", body: "Yours is dropped. Download it first if you may need it.",
      action: "Take theirs", danger: true,
    });
    if (isSure) {
      take(fleet);
    }
  }

  /* ---- the text ---- */

  function take(now) {
    fleet = now;
    base = now.text_revision;
    appliedText = plain(now.text);
    isKeptFromBefore = false;
    unsure = unsure?.isLooked ? null : unsure;
    dropDraft();
    editor.set(appliedText);
    showBanner();
    check();
  }

  let isTold = false;
  const keep = throttle(() => {
    if (!isDirty()) {
      dropDraft();
    } else if (!keepDraft({ text: editor.text, base, who: me?.name }) && !isTold) {
      isTold = true;
      announce("This browser keeps nothing over a reload: apply or download your text before.");
    }
    showButtons();
  });
  stops.push(() => keep.cancel());

  function discardButton() {
    return h("button", { type: "button", class: "danger", text: "Drop my changes", on: {
      click: async () => {
        if (await confirm({ title: "Drop your changes?", body: "The editor has the text in force then.",
          action: "Drop them", danger: true })) {
          take(fleet);
          editor.area.focus();
        }
      } } });
  }

  function download() {
    const address = URL.createObjectURL(new Blob([asWritten(editor.text)], { type: yaml }));
    const link = h("a", { href: address, download: isDirty() ? "fleet-draft.yaml" : `fleet-${base}.yaml` });
    document.body.append(link);
    link.click();
    link.remove();
    setTimeout(() => URL.revokeObjectURL(address), 60000);
  }

  async function load(file) {
    if (!file) {
      return;
    }
    const problem = tooLarge(file.size);
    if (problem) {
      fill(outcome, failure(problem));
      return;
    }
    if (await mayReplace()) {
      replaceText(await file.text());
    }
  }

  async function mayReplace() {
    return !isDirty() || confirm({ title: "Replace your text?", action: "Replace it", danger: true,
      body: "The editor has text that is not applied." });
  }

  function replaceText(text) {
    editor.set(text);
    keep();
    check();
    editor.area.focus();
  }

  /* ---- checking ---- */

  const said = h("p", { class: "note", id: "fleet-said", role: "status" });
  const mistakes = h("div");
  const outcome = h("div", { class: "stack tight" });
  const apply = h("button", { type: "button", class: "primary", text: "Apply…",
    on: { click: () => alone(review) } });
  const drop = discardButton();

  function showButtons() {
    const isNothing = !isDirty();
    const isWrong = checked?.problem !== undefined && checked.text === editor.text;
    apply.disabled = isReadOnly || isNothing || isWrong || isConflict() || editor.text.trim() === "";
    drop.hidden = isReadOnly || isNothing;
    apply.hidden = isReadOnly;
  }

  function remarkButton(remark, className) {
    const { line, column, text } = remark;
    return h("li", null, h("button", {
      type: "button", class: className, on: { click: () => editor.goTo(line, column) },
    }, h("span", { class: "text", text: `Line ${line}, column ${column}: ${oneLine(text, 1000)}` })));
  }

  function showChecked() {
    const { answer, problem, text } = checked;
    if (text !== editor.text) {
      return;
    }
    const wrong = problem?.errors ?? [];
    const some = (remarks, className) =>
      remarks.slice(0, mostMistakes).map((each) => remarkButton(each, className));
    editor.mark(wrong.map(({ line }) => line));
    const notes = answer?.notes ?? [];
    fill(mistakes,
      wrong.length > 0 ? [
        h("h3", { text: plural(wrong.length, "mistake") }),
        h("ol", { class: "mistakes" }, some(wrong, "mistake")),
        wrong.length > mostMistakes
          ? h("p", { class: "note", text: `and ${wrong.length - mostMistakes} more` }) : null,
      ] : null,
      notes.length > 0 ? [
        h("h3", { text: "Read, and not heeded yet" }),
        h("ul", { class: "mistakes" }, some(notes, "quiet")),
      ] : null);
    let sentence = "";
    if (wrong.length > 0) {
      sentence = `${plural(wrong.length, "mistake")}, the first in line ${wrong[0].line}`;
      fill(outcome, h("p", { class: "note", text: "The difference is shown when there is no mistake." }));
    } else if (problem) {
      const isTooLarge = problem.status === 413;
      sentence = problem.status === 422 ? clean(problem.detail)
        : isTooLarge ? problem.title : "Not checked";
      fill(outcome, failure(problem, isTooLarge ? null : check));
    } else {
      sentence = !isDirty() ? "This is the text in force"
        : makesDifference(answer) ? "No mistake" : "No mistake, and nothing changes for any agent";
      fill(outcome, isDirty() || makesDifference(answer)
        ? [h("h3", { text: isDirty() ? "What it would change" : "What it changes for agents now" }),
          differenceElement(answer)]
        : null,
      remarksOf(answer).map((remark) => h("p", { class: "note", text: remark })));
    }
    said.textContent = `${sentence.replace(/\.$/, "")}.`;
    showButtons();
  }

  async function tryText(text, signal) {
    const problem = tooLarge(new Blob([asWritten(text)]).size);
    if (problem) {
      throw problem;
    }
    for (let tries = 1; ; tries++) {
      try {
        return await api.put(path, { query: { dry_run: 1 }, body: asWritten(text), type: yaml, signal });
      } catch (problem) {
        /* Another text is being read: one at a time. Nothing is changed by a trial. */
        if (problem.status !== 503 || tries >= 5 || signal?.aborted) {
          throw problem;
        }
        await new Promise((resolve) => setTimeout(resolve, 1000 * (problem.retryAfter ?? tries)));
        signal?.throwIfAborted();
      }
    }
  }

  async function check() {
    clearTimeout(checkTimer);
    checking?.abort();
    if (!isOperator || fleet.plan || !isOpen) {
      return;
    }
    const text = editor.text;
    if (text.trim() === "") {
      editor.mark([]);
      fill(mistakes);
      fill(outcome, h("p", { class: "note", text: 'A file without tests is "version: 1" alone.' }));
      said.textContent = "The file is empty.";
      checked = null;
      showButtons();
      return;
    }
    const mine = new AbortController();
    checking = mine;
    try {
      const answer = await tryText(text, mine.signal);
      checked = { text, answer };
    } catch (problem) {
      if (mine.signal.aborted) {
        return;
      }
      checked = { text, problem };
      if (problem.status === 0) {
        checkTimer = setTimeout(check, againAfterMs);
      }
    }
    if (isOpen && checking === mine) {
      showChecked();
    }
  }
  stops.push(() => {
    clearTimeout(checkTimer);
    checking?.abort();
  });

  function edited() {
    const hadBanner = isKeptFromBefore || justApplied || unsure?.isLooked;
    isKeptFromBefore = false;
    justApplied = 0;
    unsure = unsure?.isLooked ? null : unsure;
    keep();
    clearTimeout(checkTimer);
    checkTimer = setTimeout(check, checkAfterMs);
    said.textContent = "Checking…";
    if (hadBanner) {
      showBanner();
    }
  }

  /* ---- applying ---- */

  const alone = oneByOne((fn) => fn()); /* one dialog, however often one clicks before it is there */

  /* What is looked at is what is applied: the trial is made anew, and its revision goes with it. */
  async function review() {
    const text = editor.text;
    let trial;
    try {
      trial = await busy(tryText(text, stop.signal), outcome, "Comparing");
    } catch (problem) {
      checked = { text, problem };
      showChecked();
      if (problem.errors?.length > 0) {
        editor.goTo(problem.errors[0].line, problem.errors[0].column);
      }
      return;
    }
    if (trial.same) {
      announce("This text is in force already.");
      await refreshQuietly();
      take(fleet);
      return;
    }
    const done = await dialog({
      title: "Apply this text?", large: true,
      body: h("div", { class: "stack tight" }, differenceElement(trial),
        remarksOf(trial).map((remark) => h("p", { class: "note", text: remark })),
        h("p", { class: "note", text: "Agents are told with their next polls." })),
      actions: [
        { text: "Cancel" },
        { text: "Apply", kind: "primary", run: async () => {
          try {
            return await api.put(path, { query: { revision: base }, body: asWritten(text), type: yaml });
          } catch (problem) {
            if (problem.status === 409) {
              return { conflict: problem };
            }
            if (problem.status === 0) {
              return { isLost: true };
            }
            throw problem;
          }
        } },
      ],
    });
    if (!done || !isOpen) {
      return;
    }
    if (done.conflict) {
      await refreshQuietly();
      if (isConflict()) {
        announce("Somebody applied another text since you began. Nothing was changed.", true);
        banner.querySelector("button")?.focus();
      } else {
        fill(outcome, failure(done.conflict, check));
      }
      return;
    }
    if (done.isLost) {
      unsure = { text, isLooked: false };
      justApplied = 0;
      showBanner();
      lookSoon();
      return;
    }
    announce(`Revision ${done.revision} is in force. Agents are told with their next polls.`);
    appliedText = text;
    base = done.revision;
    justApplied = done.revision;
    unsure = null;
    isKeptFromBefore = false;
    dropDraft();
    await refreshQuietly();
    showRevisions();
    check();
  }

  /* Not at once: what was sent may be on its way still. Should it come later than that, the stream tells. */
  let lookTimer = 0;
  stops.push(() => clearTimeout(lookTimer));
  function lookSoon() {
    clearTimeout(lookTimer);
    lookTimer = setTimeout(async () => {
      if (!await refreshQuietly(true) && isOpen) {
        lookSoon();
      }
    }, againAfterMs);
  }

  function findApplied(isAsked) {
    if (plain(fleet.text) === unsure.text) {
      if (editor.text !== unsure.text) { /* somebody went on typing */
        base = fleet.text_revision;
        appliedText = unsure.text;
      }
      justApplied = fleet.text_revision;
      unsure = null;
      announce(`Revision ${justApplied} is in force: your text was applied.`);
      showRevisions();
    } else {
      unsure.isLooked ||= isAsked;
    }
  }

  /* ---- what was applied before ---- */

  let hasAll = false;
  async function showRevisions(next = null, before = []) {
    let page;
    try {
      page = await api.get(`${path}/revisions`, {
        query: { applied: hasAll ? null : 1, limit: 20, next }, signal: stop.signal,
      });
    } catch (problem) {
      if (isOpen) {
        headed(revisions, "fleet-revisions", "Revisions", failure(problem, () => showRevisions()));
      }
      return;
    }
    if (!isOpen) {
      return;
    }
    const items = [...before, ...page.items];
    const canRead = isOperator && !fleet.plan;
    const button = (text, name, click) =>
      h("button", { type: "button", class: "quiet", aria: { label: name }, text, on: { click } });
    fill(revisions,
      h("div", { class: "spread" }, h("h2", { id: "fleet-revisions", text: "Revisions" }),
        h("label", { class: "check", data: { key: "all" } }, h("input", {
          type: "checkbox", checked: hasAll, on: { change: (event) => {
            hasAll = event.target.checked;
            showRevisions();
          } },
        }), "also what the collector changed by itself")),
      items.length === 0
        ? emptyState("No revision yet", "Each text that is applied stands here, with the way back to it.")
        : table({
          caption: "Revisions of the fleet file, newest first", captionHidden: true, rows: items,
          keyOf: (each) => each.revision,
          columns: [
            { title: "Revision", numeric: true, heading: true, cell: (each) => String(each.revision) },
            { title: "Time", cell: (each) => timeElement(each.time) },
            { title: "By", cell: (each) => oneLine(each.author, 100) },
            { title: "About", wide: true, cell: (each) => oneLine(each.about, 300) },
            { title: "What to do", untitled: true, cell: (each) => (canRead && each.has_text
              ? h("div", { class: "row" },
                button("Show", `Show revision ${each.revision}`, () => alone(() => showRevision(each))),
                isReadOnly || each.revision === fleet.text_revision ? null
                  : button("Bring back", `Bring back revision ${each.revision}`,
                    () => alone(() => bringBack(each))))
              : null) },
          ],
        }),
      page.next ? h("p", { class: "more" }, h("button", {
        type: "button", text: "Show more",
        on: { click: () => alone(() => showRevisions(page.next, items)) },
      })) : null);
  }

  async function showRevision(each) {
    try {
      const text = await busy(textOf(each.revision), revisions);
      const isNow = each.revision === fleet.text_revision;
      const answer = await dialog({
        title: `Revision ${each.revision} by ${oneLine(each.author, 100)}`, large: true,
        body: [
          isNow ? null : h("h3", { text: "From it to the text in force" }),
          isNow ? null : lineDifferenceElement(text, fleet.text ?? ""),
          h("h3", { text: "Its text" }),
          h("ol", { class: "source" },
            text.split("\n").slice(0, 5000).map((line) => h("li", { text: clean(line) || " " }))),
        ],
        actions: isNow || isReadOnly ? [{ text: "Close" }]
          : [{ text: "Close" }, { text: "Bring back", value: "back", kind: "primary" }],
      });
      if (answer === "back") {
        await bringBack(each, text);
      }
    } catch (problem) {
      revisions.append(failure(problem));
    }
  }

  /* Into the editor; it is in force when it is applied. */
  async function bringBack(each, known = null) {
    try {
      const text = known ?? await busy(textOf(each.revision), revisions);
      if (!await mayReplace()) {
        return;
      }
      replaceText(text || "\n");
      announce(`The text of revision ${each.revision} is in the editor. Apply puts it into force.`);
      await review();
    } catch (problem) {
      revisions.append(failure(problem));
    }
  }

  /* ---- all of it ---- */

  async function refresh(isLookedUp = false) {
    const before = fleet.text_revision;
    fleet = await api.get(path, { signal: stop.signal });
    if (!isOpen) {
      return;
    }
    base = Math.min(base, fleet.revision); /* another collector's, maybe */
    if (unsure) {
      findApplied(isLookedUp);
    }
    /* What is not touched follows what is applied; so does what somebody applied just like that. */
    if (editor && (isDirty() ? editor.text === plain(fleet.text) : plain(fleet.text) !== appliedText)) {
      take(fleet);
    } else if (isDirty() && fleet.text_revision !== before) {
      check(); /* the difference is to another text now */
    }
    showLead();
    showStanding();
    showBanner();
    showEditable();
  }

  /* The connection tells of itself. */
  async function refreshQuietly(isLookedUp) {
    try {
      await refresh(isLookedUp);
      return true;
    } catch {
      return false;
    }
  }

  /* A file may come to rule while somebody types. */
  function showEditable() {
    isReadOnly = !isOperator || fleet.plan || fleet.read_only;
    if (editor) {
      editor.area.readOnly = isReadOnly;
      showButtons();
    }
  }

  function showEditor() {
    showEditable();
    if (!isOperator || fleet.plan) {
      const what = fleet.plan ? "There is no fleet file" : "The text is for operators";
      fill(body, emptyState(what, whyReadOnly()));
      return;
    }
    editor = createEditor({ onInput: edited, isReadOnly });
    const draft = isReadOnly ? null : readDraft(me?.name);
    base = fleet.text_revision;
    appliedText = plain(fleet.text);
    editor.set(appliedText);
    if (draft && draft.text !== appliedText) {
      base = Math.min(draft.base, fleet.revision);
      editor.set(draft.text);
      isKeptFromBefore = true;
    }
    const file = h("input", { type: "file", class: "hidden", id: "fleet-file", tabindex: "-1",
      accept: ".yaml,.yml,.json,text/*", aria: { label: "Fleet file to open" }, on: {
        change: () => load(file.files[0]).finally(() => {
          file.value = "";
        }) } });
    fill(body, h("section", { class: "panel stack tight", aria: { labelledby: "fleet-editor" } },
      h("div", { class: "spread" },
        h("h2", { id: "fleet-editor" }, h("label", { for: "fleet-text", text: "Fleet file" })), said),
      appliedText === "" && !isReadOnly && editor.text === ""
        ? emptyState("No fleet file yet", "It says which tests run on which hosts. Begin with a few lines " +
          "that fit every Linux host, and look at what they would change before you apply them.",
        h("button", { type: "button", class: "primary", text: "Begin with an example", on: {
          click: (event) => {
            event.target.closest(".empty").remove();
            replaceText(example);
          } } }))
        : null,
      editor.element,
      h("p", { class: "note", id: "fleet-keys", text: isReadOnly ? "This text is for reading only."
        : "Tab indents; Escape, then Tab leaves the editor. It is checked as you type, and changes nothing " +
          "before you apply it." }),
      h("div", { class: "actions" }, apply, drop,
        h("button", { type: "button", text: "Download", on: { click: download } }),
        isReadOnly ? null
          : [h("button", { type: "button", text: "Open a file…", on: { click: () => file.click() } }), file]),
      mistakes, outcome));
    showButtons();
    check();
    goToWanted(wanted);
  }

  /* In a text that is not applied yet the lines of a test may be others. */
  function goToWanted(query) {
    const line = Number(query.get("line")) || 0;
    if (line > 0) {
      const isOther = editor.text !== appliedText && query.has("test");
      const found = isOther ? findTest(editor.text, query.get("group"), query.get("test")) : null;
      editor.goTo(found?.from ?? line);
    }
  }

  async function begin() {
    try {
      fleet = await busy(api.get(path, { signal: stop.signal }), body);
    } catch (problem) {
      if (isOpen) {
        fill(body, failure(problem, begin));
      }
      return;
    }
    if (!isOpen) {
      return;
    }
    fill(body);
    showLead();
    showStanding();
    showEditor();
    showBanner();
    if (fleet.plan) {
      revisions.remove();
    } else {
      showRevisions();
    }
  }

  /* Many changes come together; what they are is read once. */
  let later = 0;
  const isAnother = () => {
    later ||= setTimeout(async () => {
      later = 0;
      const before = fleet?.revision;
      if (fleet && await refreshQuietly() && isOpen && fleet.revision !== before) {
        showRevisions();
      }
    }, 1000);
  };
  stops.push(() => clearTimeout(later), live.on("change", isAnother), live.on("lost", isAnother));

  begin();

  return {
    update(next) {
      if (editor && ["line", "test", "group"].some((name) => next.query.get(name) !== wanted.get(name))) {
        goToWanted(next.query);
      }
      wanted = next.query;
    },
    async mayClose() {
      return !isDirty() || keepDraft({ text: editor.text, base, who: me?.name }) || confirm({
        title: "Leave the editor?", action: "Leave it", danger: true,
        body: "Your text is not applied, and this browser keeps nothing: it is lost then.",
      });
    },
    close() {
      if (isDirty()) {
        keepDraft({ text: editor.text, base, who: me?.name });
      } else if (editor && !isReadOnly) {
        dropDraft();
      }
      isOpen = false;
      stop.abort();
      for (const each of stops) {
        each();
      }
      editor?.close();
    },
  };
}
