'use strict';
const $ = (id) => document.getElementById(id);
const STEP = 1000, MOST_EVENTS = 300, MOST_LISTED = 100, MOST_GROUPS = 24, ALIKE = 4;

// Texts of others get into the page by this alone, as texts.
function h(tag, attributes = {}, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes)) {
    if (name.startsWith('on')) element.addEventListener(name.slice(2), value);
    else if (value !== undefined && value !== false) element.setAttribute(name, value);
  }
  element.append(...children.filter((child) => child !== null && child !== undefined));
  return element;
}
// Puts children in their place; those that stand right already aren't touched, and keep the focus.
function sync(parent, wanted) {
  const kept = new Set(wanted);
  for (const child of [...parent.children]) if (!kept.has(child)) child.remove();
  wanted.forEach((child, place) => {
    if (parent.children[place] !== child) parent.insertBefore(child, parent.children[place] ?? null);
  });
}

// --- Numbers for people ---

function short(number, units) {
  let unit = 0;
  while (Math.abs(number) >= 1000 && unit < units.length - 1) { number /= 1000; unit += 1; }
  const text = number >= 100 || Number.isInteger(number) ? Math.round(number) : number.toFixed(1);
  return `${text}${units[unit] ? ` ${units[unit]}` : ''}`;
}
const count = (number) => short(number, ['', 'k', 'M', 'G', 'T']);
const bytes = (number) => short(number, ['B', 'kB', 'MB', 'GB', 'TB']);
const perSecond = (rate) => rate ? `${count(rate < 10 ? Math.round(rate * 10) / 10 : Math.round(rate))}/s` : '–';
function age(since, now) {
  const seconds = Math.max(0, Math.round((now - since) / 1000));
  return seconds < 100 ? `${seconds} s` : seconds < 6000 ? `${Math.round(seconds / 60)} min`
    : seconds < 172800 ? `${Math.round(seconds / 3600)} h` : `${Math.round(seconds / 86400)} d`;
}
const clock = (time) => new Date(time).toISOString().slice(11, 23);

// --- What the hub tells, with rates ---

const hub = { time: 0, facts: null, plugins: new Map(), services: new Map(), links: [], launches: [] };
let last = new Map();  // counters at the time of the last snapshot, by key

// How much each counter has grown in a second.
function ratesOf(key, since, counters, time, next) {
  const before = last.get(key);
  let rates = counters.map(() => 0);
  if (before?.since === since)
    rates = time > before.time ? counters.map((value, i) => Math.max(0, value - before.counters[i]) * 1000 / (time - before.time)) : before.rates;
  next.set(key, { since, counters, time, rates });
  return rates;
}

function take(snapshot) {
  const next = new Map(), { time } = snapshot;
  hub.time = time;
  hub.facts = snapshot.hub;
  [hub.packetRate, hub.byteRate] = ratesOf('hub', snapshot.hub.since, [snapshot.hub.packets, snapshot.hub.bytes], time, next);
  hub.plugins = new Map(snapshot.plugins.map((facts) => {
    const rates = ratesOf(`p${facts.plugin_id}`, facts.since, [facts.sent_packets, facts.received_packets, facts.sent_bytes, facts.received_bytes], time, next);
    return [facts.plugin_id, { kind: 'plugin', key: `p${facts.plugin_id}`, facts, rates, rate: rates[0] + rates[1], name: facts.program ?? 'unknown', services: [], links: [] }];
  }));
  hub.services = new Map();
  const service = (name) => {
    if (!hub.services.has(name))
      hub.services.set(name, { kind: 'service', key: `s${name}`, name, state: 'withdrawn', entries: [], links: [], rate: 0 });
    return hub.services.get(name);
  };
  for (const facts of snapshot.services) {
    const entry = service(facts.name);
    if (!entry.entries.length) entry.state = facts.state;
    entry.entries.push(facts);
    if (facts.state === 'registered') hub.plugins.get(facts.plugin_id)?.services.push(entry);
  }
  hub.links = snapshot.links.map((facts) => {
    const key = `l${facts.requester_id}/${facts.requester_rn}/${facts.provider_id}/${facts.provider_rn}`;
    const rates = ratesOf(key, facts.since, [facts.requester_packets, facts.provider_packets, facts.requester_bytes, facts.provider_bytes], time, next);
    const link = { facts, rates, rate: rates[0] + rates[1], service: service(facts.service ?? ''), requester: hub.plugins.get(facts.requester_id), provider: hub.plugins.get(facts.provider_id) };
    link.service.links.push(link);
    link.service.rate += link.rate;
    for (const plugin of new Set([link.requester, link.provider])) plugin?.links.push(link);
    return link;
  });
  hub.launches = snapshot.launches.map((facts, place) => ({ kind: 'launch', key: `x${facts.program}/${facts.service}/${facts.process}/${place}`, name: facts.program ?? facts.service ?? '', facts, rate: 0, links: [] }));
  last = next;
}

