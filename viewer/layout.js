// Computes the places of the lanes and the events in the picture. Time runs from top to bottom. A row has one event, or several
// events of the same tick. A long period without visible events is folded: it takes one row of constant height.

const ROW = { datagram: 22, log: 15, act: 22, handled: 16, step: 40, violation: 56, fold: 30, change: 7 };
const FOLD_MS = 400; // a longer period without visible events is folded
const TIME_WIDTH = 84;
const SA_ROOM = 96; // pixels between the times and the SA's lane, for the bars of faults and acts
const NARROW = 700; // pixels; in a narrower picture, SA_ROOM is halved and the lanes are closer
const TOP = 10;

const formatNumber = number => number.toLocaleString("en");

function formatTime(ms) {
  if (ms < 60000) return (ms / 1000).toFixed(3);
  const [minutes, seconds] = [Math.floor(ms / 60000), ((ms % 60000) / 1000).toFixed(3).padStart(6, "0")];
  if (minutes < 60) return `${minutes}:${seconds}`;
  return `${Math.floor(minutes / 60)}:${String(minutes % 60).padStart(2, "0")}:${seconds}`;
}

function formatLength(ms) {
  if (ms < 1000) return `${ms} ms`;
  if (ms < 60000) return `${+(ms / 1000).toFixed(1)} s`;
  const all = Math.round(ms / 1000);
  const [minutes, seconds] = [Math.floor(all / 60), all % 60];
  if (minutes < 60) return seconds ? `${minutes} min ${seconds} s` : `${minutes} min`;
  return `${Math.floor(minutes / 60)} h ${minutes % 60} min`;
}

// Computes the x of each lane, the step from lane to lane and the width of the whole picture. The argument `width` is the width
// of the visible part. All values are in pixels.
function placeLanes(recording, filter, width) {
  const ports = [...recording.ports.values()].filter(port => !filter.hiddenHosts.has(port.host));
  const saX = TIME_WIDTH + (width < NARROW ? SA_ROOM / 2 : SA_ROOM);
  const room = (width - saX - 60) / Math.max(ports.length, 1);
  const step = Math.max(width < NARROW ? 112 : 132, Math.min(room, 260));
  const lanes = new Map([["sa", { name: "sa", x: saX }]]);
  ports.forEach((port, i) => lanes.set(port.name, { ...port, x: saX + (i + 1) * step }));
  return { lanes, step, width: saX + ports.length * step + Math.max(60, step / 2) };
}

class Layout {
  constructor(recording, filter, width) {
    this.recording = recording;
    this.filter = filter;
    Object.assign(this, placeLanes(recording, filter, width));
    this.hostLane = new Map(); // the first lane of each host
    for (const lane of this.lanes.values()) if (lane.host && !this.hostLane.has(lane.host)) this.hostLane.set(lane.host, lane);
    this.yOf = new Float64Array(recording.events.length); // the y of each event
    this.stops = []; // indexes of the events that start a row; the scrubber stops there
    this.arrows = [];
    this.logs = [];
    this.folds = [];
    this.titles = [];     // steps and violations
    this.acts = [];
    this.changes = [];    // changes of the SA's records
    this.sms = [];        // the SM's LID at the start, and its changes
    this.handled = [];    // port events that hosts have handled
    this.closing = null;  // y at which the closing phase of a campaign begins
    this.times = [];
    this.y = TOP;         // of the last row
    this.lastTick = null; // tick of the last event that has a row
    this.logRow = null;   // the marks of log lines in the last row
    this.handledRow = null;     // the ports with a mark in the last row, if this row has only marks of port events
    this.isUnmarkedRow = false; // the last row has only events that draw no mark, such as link changes
    recording.events.forEach(event => this.place(event));
    this.height = this.y + 40;
  }

  place(event) {
    const startsRow = this.placeByKind(event);
    this.yOf[event.index] = this.y;
    if (startsRow) this.stops.push(event.index);
  }

  // Adds the event to the picture, unless it is hidden. Returns true if the event starts a row.
  placeByKind(event) {
    switch (event.e) {
    case "sent":
    case "refused": return this.placeDatagram(event);
    case "arrived":
    case "lost": return this.placeEnd(event);
    case "log": return this.placeLog(event);
    case "handled": return this.placeHandled(event);
    case "act": return this.placeAct(event);
    case "step":
    case "violation": return this.placeTitle(event);
    case "stored":
    case "removed": return this.placeChange(event);
    case "sm": return this.placeSm(event);
    case "port":
    case "fault": return this.placeUnmarked(event);
    default: return false;
    }
  }

