/* Reads a stream of server-sent events by the rules of the HTML standard, from pieces of text as they arrive:
 * cut anywhere, between CR and LF, too. Bytes are somebody else's business (TextDecoder with `stream: true`).
 *
 * A block without data is no message, but its id and its retry hold: the server says with one of these where
 * a listener stands before anything has happened. So who comes back sends `lastEventId`, not the id of the
 * last message. */

/** @typedef {{id: string, event: string, data: string, retry: ?number}} SseMessage */

export class SseParser {
  /** @param {string} [lastEventId] of the connection before */
  constructor(lastEventId = "") {
    /** What to send as Last-Event-ID; "" for nothing. */
    this.lastEventId = lastEventId;
    /**
     * Milliseconds to wait before coming back, as the server wishes; null: it has said nothing. @type
     * {?number}
     */
    this.retry = null;
    this.reset();
  }

  /** For a new connection: forgets what was left half-way, and keeps `lastEventId` and `retry`. */
  reset() {
    this.isFirst = true;
    this.endedInCr = false;
    this.line = [];
    this.id = this.lastEventId;
    this.startBlock();
  }

  /**
   * @param {string} text the next piece; may be empty
   * @returns {SseMessage[]} the messages that it completes. `event` is "message" where none was named,
   *   `retry` what the message's own block said, else null.
   */
  push(text) {
    const messages = [];
    let from = 0;
    if (text === "") {
      return messages;
    }
    if (this.isFirst) {
      this.isFirst = false;
      from = text.charCodeAt(0) === 0xfeff ? 1 : 0;
    }
    if (this.endedInCr && from < text.length) {
      this.endedInCr = false;
      from += text[from] === "\n" ? 1 : 0;
    }
    /* Sought each once for all lines, not anew for each: a piece may have thousands. */
    let cr = text.indexOf("\r", from);
    let lf = text.indexOf("\n", from);
    while (cr >= 0 || lf >= 0) {
      const end = cr < 0 || (lf >= 0 && lf < cr) ? lf : cr;
      this.takeLine(text.slice(from, end), messages);
      from = end + 1;
      if (end === cr) {
        if (lf === from) {
          from++;
          lf = text.indexOf("\n", from);
        } else if (from === text.length) {
          this.endedInCr = true;
        }
        cr = text.indexOf("\r", from);
      } else {
        lf = text.indexOf("\n", from);
      }
    }
    if (from < text.length) {
      this.line.push(text.slice(from));
    }
    return messages;
  }

  /** @private */
  startBlock() {
    this.data = [];
    this.event = "";
    this.ownRetry = null;
  }

  /** @private */
  takeLine(end, messages) {
    let line = end;
    if (this.line.length > 0) {
      this.line.push(end);
      line = this.line.join("");
      this.line = [];
    }
    if (line === "") {
      this.endBlock(messages);
      return;
    }
    const colon = line.indexOf(":");
    if (colon === 0) {
      return; /* a comment, sent to show that the connection lives */
    }
    const name = colon < 0 ? line : line.slice(0, colon);
    const value = colon < 0 ? "" : line.slice(line[colon + 1] === " " ? colon + 2 : colon + 1);
    this.takeField(name, value);
  }

  /** @private */
  takeField(name, value) {
    if (name === "data") {
      this.data.push(value);
    } else if (name === "event") {
      this.event = value;
    } else if (name === "id" && !value.includes("\0")) {
      this.id = value;
    } else if (name === "retry" && /^[0-9]+$/.test(value)) {
      this.retry = this.ownRetry = Number(value);
    }
  }

  /** @private */
  endBlock(messages) {
    this.lastEventId = this.id;
    if (this.data.length > 0) {
      const data = this.data.join("\n");
      messages.push({ id: this.id, event: this.event || "message", data, retry: this.ownRetry });
    }
    this.startBlock();
  }
}
