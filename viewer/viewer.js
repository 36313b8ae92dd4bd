// The page: its filters, its scrubber (the slider of time), keys and clicks.

const byId = id => document.getElementById(id);
const KINDS = [["get", "Get"], ["set", "Set"], ["delete", "Delete"], ["path", "Path"], ["other", "Other"], ["lost", "Lost only"], ["log", "Log"], ["handled", "Port events"], ["act", "Acts"]];
const KEYS = [["↑ ↓, k j", "previous, next event"], ["Home, End", "begin, end"], ["n, p", "next, previous loss or error"], ["a, A", "next, previous act or step"], ["v", "the violation"],
              ["/", "filter by text"], ["Esc", "drop the filter or the selection"], ["?", "this help"]];

// Without this message, the page of a recording that the viewer cannot show would stay empty.
addEventListener("error", event => {
  byId("notice").textContent = `The page cannot show this recording: ${event.message}`;
  byId("notice").hidden = false;
});

const recording = readRecording(byId("recording").textContent);
const about = JSON.parse(byId("about").textContent);
const filter = {
  text: "", hiddenHosts: new Set(), hiddenKinds: new Set(["lost"]),
  matches(text) { return !this.text || text.toLowerCase().includes(this.text); },
  shows(datagram) {
    const port = portOf(recording, datagram);
    const isLost = datagram.isRefused || datagram.ends.some(end => end.e === "lost");
    if (port && this.hiddenHosts.has(hostOf(port))) return false;
    if (!this.hiddenKinds.has("lost") && !isLost) return false;
    if (this.hiddenKinds.has(kindOf((datagram.request || datagram).sent))) return false;
    return this.matches(datagram.text);
  },
  showsLog(event) { return !this.hiddenKinds.has("log") && this.hiddenKinds.has("lost") && this.matches(`${event.host} ${event.text}`); },
  showsHandled(event) { return !this.hiddenKinds.has("handled") && this.hiddenKinds.has("lost") && this.matches(`${event.port} ${handledText(event)}`); },
  showsAct(event) { return !this.hiddenKinds.has("act") && this.matches(`${event.host} act ${event.number} ${event.name}`); },
};
const picture = new Picture(byId("drawing"), byId("lane-names"), byId("picture"));
let layout = null;
let stop = 0; // the selected moment, an index into layout.stops
let selected = null;

// Returns the text of a datagram in which the text filter searches.
function textOfDatagram(datagram) {
  const { datagram: _, index, ...fields } = datagram.sent;
  const ends = datagram.ends.map(end => `${end.to || ""} ${end.why || ""} ${end.twin ? "duplicate" : ""} ${end.corrupt ? "corrupted" : ""}`);
  return (JSON.stringify(fields) + ends.join(" ") + (portOf(recording, datagram) || "")).toLowerCase();
}

function relayout() {
  const event = layout && layout.stops[stop];
  layout = new Layout(recording, filter, byId("picture").clientWidth);
  picture.show(layout);
  byId("scrubber").max = Math.max(0, layout.stops.length - 1);
  byId("nothing").hidden = layout.arrows.length + layout.logs.length > 0;
  const next = event === null || event === undefined ? 0 : layout.stops.findIndex(index => index >= event);
  moveTo(next < 0 ? layout.stops.length - 1 : next, true);
  showSummary();
}

function showSummary() {
  const shown = new Set(layout.arrows.map(arrow => arrow.datagram)).size;
  const all = recording.datagrams.size + recording.events.filter(event => event.e === "refused").length;
  const last = recording.events[recording.events.length - 1];
  const hostCount = recording.hosts.length;
  const parts = [filter.hiddenHosts.size ? `${hostCount - filter.hiddenHosts.size} of ${hostCount} hosts` : `${hostCount} ${hostCount === 1 ? "host" : "hosts"}`, `${formatLength(last ? last.t : 0)}`,
                 shown === all ? `${formatNumber(all)} datagrams` : `${formatNumber(shown)} of ${formatNumber(all)} datagrams`];
  if (about.planned_acts !== undefined) parts.push(about.acts === about.planned_acts ? `${about.acts} acts` : `${about.acts} of ${about.planned_acts} acts`);
  if (about.trace_levels) parts.push(traceText());
  byId("summary").textContent = parts.join(" · ");
}

