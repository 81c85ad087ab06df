// The log as it was written. It is unpacked when it is opened.

const LINES_STEP = 5000;

function rawLogSection(incident) {
  const summary = element('summary', {}, 'Raw log');
  const body = () => {
    const box = element('div', {class: 'group-body'},
        element('p', {class: 'muted'}, 'Unpacking …'));
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
    box.replaceChildren(log, appendInSteps(log, lines, (line) => `${line}\n`, LINES_STEP));
  } catch (error) {
    const message = `The log cannot be unpacked: ${error.message}`;
    box.replaceChildren(element('p', {class: 'empty'}, message));
  }
}

// The text of the log, which the page holds deflated, in base64.
async function readLog(incident) {
  const block = document.getElementById(`log-${incident.index}`);
  const bytes = Uint8Array.from(atob(block.textContent), (character) => character.charCodeAt(0));
  const stream = new Blob([bytes]).stream().pipeThrough(new DecompressionStream('deflate'));
  return new Response(stream).text();
}
