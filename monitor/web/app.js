// zentmon's page: asks for agents and groups in pieces, follows the stream of events, draws what is seen.
"use strict";

const PIECE = 2000;           // rows asked for at a time
const ROWS_MAX = 50000;       // held here; of more, the filter is the server's work
const SILENCE_MS = 25000;     // the server pings every 10 s
const AGENTS_MS = 5000;       // between two looks at the agents
const RELOAD_MS = 2000;       // at least, between two loads of all groups
const EVENTS_SHOWN = 100;
const OVERSCAN = 8;           // rows drawn beyond what is seen
const FRESH_MS = 2400;        // a new row is marked so long

const $ = (id) => document.getElementById(id);

// ---- texts ---------------------------------------------------------------------------------------

const two = (n) => String(n).padStart(2, "0");
const count = (n) => n.toLocaleString("en-GB");
const plural = (n, word) => `${count(n)} ${word}${n === 1 ? "" : "s"}`;

let clockOffset = 0; // server's time less ours, in seconds
const serverNow = () => Date.now() / 1000 + clockOffset;

function setClock(now) {
  clockOffset = now - Date.now() / 1000;
}

function clockText(seconds) {
  const at = new Date(seconds * 1000);
  const time = `${two(at.getHours())}:${two(at.getMinutes())}:${two(at.getSeconds())}`;
  if (at.toDateString() === new Date().toDateString()) {
    return time;
  }
  return `${at.toLocaleDateString("en-GB", { day: "numeric", month: "short" })} ${time.slice(0, 5)}`;
}

function ageText(seconds) {
  const s = Math.max(0, Math.floor(seconds));
  if (s < 60) {
    return `${s} s`;
  }
  if (s < 3600) {
    return `${Math.floor(s / 60)} min`;
  }
  if (s < 86400) {
    return `${Math.floor(s / 3600)} h ${Math.floor(s % 3600 / 60)} min`;
  }
  return `${Math.floor(s / 86400)} d ${Math.floor(s % 86400 / 3600)} h`;
}

function addressNumber(text) {
  const parts = text.split(".");
  if (parts.length !== 4 || !parts.every((p) => /^(0|[1-9]\d{0,2})$/.test(p) && Number(p) < 256)) {
    return null;
  }
  return parts.reduce((number, part) => number * 256 + Number(part), 0);
}

function setText(node, text) {
  if (node.textContent !== text) {
    node.textContent = text;
  }
}

function element(name, className, text) {
  const node = document.createElement(name);
  if (className) {
    node.className = className;
  }
  if (text !== undefined) {
    node.textContent = text;
  }
  return node;
}

// ---- the filter: the same rules as the server's ----------------------------------------------------

function filterWord(word) {
  const slash = word.indexOf("/");
  const net = addressNumber(slash < 0 ? word : word.slice(0, slash));
  const bits = slash < 0 ? "32" : word.slice(slash + 1);
  if (net !== null && /^\d{1,2}$/.test(bits) && Number(bits) <= 32) {
    const size = 2 ** (32 - Number(bits));
    const base = Math.floor(net / size);
    const within = (number) => number !== null && Math.floor(number / size) === base;
    return (row) => within(row.number) || within(addressNumber(row.address));
  }
  const part = (text) => text.toLowerCase().includes(word);
  if (/^[\d.]+$/.test(word)) {
    return (row) => row.group.startsWith(word) || row.address.startsWith(word) || part(row.agent);
  }
  return (row) => part(row.agent) || part(row.listener) || part(row.address);
}

function makeFilter(text) {
  const words = text.toLowerCase().split(/\s+/).filter(Boolean).slice(0, 16).map(filterWord);
  return (row) => words.every((matches) => matches(row));
}

// ---- a table that draws what is seen ---------------------------------------------------------------