// "trace level 4 on all hosts", or the level of each host.
function traceText() {
  const levels = about.trace_levels, names = recording.hosts;
  if (new Set(levels).size === 1) return `trace level ${levels[0]} on all hosts`;
  return `trace levels: ${[...new Set(levels)].sort().map(level => `${level} on ${names.filter((_, i) => levels[i] === level).join(", ")}`).join("; ")}`;
}

// Selects the moment with this index in layout.stops. If `scrolls` is true, also scrolls the picture there if needed.
function moveTo(next, scrolls = true) {
  if (!layout.stops.length) return;
  stop = Math.max(0, Math.min(next, layout.stops.length - 1));
  const index = layout.stops[stop];
  const event = recording.events[index];
  const y = layout.yOf[index];
  byId("scrubber").value = stop;
  byId("moment").replaceChildren(formatTime(event.t), node("span", { class: "tick" }, ` · tick ${formatNumber(event.t)}`));
  picture.moveCursor(y);
  if (scrolls) keepInView(y);
  const state = stateAfter(recording, endOfStop());
  if (state.isClosing) byId("moment").append(node("span", { class: "closing" }, " · closing phase"));
  byId("state").replaceChildren(describeState(recording, state, filter.hiddenHosts, (violationEvent() || {}).text || ""));
}

// Returns the index of the last event of the selected moment. Events that start no row belong to the moment before them.
function endOfStop() {
  const next = stop + 1 < layout.stops.length ? layout.stops[stop + 1] : recording.events.length;
  return next - 1;
}

function keepInView(y) {
  const scroller = byId("picture");
  const [top, bottom] = [scroller.scrollTop + 80, scroller.scrollTop + scroller.clientHeight - 60];
  if (y < top || y > bottom) scroller.scrollTop = y - scroller.clientHeight / 3;
  picture.draw();
}

function select(event, logIndexes) {
  selected = event || null;
  byId("selection").replaceChildren(describeSelection(recording, event, logIndexes));
  for (const each of document.querySelectorAll(".selected")) each.classList.remove("selected");
  if (event) for (const each of document.querySelectorAll(`[data-event="${event.index}"]`)) each.classList.add("selected");
}

function goTo(event) {
  const next = layout.stops.findIndex(index => index >= event.index);
  moveTo(next < 0 ? layout.stops.length - 1 : next);
  select(event);
}

function step(by) {
  moveTo(stop + by);
  const event = recording.events[layout.stops[stop]];
  const mark = event.e === "log" && layout.logs.find(each => each.lines.includes(event));
  select(event, mark ? mark.lines.map(line => line.index) : undefined);
}

const isLoss = event => event.e === "sent" && event.datagram.ends.some(end => end.e === "lost");
const isAct = event => event.e === "act" || event.e === "step";
const isTrouble = event => isLoss(event) || event.e === "lost" || event.e === "refused" || event.e === "violation" ||
  event.e === "sent" && isTroubleStatus(event) || event.e === "log" && event.level < 4;

// Selects the next event in layout.stops for which isOfSort() is true, or the previous one if `by` is -1.
function jump(by, isOfSort) {
  for (let next = stop + by; next >= 0 && next < layout.stops.length; next += by) {
    const event = recording.events[layout.stops[next]];
    if (!isOfSort(event)) continue;
    moveTo(next);
    select(event);
    return;
  }
}

function violationEvent() {
  return recording.events.find(event => event.e === "violation");
}

// ---- the parts of the page ----

function chip(text, className, isOn, onToggle) {
  const button = node("button", { type: "button", class: `chip ${className}`, "aria-pressed": isOn }, node("i", { class: `swatch ${className}` }), text);
  button.addEventListener("click", () => {
    const isPressed = button.getAttribute("aria-pressed") !== "true";
    button.setAttribute("aria-pressed", isPressed);
    onToggle(isPressed);
    relayout();
  });
  return button;
}

function toggler(set, key) {
  return isOn => isOn ? set.delete(key) : set.add(key);
}

