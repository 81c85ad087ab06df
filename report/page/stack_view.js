// A stack as a list of frames, innermost first. The painters are called again when the search
// changes.

function stackList(frames, emptyText, painters) {
  if (frames.length === 0) return element('p', {class: 'empty'}, emptyText);
  const items = frames.map((frame, number) => frameItem(frame, number, painters));
  return element('ol', {class: 'stack'}, ...items);
}

function frameItem(frame, number, painters) {
  const name = element('span', {class: 'function'});
  const item = element('li', {class: frame.class},
      element('span', {class: 'number'}, String(number)), name,
      element('span', {class: 'module', title: frame.module}, frame.shortModule ?? ''));
  if (frame.source) item.append(element('span', {class: 'detail'}, `at ${frame.source}`));
  for (const inlined of frame.inlined ?? []) {
    item.append(element('span', {class: 'detail'}, `inlined: ${inlined}`));
  }
  item.append(element('span', {class: 'detail exact-only'}, exactText(frame)));
  painters.push((search) => {
    paintText(name, frame.label, search);
    item.classList.toggle('match', search !== null && search.frames.has(frame));
  });
  return item;
}

// What a symboliser needs, and the names in full.
function exactText(frame) {
  if (frame.class === 'kernel') return frame.text;
  const parts = [`pc ${frame.pc}`];
  if (frame.offset !== '0') parts.push(`offset 0x${frame.offset}`);
  parts.push(frame.module);
  if (frame.function !== null) parts.push(`(${frame.function}+${frame.functionOffset})`);
  return parts.join(' ');
}

function userStackText(stack) {
  if (stack.failed !== null) return `Could not be unwound: ${stack.failed || 'no reason given'}`;
  return stack.hasUser ? 'No frame was found.' : 'The log has no user stack of this thread.';
}

function kernelStackText(stack) {
  return stack.state === '' ? 'The log has no kernel stack of this thread.' :
      `The log has no kernel stack of this thread; its state was ${stack.state}.`;
}

// The user and the kernel stack of one thread side by side.
function stackColumns(stack, painters) {
  return element('div', {class: 'columns'},
      element('div', {}, element('h3', {}, 'User stack'),
          stackList(stack.user, userStackText(stack), painters)),
      element('div', {}, element('h3', {}, 'Kernel stack'),
          stackList(stack.kernel, kernelStackText(stack), painters)));
}

// Functions in one line, the called one first.
function framesLine(names, properties = {}) {
  const line = element('span', {class: 'frames-line mono', ...properties});
  names.forEach((name, index) => {
    if (index > 0) line.append(element('span', {class: 'arrow'}, ' ← '));
    line.append(name);
  });
  return line;
}
