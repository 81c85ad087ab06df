// The overview: numbers, the ranking of signatures, the list of incidents.

const RANKING_STEP = 20;
const LIST_STEP = 50;
const TIMELINE_BARS = 48;

function overview(app, chosen) {
  const incidents = (chosen ?? app.data).incidents.filter((incident) => isShown(app, incident))
      .sort((a, b) => b.time - a.time || a.index - b.index);
  return [summarySection(app.data), rankingSection(app, chosen),
    incidentsSection(app, incidents, chosen)];
}

function isShown(app, incident) {
  return app.search === null || app.search.threadCounts[incident.index] > 0;
}

function summarySection(data) {
  const programs = new Set(data.incidents.map((incident) => incident.program));
  const cut = data.incidents.filter((incident) => incident.problemCount > 0).length;
  const span = timeSpan(data.incidents);
  const numbers = [
    ['Incidents', numberFormat.format(data.incidents.length)],
    ['Signatures', numberFormat.format(data.signatures.length)],
    ['Programs', numberFormat.format(programs.size)],
    ['Logs with problems', numberFormat.format(cut)],
  ];
  const times = data.incidents.map((incident) => incident.time);
  return element('section', {'aria-labelledby': 'summary-heading'},
      element('h1', {id: 'summary-heading'}, `${countOf(data.incidents.length, 'incident')} in ` +
          countOf(data.signatures.length, 'signature')),
      element('dl', {class: 'numbers'}, ...numbers.map(([name, value]) =>
        element('div', {}, element('dt', {}, name), element('dd', {}, value)))),
      timeline(times, span, 'All incidents over time'),
      spanLine(span));
}

function spanLine({first, last}) {
  return element('p', {class: 'span'}, element('span', {}, dayText(first)),
      element('span', {}, dayText(last)));
}

// Incidents over time, as bars over the time that all incidents span.
function timeline(times, span, label) {
  const counts = new Array(TIMELINE_BARS).fill(0);
  const barLength = Math.max(span.last - span.first, 1) / TIMELINE_BARS;
  for (const time of times.filter((known) => known !== null)) {
    counts[Math.min(TIMELINE_BARS - 1, Math.floor((time - span.first) / barLength))] += 1;
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
  const matching = (signature) =>
    signature.incidents.filter((incident) => isShown(app, incident)).length;
  const signatures = app.data.signatures.filter((signature) => matching(signature) > 0);
  const item = (signature) =>
    rankingItem(signature, matching(signature), span, signature === chosen);
  const more = appendInSteps(list, signatures, item, RANKING_STEP);
  const note = signatures.length === 0 ? 'No signature has a frame that matches the search.' :
      'The hangs that happened most often come first.';
  return element('section', {'aria-labelledby': 'ranking-heading'},
      element('h2', {id: 'ranking-heading'}, 'Ranking'), element('p', {class: 'muted'}, note),
      list, more);
}

function rankingItem(signature, matching, span, isChosen) {
  const total = signature.incidents.length;
  const times = signature.incidents.map((incident) => incident.time);
  const title = `${signature.watches.join(', ') || 'unnamed watch'} in ` +
      `${signature.programs.slice(0, 3).join(', ') || 'unknown program'}`;
  return element('li', {class: isChosen && 'chosen'},
      element('span', {class: 'rank'}, String(signature.index + 1)),
      element('span', {class: 'count'}, numberFormat.format(matching),
          element('small', {}, matching < total ? `of ${countOf(total, 'incident')}` :
              total === 1 ? 'incident' : 'incidents')),
      element('div', {}, timeline(times, span, `${title} over time`), spanLine(signature)),
      element('div', {class: 'about'},
          element('a', {href: `#signature/${signature.index}`, 'aria-current': isChosen && 'true'},
              title), ' ',
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
      chosen && element('p', {}, element('a', {href: '#/'}, 'Show those of all signatures')),
      list, more);
}

function incidentItem(app, incident) {
  const matching = app.search === null ? '' :
      countOf(app.search.threadCounts[incident.index], 'matching thread');
  return element('li', {},
      element('a', {href: `#incident/${incident.index}`}, timeText(incident.written)),
      element('span', {}, hangName(incident)),
      element('span', {}, incident.reason.text, ' ',
          incident.problemCount > 0 ? element('span', {class: 'tag'}, 'problems') : null),
      element('span', {class: 'muted'}, matching));
}
