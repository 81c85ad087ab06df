// Threads whose user functions are the same form a group; within it, those whose kernel functions
// are the same as well.

function namesOf(frames) {
  return JSON.stringify(frames.map((frame) => frame.label));
}

function keysOf(stack) {
  stack.kernelKey ??= namesOf(stack.kernel);
  stack.userKey ??= stack.user.length > 0 ? namesOf(stack.user) :
                                            `${stack.failed}\n${stack.kernelKey}`;
  return stack;
}

// Kinds of wait that are how a thread idles, when it is not the watched one.
const IDLE_WAITS = new Set(['condition', 'poll', 'sleep', 'signal']);

// The watched thread's group, then the rare ones first: the one odd thread of a pool is the cause
// more often than the others. Groups that only idle come last.
function groupThreads(threads) {
  const groups = new Map();
  for (const thread of threads) {
    const {userKey, kernelKey} = keysOf(thread.stack);
    let group = groups.get(userKey);
    if (group === undefined) {
      group = {threads: [], variants: new Map(), stack: thread.stack, watched: false, idle: true};
      groups.set(userKey, group);
    }
    group.threads.push(thread);
    group.watched ||= thread.watched;
    group.idle &&= IDLE_WAITS.has(thread.stack.reason.kind) && !thread.watched;
    if (!group.variants.has(kernelKey)) group.variants.set(kernelKey, []);
    group.variants.get(kernelKey).push(thread);
  }
  const rank = (group) => (group.watched ? 0 : group.idle ? 2 : 1);
  return [...groups.values()].sort((a, b) => rank(a) - rank(b) ||
      a.threads.length - b.threads.length || a.threads[0].tid - b.threads[0].tid);
}

// The frame that asked for the wait: the innermost that is not the machinery of waiting.
function tellingFrame(stack) {
  return stack.user[stack.telling] ?? null;
}

// The functions from the telling frame outwards, without the start of the thread.
function tellingFunctions(stack, limit) {
  const frames = stack.user.slice(Math.max(stack.telling, 0)).filter((frame) => frame.class === 'own');
  return (frames.length > 0 ? frames : stack.user).slice(0, limit);
}

// Kinds of wait that many threads share for one cause; the others are how a thread idles.
const SHARED_WAITS = new Set(['mutex', 'futex', 'file-lock', 'file-read', 'file-write', 'disk',
  'binder', 'memory', 'stopped']);

// The other groups that wait for the same kind of thing, or stand in the function that asked for
// the watched thread's wait.
function groupsInTheSamePlace(watchedStack, groups) {
  const telling = tellingFrame(watchedStack);
  const sameWait = SHARED_WAITS.has(watchedStack.reason.kind);
  const found = [];
  for (const group of groups) {
    const waits = sameWait && group.stack.reason.kind === watchedStack.reason.kind;
    const inFunction = telling?.function != null && telling.class === 'own' &&
        group.stack.user.some((frame) => frame.function === telling.function);
    const others = group.threads.filter((thread) => !thread.watched);
    if (others.length > 0 && (waits || inFunction)) found.push({group, others, waits, inFunction});
  }
  return found;
}

// "3, 7 to 9 and 4 more" of ascending ids.
function threadIds(threads, limit = Infinity) {
  const ids = threads.map((thread) => thread.tid).sort((a, b) => a - b);
  const shown = ids.slice(0, limit).join(', ');
  return ids.length > limit ? `${shown} and ${ids.length - limit} more` : shown;
}

function idleThreads(groups) {
  return new Set(groups.filter((group) => group.idle).flatMap((group) => group.threads));
}
