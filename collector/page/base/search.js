/* What to ask the collector for, so that tests with all the words are found. Its `q` is one text, which it
 * looks for in names and targets of tests and names of agents; groups and addresses are the page's to find. */

const mostAgents = 5;
const mostGroups = 3;

const longest = (words) => words.reduce((best, word) => (word.length > best.length ? word : best), "");
const placeOf = ({ address, groups }) => [address ?? "", ...(groups ?? [])].join("\n").toLowerCase();
const textOf = (agent) => `${placeOf(agent)}\n${agent.name}\n${agent.account}`.toLowerCase();

/**
 * @param {string[]} words in small letters, one at least
 * @param {object[]} agents all that are known
 * @returns {object[]} queries of GET /api/v1/tests; what they find may lack some of the words
 */
export function testQueries(words, agents) {
  const places = agents.map(placeOf);
  const isPlace = (word) => places.some((text) => text.includes(word));
  const ofPlace = words.filter(isPlace);
  const rest = words.filter((word) => !isPlace(word));
  const q = longest(rest.length > 0 ? rest : words);
  const queries = [{ q }];
  if (ofPlace.length > 0) {
    const there = agents.filter((agent) => ofPlace.every((word) => textOf(agent).includes(word)));
    if (there.length <= mostAgents) {
      there.forEach(({ id }) => queries.push(rest.length > 0 ? { agent: id, q } : { agent: id }));
    } else {
      const groups = [...new Set(agents.flatMap((agent) => agent.groups ?? []))].filter((group) =>
        ofPlace.every((word) => group.toLowerCase().includes(word)));
      for (const group of groups.slice(0, mostGroups)) {
        queries.push(rest.length > 0 ? { group, q } : { group });
      }
    }
  }
  return queries;
}
