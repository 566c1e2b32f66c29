/* The page: who is signed in, which screen an address means, and whether the collector is there. A
 * screen is a module of view/; it is loaded when it is first asked for. */
import * as api from "./api.js";
import { read, to } from "./base/address.js";
import { Model } from "./base/model.js";
import { ago, clean, clock, exact, now } from "./base/text.js";
import { announce, fill, h } from "./dom.js";
import { connectLive } from "./live.js";
import * as parts from "./parts.js";
import { showSignIn, whyNot } from "./signIn.js";

const product = "Vindral";
const awayShownAfter = 3000, headingWithin = 300, scrollWithin = 1500, reloadedAgainAfter = 60000,
  liveWithin = 300;

const clockSaidMs = 120000;

const modules = ["now", "agent", "test", "events", "fleet", "changes", "admission", "tokens", "secrets"];
const forAdmins = ["admission", "tokens", "secrets"];
const screens = [["now", "Now"], ["events", "Events"], ["fleet", "Fleet"], ["admission", "Admission"],
  ["tokens", "Tokens"], ["secrets", "Secrets"]];

const nameOf = (view) => screens.find(([each]) => each === view)?.[1] ?? product;
const at = (id) => document.getElementById(id);

let me = null;        /* null: nobody is signed in */
let live = null;
let model = new Model();
let current = null;   /* {route, module, handle, stopTitle} */
let shows = 0;        /* what a screen that was left still does is nobody's business */
let version = "";     /* of the collector, when this page was loaded */

/* ---- screens ---- */

const context = () => ({ api, live, model, me, go, announce, parts });

/* Where each entry of the history was scrolled to. A browser that does it itself does so before
 * the screen has its lists. */
const scrolls = new Map();
let entry = history.state?.entry ?? newEntry();
function newEntry() {
  return `${Date.now().toString(36)}-${Math.random().toString(36).slice(2, 8)}`;
}

function leave() {
  shows++;
  parts.closeDialogs();
  current?.stopTitle?.();
  try {
    current?.handle?.close?.();
  } catch (error) {
    console.error(error);
  }
  current = null;
}

/* A fresh one for each screen: one that was left may still write into its own. */
function emptyMain() {
  const old = at("main");
  const main = h("main", { class: "page", id: "main", tabindex: "-1" });
  old.replaceWith(main);
  return main;
}

/* The title of the window is the heading, which has the name of an agent once that is known. */
function followHeading(main, fallback) {
  let heading = null;
  const name = () => {
    const text = heading?.textContent.trim() || fallback;
    document.title = text ? `${text} – ${product}` : `${product} collector`;
  };
  const ofHeading = new MutationObserver(name);
  const look = () => {
    const found = main.querySelector("h1");
    if (found !== heading) {
      heading = found;
      ofHeading.disconnect();
      if (found) {
        ofHeading.observe(found, { childList: true, characterData: true, subtree: true });
      }
      name();
    }
  };
  const ofMain = new MutationObserver(look);
  ofMain.observe(main, { childList: true });
  name();
  look();
  return () => {
    ofHeading.disconnect();
    ofMain.disconnect();
  };
}

/* Who has gone on from there meanwhile is not called back. */
const hadFocus = new WeakSet(); /* of main elements: their headings */
function focusHeading(main) {
  const heading = main.querySelector("h1");
  const isElsewhere = document.activeElement !== document.body && document.activeElement?.isConnected &&
    (hadFocus.has(main) || main.contains(document.activeElement) || document.activeElement.closest("dialog"));
  if (heading && !isElsewhere) {
    hadFocus.add(main);
    heading.tabIndex = -1;
    heading.focus({ preventScroll: true });
  }
  return heading !== null;
}

/* Lists grow for some frames after a screen is there; whoever scrolls meanwhile is left alone. */
function scrollBack(y, mine) {
  const until = performance.now() + scrollWithin;
  let isTaken = false;
  const take = () => {
    isTaken = true;
  };
  const kinds = ["wheel", "touchstart", "keydown", "pointerdown"];
  kinds.forEach((kind) => addEventListener(kind, take, { once: true, passive: true }));
  const again = () => {
    if (isTaken || mine !== shows || performance.now() > until || Math.abs(scrollY - y) < 2) {
      kinds.forEach((kind) => removeEventListener(kind, take));
      return;
    }
    scrollTo(0, y);
    requestAnimationFrame(again);
  };
  again();
}

function showTrouble(main, title, problem, retry) {
  fill(main, h("div", { class: "head" }, h("h1", { text: title })), problem instanceof NotLoaded
    ? parts.failure(problem, () => location.reload(), "Load the page again") : parts.failure(problem, retry));
}

