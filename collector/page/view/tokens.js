/* Tokens: who may ask the API, and the browsers that are signed in. A secret stands on the page from
 * when it is made until one is done with it, and is nowhere after that. For admins. */
import { natural } from "../base/order.js";
import { apiTime, clean, dayKey, now, plural } from "../base/text.js";
import { fill, h } from "../dom.js";
import { busy, confirm, emptyState, failure, once, table, timeElement } from "../parts.js";

const path = "/api/v1/tokens";
const roles = [
  ["viewer", "Reads everything but tokens, secrets and the text of the fleet file."],
  ["operator", "Applies the fleet file, too, has agents check now and retires them."],
  ["admin", "Lets agents in, too, makes tokens and sets secrets."],
];

/** Tokens first, by name; then sessions, the newest first. */
function inOrder(a, b) {
  if (a.kind !== b.kind) {
    return a.kind === "token" ? -1 : 1;
  }
  return a.kind === "token" ? natural(a.name, b.name) || a.id - b.id : b.id - a.id;
}

/** The end of that day where the reader is; null for none. */
function endOf(day) {
  return day ? apiTime(`${day}T23:59:59`) : null;
}

function dayFromNow(days) {
  const day = new Date(now());
  day.setDate(day.getDate() + days);
  return dayKey(day);
}

export const title = () => "Tokens";

