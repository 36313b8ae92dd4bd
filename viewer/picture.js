// Draws the picture as SVG. If there are many items, it draws only the visible part.

const SVG = "http://www.w3.org/2000/svg";
const DRAW_ALL_ITEMS = 4000; // a picture with at most this number of arrows and log marks is drawn whole
const LETTER_WIDTH = 6.2; // the approximate width of a letter in a label, in pixels
const TITLE_LETTER_WIDTH = 8.4; // the approximate width of a letter in the title of a violation, in pixels
const NAMES_HEIGHT = 46;
const LONG_ARROW = 900; // pixels; a longer arrow has labels at both ends, because one end may be outside the screen
const HANDLED_TEXT_X = 38; // pixels from the lane to the text; the bands are between them
const HANDLED_SHAPES = { up: "m0 -6l6 11h-12z", down: "m0 6l-6 -11h12z", "SM change": "m0 -6.5l6.5 6.5l-6.5 6.5l-6.5 -6.5z" };
const MARGIN = 1500; // pixels above and below the screen that are also drawn

function svgNode(name, attributes = {}, ...children) {
  const node = document.createElementNS(SVG, name);
  for (const [key, value] of Object.entries(attributes)) if (value !== undefined && value !== null) node.setAttribute(key, value);
  node.append(...children);
  return node;
}

const svgText = (x, y, text, className, anchor) => svgNode("text", { x, y, class: className, "text-anchor": anchor }, text);

// Returns the kind of a datagram, which determines its colour.
function kindOf(sent) {
  if (sent.attribute === "PathRecord") return "path";
  const method = sent.method.replace("Resp", "").toLowerCase();
  // The answer to a Set is a GetResp. Therefore callers pass the request in place of an answer, if the request is known.
  return ["get", "set", "delete"].includes(method) ? method : "other";
}

function labelOf(sent, room) {
  const text = isAnswer(sent) && !isGood(sent) ? statusText(sent) : `${sent.method} ${subjectOf(sent)}`.trim();
  return cutText(text, Math.max(8, Math.floor(room / LETTER_WIDTH)));
}

const cutText = (text, digits) => text.length > digits ? text.slice(0, digits - 1) + "…" : text;

// Status 0x0300 (no such record) is a usual answer, so it does not count as an error.
const isTroubleStatus = sent => !isGood(sent) && !sent.status.startsWith("0x0300");

// Extracts "holds no such record" from "0x0300 (it holds no such record)".
const statusText = sent => sent.status.replace(/^\S+ \((.*)\)$/, "$1").replace(/^it /, "");

function subjectOf(sent) {
  if (sent.path) return shortGid(sent.path.dgid);
  if (!sent.record) return sent.attribute;
  const parts = [];
  if (sent.record.address !== "0.0.0.0") parts.push(sent.record.address);
  if (sent.record.name) parts.push(sent.record.name);
  if (!parts.length || sent.method === "Delete") parts.unshift(shortGid(sent.record.gid));
  return parts.join(" ");
}

let gidDigits = 6;
const shortGid = gid => "…" + gid.slice(-gidDigits);

// Sets gidDigits to the smallest number of last digits, from 6 on, in which the GIDs of all ports differ.
function chooseGidDigits(ports) {
  const gids = [...ports.values()].map(port => port.gid);
  for (gidDigits = 6; gidDigits < 32; ++gidDigits)
    if (new Set(gids.map(gid => gid.slice(-gidDigits))).size === new Set(gids).size) return;
}

class Picture {
  constructor(svg, names, scroller) {
    Object.assign(this, { svg, names, scroller });
    this.drawn = [0, 0];
  }

  show(layout) {
    this.layout = layout;
    this.bands = findBands(layout.recording, layout);
    this.bars = findBars(layout.recording, layout);
    this.items = layout.arrows.length + layout.logs.length;
    for (const each of [this.svg, this.names]) each.setAttribute("width", layout.width);
    this.svg.setAttribute("height", layout.height);
    // With a viewBox, a printed picture shrinks to the width of the paper.
    this.svg.setAttribute("viewBox", `0 0 ${layout.width} ${layout.height}`);
    this.names.setAttribute("viewBox", `0 0 ${layout.width} ${NAMES_HEIGHT}`);
    this.drawNames();
    this.drawn = [0, 0];
    this.draw();
  }

