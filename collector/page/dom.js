/* Elements, made by script and never out of text: what came from an agent is always a text node or
 * an attribute. Lists change as little as can be and in slices, so that thousands of rows do not
 * keep the page from answering keys. */

const namespace = "http://www.w3.org/2000/svg";
const asProperties = new Set(["value", "checked", "indeterminate", "selected"]);

/** Text, elements, and arrays of them; null, undefined and booleans are nothing. */
function add(parent, children) {
  for (const child of children) {
    if (Array.isArray(child)) {
      add(parent, child);
    } else if (child !== null && child !== undefined && typeof child !== "boolean") {
      parent.append(child instanceof Node ? child : String(child));
    }
  }
}

function dress(element, props) {
  for (const [name, value] of Object.entries(props ?? {})) {
    if (value === null || value === undefined || value === false) {
      continue;
    }
    if (name === "class") {
      element.setAttribute("class", value);
    } else if (name === "text") {
      element.textContent = value;
    } else if (name === "on") {
      for (const [event, listener] of Object.entries(value)) {
        element.addEventListener(event, listener);
      }
    } else if (name === "data") {
      for (const [key, text] of Object.entries(value)) {
        if (text !== null && text !== undefined) {
          element.dataset[key] = text;
        }
      }
    } else if (name === "aria") {
      for (const [key, text] of Object.entries(value)) {
        if (text !== null && text !== undefined) {
          element.setAttribute(`aria-${key.toLowerCase()}`, text);
        }
      }
    } else if (/^(on|style$|inner|outer|srcdoc$)/i.test(name)) {
      throw new Error(`"${name}" is nothing that h() sets`);
    } else if (!asProperties.has(name) || !(name in element)) {
      element.setAttribute(name, value === true ? "" : value);
    }
  }
}

/**
 * An element: h("a", {class: "tile", href, on: {click}, data: {state}, aria: {current: "page"}}, "text").
 * @param {string} tag
 * @param {Object|null} [props] false, null and undefined are left out, true is an attribute without value
 * @param {...(Node|string|number|null|Array)} children
 * @returns {HTMLElement}
 */
export function h(tag, props, ...children) {
  const element = document.createElement(tag);
  dress(element, props);
  add(element, children);
  for (const name of asProperties) { /* a select has its options by now */
    if (props?.[name] !== undefined && props[name] !== null && name in element) {
      element[name] = props[name];
    }
  }
  return element;
}

/** The same of SVG. @returns {SVGElement} */
export function svg(tag, props, ...children) {
  const element = document.createElementNS(namespace, tag);
  dress(element, props);
  add(element, children);
  return element;
}

const focusable = "a[href],button,input,select,textarea,summary,[tabindex]";

/* Where the focus is below `parent`: in which element with a key, and the how manieth there. */
function rememberFocus(parent) {
  const active = document.activeElement;
  const keyed = active !== parent && parent.contains(active) ? active.closest("[data-key]") : null;
  if (!keyed || !parent.contains(keyed) || keyed === parent) {
    return null;
  }
  const hasRange = typeof active.selectionStart === "number";
  return {
    active,
    key: keyed.dataset.key,
    at: [...keyed.querySelectorAll(focusable)].indexOf(active),
    range: hasRange ? [active.selectionStart, active.selectionEnd] : null,
  };
}

function giveFocusBack(parent, was) {
  if (!was || document.activeElement === was.active) {
    return;
  }
  let next = was.active;
  if (!next.isConnected) {
    const keyed = parent.querySelector(`[data-key="${CSS.escape(was.key)}"]`);
    next = was.at < 0 ? keyed : keyed?.querySelectorAll(focusable)[was.at];
  }
  next?.focus({ preventScroll: true });
  if (was.range && typeof next?.selectionStart === "number") {
    next.setSelectionRange(...was.range);
  }
}

/**
 * Replaces what is in `parent`. The focus stays with the element of the same data-key.
 * @returns {Element} parent
 */
export function fill(parent, ...children) {
  const was = rememberFocus(parent);
  lists.delete(parent);
  const fresh = document.createDocumentFragment();
  add(fresh, children);
  parent.replaceChildren(fresh);
  giveFocusBack(parent, was);
  return parent;
}

/** Lets the browser answer keys and paint. */
export function breath() {
  return new Promise((resolve) => setTimeout(resolve, 0));
}

const lists = new WeakMap(); /* parent: {nodes: Map of key to node, run} */
const sliceMs = 8, sliceHiddenMs = 40;

/* Those of ascending positions, as many as can be: they need not move. */
function longestAscent(positions) {
  const before = new Array(positions.length), ends = [];
  for (let i = 0; i < positions.length; i++) {
    if (positions[i] < 0) {
      continue;
    }
    let low = 0, high = ends.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (positions[ends[middle]] < positions[i]) {
        low = middle + 1;
      } else {
        high = middle;
      }
    }
    before[i] = low > 0 ? ends[low - 1] : -1;
    ends[low] = i;
  }
  const stays = new Set();
  for (let i = ends.length > 0 ? ends[ends.length - 1] : -1; i >= 0; i = before[i]) {
    stays.add(i);
  }
  return stays;
}

