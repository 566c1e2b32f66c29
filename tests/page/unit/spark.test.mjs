import assert from "node:assert/strict";
import { test } from "node:test";
import { sparkPath } from "../../../collector/page/base/spark.js";

const nothing = { path: "", area: "", gaps: [] };

test("nothing to draw, or nowhere", () => {
  for (const [values, width, height] of [[[], 10, 10], [null, 10, 10], [undefined, 10, 10], [[1], 0, 10],
    [[1], 10, NaN]]) {
    assert.deepEqual(sparkPath(values, width, height), nothing);
  }
  assert.deepEqual(sparkPath([null, NaN, "7", Infinity], 10, 10), { ...nothing, gaps: [{ from: 0,
    to: 10 }] });
});

test("a line from border to border", () => {
  const { path, area, gaps } = sparkPath([0, 5, 10], 102, 12);
  assert.equal(path, "M1 11L51 6L101 1");
  assert.equal(area, "M1 12L1 11L51 6L101 1L101 12Z");
  assert.deepEqual(gaps, []);
});

test("one value is a dot, one that never changes lies in the middle", () => {
  assert.equal(sparkPath([7], 12, 12).path, "M6 6h0");
  assert.equal(sparkPath([7, 7], 12, 12).path, "M1 6L11 6");
  assert.equal(sparkPath([0, 0], 12, 12, { min: 0, max: 0 }).path, "M1 6L11 6");
});

test("what hardly moves is no collapse", () => {
  const ys = (values, range) => [...sparkPath(values, 102, 102, range).path.matchAll(/ ([0-9.]+)/g)].map(([, y]) =>
    Number(y));
  assert.deepEqual(ys([60.81, 60.8, 60.8]), [50.9, 51.1, 51.1], "10 MB of 60 GB");
  assert.deepEqual(ys([99, 101]), [60.9, 41.1], "2 %, in the middle");
  assert.deepEqual(ys([-99, -101]), [41.1, 60.9]);
  assert.deepEqual(ys([90, 100]), [101, 1], "a tenth fills it");
  assert.deepEqual(ys([0, 0.001]), [101, 1], "small is not little");
  assert.deepEqual(ys([99, 101], { min: 99, max: 101 }), [101, 1], "what is asked for");
});

test("gaps", () => {
  const { path, area, gaps } = sparkPath([null, 1, null, 0, 1, null], 12, 12);
  assert.equal(path, "M3 1h0M7 11L9 1");
  assert.equal(area, "M7 12L7 11L9 1L9 12Z");
  assert.deepEqual(gaps, [{ from: 0, to: 3 }, { from: 3, to: 7 }, { from: 9, to: 12 }]);
});

test("what lies outside of the range is drawn at the border", () => {
  assert.equal(sparkPath([-5, 500], 12, 12, { min: 0, max: 100 }).path, "M1 11L11 1");
});

test("numbers of any size make numbers of a path", () => {
  for (const values of [[1e308, -1e308], [5e-324, 0], [1e-300, 1e300], [-1, -1.0000000001]]) {
    assert.match(sparkPath(values, 50, 20).path, /^[ML0-9. h]+$/);
  }
});

test("of many values the peaks stay", () => {
  const values = new Array(10000).fill(1);
  values[5000] = 100;
  values[7000] = null;
  const { path, gaps } = sparkPath(values, 100, 20);
  assert.ok(path.length < 3000);
  assert.match(path, / 1L/);
  assert.deepEqual(gaps, []);
  const half = values.map((value, i) => (i < 5000 ? value : null));
  assert.equal(sparkPath(half, 100, 20).gaps.length, 1);
});