  // Draws the visible part and a margin, or everything if there are few items. Does nothing if this part is drawn already.
  // If `isForPrint` is true, always draws, and with a larger margin below.
  draw(isForPrint = false) {
    const { height } = this.layout;
    const isWhole = this.items <= DRAW_ALL_ITEMS;
    const top = isWhole ? 0 : Math.max(0, this.scroller.scrollTop - MARGIN);
    const bottom = isWhole ? height : Math.min(height, this.scroller.scrollTop + this.scroller.clientHeight + MARGIN * (isForPrint ? 4 : 1));
    const isInside = this.drawn[1] > 0 && (isWhole || (this.scroller.scrollTop - MARGIN / 2 > this.drawn[0] || top === 0) &&
      (this.scroller.scrollTop + this.scroller.clientHeight + MARGIN / 2 < this.drawn[1] || bottom === height) && top >= this.drawn[0] - MARGIN);
    if (isInside && !isForPrint) return;
    this.drawn = [top, bottom];
    const touches = (begin, end) => end >= top && begin <= bottom;
    this.svg.replaceChildren(
      this.closing(),
      this.lines(top, bottom),
      this.group("folds", this.layout.folds.filter(fold => touches(fold.y, fold.y)).map(fold => this.fold(fold))),
      this.group("bands", this.bands.filter(band => touches(band.begin, band.end)).map(band => this.band(band))),
      this.group("bars", this.bars.filter(bar => touches(bar.begin, bar.end)).map(bar => this.bar(bar))),
      this.group("times", this.timeLabels(touches)),
      this.group("titles", this.layout.titles.filter(title => touches(title.y - 60, title.y)).map(title => this.title(title))),
      this.group("changes", this.layout.changes.filter(change => touches(change.y, change.y)).map(change => this.change(change))),
      this.group("arrows", this.layout.arrows.filter(arrow => touches(arrow.y1, arrow.y2)).map(arrow => this.arrow(arrow))),
      this.group("logs", this.layout.logs.filter(mark => touches(mark.y, mark.y)).map(mark => this.log(mark))),
      this.group("handled-marks", this.layout.handled.filter(mark => touches(mark.y, mark.y)).map(mark => this.handled(mark))),
      this.group("acts", this.layout.acts.filter(act => touches(act.y, act.y)).map(act => this.act(act))),
      this.group("sms", this.layout.sms.filter(sm => touches(sm.y, sm.y)).map(sm => this.sm(sm))),
      this.cursor = svgNode("g", { id: "cursor" }));
    this.moveCursor(this.cursorY || 0);
  }

  group(name, nodes) {
    return svgNode("g", { class: name }, ...nodes);
  }

  drawNames() {
    this.names.setAttribute("height", NAMES_HEIGHT);
    this.names.replaceChildren(...[...this.layout.lanes.values()].map(lane => {
      const isSa = lane.name === "sa";
      const port = isSa ? "Subnet Administrator" : lane.name.split(" ").slice(1).join(" port ");
      return svgNode("g", {}, svgText(lane.x, 19, isSa ? "SA" : lane.host, "lane-name", "middle"),
                     svgText(lane.x, 35, port, "lane-port", "middle"));
    }));
  }

  lines(top, bottom) {
    return this.group("lines", [...this.layout.lanes.values()].map(lane =>
      svgNode("line", { x1: lane.x, x2: lane.x, y1: top, y2: bottom })));
  }

  // A strip along the times marks the closing phase.
  closing() {
    const { closing, height } = this.layout;
    if (closing === null) return svgNode("g");
    return svgNode("g", { class: "closing", "data-tip": "the closing phase: all faults have ended, and everything must become right" },
      svgNode("rect", { x: 0, y: closing, width: TIME_WIDTH - 6, height: height - closing }));
  }

  fold(fold) {
    const { width } = this.layout;
    return svgNode("g", { class: "fold" },
      svgNode("rect", { x: TIME_WIDTH - 4, y: fold.y - 8, width: width - TIME_WIDTH, height: 17, rx: 3 }),
      svgText(TIME_WIDTH - 12, fold.y + 4, `+ ${formatLength(fold.ms)}`, "", "end"));
  }

  band(band) {
    const lane = this.layout.lanes.get(band.port);
    return svgNode("rect", { class: `band ${band.band.key} ${band.value}`, x: lane.x + band.band.x, y: band.begin, width: BAND_WIDTH,
                             height: Math.max(2, band.end - band.begin), rx: 2, "data-tip": `${band.band.label}: ${bandText(band)}` });
  }

  bar(bar) {
    const x = bar.lane.x - 14 - 8 * bar.slot;
    return svgNode("g", { class: "bar", "data-tip": bar.name },
      svgNode("rect", { x, y: bar.begin, width: 6, height: Math.max(4, bar.end - bar.begin), rx: 2 }),
      svgText(x - 4, bar.begin + 10, this.layout.acts.length ? "" : bar.name, "", "end"));
  }

