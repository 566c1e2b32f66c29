import assert from "node:assert/strict";
import { test } from "node:test";
import { tooLarge } from "../../../collector/page/view/fleet.js";

test("what the collector would not take is known, with both sizes", () => {
  assert.equal(tooLarge(1048576), null);
  assert.equal(tooLarge(1048577).detail, "It may have 1,048,576 bytes, and has 1,048,577.");
});
