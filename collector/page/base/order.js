/* Orders that several screens share. Each is total for what differs in what it looks at, so that a list looks
 * the same whenever it is made. */

const isDigit = (code) => code >= 48 && code <= 57;

/* Where the digits that begin at `from` end. */
function endOfDigits(text, from) {
  let end = from;
  while (end < text.length && isDigit(text.charCodeAt(end))) {
    end++;
  }
  return end;
}

function firstDigitThatCounts(text, from, end) {
  let at = from;
  while (at < end - 1 && text.charCodeAt(at) === 48) {
    at++;
  }
  return at;
}

const compareText = (one, other) => (one < other ? -1 : one > other ? 1 : 0);

/**
 * Numbers in names by their size, letters whatever their case: web-2, Web-3, web-10. Names that differ in
 * case or in leading zeros alone have an order, too. Not by a locale's rules: everybody sees the same list.
 * @param {*} one
 * @param {*} other
 * @returns {number} below 0, 0 or above
 */
export function natural(one, other) {
  const a = String(one ?? "");
  const b = String(other ?? "");
  const lowA = a.toLowerCase();
  const lowB = b.toLowerCase();
  let i = 0;
  let j = 0;
  while (i < lowA.length && j < lowB.length) {
    const codeA = lowA.charCodeAt(i);
    const codeB = lowB.charCodeAt(j);
    if (isDigit(codeA) && isDigit(codeB)) {
      const endA = endOfDigits(lowA, i);
      const endB = endOfDigits(lowB, j);
      const fromA = firstDigitThatCounts(lowA, i, endA);
      const fromB = firstDigitThatCounts(lowB, j, endB);
      const order =
        endA - fromA - (endB - fromB) || compareText(lowA.slice(fromA, endA), lowB.slice(fromB, endB));
      if (order !== 0) {
        return order;
      }
      i = endA;
      j = endB;
    } else if (codeA !== codeB) {
      return codeA - codeB;
    } else {
      i++;
      j++;
    }
  }
  return lowA.length - i - (lowB.length - j) || compareText(a, b);
}

/**
 * Agents, or references to them: by name, then by account, then by id.
 * @param {{id?: number, account?: string, name?: string}} one
 * @param {{id?: number, account?: string, name?: string}} other
 * @returns {number}
 */
export function byName(one, other) {
  return (
    natural(one?.name, other?.name) ||
    natural(one?.account, other?.account) ||
    (Number(one?.id) || 0) - (Number(other?.id) || 0)
  );
}

/**
 * Tests by their name, then by that of their agent, then by id.
 * @param {object} one
 * @param {object} other
 * @returns {number}
 */
export function byTest(one, other) {
  return (
    natural(one?.name, other?.name) ||
    byName(one?.agent, other?.agent) ||
    (Number(one?.id) || 0) - (Number(other?.id) || 0)
  );
}

const ranks = { silent: 0, problem: 1, unknown: 2, stale: 2, ok: 3 };

/**
 * The worst first: silent, problem, unknown (stale ones, too), ok. A word that there is not is unknown.
 * @param {string} state
 * @returns {number}
 */
export function stateRank(state) {
  return Object.hasOwn(ranks, state) ? ranks[state] : ranks.unknown;
}

/**
 * @param {{state?: string}} one
 * @param {{state?: string}} other
 * @returns {number}
 */
export function byState(one, other) {
  return stateRank(one?.state) - stateRank(other?.state);
}

/**
 * Times as the API writes them sort as texts; what has none is the oldest.
 * @param {?string} one
 * @param {?string} other
 * @returns {number} below 0 when `one` is newer
 */
export function newestFirst(one, other) {
  return compareText(other ?? "", one ?? "");
}