class Table {
  // columns: {title, key(row) for sorting, draw(cell, row), width, num, wide, main, first: "down" for numbers}
  constructor(host, label, columns, sort, onSort) {
    this.host = host;
    this.columns = columns;
    this.sort = sort;
    this.onSort = onSort;
    this.rows = [];
    this.nodes = new Map(); // key of a row to what is drawn of it
    this.table = element("table");
    this.table.setAttribute("aria-label", label);
    this.body = element("tbody");
    this.above = this.gap();
    this.below = this.gap();
    this.empty = element("div", "empty");
    this.empty.hidden = true;
    this.makeHead();
    this.table.append(this.body);
    host.append(this.table, this.empty);
    host.addEventListener("scroll", () => this.draw(), { passive: true });
    new ResizeObserver(() => this.draw()).observe(host);
  }

  gap() {
    const row = element("tr", "gap");
    row.setAttribute("aria-hidden", "true");
    const cell = element("td");
    cell.colSpan = this.columns.length;
    row.append(cell);
    return row;
  }

  makeHead() {
    const group = element("colgroup");
    const row = element("tr");
    row.setAttribute("aria-rowindex", "1");
    this.columns.forEach((column, index) => {
      const col = element("col", column.wide ? "wide" : "");
      col.style.width = column.width;
      group.append(col);
      const head = element("th", `${column.num ? "num" : ""} ${column.wide ? "wide" : ""}`);
      head.scope = "col";
      const button = element("button", "", column.title);
      button.type = "button";
      button.addEventListener("click", () => this.sortBy(index));
      head.append(button);
      row.append(head);
      column.head = head;
    });
    const head = element("thead");
    head.append(row);
    this.table.append(group, head);
    this.markSort();
  }

  sortBy(index) {
    const first = this.columns[index].num ? -1 : 1; // numbers begin with the largest
    this.sort = { index, direction: this.sort.index === index ? -this.sort.direction : first };
    this.markSort();
    this.host.scrollTop = 0;
    this.onSort();
  }

  markSort() {
    this.columns.forEach((column, index) => {
      if (index === this.sort.index) {
        column.head.setAttribute("aria-sort", this.sort.direction > 0 ? "ascending" : "descending");
      } else {
        column.head.removeAttribute("aria-sort");
      }
    });
  }

  // Puts rows in order; the second key keeps equal rows where they are.
  order(rows, second) {
    const key = this.columns[this.sort.index].key;
    const direction = this.sort.direction;
    return rows.sort((a, b) => {
      const x = key(a);
      const y = key(b);
      return x < y ? -direction : x > y ? direction : second(a, b);
    });
  }

  show(rows) {
    this.rows = rows;
    this.draw();
  }

  draw() {
    const height = this.rowHeight ||= parseFloat(getComputedStyle(this.host).getPropertyValue("--row-height"));
    const first = Math.max(0, Math.floor(this.host.scrollTop / height) - OVERSCAN);
    const last = Math.min(this.rows.length, first + Math.ceil(this.host.clientHeight / height) + 2 * OVERSCAN);
    this.table.setAttribute("aria-rowcount", String(this.rows.length + 1));
    this.above.firstChild.style.height = `${first * height}px`;
    this.below.firstChild.style.height = `${(this.rows.length - last) * height}px`;
    const drawn = new Map();
    const nodes = [this.above];
    for (let i = first; i < last; i++) {
      const row = this.rows[i];
      const node = this.nodes.get(row.key) || this.makeRow();
      drawn.set(row.key, node);
      this.drawRow(node, row, i);
      nodes.push(node);
    }
    nodes.push(this.below);
    this.nodes = drawn;
    this.place(nodes);
    this.empty.hidden = this.rows.length > 0;
  }

  // Only where something moved: a focus inside stays.
  place(nodes) {
    const now = this.body.children;
    if (now.length === nodes.length && nodes.every((node, i) => node === now[i])) {
      return;
    }
    const focused = this.body.contains(document.activeElement) ? document.activeElement : null;
    this.body.replaceChildren(...nodes);
    if (focused) {
      (focused.isConnected ? focused : this.host).focus({ preventScroll: true });
    }
  }

  makeRow() {
    const node = element("tr");
    for (const column of this.columns) {
      const name = `${column.num ? "num" : ""} ${column.wide ? "wide" : ""} ${column.main ? "main" : ""}`;
      const cell = element("td", name.trim());
      column.make?.(cell);
      node.append(cell);
    }
    return node;
  }

