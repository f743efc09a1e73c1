'use strict';
const $ = (id) => document.getElementById(id);
const trace = JSON.parse($('data').textContent);
const ROW = 26, TIME_WIDTH = 104, MOST_LISTED = 300;

// --- What the log says ---

const KIND_NAMES = {
  launch: 'launches', failed: 'failed launches', accepted: 'connections accepted', created: 'connections made',
  down: 'connections reaped', shutdown: 'end of the hub', note: 'other lines of the hub', unreadable: 'lines that can’t be read',
};
const MESSAGE_KINDS = ['received', 'sent', 'reply', 'sendFailed'];
const OWN_SIGNS = { launch: '▶', failed: '✕', accepted: '○', created: '○', down: '✕', shutdown: '■', note: '●', unreadable: '?' };

const plugins = new Map();  // by ID: name, first and last event
const events = trace.events.map(([time, kind, plugin, name, message, fields, text, requests], index) => {
  const isMessage = MESSAGE_KINDS.includes(kind);
  if (plugin !== null) {
    const known = plugins.get(plugin) ?? { id: plugin, name: '', first: index, last: trace.events.length, count: 0, services: new Set() };
    known.name ||= name;
    known.count += 1;
    if (kind === 'received' && message === 'RegisterServiceList')
      for (const service of fields.find((field) => field[0] === 'name_list')?.[1] ?? []) known.services.add(service);
    if (kind === 'down') known.last = index;
    plugins.set(plugin, known);
  }
  return { index, time, kind, plugin, message, fields, text, requests, isMessage, type: isMessage ? message : KIND_NAMES[kind] };
});
const requests = trace.requests.map((request, index) => ({ ...request, index, events: [] }));
for (const event of events) for (const id of event.requests) requests[id].events.push(event);

const withEvents = requests.filter((request) => request.events.length > 0);  // the page may hold a part of the log

const nameOf = (id) => id === -1 ? 'nobody' : plugins.get(id)?.name ? `${plugins.get(id).name} (${id})` : `plugin ${id}`;
const fullNameOf = (id) => nameOf(id) + (plugins.get(id)?.services.size ? `: ${[...plugins.get(id).services].join(', ')}` : '');
const quoted = (value, isText) => isText ? `"${value}"` : value;
const valueOf = ([, value, isText]) =>
  Array.isArray(value) ? `[${value.slice(0, 100).map((item) => quoted(item, isText)).join(', ')}${value.length > 100 ? ', …' : ''}]` : quoted(value, isText);
const fieldsOf = (event) => event.fields.map((field) => `${field[0]}=${valueOf(field)}`).join('  ') + (event.text && event.isMessage ? `  ? ${event.text}` : '');
// For a line of the chart: without what is empty, and without line ends.
const briefOf = (event) => fieldsOf({ ...event, fields: event.fields.filter(([, value]) => value.length) }).slice(0, 400).replace(/\s*\n\s*/g, ' ⏎ ');
const routeOf = (event) => event.plugin === null ? 'hub' : !event.isMessage ? nameOf(event.plugin)
  : event.kind === 'received' ? `${nameOf(event.plugin)} → hub` : `hub → ${nameOf(event.plugin)}`;
const flag = (event, name) => event.fields.find((field) => field[0] === name)?.[1];
const isBad = (event) => event.kind === 'sendFailed' || event.message === 'ConnectionReplyEvent' &&
  (flag(event, 'wasFound') === '0' || flag(event, 'wasAccepted') === '0' && flag(event, 'is_shared_object') === '0') ||
  event.message === 'PluginConnectedEvent' && flag(event, 'pluginID') === '-1' ||
  event.message === 'ConnectionAcceptedEvent' && flag(event, 'accept') === '0';
const clock = (time) => time === null ? '' : new Date(time).toISOString().slice(11, 23);
const since = (time, start) => time === null || start === null ? '' : time - start < 10000 ? `${time - start} ms` : `${((time - start) / 1000).toFixed(1)} s`;
const haystackOf = (event) => event.haystack ??= `${event.message} ${fieldsOf(event)} ${event.text} ${routeOf(event)}`.toLowerCase();

// --- What is shown of it ---