export async function open(place, params, context) {
  const { api, announce, me } = context;
  const leaving = new AbortController();
  let all = [];

  const status = h("div"), made = h("div"), trouble = h("div"), none = h("div");
  const heading = h("h2", { id: "tokens-heading", tabindex: "-1", text: "All of them" });

  /* ---- the list ---- */

  const mayBeMine = (token) => token.kind === "token" && token.name === me?.name;

  async function remove(token) {
    const name = clean(token.name);
    const isSession = token.kind === "session";
    const body = [
      token.own ? "It is the one of this browser: this page is signed out at once, in all its tabs."
        : isSession ? "The browser that has this session is signed out at once." :
        "Whatever uses this token is refused from now on, and browsers that signed in with it are signed "
          + "out.",
      mayBeMine(token) ? " You may be signed in with it yourself: then this page is signed out, too." : "",
    ].join("");
    const gone = await confirm({ title: token.own ? "Sign this browser out?"
      : isSession ? `End this session of ${name}?` : `Remove the token ${name}?`, body,
      action: token.own ? "Sign out" : isSession ? "End it" : "Remove", danger: true,
      run: () => api.remove(`${path}/${token.id}`) });
    if (gone && token.own) {
      load(); /* whose answer is the sign-in form */
    } else if (gone) {
      all = all.filter((each) => each.id !== token.id);
      show();
      heading.focus();
      announce(isSession ? `The session of ${name} has ended.` : `The token ${name} is removed.`);
    }
  }

  const list = table({
    caption: "Tokens and sessions of browsers",
    captionHidden: true,
    keyOf: (token) => token.id,
    version: (token) => `${token.name} ${token.role} ${token.ends}`,
    columns: [
      { title: "Name", heading: true, cell: (token) => token.name },
      { title: "Role", cell: (token) => token.role },
      { title: "What it is", cell: (token) => [token.kind === "session" ? "session of a browser" : "token",
        token.own ? [", ", h("b", { text: "this browser" })] : null] },
      { title: "Made", cell: (token) => timeElement(token.made) },
      { title: "Ends", cell: (token) => (token.ends ? timeElement(token.ends) : "when it is removed") },
      { title: "What can be done", untitled: true, cell: (token) => h("button",
        { type: "button", class: "danger",
        aria: { label: token.own ? "End the session of this browser" : `${token.kind === "session"
          ? "End the session of" : "Remove the token"} ${clean(token.name)}` },
        text: token.kind === "session" ? "End" : "Remove", on: { click: () => remove(token) } }) },
    ],
  });

  function show() {
    all.sort(inOrder);
    list.hidden = all.length === 0;
    const tokens = all.filter((token) => token.kind === "token").length;
    heading.textContent = tokens > 0 ? `${plural(tokens, "token")}, ${plural(all.length - tokens, "session")}`
      : plural(all.length, "session");
    fill(none, tokens > 0 ? null : emptyState("There is no token yet",
      "Scripts, the command line and dashboards each want one of their own, with no larger role than they "
        + "need. Make one here, and put it where they read it: VINDRAL_TOKEN for vindralctl."));
    return list.update(all);
  }

  async function load() {
    fill(status);
    try {
      all = await busy(api.pages(path, {}, { limit: 1000, signal: leaving.signal }), status,
        "Loading tokens");
      await show();
    } catch (problem) {
      if (!leaving.signal.aborted) {
        fill(status, failure(problem, load));
      }
    }
  }

  /* ---- making one ---- */

  const name = h("input", { id: "token-name", type: "text", required: true, maxlength: "100",
    autocomplete: "off",
    spellcheck: "false", aria: { describedby: "token-name-hint" } });
  const role = h("select", { id: "token-role", aria: { describedby: "token-role-hint" } },
    roles.map(([word]) => h("option", { value: word, text: word })));
  const roleHint = h("p", { class: "field-hint", id: "token-role-hint" });
  const ends = h("input", { id: "token-ends", type: "date", min: dayFromNow(0),
    aria: { describedby: "token-ends-hint" } });
  const button = h("button", { class: "primary", text: "Make it" });
  const sayRole = () => {
    roleHint.textContent = roles.find(([word]) => word === role.value)[1];
  };
  role.addEventListener("change", sayRole);
  sayRole();

  async function make(event) {
    event.preventDefault();
    if (button.disabled) {
      return;
    }
    button.disabled = true;
    fill(trouble);
    try {
      const wanted = { name: name.value.trim(), role: role.value };
      if (ends.value) {
        wanted.ends = endOf(ends.value);
      }
      const token = await busy(api.post(path, { body: wanted }), trouble, "Making the token");
      if (leaving.signal.aborted) {
        return;
      }
      const { token: secret, ...rest } = token;
      all.push(rest);
      form.reset();
      sayRole();
      showSecret(rest, secret);
      show();
    } catch (problem) {
      if (!leaving.signal.aborted) {
        fill(trouble, failure(problem));
      }
    } finally {
      button.disabled = false;
    }
  }

  function showSecret(token, secret) {
    const its = h("h2", { tabindex: "-1", text: `The secret of ${clean(token.name)}` });
    const done = h("button", { type: "button", text: "I have it", on: { click: () => {
      fill(made);
      name.focus();
    } } });
    fill(made, h("section", { class: "panel stack tight" }, its, once(secret),
      h("p", { class: "note", text: "It is shown this once: the collector keeps no more than its hash. Put "
        + "it where only "
        + `whoever uses it can read; it is worth the role ${token.role} to anybody who has it.` }),
      h("div", { class: "actions" }, done)));
    its.focus();
    announce(`The token ${clean(token.name)} is made. Its secret is shown this once.`);
  }

  const form = h("form", { class: "stack tight", on: { submit: make } },
    h("div", { class: "field" }, h("label", { for: "token-name", text: "Name" }), name,
      h("p", { class: "field-hint", id: "token-name-hint",
        text: "Of who or what uses it: it stands in the log beside whatever is done with it." })),
    h("div", { class: "field" }, h("label", { for: "token-role", text: "Role" }), role, roleHint),
    h("div", { class: "field" }, h("label", { for: "token-ends", text: "Last day (may be empty)" }), ends,
      h("p", { class: "field-hint", id: "token-ends-hint", text: "Without one it lasts until it is "
        + "removed." })),
    trouble,
    h("div", { class: "actions" }, button));

  fill(place,
    h("header", { class: "head" }, h("h1", { tabindex: "-1", text: "Tokens" }),
      h("p", { class: "lead", text: "With a token programs ask the API, and people sign in. Removing one "
        + "ends it at once." })),
    h("div", { class: "stack" }, made,
      h("div", { class: "columns" },
        h("section", { class: "panel", aria: { labelledby: "tokens-heading" } }, heading, status, none, list),
        h("section", { class: "panel", aria: { labelledby: "token-make" } },
          h("h2", { id: "token-make", text: "Make a token" }), form))));
  load();

  return {
    close() {
      leaving.abort();
      fill(made); /* no secret stays in a page that is kept for going back */
    },
  };
}