  drawRow(node, row, index) {
    node.setAttribute("aria-rowindex", String(index + 2));
    node.classList.toggle("fresh", row.fresh !== undefined && performance.now() - row.fresh < FRESH_MS);
    this.columns.forEach((column, i) => column.draw(node.children[i], row));
  }
}

// A cell whose text is a button that filters by it.
function makePick(cell) {
  const button = element("button", "pick");
  button.type = "button";
  button.addEventListener("click", () => setFilter(button.dataset.value));
  cell.append(button, element("span", "soft"));
}

function drawPick(cell, text, more, title) {
  const [button, span] = cell.children;
  setText(button, text);
  setText(span, more);
  if (button.dataset.value !== text) {
    button.dataset.value = text;
    button.setAttribute("aria-label", `${text}: filter by this agent`);
  }
  cell.title = title;
}

const whoTitle = (row) => `${row.address} by ${row.listener}`;

// ---- the joined groups -----------------------------------------------------------------------------

const store = {
  rows: new Map(),  // "GROUP AGENT" to row
  gone: new Map(),  // what a row had counted when it was left
  total: 0,         // on the server, of what was asked for
  scope: "",        // the filter with which the server was asked
  partial: false,   // there are more than are held here
  loaded: false
};

const rowKey = (group, agent) => `${group} ${agent}`;

function makeRow(data) {
  return { ...data, key: rowKey(data.group, data.agent), number: addressNumber(data.group) };
}

function makeTwoParts(cell) {
  cell.append(element("span"), " ", element("span", "soft"));
}

const groupColumns = [
  { title: "Group", width: "24%", main: true, key: (r) => r.number, draw: (c, r) => setText(c, r.group) },
  { title: "Agent", width: "27%", key: (r) => r.agent, make: makePick, draw: drawGroupAgent },
  { title: "Joined since", width: "25%", key: (r) => r.since, make: makeTwoParts, draw: drawSince },
  { title: "Joins", width: "9%", num: true, wide: true, key: (r) => r.joins, draw: (c, r) => setText(c, count(r.joins)) },
  { title: "Leaves", width: "9%", num: true, wide: true, key: (r) => r.leaves, draw: (c, r) => setText(c, count(r.leaves)) },
  { title: "State", width: "12%", key: (r) => r.state, make: (c) => c.append(element("span")), draw: drawState }
];

function drawGroupAgent(cell, row) {
  drawPick(cell, row.agent, "", whoTitle(row));
}

function drawSince(cell, row) {
  setText(cell.children[0], clockText(row.since));
  setText(cell.children[1], ageText(serverNow() - row.since));
}

function drawState(cell, row) {
  const span = cell.firstChild;
  const name = row.state === "joined" ? "soft" : `tag ${row.state}`;
  if (span.className !== name) {
    span.className = name;
  }
  setText(span, row.state);
}

const byGroup = (a, b) => a.number - b.number || (a.agent < b.agent ? -1 : a.agent > b.agent ? 1 : 0);
const groupTable = new Table($("groups"), "Joined groups", groupColumns, { index: 0, direction: 1 }, () => showGroups());

// The view is made anew when something changed, but never so often that it takes more than a fifth of the time.
let viewDue = 0;
let viewTimer = 0;

function groupsChanged() {
  if (!viewTimer) {
    viewTimer = setTimeout(() => requestAnimationFrame(showGroups), Math.max(0, viewDue - performance.now()));
  }
}

function showGroups() {
  clearTimeout(viewTimer);
  viewTimer = 0;
  const begun = performance.now();
  const text = $("filter").value.trim();
  const matches = makeFilter(text);
  const rows = [];
  for (const row of store.rows.values()) {
    if (!text || matches(row)) {
      rows.push(row);
    }
  }
  showGroupsEmpty(text);
  groupTable.show(groupTable.order(rows, byGroup));
  noteGroups(rows.length, text);
  const taken = performance.now() - begun;
  viewDue = performance.now() + taken * 4;
}