const chosen = { plugins: new Set(), messages: new Set(), words: '', only: null, event: null, request: null, tab: 'all' };
let shown = events, lanes = [], laneAt = new Map(), laneWidth = 0;

function applyFilters() {
  const { plugins: ids, messages, words, only } = chosen;
  shown = events.filter((event) =>
    (only === null || event.requests.includes(only)) && (!ids.size || ids.has(event.plugin)) &&
    (!messages.size || messages.has(event.type)) && (!words || haystackOf(event).includes(words)));
  const used = new Set(shown.map((event) => event.plugin));
  // A lane that has become free is the next plugin's.
  lanes = [];
  laneAt = new Map();
  for (const plugin of [...plugins.values()].filter(({ id }) => used.has(id)).sort((a, b) => a.first - b.first)) {
    const free = lanes.findIndex((lane) => lane.at(-1).last < plugin.first);
    const place = free === -1 ? lanes.push([]) - 1 : free;
    lanes[place].push(plugin);
    laneAt.set(plugin.id, place + 1);
  }
  $('count').textContent = shown.length === events.length ? `${events.length} lines` : `${shown.length} of ${events.length} lines`;
  $('nothing').hidden = shown.length > 0;
  $('rows').style.height = `${shown.length * ROW}px`;
  for (const [id, label] of [['plugins', 'Plugins'], ['messages', 'Messages']]) {
    $(id).firstChild.textContent = chosen[id].size ? `${label}: ${chosen[id].size}` : label;
    $(id).classList.toggle('on', chosen[id].size > 0);
    for (const box of $(id).querySelectorAll('input')) box.checked = chosen[id].has(box.key);
  }
  layOut();
  drawPanel();
}

function layOut() {
  const room = Math.max(160, Math.min(900, $('chart').clientWidth * 0.42));
  laneWidth = Math.max(30, Math.min(92, room / (lanes.length + 1)));
  const width = Math.round(Math.min(room, laneWidth * (lanes.length + 1)));
  document.documentElement.style.setProperty('--lanes', `${width}px`);
  drawHeads();
  draw();
}

const make = (tag, properties = {}, ...children) => {
  const element = Object.assign(document.createElement(tag), properties);
  element.append(...children);
  return element;
};
const SVG = 'http://www.w3.org/2000/svg';
const shape = (tag, attributes) => {
  const element = document.createElementNS(SVG, tag);
  for (const [name, value] of Object.entries(attributes)) element.setAttribute(name, value);
  return element;
};
// The hub's lane stays in sight when the others are scrolled.
const laneX = (place) => (place ? place + 0.5 : $('lanes').scrollLeft / laneWidth + 0.5) * laneWidth;

// The first and the last of the plugins' lanes that can be seen, by place.
function visibleLanes() {
  const first = Math.ceil($('lanes').scrollLeft / laneWidth);
  return [first + 1, Math.ceil(($('lanes').scrollLeft + $('lanes').clientWidth) / laneWidth)];
}

// Whose lane it is at the top of what can be seen.
function ownerOf(lane) {
  const top = shown[Math.floor($('scroller').scrollTop / ROW)]?.index ?? 0;
  return lane.findLast((plugin) => plugin.first <= top) ?? lane[0];
}

function drawHeads() {
  const box = $('lanes').firstChild;
  box.style.width = `${laneWidth * (lanes.length + 1)}px`;
  const [first, last] = visibleLanes();
  const heads = [];
  for (let place = first - 1; place <= Math.min(last, lanes.length); ++place) {
    const lane = place < first ? null : lanes[place - 1];
    const plugin = lane && ownerOf(lane);
    const head = make('span', { title: lane ? lane.map(({ id }) => fullNameOf(id)).join('\n') : 'the hub' }, make('b', { textContent: plugin ? plugin.id : 'hub' }), plugin?.name ?? '');
    Object.assign(head.style, { left: `${laneX(plugin ? place : 0) - laneWidth / 2 + 1}px`, width: `${laneWidth - 2}px` });
    heads.push(head);
  }
  box.replaceChildren(...heads);
}

// Text with the words that were searched for marked.
function marked(text) {
  const words = chosen.words, lower = text.toLowerCase(), parts = [];
  let from = 0, at;
  while (words && (at = lower.indexOf(words, from)) !== -1) {
    parts.push(text.slice(from, at), make('mark', { textContent: text.slice(at, at + words.length) }));
    from = at + words.length;
  }
  return [...parts, text.slice(from)];
}

