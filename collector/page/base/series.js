/* Curves: what the API answers for a test (docs/api.md, "Curves") as a chart takes it, the limits of its
 * values, and the times that are looked at.
 *
 * Times are milliseconds since the epoch, where they are no Dates and no texts of the API. */
import { apiTime, clean, now as presentTime, number } from "./text.js";

const second = 1000;
const minute = 60 * second;
const hour = 60 * minute;
const day = 24 * hour;

const isNumber = (value) => typeof value === "number" && Number.isFinite(value);
const numberOrNull = (value) => (isNumber(value) ? value : null);

/* ---- values ---- */

/* What people look for first; of what is not named here the first one. */
const firstValues = {
  network: "received",
  process: "cpu",
  cpu: "user",
  disk: "available",
  memory: "free",
  ping: "round_trip",
  http: "time",
  snmp: "object 1",
  "load average": "load1",
  "snmp table": "rows",
  mysql: "result",
};

/**
 * Names of the values that have anything to draw, in the order of the answer.
 * @param {object} series
 * @returns {string[]}
 */
export function valueNames(series) {
  return Object.entries(series?.values ?? {})
    .filter(([, value]) => Array.isArray(value?.mean) && value.mean.some(isNumber))
    .map(([name]) => name);
}

/**
 * The value that is shown where there is room for one.
 * @param {string} type of the test
 * @param {string[]} names of the values that there are
 * @returns {?string} null where there are none
 */
export function firstValue(type, names) {
  const usual = Object.hasOwn(firstValues, type) ? firstValues[type] : null;
  return names.includes(usual) ? usual : (names[0] ?? null);
}

const loadLabels = { load1: "load 1 min", load5: "load 5 min", load15: "load 15 min" };

/* "object 3" and "result 3" are the third; "result" is the first. */
const placeOf = (valueName, word) => {
  const found = /^(object|result)(?: (\d+))?$/.exec(valueName);
  return found && found[1] === word ? Number(found[2] ?? 1) : 0;
};

const itemAt = (text, place) =>
  typeof text === "string" && place > 0 ? text.split(";")[place - 1] : undefined;

/* "Threads_connected|100|1": name, most, least. */
const listed = (fields, valueName) =>
  (itemAt(fields?.["text 4"], placeOf(valueName, "result")) ?? "").split("|");

/**
 * What a value is called: SNMP objects and values of queries as the test asks for them.
 * @param {?object} definition of the test
 * @param {string} valueName
 * @returns {string} safe to show
 */
export function valueLabel(definition, valueName) {
  const fields = definition?.fields;
  const asked = itemAt(fields?.["text 1"], placeOf(valueName, "object")) || listed(fields, valueName)[0];
  const label = Object.hasOwn(loadLabels, valueName) ? loadLabels[valueName] : valueName.replaceAll("_", " ");
  return clean(asked || label);
}

/* ---- rows of a chart ---- */

/* Half of the distances are shorter than this. 0: there is none. */
function usualDistance(times) {
  const distances = [];
  for (let i = 1; i < times.length; i++) {
    distances.push(times[i] - times[i - 1]);
  }
  distances.sort((one, other) => one - other);
  return distances.length > 0 ? distances[distances.length >> 1] : 0;
}

/* After how long without a result nobody knows any more: three intervals, and a minute at least. */
const staleAfter = (times) => Math.max(3 * usualDistance(times), minute);

const timesOf = (series) => (series?.time ?? []).map((time) => Date.parse(time));

/**
 * One value as rows for dygraphs with `customBars`: time, and lowest, mean and highest. Where there is
 * nothing, and between results that lie so far apart that some are missing, a row has null: the line ends
 * there.
 * @param {object} series answer of the API
 * @param {string} valueName one that is not in there has no rows but empty ones
 * @returns {{rows: Array<[Date, ?Array<number>]>, labels: string[], unit: string}}
 */
export function chartData(series, valueName) {
  const all = series?.values ?? {};
  const value = Object.hasOwn(all, valueName) ? all[valueName] : {};
  const times = timesOf(series);
  const longest = series?.resolution === 0 ? staleAfter(times) + minute / 2 : Infinity;
  const rows = [];
  times.forEach((time, i) => {
    if (i > 0 && time - times[i - 1] > longest) {
      rows.push([new Date((time + times[i - 1]) / 2), null]);
    }
    const mean = numberOrNull(value.mean?.[i]);
    const low = numberOrNull(value.min?.[i]) ?? mean;
    const high = numberOrNull(value.max?.[i]) ?? mean;
    rows.push([new Date(time), mean === null ? null : [low, mean, high]]);
  });
  return { rows, labels: ["Time", valueName], unit: typeof value.unit === "string" ? value.unit : "" };
}