function noteGroups(shown, text) {
  const all = store.partial || store.scope ? store.total : store.rows.size;
  let note = text ? `${count(shown)} of ${count(all)}` : plural(all, "group");
  if (store.partial) {
    note = `the first ${count(shown)} of ${count(all)}: narrow them down with the filter`;
  }
  setText($("groups-note"), store.loaded || shown > 0 ? note : "loading");
  const joined = agents.size > 0 && (store.partial || store.scope)
    ? [...agents.values()].reduce((sum, agent) => sum + agent.groups, 0) : store.rows.size;
  setText($("n-groups"), count(joined));
  document.title = `${plural(joined, "group")} – zentmon`;
}

function showGroupsEmpty(text) {
  const empty = groupTable.empty;
  const kind = !store.loaded ? "wait" : text ? `none ${text}` : "nothing";
  if (empty.dataset.kind === kind) {
    return;
  }
  empty.dataset.kind = kind;
  empty.replaceChildren();
  if (kind === "nothing") {
    empty.append(element("strong", "", "Nothing is joined"), "A group appears here as soon as an agent reports it.");
  } else if (kind !== "wait") {
    const clear = element("button", "quiet", "Clear the filter");
    clear.type = "button";
    clear.addEventListener("click", () => setFilter(""));
    empty.append(element("strong", "", `No joined group matches “${text}”`),
      "Try the beginning of an address, a network or a part of an agent's name.", element("br"), clear);
  }
}

// ---- the agents ------------------------------------------------------------------------------------

const agents = new Map();

const agentColumns = [
  { title: "Agent", width: "40%", main: true, key: (r) => r.agent, make: makePick, draw: drawAgent },
  { title: "Groups", width: "19%", num: true, key: (r) => r.groups, make: makeTwoParts, draw: drawAgentGroups },
  { title: "Joins", width: "12%", num: true, wide: true, key: (r) => r.joins, draw: (c, r) => setText(c, count(r.joins)) },
  { title: "Leaves", width: "13%", num: true, wide: true, key: (r) => r.leaves, draw: (c, r) => setText(c, count(r.leaves)) },
  { title: "Last heard", width: "18%", num: true, key: (r) => r.last, draw: drawHeard }
];

function drawAgent(cell, row) {
  const flows = row.flows > 1 ? ` ${row.flows} flows` : "";
  const restarts = row.restarts > 0 ? `, ${plural(row.restarts, "restart")}` : "";
  drawPick(cell, row.agent, flows || (row.agent === row.address ? "" : ` ${row.address}`),
    `${whoTitle(row)}${restarts}`);
  cell.lastChild.className = flows ? "warn" : "soft";
}

function drawAgentGroups(cell, row) {
  setText(cell.children[1], count(row.groups));
  setText(cell.children[0], row.stale > 0 ? `${count(row.stale)} stale` : "");
  cell.children[0].className = "warn";
  cell.children[1].className = "";
}

function drawHeard(cell, row) {
  setText(cell, `${ageText(serverNow() - row.last)} ago`);
  cell.title = clockText(row.last);
}

const agentTable = new Table($("agents"), "Agents", agentColumns, { index: 0, direction: 1 }, () => showAgents());

function showAgents() {
  const rows = [...agents.values()];
  if (rows.length === 0 && !agentTable.empty.firstChild) {
    const code = element("code", "", "zent -i eth0 -R 192.0.2.1:4554");
    agentTable.empty.append(element("strong", "", "No agent has reported yet"),
      "Point an agent at this receiver:", element("br"), code);
  }
  agentTable.show(agentTable.order(rows, (a, b) => (a.key < b.key ? -1 : 1)));
  setText($("agents-note"), rows.length > 0 ? plural(rows.length, "agent") : "");
  setText($("n-agents"), count(rows.length));
}

async function loadAgents() {
  const data = await fetchJson("agents.json");
  setClock(data.now);
  agents.clear();
  for (const agent of data.agents) {
    agents.set(agent.agent, { ...agent, key: agent.agent });
  }
  showAgents();
  if (store.loaded && !store.partial && !store.scope) {
    await reconcile();
  }
}

