"""What does not fit on the page as it is: texts that are cut, and what lies outside of it. What scrolls in a box of its
own may be wide. What is there for screen readers alone is not looked at."""

MISFITS = """
/* All of it has its place, not only what is in sight. */
if (!window.isLaidOut) {
  window.isLaidOut = true;
  const sheet = new CSSStyleSheet();
  sheet.replaceSync('* { content-visibility: visible !important; }');
  document.adoptedStyleSheets = [...document.adoptedStyleSheets, sheet];
}
const scrolls = (element) => {
  for (let at = element; at && at !== document.body; at = at.parentElement) {
    if (/auto|scroll/.test(getComputedStyle(at).overflowX)) {
      return true;
    }
  }
  return false;
};
const misfits = [];
const name = (element) => `${element.localName}.${element.className?.baseVal ?? element.className}: ` +
    `${(element.textContent ?? '').trim().slice(0, 60)}`;
for (const element of document.body.querySelectorAll('*')) {
  if (element.closest('.hidden, svg, canvas, #skip, option, datalist') || !element.checkVisibility()) {
    continue;
  }
  const style = getComputedStyle(element), box = element.getBoundingClientRect();
  const isForReaders = (at) =>
    at !== null && (at.clientWidth === 1 || at.clientHeight === 1 || isForReaders(at.parentElement));
  if (box.width === 0 || box.height === 0 || isForReaders(element)) {
    continue;
  }
  const isCut = /hidden|clip/.test(style.overflowX) && element.scrollWidth > element.clientWidth + 1 ||
      /hidden|clip/.test(style.overflowY) && element.scrollHeight > element.clientHeight + 1;
  /* Its end is on hover, and said by screen readers. */
  const isTold = style.textOverflow === 'ellipsis' &&
      element.closest('[title]')?.title.includes(element.textContent.trim().slice(0, 50));
  if (isCut && !isTold && element.textContent.trim() && !/input|select|textarea/.test(element.localName) &&
      !element.matches('.chart-place, .chart-place *, .editor-lines')) {
    misfits.push('cut: ' + name(element));
  }
  if ((box.right > document.documentElement.clientWidth + 1 || box.left < -1) && !scrolls(element)) {
    misfits.push('outside: ' + name(element));
  }
  if (element.matches('button, input:not([type=checkbox]), select, textarea, summary') &&
      (box.height < 23.5 || box.width < 23.5)) {
    misfits.push(`small (${box.width} x ${box.height}): ` + name(element));
  }
}
const root = document.documentElement;
if (root.scrollWidth > root.clientWidth) {
  misfits.push(`the page scrolls sideways: ${root.scrollWidth} > ${root.clientWidth}`);
}
return [...new Set(misfits)];
"""
