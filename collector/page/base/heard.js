/* An answer is of some moments ago: what the stream has said since it was asked for counts for more, and so
 * does what an answer to a later question says. */

const isLater = (one, other) => (one ?? "") > (other ?? "");

/* Results and states each go by their own time: a late result does not say how the test stands. */
function newest(test, known, said) {
  const { time, status, message, values } = known ?? {};
  const { state, stale, since } = said ?? {};
  return {
    ...test,
    ...isLater(time, test.time) ? { time, status, message, values } : null,
    ...isLater(since, test.since) ? { state, stale, since, message: said.message || test.message } : null,
  };
}

export class Heard {
  #asked = 0;
  #answered = 0;
  #said = new Map(); /* by the id of the test: its last event */

  /** Before tests are asked for. @returns {number} for answer() */
  ask() {
    return ++this.#asked;
  }

  /** An event of a test came. */
  say(id, { to, stale, time, message }) {
    this.#said.set(id, { asked: this.#asked, state: to, stale, since: time, message });
  }

  /**
   * @param {number} asked of ask()
   * @param {Object[]} tests as the API has them
   * @param {Map<number, Object>} known with results that came by themselves
   * @returns {?Object[]} as they are now; null: a later question was answered already
   */
  answer(asked, tests, known) {
    if (asked < this.#answered) {
      return null;
    }
    this.#answered = asked;
    for (const [id, said] of this.#said) {
      if (said.asked < asked) {
        this.#said.delete(id);
      }
    }
    return tests.map((test) => newest(test, known.get(test.id), this.#said.get(test.id)));
  }
}