// Groups that have grown stale, or a count that went another way than here: the agent's groups are asked for again.
async function reconcile() {
  const seen = new Map();
  for (const row of store.rows.values()) {
    const sum = seen.get(row.agent) || { groups: 0, stale: 0 };
    sum.groups++;
    sum.stale += row.state === "stale" ? 1 : 0;
    seen.set(row.agent, sum);
  }
  const different = [...agents.values()].filter((agent) => {
    const sum = seen.get(agent.agent) || { groups: 0, stale: 0 };
    return sum.groups !== agent.groups || sum.stale !== agent.stale;
  });
  const lost = [...seen.keys()].some((name) => !agents.has(name));
  if (lost || different.length > 8) {
    scheduleReload();
    return;
  }
  for (const agent of different) {
    await reloadAgent(agent.agent);
  }
}

async function reloadAgent(name) {
  if (loading) {
    return;
  }
  const meanwhile = record();
  try {
    const data = await fetchJson(`groups.json?agent=${encodeURIComponent(name)}&limit=${ROWS_MAX}`);
    for (const [key, row] of store.rows) {
      if (row.agent === name) {
        store.rows.delete(key);
      }
    }
    data.groups.map(makeRow).forEach((row) => store.rows.set(row.key, row));
    meanwhile.forEach(applyToRows);
  } finally {
    records.delete(meanwhile);
  }
  groupsChanged();
}

// ---- loading ---------------------------------------------------------------------------------------

let loading = false;
let loadAgain = false;
let loadedMs = -RELOAD_MS;
let loadTimer = 0;
const records = new Set(); // of each load that is under way, the events that came meanwhile

function record() {
  const events = [];
  records.add(events);
  return events;
}

// Beside this page, without a name and password that may stand in its address: no request may carry them there.
const beside = (url) => new URL(url, location.origin + location.pathname);

async function fetchJson(url) {
  const response = await fetch(beside(url), { cache: "no-store" });
  if (!response.ok) {
    throw new Error(`${url}: ${response.status}`);
  }
  return response.json();
}

function scheduleReload() {
  if (loading) {
    loadAgain = true;
  } else if (!loadTimer) {
    loadTimer = setTimeout(load, Math.max(0, loadedMs + RELOAD_MS - performance.now()));
  }
}

// All groups, piece by piece. What happens meanwhile is shown at once, and applied once more to what came.
async function load() {
  loadTimer = 0;
  loading = true;
  loadAgain = false;
  const meanwhile = record();
  try {
    await Promise.all([loadPieces(meanwhile), loadActivity(meanwhile), store.loaded ? null : loadAgents()]);
  } catch (error) {
    loadAgain = true;
  }
  records.delete(meanwhile);
  loading = false;
  loadedMs = performance.now();
  if (loadAgain) {
    scheduleReload();
  }
  groupsChanged();
}

async function loadPieces(meanwhile) {
  const scope = store.partial || store.scope ? $("filter").value.trim() : "";
  const rows = new Map();
  let after = "";
  let piece;
  do {
    piece = await fetchJson(`groups.json?limit=${PIECE}${after}${scope ? `&filter=${encodeURIComponent(scope)}` : ""}`);
    setClock(piece.now);
    openStream(piece.last_id);
    for (const data of piece.groups) {
      const row = makeRow(data);
      rows.set(row.key, row);
    }
    if (!store.loaded) {
      store.rows = new Map(rows); // something to see while the rest comes
      groupsChanged();
    }
    const last = piece.groups[piece.groups.length - 1];
    after = last ? `&after=${encodeURIComponent(`${last.group},${last.agent}`)}` : "";
  } while (piece.groups.length === PIECE && rows.size < ROWS_MAX);
  store.rows = rows;
  store.total = Math.max(piece.total, rows.size);
  store.partial = piece.groups.length === PIECE && piece.total > rows.size;
  store.scope = scope;
  store.loaded = true;
  meanwhile.forEach(applyToRows);
}

// ---- events ----------------------------------------------------------------------------------------

