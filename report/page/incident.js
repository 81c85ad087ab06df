// One incident: its cause, the watched thread's stacks, all threads as a picture and as groups, the
// raw log.

const LINES_STEP = 5000;
const LISTED_GROUPS = 8;  // of those in the same place, on the first screen
const LISTED_IDS = 12;

function incidentView(app, incident) {
  const painters = [];
  const threads = threadsOf(app.data, incident);
  const groups = groupThreads(threads);
  const watched = threads.find((thread) => thread.watched) ?? null;
  const exact = element('input', {type: 'checkbox', id: 'exact'});
  exact.addEventListener('change', () => {
    document.getElementById('view').classList.toggle('exact', exact.checked);
  });
  document.getElementById('view').classList.remove('exact');
  const sections = [
    headSection(app, incident, watched, groups),
    watched && element('section', {'aria-labelledby': 'watched-heading'},
        element('h2', {id: 'watched-heading'}, `Watched thread ${watched.tid}`),
        element('p', {}, element('label', {}, exact, ' addresses and whole paths')),
        stackColumns(watched.stack, painters)),
    threads.length > 0 ? icicleSection(threads, idleThreads(groups), painters) : null,
    threads.length > 0 ? groupsSection(groups, threads.length, painters) : null,
    logSection(incident),
  ];
  return {nodes: sections.filter((section) => section !== null), painters};
}

function headSection(app, incident, watched, groups) {
  const name = incident.watch === null ? 'A watch without a name' : incident.watch;
  const armed = incident.armedSeconds === null ? '' : ` after ${countOf(incident.armedSeconds, 'second')}`;
  return element('section', {'aria-labelledby': 'incident-heading'},
      stepsBar(app, incident),
      element('h1', {id: 'incident-heading'}, `${name} expired${armed} in ${incident.program ?? 'an unknown program'}`),
      causeBox(incident, watched, groups), problemsBox(incident, groups), factsList(app, incident));
}

// The way back, and to the incidents beside this one in the same signature.
function stepsBar(app, incident) {
  if (app.data.incidents.length === 1) return null;
  const same = incident.signature.incidents;
  const at = same.indexOf(incident);
  const link = (other, text) => other && element('a', {href: `#incident/${other.index}`}, text);
  return element('nav', {class: 'steps', 'aria-label': 'Incidents'},
      element('a', {href: '#/'}, 'All incidents'),
      element('a', {href: `#signature/${incident.signature.index}`},
          `${at + 1} of ${same.length} with this signature`),
      link(same[at - 1], 'Previous'), link(same[at + 1], 'Next'));
}

function causeBox(incident, watched, groups) {
  if (watched === null) {
    return element('div', {class: 'cause'},
        element('p', {}, `The log has no stack of the watched thread ${incident.tid}.`));
  }
  const functions = tellingFunctions(watched.stack, 4).map((frame) => frame.label);
  return element('div', {class: 'cause'},
      element('p', {}, `Thread ${watched.tid} `, element('strong', {}, incident.reason.text),
          functions.length > 0 ? ', asked for by' : ''),
      functions.length > 0 ? element('p', {}, framesLine(functions)) : null,
      ...samePlace(watched, groups));
}

// Who else waits for the same kind of thing, or stands in the same function.
function samePlace(watched, groups) {
  const found = groupsInTheSamePlace(watched.stack, groups);
  if (found.length === 0) return [];
  const waiting = found.filter((entry) => entry.waits).reduce((sum, entry) => sum + entry.others.length, 0);
  const lines = found.slice(0, LISTED_GROUPS).map(samePlaceItem);
  if (found.length > LISTED_GROUPS) {
    lines.push(element('li', {}, `and ${countOf(found.length - LISTED_GROUPS, 'more group')} below`));
  }
  const head = waiting > 0 ? `${countOf(waiting, 'other thread')} ${watched.stack.reason.text.split(',')[0]} too:` :
      'Other threads stand in the same function:';
  const hint = waiting > 0 && watched.stack.reason.kind === 'mutex' ?
      element('p', {class: 'muted'}, 'Threads of which each holds the mutex that the other waits for never go on ' +
          '(a deadlock): see which mutexes these functions hold.') : null;
  return [element('p', {}, head), element('ul', {}, ...lines), hint];
}

function samePlaceItem({group, others, inFunction}) {
  const names = tellingFunctions(group.stack, 4).map((frame) => frame.label);
  const who = others.length === 1 ? `Thread ${others[0].tid}` :
      `${countOf(others.length, 'thread')} (${threadIds(others, 3)})`;
  return element('li', {}, `${who} ${group.stack.reason.text}`, inFunction ? ', in the same function' : '',
      framesLine(names.length > 0 ? names : ['no user stack']));
}

function problemsBox(incident, groups) {
  const without = groups.flatMap((group) => group.threads).filter(({stack}) =>
    stack.user.length === 0 && stack.failed === null && stack.kernel.length > 0);
  if (incident.problems.length === 0 && without.length === 0) return null;
  const missing = without.length === 0 ? null : element('p', {},
      `The log ends early: ${countOf(without.length, 'thread')} with a kernel stack and no user stack ` +
      `(${threadIds(without, LISTED_IDS)}).`);
  const list = element('ul', {});
  const more = appendInSteps(list, incident.problems, (problem) => element('li', {class: 'mono'}, problem), 5);
  return element('div', {class: 'warning'}, missing, list, more);
}

