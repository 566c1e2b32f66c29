/* Secrets of tests: their names, who set them, how many tests use them. Values go in and never come
 * out, so nothing here could show one; the field forgets what was typed as soon as it is sent. For
 * admins. */
import { natural } from "../base/order.js";
import { clean, plural } from "../base/text.js";
import { fill, h } from "../dom.js";
import { badge, busy, confirm, emptyState, failure, table, timeElement } from "../parts.js";

const path = "/api/v1/secrets";
const pathOf = (name) => `${path}/${encodeURIComponent(name)}`;

export const title = () => "Secrets";

export async function open(place, params, context) {
  const { api, announce } = context;
  const leaving = new AbortController();
  let all = [];

  const status = h("div"), trouble = h("div"), none = h("div");
  const heading = h("h2", { id: "secrets-heading", tabindex: "-1", text: "All of them" });

  /* ---- the list ---- */

  async function remove(secret) {
    const body = secret.used > 0
      ? `Tests of the fleet file that use it: ${secret.used}. They are sent to nobody any more,`
        + " and agents that have them keep them, with the value, until they are started anew."
      : "No test uses it.";
    const gone = await confirm({ title: `Remove the secret ${secret.name}?`, body, action: "Remove",
      danger: true,
      run: () => api.remove(pathOf(secret.name)) });
    if (gone) {
      all = all.filter((each) => each.name !== secret.name);
      show();
      heading.focus();
      announce(`The secret ${secret.name} is removed.`);
    }
  }

  const list = table({
    caption: "Secrets of tests",
    captionHidden: true,
    keyOf: (secret) => secret.name,
    version: (secret) => `${secret.made} ${secret.by} ${secret.readable} ${secret.used}`,
    columns: [
      { title: "Name", heading: true, cell: (secret) => h("code", { text: clean(secret.name) }) },
      { title: "Used by", numeric: true, cell: (secret) => (secret.used > 0 ? plural(secret.used, "test")
        : "no test") },
      { title: "Value set", cell: (secret) => [timeElement(secret.made), " by ", clean(secret.by)] },
      { title: "State", cell: (secret) => (secret.readable ? "good"
        : [badge("problem", { text: "cannot be opened" }),
          h("p", { class: "note", text: "The collector has another key now. Set the value anew." })]) },
      { title: "What can be done", untitled: true, cell: (secret) => h("div", { class: "row" },
        h("button", { type: "button", text: "Set anew", aria: { label: `Set anew ${clean(secret.name)}` },
          on: { click: () => begin(secret.name) } }),
        h("button", { type: "button", class: "danger", text: "Remove",
          aria: { label: `Remove ${clean(secret.name)}` },
          on: { click: () => remove(secret) } })) },
    ],
  });

  function show() {
    all.sort((a, b) => natural(a.name, b.name));
    list.hidden = all.length === 0;
    heading.textContent = all.length > 0 ? plural(all.length, "secret") : "All of them";
    fill(none, all.length > 0 ? null : emptyState("There is no secret yet",
      "Passwords and keys of tests need not stand in the fleet file: set one here, and write ${secret:NAME} "
        + "in its place. Only agents that have proven who they are get the value."));
    return list.update(all);
  }

  async function load() {
    fill(status);
    try {
      all = await busy(api.pages(path, {}, { limit: 1000, signal: leaving.signal }), status,
        "Loading secrets");
      await show();
    } catch (problem) {
      if (!leaving.signal.aborted) {
        fill(status, failure(problem, load));
      }
    }
  }

  /* ---- setting one ---- */

  const name = h("input", { id: "secret-name", type: "text", required: true, maxlength: "64",
    pattern: "[A-Za-z0-9._\\-]+", title: "Letters, digits, '-', '_' and '.'", autocomplete: "off",
    autocapitalize: "none", spellcheck: "false", aria: { describedby: "secret-name-hint" } });
  const value = h("input", { id: "secret-value", type: "password", required: true, maxlength: "4096",
    autocomplete: "new-password", spellcheck: "false", aria: { describedby: "secret-value-hint" } });
  const button = h("button", { class: "primary", text: "Set it" });

  function begin(known) {
    name.value = known;
    value.value = "";
    value.focus();
  }

  async function set(event) {
    event.preventDefault();
    if (button.disabled) {
      return;
    }
    const called = name.value.trim();
    const body = { value: value.value };
    button.disabled = true;
    fill(trouble);
    try {
      const kept = await busy(api.put(pathOf(called), { body }), trouble, "Setting the secret");
      value.value = "";
      if (leaving.signal.aborted) {
        return;
      }
      name.value = "";
      const isNew = !all.some((each) => each.name === kept.name);
      all = [...all.filter((each) => each.name !== kept.name), kept];
      show();
      name.focus();
      announce(isNew ? `The secret ${kept.name} is set.`
        : `The secret ${kept.name} has another value; agents get it with their next poll.`);
    } catch (problem) {
      if (!leaving.signal.aborted) {
        fill(trouble, failure(problem));
      }
    } finally {
      button.disabled = false;
    }
  }

  const form = h("form", { class: "stack tight", autocomplete: "off", on: { submit: set } },
    h("div", { class: "field" }, h("label", { for: "secret-name", text: "Name" }), name,
      h("p", { class: "field-hint", id: "secret-name-hint", text: "Letters, digits, '-', '_' and '.', 64 at "
        + "most. Tests have ${secret:NAME} in place of the value." })),
    h("div", { class: "field" }, h("label", { for: "secret-value", text: "Value" }), value,
      h("p", { class: "field-hint", id: "secret-value-hint", text: "It is kept sealed, and nobody can read "
        + "it here again. A name that is there already gets this value." })),
    trouble,
    h("div", { class: "actions" }, button));

  fill(place,
    h("header", { class: "head" }, h("h1", { tabindex: "-1", text: "Secrets" }),
      h("p", { class: "lead", text: "Values that tests use and nobody reads: the fleet file has their "
        + "names." })),
    h("div", { class: "columns" },
      h("section", { class: "panel", aria: { labelledby: "secrets-heading" } }, heading, status, none, list),
      h("section", { class: "panel", aria: { labelledby: "secret-set" } },
        h("h2", { id: "secret-set", text: "Set a secret" }), form)));
  load();

  return {
    close() {
      leaving.abort();
      value.value = "";
    },
  };
}