  timeLabels(touches) {
    let last = -100;
    return this.layout.times.filter(time => {
      if (time.y - last < 12) return false;
      last = time.y;
      return touches(time.y, time.y);
    }).map(time => svgText(TIME_WIDTH - 12, time.y + 3, formatTime(time.t), "", "end"));
  }

  title({ event, y }) {
    if (event.e === "step")
      return svgNode("g", { class: "step" }, svgNode("line", { x1: TIME_WIDTH - 4, x2: this.layout.width, y1: y - 20, y2: y - 20 }),
                     svgText(TIME_WIDTH, y, event.text, ""));
    return svgNode("g", { class: "violation", "data-event": event.index },
      svgNode("rect", { x: TIME_WIDTH - 4, y: y - 30, width: this.layout.width - TIME_WIDTH, height: 36, rx: 5 }),
      svgText(TIME_WIDTH + 10, y - 7, cutText(`Violation: ${event.text.split("\n")[0]}`, Math.floor((this.layout.width - TIME_WIDTH - 20) / TITLE_LETTER_WIDTH)), ""));
  }

  change({ event, y }) {
    const x = this.layout.lanes.get("sa").x;
    const isStored = event.e === "stored";
    return svgNode("g", { class: `change ${event.e}`, "data-event": event.index,
                          "data-tip": `${isStored ? "stored" : "removed"}: ${event.address} ${event.name} ${event.gid}` },
      svgNode("circle", { cx: x, cy: y, r: 5 }),
      svgNode("path", { d: `M${x - 2.5} ${y}h5` + (isStored ? `M${x} ${y - 2.5}v5` : "") }));
  }

  arrow({ datagram, end, y1, y2 }) {
    const sent = datagram.sent;
    const sa = this.layout.lanes.get("sa").x;
    const host = datagram.lane ? datagram.lane.x : this.layout.width;
    const [x1, x2] = sent.from === "sa" ? [sa, host] : [host, sa];
    const direction = Math.sign(x2 - x1);
    const isLost = datagram.isRefused || (end && end.e === "lost");
    const isOpen = !end && !isLost && !this.layout.recording.isSeenAtHosts; // the run ended before it arrived
    const length = Math.abs(x2 - x1) || 1;
    const reach = datagram.isRefused ? 24 / length : isOpen || (isLost && !end.at_end) ? 0.5 : isLost ? 1 - 9 / length : 1;
    const [tipX, tipY] = [x1 + (x2 - x1) * reach, y1 + (y2 - y1) * reach];
    const request = this.requestOf(datagram);
    const classes = ["arrow", kindOf(request), isAnswer(sent) ? "answer" : "request"];
    if (end && end.twin) classes.push("twin");
    if (isLost) classes.push("lost");
    if (isOpen) classes.push("open");
    if (datagram.isRefused) classes.push("refused");
    if (isTroubleStatus(sent)) classes.push("error");
    if (end && end.corrupt) classes.push("corrupt");
    const line = `M${x1} ${y1}L${tipX} ${tipY}`;
    const head = isLost ? `M${tipX - 4} ${tipY - 4}l8 8m0 -8l-8 8` : isOpen ? "" : `M${tipX} ${tipY}l${-7 * direction} -3.5v7z`;
    const labelX = x1 + direction * (sent.from === "sa" ? 12 : 40);
    const label = labelOf(sent, Math.abs(x2 - labelX) - 10) + (end && end.corrupt ? " (corrupted)" : "");
    return svgNode("g", { class: classes.join(" "), "data-n": datagram.n, "data-event": sent.index, "data-tip": this.tip(datagram, end) },
      svgNode("path", { class: "hit", d: line }), svgNode("path", { class: "line", d: line }), svgNode("path", { class: "head", d: head }),
      end && end.twin ? "" : svgText(labelX, y1 - 4, label, "label", direction > 0 ? "start" : "end"),
      end && end.twin || length < LONG_ARROW ? "" : this.farLabel(datagram, label, [x1, y1], [x2, y2]));
  }

  // Returns a second label of a long arrow. It is near the receiver; the first label is near the sender.
  farLabel(datagram, label, [x1, y1], [x2, y2]) {
    const host = datagram.lane ? datagram.lane.host : "";
    if (datagram.sent.from === "sa") return svgText(x2 - 14, y2 - 4, label, "label", "end");
    return svgText(x2 + 14, y2 - 4, `${host}: ${label}`, "label", "start");
  }

