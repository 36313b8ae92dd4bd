// The bands at the right of each port's lane, and the bars of faults and acts at the left of a lane. Each port has four bands.
// They show when its link was up, when it was the active port, the state of its registration, and when its requests waited for
// answers.

// `x` is the distance of a band from the line of the lane, in pixels. `read` returns the value of the band in a state.
const BANDS = [
  { key: "link", x: 7, label: "link", read: (state, port) => (state.ports.get(port) || {}).state === "active" ? "up" : null },
  { key: "active", x: 14, label: "active port", read: (state, port) => state.active.get(hcaOf(port)) === port ? "active" : null },
  { key: "registered", x: 21, label: "registration", read: registrationOf },
  { key: "waiting", x: 28, label: "requests that wait", read: waitingOf },
];
const BAND_WIDTH = 5;

function registrationOf(state, port) {
  const registration = state.registrations.get(hcaOf(port));
  if (!registration || registration.port !== port || registration.verdict === "withdrawn") return null;
  return registration.verdict.replace(" ", "-");
}

function waitingOf(state, port) {
  let count = 0;
  for (const request of state.waiting.values()) count += request.from === port;
  return count ? `n${Math.min(count, 4)}` : null;
}

// Returns the intervals of all bands: [{port, band, value, begin, end}]. `begin` and `end` are values of y in the picture.
function findBands(recording, layout) {
  const open = new Map();
  const found = [];
  const state = newState();
  const portsOf = new Map(); // the ports of each HCA
  for (const name of layout.lanes.keys())
    if (name !== "sa") portsOf.set(hcaOf(name), [...(portsOf.get(hcaOf(name)) || []), name]);
  let waiting = []; // the ports whose requests waited before the event
  const close = (key, y) => {
    const interval = open.get(key);
    if (interval && y > interval.begin) found.push({ ...interval, end: y });
    open.delete(key);
  };
  for (const event of recording.events) {
    if (event.e === "log" || event.e === "table") continue;
    applyEvent(state, event);
    const y = layout.yOf[event.index];
    // The ports whose bands the event may change.
    const ports = new Set(waiting);
    for (const port of [event.port, event.from, event.to]) for (const each of portsOf.get(hcaOf(port || "")) || []) ports.add(each);
    waiting = [...state.waiting.values()].map(request => request.from).filter(port => layout.lanes.has(port));
    for (const port of ports)
      for (const band of BANDS) {
        const key = `${port}/${band.key}`;
        const value = band.read(state, port);
        if ((open.get(key) || {}).value === (value || undefined)) continue;
        close(key, y);
        if (value) open.set(key, { port, band, value, begin: y });
      }
  }
  for (const key of [...open.keys()]) close(key, layout.height - 30);
  return found;
}

// Returns the bars of acts: [{lane, slot, name, begin, end}]. If the recording has no acts, returns the bars of the fabric's
// faults instead.
function findBars(recording, layout) {
  const open = new Map();
  const slots = new Map(); // for each lane, which places for bars are in use
  const bars = [];
  const begin = (key, lane, name, y) => {
    const taken = slots.get(lane.name) || [];
    let slot = taken.indexOf(false);
    if (slot < 0) slot = taken.length;
    taken[slot] = true;
    slots.set(lane.name, taken);
    const bar = { lane, slot, name, begin: y, end: layout.height - 30 };
    open.set(key, bar);
    bars.push(bar);
  };
  const end = (key, y) => {
    const bar = open.get(key);
    if (!bar) return;
    bar.end = y;
    slots.get(bar.lane.name)[bar.slot] = false;
    open.delete(key);
  };
  const hasActs = recording.events.some(event => event.e === "act");
  for (const event of recording.events) {
    const y = layout.yOf[event.index];
    if (event.e === "act") {
      const lane = event.harm === "network" ? layout.lanes.get("sa") : layout.hostLane.get(event.host);
      if (lane && event.phase === "begin") begin(event.number, lane, `${event.number} ${event.name}`, y);
      if (event.phase === "end") end(event.number, y);
    } else if (event.e === "fault" && !hasActs) {
      end(event.name, y);
      if (event.value) begin(event.name, layout.lanes.get("sa"), `${event.name}${event.value > 1 ? " " + event.value : ""}`, y);
    }
  }
  return bars;
}