function notHere(main) {
  fill(main, h("div", { class: "head" }, h("h1", { text: "Nothing is here" })),
    parts.emptyState("This address is none of the page's", "It may have been cut, or typed wrong.",
      h("a", { class: "button", href: "/", text: "What is wrong now" })));
}

class NotLoaded extends api.Problem {}

/* Not again at once, and not where that cannot be known. */
function mayReload() {
  try {
    const last = Number(sessionStorage.getItem("reloaded"));
    sessionStorage.setItem("reloaded", Date.now());
    return Date.now() - last > reloadedAgainAfter;
  } catch {
    return false;
  }
}

/* The modules of this page are gone when the collector was updated meanwhile: the page is loaded
 * anew. */
async function load(name) {
  try {
    return await import(`./view/${name}.js`);
  } catch (error) {
    console.warn(error);
    const isThere = await api.me().then(() => true, () => false);
    if (isThere && mayReload()) {
      location.reload();
      await new Promise(() => {});
    }
    throw new NotLoaded(isThere ? { status: 410, title: "This part of the page did not come",
      detail: "The collector may have been updated since the page was loaded." }
      : { detail: "This part of the page is not here yet." });
  }
}

function markMenu(view) {
  for (const link of at("menu").querySelectorAll("a")) {
    const isIt = link.dataset.view === view || (view === "changes" && link.dataset.view === "fleet");
    if (isIt) {
      link.setAttribute("aria-current", "page");
    } else {
      link.removeAttribute("aria-current");
    }
  }
}

/** What the address bar says. `isFirst`: the browser has put the focus itself. */
async function show({ isFirst = false, y = 0 } = {}) {
  const route = read(location);
  if (current?.handle?.update && current.route.view === route.view && current.route.id === route.id) {
    current.route = route;
    await current.handle.update(route);
    if (y > 0) {
      scrollBack(y, shows);
    }
    return;
  }
  leave();
  model.takeMessage({ kind: "lost", data: {} }); /* screens tell it what comes: it may have missed some */
  const mine = shows, isOver = () => mine !== shows;
  const main = emptyMain();
  markMenu(route.view);
  const isScreen = modules.includes(route.view);
  if (!isScreen || (forAdmins.includes(route.view) && me.role !== "admin")) {
    if (isScreen) {
      showTrouble(main, nameOf(route.view),
        new api.Problem({ status: 403, detail: "Sign in with a token or a link that has the role admin." }));
    } else {
      notHere(main);
    }
    current = { route, stopTitle: followHeading(main, "") };
    focusHeading(main);
    return;
  }
  let module = null;
  const retry = () => {
    if (!isOver()) {
      current = null;
      show();
    }
  };
  try {
    [module] = await parts.busy(Promise.all([load(route.view), live.soon(liveWithin)]), main);
    if (isOver()) {
      return;
    }
    const opened = module.open(main, route, context());
    current = { route, module, handle: null, stopTitle: followHeading(main, module.title(route)) };
    if (!isFirst) { /* lists may take a while */
      setTimeout(() => isOver() || focusHeading(main), headingWithin);
    }
    const handle = await opened;
    if (isOver()) {
      handle?.close?.();
      return;
    }
    current.handle = handle;
  } catch (problem) {
    if (isOver()) {
      return;
    }
    if (problem?.status !== 401) {
      console.error(problem);
      current?.stopTitle?.();
      showTrouble(main, module ? module.title(route) : nameOf(route.view), problem, retry);
      current = { route, stopTitle: followHeading(main, "") };
    }
  }
  if (!isFirst) {
    focusHeading(main);
  }
  if (y > 0) {
    scrollBack(y, mine);
  } else if (!isFirst) {
    scrollTo(0, 0);
  }
}

/**
 * To another screen, or another state of this one.
 * @param {string} path as base/address.js makes it
 * @param {{replace?: boolean}} [how] without an entry in the history
 */
async function go(path, { replace = false } = {}) {
  const handle = current?.handle;
  const route = read(path), isSame = current?.route.view === route.view && current.route.id === route.id;
  if (!isSame && handle?.mayClose && !await handle.mayClose()) {
    return;
  }
  if (replace) {
    history.replaceState({ entry }, "", path);
  } else if (path !== location.pathname + location.search) {
    scrolls.set(entry, scrollY);
    entry = newEntry();
    history.pushState({ entry }, "", path);
  }
  await show();
}