/* Where the focus goes when what has it is taken away: the next one, the one before, or what is above. */
function besides(node) {
  for (const next of [node.nextElementSibling, node.previousElementSibling]) {
    const found = next?.matches(focusable) ? next : next?.querySelector(focusable);
    if (found) {
      return found;
    }
  }
  const heading = node.closest("section,main")?.querySelector("h1,h2,h3");
  if (heading && !heading.hasAttribute("tabindex")) {
    heading.tabIndex = -1;
  }
  return heading;
}

/**
 * Makes the children of `parent` those of `items`: moves, adds and removes as few as can be. What
 * takes longer than a moment goes on in slices; another call for the same parent takes over.
 * @param {Element} parent has nothing else in it
 * @param {Iterable} items of two with one key the first counts
 * @param {(item) => string|number} keyOf
 * @param {(item) => Element} make
 * @param {(element, item) => void} [update] of one that is there already
 * @returns {Promise<boolean>} when it is done; false: another call took over
 */
export async function keyed(parent, items, keyOf, make, update) {
  let list = lists.get(parent);
  if (!list) {
    parent.replaceChildren();
    list = { nodes: new Map(), run: 0 };
    lists.set(parent, list);
  }
  const run = ++list.run;
  const wanted = new Map();
  for (const item of items) {
    const key = keyOf(item);
    if (!wanted.has(key)) {
      wanted.set(key, item);
    }
  }
  let was = rememberFocus(parent);
  let until = performance.now() + (document.hidden ? sliceHiddenMs : sliceMs);
  const isOver = () => performance.now() > until;
  const rest = async () => {
    giveFocusBack(parent, was);
    await breath();
    was = rememberFocus(parent);
    until = performance.now() + (document.hidden ? sliceHiddenMs : sliceMs);
    return lists.get(parent) === list && list.run === run;
  };
  for (const [key, node] of [...list.nodes]) {
    if (!wanted.has(key)) {
      const next = node.contains(document.activeElement) ? besides(node) : null;
      node.remove();
      list.nodes.delete(key);
      next?.focus({ preventScroll: true });
      if (isOver() && !await rest()) {
        return false;
      }
    }
  }
  const places = new Map();
  let place = 0;
  for (const node of parent.children) {
    places.set(node, place++);
  }
  const keys = [...wanted.keys()];
  const stays = longestAscent(keys.map((key) => places.get(list.nodes.get(key)) ?? -1));
  const nextStaying = new Array(keys.length);
  for (let i = keys.length - 1, next = null; i >= 0; i--) {
    nextStaying[i] = next;
    next = stays.has(i) ? list.nodes.get(keys[i]) : next;
  }
  for (let i = 0; i < keys.length; i++) {
    const item = wanted.get(keys[i]);
    let node = list.nodes.get(keys[i]);
    if (!node) {
      node = make(item);
      list.nodes.set(keys[i], node);
    } else {
      update?.(node, item);
    }
    if (!stays.has(i)) {
      parent.insertBefore(node, nextStaying[i]?.parentNode === parent ? nextStaying[i] : null);
    }
    if (isOver() && i + 1 < keys.length && !await rest()) {
      return false;
    }
  }
  giveFocusBack(parent, was);
  return true;
}

const waiting = { said: [], alarm: [] };

/**
 * Has a screen reader say it.
 * @param {string} text
 * @param {boolean} [assertive] at once, whatever is being said
 */
export function announce(text, assertive = false) {
  const id = assertive ? "alarm" : "said";
  const region = document.getElementById(id);
  if (!region || !text) {
    return;
  }
  if (waiting[id].push(text) > 1) {
    return;
  }
  region.textContent = ""; /* the same text again is said again */
  setTimeout(() => {
    region.textContent = waiting[id].splice(0).slice(-3).join(" ");
  }, 100);
}

/**
 * Work that is done bit by bit, some milliseconds of a frame.
 * @param {(key) => void} each
 * @returns {{add: (key) => void, cancel: () => void}} a key that waits already is done once
 */
export function inFrames(each) {
  const waiting = new Set();
  const run = throttle(() => {
    const until = performance.now() + sliceMs;
    try {
      for (const key of waiting) {
        waiting.delete(key);
        each(key);
        if (performance.now() > until) {
          break;
        }
      }
    } finally {
      if (waiting.size > 0) {
        run();
      }
    }
  });
  return {
    add: (key) => {
      waiting.add(key);
      run();
    },
    cancel: () => {
      waiting.clear();
      run.cancel();
    },
  };
}

/**
 * Calls `fn` once a frame however often it is called, with what it was called with last; once a
 * second where no frames are painted.
 * @returns {Function} has cancel()
 */
export function throttle(fn) {
  let frame = 0, timer = 0, last = null;
  const cancel = () => {
    cancelAnimationFrame(frame);
    clearTimeout(timer);
    last = null;
  };
  const run = () => {
    const given = last;
    cancel();
    fn(...given);
  };
  const ask = (...given) => {
    const isFirst = last === null;
    last = given;
    if (isFirst) {
      frame = requestAnimationFrame(run);
      timer = setTimeout(run, 1000);
    }
  };
  ask.cancel = cancel;
  return ask;
}
