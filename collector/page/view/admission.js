/* Who is let in: hosts that wait, by the fingerprints of their keys, invitations of new ones, names
 * and their certificates. The stream says nothing of this, so the list is asked for again and again,
 * which costs little while it is the same. For admins. */
import { to } from "../base/address.js";
import { byName } from "../base/order.js";
import { clean, now as presentTime, plural } from "../base/text.js";
import { announce, fill, h, keyed } from "../dom.js";
import { agentLink, badge, busy, confirm, emptyState, failure, once, table, timeElement } from "../parts.js";

const againMs = 5000, allAgainMs = 30000;
const pathOf = (who, what) => `/api/v1/agents/${encodeURIComponent(`${who.account}/${who.name}`)}/${what}`;
const keyOf = (who) => `${who.account}/${who.name}`;
const called = (who) => clean(keyOf(who));

/* What a state of a name is shown as, and in words. */
const shown = {
  waiting: ["unknown", "waiting"],
  invited: ["unknown", "invited"],
  known: ["unknown", "no certificate yet"],
  proven: ["ok", "proven"],
  revoked: ["problem", "revoked"],
  unknown: ["unknown", "undecided"],
};

/* What becomes of who has the name now. */
const consequences = {
  proven: "A host goes by that name already: its certificate is of no use any more when the new one is first "
    + "used.",
  revoked: "That name is revoked: it is let in again when this is used.",
  waiting: "A host waits under that name: if it is the right one, admit it instead, and this is not needed.",
};

const isLoopback = (url) => /^https:\/\/(127\.|localhost:|\[::1\])/.test(url);

/* Of a revoked name it does not matter any more. */
const endsSoon = (who) => Boolean(who.certificate?.ends_soon) && who.revoked === null;

export const title = () => "Admission";

