// The panel at the right. It shows the fields of the selected event, and the state of the fabric at the selected moment.

function node(name, attributes = {}, ...children) {
  const made = document.createElement(name);
  for (const [key, value] of Object.entries(attributes)) if (value !== undefined && value !== null) made.setAttribute(key, value);
  made.append(...children.filter(child => child !== null && child !== undefined));
  return made;
}

function list(pairs) {
  const parts = pairs.filter(([, value]) => value !== undefined && value !== null && value !== "");
  return node("dl", {}, ...parts.flatMap(([name, value]) => [node("dt", {}, name), node("dd", {}, value)]));
}

function table(id, heads, rows) {
  return node("div", { class: "scroll" }, node("table", { id },
    node("thead", {}, node("tr", {}, ...heads.map(head => node("th", {}, head)))),
    node("tbody", {}, ...rows.map(row => node("tr", row.attributes || {}, ...row.cells.map(cell => node("td", {}, cell)))))));
}

const gidNode = gid => node("abbr", { title: gid }, shortGid(gid));

function describeRecord(record) {
  if (!record) return [];
  const isSet = value => value && value !== "0.0.0.0" && value !== "0x0" && value !== "0 s";
  return [["GID", /^0x0+$/.test(record.gid) ? null : record.gid], ["address", isSet(record.address) ? record.address : null], ["name", record.name],
          ["P_Key", isSet(record.p_key) ? record.p_key : null], ["lease", isSet(record.lease) ? record.lease : null], ["service", record.service]];
}

function describeEnd(datagram, isSeenAtHosts) {
  if (datagram.isRefused) return [["fate", "the fabric did not accept it"]];
  if (!datagram.ends.length && !isSeenAtHosts) return [["fate", "still on its way at the end"]];
  return datagram.ends.map(end => {
    const marks = [end.twin && "duplicate", end.corrupt && "corrupted", end.held && "held back"].filter(Boolean).join(", ");
    const after = end.t - datagram.sent.t;
    const fate = end.e === "lost" ? end.why : after ? `${formatTime(end.t)}, after ${formatLength(after)}` : "at once";
    return [end.e === "lost" ? "lost" : "arrived", fate + (marks ? ` (${marks})` : "")];
  });
}

function describeDatagram(recording, datagram) {
  const sent = datagram.sent;
  const other = portOf(recording, datagram) || `LID ${sent.lid}`;
  const path = sent.path ? [["from GID", sent.path.sgid], ["to GID", sent.path.dgid], ["LIDs", `${sent.path.slid} to ${sent.path.dlid}`], ["P_Key", sent.path.p_key]] : [];
  return node("div", {}, node("h2", {}, node("i", { class: `swatch ${kindOf(datagram.request ? datagram.request.sent : sent)}` }), `${sent.method} ${sent.attribute}`),
    list([["from", sent.from === "sa" ? "SA" : sent.from], ["to", sent.from === "sa" ? other : `SA, LID ${sent.lid}`], ["sent", formatTime(sent.t)],
          ...describeEnd(datagram, recording.isSeenAtHosts), ["status", sent.status], ["TID", sent.tid], ["mask", sent.mask], ...describeRecord(sent.record), ...path]));
}

function describeLog(lines) {
  return node("div", {}, node("h2", {}, `Log of ${lines[0].host}`),
    node("ol", { class: "log-lines" }, ...lines.map(line => node("li", { class: line.level < 4 ? "severe" : line.level === 4 ? "warning" : "" },
      node("time", {}, formatTime(line.t)), " ", line.text))));
}

function describeChange(event) {
  return node("div", {}, node("h2", {}, event.e === "stored" ? "The SA stores a record" : "The SA removes a record"), list(describeRecord(event)));
}

function describeAct(event) {
  return node("div", {}, node("h2", {}, `Act ${event.number}: ${event.name}`),
    list([["phase", entryOf({ begin: "it begins", end: "it ends", moment: "it takes no time" }, event.phase)], ["host", event.host],
          ["may harm", entryOf({ none: "no registration", host: "the registrations of this host", network: "all registrations" }, event.harm)],
          ["a, b", `${event.a}, ${event.b}`]]));
}

const CAUSES = {
  up: "the link came up", down: "the link went down", "SM change": "the SM has another LID", "LID change": "the port has another LID",
  reregister: "the SM asks to register again, or the port has another GID or P_Key", subscription: "the link was up before the module was loaded" };

