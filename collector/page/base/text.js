/* What people read: numbers with units, ages, times in the reader's zone, states, and texts of agents made
 * harmless. All of it plain English, whatever the browser's language is, so that the page says what the
 * documents say.
 *
 * UNITS  are those of the API. "MB" and "GB" are the agents', 1,024 of the one below; bytes and plain numbers
 * have prefixes by the thousand. The command line writes them in the same way. */

const none = "–";

/* ---- numbers ---- */

const byThousand = (first, others) => [
  [first, 1],
  ...[..."kMGTPE"].map((prefix, i) => [others(prefix), 1000 ** (i + 1)]),
];
const ladders = [
  byThousand("", (prefix) => prefix),
  byThousand("/s", (prefix) => prefix + "/s"),
  byThousand("bytes", (prefix) => prefix + "B"),
  byThousand("B", (prefix) => prefix + "B"),
  byThousand("B/s", (prefix) => prefix + "B/s"),
  byThousand("bytes/s", (prefix) => prefix + "B/s"),
  ["KB", "MB", "GB", "TB", "PB"].map((unit, i) => [unit, 1024 ** i]),
  [["µs", 1e-6], ["ms", 1e-3], ["s", 1]],
];

/* A unit may stand on two of them: "MB" is the agents', which is why theirs is looked for first where it
 * begins. */
const rungs = new Map();
for (const ladder of ladders) {
  ladder.forEach(([unit], i) => {
    if (i === 0 || ladder[0][0] === "KB" || ladder[0][0] === "µs") {
      rungs.set(unit, { ladder, at: i });
    }
  });
}

const leastShown = 0.1;
const leastPercent = 0.005;
const firstRaised = 10000;
const raised = 1000; /* once it is raised at all */

/* Three digits, but all of those before the point. */
function rounded(value) {
  return Math.abs(value) < 1000 ? Number(value.toPrecision(3)) : Math.round(value);
}

function digitsOf(value) {
  if (Math.abs(value) >= 1e9) {
    return value.toExponential(2).replace(/\.?0*e\+/, "e");
  }
  return String(rounded(value) || 0);
}

/* The place of its ladder that makes `size` easy to read. */
function rungFor(size, ladder, at) {
  const inRung = (i) => rounded(size * (ladder[at][1] / ladder[i][1]));
  let i = at;
  while (i + 1 < ladder.length && inRung(i) >= (i === at ? firstRaised : raised)) {
    i++;
  }
  while (i > 0 && size > 0 && inRung(i) < leastShown) {
    i--;
  }
  return i;
}

/* A unit of the API's is a text like others, and may be of any length. */
const mostOfUnit = 20;
const unitText = (unit) => oneLine(unit, mostOfUnit);

const withUnit = (text, unit) => (unit === "" ? text : unit === "/s" ? text + unit : text + " " + unit);

/**
 * With three digits and a unit that suits the size: 0.00031 "s" is "0.31 ms", 1234567 is "1.23 M", 20480 "MB"
 * is "20 GB". From 10,000 on a larger unit is taken, below 0.1 a smaller one; units that have no others stay.
 * @param {number|string|null|undefined} value a text of the API is cleaned; null and what is no number is "–"
 * @param {string} [unit] as the API has it
 * @returns {string}
 */
export function number(value, unit = "") {
  if (typeof value === "string") {
    return withUnit(oneLine(value), unitText(unit));
  }
  const size = typeof value === "bigint" ? Number(value) : value;
  if (typeof size !== "number" || !Number.isFinite(size)) {
    return none;
  }
  const known = rungs.get(unit ?? "");
  if (!known) { /* what is measured of no time at all is 2.35e-07 % */
    return withUnit(digitsOf(unit === "%" && Math.abs(size) < leastPercent ? 0 : size), unitText(unit));
  }
  const { ladder, at } = known;
  const i = rungFor(Math.abs(size), ladder, at);
  return withUnit(digitsOf(i === at ? size : size * (ladder[at][1] / ladder[i][1])), ladder[i][0]);
}

/** @returns {?string} all digits of what number() shortens */
export function exactNumber(value, unit = "") {
  const text = withUnit(String(value), unitText(unit));
  return typeof value === "number" && Number.isFinite(value) && text !== number(value, unit) ? text : null;
}

/**
 * As number(), for the labels of an axis, which all have one unit and as many digits as tell them apart.
 * @param {number} value
 * @param {string} unit
 * @param {number} step between two labels
 * @param {number} top the highest number on the axis, whose unit all of them get
 * @returns {string}
 */