const isSlow = (plugin) => plugin.facts.slow_since !== null;
const labelOf = (item) => item.kind === 'plugin' ? `${item.name} #${item.facts.plugin_id}` : item.name;
function titleOf(item) {
  if (item.kind === 'launch') return `${item.name}: being launched`;
  const rate = item.rate ? `, ${perSecond(item.rate)} packets` : '';
  if (item.kind === 'service') return `${item.name}: ${item.state}${rate}`;
  return `${labelOf(item)}${isSlow(item) ? ', slow' : ''}${rate}`;
}

// --- The picture: columns of groups of what is alike, and bundles of links between the groups ---

const chosen = { key: null, words: '', zoom: 0 };
const elements = new Map();  // of cells and groups, by key
const groupOf = new Map();   // keys of groups by keys of cells

function element(key, make) {
  if (!elements.has(key)) elements.set(key, make());
  return elements.get(key);
}

function groupsOf(column, items, kindOf) {
  const groups = new Map();
  for (const item of items) {
    const name = kindOf(item);
    if (!groups.has(name)) groups.set(name, { key: `${column}:${name}`, name, items: [] });
    groups.get(name).items.push(item);
  }
  const all = [...groups.values()];
  if (all.length <= MOST_GROUPS) return all;
  const bySize = [...all].sort((a, b) => b.items.length - a.items.length);
  const kept = new Set(bySize.slice(0, MOST_GROUPS - 1));
  const others = { key: `${column}::`, name: `${all.length - kept.size} others`, items: all.filter((group) => !kept.has(group)).flatMap((group) => group.items) };
  return [...all.filter((group) => kept.has(group)), others];
}

function serviceKinds() {
  const alike = new Map(), pattern = (item) => item.name.replace(/\d+/g, '#');
  for (const item of hub.services.values()) alike.set(pattern(item), (alike.get(pattern(item)) ?? 0) + 1);
  return (item) => alike.get(pattern(item)) >= ALIKE ? pattern(item) : item.name;
}

function cellOf(item) {
  const cell = element(item.key, () => h('button', { type: 'button', tabindex: -1, 'data-key': item.key },
    h('span', { class: 'brief' }), h('span', { class: 'full' }), h('small')));
  const states = [item.kind];
  if (item.kind === 'plugin' && isSlow(item)) states.push('slow');
  if (item.kind === 'plugin' && !item.facts.negotiated || ['startable', 'withdrawn'].includes(item.state)) states.push('idle');
  if (item.kind === 'launch' || item.state === 'awaited') states.push(item.state ?? 'launch');
  if (!item.rate) states.push('calm');
  const picked = item.key === chosen.key;
  cell.className = `cell ${states.join(' ')}${picked || related.has(item.key) ? ' own' : ''}${isFound(item) ? ' found' : ''}`;
  cell.setAttribute('aria-pressed', picked);
  cell.style.setProperty('--heat', item.rate ? Math.min(.75, .2 + Math.log10(1 + item.rate) / 8).toFixed(2) : 0);
  const title = titleOf(item);
  if (cell.title !== title) { cell.title = title; cell.setAttribute('aria-label', title); }
  const [brief, full, small] = cell.children;
  brief.textContent = item.kind === 'plugin' ? item.facts.plugin_id : '';
  full.textContent = labelOf(item);
  small.textContent = item.kind === 'launch' ? 'launching' : item.rate ? perSecond(item.rate) : item.state === 'registered' || !item.state ? '' : item.state;
  return cell;
}

