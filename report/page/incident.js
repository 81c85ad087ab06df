// One incident: its cause, what the log says of it, the watched thread's stacks, all threads as a
// picture and as groups, the raw log.

const PROBLEMS_STEP = 5;
const LISTED_IDS = 12;     // of a group's threads in one line
const LINE_FUNCTIONS = 4;  // of a stack in one line

// The view's nodes, and the painters that are to be called when the search changes.
function incidentView(app, incident) {
  const painters = [];
  const threads = threadsOf(app.data, incident);
  const groups = groupThreads(threads);
  const watched = threads.find((thread) => thread.watched) ?? null;
  const nodes = [headSection(app, incident, watched, groups)];
  if (watched !== null) nodes.push(watchedSection(watched, painters));
  if (threads.length > 0) {
    nodes.push(icicleSection(threads, painters), groupsSection(groups, threads.length, painters));
  }
  nodes.push(rawLogSection(incident));
  return {nodes, painters};
}

function watchedSection(watched, painters) {
  const view = document.getElementById('view');
  const exact = element('input', {type: 'checkbox', id: 'exact'});
  exact.addEventListener('change', () => view.classList.toggle('exact', exact.checked));
  view.classList.remove('exact');
  return element('section', {'aria-labelledby': 'watched-heading'},
      element('h2', {id: 'watched-heading'}, `Watched thread ${watched.tid}`),
      element('p', {}, element('label', {}, exact, ' addresses and whole paths')),
      stackColumns(watched.stack, painters));
}

function headSection(app, incident, watched, groups) {
  const name = incident.watch ?? 'A watch without a name';
  const seconds = incident.armedSeconds;
  const after = seconds === null ? '' : ` after ${countOf(seconds, 'second')}`;
  const program = incident.program ?? 'an unknown program';
  return element('section', {'aria-labelledby': 'incident-heading'},
      stepsBar(app, incident),
      element('h1', {id: 'incident-heading'}, `${name} expired${after} in ${program}`),
      causeBox(incident, watched, groups), problemsBox(incident, groups), factsList(incident));
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
      link(same[at - 1], 'Newer'), link(same[at + 1], 'Older'));
}

// What could not be read, and the threads whose user stacks the log lost.
function problemsBox(incident, groups) {
  const cut = groups.flatMap((group) => group.threads).filter((thread) => thread.stack.isCut);
  if (incident.problemCount === 0 && cut.length === 0) return null;
  const box = element('div', {class: 'warning'});
  if (cut.length > 0) {
    box.append(element('p', {}, `The log was cut short: ${countOf(cut.length, 'thread')} with a ` +
        `kernel stack and no user stack (${threadIds(cut, LISTED_IDS)}).`));
  }
  const problems = [...incident.problems];
  const unlisted = incident.problemCount - problems.length;
  if (unlisted > 0) problems.push(`and ${countOf(unlisted, 'more problem')}`);
  const list = element('ul', {});
  const item = (problem) => element('li', {class: 'mono'}, problem);
  box.append(list, appendInSteps(list, problems, item, PROBLEMS_STEP));
  return box;
}

function factsList(incident) {
  const facts = [
    ['Written', writtenText(incident)],
    ['Watch started', timeText(incident.started)],
    ['Threads', String(incident.threads.length / NUMBERS_A_THREAD)],
    ['Build', incident.fingerprint],
    ['Signature', incident.signatureId],
    ['File', incident.file],
    ['The program printed', incident.printed.join(' ⏎ ')],
  ];
  const known = facts.filter(([, value]) => value);
  return element('dl', {class: 'facts'}, ...known.map(([name, value]) =>
    element('div', {}, element('dt', {}, name), element('dd', {}, value))));
}

function writtenText(incident) {
  const text = timeText(incident.written);
  if (!incident.utcOffset || incident.time === null) return text;
  const local = new Date(incident.time + incident.utcOffset * 1000).toISOString().slice(11, 19);
  return `${text} (${local} on the device)`;
}
