/* Where a test stands in the text of the fleet file. The collector reads the file, and knows whether it is
 * right; this only finds lines in a text that it has taken. So it reads of YAML what such a file may have (no
 * anchors, tags and further documents), is lenient with the rest, and says that it does not know rather than
 * guess. */

const deepest = 100;

const isBlank = (character) => character === " " || character === "\t";
const endsToken = (character) => character === undefined || isBlank(character);

/* What a plain text must not begin with. */
const indicators = new Set([..."[]{},#&*!|>'\"%@`"]);
const inFlow = new Set([..."[]{},"]);

const escapes = {
  0: "\0", a: "\x07", b: "\b", t: "\t", n: "\n", v: "\v", f: "\f", r: "\r", e: "\x1b",
  N: "\x85", _: "\xa0", L: "\u2028", P: "\u2029",
};
const hexDigits = { x: 2, u: 4, U: 8 };

/* Nodes are {kind: "nothing"}, {kind: "text", text}, {kind: "list", items} and {kind: "map", entries}; an
 * entry is {key, value, from, to}, with rows from 0. */
class Reader {
  constructor(text) {
    this.lines = text.replace(/^\ufeff/, "").split(/\r?\n/);
    this.row = 0;
    this.column = 0;
    this.last = 0; /* row of the last thing that was read, comments aside */
    this.depth = 0;
    this.hasBegun = false;
  }

  get line() {
    return this.lines[this.row];
  }

  /* undefined at the end of the line. */
  at(offset = 0) {
    return this.line[this.column + offset];
  }

  move(by) {
    this.column += by;
    this.last = this.row;
  }

  skipBlanks() {
    while (isBlank(this.at())) {
      this.column++;
    }
  }

  /* To the next thing on this line or one below, over comments. False at the end of the text. */
  skip() {
    for (;;) {
      if (this.row >= this.lines.length) {
        return false;
      }
      const isMark = this.column === 0 && /^(---|\.\.\.)([ \t]|$)/.test(this.line);
      if (isMark && (this.line[0] === "." || this.hasBegun)) {
        this.row = this.lines.length;
        return false;
      }
      const isAside = isMark || (this.column === 0 && this.line[0] === "%" && !this.hasBegun);
      if (isAside) {
        this.column = this.line[0] === "%" ? this.line.length : 3;
      }
      this.skipBlanks();
      const isComment = this.at() === "#" && (this.column === 0 || isBlank(this.at(-1)));
      if (this.at() !== undefined && !isComment) {
        this.hasBegun = true;
        return true;
      }
      this.row++;
      this.column = 0;
    }
  }

  /* Whether there is nothing more on this line but a comment. */
  isAtEnd() {
    this.skipBlanks();
    return this.at() === undefined || (this.at() === "#" && (this.column === 0 || isBlank(this.at(-1))));
  }

  goTo(row, column) {
    this.row = row;
    this.column = column;
  }

  nested(read) {
    if (++this.depth > deepest) {
      throw new RangeError("too deep");
    }
    const node = read();
    this.depth--;
    return node;
  }

  /* ---- texts ---- */

  readQuoted() {
    const quote = this.at();
    let text = "";
    this.move(1);
    for (;;) {
      const character = this.at();
      if (character === undefined) {
        /* Lines of a text in quotes are folded; where exactly does not matter for what is looked for. */
        text = text.trimEnd() + " ";
        if (++this.row >= this.lines.length) {
          throw new SyntaxError("a quote is not closed");
        }
        this.column = 0;
        this.skipBlanks();
      } else if (character === quote) {
        this.move(1);
        if (quote === "'" && this.at() === "'") {
          text += "'";
          this.move(1);
        } else {
          return { kind: "text", text };
        }
      } else if (quote === '"' && character === "\\") {
        text += this.readEscape();
      } else {
        text += character;
        this.move(1);
      }
    }
  }

  readEscape() {
    const character = this.at(1);
    if (character === undefined) { /* the line goes on in the next one */
      this.goTo(this.row + 1, 0);
      if (this.row >= this.lines.length) {
        throw new SyntaxError("a quote is not closed");
      }
      this.skipBlanks();
      return "";
    }
    const count = Object.hasOwn(hexDigits, character) ? hexDigits[character] : 0;
    const digits = this.line.slice(this.column + 2, this.column + 2 + count);
    this.move(2 + count);
    if (count > 0) {
      return String.fromCodePoint(parseInt(digits, 16));
    }
    return Object.hasOwn(escapes, character) ? escapes[character] : character;
  }