export function axisNumber(value, unit, step, top) {
  if (typeof value !== "number" || !Number.isFinite(value)) {
    return none;
  }
  const known = rungs.get(unit ?? "");
  const ladder = known ? known.ladder : [[unitText(unit), 1]];
  const at = known ? known.at : 0;
  const i = rungFor(Math.max(Math.abs(value), Math.abs(Number.isFinite(top) ? top : 0)), ladder, at);
  const factor = ladder[at][1] / ladder[i][1];
  const apart = Math.abs(step) * factor;
  const digits = apart > 0 && Number.isFinite(apart) ? Math.ceil(-Math.log10(apart) - 1e-9) : 0;
  const shown = value * factor;
  const text =
    Math.abs(shown) < 1e9 ? shown.toFixed(Math.min(Math.max(digits, 0), 9)) : digitsOf(shown);
  return withUnit(/^-[0.]*$/.test(text) ? text.slice(1) : text, ladder[i][0]);
}

/** @returns {string} of a count: "1,500" */
export function whole(count) {
  return String(Number.isFinite(count) ? Math.trunc(count) : 0).replace(/\B(?=(\d{3})+$)/g, ",");
}

/**
 * @param {number} count
 * @param {string} one "test"
 * @param {string} [many] where it is not `one` and an s
 * @returns {string} "1 test", "3 tests", "1,500 tests"
 */
export function plural(count, one, many = one + "s") {
  const text = whole(count);
  return text + " " + (text === "1" ? one : many);
}

/* ---- times ---- */

const minute = 60;
const hour = 60 * minute;
const day = 24 * hour;

const twoParts = (high, highUnit, low, lowUnit) => high + highUnit + (low > 0 ? " " + low + lowUnit : "");

/**
 * @param {?number} seconds below 0, as of a clock that is ahead, is 0
 * @returns {string} "12 s", "3 min", "2 h 5 min", "1 day 3 h", "4 days"
 */
export function ago(seconds) {
  if (typeof seconds !== "number" || !Number.isFinite(seconds)) {
    return none;
  }
  const span = Math.max(Math.floor(seconds), 0);
  if (span < minute) {
    return span + " s";
  }
  if (span < hour) {
    return Math.floor(span / minute) + " min";
  }
  if (span < day) {
    return twoParts(Math.floor(span / hour), " h", Math.floor((span % hour) / minute), " min");
  }
  if (span < 2 * day) {
    return twoParts(1, " day", Math.floor((span % day) / hour), " h");
  }
  return plural(Math.floor(span / day), "day");
}

/* How far this device's clock is ahead of the collector's. */
let aheadMs = 0;

/** @returns {number} milliseconds since the epoch, by the collector's clock */
export const now = () => Date.now() - aheadMs;

/** @param {number} milliseconds below 0 where this device's clock is behind */
export function setAhead(milliseconds) {
  aheadMs = milliseconds;
}

/* Milliseconds since the epoch; NaN for what is no time. */
function millisecondsOf(time) {
  return time instanceof Date ? time.getTime() : typeof time === "number" ? time : Date.parse(time ?? "");
}

/**
 * @param {string|Date|number|null} time as the API has it, a Date, or milliseconds
 * @param {Date|number} [present]
 * @returns {string} as ago()
 */
export function since(time, present = now()) {
  return ago((millisecondsOf(present) - millisecondsOf(time)) / 1000);
}

const months = ["Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"];
const two = (value) => String(value).padStart(2, "0");

/* Not toDateString(): that has the year behind. */
const dayOf = (date) => date.getDate() + " " + months[date.getMonth()];

/**
 * @param {string|Date|number|null} time
 * @param {Date|number} [present]
 * @returns {string} in the reader's zone: "14:03", of another day "1 May 14:03", of another year "1 May 2024
 *   14:03"
 */
export function clock(time, present = now()) {
  const date = new Date(millisecondsOf(time));
  const today = new Date(millisecondsOf(present));
  if (Number.isNaN(date.getTime())) {
    return none;
  }
  const text = two(date.getHours()) + ":" + two(date.getMinutes());
  if (date.getFullYear() !== today.getFullYear()) {
    return dayOf(date) + " " + date.getFullYear() + " " + text;
  }
  return dayOf(date) === dayOf(today) ? text : dayOf(date) + " " + text;
}

/** @returns {string} as clock(), to the second: of what follows each other closely */
export function clockSeconds(time, present = now()) {
  const text = clock(time, present);
  return text === none ? none : `${text}:${two(new Date(millisecondsOf(time)).getSeconds())}`;
}

/** @returns {string} the day in the reader's zone, as "2026-05-01" */
export function dayKey(time) {
  const date = new Date(millisecondsOf(time));
  return `${date.getFullYear()}-${two(date.getMonth() + 1)}-${two(date.getDate())}`;
}

