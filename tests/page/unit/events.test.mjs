import assert from "node:assert/strict";
import { test } from "node:test";
import { timesOf } from "../../../collector/page/view/events.js";

const at = (...times) => times.map((time) => ({ time: `2026-05-01T${time}Z` }));
const minutes = (texts) => texts.map((text) => text.slice(3)); /* hours are those of the reader's zone */

test("events of one minute have seconds, others none", () => {
  assert.deepEqual(minutes(timesOf(at("12:03:40", "12:03:07", "12:01:00", "11:01:00.25", "11:00:59"))),
    ["03:40", "03:07", "01", "01", "00"]);
  assert.deepEqual(minutes(timesOf(at("12:03:40"))), ["03"]);
  assert.deepEqual(timesOf([]), []);
});
