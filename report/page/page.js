// The page itself: its address after the "#" tells what is shown.
//   #/              the overview
//   #signature/N    the overview, with the incidents of the signature at N + 1 of the ranking
//   #incident/N     one incident

const SEARCH_DELAY_MS = 150;
const app = {data: null, search: null, painters: [], overview: null};

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
    showOverview(view, signature);
    document.title = `${countOf(app.data.incidents.length, 'incident')} – quorvel-report`;
  } else {
    const {nodes, painters} = incidentView(app, incident);
    app.painters = painters;
    view.replaceChildren(...nodes);
    document.title = `${hangName(incident)} – quorvel-report`;
    painters.forEach((paint) => paint(app.search));
  }
  showSearchStatus();
}

// The overview that was shown last is kept: whoever returns from an incident finds it as it was.
function showOverview(view, signature) {
  const words = app.search?.words;
  if (app.overview?.signature !== signature || app.overview.words !== words) {
    app.overview = {signature, words, nodes: overview(app, signature), scroll: null, focused: null};
  }
  view.replaceChildren(...app.overview.nodes);
}

function showSearchStatus() {
  const status = document.getElementById('search-status');
  if (app.search === null) {
    status.textContent = '';
    return;
  }
  const counts = app.search.threadCounts;
  const {incident} = route();
  const matching = counts.filter((count) => count > 0).length;
  const parts = incident === null ? [] : [`${countOf(counts[incident.index], 'thread')} here`];
  if (counts.length > 1) {
    parts.push(`${countOf(matching, 'incident')} of ${numberFormat.format(counts.length)}`);
  }
  status.textContent = parts.join(', ');
}

function onSearch(query) {
  app.search = searchData(app.data, query);
  if (route().incident === null) show();
  else app.painters.forEach((paint) => paint(app.search));
  showSearchStatus();
}

function onNavigation() {
  const before = app.overview;
  show();
  const {incident, signature} = route();
  const returned = incident === null && app.overview === before && before.scroll !== null;
  const focused = returned && before.focused ? before.focused : document.getElementById('view');
  focused.focus({preventScroll: true});
  if (returned) window.scrollTo(0, before.scroll);
  else if (signature) document.getElementById('incidents').scrollIntoView();
  else window.scrollTo(0, 0);
}

// A link of the overview is about to be followed.
function rememberPlace(event) {
  const link = event.target.closest('.incidents a');
  if (link === null) return;
  app.overview.scroll = window.scrollY;
  app.overview.focused = link;
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
  document.getElementById('view').addEventListener('click', rememberPlace);
  window.addEventListener('hashchange', () => {
    if (location.hash !== '#view') onNavigation();
  });
  show();
  document.documentElement.dataset.ready = 'true';
}

start();