  // Starts a row for the event. If there was a long pause before the event, draws a fold above the row.
  beginRow(event, height) {
    const pause = this.lastTick === null ? 0 : event.t - this.lastTick;
    if (pause > FOLD_MS) {
      this.folds.push({ y: this.y + 16, ms: pause });
      this.y += ROW.fold;
    } else if (pause > 0) {
      this.y += 4 + Math.min(12, pause / 10);
    }
    this.y += height;
    if (this.lastTick !== event.t) this.times.push({ y: this.y, t: event.t });
    this.lastTick = event.t;
    this.logRow = null;
    this.handledRow = null;
    this.isUnmarkedRow = false;
  }

  placeDatagram(event) {
    const datagram = event.datagram;
    datagram.lane = this.lanes.get(portOf(this.recording, datagram));
    datagram.isShown = this.filter.shows(datagram);
    if (!datagram.isShown) return false;
    this.beginRow(event, ROW.datagram);
    datagram.y = this.y;
    datagram.arrows = [];
    const hasEnd = datagram.ends.length > 0 && !datagram.isRefused;
    if (!hasEnd) this.addArrow(datagram, null, this.y);
    return true;
  }

  placeEnd(event) {
    const datagram = event.datagram;
    if (!datagram || !datagram.isShown) return false;
    if (event.t === datagram.sent.t) {
      this.addArrow(datagram, event, datagram.y + 6 * datagram.arrows.length);
      return false;
    }
    this.beginRow(event, ROW.change);
    this.addArrow(datagram, event, this.y);
    return true;
  }

  addArrow(datagram, end, y) {
    const arrow = { datagram, end, y1: end && end.twin ? datagram.y + 3 : datagram.y, y2: y };
    datagram.arrows.push(arrow);
    this.arrows.push(arrow);
  }

  // Consecutive log lines with the same tick share a row. There, each host has one mark for all its lines.
  placeLog(event) {
    const lane = this.hostLane.get(event.host);
    if (!lane || !this.filter.showsLog(event)) return false;
    const row = this.logRow;
    const isNew = !row || this.lastTick !== event.t;
    if (isNew) {
      this.beginRow(event, ROW.log);
      this.logRow = new Map();
    }
    let mark = this.logRow.get(event.host);
    if (!mark) {
      mark = { lane, y: this.y, lines: [] };
      this.logRow.set(event.host, mark);
      this.logs.push(mark);
    }
    mark.lines.push(event);
    return isNew;
  }

  // Consecutive "handled" events with the same tick share a row, unless they belong to the same port.
  placeHandled(event) {
    const lane = this.lanes.get(event.port);
    if (!lane || !this.filter.showsHandled(event)) return false;
    const isNew = !this.handledRow || this.lastTick !== event.t || this.handledRow.has(event.port);
    if (isNew) {
      this.beginRow(event, ROW.handled);
      this.handledRow = new Set();
    }
    this.handledRow.add(event.port);
    this.handled.push({ event, lane, y: this.y - 2 });
    return isNew;
  }

  placeAct(event) {
    const lane = event.harm === "network" ? this.lanes.get("sa") : this.hostLane.get(event.host);
    if (!lane || !this.filter.showsAct(event)) return false;
    this.beginRow(event, ROW.act);
    this.acts.push({ event, lane, y: this.y - 5 });
    return true;
  }

  placeSm(event) {
    this.beginRow(event, ROW.act);
    this.sms.push({ event, y: this.y - 5 });
    return true;
  }

  placeTitle(event) {
    this.beginRow(event, ROW[event.e]);
    this.titles.push({ event, y: this.y - 6 });
    if (isClosing(event) && this.closing === null) this.closing = this.y - ROW.step;
    return true;
  }

  placeChange(event) {
    this.beginRow(event, ROW.change);
    this.changes.push({ event, y: this.y });
    return true;
  }

  // Places an event that draws no mark. Consecutive events of this sort with the same tick share a row. A port that is down
  // at the start of the recording has no row.
  placeUnmarked(event) {
    if (event.t === 0 && event.e === "port" && event.state === "down") return false;
    const isNew = !this.isUnmarkedRow || this.lastTick !== event.t;
    if (isNew) this.beginRow(event, ROW.change);
    this.isUnmarkedRow = true;
    return isNew;
  }

  // Returns the index in `stops` of the last stop whose y is not greater than `y`, or 0 if there is none.
  stopAt(y) {
    let [low, high] = [0, this.stops.length - 1];
    while (low < high) {
      const middle = (low + high + 1) >> 1;
      if (this.yOf[this.stops[middle]] <= y) low = middle; else high = middle - 1;
    }
    return low;
  }
}
