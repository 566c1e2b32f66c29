/* The shell has the browser fetch at once what main.js imports without being asked, and nothing else:
 * one that is missing costs a round trip, one too many is loaded for nothing. And all of it is little. */
import assert from "node:assert/strict";
import { readdir, readFile } from "node:fs/promises";
import { posix } from "node:path";
import test from "node:test";
import { gzipSync } from "node:zlib";

const page = new URL("../../../collector/page/", import.meta.url);
const text = (name) => readFile(new URL(name, page), "utf8");

/* `import … from "x"`, `export … from "x"` and `import "x"`, but not import("x"). */
const importsOf = (source) => [...source.matchAll(/^(?:import|export)\b(?:[^;"]*?\bfrom)?\s*"([^"]+)";/gm)]
  .map((found) => found[1]);

async function staticImports(name, known = new Set()) {
  for (const each of importsOf(await text(name))) {
    assert.ok(each.startsWith("."), `${name} imports ${each}`);
    const path = posix.join(posix.dirname(name), each);
    if (!known.has(path)) {
      known.add(path);
      await staticImports(path, known);
    }
  }
  return known;
}

const link = /<link rel="modulepreload" href="\/page\/@VERSION@\/([^"]+)">/g;
const preloadsOf = (shell) => [...shell.matchAll(link)].map((found) => found[1]);

test("imports of every kind of writing are found", () => {
  assert.deepEqual(importsOf('import { a } from "./a.js";\nimport * as b from "./b.js";\nimport {\n  c,\n' +
    '} from "./c.js";\nimport "./d.js";\nexport { e } from "./e.js";\nimport("./f.js");\n' +
    'const g = await import("./g.js");\n'), ["./a.js", "./b.js", "./c.js", "./d.js", "./e.js"]);
});

test("each module that main.js imports is preloaded, once", async () => {
  const preloads = preloadsOf(await text("index.html"));
  assert.deepEqual([...preloads].sort(), [...await staticImports("main.js")].sort());
});

test("no import leads to what is not there, and views are no part of the beginning", async () => {
  const views = (await readdir(new URL("view/", page))).map((name) => `view/${name}`);
  for (const name of [...views, "streamWorker.js"]) {
    await staticImports(name); /* reads each */
  }
  assert.deepEqual([...await staticImports("main.js")].filter((name) => name.startsWith("view/")), []);
});

test("all of the page is less than 150 KB, as it is served", async () => {
  const files = (await readdir(page, { withFileTypes: true, recursive: true }))
    .filter((each) => each.isFile() && each.name !== "content.cmake")
    .map((each) => posix.join(each.parentPath ?? each.path, each.name));
  assert.ok(files.length > 25, "they are found");
  let bytes = 0;
  for (const file of files) {
    bytes += gzipSync(await readFile(file), { level: 9 }).length;
  }
  assert.ok(bytes < 150000, `${bytes} bytes`);
  assert.ok(bytes > 75000, `${bytes} bytes: not all are found`);
});
