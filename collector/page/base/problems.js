/* Asks the collector for all tests that are not ok, as long as they fit. It lists by agent, so the problems
 * are asked for first. All tests of a silent agent are unknown there, and the agent stands for them: they are
 * left out, so that they do not take the place of others. */

const onePage = 1000;
const mostAlone = 10; /* agents that are asked for one by one */
const mostPages = 40;

/**
 * @param {(query: object) => Promise<{items: object[], next: ?string}>} ask a page of GET /api/v1/tests
 * @param {() => Promise<Map<number, object>>|Map<number, object>} agents by id
 * @param {number} most tests
 * @returns {Promise<{items: object[], isMore: boolean}>} `isMore`: there are others
 */
export async function readProblems(ask, agents, most) {
  const items = [];
  let isMore = false;
  let pages = 0;
  const read = async (query, expected, isWanted = () => true) => {
    let next = null;
    let found = 0;
    do {
      const answer = await ask({ ...query, limit: onePage, next });
      const wanted = answer.items.filter(isWanted);
      found += wanted.length;
      const fitting = wanted.slice(0, most - items.length);
      items.push(...fitting);
      next = answer.next ?? null;
      pages++;
      isMore ||= fitting.length < wanted.length || (next !== null && found < expected
        && (items.length >= most || pages >= mostPages));
    } while (next !== null && !isMore && found < expected);
  };
  await read({ state: "problem" }, Infinity);
  const all = await agents();
  const unknown = [...all.values()].filter((each) => each.state !== "silent" && each.tests?.unknown > 0);
  if (isMore || unknown.length === 0) {
    return { items, isMore };
  }
  if (unknown.length <= mostAlone) {
    for (const { id } of unknown) {
      if (!isMore) {
        await read({ agent: id, state: "unknown" }, Infinity);
      }
    }
  } else {
    await read({ state: "unknown" }, unknown.reduce((sum, { tests }) => sum + tests.unknown, 0),
      (test) => all.get(test.agent?.id)?.state !== "silent");
  }
  return { items, isMore };
}
