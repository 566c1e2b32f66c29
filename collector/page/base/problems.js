/* Asks the collector for what is wrong, as long as it fits: problems first, then what has become stale. Other
 * tests that are unknown are not wrong: nothing has come of them yet, no plan has them any more, or their
 * agent is silent and stands for them. */

const onePage = 1000;

/**
 * @param {(query: object) => Promise<{items: object[], next: ?string}>} ask a page of GET /api/v1/tests
 * @param {number} most tests
 * @returns {Promise<{items: object[], isMore: boolean, incomplete: ?string}>} `isMore`: there are others;
 *   `incomplete`: why not all could be read
 */
export async function readProblems(ask, most) {
  const items = [];
  let incomplete = null;
  for (const state of ["problem", "stale"]) {
    let next = null;
    do {
      const answer = await ask({ state, limit: Math.min(onePage, most - items.length || 1), next });
      const fitting = answer.items.slice(0, most - items.length);
      items.push(...fitting);
      incomplete = answer.incomplete ?? incomplete;
      next = answer.next ?? null;
      if (items.length >= most && (next !== null || fitting.length < answer.items.length)) {
        return { items, isMore: true, incomplete };
      }
    } while (next !== null);
  }
  return { items, isMore: false, incomplete };
}

const leastOfGroup = 5;

/* The same test of the same group in the same state; agents that are silent. */
const likeness = ({ kind, of }) => JSON.stringify(kind === "agent" ? [kind, of.state]
  : [kind, of.name, of.group, of.type, of.state, of.stale === true]);

/**
 * Many problems are often one problem of many agents.
 * @param {Array<{kind: string, of: object}>} items the worst first
 * @returns {object[]} in that order; a group, {kind: "group", like, of, items}, stands where the first of it
 *   does, which is its `of`
 */
export function grouped(items) {
  const groups = new Map();
  const groupOf = items.map((item) => {
    const like = likeness(item);
    if (!groups.has(like)) {
      groups.set(like, { kind: "group", like, of: item.of, items: [] });
    }
    groups.get(like).items.push(item);
    return groups.get(like);
  });
  return items.flatMap((item, i) => (groupOf[i].items.length < leastOfGroup ? item
    : groupOf[i].items[0] === item ? groupOf[i] : []));
}