function rowOf(event, place) {
  const row = make('div', { className: `row ${event.isMessage ? '' : `own ${event.kind}`} ${isBad(event) ? 'bad' : ''}` });
  row.dataset.event = event.index;
  row.setAttribute('role', 'option');
  row.setAttribute('aria-selected', event === chosen.event);
  row.classList.toggle('picked', event === chosen.event);
  row.classList.toggle('mine', chosen.request !== null && event.requests.includes(chosen.request));
  row.style.top = `${place * ROW}px`;
  const says = make('span', { className: 'says' });
  const who = event.isMessage && lanes.length > 6 ? `${nameOf(event.plugin)}  ` : '';
  if (event.isMessage) says.append(make('i', {}, ...marked(who)), make('b', {}, ...marked(event.message)), '  ', make('i', {}, ...marked(briefOf(event))));
  else says.append(...marked(event.text.slice(0, 400)));
  row.append(make('span', { className: 'time', textContent: clock(event.time) }), says);
  return row;
}

// What an event draws on the lanes; for a lane that has been scrolled behind the hub's, a hint of it.
function signOf(event, y) {
  const other = chosen.request !== null && !event.requests.includes(chosen.request) ? ' other' : '';
  const place = event.plugin === null ? 0 : laneAt.get(event.plugin);
  const tone = event.isMessage ? (isBad(event) ? 'bad' : event.kind) : ['down', 'failed', 'shutdown'].includes(event.kind) ? 'down' : event.kind;
  const isBehind = place > 0 && laneX(place) <= laneX(0);
  if (!event.isMessage || isBehind) {
    const sign = shape('text', { x: isBehind ? laneX(0) : laneX(place), y, class: tone + other });
    sign.textContent = isBehind ? '‹' : OWN_SIGNS[event.kind];
    return sign;
  }
  const [from, to] = event.kind === 'received' ? [laneX(place), laneX(0)] : [laneX(0), laneX(place)];
  const back = event.kind === 'received' ? 7 : -7;
  const sign = shape('g', { class: `${tone} ${event.kind}${other}` });
  sign.append(shape('line', { x1: from, y1: y, x2: to + back, y2: y }), shape('circle', { cx: from, cy: y, r: 2.5 }),
    event.kind === 'sendFailed' ? Object.assign(shape('text', { x: to + back, y, class: 'down' }), { textContent: '✕' })
      : shape('path', { d: `M${to} ${y}l${back} -4v8z`, stroke: 'none' }));
  return sign;
}

// Only the rows that can be seen exist.
function draw() {
  const scroller = $('scroller'), drawing = $('drawing');
  const first = Math.max(0, Math.floor(scroller.scrollTop / ROW) - 4);
  const last = Math.min(shown.length, Math.ceil((scroller.scrollTop + scroller.clientHeight) / ROW) + 4);
  const visible = shown.slice(first, last);
  const signs = shape('g', { transform: `translate(${-$('lanes').scrollLeft} 0)` });
  const [left, right] = visibleLanes();
  const life = (place, y1, y2) => signs.append(shape('line', { class: 'life', x1: laneX(place), x2: laneX(place), y1, y2 }));
  if (visible.length) life(0, 0, visible.length * ROW);
  for (let place = left; visible.length && place <= Math.min(right, lanes.length); ++place) {
    for (const { first: born, last: died } of lanes[place - 1]) {
      if (born > visible.at(-1).index || died < visible[0].index) continue;
      const before = visible.filter((event) => event.index < born).length;
      const until = visible.filter((event) => event.index <= died).length;
      const top = born >= visible[0].index ? before + 0.5 : 0;
      const bottom = died <= visible.at(-1).index ? until - 0.5 : visible.length;
      if (bottom > top) life(place, top * ROW, bottom * ROW);
    }
  }
  visible.forEach((event, row) => signs.append(signOf(event, (row + 0.5) * ROW)));
  drawing.replaceChildren(signs);
  Object.assign(drawing.style, { top: `${first * ROW}px`, height: `${visible.length * ROW}px` });
  $('rows').replaceChildren(drawing, ...visible.map((event, row) => rowOf(event, first + row)));
  $('chart').classList.toggle('faded', chosen.request !== null && chosen.only === null);
}

