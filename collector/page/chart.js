/* The curve of one value: its mean as a line, lowest and highest as a band around it, limits as
 * lines with words, and the states of the test as a strip below. Dragging and keys ask for another
 * range; who made the curve decides what becomes of that. Dygraphs draws line, band and axes and no
 * more: its legend, annotations and gestures would need styles and markup that the page forbids, or
 * keep a finger from scrolling. It is loaded when the first curve is made. */
import { announce, fill, h, svg, throttle } from "./dom.js";
import { ago, axisNumber, clean, clock, clockSeconds, exact, now, number, oneLine } from "./base/text.js";

const leastDrag = 8; /* pixels: less is a click */
const mostTableRows = 500;
const goesOnMs = 120000; /* a state that ended no longer ago is on */
const seriesLabel = "value"; /* to dygraphs: a name from outside might be one of its own */
const wordsOfStates = ["problem", "unknown", "silent", "stale", "ok"];
const dark = matchMedia("(prefers-color-scheme: dark)");
const forced = matchMedia("(forced-colors: active)");
let loading = null;
let made = 0;

/**
 * Begins to load what draws curves, so that it comes along with the data of the first one.
 * @returns {Promise<Function>} Dygraph; rejected when it does not come, and the next call tries again
 */
export function prepare() {
  loading ??= new Promise((resolve, reject) => {
    const script = document.createElement("script");
    script.src = new URL("./dygraph.js", import.meta.url).href;
    script.onload = () => {
      const all = window.Dygraph;
      all.PLUGINS = [all.Plugins.Axes, all.Plugins.Grid];
      resolve(all);
    };
    script.onerror = () => {
      loading = null;
      script.remove();
      reject(new Error("What draws curves did not come from the collector. Load the page again."));
    };
    document.head.append(script);
  });
  return loading;
}

/** Milliseconds of whatever says a time. */
function ms(time) {
  return typeof time === "number" ? time : typeof time === "string" ? Date.parse(time) : time.getTime();
}

function iso(time) {
  return new Date(time).toISOString();
}

/* Dygraphs takes labels of axes for markup. */
function escaped(text) {
  return text.replace(/[&<>]/g, (sign) => ({ "&": "&amp;", "<": "&lt;", ">": "&gt;" })[sign]);
}

function coloursAt(element) {
  const style = getComputedStyle(element);
  const named = (name, system) =>
    (forced.matches ? "" : style.getPropertyValue(name).trim()) || system;
  return {
    line: named("--accent", "CanvasText"),
    band: named("--band", "GrayText"),
    grid: named("--line", "GrayText"),
    edge: named("--edge", "CanvasText"),
    limit: named("--problem", "Highlight"),
    back: named("--surface", "Canvas"),
    font: `12px ${style.fontFamily || "sans-serif"}`,
  };
}

/** What follows each other without a gap. */
function runsOf(points) {
  const runs = [];
  let run = null;
  for (const point of points) {
    if (!Number.isFinite(point.canvasy)) {
      run = null;
    } else if (run) {
      run.push(point);
    } else {
      runs.push((run = [point]));
    }
  }
  return runs;
}

function drawBand(e, colours) {
  const to = e.drawingContext;
  const y = (part, point) =>
    Number.isFinite(part) ? e.plotArea.y + part * e.plotArea.h : point.canvasy;
  to.fillStyle = colours.band;
  to.strokeStyle = colours.band;
  to.globalAlpha = forced.matches ? 0.3 : 1;
  for (const run of runsOf(e.points)) {
    to.beginPath();
    for (const point of run) {
      to.lineTo(point.canvasx, y(point.y_top, point));
    }
    for (const point of [...run].reverse()) {
      to.lineTo(point.canvasx, y(point.y_bottom, point));
    }
    if (run.length === 1) {
      to.lineWidth = 4;
      to.stroke();
    } else {
      to.fill();
    }
  }
}