function factsList(app, incident) {
  const facts = [
    ['Written', writtenText(incident)],
    ['Watch started', timeText(incident.started)],
    ['Threads', String(incident.threads.length / 2)],
    ['Build', incident.fingerprint],
    ['Signature', incident.signatureId],
    ['File', incident.file],
  ];
  return element('dl', {class: 'facts'}, ...facts.filter(([, value]) => value).map(([name, value]) =>
    element('div', {}, element('dt', {}, name), element('dd', {}, value))));
}

function writtenText(incident) {
  const text = timeText(incident.written);
  if (incident.utcOffset === null || incident.time === null || incident.utcOffset === 0) return text;
  const local = new Date(incident.time + incident.utcOffset * 1000).toISOString().slice(11, 19);
  return `${text} (${local} on the device)`;
}

function groupsSection(groups, threadCount, painters) {
  const busy = groups.filter((group) => !group.idle);
  const idle = groups.filter((group) => group.idle);
  const list = element('ol', {class: 'groups'}, ...busy.map((group) => groupItem(group, painters)));
  if (idle.length > 0) list.append(idleItem(idle, painters));
  const setAll = (open) => {
    for (const details of list.querySelectorAll(':scope > li > details')) details.open = open;
  };
  return element('section', {'aria-labelledby': 'groups-heading'},
      element('h2', {id: 'groups-heading'}, `${countOf(threadCount, 'thread')} in ${countOf(groups.length, 'group')} ` +
          'of the same functions'),
      element('p', {class: 'tools'},
          element('button', {type: 'button', onclick: () => setAll(true)}, 'Unfold all'),
          element('button', {type: 'button', onclick: () => setAll(false)}, 'Fold all'),
          element('span', {class: 'muted'}, 'The watched thread, then the rarest; what only idles is last.')),
      list);
}

function groupItem(group, painters) {
  const found = element('span', {class: 'tag', hidden: true}, 'matches');
  const names = tellingFunctions(group.stack, 4).map((frame) => frame.label);
  const summary = element('summary', {},
      element('span', {class: 'count'}, countOf(group.threads.length, 'thread')), ' ',
      group.watched ? element('span', {class: 'tag alarm'}, 'watched') : null, ' ',
      element('span', {class: 'reason'}, group.stack.reason.text), ' ',
      element('span', {class: 'muted'}, threadIds(group.threads, LISTED_IDS)), ' ', found,
      names.length > 0 ? framesLine(names) : null);
  painters.push((search) => {
    found.hidden = search === null || !group.threads.some((thread) => search.stacks[thread.stack.index]);
  });
  return element('li', {class: group.watched && 'is-watched'},
      disclosure(summary, () => groupBody(group, painters)));
}

// The stacks of a group: one of the user's, and each kernel stack that its threads have.
function groupBody(group, painters) {
  const body = element('div', {class: 'group-body'});
  if (group.threads.length > LISTED_IDS) {
    body.append(element('p', {class: 'tids muted'}, `Threads ${threadIds(group.threads)}`));
  }
  const own = [];
  const variants = [...group.variants.values()].sort((a, b) => a.length - b.length);
  variants.forEach((threads, index) => {
    if (variants.length > 1) {
      body.append(element('h3', {}, `${countOf(threads.length, 'thread')} with this kernel stack: ${threadIds(threads, LISTED_IDS)}`));
    }
    const {stack} = threads[0];
    body.append(index === 0 ? stackColumns(stack, own) :
        stackList(stack, stack.kernel, 'The log has no kernel stack of this thread.', own));
  });
  painters.push((search) => own.forEach((paint) => paint(search)));
  own.forEach((paint) => paint(currentSearch()));
  return body;
}

function idleItem(idle, painters) {
  const threads = idle.flatMap((group) => group.threads);
  const kinds = new Map();
  for (const {stack} of threads) kinds.set(stack.reason.kind, (kinds.get(stack.reason.kind) ?? 0) + 1);
  const shares = [...kinds].sort((a, b) => b[1] - a[1]).map(([kind, count]) => `${count} ${kind}`).join(', ');
  const found = element('span', {class: 'tag', hidden: true}, 'matches');
  painters.push((search) => {
    found.hidden = search === null || !threads.some((thread) => search.stacks[thread.stack.index]);
  });
  const summary = element('summary', {}, element('span', {class: 'count'}, countOf(threads.length, 'thread')),
      ' ', element('span', {class: 'reason'}, 'only idle'), ' ', element('span', {class: 'muted'}, `(${shares})`), ' ', found);
  return element('li', {}, disclosure(summary, () => {
    const own = [];
    const list = element('ol', {class: 'groups'}, ...idle.map((group) => groupItem(group, own)));
    own.forEach((paint) => paint(currentSearch()));
    painters.push((search) => own.forEach((paint) => paint(search)));
    return list;
  }));
}

function logSection(incident) {
  const summary = element('summary', {}, 'Raw log');
  const body = () => {
    const box = element('div', {class: 'group-body'}, element('p', {class: 'muted'}, 'Unpacking …'));
    showLog(incident, box);
    return box;
  };
  return element('section', {'aria-labelledby': 'log-heading'},
      element('h2', {id: 'log-heading'}, 'The log as it was written'),
      element('div', {class: 'raw-log'}, disclosure(summary, body)));
}

async function showLog(incident, box) {
  try {
    const text = await readLog(incident);
    const lines = text.split('\n').map(visibleText);
    const log = element('pre', {tabindex: 0, 'aria-label': 'Raw log'});
    const more = appendInSteps(log, lines, (line) => document.createTextNode(`${line}\n`), LINES_STEP);
    box.replaceChildren(log, more);
  } catch (error) {
    box.replaceChildren(element('p', {class: 'empty'}, `The log cannot be unpacked: ${error.message}`));
  }
}
