// The icicle picture of all threads' stacks: a box a function, as wide as the threads that stand in
// it; what it calls hangs below it, and the kernel's functions below the user's. A click, or Enter,
// makes a box as wide as the picture; arrow keys move from box to box.

const ROW_HEIGHT = 22;
const MIN_BOX_WIDTH = 2;  // pixels; a narrower box is seen by zooming

function icicleTree(threads) {
  const root = newBox('all threads', 'library', null, null);
  for (const thread of threads) {
    let box = root;
    enter(box, thread);
    for (const frame of [...thread.stack.user].reverse()) box = enter(child(box, frame), thread);
    if (thread.stack.user.length === 0) {
      const label = thread.stack.failed === null ? 'no user stack' : 'not unwound';
      box = enter(child(box, {label, class: 'waiting'}), thread);
    }
    for (const frame of [...thread.stack.kernel].reverse()) box = enter(child(box, frame), thread);
  }
  arrange(root);
  return root;
}

function newBox(label, kind, frame, parent) {
  return {
    label, kind, parent, frames: new Set(frame === null ? [] : [frame]), threads: [],
    children: new Map(), watched: false, depth: parent === null ? 0 : parent.depth + 1, start: 0,
  };
}

function child(box, frame) {
  const key = `${frame.class}\n${frame.label}`;
  const found = box.children.get(key);
  if (found !== undefined) {
    found.frames.add(frame);
    return found;
  }
  const made = newBox(frame.label, frame.class, frame, box);
  box.children.set(key, made);
  return made;
}

function enter(box, thread) {
  box.threads.push(thread);
  box.watched ||= thread.watched;
  return box;
}

// Places the children of a box: the watched thread's on the left, then the widest.
function arrange(root) {
  const open = [root];
  while (open.length > 0) {
    const box = open.pop();
    box.children = [...box.children.values()].sort((a, b) => b.watched - a.watched ||
        b.threads.length - a.threads.length || (a.label < b.label ? -1 : 1));
    let start = box.start;
    for (const inner of box.children) {
      inner.start = start;
      start += inner.threads.length;
      open.push(inner);
    }
  }
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
    this.reset = element('button', {type: 'button', onclick: () => this.zoom(this.root)}, 'Show all threads');
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

  // Draws the zoomed box, those that it stands in at full width above it, and all below it.
  draw() {
    const width = this.picture.clientWidth;
    if (width === 0) return;  // not in the document yet
    const hadFocus = this.picture.contains(document.activeElement);
    this.boxes.clear();
    let rows = 0;
    const perThread = width / this.zoomed.threads.length;
    for (let outer = this.zoomed.parent; outer !== null; outer = outer.parent) this.show(outer, 0, width);
    const open = [this.zoomed];
    while (open.length > 0) {
      const box = open.pop();
      const boxWidth = box.threads.length * perThread;
      if (boxWidth < MIN_BOX_WIDTH) continue;
      this.show(box, (box.start - this.zoomed.start) * perThread, boxWidth);
      rows = Math.max(rows, box.depth + 1);
      open.push(...box.children);
    }
    if (!this.boxes.has(this.current)) this.current = this.zoomed;
    this.boxes.get(this.current).tabIndex = 0;
    const inOrder = [...this.boxes.keys()].sort((a, b) => a.depth - b.depth || a.start - b.start);
    this.picture.replaceChildren(...inOrder.map((box) => this.boxes.get(box)));
    this.picture.style.height = `${rows * ROW_HEIGHT}px`;
    this.reset.disabled = this.zoomed === this.root;
    if (hadFocus) this.boxes.get(this.current).focus({preventScroll: true});
  }

  show(box, left, width) {
    const outer = box.depth < this.zoomed.depth;
    const matches = this.search !== null && [...box.frames].some((frame) => this.search.frames.has(frame));
    const classes = ['box', box.kind, outer && 'outer', box.watched && 'watched', matches && 'match'];
    const node = element('div', {
      class: classes.filter(Boolean).join(' '), role: 'treeitem', tabindex: -1,
      'aria-level': box.depth + 1, 'aria-selected': String(box === this.zoomed),
      'aria-label': `${box.label}, ${this.share(box)}${box.watched ? ', the watched one among them' : ''}`,
    }, width < 14 ? '' : box.label);
    node.style.left = `${left}px`;
    node.style.width = `${width - (width > 6 ? 1 : 0)}px`;
    node.style.top = `${box.depth * ROW_HEIGHT}px`;
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
        element('p', {}, `${this.share(box)}: ${threadIds(box.threads, 40)}`));
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

  // The shown box that stands beside this one in its row.
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

function icicleSection(threads, idleThreads, painters) {
  const icicle = new Icicle(threads);
  const busy = threads.filter((thread) => !idleThreads.has(thread));
  const onlyBusy = element('input', {type: 'checkbox', id: 'only-busy'});
  onlyBusy.addEventListener('change', () => icicle.load(onlyBusy.checked ? busy : threads));
  const canLeaveOut = busy.length > 0 && busy.length < threads.length;
  painters.push((search) => icicle.paint(search));
  const legend = [['own', 'own code'], ['library', 'libraries'], ['waiting', 'waiting'],
    ['kernel', 'kernel'], ['watched', 'watched thread']];
  return element('section', {'aria-labelledby': 'icicle-heading'},
      element('h2', {id: 'icicle-heading'}, 'All threads in one picture'),
      element('div', {class: 'tools'}, icicle.reset,
          canLeaveOut ? element('label', {}, onlyBusy, ` leave out the ${threads.length - busy.length} idle`) : null,
          element('ul', {class: 'legend'}, ...legend.map(([kind, text]) => element('li', {class: kind}, text))),
          element('span', {class: 'muted'}, 'Width: threads. Click a box to zoom.')),
      icicle.picture, icicle.detail);
}
