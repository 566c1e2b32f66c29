import assert from "node:assert/strict";
import { test } from "node:test";
import { SseParser } from "../../../collector/page/base/sse.js";

const parse = (...pieces) => {
  const parser = new SseParser();
  return pieces.flatMap((piece) => parser.push(piece));
};

const stream =
  '\ufeffretry: 3000\r\nid: 4711.1-17\r\n\r\n: still there\n\nid: 4711.1-18\revent: event\rdata: {"a":\rdata:1}\r\r' +
  "data\n\ndata:  two blanks\nid\n\nevent: x\n\nfoo: bar\ndata: é😀\r\n\r\n";

const expected = [
  { id: "4711.1-18", event: "event", data: '{"a":\n1}', retry: null },
  { id: "4711.1-18", event: "message", data: "", retry: null },
  { id: "", event: "message", data: " two blanks", retry: null },
  { id: "", event: "message", data: "é😀", retry: null },
];

test("messages, whatever ends their lines", () => {
  assert.deepEqual(parse(stream), expected);
});

test("cut in two at each place", () => {
  for (let i = 0; i <= stream.length; i++) {
    assert.deepEqual(parse(stream.slice(0, i), stream.slice(i)), expected, `at ${i}`);
  }
});

test("cut in three at each two places, and into single characters", () => {
  for (let i = 0; i <= stream.length; i += 3) {
    for (let j = i; j <= stream.length; j += 2) {
      assert.deepEqual(parse(stream.slice(0, i), "", stream.slice(i, j), stream.slice(j)), expected);
    }
  }
  assert.deepEqual(parse(...stream.split("")), expected);
});

test("cut between bytes, by way of a decoder", () => {
  const bytes = new TextEncoder().encode(stream);
  for (let i = 0; i <= bytes.length; i++) {
    const decoder = new TextDecoder("utf-8");
    const pieces = [bytes.slice(0, i), bytes.slice(i)].map((piece) => decoder.decode(piece,
      { stream: true }));
    assert.deepEqual(parse(...pieces), expected);
  }
});

test("a block without data is no message, but where the listener stands is known", () => {
  const parser = new SseParser();
  assert.deepEqual(parser.push("retry: 3000\nid: 4711.1-17\n"), []);
  assert.equal(parser.lastEventId, "", "not before the block ends");
  assert.deepEqual(parser.push("\n"), []);
  assert.equal(parser.lastEventId, "4711.1-17");
  assert.equal(parser.retry, 3000);
});

test("what is cut off by the end of the connection is no message", () => {
  const parser = new SseParser("7");
  parser.push("id: 8\ndata: half");
  parser.reset();
  assert.equal(parser.lastEventId, "7");
  assert.deepEqual(parser.push("data: whole\n\n"), [{ id: "7", event: "message", data: "whole",
    retry: null }]);
});

test("fields that are wrong are none", () => {
  const parser = new SseParser();
  assert.deepEqual(parser.push("retry: soon\nretry: 1e3\nretry: -1\nid: a\0b\nDATA: x\n data: y\ndatax: z\n\n"), []);
  assert.equal(parser.retry, null);
  assert.equal(parser.lastEventId, "");
  assert.deepEqual(parse("retry: 5\ndata: x\n\n")[0].retry, 5);
});

test("a mark of the byte order is one at the very beginning only", () => {
  assert.deepEqual(parse("\ufeff", "data: x\n\n").map((each) => each.data), ["x"]);
  assert.deepEqual(parse("data: x\n\n\ufeffdata: y\n\n").map((each) => each.data), ["x"]);
});

test("long lines and many messages are looked through once", (t) => {
  const { indexOf } = String.prototype;
  let looked = 0; /* at so many characters */
  t.after(() => Object.assign(String.prototype, { indexOf }));
  Object.assign(String.prototype, { indexOf(what, from = 0) {
    const found = indexOf.call(this, what, from);
    looked += (found < 0 ? this.length : found + 1) - from;
    return found;
  } });
  const parser = new SseParser();
  parser.push("data: ");
  for (let i = 0; i < 1000; i++) {
    parser.push("x".repeat(1000));
  }
  assert.equal(parser.push("\n\n")[0].data.length, 1000000);
  for (const end of ["\n", "\r", "\r\n"]) {
    assert.equal(parse(`data: x${end}${end}`.repeat(100000)).length, 100000);
  }
  const given = 1000000 + 100000 * (9 + 9 + 11);
  assert.ok(looked > given && looked < 4 * given, `${looked} of ${given}`);
});
