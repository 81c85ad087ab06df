// The search over frames. A string that holds the words makes its frames match, a frame its
// stacks, a stack its threads.

// What matches, or null for an empty search.
function searchData(data, query) {
  const words = query.trim().toLowerCase();
  if (words === '') return null;
  data.lowered ??= data.strings.map((text) => text.toLowerCase());
  const matchingStrings = data.lowered.map((text) => text.includes(words));
  const matchesFrame = (frame) => frame.strings.some((index) => matchingStrings[index]);
  const frames = new Set([...data.frames, ...data.kernelFrames].filter(matchesFrame));
  const stacks = data.stacks.map((stack) => stack.user.some((frame) => frames.has(frame)) ||
      stack.kernel.some((frame) => frames.has(frame)));
  const threadCounts = data.incidents.map((incident) => matchingThreads(incident, stacks));
  return {words, frames, stacks, threadCounts};
}

function matchingThreads(incident, stacks) {
  let count = 0;
  for (let i = 1; i < incident.threads.length; i += NUMBERS_A_THREAD) {
    if (stacks[incident.threads[i]]) ++count;
  }
  return count;
}

// Puts text into a node, with the searched words marked.
function paintText(node, text, search) {
  const at = search === null ? -1 : text.toLowerCase().indexOf(search.words);
  if (at < 0) {
    node.textContent = text;
    return;
  }
  const end = at + search.words.length;
  const found = element('mark', {}, text.slice(at, end));
  node.replaceChildren(text.slice(0, at), found, text.slice(end));
}
