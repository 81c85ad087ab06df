// The overview: numbers, the ranking of signatures, the list of incidents.

const RANKING_STEP = 20;
const LIST_STEP = 50;
const TIMELINE_BARS = 48;

function overview(app, chosen) {
  const shown = (incident) => (chosen === null || incident.signature === chosen) &&
      (app.search === null || app.search.threadCounts[incident.index] > 0);
  const incidents = app.data.incidents.filter(shown)
      .sort((a, b) => (b.time ?? 0) - (a.time ?? 0) || a.index - b.index);
  return [summarySection(app.data), rankingSection(app, chosen), incidentsSection(app, incidents, chosen)];
}

function summarySection(data) {
  const programs = new Set(data.incidents.map((incident) => incident.program));
  const cut = data.incidents.filter((incident) => incident.problemCount > 0).length;
  const span = timeSpan(data.incidents);
  const numbers = [
    ['Incidents', data.incidents.length.toLocaleString('en')],
    ['Signatures', data.signatures.length.toLocaleString('en')],
    ['Programs', programs.size.toLocaleString('en')],
    ['Logs with problems', cut.toLocaleString('en')],
  ];
  const times = data.incidents.map((incident) => incident.time);
  return element('section', {'aria-labelledby': 'summary-heading'},
      element('h1', {id: 'summary-heading'}, `${countOf(data.incidents.length, 'incident')} in ` +
          countOf(data.signatures.length, 'signature')),
      element('dl', {class: 'numbers'}, ...numbers.map(([name, value]) =>
        element('div', {}, element('dt', {}, name), element('dd', {}, value)))),
      timeline(times, span, 'All incidents over time'),
      element('p', {class: 'span'}, element('span', {}, dayText(span.first)),
          element('span', {}, dayText(span.last))));
}

// Incidents over time, as bars over the time that all incidents span.
function timeline(times, span, label) {
  const counts = new Array(TIMELINE_BARS).fill(0);
  const length = Math.max(span.last - span.first, 1);
  for (const time of times) {
    if (time === null) continue;
    counts[Math.min(TIMELINE_BARS - 1, Math.floor((time - span.first) / length * TIMELINE_BARS))] += 1;
  }
  const highest = Math.max(...counts, 1);
  const bars = counts.map((count, index) => svgElement('rect', {
    x: index, width: 0.8, y: 1 - count / highest, height: count / highest,
  })).filter((bar, index) => counts[index] > 0);
  return svgElement('svg', {
    class: 'timeline', role: 'img', 'aria-label': `${label}: at most ${highest} in one bar`,
    viewBox: `0 0 ${TIMELINE_BARS} 1`, preserveAspectRatio: 'none',
  }, ...bars);
}

function rankingSection(app, chosen) {
  const list = element('ol', {class: 'ranking'});
  const span = timeSpan(app.data.incidents);
  const counts = new Map();
  for (const incident of app.data.incidents) {
    if (app.search === null || app.search.threadCounts[incident.index] > 0) {
      counts.set(incident.signature, (counts.get(incident.signature) ?? 0) + 1);
    }
  }
  const signatures = app.data.signatures.filter((signature) => counts.has(signature));
  const more = appendInSteps(list, signatures,
      (signature) => rankingItem(signature, span, signature === chosen), RANKING_STEP);
  const note = signatures.length === 0 ? 'No signature has a frame that matches the search.' :
      'The hangs that happened most often come first.';
  return element('section', {'aria-labelledby': 'ranking-heading'},
      element('h2', {id: 'ranking-heading'}, 'Ranking'), element('p', {class: 'muted'}, note), list, more);
}

function rankingItem(signature, span, isChosen) {
  const times = signature.incidents.map((incident) => incident.time);
  const title = `${signature.watches.join(', ') || 'unnamed watch'} in ` +
      `${signature.programs.slice(0, 3).join(', ') || 'unknown program'}`;
  const period = signature.first === null ? '' :
      `${dayText(signature.first)} to ${dayText(signature.last)}`;
  return element('li', {class: isChosen && 'chosen'},
      element('span', {class: 'rank'}, String(signature.index + 1)),
      element('span', {class: 'count'}, signature.incidents.length.toLocaleString('en'),
          element('small', {}, signature.incidents.length === 1 ? 'incident' : 'incidents')),
      element('div', {}, timeline(times, span, `${title} over time`),
          element('span', {class: 'muted'}, element('small', {}, period))),
      element('div', {class: 'about'},
          element('a', {href: `#signature/${signature.index}`, 'aria-current': isChosen && 'true'}, title), ' ',
          element('span', {class: 'reason'}, signature.reason.text),
          element('div', {}, framesLine(signature.frames)),
          element('small', {class: 'muted mono'}, signature.id)));
}

function incidentsSection(app, incidents, chosen) {
  const list = element('ol', {class: 'incidents'});
  const more = appendInSteps(list, incidents, (incident) => incidentItem(app, incident), LIST_STEP);
  const heading = chosen === null ? countOf(incidents.length, 'incident') :
      `${countOf(incidents.length, 'incident')} of signature ${chosen.index + 1}`;
  return element('section', {'aria-labelledby': 'incidents-heading', id: 'incidents'},
      element('h2', {id: 'incidents-heading'}, heading),
      chosen && element('p', {}, element('a', {href: '#/'}, 'Show all signatures’ incidents')), list, more);
}

function incidentItem(app, incident) {
  const matching = app.search === null ? '' :
      `${countOf(app.search.threadCounts[incident.index], 'matching thread')}`;
  return element('li', {},
      element('a', {href: `#incident/${incident.index}`}, timeText(incident.written)),
      element('span', {}, `${incident.watch ?? 'unnamed watch'} in ${incident.program ?? 'unknown program'}`),
      element('span', {}, incident.reason.text, ' ',
          incident.problemCount > 0 ? element('span', {class: 'tag'}, 'problems') : null),
      element('span', {class: 'muted'}, matching));
}