function reveal(event) {
  const place = shown.indexOf(event), scroller = $('scroller');
  if (place === -1) return;
  if (place * ROW < scroller.scrollTop || (place + 1) * ROW > scroller.scrollTop + scroller.clientHeight)
    scroller.scrollTop = place * ROW - scroller.clientHeight / 2;
  const lane = laneX(laneAt.get(event.plugin) ?? 0), box = $('lanes');
  if (lane < box.scrollLeft + laneWidth || lane > box.scrollLeft + box.clientWidth) box.scrollLeft = lane - box.clientWidth / 2;
}

// --- The panel: the requests, or what was chosen ---

const titleOf = (request) => `${request.asked}${request.title ? ` ${request.title}` : ''}`;
const resultOf = (request) => request.outcome + (request.end === null || request.begin === null ? '' : ` after ${since(request.end, request.begin)}`) +
  (request.ending ? `, ${request.ending}` : '');

function requestButton(request) {
  const others = request.provider === -1 ? '' : ` → ${nameOf(request.provider)}`;
  const button = make('button', { type: 'button', className: 'request' },
    make('span', { className: `dot ${request.state}`, title: request.state }), titleOf(request),
    make('small', { textContent: `#${request.index + 1}  ${clock(request.begin)}  ${nameOf(request.requester)}${others}: ${resultOf(request)}` }));
  button.onclick = () => choose(request.events[0], request.index);
  return button;
}

function requestList() {
  const inTab = withEvents.filter((request) => chosen.tab === 'all' || request.state === chosen.tab);
  const list = chosen.words || chosen.plugins.size || chosen.messages.size
    ? (() => { const ids = new Set(shown.flatMap((event) => event.requests)); return inTab.filter((request) => ids.has(request.index)); })() : inTab;
  const tabs = make('div', { className: 'tabs' });
  for (const [tab, label] of [['all', 'All'], ['failed', 'Failed'], ['open', 'No answer']]) {
    const count = withEvents.filter((request) => tab === 'all' || request.state === tab).length;
    const button = make('button', { type: 'button', textContent: `${label} ${count}` });
    button.setAttribute('aria-pressed', chosen.tab === tab);
    button.onclick = () => { chosen.tab = tab; drawPanel(); };
    tabs.append(button);
  }
  return [make('h2', { textContent: 'Requests' }), make('p', { className: 'who', textContent: 'Choose one, or a line of the chart, to see what belongs together.' }),
    tabs, ...list.slice(0, MOST_LISTED).map(requestButton),
    ...(list.length > MOST_LISTED ? [make('p', { className: 'who', textContent: `and ${list.length - MOST_LISTED} more: search or filter to narrow them down` })] : [])];
}

function requestCard(request) {
  const only = make('button', { type: 'button', className: 'small only', textContent: chosen.only === request.index ? 'Show all' : 'Show only this' });
  only.setAttribute('aria-pressed', chosen.only === request.index);
  only.onclick = () => { chosen.only = chosen.only === request.index ? null : request.index; chosen.request = request.index; applyFilters(); reveal(chosen.event); };
  const card = make('div', { className: 'card' },
    make('h2', { textContent: `#${request.index + 1} ${titleOf(request)}` }),
    make('p', { className: request.state === 'failed' ? 'bad' : '', textContent: resultOf(request) }),
    make('p', { className: 'who', textContent: `asked by ${fullNameOf(request.requester)}${request.provider === -1 ? '' : `, served by ${fullNameOf(request.provider)}`}` }), only);
  for (const event of request.events.slice(0, MOST_LISTED)) {
    const step = make('button', { type: 'button', className: `step ${event === chosen.event ? 'now' : ''}` },
      make('small', { textContent: `+${since(event.time, request.begin)}` }),
      make('span', { className: isBad(event) ? 'bad' : '' }, make('b', { textContent: event.isMessage ? event.message : event.text }), make('br'), make('small', { textContent: routeOf(event) })));
    step.onclick = () => choose(event, request.index);
    card.append(step);
  }
  return card;
}