function applyToRows(event) {
  const key = rowKey(event.group, event.agent);
  const row = store.rows.get(key);
  if (event.event === "join") {
    if (!row) {
      addRow(event, key);
    } else if (event.time > row.last) {
      row.joins++;
      row.last = event.time;
      row.state = "joined";
    }
  } else if (row && event.time >= row.since) {
    store.rows.delete(key);
    store.gone.set(key, { joins: row.joins, leaves: row.leaves + (event.event === "leave" ? 1 : 0) });
    if (store.gone.size > 2 * PIECE) {
      store.gone.delete(store.gone.keys().next().value);
    }
  }
}

function addRow(event, key) {
  const before = store.gone.get(key) || { joins: 0, leaves: 0 };
  const row = makeRow({
    group: event.group, agent: event.agent, address: event.address, listener: event.listener,
    since: event.time, last: event.time, joins: before.joins + 1, leaves: before.leaves, state: "joined"
  });
  if (store.scope && !makeFilter(store.scope)(row)) {
    return;
  }
  row.fresh = performance.now();
  store.rows.set(key, row);
}

function touchAgent(event) {
  const agent = agents.get(event.agent);
  if (!agent) {
    agentsSoon(200);
    return;
  }
  agent.last = Math.max(agent.last, event.time);
}

function onEvent(event) {
  applyToRows(event);
  records.forEach((events) => events.push(event));
  touchAgent(event);
  noteActivity(event);
  lastEvents.unshift(event);
  eventsChanged();
  groupsChanged();
}

const lastEvents = [];
let eventsFrame = 0;

function eventsChanged() {
  lastEvents.length = Math.min(lastEvents.length, EVENTS_SHOWN);
  eventsFrame ||= requestAnimationFrame(showEvents);
}

function eventItem(event) {
  const item = element("li");
  item.dataset.id = event.id;
  const time = element("time", "soft", clockText(event.time));
  time.dateTime = new Date(event.time * 1000).toISOString();
  const group = element("span", "", event.group);
  const who = element("span", "soft", event.agent);
  who.title = whoTitle(event);
  item.append(time, element("span", `tag ${event.event}`, event.event), group, who);
  return item;
}

// New items go on top; those that stand there stay.
function showEvents() {
  eventsFrame = 0;
  const list = $("events");
  const top = list.firstChild?.dataset.id;
  const known = lastEvents.findIndex((event) => event.id === top);
  const items = (known < 0 ? lastEvents : lastEvents.slice(0, known)).map(eventItem);
  if (known < 0) {
    list.replaceChildren(...items);
  } else {
    list.prepend(...items);
  }
  while (list.children.length > EVENTS_SHOWN) {
    list.lastChild.remove();
  }
  $("events-empty").hidden = list.children.length > 0;
  setText($("events-note"), lastEvents.length === EVENTS_SHOWN ? `the last ${EVENTS_SHOWN}` : "");
}

// ---- activity --------------------------------------------------------------------------------------

const activity = { step: 5, slots: 120, last: 0, joins: [], leaves: [], known: "" };

async function loadActivity(meanwhile) {
  const data = await fetchJson("activity.json");
  setClock(data.now);
  Object.assign(activity, {
    step: data.step, slots: data.joins.length, last: Math.floor(data.now / data.step), joins: data.joins,
    leaves: data.leaves.map((n, i) => n + data.expires[i]), known: data.last_id
  });
  setText($("version"), `zentmon ${data.version}`);
  const newer = meanwhile.filter((event) => !isBehind(event.id, activity.known));
  newer.forEach(noteActivity);
  lastEvents.splice(0, lastEvents.length, ...newer.reverse(), ...data.events);
  $("events").replaceChildren();
  eventsChanged();
  showActivity();
}

// Moves the slots on to the one of that time, a server's.
function turnActivity(time) {
  const slot = Math.floor(time / activity.step);
  for (; activity.last < slot && activity.joins.length > 0; activity.last++) {
    if (slot - activity.last > activity.slots) {
      activity.last = slot - activity.slots;
    }
    for (const list of [activity.joins, activity.leaves]) {
      list.shift();
      list.push(0);
    }
  }
}

function isBehind(id, known) {
  const [boot, seq] = id.split("-");
  const [knownBoot, knownSeq] = known.split("-");
  return boot === knownBoot && Number(seq) <= Number(knownSeq);
}

