// Threads of the same user functions, reason and place form a group; within it, those of the same
// kernel functions belong together.

function namesOf(frames) {
  return JSON.stringify(frames.map((frame) => frame.label));
}

function keysOf(stack) {
  stack.kernelKey ??= namesOf(stack.kernel);
  stack.userKey ??= `${stack.failed} ${stack.reason.kind} ${namesOf(stack.user)}` +
      (stack.user.length > 0 ? '' : stack.kernelKey);
  return stack;
}

const PLACE_ORDER = ['same wait', 'same function', 'other', 'idle'];

// The watched thread's group, those in the same place, then the rare ones first: the one odd thread
// of a pool is the cause more often than the others. Groups that only idle come last.
function groupThreads(threads) {
  const groups = new Map();
  for (const thread of threads) {
    const {userKey, kernelKey} = keysOf(thread.stack);
    const key = `${thread.watched} ${thread.place} ${userKey}`;
    if (!groups.has(key)) {
      const {stack, place, watched} = thread;
      groups.set(key, {threads: [], variants: new Map(), stack, place, watched});
    }
    const group = groups.get(key);
    group.threads.push(thread);
    if (!group.variants.has(kernelKey)) group.variants.set(kernelKey, []);
    group.variants.get(kernelKey).push(thread);
  }
  const rank = (group) => (group.watched ? -1 : PLACE_ORDER.indexOf(group.place));
  return [...groups.values()].sort((a, b) => rank(a) - rank(b) ||
      a.threads.length - b.threads.length || a.threads[0].tid - b.threads[0].tid);
}

// The program's own functions on a stack, the innermost first and with its source line, where one is
// known; where the stack has none, all functions.
function tellingFunctions(stack, limit) {
  const own = stack.user.filter((frame) => frame.class === 'own');
  const frames = (own.length > 0 ? own : stack.user).slice(0, limit);
  return frames.map(({label, source}, index) =>
    (index === 0 && source ? `${label} (${source})` : label));
}

// "3, 7, 9 and 4 more" of ascending ids.
function threadIds(threads, limit = Infinity) {
  const ids = threads.map((thread) => thread.tid).sort((a, b) => a - b);
  const shown = ids.slice(0, limit).join(', ');
  return ids.length > limit ? `${shown} and ${ids.length - limit} more` : shown;
}
