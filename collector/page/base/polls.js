/* The last polls of an agent that brought results: the API has no polls, but results have the second in which
 * they were received. A result counts once, however often it is heard of. */

const mostKept = 10;

export class Polls {
  #results = new Map(); /* by the time: which results */
  #from = ""; /* of what came before not everything is known */

  /** A result that came live. */
  add(test, { time, received }) {
    if (!received || received <= this.#from) {
      return;
    }
    if (!this.#results.has(received)) {
      this.#results.set(received, new Set());
      if (this.#results.size > mostKept) {
        const oldest = [...this.#results.keys()].sort()[0];
        this.#results.delete(oldest);
        this.#from = oldest;
      }
    }
    this.#results.get(received)?.add(`${test} ${time}`);
  }

  /**
   * The newest results of all its tests, as GET /api/v1/tests/{test}/results lists them.
   * @param {Array<{test: number, items: object[], next: ?string}>} lists
   */
  addLists(lists) {
    for (const { items, next } of lists) {
      const oldest = items.reduce((least, { received }) => (received < least ? received : least), "~");
      if (next && oldest !== "~" && oldest > this.#from) {
        this.#from = oldest; /* there are more of it */
      }
    }
    for (const received of [...this.#results.keys()].filter((each) => each <= this.#from)) {
      this.#results.delete(received);
    }
    const all = lists.flatMap(({ test, items }) => items.map((item) => ({ test, item })));
    all.sort((a, b) => (a.item.received < b.item.received ? 1 : -1));
    const times = [...new Set(all.map(({ item }) => item.received))].slice(0, mostKept);
    all.filter(({ item }) => times.includes(item.received)).forEach(({ test, item }) => this.add(test, item));
  }

  /** What is known is not everything any more. */
  clear() {
    this.#results.clear();
    this.#from = "";
  }

  /** @returns {Array<{received: string, results: number}>} newest first */
  newest() {
    return [...this.#results].map(([received, { size }]) => ({ received, results: size }))
      .sort((a, b) => (a.received < b.received ? 1 : -1));
  }
}
