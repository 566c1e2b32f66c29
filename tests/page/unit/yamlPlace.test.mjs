import assert from "node:assert/strict";
import { readFileSync, readdirSync } from "node:fs";
import { test } from "node:test";
import { findTest } from "../../../collector/page/base/yamlPlace.js";

/* What is found, as text. */
function found(text, group, name) {
  const place = findTest(text, group, name);
  return place && text.split("\n").slice(place.from - 1, place.to).map((line) => line.trim()).join(" / ");
}

const file = `# the shop
version: 1   # of the file
intervals: {poll: 30s,
            check: 60s}
groups:
  - name: every host
    agents: ["*"]
    tests:
      load:       {load: {5m: 8}}
      # not this one
      ssh:  {process: sshd}   # nor this

  - agents:
      - "web-*"
    name: 'web servers'
    tests:
        ssh: off
        "front page":
            http: "https://shop.example.org/#top"
            contains: >
              load: of
              text

              more

        # below it
        'it''s': {disk: /,
                  free: 10 %}
        "a\\u0020b": {load: {}}
        nginx :
          process: nginx
          cpu: 80 %
smtp: {server: "mail.example.org:587"}
`;

test("over lines and between braces", () => {
  assert.equal(found(file, "every host", "load"), "load:       {load: {5m: 8}}");
  assert.deepEqual(findTest(file, "every host", "load"), { from: 9, to: 9 });
  assert.equal(found(file, "every host", "ssh"), "ssh:  {process: sshd}   # nor this");
  assert.equal(found(file, "web servers", "ssh"), "ssh: off");
  assert.deepEqual(findTest(file, "web servers", "front page"), { from: 18, to: 24 });
  assert.equal(found(file, "web servers", "it's"), "'it''s': {disk: /, / free: 10 %}");
  assert.equal(found(file, "web servers", "a b"), '"a\\u0020b": {load: {}}');
  assert.equal(found(file, "web servers", "nginx"), "nginx : / process: nginx / cpu: 80 %");
});

test("what is not there", () => {
  for (const [group, name] of [["every host", "nginx"], ["nobody", "ssh"], ["web servers", "http"],
    ["every host", ""]]) {
    assert.equal(findTest(file, group, name), null);
  }
  for (const nothing of [null, undefined, 5, {}]) {
    assert.equal(findTest(file, "every host", nothing), null);
    assert.equal(findTest(file, nothing, "ssh"), null);
    assert.equal(findTest(nothing, "every host", "ssh"), null);
  }
});

test("ends of lines, marks, directives", () => {
  assert.deepEqual(findTest("\ufeff" + file.replaceAll("\n", "\r\n"), "web servers", "nginx"), { from: 30,
    to: 32 });
  assert.deepEqual(findTest("%YAML 1.2\n---\n" + file + "...\nrest: {", "every host", "load"), { from: 11,
    to: 11 });
  assert.deepEqual(findTest("---\n" + file + "---\nother: 1\n", "every host", "load"), { from: 10, to: 10 });
});

test("odd indentation", () => {
  const odd = [
    "groups:",
    "-   name: a",
    "    tests:",
    "     one:",
    "             load: {}",
    "",
    "             host: x",
    "     two: {load: {}}",
    "-",
    "  tests: {one: {cpu: {}},",
    "    two: {cpu:",
    "{}} }",
    "  name: b",
  ].join("\n");
  assert.deepEqual(findTest(odd, "a", "one"), { from: 4, to: 7 });
  assert.deepEqual(findTest(odd, "a", "two"), { from: 8, to: 8 });
  assert.deepEqual(findTest(odd, "b", "one"), { from: 10, to: 10 });
  assert.deepEqual(findTest(odd, "b", "two"), { from: 11, to: 12 });
});

test("names with signs in them", () => {
  const text = [
    "groups:",
    "  - name: a#b: c",
    "  - name: g",
    "    tests:",
    "      a:b: {load: {}}",
    "      c#d: {load: {}}",
    "      -e: {load: {}}",
    "      5: {load: {}}",
    "      true: {load: {}}",
    "      \u202eevil <b>: {load: {}}",
    "      \"q: {\\\"\": {http: \"x}: y\"}",
  ].join("\n");
  assert.equal(findTest(text, "g", "a:b"), null, "a colon in a plain name of the group above is a mistake");
  const right = text.replace("a#b: c", "'a#b: c'");
  ["a:b", "c#d", "-e", "5", "true", "\u202eevil <b>", 'q: {"'].forEach((name, i) =>
    assert.deepEqual(findTest(right, "g", name), { from: 5 + i, to: 5 + i }, name));
});

