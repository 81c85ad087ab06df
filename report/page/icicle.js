// The icicle picture of all threads' stacks: a box a function, as wide as the threads that are in
// it; what it calls hangs below it, and the kernel's functions below the user's. A click, or Enter,
// makes a box as wide as the picture; arrow keys move from box to box.

const ROW_HEIGHT = 22;
const BOX_GAP = 1;
const MIN_BOX_WIDTH = 1.5;  // pixels; a narrower box is seen by zooming
const TOWER_WIDTH = 8;      // pixels; a narrower box shows all below it, too
const LABEL_WIDTH = 14;     // pixels; a narrower box has no space for a letter
const DESCRIBED_IDS = 40;   // of the threads in the box under the pointer

// A box, its widest child, that one's widest child and so on.
function columnOf(box) {
  const column = [];
  for (let part = box; part !== undefined; part = part.children[0]) column.push(part);
  return column;
}

function colourSteps(column) {
  const steps = column.map((box, row) =>
    `var(--${box.kind}) ${row * ROW_HEIGHT}px ${(row + 1) * ROW_HEIGHT}px`);
  return `linear-gradient(${steps.join(', ')})`;
}

class Icicle {
  constructor(threads) {
    this.search = null;
    this.picture = element('div', {
      class: 'icicle', role: 'tree',
      'aria-label': 'Icicle picture of all threads: arrow keys move, Enter zooms, Escape zooms out',
      onkeydown: (event) => this.onKey(event),
      onclick: (event) => this.onPointer(event, (box) => this.zoom(box)),
      onpointerover: (event) => this.onPointer(event, (box) => this.describe(box)),
      onfocusin: (event) => this.onPointer(event, (box) => this.describe(box)),
    });
    this.reset = element('button', {type: 'button', onclick: () => this.zoom(this.root)},
        'Show all threads');
    this.detail = element('div', {class: 'icicle-detail'});
    this.boxes = new Map();  // a shown box's element
    this.load(threads);
    new ResizeObserver(() => this.draw()).observe(this.picture);
  }

  load(threads) {
    this.root = icicleTree(threads);
    this.zoom(this.root);
  }

  zoom(box) {
    this.zoomed = box;
    this.current = box;
    const hadFocus = this.picture.contains(document.activeElement);
    this.draw();
    this.describe(box);
    if (hadFocus) this.boxes.get(box)?.focus();
  }

  paint(search) {
    this.search = search;
    this.draw();
  }

  draw() {
    const width = this.picture.clientWidth;
    if (width === 0) return;  // not in the document yet
    const hadFocus = this.picture.contains(document.activeElement);
    const rows = this.layOut(width);
    if (!this.boxes.has(this.current)) this.current = this.zoomed;
    this.boxes.get(this.current).tabIndex = 0;
    const inOrder = [...this.boxes.keys()].sort((a, b) => a.depth - b.depth || a.start - b.start);
    this.picture.replaceChildren(...inOrder.map((box) => this.boxes.get(box)));
    this.picture.style.height = `${rows * ROW_HEIGHT}px`;
    this.reset.disabled = this.zoomed === this.root;
    if (hadFocus) this.boxes.get(this.current).focus({preventScroll: true});
  }

  // Makes the elements of the zoomed box, of those above it at full width, and of
  // all below it. Returns the number of rows.
  layOut(width) {
    this.boxes.clear();
    for (let outer = this.zoomed.parent; outer !== null; outer = outer.parent) {
      this.show(outer, 0, width, [outer]);
    }
    let rows = 0;
    const perThread = width / this.zoomed.threads.length;
    const open = [this.zoomed];
    while (open.length > 0) {
      const box = open.pop();
      const boxWidth = box.threads.length * perThread;
      if (boxWidth < MIN_BOX_WIDTH) continue;
      const isTower = boxWidth < TOWER_WIDTH;
      const column = isTower ? columnOf(box) : [box];
      this.show(box, (box.start - this.zoomed.start) * perThread, boxWidth, column);
      rows = Math.max(rows, box.depth + column.length);
      if (!isTower) open.push(...box.children);
    }
    return rows;
  }