function drawLine(e, colours) {
  const to = e.drawingContext;
  const isSparse = e.points.length * 12 < e.plotArea.w;
  to.strokeStyle = colours.line;
  to.fillStyle = colours.line;
  to.lineWidth = 1.75;
  to.lineJoin = "round";
  for (const run of runsOf(e.points)) {
    to.beginPath();
    for (const point of run) {
      to.lineTo(point.canvasx, point.canvasy);
    }
    to.stroke();
    for (const point of isSparse || run.length === 1 ? run : []) {
      to.beginPath();
      to.arc(point.canvasx, point.canvasy, 2.5, 0, 2 * Math.PI);
      to.fill();
    }
  }
}

/* Round numbers in the unit that the labels have: that of MB and the like goes by 1,024. */
function stepOf(least, unit, top) {
  let base = 1;
  if (/^[KMGT]B$/.test(unit)) {
    while (top / base >= 10000) {
      base *= 1024;
    }
    while (top > 0 && top / base < 0.1) {
      base /= 1024;
    }
  }
  const power = 10 ** Math.floor(Math.log10(least / base));
  const times = least / base / power;
  return base * power * (times <= 1 ? 1 : times <= 2 ? 2 : times <= 5 ? 5 : 10);
}

/** Where the labels of the upright axis are, as dygraphs asks for them. */
function ticksOf(low, high, pixels, unit) {
  const step = stepOf((high - low) / Math.max(pixels / 44, 1), unit, Math.max(Math.abs(low), Math.abs(high)));
  const ticks = [];
  for (let i = Math.ceil(low / step); i * step <= high && ticks.length < 100; i++) {
    ticks.push({ v: i * step, label: escaped(axisNumber(i * step, unit, step, high)) });
  }
  return ticks;
}

/** Lowest and highest of all, and the mean of the means; null where there is nothing. */
function extentOf(rows) {
  let lowest = Infinity;
  let highest = -Infinity;
  let sum = 0;
  let count = 0;
  let newest = null;
  for (const [, values] of rows) {
    if (values && Number.isFinite(values[1])) {
      lowest = Math.min(lowest, values[0] ?? values[1]);
      highest = Math.max(highest, values[2] ?? values[1]);
      sum += values[1];
      count++;
      newest = values[1];
    }
  }
  return count ? { lowest, highest, mean: sum / count, newest } : null;
}

/* A limit is in sight as long as that does not press the curve into a twentieth of the height. */
function valueRangeOf(extent, limits) {
  if (!extent) {
    return [0, 1];
  }
  let { lowest: low, highest: high } = extent;
  const reach = 20 * Math.max(high - low, Math.abs(high) * 0.5, Number.MIN_VALUE);
  for (const { value } of limits) {
    if (Number.isFinite(value) && value <= high + reach && value >= low - reach) {
      low = Math.min(low, value);
      high = Math.max(high, value);
    }
  }
  if (low >= 0 && low < (high - low) * 2) {
    low = 0;
  }
  if (low === 0 && high === 0) {
    return [0, 1];
  }
  const pad = (high - low || Math.abs(high)) * 0.1;
  return [low === 0 ? 0 : low - pad, high + pad];
}

/**
 * Makes an empty curve; `show` fills it.
 * @param {Element} place where it is put at the end
 * @param {{label: string}} what the value's name
 * @returns {{element: Element, show: Function, append: Function, onRange: Function, close: Function}}
 *   show(data, {limits, strip, from, to, unit, words}): data.rows of [Date, [min, mean, max] or null];
 *     `words: false` leaves the words below the strip to another curve of the same test
 *   append(row, {strip, from, to}): one more row at the end; what is older than `from` goes
 *   onRange(fn): fn({kind: "range", from, to} in milliseconds, {kind: "zoom", factor}, {kind: "back"} or
 *     {kind: "now"})
 */