test("texts that go on in the next lines", () => {
  const text = "groups:\n- name: a\n  tests:\n    x: {load: {}}\n    y:\n      http: \"one\n\n  two\\\n three\"\n      contains: some\n" +
    "        text\n\n        more\n      post: |\n        load: 5\n        # of the text\n    z: {http: some\n      text}\n";
  assert.deepEqual(findTest(text, "a", "y"), { from: 5, to: 16 });
  assert.deepEqual(findTest(text, "a", "z"), { from: 17, to: 18 });
});

test("JSON", () => {
  const content = { version: 1, groups: [{ name: "a", agents: ["*"], tests: { "x\u0007\"": { load: {} },
    y: "off" } }] };
  assert.deepEqual(findTest(JSON.stringify(content), "a", "y"), { from: 1, to: 1 });
  const text = JSON.stringify(content, null, 2);
  assert.deepEqual(findTest(text, "a", 'x\u0007"'), { from: 10, to: 12 });
  assert.deepEqual(findTest(text, "a", "y"), { from: 13, to: 13 });
});

test("what is wrong is not understood, and nothing is thrown", () => {
  const wrong = ["", "\n\n", "groups", "groups:", "groups: [", "groups: {", 'groups: "', "- - -", "a: b: c",
    ": x", "}", "\t",
    "groups:\n - name: a\n   tests: {x: {}\n", "groups:\n  - name: a\n  tests:\n    x: 1\n    - y\n",
      "? a\n: b", "&a b: *a",
    "groups: {{{{", "[".repeat(100000), "- ".repeat(100000), "{a: ".repeat(100000), "\ud800",
      "x: \"\\UFFFFFFFF\""];
  for (const text of wrong) {
    assert.equal(findTest(text, "a", "x"), null);
  }
});

test("cut off anywhere it is found where it is, or not at all", () => {
  for (let i = 0; i <= file.length; i++) {
    const place = findTest(file.slice(0, i), "every host", "load");
    assert.ok(place === null || place.from === 9, `at ${i}`);
  }
});

test("changed anywhere nothing is thrown", () => {
  for (const character of ["{", "}", "[", ":", "'", '"', "\n", "-", "#", "|", " ", "\t"]) {
    for (let i = 0; i < file.length; i += 3) {
      findTest(file.slice(0, i) + character + file.slice(i + 1), "web servers", "nginx");
    }
  }
});

test("a megabyte is gone through", () => {
  let text = "groups:\n  - name: g\n    tests:\n";
  for (let i = 0; i < 25000; i++) {
    text += `      test ${i}: {load: {5m: 8}}\n`;
  }
  assert.deepEqual(findTest(text, "g", "test 24999"), { from: 25003, to: 25003 });
  findTest("a: " + "x".repeat(1000000), "g", "x");
  findTest("a: " + "x \n".repeat(300000), "g", "x");
  findTest("a:\n" + "  x\n".repeat(200000), "g", "x");
});

test("the examples of the documents", () => {
  const directory = new URL("../../../examples/", import.meta.url);
  for (const name of readdirSync(directory).filter((each) => each.endsWith(".yaml"))) {
    const text = readFileSync(new URL(name, directory), "utf8");
    const lines = text.split("\n");
    let group = null;
    let count = 0;
    lines.forEach((line, i) => {
      group = /^ {2}- name: (.*)$/.exec(line)?.[1] ?? group;
      const test = /^ {6}([a-z][a-z ]*): +\S/.exec(line)?.[1] ?? /^ {6}([a-z][a-z ]*):$/.exec(line)?.[1];
      if (test) {
        count++;
        assert.equal(findTest(text, group, test)?.from, i + 1, `${name}: ${group}: ${test}`);
      }
    });
    assert.ok(count > 3, name);
  }
});
