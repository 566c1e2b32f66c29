/* The small curves of lists, as the data of SVG paths: numbers and letters that this module writes itself, so
 * that nothing from outside gets into an attribute. */

/* Room for half of the line's width at the borders. */
const margin = 1;

/* Of the largest value: what moves by less lies about the middle, for it would look like a collapse. */
const leastRange = 0.1;

const isNumber = (value) => typeof value === "number" && Number.isFinite(value);
const short = (value) => String(Math.round(value * 10) / 10);

/* Of many values the lowest and the highest of each column of pixels, in the order in which they come: a peak
 * of one value must not vanish. A column without values is a gap. */
function thinned(values, columns) {
  const points = [];
  for (let column = 0; column < columns; column++) {
    const from = Math.floor((column * values.length) / columns);
    const end = Math.floor(((column + 1) * values.length) / columns);
    let low = -1;
    let high = -1;
    for (let i = from; i < end; i++) {
      if (isNumber(values[i])) {
        low = low < 0 || values[i] < values[low] ? i : low;
        high = high < 0 || values[i] > values[high] ? i : high;
      }
    }
    if (low < 0) {
      points.push([from, null]);
    } else {
      points.push([Math.min(low, high), values[Math.min(low, high)]]);
      if (low !== high) {
        points.push([Math.max(low, high), values[Math.max(low, high)]]);
      }
    }
  }
  return points;
}

function rangeOf(points, { min, max } = {}) {
  let low = Infinity;
  let high = -Infinity;
  for (const [, value] of points) {
    if (isNumber(value)) {
      low = Math.min(low, value);
      high = Math.max(high, value);
    }
  }
  const middle = low / 2 + high / 2;
  const half = leastRange / 2 * Math.max(Math.abs(low), Math.abs(high));
  return { low: isNumber(min) ? min : Math.min(low, middle - half),
    high: isNumber(max) ? max : Math.max(high, middle + half) };
}

/* Points that follow each other without a gap. */
function runsOf(points) {
  const runs = [];
  let run = null;
  for (const point of points) {
    if (!isNumber(point[1])) {
      run = null;
    } else if (run === null) {
      runs.push((run = [point]));
    } else {
      run.push(point);
    }
  }
  return runs;
}

/**
 * @param {Array<?number>} values at equal distances; null and what is no number is a gap
 * @param {number} width pixels
 * @param {number} height
 * @param {{min?: number, max?: number}} [range] of the values, where it is not to be their own, or a tenth of
 *   the largest with theirs in the middle; what lies outside is drawn at the border
 * @returns {{path: string, area: string, gaps: Array<{from: number, to: number}>}} `path` is the line, in
 *   which a value between two gaps is a line of no length: a dot, with `stroke-linecap: round`. `area` is
 *   what lies below it. `gaps` in pixels. A line that never changes lies in the middle. All empty where there
 *   is nothing to draw.
 */
export function sparkPath(values, width, height, range = {}) {
  const nothing = { path: "", area: "", gaps: [] };
  if (!Array.isArray(values) || values.length === 0 || !(width > 0) || !(height > 0)) {
    return nothing;
  }
  const columns = Math.max(Math.floor(width), 1);
  const points =
    values.length > 2 * columns ? thinned(values, columns) : values.map((value, i) => [i, value]);
  const { low, high } = rangeOf(points, range);
  const inner = { width: Math.max(width - 2 * margin, 0), height: Math.max(height - 2 * margin, 0) };
  const last = values.length - 1;
  const x = (i) => margin + inner.width * (last === 0 ? 0.5 : i / last);
  const y = (value) => {
    const share = high > low ? Math.min(Math.max(value / (high - low) - low / (high - low), 0), 1) : 0.5;
    return margin + inner.height * (1 - share);
  };
  const runs = runsOf(points);
  if (runs.length === 0) {
    return { ...nothing, gaps: [{ from: 0, to: width }] };
  }
  let path = "";
  let area = "";
  const gaps = [];
  let end = 0;
  for (const run of runs) {
    const from = x(run[0][0]);
    const to = x(run.at(-1)[0]);
    const line = run.map(([i, value]) => short(x(i)) + " " + short(y(value))).join("L");
    path += "M" + line + (run.length === 1 ? "h0" : "");
    if (run.length > 1) {
      area += `M${short(from)} ${short(height)}L${line}L${short(to)} ${short(height)}Z`;
    }
    if (run !== runs[0] || run[0][0] > 0) {
      gaps.push({ from: end, to: from });
    }
    end = to;
  }
  if (runs.at(-1).at(-1) !== points.at(-1)) {
    gaps.push({ from: end, to: width });
  }
  return { path, area, gaps };
}
