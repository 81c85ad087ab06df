// The incidents, as the program wrote them: every string once, equal frames and stacks once, all
// else by index (html_data.cpp writes it). A negative index: the log does not say.

const FRAME_CLASSES = ['own', 'library', 'waiting'];

// What a thread is to the watched one.
const THREAD_PLACES = ['other', 'same wait', 'same function', 'idle'];
const NUMBERS_A_THREAD = 3;  // its id, its stack, its place

function readData(json) {
  const raw = JSON.parse(json);
  const strings = raw.strings.map(visibleText);
  const string = (index) => (index < 0 ? null : strings[index]);
  const frames = raw.frames.map((fields) => readFrame(fields, string));
  const kernelFrames = raw.kernelFrames.map((fields) => readKernelFrame(fields, string));
  const stacks = raw.stacks.map(([user, kernel, failed, kind, text, hasUser, state], index) => ({
    index,
    user: user.map((frame) => frames[frame]),
    kernel: kernel.map((frame) => kernelFrames[frame]),
    failed: string(failed),
    reason: {kind: string(kind), text: string(text)},
    hasUser,
    state,
    isCut: !hasUser && failed < 0 && (kernel.length > 0 || state !== ''),
  }));
  const incidents = raw.incidents.map((fields, index) => readIncident(fields, index, string));
  const signatures = rankSignatures(raw, incidents, string);
  return {strings, frames, kernelFrames, stacks, incidents, signatures};
}

function readFrame([plain, full, map, pc, offset, functionOffset, source, kind, inlined], string) {
  const module = string(map);
  return {
    label: string(plain),
    function: string(full),
    module,
    shortModule: module.replace(/ \(deleted\)$/, '').replace(/^.*\/(?=.)/, ''),
    pc,
    offset,
    functionOffset,
    source: string(source),
    inlined: inlined.map(string),
    class: FRAME_CLASSES[kind],
    strings: [plain, full, map, source, ...inlined].filter((index) => index >= 0),
  };
}

function readKernelFrame([text, label], string) {
  return {label: string(label), text: string(text), class: 'kernel', strings: [text]};
}

function readIncident(fields, index, string) {
  return {
    index,
    file: string(fields.file),
    written: string(fields.written),
    started: string(fields.started),
    time: timeOf(string(fields.written)),
    utcOffset: fields.utcOffset,
    armedSeconds: fields.armedSeconds,
    tid: fields.tid,
    watch: string(fields.watch),
    program: string(fields.program),
    fingerprint: string(fields.fingerprint),
    reason: {kind: string(fields.kind), text: string(fields.reason)},
    hint: string(fields.hint),
    threads: fields.threads,  // NUMBERS_A_THREAD each, the watched one first
    printed: fields.printed.map(string),
    problems: fields.problems.map(string),
    problemCount: fields.problemCount,
    signatureId: string(fields.signatureId),
    signature: null,
  };
}

// The signatures in the order of the ranking.
function rankSignatures(raw, incidents, string) {
  const byId = new Map(raw.ranking.map(([id, frames]) =>
    [string(id), {id: string(id), frames: frames.map(string), incidents: []}]));
  for (const incident of incidents) {
    incident.signature = byId.get(incident.signatureId);
    incident.signature.incidents.push(incident);
  }
  const signatures = [...byId.values()];
  signatures.forEach(summarise);
  return signatures;
}

function summarise(signature, index) {
  const distinct = (values) => [...new Set(values.filter((value) => value !== null))];
  const {incidents} = signature;
  incidents.sort((a, b) => b.time - a.time || a.index - b.index);
  signature.index = index;
  signature.programs = distinct(incidents.map((incident) => incident.program));
  signature.watches = distinct(incidents.map((incident) => incident.watch));
  signature.reason = incidents[0].reason;
  Object.assign(signature, timeSpan(incidents));
}

function timeSpan(incidents) {
  const times = incidents.map((incident) => incident.time).filter((time) => time !== null);
  const pick = (choose) => (times.length > 0 ? times.reduce((a, b) => choose(a, b)) : null);
  return {first: pick(Math.min), last: pick(Math.max)};
}

function hangName({watch, program}) {
  return `${watch ?? 'unnamed watch'} in ${program ?? 'unknown program'}`;
}

// Milliseconds since the epoch. A time without a zone is the device's own: it is placed as if it
// were UTC.
function timeOf(text) {
  if (text === null) return null;
  const time = Date.parse(text.endsWith('Z') ? text : `${text}Z`);
  return Number.isNaN(time) ? null : time;
}

// "2026-11-22 21:13:48 UTC"; without the zone when the log does not tell it.
function timeText(text) {
  if (text === null) return 'unknown time';
  return text.replace('T', ' ').replace(/\.\d+/, '').replace(/Z$/, ' UTC');
}

function dayText(time) {
  return time === null ? '' : new Date(time).toISOString().slice(0, 16).replace('T', ' ');
}

// The threads of an incident: the watched one first, then by id.
function threadsOf(data, incident) {
  const threads = [];
  for (let i = 0; i < incident.threads.length; i += NUMBERS_A_THREAD) {
    const [tid, stack, place] = incident.threads.slice(i, i + NUMBERS_A_THREAD);
    threads.push({
      tid, stack: data.stacks[stack], place: THREAD_PLACES[place], watched: tid === incident.tid,
    });
  }
  return threads;
}