// An event may be ahead of what is known of the server's clock: that came as late as its answer.
function noteActivity(event) {
  if (activity.joins.length === 0 || isBehind(event.id, activity.known)) {
    return;
  }
  turnActivity(Math.max(serverNow(), event.time));
  const index = activity.slots - 1 - (activity.last - Math.floor(event.time / activity.step));
  const list = event.event === "join" ? activity.joins : activity.leaves;
  if (index >= 0 && index < list.length) {
    list[index]++;
  }
  activitySoon();
}

let activityTimer = 0;

function activitySoon() {
  activityTimer ||= setTimeout(showActivity, 250);
}

// The root of a count: a start of many joins leaves the ordinary ones to be seen. The figures come with the pointer.
function bars(values, peak, sign) {
  const width = 960 / activity.slots;
  let path = "";
  values.forEach((value, i) => {
    if (value > 0) {
      const height = 56 * Math.sqrt(value / peak);
      path += `M${(i * width + 1).toFixed(1)} 60v${(-sign * height).toFixed(1)}h${(width - 2).toFixed(1)}V60z`;
    }
  });
  return path;
}

const lastMinute = (list) => list.slice(-Math.round(60 / activity.step)).reduce((sum, n) => sum + n, 0);

function showActivity() {
  activityTimer = 0;
  turnActivity(serverNow());
  const peak = Math.max(1, ...activity.joins, ...activity.leaves);
  $("plot-joins").setAttribute("d", bars(activity.joins, peak, 1));
  $("plot-leaves").setAttribute("d", bars(activity.leaves, peak, -1));
  setText($("n-joins"), count(lastMinute(activity.joins)));
  setText($("n-leaves"), count(lastMinute(activity.leaves)));
  const sum = (list) => list.reduce((all, n) => all + n, 0);
  const told = `${plural(sum(activity.joins), "join")} and ${plural(sum(activity.leaves), "leave")}`;
  $("plot").setAttribute("aria-label", `Activity of the last 10 minutes: ${told}`);
  if (pointed < 0) {
    setText($("activity-note"), `${told} in the last 10 minutes`);
  }
}

let pointed = -1;

function pointAt(event) {
  const box = $("plot").getBoundingClientRect();
  const style = getComputedStyle($("plot"));
  const left = parseFloat(style.paddingLeft);
  const inner = box.width - left - parseFloat(style.paddingRight);
  const place = (event.clientX - box.left - left) / inner;
  pointed = place >= 0 && place < 1 ? Math.floor(place * activity.slots) : -1;
  $("plot-mark").toggleAttribute("hidden", pointed < 0);
  if (pointed >= 0 && activity.joins.length > 0) {
    $("plot-mark").setAttribute("x", String(pointed * 960 / activity.slots));
    const time = (activity.last - activity.slots + 1 + pointed) * activity.step;
    setText($("activity-note"), `${clockText(time)}: ${plural(activity.joins[pointed], "join")}, ` +
      `${plural(activity.leaves[pointed], "leave")} in ${activity.step} s`);
  }
}

function pointAway() {
  pointed = -1;
  $("plot-mark").toggleAttribute("hidden", true);
  showActivity();
}

// ---- the stream ------------------------------------------------------------------------------------

let source = null;
let lastId = "";
let heardMs = performance.now();
let reopenMs = 0;

function heard() {
  heardMs = performance.now();
  setLink("live");
}

function openStream(since) {
  if (source) {
    return;
  }
  lastId = since || lastId;
  source = new EventSource(beside(`events?since=${encodeURIComponent(lastId)}`));
  source.onopen = heard;
  source.onmessage = (message) => {
    heard();
    lastId = message.lastEventId;
    onEvent(JSON.parse(message.data));
  };
  source.addEventListener("ping", (message) => {
    heard();
    setClock(JSON.parse(message.data).now);
  });
  source.addEventListener("reset", (message) => {
    heard();
    lastId = message.lastEventId;
    scheduleReload();
    agentsSoon(0);
  });
  source.onerror = onStreamError;
}

