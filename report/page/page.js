// The page itself: its address after the "#" tells what is shown.
//   #/              the overview
//   #signature/N    the overview, with the incidents of the signature at N + 1 of the ranking
//   #incident/N     one incident

const SEARCH_DELAY_MS = 150;
const app = {data: null, search: null, painters: []};

function currentSearch() {
  return app.search;
}

function route() {
  const [, kind, number] = /^#(signature|incident)\/(\d+)$/.exec(location.hash) ?? [];
  const {incidents, signatures} = app.data;
  if (kind === 'incident' && incidents[number]) return {incident: incidents[number]};
  if (incidents.length === 1) return {incident: incidents[0]};
  return {incident: null, signature: (kind === 'signature' && signatures[number]) || null};
}

function show() {
  const {incident, signature} = route();
  const view = document.getElementById('view');
  if (incident === null) {
    app.painters = [];
    view.replaceChildren(...overview(app, signature));
    document.title = `${countOf(app.data.incidents.length, 'incident')} – quorvel-report`;
  } else {
    const {nodes, painters} = incidentView(app, incident);
    app.painters = painters;
    view.replaceChildren(...nodes);
    document.title = `${incident.watch ?? 'Unnamed watch'} in ${incident.program ?? 'unknown program'} – quorvel-report`;
    painters.forEach((paint) => paint(app.search));
  }
  showSearchStatus();
}

function showSearchStatus() {
  const status = document.getElementById('search-status');
  if (app.search === null) {
    status.textContent = '';
    return;
  }
  const counts = app.search.threadCounts;
  const {incident} = route();
  const here = incident === null ? '' : `${countOf(counts[incident.index], 'thread')} here, `;
  status.textContent = `${here}${countOf(counts.filter((count) => count > 0).length, 'incident')} of ${counts.length}`;
}

function onSearch(query) {
  app.search = searchData(app.data, query);
  if (route().incident === null) show();
  else app.painters.forEach((paint) => paint(app.search));
  showSearchStatus();
}

function onNavigation() {
  show();
  const {signature} = route();
  const target = signature ? document.getElementById('incidents') : document.getElementById('view');
  document.getElementById('view').focus({preventScroll: true});
  target.scrollIntoView();
}

function start() {
  app.data = readData(document.getElementById('data').textContent);
  let timer = 0;
  document.getElementById('search').addEventListener('input', (event) => {
    clearTimeout(timer);
    timer = setTimeout(() => onSearch(event.target.value), SEARCH_DELAY_MS);
  });
  document.getElementById('theme').addEventListener('change', (event) => {
    document.documentElement.dataset.theme = event.target.value;
  });
  window.addEventListener('hashchange', () => {
    if (location.hash !== '#view') onNavigation();
  });
  show();
  document.documentElement.dataset.ready = 'true';
}

start();