export async function open(place, params, context) {
  const { api } = context;
  const leaving = new AbortController();
  let all = [], waitingWas = null, etag = {}, timer = 0, readAllAt = 0, isReading = false, isDue = false;

  const status = h("div"), made = h("div"), trouble = h("div"), noneWait = h("div"), noneKnown = h("div");
  const waiting = h("ul", { class: "problems" }), ending = h("div");
  const waitingHeading = h("h2", { id: "waiting-heading", tabindex: "-1", text: "Who waits" });
  const namesHeading = h("h2", { id: "names-heading", tabindex: "-1", text: "Names" });

  /* ---- deciding ---- */

  async function admit(who) {
    const { key, contested } = who.waiting;
    const body = h("div", { class: "stack tight" },
      contested ? h("p", { text: "Another host asks under this name, too, with another key, or has proven to "
        + "be it. Whoever is not admitted is shut out, and a certificate that the name has ends." }) : null,
      key ? [h("p", { text: "The host that has this key gets a certificate of the name. Compare it with what "
        + "vindral-enrol shows there:" }), h("p", { class: "mono text", text: clean(key) })]
        : h("p", { text: "It polls without a certificate. Where names are to be proven this does not let it "
        + "in yet: it has to be enrolled, too. Else it is let in as it is, and anybody who knows the name "
          + "could be it." }));
    const done = await confirm({ title: `Admit ${called(who)}?`, body, action: "Admit", danger: contested,
      run: async () => {
        const standing = await api.post(pathOf(who, "admit"), { body: key ? { key } : {} });
        announce(`${called(who)} is admitted${standing.needs_certificate
          ? "; it polls once it has its certificate" : ""}.`);
      } });
    if (done) {
      await readAgain();
      waitingHeading.focus();
    }
  }

  async function refuse(who) {
    const done = await confirm({ title: `Refuse ${called(who)}?`, action: "Refuse", danger: true,
      body: "The name is off the list, and the host that asked is refused for an hour. Then it may ask "
        + "again.",
      run: () => api.post(pathOf(who, "refuse")) });
    if (done) {
      announce(`${called(who)} is refused.`);
      await readAgain();
      waitingHeading.focus();
    }
  }

  async function revoke(who) {
    const done = await confirm({ title: `Revoke ${called(who)}?`, action: "Revoke", danger: true,
      body: "Its certificates, its admission and tokens that are not used yet are void: from its next poll "
        + "on it is not let in. What it reported stays, and it becomes silent; who is gone for good is "
        + "retired, too, on its own screen. An invitation lets the name in again.",
      run: () => api.del(pathOf(who, "enrolment")) });
    if (done) {
      announce(`${called(who)} is revoked.`);
      await readAgain();
      namesHeading.focus();
    }
  }

  /* ---- inviting ---- */

  const name = h("input", { id: "invite-name", type: "text", required: true, autocomplete: "off",
    autocapitalize: "none", spellcheck: "false", aria: { describedby: "invite-hint" } });
  const button = h("button", { class: "primary", text: "Make the command" });

  async function invite(who) {
    const typed = who.trim();
    if (!typed || button.disabled) {
      return;
    }
    button.disabled = true;
    fill(trouble);
    try {
      const answer = await busy(api.post(`/api/v1/agents/${encodeURIComponent(typed)}/enrolment`), trouble,
        "Making the invitation");
      if (leaving.signal.aborted) {
        return;
      }
      name.value = "";
      showInvitation(answer);
      readAgain();
    } catch (problem) {
      if (!leaving.signal.aborted) {
        fill(trouble, failure(problem));
        name.focus();
      }
    } finally {
      button.disabled = false;
    }
  }

  function showInvitation(answer) {
    const heading = h("h2",
      { tabindex: "-1", text: `Type this on the host that is to be ${called(answer)}` });
    const done = h("button", { type: "button", text: "Done", on: { click: () => {
      fill(made);
      name.focus();
    } } });
    fill(made, h("section", { class: "panel stack tight" }, heading, once(answer.command),
      h("p", { class: "note" }, "As root, until ", timeElement(answer.ends), ". It works once, and is shown "
        + "this once. It holds what the host needs to verify this collector: nothing else has to be carried "
        + "there."),
      consequences[answer.state] ? h("p", { text: consequences[answer.state] }) : null,
      isLoopback(answer.url) ? h("p", { text: "No other host reaches that address: start the collector with "
        + "--listen, then make another command." }) : null,
      h("div", { class: "actions" }, done)));
    heading.focus();
    announce("The command is made. It is shown this once.");
  }

  /* ---- who waits ---- */

  function makeWaiting(who) {
    const item = h("li", { class: "problem", data: { key: keyOf(who) } });
    updateWaiting(item, who);
    return item;
  }

  function updateWaiting(item, who) {
    const version = JSON.stringify([who.waiting, who.state, who.agent]);
    if (item.dataset.version === version) {
      return;
    }
    item.dataset.version = version;
    const { since, last, address, key, contested } = who.waiting;
    item.dataset.state = contested ? "problem" : "unknown";
    fill(item,
      h("div", { class: "problem-title" }, badge(contested ? "problem" : "unknown",
        { text: contested ? "contested" : "waiting" }), agentLink({ ...who, id: who.agent },
          { text: keyOf(who) })),
      h("div", { class: "problem-since" }, "for ", timeElement(since, { as: "since" })),
      h("dl", { class: "facts" },
        h("dt", { text: "Key" }), h("dd", { class: key ? "mono" : null,
          text: key ? clean(key) : "none yet: it polls; run vindral-enrol there" }),
        h("dt", { text: "Asks from" }), h("dd", { text: address ? clean(address) : "–" }),
        h("dt", { text: "Asked last" }), h("dd", null, timeElement(last, { as: "ago" }))),
      contested ? h("p", { class: "problem-message", text: "Another key has asked under this name, too, or "
        + "another host has proven to be it. Admit only the key that vindral-enrol shows on your "
        + "host." }) : null,
      h("div", { class: "actions", data: { key: "decide" } },
        h("button", { type: "button", class: "primary", text: "Admit",
          aria: { label: `Admit ${called(who)}` },
          on: { click: () => admit(who) } }),
        h("button", { type: "button", class: "danger", text: "Refuse",
          aria: { label: `Refuse ${called(who)}` },
          on: { click: () => refuse(who) } })));
  }

  /* ---- names ---- */

  function certificateCell({ certificate, revoked }) {
    if (!certificate || revoked) {
      return "–";
    }
    const isOver = Date.parse(certificate.ends) <= presentTime();
    return [isOver ? "ended " : "until ", timeElement(certificate.ends),
      certificate.ends_soon
        ? [" ", badge(isOver ? "problem" : "unknown", { text: isOver ? "has ended" : "ends soon" })] : null];
  }

  function decidedCell(who) {
    const time = who.revoked ?? who.admitted;
    return time ? [who.revoked ? "revoked " : "admitted ", timeElement(time),
      who.by ? ` by ${clean(who.by)}` : ""] : "–";
  }

  const list = table({
    caption: "Names about which something is decided",
    captionHidden: true,
    keyOf,
    version: (who) => JSON.stringify([who.state, who.admitted, who.by, who.revoked, who.certificate,
      who.invited, who.needs_certificate, who.agent]),
    columns: [
      { title: "Name", heading: true, cell: (who) => agentLink({ ...who, id: who.agent },
        { text: keyOf(who) }) },
      { title: "State", cell: (who) => {
        const [state, word] = shown[who.state] ?? shown.unknown;
        return [badge(state, { text: word }), who.invited && who.state !== "invited" ? h("p", { class: "note",
          text: "invited, too: that token is not used yet" }) : null, who.needs_certificate
            ? h("p", { class: "note",
          text: "admitted, and let in once it shows a certificate" }) : null];
      } },
      { title: "Decided", cell: decidedCell },
      { title: "Certificate", cell: certificateCell },
      { title: "What can be done", untitled: true, cell: (who) => h("div", { class: "row" },
        h("button", { type: "button", text: "Invite", aria: { label: `Invite a host as ${called(who)}` },
          on: { click: () => invite(keyOf(who)) } }),
        who.state === "revoked" ? null : h("button", { type: "button", class: "danger", text: "Revoke",
          aria: { label: `Revoke ${called(who)}` }, on: { click: () => revoke(who) } })) },
    ],
  });

  const search = h("input", { id: "names-q", type: "search", autocomplete: "off", spellcheck: "false" });
  search.addEventListener("input", () => showNames());

  function showNames() {
    const part = search.value.trim().toLowerCase();
    const decided = all.filter((who) => who.state !== "waiting" || who.admitted !== null);
    const found = decided.filter((who) => keyOf(who).toLowerCase().includes(part));
    namesHeading.textContent = decided.length > 0 ? plural(decided.length, "name") : "Names";
    searchField.hidden = decided.length < 10 && !part;
    list.hidden = found.length === 0;
    fill(noneKnown, found.length > 0 ? null : decided.length > 0
      ? emptyState("No name is like that", "Take some of the text away.")
      : emptyState("Nobody is admitted yet",
        "Invite a host: give it a name, and type the command that is shown on it. Hosts that ask by "
          + "themselves wait above."));
    return list.update(found);
  }

  /* The ones that asked first are first: they do not move when others come. */
  function showWaiting() {
    const those = all.filter((who) => who.waiting).sort((a, b) =>
      (a.waiting.since ?? "").localeCompare(b.waiting.since ?? "") || byName(a, b));
    waitingHeading.textContent = those.length > 0 ? `Who waits (${those.length})` : "Who waits";
    fill(noneWait, those.length > 0 ? null : h("p", { class: "note", text: "Nobody. A host that asks without "
      + "an invitation stands here within seconds, with the fingerprint of its key." }));
    const now = new Set(those.map(keyOf));
    const fresh = waitingWas ? those.filter((who) => !waitingWas.has(keyOf(who))) : [];
    if (fresh.length > 0) {
      announce(fresh.length === 1 ? `${called(fresh[0])} waits to be admitted.`
        : `${fresh.length} more hosts wait.`);
    }
    waitingWas = now;
    return keyed(waiting, those, keyOf, makeWaiting, updateWaiting);
  }

  function showEnding() {
    const those = all.filter(endsSoon).sort((a, b) => a.certificate.ends.localeCompare(b.certificate.ends)
      || byName(a, b));
    const most = 20;
    fill(ending, those.length === 0 ? null : h("section", { class: "panel stack tight",
      aria: { labelledby: "ending-heading" } },
      h("h2", { id: "ending-heading",
        text: `${plural(those.length, "certificate")} should have been renewed` }),
      h("p", { class: "note", text: "Hosts renew by themselves when a third of the time is left. Is the "
        + "timer running there? systemctl list-timers vindral-enrol.timer. A host whose certificate has "
        + "ended is invited anew." }),
      h("div", { class: "stack tight", role: "list" }, those.slice(0, most).map((who) => h("div",
        { class: "row",
        role: "listitem" }, agentLink({ ...who, id: who.agent }, { text: keyOf(who) }),
      h("span", null, certificateCell(who))))),
      those.length > most
        ? h("p", { class: "note", text: `And ${those.length - most} more, in the list of names.` }) : null));
  }

  function show() {
    showEnding();
    return Promise.all([showWaiting(), showNames()]);
  }

  /* ---- reading ---- */

  async function readAll() {
    const found = await api.pages("/api/v1/enrolments", {}, { limit: 1000, signal: leaving.signal });
    all = found;
    readAllAt = Date.now();
  }

  /* Between two times that all are read, those that wait. */
  async function readWaiting() {
    const before = etag.data;
    const found = await api.get("/api/v1/enrolments", { query: { state: "waiting", limit: 1000 }, etag,
      signal: leaving.signal });
    if (found === before) {
      return false;
    }
    const now = new Map(found.items.map((who) => [keyOf(who), who]));
    const isGone = all.some((who) => who.waiting && !now.has(keyOf(who)));
    if (isGone) { /* it is something else now */
      await readAll();
      return true;
    }
    for (let i = 0; i < all.length; i++) {
      const key = keyOf(all[i]);
      if (now.has(key)) {
        all[i] = now.get(key);
        now.delete(key);
      }
    }
    all.push(...now.values());
    return true;
  }

  async function readAgain(isForced = true) {
    clearTimeout(timer);
    isDue ||= isForced;
    if (isReading || leaving.signal.aborted) {
      return;
    }
    isReading = true;
    try {
      if (!document.hidden || isDue) {
        /* Who is invited, or admitted without a certificate, is soon something else. */
        const isWhole = isDue || Date.now() - readAllAt > allAgainMs ||
          all.some((who) => who.invited || who.needs_certificate);
        isDue = false;
        const isOther = isWhole ? (await readAll(), true) : await readWaiting();
        fill(status);
        if (isOther) {
          show();
        }
      }
    } catch (problem) {
      if (!leaving.signal.aborted && problem?.status !== 401) {
        fill(status, failure(problem, () => readAgain()));
      }
    } finally {
      isReading = false;
      if (!leaving.signal.aborted) {
        timer = setTimeout(() => readAgain(false), isDue ? 0 : againMs);
      }
    }
  }

  async function load() {
    fill(status);
    try {
      await busy(readAll(), status, "Loading who is let in");
      await show();
      timer = setTimeout(() => readAgain(false), againMs);
    } catch (problem) {
      if (!leaving.signal.aborted) {
        fill(status, failure(problem, load));
      }
    }
  }

  const onLook = () => (document.hidden ? null : readAgain(false));
  document.addEventListener("visibilitychange", onLook);

  /* ---- the screen ---- */

  const form = h("form", { class: "stack tight", on: { submit: (event) => {
    event.preventDefault();
    invite(name.value);
  } } },
  h("div", { class: "field" }, h("label", { for: "invite-name", text: "Name of the host" }), name,
    h("p", { class: "field-hint", id: "invite-hint", text: "web-2, or account/web-2 where there are several "
      + "accounts. It may be new." })),
  trouble, h("div", { class: "actions" }, button));
  const searchField = h("div", { class: "field", hidden: true },
    h("label", { for: "names-q", text: "Part of a name" }), search);

  fill(place,
    h("header", { class: "head" }, h("h1", { tabindex: "-1", text: "Admission" }),
      h("p", { class: "lead", text: "Which hosts may report, and under which name." })),
    h("div", { class: "stack" }, made, status, ending,
      h("div", { class: "columns" },
        h("section", { class: "panel", aria: { labelledby: "waiting-heading" } }, waitingHeading,
          noneWait, waiting),
        h("section", { class: "panel", aria: { labelledby: "invite-heading" } },
          h("h2", { id: "invite-heading", text: "Invite a host" }), form)),
      h("section", { class: "panel stack tight", aria: { labelledby: "names-heading" } },
        namesHeading, searchField, noneKnown, list),
      h("p", { class: "note" }, "How an agent that is let in is doing: ",
        h("a", { href: to("now"), text: "Now" }), ".")));
  load();

  return {
    close() {
      leaving.abort();
      clearTimeout(timer);
      document.removeEventListener("visibilitychange", onLook);
      fill(made); /* no token stays in a page that is kept for going back */
    },
  };
}