export function createChart(place, { label }) {
  const name = oneLine(label, 200);
  const id = `chart-${++made}`;
  const heading = h("h3", { id: `${id}-name`, class: "text" }, name);
  const reading = h("p", { class: "chart-note" });
  const canvas = h("div");
  const chosen = h("div", { hidden: true });
  const help = h("p", { class: "hidden", id: `${id}-help` },
    "Arrow keys go back and forth in time, plus and minus zoom, Home goes to now, Escape goes back.");
  const plot = h("div", {
    class: "chart-place", tabindex: "0", role: "application",
    aria: { labelledby: `${id}-name`, describedby: `${id}-said ${id}-help` },
  }, canvas, chosen);
  const strip = svg("svg", { class: "strip", role: "img" });
  const words = h("p", { class: "row chart-note" });
  const said = h("p", { class: "hidden", id: `${id}-said` });
  const rowsPlace = h("div", { class: "table-box", tabindex: "0", role: "group",
    aria: { label: `Values of ${name}` } });
  const details = h("details", {}, h("summary", { class: "note" }, "As a table"), rowsPlace);
  const figure = h("figure", { class: "chart", aria: { labelledby: `${id}-name` } },
    h("div", { class: "chart-tools" }, heading, reading), plot, strip, words, said, help, details);
  Object.assign(canvas.style, { position: "absolute", inset: "0" });
  plot.style.userSelect = "none"; /* dragging selects a time, no labels */
  Object.assign(chosen.style, {
    position: "absolute", pointerEvents: "none", background: "var(--band)",
    borderInline: "1px solid var(--accent)",
  });
  place.append(figure);

  let colours = coloursAt(figure);
  let graph = null;
  let isClosed = false;
  let shown = null; /* {rows, limits, strip, from, to, unit, words} */
  let extent = null;
  let tell = () => {};
  let drag = null; /* {start, end, isPan, pointer} */

  const valueText = (value) => number(value, shown?.unit ?? "");

  function extentText() {
    return `newest ${valueText(extent.newest)}, lowest ${valueText(extent.lowest)}, ` +
      `mean ${valueText(extent.mean)}, highest ${valueText(extent.highest)}`;
  }

  function sayRest() {
    reading.title = "";
    reading.textContent = extent ? extentText() : "no values in this time";
  }

  function sayRow(row) {
    const [time, values] = shown.rows[row] ?? [];
    if (!values) {
      sayRest();
      return;
    }
    const [lowest, mean, highest] = values;
    const around = lowest === highest ? "" : `, from ${valueText(lowest)} to ${valueText(highest)}`;
    reading.textContent = `${clockSeconds(time)}: ${valueText(mean)}${around}`;
    reading.title = exact(time);
  }

  /* Limits that are out of sight say on which side they are. */
  function drawLimits(to, area, g) {
    to.save();
    to.font = colours.font;
    to.textAlign = "left"; /* the newest values are on the right */
    const taken = [];
    for (const limit of shown.limits) {
      const y = g.toDomYCoord(limit.value);
      const isAbove = y < area.y;
      const isBelow = y > area.y + area.h;
      if (!Number.isFinite(y)) {
        continue;
      }
      to.strokeStyle = to.fillStyle = colours.limit;
      if (!isAbove && !isBelow) {
        to.setLineDash([6, 4]);
        to.lineWidth = 1.25;
        to.beginPath();
        to.moveTo(area.x, Math.round(y) + 0.5);
        to.lineTo(area.x + area.w, Math.round(y) + 0.5);
        to.stroke();
      }
      const text = `${clean(limit.label)}${isAbove ? " ↑" : isBelow ? " ↓" : ""}`;
      let at = Math.min(Math.max(y - 5, area.y + 12), area.y + area.h - 5);
      while (taken.some((other) => Math.abs(other - at) < 14)) {
        at += 14;
      }
      taken.push(at);
      to.setLineDash([]);
      to.lineWidth = 4;
      to.lineJoin = "round";
      to.strokeStyle = colours.back;
      to.strokeText(text, area.x + 4, at, area.w - 8);
      to.fillText(text, area.x + 4, at, area.w - 8);
    }
    to.restore();
  }

  function patterns() {
    const line = (state, path) =>
      svg("pattern", { id: `${id}-${state}`, width: "6", height: "6", patternUnits: "userSpaceOnUse" },
        svg("path", { d: path, stroke: colours.back, "stroke-width": "1.5", fill: "none" }));
    return svg("defs", {}, line("problem", "M-1 7 7 -1M-1 1 1 -1M5 7 7 5"), line("unknown", "M3 0V6"),
      line("silent", "M0 3H6"), line("stale", "M0 3H6M3 0V6"));
  }

  function drawStrip() {
    const all = shown.strip;
    strip.toggleAttribute("hidden", all.length === 0);
    const area = graph?.getArea();
    if (all.length === 0 || !area) {
      return;
    }
    const span = shown.to - shown.from;
    const x = (time) =>
      area.x + Math.min(Math.max((ms(time) - shown.from) / span, 0), 1) * area.w;
    const parts = [];
    for (const { from, to, state } of all) {
      const left = x(from);
      const width = x(to) - left;
      if (width <= 0) {
        continue;
      }
      /* A problem of a minute is to be seen in a month, too. */
      const box = { x: left, width: Math.max(width, state === "ok" ? 0 : 1.5), y: 0, height: 14 };
      parts.push(svg("rect", { ...box, data: { state } }));
      if (state !== "ok") {
        parts.push(svg("path", {
          d: `M${box.x} 0h${box.width}v14h${-box.width}z`, fill: `url(#${id}-${state})`,
        }));
      }
    }
    fill(strip, stripTitle, patterns(), ...parts);
  }

  /* There may be hundreds of states: the one below the pointer says its times. */
  const stripTitle = svg("title");
  strip.addEventListener("pointermove", (event) => {
    const area = graph?.getArea();
    const x = event.clientX - strip.getBoundingClientRect().left;
    const time = area ? shown.from + (x - area.x) / area.w * (shown.to - shown.from) : NaN;
    const part = shown?.strip.findLast(({ from, to }) => ms(from) <= time && time <= ms(to));
    stripTitle.textContent = part
      ? `${part.state} from ${exact(ms(part.from))} to ${exact(ms(part.to))}` : "";
  });

  function sayStrip() {
    const seconds = new Map();
    let last = null;
    for (const piece of shown.strip) {
      const { from, to, state } = piece;
      const length = Math.max(0, (Math.min(ms(to), shown.to) - Math.max(ms(from), shown.from)) / 1000);
      seconds.set(state, (seconds.get(state) ?? 0) + length);
      last = state !== "ok" && length > 0 ? piece : last;
    }
    const present = wordsOfStates.filter((state) => seconds.get(state) > 0);
    const texts = present.map((state) => `${state} ${ago(seconds.get(state))}`);
    const isOn = last && last === shown.strip.at(-1) && now() - ms(last.to) < goesOnMs;
    const newest = !last ? "" : isOn ? `${last.state} since ${clock(iso(ms(last.from)))}`
      : `last ${last.state} ${clock(iso(ms(last.from)))} to ${clock(iso(ms(last.to)))}`;
    strip.setAttribute("aria-label", `States: ${[...texts, newest].filter(Boolean).join(", ") || "none"}`);
    words.hidden = !shown.words || present.length === 0;
    fill(words, ...present.map((state, i) => h("span", { class: "badge", data: { state } }, texts[i])),
      newest ? h("span", { title: `${exact(ms(last.from))} to ${exact(ms(last.to))}` }, newest) : null);
  }

  function sayAll() {
    const limits = shown.limits.map((limit) => clean(limit.label)).join(", ");
    said.textContent = `From ${exact(iso(shown.from))} to ${exact(iso(shown.to))}: ` +
      `${extent ? extentText() : "no values"}.` +
      (limits ? ` Limits: ${limits}.` : "");
    if (!drag && (graph?.getSelection() ?? -1) < 0) {
      sayRest();
    }
    sayStrip();
    if (details.open) {
      fillTable();
    }
  }

  function fillTable() {
    const rows = (shown?.rows ?? []).filter(([, values]) => values).reverse();
    const cell = (value) => h("td", { class: "numeric" }, valueText(value));
    fill(rowsPlace, h("table", {},
      h("caption", {}, rows.length > mostTableRows
        ? `The newest ${mostTableRows} of ${rows.length}; choose a shorter time for the others`
        : "Newest first"),
      h("thead", {}, h("tr", {}, ["Time", "Lowest", "Mean", "Highest"].map((text, i) =>
        h("th", { scope: "col", class: i ? "numeric" : "" }, text)))),
      h("tbody", {}, rows.slice(0, mostTableRows).map(([time, [lowest, mean, highest]]) =>
        h("tr", {}, h("th", { scope: "row" }, exact(iso(ms(time)))), cell(lowest), cell(mean),
          cell(highest))))));
  }

  function draw() {
    if (!graph) {
      return;
    }
    /* Without a row dygraphs draws nothing, not even axes. */
    const rows = shown.rows.length
      ? shown.rows
      : [[new Date(shown.from), null], [new Date(shown.to), null]];
    graph.updateOptions({
      file: rows, dateWindow: [shown.from, shown.to], valueRange: valueRangeOf(extent, shown.limits),
    });
    figure.dataset.drawn = String(shown.rows.length);
  }

  function begin(Dygraph) {
    if (isClosed || graph || !shown) {
      return;
    }
    graph = new Dygraph(canvas, [[new Date(shown.from), null], [new Date(shown.to), null]], {
      labels: ["time", seriesLabel],
      customBars: true,
      dateWindow: [shown.from, shown.to],
      valueRange: valueRangeOf(extent, shown.limits),
      colors: [colours.line],
      plotter: [(e) => drawBand(e, colours), (e) => drawLine(e, colours)],
      axisLineColor: colours.edge,
      axisLineWidth: 1,
      gridLineColor: colours.grid,
      gridLineWidth: 1,
      axisLabelFontSize: 12,
      rightGap: 8,
      highlightCircleSize: 4,
      interactionModel: {},
      axes: {
        x: { drawGrid: false, pixelsPerLabel: 80, axisLabelWidth: 70, axisTickSize: 8 },
        y: {
          axisLabelWidth: labelWidth(),
          ticker: (low, high, pixels) => ticksOf(low, high, pixels, shown.unit),
        },
      },
      underlayCallback: drawLimits,
      highlightCallback: (event, x, points, row) => sayRow(row),
      unhighlightCallback: () => sayRest(),
      drawCallback: () => graph && drawStrip(),
    });
    draw();
  }

  const scheme = () => {
    colours = coloursAt(figure);
    if (graph) {
      graph.updateOptions({
        colors: [colours.line], axisLineColor: colours.edge, gridLineColor: colours.grid,
      }, true);
      draw();
    }
  };
  dark.addEventListener("change", scheme);
  forced.addEventListener("change", scheme);

  /* As wide on all curves of a page, so that their times stand below each other. */
  const labelWidth = () => (plot.clientWidth < 480 ? 54 : 72);

  const sized = new ResizeObserver(throttle(() => {
    if (graph && plot.clientWidth > 0) {
      graph.updateOptions({ axes: { y: { axisLabelWidth: labelWidth() } } }, true);
      graph.resize();
    }
  }));
  sized.observe(plot);

  /* ---- dragging ---- */

  const xOf = (event) => event.clientX - plot.getBoundingClientRect().left;

  function stopDrag() {
    if (drag) {
      plot.releasePointerCapture?.(drag.pointer);
    }
    drag = null;
    chosen.hidden = true;
  }

  function moveDrag(event) {
    drag.end = xOf(event);
    if (drag.isPan) {
      const shift = graph.toDataXCoord(drag.start) - graph.toDataXCoord(drag.end);
      drag.shift = (drag.shift ?? 0) + shift;
      drag.start = drag.end;
      graph.updateOptions({ dateWindow: [shown.from + drag.shift, shown.to + drag.shift] });
      return;
    }
    const area = graph.getArea();
    const clamped = (x) => Math.min(Math.max(x, area.x), area.x + area.w);
    const [left, right] = [drag.start, drag.end].map(clamped).sort((a, b) => a - b);
    Object.assign(chosen.style, {
      left: `${left}px`, width: `${right - left}px`, top: `${area.y}px`, height: `${area.h}px`,
    });
    chosen.hidden = right - left < leastDrag;
    drag.range = chosen.hidden ? null : [graph.toDataXCoord(left), graph.toDataXCoord(right)];
  }

  plot.addEventListener("pointerdown", (event) => {
    if (graph && event.isPrimary && event.button === 0) {
      const x = xOf(event);
      drag = { start: x, end: x, isPan: event.shiftKey, pointer: event.pointerId };
      plot.setPointerCapture(event.pointerId);
    }
  });
  plot.addEventListener("pointermove", (event) => drag && moveDrag(event));
  plot.addEventListener("pointerup", () => {
    const done = drag;
    stopDrag();
    if (done?.isPan && done.shift) {
      ask(shown.from + done.shift, shown.to + done.shift);
    } else if (done?.range) {
      ask(...done.range);
    }
  });
  plot.addEventListener("pointercancel", () => {
    stopDrag();
    draw();
  });
  plot.addEventListener("dblclick", () => tell({ kind: "back" }));

  /* ---- keys ---- */

  function ask(from, to) {
    tell({ kind: "range", from: Math.round(from), to: Math.round(to) });
  }

  plot.addEventListener("keydown", (event) => {
    if (!shown || event.ctrlKey || event.altKey || event.metaKey) {
      return;
    }
    const { from, to } = shown;
    const span = to - from;
    const does = {
      ArrowLeft: () => ask(from - span / 4, to - span / 4),
      ArrowRight: () => ask(from + span / 4, to + span / 4),
      "+": () => tell({ kind: "zoom", factor: 0.5 }),
      "=": () => tell({ kind: "zoom", factor: 0.5 }),
      "-": () => tell({ kind: "zoom", factor: 2 }),
      Home: () => tell({ kind: "now" }),
      Escape: () => (drag ? (stopDrag(), draw()) : tell({ kind: "back" })),
    }[event.key];
    if (does) {
      event.preventDefault();
      does();
    }
  });

  details.addEventListener("toggle", () => (details.open ? fillTable() : fill(rowsPlace)));

  return {
    element: figure,
    show(data, { limits = [], strip: states = [], from, to, unit = data.unit ?? "", words: isSaid = true }) {
      shown = {
        rows: data.rows, limits, strip: states, from: ms(from), to: Math.max(ms(to), ms(from) + 1000),
        unit, words: isSaid,
      };
      extent = extentOf(shown.rows);
      strip.toggleAttribute("hidden", states.length === 0);
      if (graph) {
        draw();
      } else {
        prepare().then(begin).catch((reason) => {
          reading.textContent = reason.message;
          announce(reason.message);
        });
      }
      sayAll();
    },
    append(row, { strip: states, from, to } = {}) {
      if (!shown || isClosed) {
        return;
      }
      shown.from = from === undefined ? shown.from : ms(from);
      shown.to = to === undefined ? Math.max(shown.to, ms(row[0])) : ms(to);
      shown.strip = states ?? shown.strip;
      /* The last one before the window is kept: the line comes from there. */
      const first = shown.rows.findIndex(([time]) => ms(time) >= shown.from);
      shown.rows = [...shown.rows.slice(Math.max(0, first - 1)), row];
      extent = extentOf(shown.rows);
      if (!drag) {
        draw();
        sayAll();
      }
    },
    onRange(fn) {
      tell = fn;
    },
    close() {
      isClosed = true;
      dark.removeEventListener("change", scheme);
      forced.removeEventListener("change", scheme);
      sized.disconnect();
      graph?.destroy();
      graph = null;
      figure.remove();
    },
  };
}