function eventDetails(event) {
  const back = make('button', { type: 'button', className: 'small', textContent: '← Requests' });
  back.onclick = () => choose(null, null);
  const table = make('table');
  for (const field of event.fields) table.append(make('tr', {}, make('td', { textContent: field[0] }), make('td', { textContent: valueOf(field) })));
  const cards = event.requests.map((id) => requests[id]).sort((a, b) => (b.index === chosen.request) - (a.index === chosen.request)).slice(0, 10).map(requestCard);
  const start = events.find((first) => first.time !== null)?.time ?? null;
  const when = event.time === null ? '' : ` · ${new Date(event.time).toISOString().replace(/[TZ]/g, ' ').trim()} · ${since(event.time, start)} after the first line`;
  return [back, make('h2', { textContent: event.isMessage ? event.message : event.type }),
    make('p', { className: 'who', textContent: routeOf(event) + when }),
    table, ...(event.text ? [make('pre', { textContent: event.text })] : []),
    ...(cards.length ? [make('h3', { textContent: cards.length > 1 ? 'Belongs to these requests' : 'Belongs to this request' }), ...cards] : [])];
}

function drawPanel() {
  $('panel').replaceChildren(...(chosen.event ? eventDetails(chosen.event) : requestList()));
}

function choose(event, request = event?.requests.at(-1) ?? null) {
  const refilter = chosen.only !== null && chosen.only !== request;
  if (refilter) chosen.only = null;
  Object.assign(chosen, { event, request });
  if (refilter) applyFilters(); else drawPanel();
  if (event) reveal(event);
  draw();
}

// --- What a person does ---

function fillFilter(id, entries) {
  const box = $(id).querySelector('div');
  for (const [key, label, count] of entries) {
    const input = make('input', { type: 'checkbox', key });
    input.onchange = () => { input.checked ? chosen[id].add(key) : chosen[id].delete(key); applyFilters(); };
    box.append(make('label', {}, input, label, make('small', { textContent: count })));
  }
}

function showAll() {
  chosen.plugins.clear();
  chosen.messages.clear();
  Object.assign(chosen, { words: '', only: null });
  $('search').value = '';
  applyFilters();
  if (chosen.event) reveal(chosen.event);
}

const counts = new Map();
for (const event of events) counts.set(event.type, (counts.get(event.type) ?? 0) + 1);
const ownCount = events.filter((event) => event.plugin === null).length;
fillFilter('plugins', [[null, 'hub', ownCount], ...[...plugins.values()].sort((a, b) => a.id - b.id).map((plugin) => [plugin.id, fullNameOf(plugin.id), plugin.count])]);
fillFilter('messages', [...counts.keys()].sort().map((type) => [type, type, counts.get(type)]));
document.title = $('title').textContent = $('title').title = trace.title;
document.documentElement.dataset.theme = matchMedia('(prefers-color-scheme: dark)').matches ? 'dark' : 'light';

$('search').oninput = () => { chosen.words = $('search').value.trim().toLowerCase(); $('scroller').scrollTop = 0; applyFilters(); };
$('clear').onclick = $('nothing').querySelector('button').onclick = showAll;
$('theme').onclick = () => { const root = document.documentElement.dataset; root.theme = root.theme === 'dark' ? 'light' : 'dark'; };
$('scroller').onscroll = () => { drawHeads(); draw(); };
$('lanes').onscroll = () => { drawHeads(); draw(); };
$('rows').onclick = (click) => { const row = click.target.closest('.row'); if (row) choose(events[row.dataset.event]); };
window.onresize = layOut;
document.onclick = (click) => { for (const filter of document.querySelectorAll('.filter[open]')) if (!filter.contains(click.target)) filter.open = false; };
document.onkeydown = (key) => {
  const typing = key.target.matches('input');
  if (key.key === '/' && !typing) { key.preventDefault(); $('search').focus(); }
  if (key.key === 'Escape') choose(null, null);
  const step = { ArrowDown: 1, ArrowUp: -1 }[key.key];
  if (!step || typing || !shown.length) return;
  key.preventDefault();
  choose(shown[Math.max(0, Math.min(shown.length - 1, chosen.event ? shown.indexOf(chosen.event) + step : 0))]);
};
applyFilters();