function makeChips() {
  const present = new Set([...recording.datagrams.values()].map(datagram => kindOf((datagram.request || datagram).sent)));
  for (const event of recording.events) present.add(event.e);
  const isNeeded = key => key === "lost" || key === "log" || present.has(key);
  byId("kinds").replaceChildren(...KINDS.filter(([key]) => isNeeded(key)).map(([key, text]) =>
    chip(text, key, !filter.hiddenKinds.has(key), toggler(filter.hiddenKinds, key))));
  byId("host-list").replaceChildren(...recording.hosts.map(host => chip(host, "host", !filter.hiddenHosts.has(host), toggler(filter.hiddenHosts, host))));
}

function showHead() {
  document.title = about.title || "A run of ats";
  byId("title").textContent = about.title || recording.header.program;
  if (about.verdict) {
    byId("verdict").textContent = about.verdict;
    byId("verdict").classList.add(about.verdict);
    byId("verdict").hidden = false;
  }
  if (about.window) {
    const { from, to } = about.window;
    const shown = from > to ? "Cut to an empty window: no datagrams, port events and log lines are shown."
      : `Cut to a window: datagrams, port events and log lines are shown from ${formatTime(from)} to ${formatTime(to)} only.`;
    byId("notice").textContent = `${shown} States and the SA’s records are those of the whole run.`;
    byId("notice").hidden = false;
  }
  showViolation();
}

function showViolation() {
  const violation = violationEvent();
  if (!about.complaint && !violation) return;
  const where = violation ? node("button", { type: "button" }, `at ${formatTime(violation.t)}`) : null;
  if (where) where.addEventListener("click", () => goTo(violation));
  const text = violation ? violation.text.split("\n")[0] : about.complaint;
  const parts = [node("p", { class: "what" }, text, " ", where)];
  if (violation && violation.expected) parts.push(list([["expected", violation.expected], ["but was", violation.actual]]));
  const closing = recording.events.find(isClosing);
  if (violation && about.planned_acts !== undefined) parts.push(node("p", { class: "hint" }, closing ? `In the closing phase, ${formatLength(violation.t - closing.t)} after all faults had ended.` : "Before the closing phase."));
  if (about.replay) parts.unshift(replayLine());
  if (about.is_shortened) parts.push(node("p", { class: "hint" }, `Shortened: ${about.acts} of ${about.planned_acts} acts are enough to make it fail. Add --all-acts to draw them all.`));
  const changes = (about.changes || []).filter(change => !change.startsWith("trace="));
  if (changes.length) parts.push(node("p", { class: "hint" }, `Simplified: with ${changes.join(", ")} it still fails.`));
  byId("violation").replaceChildren(...parts);
  byId("violation").hidden = false;
}

function replayLine() {
  const copy = node("button", { type: "button" }, "Copy");
  copy.addEventListener("click", async () => {
    await navigator.clipboard.writeText(about.replay);
    copy.textContent = "Copied";
  });
  return node("p", { class: "replay" }, node("code", {}, about.replay), copy);
}

function showHelp() {
  const legend = [["get", "Get of a ServiceRecord"], ["set", "Set"], ["delete", "Delete"], ["path", "Get of a PathRecord"]];
  const bands = [["link", "the link is up"], ["active", "the active port: it sent last"], ["registered", "registration: green confirmed, amber asked, red refused or missing"],
                 ["waiting", "requests that wait for an answer, darker for more"]];
  const close = node("button", { type: "button" }, "Close");
  close.addEventListener("click", () => byId("help").close());
  byId("help").replaceChildren(node("h2", {}, "Arrows"), list([...legend.map(([key, text]) => [node("i", { class: `swatch ${key}` }), text]),
    ["✕", "lost: on the way, or at its receiver"], ["┄", "a duplicate"], ["╲", "a slanted arrow arrived later than it was sent"]]),
    node("h2", {}, "Beside a lane"), list([...bands.map(([key, text]) => [node("i", { class: `swatch ${key}` }), text]), [node("i", { class: "swatch fault" }), "a fault or an act, left of the lane it hits"],
    ["12", "so many log lines of the host"], ["▲ ▼ ◆", "the host handles an event of its port: link up, link down, SM change"], [node("i", { class: "swatch closing" }), "the closing phase of a campaign: all faults have ended"], ["⊕ ⊖", "the SA stores or removes a record"]]),
    node("h2", {}, "Keys"), list(KEYS.map(([key, text]) => [node("kbd", {}, key), text])), close);
  byId("help").showModal();
}

// ---- events of the page ----

