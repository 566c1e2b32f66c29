"""Answers that take as long as a test wants."""

HOLD = """
const ask = window.fetch, held = [new RegExp(%r)];
window.holdToo = (pattern) => held.push(new RegExp(pattern));
window.held = [];
window.fetch = async (...asked) => {
  const answer = await ask(...asked);
  if (!window.isLetGo && held.some((pattern) => pattern.test(String(asked[0])))) {
    await new Promise((go) => window.held.push(go));
  }
  return answer;
};
window.letGo = () => {
  window.isLetGo = true;
  window.held.forEach((go) => go());
};
"""


def hold(test, pattern):
    """From the next page on: answers to addresses like that are made, and come with `let_go()`."""
    made = test.cdp("Page.addScriptToEvaluateOnNewDocument", source=HOLD % pattern)
    test.addCleanup(lambda: test.cdp("Page.removeScriptToEvaluateOnNewDocument", identifier=made["identifier"]))


def hold_too(test, pattern):
    """From now on, on a page whose answers are held: those to addresses like that, too."""
    test.js("window.holdToo(arguments[0])", pattern)


def wait_held(test, count=1):
    test.wait("window.held.length >= arguments[0]", count, what="answers that are held")


def let_go(test):
    test.js("window.letGo()")