  /* On one line: until ": ", " #", in a flow until one of its signs. */
  readPlainLine(isInFlow) {
    const from = this.column;
    let end = from;
    for (let i = from; i < this.line.length; i++) {
      const character = this.line[i];
      const next = this.line[i + 1];
      const endsKey = character === ":" && (endsToken(next) || (isInFlow && inFlow.has(next)));
      const beginsComment = character === "#" && i > 0 && isBlank(this.line[i - 1]);
      if (endsKey || beginsComment || (isInFlow && inFlow.has(character))) {
        break;
      }
      if (!isBlank(character)) {
        end = i + 1;
      }
    }
    this.move(end - from);
    return this.line.slice(from, end);
  }

  /* What goes on over lines that are indented by more than `indent`. */
  readPlain(indent) {
    let text = this.readPlainLine(false);
    while (this.column >= this.line.trimEnd().length) {
      let next = this.row + 1;
      while (next < this.lines.length && this.lines[next].trim() === "") {
        next++;
      }
      const line = this.lines[next];
      const column = line === undefined ? -1 : line.search(/[^ \t]/);
      if (column <= indent || line[column] === "#" || (column === 0 && /^(---|\.\.\.)([ \t]|$)/.test(line))) {
        break;
      }
      this.goTo(next, column);
      const more = this.readPlainLine(false);
      if (more === "") {
        throw new SyntaxError("a key stands where a text goes on");
      }
      text += " " + more;
    }
    return { kind: "text", text };
  }

  /* "|" and ">": all lines that are indented by more than `indent`. */
  readBlockText(indent) {
    this.last = this.row;
    const texts = [];
    let row = this.row + 1;
    for (; row < this.lines.length; row++) {
      const column = this.lines[row].search(/[^ ]/);
      if (column >= 0 && column <= indent) {
        break;
      }
      texts.push(this.lines[row].trim());
      this.last = column >= 0 ? row : this.last;
    }
    this.goTo(row, 0);
    return { kind: "text", text: texts.join("\n").trimEnd() };
  }

  /* ---- between braces ---- */

  readFlow() {
    return this.nested(() => (this.at() === "{" ? this.readFlowMap() : this.readFlowList()));
  }

  skipInFlow() {
    if (!this.skip()) {
      throw new SyntaxError("a bracket is not closed");
    }
  }

  readFlowText() {
    const character = this.at();
    if (character === '"' || character === "'") {
      return this.readQuoted();
    }
    const text = this.readPlainLine(true);
    if (text === "" && character !== ":") {
      throw new SyntaxError("nothing is read");
    }
    return { kind: "text", text };
  }

  readFlowNode() {
    const character = this.at();
    if (character === "{" || character === "[") {
      return this.readFlow();
    }
    let node = this.readFlowText();
    while (node.text !== "" && this.isAtEnd()) { /* a plain text may go on in the next line */
      this.skipInFlow();
      if (inFlow.has(this.at()) || this.at() === ":") {
        break;
      }
      node = { kind: "text", text: node.text + " " + this.readFlowText().text };
    }
    return node;
  }

  readFlowValue() {
    this.skipInFlow();
    if (this.at() !== ":") {
      return { kind: "nothing" };
    }
    this.move(1);
    this.skipInFlow();
    return [",", "}", "]"].includes(this.at()) ? { kind: "nothing" } : this.readFlowNode();
  }

  readFlowMap() {
    const entries = [];
    this.move(1);
    for (this.skipInFlow(); this.at() !== "}"; this.skipInFlow()) {
      if (this.at() === ",") {
        this.move(1);
        continue;
      }
      const from = this.row;
      const key = this.readFlowNode();
      const value = this.readFlowValue();
      entries.push({ key: key.text, value, from, to: this.last });
    }
    this.move(1);
    return { kind: "map", entries };
  }