function describeHandled(event) {
  const told = entryOf({ up: "the link is up", down: "the link is down", "SM change": "the SM has changed" }, event.event);
  return node("div", {}, node("h2", {}, `${event.port} handles an event`),
    list([["told", told], ["because", entryOf(CAUSES, event.cause) || event.cause], ["at", formatTime(event.t)]]));
}

function describeSelection(recording, event, logIndexes) {
  if (logIndexes) return describeLog(logIndexes.map(index => recording.events[index]));
  if (!event) return node("div", { class: "hint" }, "Click an arrow, a mark or a place in the picture.");
  if (event.datagram) return describeDatagram(recording, event.datagram);
  if (event.e === "log") return describeLog([event]);
  if (event.e === "stored" || event.e === "removed") return describeChange(event);
  if (event.e === "act") return describeAct(event);
  if (event.e === "handled") return describeHandled(event);
  if (event.e === "port") return node("div", {}, node("h2", {}, `${event.port} is ${event.state}`), list([["LID", event.lid], ["SM LID", event.sm_lid], ["GID", event.gid]]));
  if (event.e === "fault") return node("div", {}, node("h2", {}, "Fault of the fabric"), list([[event.name, event.value ? String(event.value) : "off"]]));
  if (event.e === "sm") return node("div", {}, node("h2", {}, "The SM and the SA"), list([["LID", event.lid]]));
  if (event.e === "step" || event.e === "violation") return node("div", {}, node("h2", {}, isClosing(event) ? "Closing phase" : event.e === "step" ? "Step" : "Violation"), node("p", {}, event.text));
  return node("div");
}

// Returns a view of the state: the SA's records (if the recording has them), the ports, the faults and the acts. Marks the
// records and ports whose GID occurs in `violation`, the text of the violation.
function describeState(recording, state, hiddenHosts, violation) {
  const suspect = gid => violation.includes(gid) ? "suspect" : null;
  const records = [...state.table.values()].sort((a, b) => a.gid < b.gid ? -1 : 1);
  const parts = state.isClosing ? [node("p", { class: "closing-note" }, "Closing phase: all faults have ended, and everything must become right.")] : [];
  if (!recording.isSeenAtHosts) parts.push(
    node("h2", {}, `The SA’s records `, node("span", { class: "count" }, String(records.length))),
    records.length ? table("sa-table", ["Address", "GID", "Name", "P_Key", "Lease"], records.map(record => ({
      attributes: { class: suspect(record.gid), "data-gid": record.gid, "data-address": record.address, "data-name": record.name },
      cells: [record.address, gidNode(record.gid), node("span", { class: "name", title: record.name }, record.name), record.p_key, record.lease] })))
      : node("p", { class: "hint", id: "sa-table" }, "none"));
  parts.push(node("h2", {}, "Ports"),
             table("port-table", ["Port", "Link", "Active", "Registered", "Waiting"], portRows(recording, state, hiddenHosts, suspect)));
  const faults = [...state.faults].map(([name, value]) => value > 1 ? `${name} ${value}` : name);
  if (faults.length) parts.push(node("h2", {}, "Faults of the fabric"), node("p", { id: "fault-list" }, faults.join(", ")));
  const acts = [...state.acts.values()].map(act => `${act.number} ${act.name}, ${act.host}`);
  if (acts.length) parts.push(node("h2", {}, "Acts that run"), node("p", {}, acts.join("; ")));
  return node("div", {}, ...parts);
}

function portRows(recording, state, hiddenHosts, suspect) {
  return [...recording.ports.values()].filter(port => !hiddenHosts.has(port.host)).map(port => {
    const now = state.ports.get(port.name) || { state: "unknown" };
    const registration = state.registrations.get(hcaOf(port.name));
    const isOwn = registration && registration.port === port.name;
    const waiting = [...state.waiting.values()].filter(request => request.from === port.name);
    const verdict = isOwn ? registration.verdict : "";
    return { attributes: { class: suspect(port.gid), "data-port": port.name }, cells: [
      port.name, node("span", { class: `dot ${now.state}` }, now.state === "active" ? "up" : now.state), state.active.get(hcaOf(port.name)) === port.name ? "yes" : "",
      isOwn ? node("span", { class: `dot ${verdict.replace(" ", "-")}`, title: `${registration.record.address} ${registration.record.name} ${registration.status || ""}` }, verdict) : "",
      waiting.length ? node("span", { title: waiting.map(request => labelOf(request)).join("\n") }, String(waiting.length)) : ""] };
  });
}