function drawColumn(id, groups) {
  sync($(id), groups.map((group) => {
    const box = element(group.key, () => h('div', { class: 'group', role: 'group' }, h('h3', {}, h('span'), h('small')), h('div', { class: 'cells' })));
    const [head, cells] = box.children;
    box.classList.toggle('alone', group.items.length === 1);
    box.setAttribute('aria-label', group.name);
    head.children[0].textContent = group.name;
    head.children[0].title = group.name;
    const rate = group.items.reduce((sum, item) => sum + item.rate, 0);
    head.children[1].textContent = `× ${group.items.length}${rate ? ` · ${perSecond(rate)}` : ''}`;
    sync(cells, group.items.map(cellOf));
    for (const item of group.items) groupOf.set(item.key, group.key);
    return box;
  }));
}

let related = new Set();
const isFound = (item) => chosen.words !== '' && `${labelOf(item)} ${item.kind === 'plugin' ? `#${item.facts.plugin_id}` : ''}`.toLowerCase().includes(chosen.words);
const itemOf = (key) => key === null ? undefined
  : key[0] === 'p' ? hub.plugins.get(Number(key.slice(1))) : key[0] === 's' ? hub.services.get(key.slice(1)) : hub.launches.find((launch) => launch.key === key);

function relatedTo(item) {
  const keys = new Set();
  if (!item) return keys;
  for (const link of item.links) for (const end of [link.requester, link.service, link.provider]) if (end) keys.add(end.key);
  if (item.kind === 'plugin') for (const service of item.services) keys.add(service.key);
  if (item.kind === 'service') for (const entry of item.entries) if (entry.plugin_id) keys.add(`p${entry.plugin_id}`);
  return keys;
}

function draw() {
  const item = itemOf(chosen.key), plugins = [...hub.plugins.values()];
  related = relatedTo(item);
  const size = plugins.length + hub.services.size;
  const level = Math.max(0, Math.min(3, (size <= 30 ? 3 : size <= 250 ? 2 : size <= 1500 ? 1 : 0) + chosen.zoom));
  $('picture').className = `level${level}${item ? ' picked' : ''}${chosen.words ? ' searched' : ''}`;
  groupOf.clear();
  const program = (plugin) => plugin.name;
  const provides = (plugin) => plugin.services.length > 0;
  drawColumn('asks', groupsOf('a', plugins.filter((plugin) => !provides(plugin)), program));
  drawColumn('services', groupsOf('s', [...hub.services.values()], serviceKinds()));
  drawColumn('provides', [...groupsOf('x', hub.launches, () => 'Launches'), ...groupsOf('p', plugins.filter(provides), program)]);
  for (const key of elements.keys()) if (!elements.get(key).isConnected) elements.delete(key);
  if (!document.querySelector('.cell[tabindex="0"]')) document.querySelector('.cell')?.setAttribute('tabindex', 0);
  drawEdges(item);
  drawFigures();
  drawPanel(item);
}

