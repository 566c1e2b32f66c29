/* Who is not signed in, and how to be. The answer to a wrong token says nothing of what there is. */
import { signIn } from "./api.js";
import { fill, h } from "./dom.js";
import { clean } from "./base/text.js";

/** Why a token or a link did not sign in, in a sentence that says what to do. */
export function whyNot(problem, isLink) {
  switch (problem.status) {
  case 0:
    return "The collector does not answer. Is it running? Try again in a moment.";
  case 400:
  case 401:
    return isLink
      ? "This link does not sign in, or no longer: each does once, within 15 minutes. " +
        "'vindral-collector link' prints another."
      : "This token does not sign in, or no longer. " +
        "Tokens begin with vt_ and are printed once, when they are made.";
  case 429: {
    const seconds = problem.retryAfter ?? 60;
    return `Too many attempts failed; try again in ${seconds > 90 ? "a few minutes" : `${seconds} seconds`}.`;
  }
  default:
    return `The collector cannot sign you in now (${problem.status}): ` +
      (clean(problem.detail) || "its log says why.");
  }
}

/**
 * Shows the form.
 * @param {HTMLElement} place
 * @param {{said?: string, onSignedIn: () => void}} what `said`: why one is here
 */
export function showSignIn(place, { said = "", onSignedIn }) {
  const trouble = h("p", { class: "field-error", id: "token-error", role: "alert", text: said });
  const token = h("input", { id: "token", type: "password", autocomplete: "off", spellcheck: "false",
    autocapitalize: "off", required: true, aria: { describedby: "token-hint token-error" } });
  const button = h("button", { class: "primary", text: "Sign in" });
  let isBusy = false;
  const submit = async (event) => {
    event.preventDefault();
    const given = token.value.trim();
    if (isBusy) {
      return;
    }
    isBusy = true;
    button.setAttribute("aria-disabled", "true");
    trouble.textContent = "";
    try {
      await signIn(given.startsWith("vl_") ? { link: given } : { token: given });
      token.value = "";
      onSignedIn();
    } catch (problem) {
      trouble.textContent = whyNot(problem, given.startsWith("vl_"));
      token.setAttribute("aria-invalid", "true");
      token.focus();
      token.select();
    } finally {
      isBusy = false;
      button.removeAttribute("aria-disabled");
    }
  };
  token.addEventListener("input", () => token.removeAttribute("aria-invalid"));
  fill(place,
    h("div", { class: "sign-in stack" },
      h("div", { class: "head" },
        h("h1", { text: "Sign in" }),
        h("p", { class: "lead" }, "On the collector's machine, ",
          h("code", { text: "vindral-collector link" }),
          " prints a link that signs in this browser. A token does, too.")),
      h("form", { class: "panel stack", on: { submit } },
        h("div", { class: "field" },
          h("label", { for: "token", text: "Token" }), token,
          h("span", { class: "field-hint", id: "token-hint",
            text: "It begins with vt_; this browser stays signed in for 30 days." }),
          trouble),
        h("div", { class: "actions" }, button))));
  return { focus: () => token.focus() };
}