/* ---- states ---- */

/* Of a point that has seconds in several: a problem is never hidden by what else there was, and a short while
 * of which nothing is known does not hide that all was well. */
function worstOf(ok, problem, unknown) {
  return problem > 0 ? "problem" : ok > 0 && ok >= unknown ? "ok" : "unknown";
}

/**
 * The states in that time, as pieces that follow each other; neighbours differ or do not touch. Times of
 * which the answer says nothing have none.
 * @param {object} series
 * @returns {Array<{from: number, to: number, state: "ok"|"problem"|"unknown"}>}
 */
export function strip(series) {
  const pieces = [];
  const add = (from, to, state) => {
    const last = pieces.at(-1);
    if (!(to > from)) {
      return;
    }
    if (last && last.to >= from && last.state === state) {
      last.to = Math.max(last.to, to);
    } else {
      pieces.push({ from: last ? Math.max(last.to, from) : from, to, state });
    }
  };
  const times = timesOf(series);
  const secondsOf = (state, i) => numberOrNull(series.state?.[state]?.[i]) ?? 0;
  times.forEach((time, i) => {
    const ok = secondsOf("ok", i);
    const problem = secondsOf("problem", i);
    const unknown = secondsOf("unknown", i);
    const known = time + (ok + problem) * second;
    if (series.resolution === 0) {
      /* A result holds until the next one, but not for ever. */
      add(time, known, problem > 0 ? "problem" : "ok");
      add(known, known + unknown * second, "unknown");
    } else {
      add(time, known + unknown * second, worstOf(ok, problem, unknown));
    }
  });
  return pieces;
}

/* ---- limits ---- */

/* By the value that they are limits of: the field of the definition (protocol/commands.h), the side on which
 * it is wrong, the unit of the field, and the least number that is a limit and not "none". */
const above = "above";
const below = "below";
const limitFields = {
  load1: ["1 min maximum", above, "", 0],
  load5: ["5 min maximum", above, "", 0],
  load15: ["15 min maximum", above, "", 0],
  user: ["maximum 1", above, "%", 0],
  system: ["maximum 2", above, "%", 0],
  nice: ["maximum 3", above, "%", 0],
  idle: ["minimum", below, "%", 0],
  iowait: ["maximum 4", above, "%", 0],
  free: ["minimum 1", below, "MB", 0],
  swap_free: ["minimum 2", below, "MB", 0],
  virtual_free: ["minimum 3", below, "MB", 0],
  buffers: ["maximum 1", above, "MB", 0],
  cached: ["maximum 2", above, "MB", 0],
  available: ["amount", below, "GB", Number.MIN_VALUE],
  cpu: ["maximum 1", above, "%", 0],
  resident: ["maximum 2", above, "MB", 0],
  virtual: ["maximum 3", above, "MB", 0],
  sent_packets: ["maximum 1", above, "/s", 1],
  received_packets: ["maximum 2", above, "/s", 1],
  sent: ["maximum 3", above, "B/s", 1],
  received: ["maximum 4", above, "B/s", 1],
  sent_errors: ["maximum 5", above, "/s", 1],
  received_errors: ["maximum 6", above, "/s", 1],
  lost: ["number of lost packets", above, "", 0],
  round_trip: ["time limit", above, "ms", 1],
};

function limit(value, side, unit) {
  return { value, label: (side === above ? "at most " : "at least ") + number(value, unit), side };
}

/* An agent compares the system limit of its own processors with the time of nice processes, and the other way
 * round; those that the collector shows are uncrossed, the definition is as the agent has it. */
function fieldOf(valueName, fields) {
  const isLocal = fields.host === undefined;
  const crossed = { system: "nice", nice: "system" };
  const name = isLocal && Object.hasOwn(crossed, valueName) ? crossed[valueName] : valueName;
  return Object.hasOwn(limitFields, name) ? limitFields[name] : null;
}

/* "-;1,5": none of the first object, 1 to 5 of the second. What has one side only has the end of 64 bits for
 * the other. */
