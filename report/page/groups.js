// The groups of threads, each folded to one line until it is opened.

function groupsSection(groups, threadCount, painters) {
  const busy = groups.filter((group) => group.place !== 'idle');
  const idle = groups.filter((group) => group.place === 'idle');
  const list = element('ol', {class: 'groups'},
      ...busy.map((group) => groupItem(group, painters)));
  if (idle.length > 0) list.append(idleItem(idle, painters));
  const setAll = (open) => {
    for (const details of list.querySelectorAll(':scope > li > details')) details.open = open;
  };
  const button = (text, open) =>
    element('button', {type: 'button', onclick: () => setAll(open)}, text);
  const order = 'The watched thread, those in the same place, the rarest; what only idles.';
  const heading = `${countOf(threadCount, 'thread')} in ${countOf(groups.length, 'group')} ` +
      'of the same functions';
  return element('section', {'aria-labelledby': 'groups-heading'},
      element('h2', {id: 'groups-heading'}, heading),
      element('p', {class: 'tools'}, button('Unfold all', true), button('Fold all', false),
          element('span', {class: 'muted'}, order)),
      list);
}

function groupItem(group, painters) {
  const names = tellingFunctions(group.stack, LINE_FUNCTIONS);
  const summary = element('summary', {},
      element('span', {class: 'count'}, countOf(group.threads.length, 'thread')), ' ',
      group.watched ? element('span', {class: 'tag alarm'}, 'watched') : null, ' – ',
      element('span', {class: 'reason'}, group.stack.reason.text), ' ',
      element('span', {class: 'muted'}, threadIds(group.threads, LISTED_IDS)), ' ',
      matchTag(group.threads, painters), names.length > 0 ? framesLine(names) : null);
  return element('li', {class: group.watched && 'is-watched'},
      disclosure(summary, () => groupBody(group, painters)));
}

// Shows while a frame of one of the threads matches the search.
function matchTag(threads, painters) {
  const tag = element('span', {class: 'tag', hidden: true}, 'matches');
  painters.push((search) => {
    tag.hidden = search === null || !threads.some((thread) => search.stacks[thread.stack.index]);
  });
  return tag;
}

// The stacks of a group: one of the user's, and each kernel stack that its threads have.
function groupBody(group, painters) {
  const body = element('div', {class: 'group-body'});
  if (group.threads.length > LISTED_IDS) {
    body.append(element('p', {class: 'tids muted'}, `Threads ${threadIds(group.threads)}`));
  }
  const own = [];
  const variants = [...group.variants.values()].sort((a, b) => a.length - b.length);
  variants.forEach((threads, index) => {
    if (variants.length > 1) body.append(element('h3', {}, variantText(threads)));
    const {stack} = threads[0];
    body.append(index === 0 ? stackColumns(stack, own) :
        stackList(stack.kernel, kernelStackText(stack), own));
  });
  addPainters(own, painters);
  return body;
}

function variantText(threads) {
  return `${countOf(threads.length, 'thread')} with this kernel stack: ` +
      threadIds(threads, LISTED_IDS);
}

// All groups that only idle, as one line.
function idleItem(idle, painters) {
  const threads = idle.flatMap((group) => group.threads);
  const kinds = new Map();
  for (const {stack: {reason}} of threads) {
    kinds.set(reason.kind, (kinds.get(reason.kind) ?? 0) + 1);
  }
  const shares = [...kinds].sort((a, b) => b[1] - a[1]).map(([kind, count]) => `${count} ${kind}`);
  const summary = element('summary', {},
      element('span', {class: 'count'}, countOf(threads.length, 'thread')), ' – ',
      element('span', {class: 'reason'}, threads.length === 1 ? 'only idles' : 'only idle'), ' ',
      element('span', {class: 'muted'}, `(${shares.join(', ')})`), ' ',
      matchTag(threads, painters));
  return element('li', {}, disclosure(summary, () => {
    const own = [];
    const list = element('ol', {class: 'groups'}, ...idle.map((group) => groupItem(group, own)));
    addPainters(own, painters);
    return list;
  }));
}

// Adds the painters of what was built later than the rest.
function addPainters(own, painters) {
  const paintAll = (search) => own.forEach((paint) => paint(search));
  paintAll(currentSearch());
  painters.push(paintAll);
}