// A bundle for all links between two groups; with a cell picked, its own links from cell to cell.
function drawEdges(item) {
  const bundles = new Map();
  const bundle = (from, to, kind, rate, isOwn) => {
    if (!from || !to) return;
    const key = JSON.stringify([from, to, kind, isOwn]);
    const known = bundles.get(key) ?? { from, to, kind, isOwn, rate: 0, links: 0 };
    known.rate += rate;
    known.links += kind === 'quiet' ? 0 : 1;
    bundles.set(key, known);
  };
  const join = (a, b, kind, rate, isOwn) => bundle(isOwn ? a : groupOf.get(a), isOwn ? b : groupOf.get(b), kind, rate, isOwn);
  for (const isOwn of item ? [false, true] : [false]) {
    for (const link of isOwn ? item.links : hub.links) {
      if (link.requester) join(link.requester.key, link.service.key, 'asks', link.rate, isOwn);
      if (link.provider) join(link.service.key, link.provider.key, 'provides', link.rate, isOwn);
    }
    const services = !isOwn ? hub.services.values() : item.kind === 'service' ? [item] : item.services ?? [];
    for (const service of services)
      for (const entry of service.entries)
        if (entry.state === 'registered' && (!isOwn || item.kind === 'service' || entry.plugin_id === item.facts.plugin_id))
          join(service.key, `p${entry.plugin_id}`, 'quiet', 0, isOwn);
  }
  // Where there are links, that the service is provided needs no line of its own.
  for (const [key, edge] of bundles)
    if (edge.kind === 'quiet' && bundles.has(JSON.stringify([edge.from, edge.to, 'provides', edge.isOwn]))) bundles.delete(key);

  const origin = $('picture').getBoundingClientRect();
  const left = $('picture').scrollLeft - origin.left, top = $('picture').scrollTop - origin.top;
  const boxOf = (key) => elements.get(key).getBoundingClientRect();
  const paths = [];
  // The ends of bundles share a box's side, in the order in which their other ends stand.
  const sides = new Map();
  for (const edge of bundles.values()) {
    const from = boxOf(edge.from), to = boxOf(edge.to), forward = from.left <= to.left;
    edge.ends = [[edge.from, from, forward, to], [edge.to, to, !forward, from]].map(([key, box, isRight, other]) => {
      const end = { x: left + (isRight ? box.right : box.left), at: other.top + other.height / 2, box };
      const side = `${key}|${isRight}`;
      sides.set(side, [...sides.get(side) ?? [], end]);
      return end;
    });
  }
  for (const ends of sides.values()) {
    ends.sort((a, b) => a.at - b.at);
    ends.forEach((end, place) => { end.y = top + end.box.top + end.box.height * (place + 1) / (ends.length + 1); });
  }
  for (const edge of bundles.values()) {
    const [a, b] = edge.ends, bend = Math.max(24, Math.abs(b.x - a.x) / 2) * (a.x <= b.x ? 1 : -1);
    const path = document.createElementNS('http://www.w3.org/2000/svg', 'path');
    path.setAttribute('d', `M${a.x},${a.y}C${a.x + bend},${a.y} ${b.x - bend},${b.y} ${b.x},${b.y}`);
    path.setAttribute('class', `${edge.kind}${edge.isOwn ? ' own' : ''}`);
    path.setAttribute('stroke-width', edge.isOwn ? 1.5 : Math.min(12, 1.2 + Math.log10(1 + edge.rate) * 1.3 + Math.log10(1 + edge.links)).toFixed(1));
    paths.push(path);
  }
  $('edges').replaceChildren(...paths);
  $('edges').setAttribute('width', 0);
  $('edges').setAttribute('height', 0);
  $('edges').setAttribute('width', $('picture').scrollWidth);
  $('edges').setAttribute('height', $('picture').scrollHeight);
}

function drawFigures() {
  const slow = [...hub.plugins.values()].filter(isSlow).length;
  const figure = (value, text, kind) => h('li', { class: kind }, h('b', {}, `${value}`), ` ${value === 1 ? text.replace(/(?<=ch)es$|s$/, '') : text}`);
  $('title').textContent = `Hub on ${hub.facts.host ?? ''}:${hub.facts.port}`;
  document.title = $('title').textContent;
  $('figures').replaceChildren(
    figure(hub.plugins.size, 'plugins'), figure(hub.facts.services, 'services'), figure(hub.links.length, 'links'),
    figure(count(Math.round(hub.packetRate)), 'packets/s'), figure(`${bytes(Math.round(hub.byteRate))}/s`, ''),
    figure(slow, 'slow', slow ? 'slow' : 'none'), figure(hub.launches.length, 'launches', hub.launches.length ? 'launch' : 'none'));
}