function onClick(event) {
  const link = event.target.closest?.("a[href]");
  const isPlain = event.button === 0 && !(event.metaKey || event.ctrlKey || event.shiftKey || event.altKey);
  if (!link || !isPlain || event.defaultPrevented || link.target || link.hasAttribute("download")) {
    return;
  }
  if (link.id === "skip") {
    event.preventDefault();
    at("main").focus();
    return;
  }
  const url = new URL(link.href, location.href);
  if (url.origin === location.origin && !url.hash && me && read(url).view !== "unknown") {
    event.preventDefault();
    go(url.pathname + url.search);
  }
}

function onPopState(event) {
  if (!me || location.hash) { /* a link that signs in, or nothing that the page knows */
    return;
  }
  scrolls.set(entry, scrollY);
  entry = event.state?.entry ?? newEntry();
  if (!event.state?.entry) {
    history.replaceState({ entry }, "");
  }
  show({ y: scrolls.get(entry) ?? 0 });
}

/* ---- the line on top ---- */

let awayTimer = 0, hasSaidAway = false, wasAway = false;

function showTop() {
  const menu = at("menu"), who = at("who");
  menu.hidden = who.hidden = !me;
  if (!me) {
    fill(menu);
    fill(who);
    showBanner(null);
    clearTimeout(awayTimer); /* who is signed out knows it */
    hasSaidAway = wasAway = false;
    return;
  }
  fill(menu, h("ul", null, screens.filter(([view]) => me.role === "admin" || !forAdmins.includes(view))
    .map(([view, name]) => h("li", null, h("a", { href: to(view), data: { view }, text: name })))));
  fill(who,
    h("span", { class: "connection", id: "connection", data: { state: "connecting" }, text: "Connecting…" }),
    h("span", { class: "who-name", text: `${clean(me.name)}, ${me.role}` }),
    h("button", { type: "button", id: "out", text: "Sign out", on: { click: signOut } }));
  showConnection(live.state);
  showBanners();
}

let banner = null;
function showBanner(kind, ...content) {
  banner = kind ? h("div", { class: "banner", data: { kind } }, content) : null;
  showBanners();
}

function showBanners() {
  const aheadMs = Date.now() - now();
  const size = ago(Math.round(Math.abs(aheadMs) / 60000) * 60);
  fill(at("banner"), banner, me && Math.abs(aheadMs) > clockSaidMs
    ? h("div", { class: "banner", data: { kind: "note" } }, `This device's clock is ${size} ${
      aheadMs > 0 ? "ahead of" : "behind"} the collector's; times are reckoned by the collector's.`) : null);
}

function showConnection(state) {
  const place = at("connection");
  if (!place) {
    return;
  }
  clearTimeout(awayTimer);
  const began = new Date(state.since - Date.now() + now()), since = clock(began);
  const words = { connecting: "Connecting…", live: "Live", away: `Not connected since ${since}` };
  place.dataset.state = state.state;
  place.textContent = words[state.state];
  place.title = state.state === "away" ? exact(began) : "";
  if (state.state === "away" && state.status !== 401) {
    /* A collector that only restarts is back by then. */
    awayTimer = setTimeout(() => {
      hasSaidAway = true;
      const time = parts.timeElement(began.toISOString());
      const said = h("span", null, state.status === 429
        ? "Too many streams are open with this token, so nothing new comes to this page; it is tried again."
        : [state.status > 0 ? "Nothing new has come from the collector since "
          : "The collector has not answered since ", time,
        ". What is shown is from then; the page goes on by itself."]);
      showBanner("away", said);
      announce(said.textContent);
    }, Math.max(0, state.since + awayShownAfter - Date.now()));
  } else if (hasSaidAway && state.state === "live") {
    hasSaidAway = false;
    showBanner(null);
    announce("The collector answers again.");
  }
}

function onState(state) {
  showConnection(state);
  const isBack = wasAway && state.state === "live";
  wasAway = state.state === "away";
  if (state.status === 401) {
    lookAgain(restartSoon);
  } else if (isBack) {
    lookAgain();
    for (const button of document.querySelectorAll("#main .failure[data-away] > button")) {
      button.click();
    }
  }
}

/* The stream was refused, the session is well: maybe it was one before this. */
let restarted = -Infinity;
function restartSoon() {
  const wait = Math.max(0, restarted + 5000 - performance.now());
  restarted = performance.now() + wait;
  setTimeout(() => me && live.restart(), wait);
}

/* Is it still the one who was signed in, and the collector that this page is of? */
let looks = null;
async function lookAgain(ifSo) {
  if (!me) {
    return;
  }
  looks ??= api.me().catch(() => undefined).finally(() => {
    looks = null;
  });
  const known = await looks;
  if (!me || known === undefined) {
    return;
  }
  if (!known) {
    askWho("You are signed out: your session has ended, or somebody ended it.");
  } else if (known.name !== me.name || known.role !== me.role) {
    await begin();
  } else {
    ifSo?.();
    if (known.version !== version) {
      showBanner("note", "The collector has been updated. ",
        h("button", { type: "button", text: "Load the page again", on: { click: () => location.reload() } }));
    }
  }
}

