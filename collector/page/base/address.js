/* The page's own addresses: which screen an address means, and the address of a screen. The server answers
 * all of them with the same page. */

/* By the first part of the path; a screen with an id has it in the second one. */
const withId = { agents: "agent", tests: "test" };
const plain = {
  "": "now",
  events: "events",
  fleet: "fleet",
  "fleet/changes": "changes",
  admission: "admission",
  tokens: "tokens",
  secrets: "secrets",
};
const pathOf = Object.fromEntries(Object.entries(plain).map(([path, view]) => [view, "/" + path]));
const partOf = Object.fromEntries(Object.entries(withId).map(([part, view]) => [view, part]));

const own = (table, name) => (Object.hasOwn(table, name) ? table[name] : undefined);

/* Null where it is badly encoded. */
function decoded(part) {
  try {
    return decodeURIComponent(part);
  } catch {
    return null;
  }
}

/**
 * @param {{pathname: string, search?: string}|string} location as `window.location`, a URL, or a path with
 *   its query
 * @returns {{view: string, id?: string, query: Map<string, string>}} `view` is "now", "agent", "test",
 *   "events", "fleet", "changes", "admission", "tokens", "secrets" or "unknown"; `id` is a text as it stands
 *   there, of an agent its id or account/name. A parameter that is given twice has its first value.
 */
export function read(location) {
  let where = location;
  if (typeof location === "string") {
    const [path] = location.split("#", 1);
    const mark = path.indexOf("?");
    where = mark < 0 ? { pathname: path } : { pathname: path.slice(0, mark), search: path.slice(mark) };
  }
  const query = new Map();
  for (const [name, value] of new URLSearchParams(where.search ?? "")) {
    if (!query.has(name)) {
      query.set(name, value);
    }
  }
  const path = where.pathname.replace(/^\/+/, "").replace(/\/+$/, "");
  const view = own(plain, path);
  if (view !== undefined) {
    return { view, query };
  }
  const [first, second, ...others] = path.split("/");
  const viewWithId = own(withId, first);
  const id = second ? decoded(second) : null;
  const isId = viewWithId === "test" ? /^[0-9]{1,19}$/.test(id ?? "") : Boolean(id);
  return viewWithId !== undefined && isId && others.length === 0
    ? { view: viewWithId, id, query }
    : { view: "unknown", query };
}

/* Commas and colons may stand in a query, and times are read more easily with them. */
const encoded = (text) => encodeURIComponent(text).replace(/%(2C|3A|2F)/g, decodeURIComponent);

/**
 * @param {string} view as of read(); of one that there is not the address of Now
 * @param {{id?: number|string, query?: Map<string, *>|Object<string, *>}} [more] what is null or "" is left
 *   out of the query
 * @returns {string} a path, with its query
 */
export function to(view, { id, query } = {}) {
  const part = own(partOf, view);
  const path =
    part !== undefined && id !== undefined && id !== null && id !== ""
      ? `/${part}/${encodeURIComponent(id)}`
      : (own(pathOf, view) ?? "/");
  const pairs = query instanceof Map ? [...query] : Object.entries(query ?? {});
  const text = pairs
    .filter(([, value]) => value !== null && value !== undefined && value !== "")
    .map(([name, value]) => encoded(name) + "=" + encoded(String(value)))
    .join("&");
  return text === "" ? path : path + "?" + text;
}