// --- Details ---

const go = (item, text, small, kind) => h('button', { type: 'button', class: `go ${kind ?? ''}`, 'data-go': item.key, onclick: () => pick(item.key) }, h('span', {}, text), h('small', {}, small ?? ''));
const listOf = (title, items, make) => items.length === 0 ? [] : [h('h3', {}, `${title}: ${items.length}`), ...items.slice(0, MOST_LISTED).map(make),
  ...items.length > MOST_LISTED ? [h('p', { class: 'note' }, `and ${items.length - MOST_LISTED} more`)] : []];
const tableOf = (rows) => h('table', {}, h('tbody', {}, ...rows.filter(([, value]) => value !== null && value !== undefined && value !== '')
  .map(([name, value]) => h('tr', {}, h('td', {}, name), h('td', {}, `${value}`)))));
const busiest = (items) => [...items].sort((a, b) => b.rate - a.rate);

function hubDetails() {
  const facts = hub.facts, plugins = [...hub.plugins.values()];
  const of = (used, most) => `${used} of ${most}`;
  return [h('h2', {}, hub.facts.program ?? 'hublink'),
    ...listOf('Slow receivers', plugins.filter(isSlow), (plugin) => go(plugin, labelOf(plugin), `for ${age(plugin.facts.slow_since, hub.time)}, ${bytes(plugin.facts.queued_bytes)} wait`, 'bad')),
    ...listOf('Launches in hand', hub.launches, (launch) => go(launch, labelOf(launch), `for ${age(launch.facts.since, hub.time)}`, 'launching')),
    ...listOf('Busiest plugins', busiest(plugins.filter((plugin) => plugin.rate)).slice(0, 5), (plugin) => go(plugin, labelOf(plugin), perSecond(plugin.rate))),
    h('h3', {}, 'The hub'),
    tableOf([['version', facts.version], ['process', facts.process], ['up for', age(facts.since, hub.time)], ['record', facts.record], ['options', facts.options],
      ['internal log', facts.internal_log], ['negotiating', facts.negotiating], ['persistent', facts.persistent], ['waiting', facts.waiting], ['packets', count(facts.packets)], ['bytes', bytes(facts.bytes)],
      ['descriptors', of(facts.descriptors, facts.most_descriptors)], ['plugin IDs', of(facts.plugin_ids, facts.most_plugin_ids)], ['RNs', of(facts.rns, facts.most_rns)],
      ['stops when idle', facts.stops_when_idle ? 'yes' : null]])];
}

function linkLine(link, self) {
  const other = link.requester === self ? link.provider : link.requester;
  const text = self.kind === 'service' ? `${link.requester ? labelOf(link.requester) : '?'} → ${link.provider ? labelOf(link.provider) : '?'}`
    : `${link.requester === self ? 'asks' : 'provides'} ${link.service.name} ${link.requester === self ? 'of' : 'for'} ${other ? labelOf(other) : '?'}`;
  return go(self.kind === 'service' ? link.requester ?? self : other ?? self, text, `${perSecond(link.rates[0])} → ← ${perSecond(link.rates[1])}`);
}