function onStreamError() {
  if (document.body.dataset.link === "live") {
    setLink("wait");
  }
  if (source && source.readyState === EventSource.CLOSED) { // refused for good, as a proxy may: not so by us
    closeStream();
  }
}

function closeStream() {
  source?.close();
  source = null;
  reopenMs = performance.now() + RELOAD_MS;
}

// Once a second: is anybody there?
function watch() {
  const silence = performance.now() - heardMs;
  if (silence > SILENCE_MS) {
    setLink("lost");
    if (source && performance.now() > reopenMs) {
      closeStream();
    }
  }
  if (!source && lastId && performance.now() > reopenMs) {
    reopenMs = performance.now() + RELOAD_MS * 5;
    openStream(lastId);
  }
}

const linkTexts = { live: "Live", wait: "Reconnecting", lost: "Connection lost" };

function setLink(state) {
  if (document.body.dataset.link === state) {
    return;
  }
  const before = document.body.dataset.link;
  document.body.dataset.link = state;
  $("link").dataset.state = state;
  setText($("link-text"), linkTexts[state]);
  const notice = $("notice");
  notice.hidden = state !== "lost";
  if (state === "lost") {
    const at = clockText(serverNow() - (performance.now() - heardMs) / 1000);
    setText(notice, `The connection to zentmon is lost. What you see is how it was at ${at}. Trying again …`);
  } else if (state === "live" && before) {
    setText($("status"), "The connection is there again.");
    agentsSoon(0);
  }
}

let agentsTimer = 0;
let agentsBusy = false;

function agentsSoon(delay) {
  clearTimeout(agentsTimer);
  agentsTimer = setTimeout(pollAgents, Math.max(delay, 100));
}

async function pollAgents() {
  if (!agentsBusy && !document.hidden) {
    agentsBusy = true;
    try {
      await loadAgents();
    } catch (error) {
      // the stream's watch tells of it
    }
    agentsBusy = false;
  }
  agentsSoon(AGENTS_MS);
}

// ---- what the user does ----------------------------------------------------------------------------

let filterTimer = 0;

function setFilter(text) {
  $("filter").value = text;
  onFilter();
}

function onFilter() {
  groupTable.host.scrollTop = 0;
  showGroups();
  clearTimeout(filterTimer);
  filterTimer = setTimeout(() => {
    setText($("status"), `${plural(groupTable.rows.length, "group")} shown`);
    if (store.partial || store.scope) {
      scheduleReload();
    }
  }, 300);
}

function onKey(event) {
  const typing = event.target.matches("input, textarea, select");
  if (event.key === "/" && !typing && !event.ctrlKey && !event.metaKey && !event.altKey) {
    event.preventDefault();
    $("filter").focus();
    $("filter").select();
  } else if (event.key === "Escape" && event.target === $("filter")) {
    setFilter("");
  }
}

const themes = ["auto", "light", "dark"];

function setTheme(theme) {
  if (theme === "auto") {
    delete document.documentElement.dataset.theme;
  } else {
    document.documentElement.dataset.theme = theme;
  }
  setText($("theme"), `Theme: ${theme}`);
}

function storedTheme() {
  try {
    const theme = localStorage.getItem("zentmon-theme");
    return themes.includes(theme) ? theme : "auto";
  } catch (error) {
    return "auto"; // no storage here
  }
}

function nextTheme() {
  const theme = themes[(themes.indexOf(storedTheme()) + 1) % themes.length];
  try {
    localStorage.setItem("zentmon-theme", theme);
  } catch (error) {
    // it then lasts as long as the page
  }
  setTheme(theme);
}

function everySecond() {
  watch();
  if (!document.hidden) {
    groupTable.draw();
    agentTable.draw();
    showActivity();
  }
}

setTheme(storedTheme());
$("theme").addEventListener("click", nextTheme);
$("filter").addEventListener("input", onFilter);
$("plot").addEventListener("pointermove", pointAt);
$("plot").addEventListener("pointerleave", pointAway);
document.addEventListener("keydown", onKey);
document.addEventListener("visibilitychange", () => agentsSoon(0));
setInterval(everySecond, 1000);
load();
agentsSoon(AGENTS_MS);
