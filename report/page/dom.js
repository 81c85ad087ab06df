// Building the document. Everything that comes from a log is text: it reaches the page through
// textContent and setAttribute alone, never as markup.

// Makes an element. A property that begins with "on" is a listener, "class" and others are
// attributes; true sets an attribute without a value, and false, null or undefined leaves it out.
function element(name, properties = {}, ...children) {
  const node = document.createElement(name);
  setProperties(node, properties);
  node.append(...children.filter((child) => child !== null && child !== undefined));
  return node;
}

function svgElement(name, properties = {}, ...children) {
  const node = document.createElementNS('http://www.w3.org/2000/svg', name);
  setProperties(node, properties);
  node.append(...children);
  return node;
}

function setProperties(node, properties) {
  for (const [key, value] of Object.entries(properties)) {
    if (value === false || value === null || value === undefined) continue;
    if (key.startsWith('on')) node.addEventListener(key.slice(2), value);
    else node.setAttribute(key, value === true ? '' : value);
  }
}

// Control characters, and those that change the direction of text, would hide what a name really
// says: they are shown as symbols.
function visibleText(text) {
  return text.replace(/[\u0000-\u001f\u007f-\u009f\u200b-\u200f\u2028-\u202e\u2066-\u2069\ufeff]/g,
      (character) => {
        const code = character.charCodeAt(0);
        if (code < 0x20) return String.fromCharCode(0x2400 + code);
        return code === 0x7f ? '\u2421' : '\ufffd';
      });
}

const numberFormat = new Intl.NumberFormat('en');

function countOf(number, noun) {
  return `${numberFormat.format(number)} ${noun}${number === 1 ? '' : 's'}`;
}

// Fills a list in steps, so that thousands of entries cost nothing until they are asked for.
// Returns the button for the next step.
function appendInSteps(list, items, render, step) {
  const more = element('button', {type: 'button', class: 'more', onclick: () => showNext(true)});
  let shown = 0;
  const showNext = (moveFocus) => {
    const next = items.slice(shown, shown + step).map(render);
    list.append(...next);
    shown += next.length;
    const rest = items.length - shown;
    more.textContent = `Show ${Math.min(rest, step)} more of ${rest}`;
    more.hidden = rest === 0;
    if (moveFocus) next[0].querySelector?.('a, summary, button')?.focus();
  };
  showNext(false);
  return more;
}

// Fills a disclosure when it is first opened.
function disclosure(summary, buildBody) {
  const details = element('details', {}, summary);
  details.addEventListener('toggle', () => details.append(buildBody()), {once: true});
  return details;
}