function pluginDetails(plugin) {
  const facts = plugin.facts, waitsFor = hub.plugins.get(facts.waits_for);
  return [h('h2', {}, labelOf(plugin)),
    ...isSlow(plugin) ? [h('p', { class: 'bad' }, `slow for ${age(facts.slow_since, hub.time)}: ${bytes(facts.queued_bytes)} wait to be written, ${facts.stalled} plugins aren't read because of it`)] : [],
    tableOf([['packets', `${perSecond(plugin.rates[0])} from it, ${perSecond(plugin.rates[1])} to it`], ['bytes', `${bytes(Math.round(plugin.rates[2]))}/s from it, ${bytes(Math.round(plugin.rates[3]))}/s to it`],
      ['in all', `${count(facts.sent_packets)} from it, ${count(facts.received_packets)} to it`], ['here for', age(facts.since, hub.time)], ['process', facts.process], ['user', facts.user], ['road', facts.road], ['address', facts.address],
      ['launched', facts.launched ? 'by the hub' : null], ['negotiated', facts.negotiated ? null : 'not yet'], ['keeps the hub up', facts.persistent ? 'yes' : 'no'], ['works in', facts.working_dir], ['interface', facts.version],
      ['waiting', facts.waiting || null], ['queued', bytes(facts.queued_bytes)], ['waits for', waitsFor && labelOf(waitsFor)]]),
    ...listOf('Provides', plugin.services, (service) => go(service, service.name, service.rate ? perSecond(service.rate) : '')),
    ...listOf('Links', busiest(plugin.links), (link) => linkLine(link, plugin))];
}

function serviceDetails(service) {
  const first = service.entries[0];
  const providers = service.entries.map((entry) => hub.plugins.get(entry.plugin_id)).filter(Boolean);
  return [h('h2', {}, service.name),
    tableOf([['state', service.state], ['packets', perSecond(service.rate)], ['waiting', first?.waiting || null], ['program', first?.program], ['described in', first?.file]]),
    ...listOf('Provided by', providers, (plugin) => go(plugin, labelOf(plugin))),
    ...listOf('Links', busiest(service.links), (link) => linkLine(link, service))];
}

const launchDetails = ({ facts }) => [h('h2', {}, facts.program ?? ''),
  tableOf([['service', facts.service], ['process', facts.process], ['begun', `${age(facts.since, hub.time)} ago`], ['time left', facts.until && age(hub.time, facts.until)], ['waiting', facts.waiting]])];

function drawPanel(item) {
  const panel = $('panel'), selection = document.getSelection();
  if (!selection.isCollapsed && panel.contains(selection.anchorNode)) return;  // somebody copies from it
  const focused = panel.contains(document.activeElement) ? document.activeElement.dataset.go : undefined;
  const details = { plugin: pluginDetails, service: serviceDetails, launch: launchDetails };
  panel.replaceChildren(...item ? details[item.kind](item) : chosen.key ? [h('h2', {}, 'It has gone.')] : hubDetails());
  if (focused) (panel.querySelector(`[data-go="${CSS.escape(focused)}"]`) ?? panel).focus();
}

function pick(key) {
  chosen.key = key;
  const cell = key && elements.get(key);
  if (cell) focusOn(cell, false);
  draw();
}

// --- Events ---

const events = [];
let eventNow = 0;

function addEvent(event) {
  const kind = /slow|failed/.test(event.kind) ? 'bad' : /launch|asked/.test(event.kind) ? 'launching' : '';
  const who = [event.plugin_id, event.other_id].filter((id) => id !== null).map((id) => `#${id}`).join(' and ');
  const text = [who, event.text, event.detail].filter(Boolean).join('  ');
  const row = h('li', { onclick: () => event.plugin_id !== null && pick(`p${event.plugin_id}`) },
    h('time', {}, clock(event.time)), h('span', {}, h('b', { class: kind }, event.kind), `  ${text}`));
  events.unshift(row);
  const note = event.lost ? h('li', { class: 'note' }, `${event.lost} events were lost`) : null;
  if (note) events.splice(1, 0, note);
  events.length = Math.min(events.length, MOST_EVENTS);
  scheduleEvents();
}
let eventsScheduled = false;
function scheduleEvents() {
  if (eventsScheduled) return;
  eventsScheduled = true;
  requestAnimationFrame(() => { eventsScheduled = false; sync($('events'), events); });
}

// --- Keys and mouse ---