/* ---- signing in and out ---- */

/* Other tabs are told; each then asks the collector itself. */
const others = typeof BroadcastChannel === "function" ? new BroadcastChannel("vindral-session") : null;
others?.addEventListener("message", ({ data }) => {
  if (data === "out") {
    lookAgain().then(() => me || forget());
  } else if (data === "in") {
    if (me) {
      lookAgain(restartSoon);
    } else {
      begin();
    }
  }
});

async function signOut() {
  try {
    await api.signOut();
  } catch (problem) {
    showBanner("away", "You could not be signed out: ", clean(problem.detail || problem.message));
    announce("You could not be signed out.", true);
    return;
  }
  others?.postMessage("out");
  askWho("You are signed out.");
  forget();
}

/* What this tab keeps over a reload: in a text that is not applied yet there may be passwords. */
function forget() {
  try {
    sessionStorage.clear();
  } catch { /* it keeps nothing */ }
}

/* Nor is it kept for somebody else who signs in later. */
function forgetOther(name) {
  try {
    if ((sessionStorage.getItem("who") ?? name) !== name) {
      sessionStorage.clear();
    }
    sessionStorage.setItem("who", name);
  } catch { /* it keeps nothing */ }
}

/* The address stays: after signing in it is shown. */
function askWho(said) {
  leave();
  me = null;
  model = new Model(); /* the next one may be somebody else */
  scrolls.clear();
  showTop();
  document.title = `Sign in – ${product}`;
  const form = showSignIn(emptyMain(), { said, onSignedIn: () => {
    others?.postMessage("in");
    begin({ isFresh: true });
  } });
  form.focus();
}

function takeLink() {
  const link = /^#link=(.+)$/.exec(location.hash)?.[1] ?? null;
  if (location.hash) { /* before anything else: it signs in */
    history.replaceState(history.state, "", location.pathname + location.search);
  }
  return link;
}

let begins = 0;

/* `isFresh`: a form or a link has just signed in. */
async function begin({ isFresh = false } = {}) {
  const mine = ++begins;
  const link = takeLink();
  let said = "", isFirst = !isFresh && current === null && shows === 0;
  if (link) {
    try {
      await api.signIn({ link });
      others?.postMessage("in");
      isFresh = true;
    } catch (problem) {
      said = whyNot(problem, true);
    }
  }
  let known;
  try {
    known = await parts.busy(api.me(), at("main"), "Asking the collector");
  } catch (problem) {
    if (mine === begins) {
      showTrouble(emptyMain(), product, problem, () => begin());
    }
    return;
  }
  if (mine !== begins) {
    return;
  }
  if (!known) {
    askWho(said);
    return;
  }
  leave();
  forgetOther(known.name);
  me = known;
  version = known.version;
  model = new Model();
  if (!live) {
    live = connectLive();
    live.onState(onState);
  } else if (isFresh || live.state.status === 401) {
    live.restart();
  }
  showTop();
  if (said) { /* an old link of somebody who is signed in anyway */
    showBanner("note", `${said} You are signed in already, as ${clean(me.name)}.`);
  }
  history.replaceState({ entry }, "");
  await show({ isFirst, y: isFirst ? scrolls.get(entry) ?? 0 : 0 });
}

/* ---- the beginning ---- */

try { /* a page that is loaded anew */
  for (const [key, y] of JSON.parse(sessionStorage.getItem("scrolls") ?? "[]")) {
    scrolls.set(key, y);
  }
} catch { /* nothing to go back to */ }
history.scrollRestoration = "manual";
addEventListener("pagehide", () => {
  scrolls.set(entry, scrollY);
  try {
    sessionStorage.setItem("scrolls", JSON.stringify([...scrolls].slice(-50)));
  } catch { /* full, or not allowed */ }
});
addEventListener("pageshow", (event) => {
  if (event.persisted) {
    lookAgain();
  }
});
addEventListener("popstate", onPopState);
addEventListener("hashchange", () => {
  if (location.hash.startsWith("#link=")) {
    begin();
  }
});
document.addEventListener("click", onClick);
api.session.addEventListener("clock", () => {
  showBanners();
  parts.refreshTimes();
});
api.session.addEventListener("signed-out", () => lookAgain()); /* it may be an old answer */
if (modules.includes(read(location).view)) {
  import(`./view/${read(location).view}.js`).catch(() => { /* it is asked for again, and said then */ });
}
begin();