  // Shows a box; a column of more than one box as one tower of their colours.
  show(box, left, width, column) {
    const outer = box.depth < this.zoomed.depth;
    const matches = this.search !== null && column.some((part) =>
      [...part.frames].some((frame) => this.search.frames.has(frame)));
    const classes = ['box', box.kind, outer && 'outer', box.watched && 'watched',
      matches && 'match'];
    const spoken = `${box.label}, ${this.share(box)}`;
    const node = element('div', {
      class: classes.filter(Boolean).join(' '), role: 'treeitem', tabindex: -1,
      title: spoken, 'aria-label': box.watched ? `${spoken}, the watched one among them` : spoken,
      'aria-level': box.depth + 1, 'aria-selected': String(box === this.zoomed),
    }, width < LABEL_WIDTH ? '' : box.label);
    Object.assign(node.style, {
      left: `${left}px`,
      width: `${width < TOWER_WIDTH ? width : width - BOX_GAP}px`,
      top: `${box.depth * ROW_HEIGHT}px`,
      height: `${column.length * ROW_HEIGHT - BOX_GAP}px`,
    });
    if (column.length > 1 && !matches) node.style.background = colourSteps(column);
    node.box = box;
    this.boxes.set(box, node);
  }

  share(box) {
    return `${box.threads.length} of ${countOf(this.root.threads.length, 'thread')}`;
  }

  describe(box) {
    const frame = [...box.frames][0];
    const where = frame?.class === 'kernel' ? 'kernel' : frame?.module ?? '';
    const source = frame?.source ? `, ${frame.source}` : '';
    this.detail.replaceChildren(
        element('p', {class: 'mono'}, element('strong', {}, frame?.function ?? box.label)),
        element('p', {class: 'mono muted'}, `${where}${source}`),
        element('p', {}, `${this.share(box)}: ${threadIds(box.threads, DESCRIBED_IDS)}`));
  }

  onPointer(event, act) {
    const node = event.target.closest('.box');
    if (node !== null) act(node.box);
  }

  onKey(event) {
    const box = event.target.box;
    if (box === undefined || event.ctrlKey || event.altKey || event.metaKey) return;
    const moves = {
      ArrowDown: () => this.move(box.children.find((inner) => this.boxes.has(inner))),
      ArrowUp: () => this.move(box.parent),
      ArrowLeft: () => this.move(this.beside(box, -1)),
      ArrowRight: () => this.move(this.beside(box, 1)),
      Home: () => this.move(this.root),
      Enter: () => this.zoom(box),
      ' ': () => this.zoom(box),
      Escape: () => this.zoom(this.zoomed.parent ?? this.root),
    };
    const move = moves[event.key];
    if (move === undefined) return;
    event.preventDefault();
    move();
  }

  // The shown box beside this one in its row.
  beside(box, step) {
    const row = [...this.boxes.keys()].filter((other) => other.depth === box.depth)
        .sort((a, b) => a.start - b.start);
    return row[row.indexOf(box) + step];
  }

  move(box) {
    if (!box || !this.boxes.has(box)) return;
    this.boxes.get(this.current).tabIndex = -1;
    this.current = box;
    const node = this.boxes.get(box);
    node.tabIndex = 0;
    node.focus();
  }
}

function icicleSection(threads, painters) {
  const icicle = new Icicle(threads);
  painters.push((search) => icicle.paint(search));
  const kinds = [['own', 'own code'], ['library', 'libraries'], ['waiting', 'waiting'],
    ['kernel', 'kernel'], ['watched', 'watched thread']];
  const legend = kinds.map(([kind, text]) => element('li', {class: kind}, text));
  const help = 'Width: threads. Click a box to zoom, or use the arrow keys and Enter.';
  return element('section', {'aria-labelledby': 'icicle-heading'},
      element('h2', {id: 'icicle-heading'}, 'All threads in one picture'),
      element('div', {class: 'tools'}, icicle.reset, idleSwitch(icicle, threads),
          element('ul', {class: 'legend'}, ...legend), element('span', {class: 'muted'}, help)),
      icicle.picture, icicle.detail);
}

// Leaves the idle threads out of the picture, where some but not all are.
function idleSwitch(icicle, threads) {
  const busy = threads.filter((thread) => thread.place !== 'idle');
  if (busy.length === 0 || busy.length === threads.length) return null;
  const box = element('input', {type: 'checkbox', id: 'only-busy'});
  box.addEventListener('change', () => icicle.load(box.checked ? busy : threads));
  return element('label', {}, box, ` leave out ${countOf(threads.length - busy.length, 'idle thread')}`);
}