function objectLimits(fields, place) {
  const found = /^(-?\d+),(-?\d+)$/.exec(itemAt(fields["text 8"], place) ?? "");
  const isOne = (value) => Math.abs(value) < 2 ** 63;
  return found
    ? [
        ...(isOne(Number(found[1])) ? [limit(Number(found[1]), below, "")] : []),
        ...(isOne(Number(found[2])) ? [limit(Number(found[2]), above, "")] : []),
      ]
    : [];
}

function queryLimits(fields, valueName) {
  const [, most, least] = listed(fields, valueName);
  const isOne = (text) => /^\d/.test(text ?? "") && isNumber(Number(text));
  return [
    ...(isOne(least) ? [limit(Number(least), below, "")] : []),
    ...(isOne(most) ? [limit(Number(most), above, "")] : []),
  ];
}

/**
 * The limits that a test has for one of its values, in the unit of the value. A time within which something
 * has to answer counts as one. Such a limit may be a thousand times what is usual: a chart need not reach up
 * to it.
 * @param {?{fields?: object}} definition of the API: of a test, or the last one of a series
 * @param {string} valueName
 * @returns {Array<{value: number, label: string, side: "above"|"below"}>} `side` is where it is wrong
 */
export function limits(definition, valueName) {
  const fields = definition?.fields;
  if (fields === null || typeof fields !== "object" || typeof valueName !== "string") {
    return [];
  }
  const object = placeOf(valueName, "object");
  if (object > 0) {
    return objectLimits(fields, object);
  }
  if (placeOf(valueName, "result") > 0) {
    return queryLimits(fields, valueName);
  }
  if (valueName === "time") {
    /* SNMP and MySQL tests have a `time` and a time limit, too, but that is one for each try. */
    const within = Number(fields["text 7"]);
    const isPage = Object.hasOwn(fields, "method");
    return isPage && within > 0 && isNumber(within) ? [limit(within * 1000, above, "ms")] : [];
  }
  const row = fieldOf(valueName, fields);
  if (row === null) {
    return [];
  }
  const [name, side, unit, least] = row;
  const value = fields[name];
  return isNumber(value) && value >= least ? [limit(value, side, unit)] : [];
}

/* ---- times that are looked at ---- */

/** @typedef {{from: number, to: number}} Range */

/** What may be chosen, by the word in the address. */
export const ranges = { "1h": hour, "6h": 6 * hour, "1d": day, "7d": 7 * day, "30d": 30 * day };
const usualRange = "1d";
const leastSpan = minute;
const mostSpan = 3660 * day;
const mostPoints = 2000;

const inMilliseconds = (time) => (typeof time === "string" ? Date.parse(time) : Number(time ?? NaN));

/**
 * As long as it is, moved so that it does not go beyond now; from a minute to ten years long.
 * @param {Range} range
 * @param {number} [now]
 * @returns {Range}
 */
export function clampRange({ from, to }, now = presentTime()) {
  const span = Math.min(Math.max(to - from, leastSpan), mostSpan) || leastSpan;
  const end = Math.max(Math.min(isNumber(to) ? to : now, now), span);
  return { from: end - span, to: end };
}

/**
 * @param {Range} range
 * @param {number} factor below 1 is nearer
 * @param {number} [at] what stays where it is; the middle
 * @param {number} [now]
 * @returns {Range}
 */
export function zoomed({ from, to }, factor, at = (from + to) / 2, now = presentTime()) {
  return clampRange({ from: at - (at - from) * factor, to: at + (to - at) * factor }, now);
}

/**
 * @param {Range} range
 * @param {number} share of its length; below 0 is towards the past
 * @param {number} [now]
 * @returns {Range}
 */
export function panned({ from, to }, share, now = presentTime()) {
  const by = (to - from) * share;
  return clampRange({ from: from + by, to: to + by }, now);
}

/**
 * What an address asks for: `from` and `to`, or `range`. What makes no sense is a day until now.
 * @param {Map<string, string>} query
 * @param {number} [now]
 * @returns {Range & {range: ?string}} `range` is the word where the time ends now and goes on with it, else
 *   null
 */
export function readRange(query, now = presentTime()) {
  const to = query.has("to") ? Date.parse(query.get("to")) : now;
  const from = query.has("from") ? Date.parse(query.get("from")) : to - ranges[usualRange];
  if ((query.has("from") || query.has("to")) && from < to) {
    return { ...clampRange({ from, to }, now), range: null };
  }
  const asked = query.get("range");
  const word = Object.hasOwn(ranges, asked ?? "") ? asked : usualRange;
  return { from: now - ranges[word], to: now, range: word };
}

