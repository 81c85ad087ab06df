// The threads' stacks as a tree of boxes: a box is one function called from the same
// functions, and holds the threads that are in it.

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