  // Returns the request that the datagram answers, because an answer has the colour of its request. If no such request is
  // known, or the datagram is a request, returns the datagram itself.
  requestOf(datagram) {
    return datagram.request ? datagram.request.sent : datagram.sent;
  }

  tip(datagram, end) {
    const sent = datagram.sent;
    let fate = this.layout.recording.isSeenAtHosts ? "sent" : "still on its way at the end";
    if (datagram.isRefused) fate = "the fabric did not accept it";
    else if (end && end.e === "lost") fate = end.why;
    else if (end) fate = end.t === sent.t ? "arrived at once" : `arrived after ${formatLength(end.t - sent.t)}`;
    return `${sent.method} ${sent.attribute}${sent.status ? ", " + sent.status : ""} to LID ${sent.lid}: ${subjectOf(sent)} — ${end && end.twin ? "duplicate, " : ""}${fate}`;
  }

  log(mark) {
    const worst = Math.min(...mark.lines.map(line => line.level));
    const text = String(mark.lines.length);
    const width = 10 + 6 * text.length;
    return svgNode("g", { class: `log ${worst < 4 ? "severe" : worst === 4 ? "warning" : ""}`, "data-event": mark.lines[0].index,
                          "data-log": mark.lines.map(line => line.index).join(), "data-tip": tipOfLines(mark.lines) },
      svgNode("rect", { x: mark.lane.x - width / 2, y: mark.y - 6, width, height: 12, rx: 6 }),
      svgText(mark.lane.x, mark.y + 3, text, "", "middle"));
  }

  // Draws a port event at the moment at which the host handles it.
  handled({ event, lane, y }) {
    const room = this.layout.step - HANDLED_TEXT_X - 22;
    const text = handledText(event);
    return svgNode("g", { class: "handled", "data-event": event.index, "data-tip": `${lane.name} handles: ${text}` },
      svgNode("path", { d: `M${lane.x} ${y}${entryOf(HANDLED_SHAPES, event.event) || HANDLED_SHAPES["SM change"]}` }),
      svgText(lane.x + HANDLED_TEXT_X, y + 3.5, cutText(text, Math.max(4, Math.floor(room / LETTER_WIDTH))), "label"));
  }

  act({ event, lane, y }) {
    const text = event.phase === "end" ? `end of ${event.number}` : `${event.number} ${event.name}`;
    const width = 12 + 5.6 * text.length;
    const x = Math.max(TIME_WIDTH, lane.x - 18 - width);
    return svgNode("g", { class: `act ${event.phase} ${event.harm}`, "data-event": event.index, "data-tip": `act ${event.number}, ${event.phase}: ${event.name}` },
      svgNode("rect", { x, y: y - 8, width, height: 16, rx: 8 }), svgText(x + width / 2, y + 3.5, text, "", "middle"));
  }

  // Draws the SM's LID at the start or after a change. From then on, requests must go to this LID.
  sm({ event, y }) {
    const text = `SM at LID ${event.lid}`;
    const width = 12 + 5.6 * text.length;
    const x = this.layout.lanes.get("sa").x;
    return svgNode("g", { class: "sm", "data-event": event.index, "data-tip": `the SM and the SA have LID ${event.lid} from now on` },
      svgNode("rect", { x: x - width / 2, y: y - 8, width, height: 16, rx: 8 }), svgText(x, y + 3.5, text, "", "middle"));
  }

  moveCursor(y) {
    this.cursorY = y;
    if (!this.cursor) return;
    this.cursor.replaceChildren(svgNode("line", { x1: 4, x2: this.layout.width, y1: y + 9, y2: y + 9 }),
                                svgNode("path", { d: `M0 ${y + 4}l8 5l-8 5z` }));
  }
}

function bandText(band) {
  if (band.band.key === "waiting") return band.value === "n4" ? "4 or more" : band.value.slice(1);
  return band.value.replace("-", " ");
}

function tipOfLines(lines) {
  const texts = lines.slice(0, 6).map(line => line.text);
  if (lines.length > 6) texts.push(`and ${lines.length - 6} more: click`);
  return texts.join("\n");
}

// Finds the request of each answer: the last request of the same host with the same TransactionID.
function joinAnswers(recording) {
  const requests = new Map();
  for (const event of recording.events) {
    if (event.e === "sent" && event.from !== "sa") requests.set(`${hostOf(event.from)} ${event.tid}`, event.datagram);
    if (event.e !== "sent" || event.from !== "sa") continue;
    const port = portOf(recording, event.datagram);
    if (port) event.datagram.request = requests.get(`${hostOf(port)} ${event.tid}`);
  }
}
