// Reads the recording, and computes the state of the fabric after each event: the SA's records, the ports, the registrations of
// the hosts, and the requests that wait for an answer.

const ANSWER_LIMIT_MS = 1000; // after this time, a request without an answer no longer counts as waiting

function readLines(text) {
  return text.split("\n").filter(Boolean).map(line => JSON.parse(line));
}

function readRecording(text) {
  const [header, ...events] = readLines(text);
  if (header.format !== "ats-recording" || header.version !== 1)
    throw new Error(`This viewer reads version 1 of ats-recording, not ${header.format} ${header.version}.`);
  const recording = { header, events, datagrams: new Map(), ports: new Map(), hosts: [] };
  events.forEach((event, index) => {
    event.index = index;
    noteEvent(recording, event);
  });
  recording.hosts = [...new Set([...recording.ports.values()].map(port => port.host))];
  // A recording of an embedded fabric begins with an event "sm". A recording of a real fabric has no such event: it has only
  // events at the hosts, and nothing that happened at the SA.
  recording.isSeenAtHosts = !events.some(event => event.e === "sm");
  return recording;
}

// Notes the port of a port event. Joins the events of each datagram.
function noteEvent(recording, event) {
  if (event.e === "port" && !recording.ports.has(event.port))
    recording.ports.set(event.port, { name: event.port, host: event.host, gid: event.gid });
  if (event.e === "port" && event.lid) recording.ports.get(event.port).lid = event.lid;
  if (event.e === "sent") recording.datagrams.set(event.n, { n: event.n, sent: event, ends: [] });
  if (event.e === "refused") event.datagram = { sent: event, ends: [], isRefused: true };
  if (event.e === "sent" || event.e === "arrived" || event.e === "lost") {
    event.datagram = recording.datagrams.get(event.n);
    if (event.datagram && event.e !== "sent") event.datagram.ends.push(event);
  }
}

const hcaOf = port => port.slice(0, port.lastIndexOf(" "));
const hostOf = port => port.split(" ")[0];
const isAnswer = sent => sent.method.endsWith("Resp");
const isGood = sent => !sent.status || sent.status.startsWith("0x0000");
const keyOf = record => [record.gid, record.p_key, record.service].join("/");

// The closing phase of a campaign has several steps.
const isClosing = event => event.e === "step" && event.phase === "closing";

// Returns for example "up" or "up (LID change)": what the host was told about its port, and the cause if it differs.
const handledText = event => event.cause === event.event ? event.event : `${event.event} (${event.cause})`;

// Each datagram goes from a port to the SA, or from the SA to a port. Returns this port, or null if it is unknown.
function portOf(recording, datagram) {
  if (datagram.sent.from !== "sa") return datagram.sent.from;
  const end = datagram.ends.find(each => each.to);
  if (end) return end.to;
  for (const port of recording.ports.values()) if (port.lid === datagram.sent.lid) return port.name;
  return null;
}

function newState() {
  return { table: new Map(), ports: new Map(), active: new Map(), registrations: new Map(), waiting: new Map(),
           faults: new Map(), acts: new Map(), sm: null, step: null, isClosing: false };
}

const APPLY = {
  port(state, event) {
    state.ports.set(event.port, event);
    const hca = hcaOf(event.port);
    if (event.state !== "active" && state.active.get(hca) === event.port) state.active.delete(hca);
  },
  sm(state, event) { state.sm = event.lid; },
  stored(state, event) { state.table.set(keyOf(event), event); },
  removed(state, event) { state.table.delete(keyOf(event)); },
  fault(state, event) {
    if (event.value) state.faults.set(event.name, event.value);
    else state.faults.delete(event.name);
  },
  act(state, event) {
    if (event.phase === "begin") state.acts.set(event.number, event);
    if (event.phase === "end") state.acts.delete(event.number);
  },
  step(state, event) {
    state.step = event;
    state.isClosing = state.isClosing || isClosing(event);
  },
  sent(state, event) { if (!isAnswer(event)) noteRequest(state, event); },
  refused(state, event) {
    state.active.set(hcaOf(event.from), event.from);
    if (event.method === "Set") setRegistration(state, event, "not sent");
  },
  arrived(state, event) {
    if (event.to !== "sa" && event.datagram && isAnswer(event.datagram.sent)) noteAnswer(state, event);
  },
};

// Returns the entry of a table of the viewer. `key` comes from the recording, and may be "constructor" or "__proto__".
const entryOf = (table, key) => Object.hasOwn(table, key) ? table[key] : undefined;

// Applies an event to the state.
function applyEvent(state, event) {
  for (const [key, request] of state.waiting)
    if (event.t - request.t >= ANSWER_LIMIT_MS) state.waiting.delete(key);
  const change = entryOf(APPLY, event.e);
  if (change) change(state, event);
}

function stateAfter(recording, index) {
  const state = newState();
  for (let i = 0; i <= index; ++i) applyEvent(state, recording.events[i]);
  return state;
}

function setRegistration(state, sent, verdict) {
  if (!sent.record) return; // the Set of something else
  state.registrations.set(hcaOf(sent.from), { verdict, record: sent.record, port: sent.from, status: null });
}

function noteRequest(state, sent) {
  state.active.set(hcaOf(sent.from), sent.from);
  state.waiting.set(hostOf(sent.from) + sent.tid, sent);
  if (sent.method === "Set") setRegistration(state, sent, "asked");
}

// Notes that an answer has arrived at a host. An answer about the host's own record shows if the host is registered.
function noteAnswer(state, event) {
  const key = hostOf(event.to) + event.datagram.sent.tid;
  const request = state.waiting.get(key);
  if (!request) return;
  state.waiting.delete(key);
  const registration = state.registrations.get(hcaOf(event.to));
  if (!registration || !request.record || request.record.gid !== registration.record.gid) return;
  const answer = event.datagram.sent;
  const verdict = verdictOf(request, answer, registration);
  if (!verdict) return;
  state.registrations.set(hcaOf(event.to), { ...registration, verdict, status: answer.status });
  if (verdict === "withdrawn") state.active.delete(hcaOf(event.to));
}

function verdictOf(request, answer, registration) {
  if (request.method === "Delete") return isGood(answer) ? "withdrawn" : null;
  if (request.method === "Set") return isGood(answer) ? "confirmed" : "refused";
  if (request.method !== "Get" || !answer.record) return null;
  if (!isGood(answer)) return answer.status.startsWith("0x0300") ? "missing" : null;
  const isSame = answer.record.address === registration.record.address && answer.record.name === registration.record.name;
  return isSame ? "confirmed" : "different";
}