  readFlowList() {
    const items = [];
    this.move(1);
    for (this.skipInFlow(); this.at() !== "]"; this.skipInFlow()) {
      if (this.at() === ",") {
        this.move(1);
        continue;
      }
      const from = this.row;
      const node = this.readFlowNode();
      this.skipInFlow();
      const isPair = this.at() === ":";
      const value = isPair ? this.readFlowValue() : null;
      items.push(isPair ? { kind: "map", entries: [{ key: node.text, value, from, to: this.last }] } : node);
    }
    this.move(1);
    return { kind: "list", items };
  }

  /* ---- by indentation ---- */

  isItem() {
    return this.at() === "-" && endsToken(this.at(1));
  }

  /* The key that begins here, with its colon; the place is as before when there is none. */
  readKey() {
    const { row, column, last } = this;
    const character = this.at();
    let text = null;
    if (character === '"' || character === "'") {
      text = this.readQuoted().text;
    } else if (!indicators.has(character) && !this.isItem()) {
      text = this.readPlainLine(false);
    }
    this.skipBlanks();
    if (text !== null && this.row === row && this.at() === ":" && endsToken(this.at(1))) {
      this.move(1);
      return { key: text, column };
    }
    this.goTo(row, column);
    this.last = last;
    return null;
  }

  /* A text, or what stands between braces. */
  readInline(indent) {
    const character = this.at();
    if (character === "{" || character === "[") {
      return this.readFlow();
    }
    if (character === '"' || character === "'") {
      return this.readQuoted();
    }
    if (character === "|" || character === ">") {
      return this.readBlockText(indent);
    }
    if (indicators.has(character)) {
      throw new SyntaxError("not of a fleet file");
    }
    return this.readPlain(indent);
  }

  /* What begins here; texts go on where lines are indented by more than `indent`. */
  readBlock(indent) {
    return this.nested(() => {
      if (this.isItem()) {
        return this.readList(this.column);
      }
      const key = this.readKey();
      return key === null ? this.readInline(indent) : this.readMap(key);
    });
  }

  /* What lines below have for a key or a dash of this indentation. */
  readBelow(indent, mayBeList) {
    const isThere =
      this.skip() && (this.column > indent || (mayBeList && this.column === indent && this.isItem()));
    return isThere ? this.readBlock(indent) : { kind: "nothing" };
  }

  readList(indent) {
    const items = [];
    while (this.skip() && this.column === indent && this.isItem()) {
      this.move(1);
      items.push(this.isAtEnd() ? this.readBelow(indent, false) : this.readBlock(indent));
    }
    return { kind: "list", items };
  }

  readMap(first) {
    const indent = first.column;
    const entries = [];
    let next = first;
    while (next !== null) {
      const from = this.row;
      const value = this.isAtEnd() ? this.readBelow(indent, true) : this.readInline(indent);
      entries.push({ key: next.key, value, from, to: this.last });
      next = null;
      if (this.skip() && this.column >= indent) {
        next = this.column === indent ? this.readKey() : null;
        if (next === null) {
          throw new SyntaxError("a key is missing");
        }
      }
    }
    return { kind: "map", entries };
  }
}

const entryOf = (node, key) =>
  node?.kind === "map" ? node.entries.find((each) => each.key === key) : undefined;
const valueOf = (node, key) => entryOf(node, key)?.value;

/**
 * The lines of a test in the text of the fleet file: from its key to the last line that belongs to it,
 * whether it is written over lines or between braces. Comments below it are not its own.
 * @param {string} text
 * @param {?string} group the name of the group that has it
 * @param {?string} name of the test
 * @returns {?{from: number, to: number}} counted from 1; null when it is not there, or when the text is not
 *   understood
 */
export function findTest(text, group, name) {
  if (typeof text !== "string" || typeof group !== "string" || typeof name !== "string") {
    return null;
  }
  try {
    const reader = new Reader(text);
    const root = reader.skip() ? reader.readBlock(-1) : null;
    if (reader.skip()) {
      return null; /* not all of it was understood */
    }
    const groups = valueOf(root, "groups");
    for (const each of groups?.kind === "list" ? groups.items : []) {
      const tests = valueOf(each, "name")?.text === group ? valueOf(each, "tests") : undefined;
      const found = entryOf(tests, name);
      if (found) {
        return { from: found.from + 1, to: found.to + 1 };
      }
    }
  } catch {
    /* what is wrong with it is for the collector to say */
  }
  return null;
}