/** @returns {string} as an input of date and time has it, in the reader's zone; "" for what is no time */
export function asTyped(time) {
  const date = new Date(millisecondsOf(time));
  return Number.isNaN(date.getTime()) ? ""
    : `${dayKey(date)}T${two(date.getHours())}:${two(date.getMinutes())}`;
}

/** @returns {string} as the API has it, in whole seconds */
export function apiTime(time) {
  return new Date(millisecondsOf(time)).toISOString().replace(/\.\d+Z$/, "Z");
}

/* "UTC+2", "UTC-3:30". */
function zoneOf(date) {
  const minutes = -date.getTimezoneOffset();
  const size = Math.abs(minutes);
  const rest = size % 60;
  return "UTC" + (minutes < 0 ? "-" : "+") + Math.floor(size / 60) + (rest > 0 ? ":" + two(rest) : "");
}

/**
 * @param {string|Date|number|null} time
 * @returns {string} "1 May 2026 14:03:27 UTC+2 (2026-05-01 12:03:27 UTC)"; for readers whose zone is that of
 *   UTC only the latter. With the offset, for the hour that there is twice when summer time ends.
 */
export function exact(time) {
  const date = new Date(millisecondsOf(time));
  if (Number.isNaN(date.getTime())) {
    return none;
  }
  const utc = date.toISOString().replace("T", " ").replace(/\.\d+Z$/, " UTC");
  if (date.getTimezoneOffset() === 0) {
    return utc;
  }
  const clockTime = [date.getHours(), date.getMinutes(), date.getSeconds()].map(two).join(":");
  return `${dayOf(date)} ${date.getFullYear()} ${clockTime} ${zoneOf(date)} (${utc})`;
}

/* ---- states ---- */

/**
 * @param {?{state?: string, stale?: boolean}} of an agent, a test, an event's `{state: to}`
 * @returns {"ok"|"problem"|"unknown"|"silent"|"stale"} what there is no word for is unknown
 */
export function stateWord(of) {
  const state = of?.state;
  if (state === "ok" || state === "problem" || state === "silent") {
    return state;
  }
  return state === "stale" || of?.stale === true ? "stale" : "unknown";
}

/**
 * It became unknown after its last result, and not because nothing came: no plan has it any more.
 * @param {?Object} test one without any result has only not begun
 * @param {?Object} agent whose silence makes all its tests unknown; null: that is not known
 * @returns {boolean}
 */
export function isNoLongerPlanned(test, agent) {
  return test?.state === "unknown" && !test.stale && Boolean(agent) && agent.state !== "silent" &&
    !agent.retired && millisecondsOf(test.since) > millisecondsOf(test.time);
}

/* ---- texts of others ---- */

/* Controls, what has no width, what changes the direction of a line, halves of characters: what the command
 * line does not print either. Tabs and line ends are white space on a page and stay. */
const unsafe =
  /[\p{Cs}\p{Cf}\0-\x08\x0b-\x1f\x7f-\x9f\u2028\u2029\u2060-\u206f\ufff9-\ufffb\u{e0000}-\u{e0fff}]/gu;

function shownCharacter(character) {
  const code = character.codePointAt(0);
  if (code < 0x20) {
    return String.fromCharCode(0x2400 + code);
  }
  return code === 0x7f ? "\u2421" : "⟨U+" + code.toString(16).toUpperCase().padStart(4, "0") + "⟩";
}

/**
 * Control characters and those that rearrange a line, made visible: "␀", "⟨U+202E⟩". Line ends and tabs stay,
 * but for those at the end, and so does all else: this is no protection against markup, which textContent is.
 * @param {*} text null is ""
 * @returns {string}
 */
export function clean(text) {
  const plain = text === null || text === undefined ? "" : String(text);
  return plain.replace(/\r\n/g, "\n").trimEnd().replace(unsafe, shownCharacter);
}

/**
 * What clean() makes of it in one line, blanks where lines end; of what is too long the beginning, with "…".
 * @param {*} text
 * @param {number} [most] characters
 * @returns {string}
 */
export function oneLine(text, most = Infinity) {
  const line = clean(text).replace(/\s+/g, " ").trim();
  return line.length <= most ? line : shortened(line, most - 1) + "…";
}

/**
 * The beginning, without half a character at its end.
 * @param {string} text
 * @param {number} most UTF-16 units
 * @returns {string}
 */
export function shortened(text, most) {
  if (text.length <= most) {
    return text;
  }
  const end = Math.max(Math.trunc(most), 0);
  const isInside = end > 0 && (text.charCodeAt(end - 1) & 0xfc00) === 0xd800;
  return text.slice(0, isInside ? end - 1 : end);
}