function focusOn(cell, moves = true) {
  document.querySelector('.cell[tabindex="0"]')?.setAttribute('tabindex', -1);
  cell.setAttribute('tabindex', 0);
  if (moves) cell.focus();
}

// The nearest cell in a direction; what lies off it counts as farther away.
function neighbour(cell, dx, dy) {
  const centre = (each) => { const box = each.getBoundingClientRect(); return [box.left + box.width / 2, box.top + box.height / 2]; };
  const [x, y] = centre(cell);
  let best = null, least = Infinity;
  for (const other of document.querySelectorAll('.cell')) {
    const [ox, oy] = centre(other);
    const ahead = (ox - x) * dx + (oy - y) * dy, aside = Math.abs((ox - x) * dy) + Math.abs((oy - y) * dx);
    if (ahead > 2 && ahead + 3 * aside < least) { least = ahead + 3 * aside; best = other; }
  }
  return best;
}

const ARROWS = { ArrowLeft: [-1, 0], ArrowRight: [1, 0], ArrowUp: [0, -1], ArrowDown: [0, 1] };
$('picture').addEventListener('keydown', (event) => {
  const cell = event.target.closest('.cell'), arrow = ARROWS[event.key];
  if (!cell || !arrow) return;
  event.preventDefault();
  const next = neighbour(cell, ...arrow);
  if (next) focusOn(next);
});
$('picture').addEventListener('click', (event) => {
  const cell = event.target.closest('.cell');
  pick(cell ? cell.dataset.key : null);
});
$('events').addEventListener('keydown', (event) => {
  const move = event.key === 'ArrowDown' ? 1 : event.key === 'ArrowUp' ? -1 : 0;
  if (event.key === 'Enter') events[eventNow]?.click();
  if (!move) return;
  event.preventDefault();
  events[eventNow]?.classList.remove('now');
  eventNow = Math.max(0, Math.min(events.length - 1, eventNow + move));
  events[eventNow]?.classList.add('now');
  events[eventNow]?.scrollIntoView({ block: 'nearest' });
});
function zoom(step) {
  chosen.zoom = Math.max(-3, Math.min(3, chosen.zoom + step));
  draw();
}
$('smaller').addEventListener('click', () => zoom(-1));
$('larger').addEventListener('click', () => zoom(1));
$('search').addEventListener('input', () => { chosen.words = $('search').value.trim().toLowerCase(); draw(); });
document.addEventListener('keydown', (event) => {
  if (event.key === 'Escape') {
    $('search').value = chosen.words = '';
    pick(null);
  }
  if (event.target === $('search') || event.ctrlKey || event.metaKey || event.altKey) return;
  if (event.key === '/') { event.preventDefault(); $('search').focus(); }
  if (event.key === '+' || event.key === '-') zoom(event.key === '+' ? 1 : -1);
});
window.addEventListener('resize', () => hub.facts && drawEdges(itemOf(chosen.key)));

// --- Asking ---

function trouble(text) {
  $('trouble').hidden = text === '';
  if ($('trouble').textContent !== text) $('trouble').textContent = text;
}

async function ask() {
  let begin = performance.now();
  try {
    const answer = await fetch('/api/all');
    if (!answer.ok) throw new Error();
    begin = performance.now();
    take(await answer.json());
    trouble('');
    draw();
  } catch (error) {
    if (error instanceof TypeError && error.message !== 'Failed to fetch') console.error(error);
    trouble('There is no answer: the hub or “hublinkctl serve” has gone. What is shown is old.');
  }
  setTimeout(askIfSeen, Math.max(STEP, 4 * (performance.now() - begin)));  // a large hub less often
}
function askIfSeen() {
  if (document.hidden) document.addEventListener('visibilitychange', askIfSeen, { once: true });
  else ask();
}

const source = new EventSource('/api/events');
source.onmessage = (message) => addEvent(JSON.parse(message.data));
source.addEventListener('lost', (message) => { events.unshift(h('li', { class: 'note' }, `${message.data} events were lost`)); scheduleEvents(); });
ask();