/**
 * @param {Range|string} range or one of the words
 * @returns {Object<string, string>} for the query of an address or a request
 */
export function writeRange(range) {
  return typeof range === "string" ? { range } : { from: apiTime(range.from), to: apiTime(range.to) };
}

/**
 * How many points to ask for: one for two pixels, of some hours all results, and not more than there are
 * seconds. (What is next to every result is five minutes, which makes an hour of results each second coarse.)
 * @param {Date|number|string} from
 * @param {Date|number|string} to
 * @param {number} width pixels
 * @returns {number} 50 to 2,000
 */
export function wanted(from, to, width) {
  const seconds = (inMilliseconds(to) - inMilliseconds(from)) / second;
  const fitting = seconds <= (6 * hour) / second ? mostPoints : isNumber(width) ? width / 2 : 400;
  const points = isNumber(seconds) ? Math.min(fitting, seconds) : fitting;
  return Math.min(Math.max(Math.ceil(points), 50), mostPoints);
}

/* ---- results as they come ---- */

const states = ["ok", "problem", "unknown"];

/* The columns of min, mean and max, made where a value is new. */
function columnsFor(series, name, unit, count) {
  if (!Object.hasOwn(series.values, name)) {
    const empty = () => new Array(count).fill(null);
    series.values[name] = { unit, min: empty(), mean: empty(), max: empty() };
  }
  const { min, mean, max } = series.values[name];
  return [min, mean, max];
}

const forEachColumn = (series, each) => {
  each(series.count, 0);
  states.forEach((state) => each(series.state[state], 0));
  Object.values(series.values).forEach(({ min, mean, max }) => {
    [min, mean, max].forEach((column) => each(column, null));
  });
};

function forgetBefore(series, from) {
  let count = 0;
  while (count < series.time.length && Date.parse(series.time[count]) < from) {
    count++;
  }
  if (count > 0) {
    series.time.splice(0, count);
    forEachColumn(series, (column) => column.splice(0, count));
    series.from = apiTime(from);
  }
}

function putState(series, at, state, held, covered) {
  for (const each of states) {
    series.state[each][at] = each === state ? covered : 0;
  }
  series.state.unknown[at] += held - covered;
}

/**
 * A result of the stream into a series of which each point is a result (`resolution` 0); others are left as
 * they are: ask for them again now and then. One that comes late finds its place, one that comes twice is
 * there once.
 * @param {object} series is changed
 * @param {object} result of the test, as the stream has it
 * @param {number} [keepFrom] what is older is forgotten: the time that is shown moves on
 * @returns {object} the series
 */
export function appendResult(series, result, keepFrom = -Infinity) {
  const time = Date.parse(result?.time);
  if (series?.resolution !== 0 || !isNumber(time) || time < keepFrom) {
    return series;
  }
  let at = series.time.length;
  while (at > 0 && Date.parse(series.time[at - 1]) > time) {
    at--;
  }
  const isThere = at > 0 && Date.parse(series.time[at - 1]) === time;
  if (isThere) {
    at--;
  } else {
    series.time.splice(at, 0, apiTime(time));
    forEachColumn(series, (column, empty) => column.splice(at, 0, empty));
    series.count[at] = 1;
  }
  for (const [name, { value, unit } = {}] of Object.entries(result.values ?? {})) {
    if (isNumber(value)) {
      columnsFor(series, name, unit, series.time.length).forEach((column) => (column[at] = value));
    }
  }
  if (time >= Date.parse(series.to)) {
    series.to = apiTime(time + second);
  }
  judgeAround(series, at, result.state);
  forgetBefore(series, keepFrom);
  return series;
}

/* Seconds of the result at that place, until the next one, and of the one before, which ends there now. */
function judgeAround(series, at, state) {
  const until = (i) => Date.parse(series.time[i + 1] ?? series.to);
  const held = (i) => Math.max((until(i) - Date.parse(series.time[i])) / second, 0);
  const most = staleAfter(timesOf({ time: series.time.slice(-50) })) / second;
  if (at > 0) {
    const before = states.find((each) => each !== "unknown" && series.state[each][at - 1] > 0) ?? "unknown";
    putState(series, at - 1, before, held(at - 1), Math.min(held(at - 1), most));
  }
  putState(series, at, states.includes(state) ? state : "unknown", held(at), Math.min(held(at), most));
}
