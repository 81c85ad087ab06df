// Why the watched thread does not go on, as far as the log tells, and who else is part of it.

const LISTED_GROUPS = 6;

function causeBox(incident, watched, groups) {
  if (watched === null) {
    return element('div', {class: 'cause'},
        element('p', {}, `The log has no stack of the watched thread ${incident.tid}.`));
  }
  const functions = tellingFunctions(watched.stack, LINE_FUNCTIONS);
  const link = incident.reason.kind === 'running' ? ':' : ', asked for by';
  return element('div', {class: 'cause'},
      element('p', {}, `Thread ${watched.tid} `, element('strong', {}, incident.reason.text),
          functions.length > 0 ? link : ''),
      functions.length > 0 ? element('p', {}, framesLine(functions)) : null,
      incident.hint === null ? null : element('p', {}, incident.hint),
      ...relatedThreads(groups, incident.hint));
}

// Who else waits for the same kind of lock, or is in the same function. Where nobody does and
// the hint sends the reader to other threads: those that do not idle.
function relatedThreads(groups, hint) {
  let heading = 'In the same lock or function:';
  let listed = groups.filter((group) => !group.watched && group.place.startsWith('same'));
  if (listed.length === 0 && hint !== null) {
    heading = 'Not idle:';
    listed = groups.filter((group) => !group.watched && group.place === 'other');
  }
  if (listed.length === 0) return [];
  const lines = listed.slice(0, LISTED_GROUPS).map(relatedItem);
  if (listed.length > LISTED_GROUPS) {
    const rest = countOf(listed.length - LISTED_GROUPS, 'more group');
    lines.push(element('li', {}, `and ${rest} below`));
  }
  return [element('p', {}, heading), element('ul', {}, ...lines)];
}

function relatedItem(group) {
  const names = tellingFunctions(group.stack, LINE_FUNCTIONS);
  const who = group.threads.length === 1 ? `Thread ${group.threads[0].tid}` :
      `${countOf(group.threads.length, 'thread')} (${threadIds(group.threads, 3)})`;
  return element('li', {}, `${who}: `, element('span', {class: 'reason'}, group.stack.reason.text),
      group.place === 'same function' ? ', in the same function' : '', framesLine(names));
}