const ON_KEY = {
  ArrowDown: () => step(1), j: () => step(1), ArrowUp: () => step(-1), k: () => step(-1),
  Home: () => moveTo(0), End: () => moveTo(layout.stops.length - 1), n: () => jump(1, isTrouble), p: () => jump(-1, isTrouble),
  a: () => jump(1, isAct), A: () => jump(-1, isAct),
  v: () => { const violation = violationEvent(); if (violation) goTo(violation); },
  "/": () => byId("search").focus(), "?": showHelp, Escape: () => select(null),
};

function onKey(event) {
  if (event.target.matches("input[type=search]")) {
    if (event.key === "Escape") event.target.blur();
    return;
  }
  if (event.ctrlKey || event.metaKey || event.altKey || byId("help").open) return;
  const action = ON_KEY[event.key];
  if (!action) return;
  event.preventDefault();
  action();
}

function onClick(event) {
  const target = event.target.closest("[data-event]");
  const y = event.clientY - byId("drawing").getBoundingClientRect().top;
  if (!target) {
    moveTo(layout.stopAt(y), false);
    return;
  }
  const chosen = recording.events[+target.dataset.event];
  const next = layout.stops.findIndex(index => index >= chosen.index);
  moveTo(next < 0 ? layout.stops.length - 1 : next, false);
  select(chosen, target.dataset.log ? target.dataset.log.split(",").map(Number) : undefined);
}

function onHover(event) {
  const target = event.target.closest && event.target.closest("[data-tip]");
  const tip = byId("tip");
  tip.hidden = !target;
  if (!target) return;
  tip.textContent = target.dataset.tip;
  tip.style.left = `${Math.min(event.clientX + 14, innerWidth - tip.offsetWidth - 8)}px`;
  tip.style.top = `${Math.min(event.clientY + 16, innerHeight - tip.offsetHeight - 8)}px`;
}

function applySearch() {
  filter.text = byId("search").value.trim().toLowerCase();
  relayout();
}

// Returns a function. Each of its calls starts a wait of `ms` anew. `action` runs at the end of the wait.
function debounce(action, ms) {
  let timer = 0;
  return () => {
    clearTimeout(timer);
    timer = setTimeout(action, ms);
  };
}

function listen() {
  byId("search").addEventListener("input", debounce(applySearch, 120));
  byId("scrubber").addEventListener("input", () => moveTo(+byId("scrubber").value));
  byId("back").addEventListener("click", () => step(-1));
  byId("forth").addEventListener("click", () => step(1));
  byId("help-button").addEventListener("click", showHelp);
  byId("picture").addEventListener("scroll", () => picture.draw(), { passive: true });
  byId("drawing").addEventListener("click", onClick);
  byId("drawing").addEventListener("mousemove", onHover);
  byId("drawing").addEventListener("mouseleave", () => { byId("tip").hidden = true; });
  document.addEventListener("keydown", onKey);
  addEventListener("resize", debounce(relayout, 150));
  addEventListener("beforeprint", () => picture.draw(true));
}

// If a run with more than 12 ports has failed, hides at first all hosts except those of acts and of the violation. If there are
// none of these, hides no host.
function hideIdleHosts() {
  const violation = violationEvent();
  if (!violation || recording.ports.size <= 12) return;
  const named = new Set(recording.events.filter(event => event.e === "act").map(event => event.host));
  for (const port of recording.ports.values())
    if (violation.text.includes(port.gid) || violation.text.startsWith(port.host + ":")) named.add(port.host);
  if (named.size) for (const host of recording.hosts) if (!named.has(host)) filter.hiddenHosts.add(host);
}

// For screenshots (scripts/check-viewer): shows the violation, or the first lost datagram if there is no violation.
function showForPicture() {
  const violation = violationEvent();
  if (violation) return goTo(violation);
  moveTo(0);
  jump(1, isLoss);
}

function main() {
  joinAnswers(recording);
  for (const datagram of recording.datagrams.values()) datagram.text = textOfDatagram(datagram);
  for (const event of recording.events) if (event.e === "refused") event.datagram.text = textOfDatagram(event.datagram);
  chooseGidDigits(recording.ports);
  hideIdleHosts();
  makeChips();
  showHead();
  select(null);
  listen();
  relayout();
  if (violationEvent()) goTo(violationEvent());
}

main();
