#include "web/front_page.h"

#include "ingest/hash.h"

#include <openssl/evp.h>

namespace {

const char style[] = R"css(
body{font:1rem/1.5 system-ui,sans-serif;max-width:40rem;margin:3rem auto;padding:0 1rem;color-scheme:light dark}
input{font:inherit;width:100%;box-sizing:border-box}button{font:inherit;margin-top:.5rem}
)css";

const char body[] = R"html(
<h1>Vindral collector</h1>
<p id="said" role="status"></p>
<p id="who"></p>
<form id="form" hidden>
<label for="token">Token</label>
<input id="token" type="password" autocomplete="off" spellcheck="false" required>
<button>Sign in</button>
</form>
<div id="inside" hidden>
<ul>
<li><a href="/api/v1/tests?state=problem">What is wrong now</a></li>
<li><a href="/api/v1/agents">All agents</a></li>
<li><a href="/openapi.json">What else can be asked</a></li>
</ul>
<button id="out" type="button">Sign out</button>
</div>
<noscript>This is a vindral collection server. To sign in here takes JavaScript; programs use its API
with a token.</noscript>
)html";

/* The fragment is taken out of the address bar before anything else: it signs in. /healthz says who
 * asks once somebody who asked for something is known. */
const char script[] = R"js(
"use strict";
const at = (id) => document.getElementById(id);
const signInWith = async (secret) =>
  (await fetch("/sign-in", { method: "POST", body: JSON.stringify(secret) })).status;
const why = (status, wrong) =>
  status === 204 ? "" : status === 400 || status === 401 ? wrong
    : status === 429 ? "Too many attempts failed; try again in a minute."
      : "The collector cannot sign you in now (" + status + "); its log says why.";
async function show(said) {
  const known = (await fetch("/api/v1/agents?limit=1")).status !== 401;
  const me = known ? await (await fetch("/healthz")).json() : {};
  at("said").textContent = said;
  at("who").textContent = known ? "Signed in as " + (me.name ?? "?") + ", " + (me.role ?? "?") + "." :
    "You are not signed in. 'vindral-collector link' prints a link that signs in.";
  at("form").hidden = known;
  at("inside").hidden = !known;
}
async function begin() {
  const link = /^#link=(.+)$/.exec(location.hash);
  history.replaceState(null, "", location.pathname);
  await show(link ? why(await signInWith({ link: link[1] }),
    "This link does not sign in, or no longer: each does once, within 15 minutes. " +
    "'vindral-collector link' prints another.") : "");
}
const unlessAway = (work) => work.catch(() => {
  at("said").textContent = "The collector does not answer.";
});
at("form").addEventListener("submit", (event) => {
  event.preventDefault();
  const token = at("token").value.trim();
  at("token").value = "";
  unlessAway(signInWith({ token }).then((status) => show(why(status, "This token does not sign in, or no longer."))));
});
at("out").addEventListener("click", () =>
  unlessAway(fetch("/sign-out", { method: "POST" }).then(() => show("You are signed out."))));
window.addEventListener("hashchange", () => unlessAway(begin()));
unlessAway(begin());
)js";

/* As a policy names it. */
std::string source_of(std::string_view text) {
    const block_hash hash = sha256(text);
    unsigned char encoded[64];
    int length = EVP_EncodeBlock(encoded, reinterpret_cast<const unsigned char*>(hash.data()),
                                 static_cast<int>(hash.size()));
    return "'sha256-" + std::string(encoded, encoded + length) + "'";
}

front_page make_page() {
    front_page page;
    page.html = "<!DOCTYPE html>\n<html lang=\"en\">\n<meta charset=\"utf-8\">\n"
                "<meta name=\"viewport\" content=\"width=device-width\">\n"
                "<title>Vindral collector</title>\n<style>";
    page.html.append(style).append("</style>");
    page.html.append(body).append("<script>").append(script).append("</script>\n</html>\n");
    page.policy = "default-src 'none'; script-src " + source_of(script) + "; style-src " +
                  source_of(style) +
                  "; connect-src 'self'; base-uri 'none'; form-action 'none'; "
                  "frame-ancestors 'none'";
    return page;
}

} // namespace

const front_page& the_front_page() {
    static const front_page page = make_page();
    return page;
}
