'use strict';
// The page asks the host that serves it, or finds the answers in itself: then it is a report.
const data = JSON.parse(document.getElementById('data').textContent);
const report = !('DATA' in data);
const byId = (id) => document.getElementById(id);
const kShown = 400;  // nodes drawn at once: more are found by searching
const kAskAgainMs = 5000;

// An element with attributes and children. Texts become text nodes, whatever is in them.
function make(name, attributes, ...children) {
  const svg = ['svg', 'g', 'a', 'rect', 'path', 'text', 'title'].includes(name) &&
      attributes && attributes.svg;
  const element =
      svg ? document.createElementNS('http://www.w3.org/2000/svg', name) : document.createElement(name);
  for (const [key, value] of Object.entries(attributes || {})) {
    if (key !== 'svg') element.setAttribute(key, value);
  }
  element.append(...children.filter((child) => child !== null));
  return element;
}

async function ask(path) {
  if (report) {
    if (path in data) return data[path];
    throw new Error('The report does not have this.');
  }
  const answer = await fetch(path, {cache: 'no-store'});
  if (!answer.ok) throw new Error((await answer.text()).trim().replace(/^polctl: error: /, ''));
  return answer.json();
}

const grouped = (number) => number === null ? '' : number.toLocaleString('en-US');
const count = (number, what) => `${grouped(number)} ${what}${number === 1 ? '' : 's'}`;

function table(heading, rows) {
  const cell = (kind, column, content) =>
      make(kind, column.number ? {class: 'number'} : null, content);
  return [
    make('thead', null, make('tr', null, ...heading.map((column) => cell('th', column, column.title)))),
    make('tbody', null,
         ...rows.map((row) => make('tr', null, ...row.map((content, i) => cell('td', heading[i], content))))),
  ];
}

function showStatus(status) {
  const rows = [];
  const tile = (title, value, more) => rows.push(
      make('div', null, make('dt', null, title), make('dd', null, value, more ? make('small', null, more) : null)));
  byId('source').textContent = report ? `report of ${status.source}` : `host, version ${status.version}`;
  if (report) {
    tile('policies', grouped(status.policies));
    tile('lists and objects', grouped(status.objects));
    byId('worker').parentNode.remove();
  } else {
    const counts = status.counts;
    const last = status.last_commit;
    tile('agent', `port ${status.agent.port}`, status.agent.inside ? 'in the host' : 'its own process');
    const when = (time) => time.replace('T', ' ').replace('Z', '');
    tile('last commit', last ? `${last.number}` : 'none', last ? when(last.time) : 'since the start');
    tile('commits', grouped(counts.commits), count(counts.changes, 'change'));
    tile('callbacks', grouped(counts.routing_callbacks + counts.forwarding_callbacks),
         `${grouped(counts.routing_callbacks)} for routing`);
    if (status.routes) {
      tile('routes', grouped(status.routes), `${count(counts.answers_changed, 'answer')} changed`);
    }
    tile('document', count(status.document.bytes, 'byte'),
         status.document.fetching ? 'the next is being fetched' : `last in ${counts.document_ms.last.toFixed(1)} ms`);
    tile('agent sessions', status.agent.sessions === null ? 'not known' : grouped(status.agent.sessions));
    tile('requests', grouped(counts.requests), `${grouped(counts.refused)} refused`);
    tile('up since', when(status.started).split(' ')[0], `${when(status.started).split(' ')[1]} UTC`);
    const heading = [{title: 'worker'}];
    for (const title of ['requests', 'retries', 'dropped', 'waiting', 'first waits']) heading.push({title, number: true});
    byId('worker').replaceChildren(...table(heading, status.worker.map((queue) => [
      queue.queue, grouped(queue.requests), grouped(queue.retries), grouped(queue.dropped), grouped(queue.waiting),
      queue.waiting ? `${(queue.first_ms / 1000).toFixed(1)} s` : ''])));
  }
  byId('tiles').replaceChildren(...rows);
  const missing = (status.absent || []).concat(status.awaited || []);
  byId('alarm').textContent = missing.length ? `not configured: ${missing.join(', ')}` : '';
}

// The graph: users, policies and what they use, each a column. What is in a policy counts as it.
const graph = {nodes: [], edges: [], chosen: null};

function readGraph(given) {
  const owner = (id) => {
    let node = given.nodes[id];
    while (node.in !== undefined) node = given.nodes[node.in];
    return node.id;
  };
  const column = (type) => type.endsWith('policy') || type === 'cflowd-template' ? 'policy' :
      type === 'user' || type === 'list user' ? 'user' : 'list';
  graph.nodes = given.nodes.filter((node) => node.in === undefined)
      .map((node) => ({...node, name: node.name || '', column: column(node.type)}));
  const edges = new Map();
  for (const edge of given.edges) {
    if (edge.from === null) continue;
    const from = owner(edge.from);
    const to = owner(edge.to);
    if (from === to) continue;
    const key = `${from} ${to}`;
    const set = ['set', 'policer', 'SLA class'].includes(edge.role);
    const known = edges.get(key) || {from, to, set: true, places: []};
    known.set = known.set && set;
    const place = given.nodes[edge.from];
    known.places.push({role: edge.role, sequence: place.sequence,
                       vpn: place.in !== undefined && place.in !== from ? given.nodes[place.in].name : null});
    edges.set(key, known);
  }
  graph.edges = [...edges.values()];
}

const nodeKey = (node) => `#${encodeURIComponent(node.type)}/${encodeURIComponent(node.name)}`;
const nodeById = (id) => graph.nodes.find((node) => node.id === id);
const neighbours = (node) => new Set(graph.edges.flatMap(
    (edge) => edge.from === node.id ? [edge.to] : edge.to === node.id ? [edge.from] : []));

function found() {
  const words = byId('search').value.toLowerCase().split(/\s+/).filter(Boolean);
  if (!words.length) return null;
  return new Set(graph.nodes.filter((node) => {
    const text = `${node.type} ${node.name} ${node.state || ''}`.toLowerCase();
    return words.every((word) => text.includes(word));
  }).map((node) => node.id));
}

// What was searched for and what it touches; else the first of all.
function visible(hits) {
  let nodes = graph.nodes;
  if (hits) {
    const near = new Set(hits);
    for (const edge of graph.edges) {
      if (hits.has(edge.from)) near.add(edge.to);
      if (hits.has(edge.to)) near.add(edge.from);
    }
    nodes = nodes.filter((node) => near.has(node.id));
  }
  return nodes.slice(0, kShown);
}

function draw() {
  const hits = found();
  const nodes = visible(hits);
  const width = Math.max(byId('drawing').clientWidth, 300);
  const names = {user: 'users', policy: 'policies', list: 'lists and objects'};
  const columns = (width < 620 ? ['policy', 'list'] : ['user', 'policy', 'list'])
      .filter((column) => nodes.some((node) => node.column === column));
  const gap = width < 620 ? 46 : 90;
  const box = Math.min(300, Math.floor((width - 4 - gap * (columns.length - 1)) / Math.max(columns.length, 1)));
  const step = 32;
  const places = new Map();
  let height = 0;
  columns.forEach((column, i) => {
    nodes.filter((node) => node.column === column).forEach((node, row) => {
      places.set(node.id, {x: 2 + i * (box + gap), y: 24 + row * step});
      height = Math.max(height, 24 + (row + 1) * step);
    });
  });
  const chosen = graph.chosen && places.has(graph.chosen.id) ? graph.chosen : null;
  const lit = chosen ? neighbours(chosen).add(chosen.id) : hits;
  const drawing = make('svg', {svg: 1, width, height, role: 'group', 'aria-label': 'what uses what'});
  columns.forEach((column, i) => drawing.append(
      make('text', {svg: 1, class: 'head', x: 2 + i * (box + gap), y: 14}, names[column])));
  for (const edge of graph.edges) {
    const a = places.get(edge.from);
    const b = places.get(edge.to);
    if (!a || !b) continue;
    const dead = nodeById(edge.to).state === 'undefined';
    const bright = chosen ? edge.from === chosen.id || edge.to === chosen.id :
                            hits && (hits.has(edge.from) || hits.has(edge.to));
    const shade = bright ? 'lit' : lit ? 'faint' : '';
    const x = a.x + box;
    const bend = Math.max((b.x - x) / 2, 12);
    drawing.append(make('path', {
      svg: 1, class: `${edge.set ? 'set' : 'match'} ${dead ? 'dead' : ''} ${shade}`,
      d: `M${x} ${a.y + 13}C${x + bend} ${a.y + 13} ${b.x - bend} ${b.y + 13} ${b.x} ${b.y + 13}`}));
  }
  const room = Math.max(Math.floor((box - 16) / 7.2), 4);
  for (const node of nodes) {
    const place = places.get(node.id);
    if (!place) continue;
    const cut = node.name.length > room ? `${node.name.slice(0, room - 1)}…` : node.name;
    const label = `${node.type} ${node.name}${node.state ? `, ${node.state}` : ''}`;
    const shade = lit && !lit.has(node.id) ? 'faint' : chosen === node ? 'chosen' : '';
    drawing.append(make(
        'a', {svg: 1, href: nodeKey(node), class: `${node.column} ${node.state || ''} ${shade}`, 'aria-label': label},
        make('title', {svg: 1}, label),
        make('rect', {svg: 1, x: place.x, y: place.y, width: box, height: 26, rx: 5}),
        make('text', {svg: 1, x: place.x + 8, y: place.y + 17}, cut)));
  }
  byId('drawing').replaceChildren(drawing);
  const left = graph.nodes.length - nodes.length;
  byId('found').textContent = hits ? `${count(hits.size, 'hit')}` :
      left > 0 ? `${count(left, 'more')}: search to see them`.replace('mores', 'more') : '';
  const states = ['undefined', 'unused'].map((state) => [state, graph.nodes.filter((node) => node.state === state).length])
                     .filter(([, number]) => number > 0).map(([state, number]) => `${number} ${state}`);
  byId('legend').textContent =
      ['grey lines: matched', 'blue: set', 'dashed red: undefined', 'dotted: unused', ...states].join(' · ');
}

function link(node) {
  return make('a', {href: nodeKey(node)}, `${node.type} ${node.name}`);
}

function users(node) {
  const items = graph.edges.filter((edge) => edge.to === node.id).map((edge) => {
    const places = edge.places.filter((place) => place.sequence !== undefined).map(
        (place) => `${place.vpn ? `${place.vpn} ` : ''}${place.sequence} (${place.role})`);
    const more = places.length > 8 ? `, and ${places.length - 8} more` : '';
    return make('li', null, link(nodeById(edge.from)),
                places.length ? `: sequence ${places.slice(0, 8).join(', ')}${more}` : '');
  });
  return items.length ? make('ul', null, ...items) : make('p', {class: 'soft'}, 'nobody');
}

async function policyDetail(node) {
  const all = await ask(`/api/policy?name=${encodeURIComponent(node.name)}`);
  const policy = all.find((each) => each.kind === node.type) || all[0];
  const counted = policy.sequences.some((row) => row.accepted !== null) ||
      (policy.default && policy.default.accepted !== null);
  const inVpns = policy.sequences.some((row) => row['vpn-list'] !== null);
  const heading = [];
  if (inVpns) heading.push({title: 'VPN list'});
  heading.push({title: 'sequence', number: true}, {title: 'action'});
  if (counted) heading.push({title: 'accepted', number: true}, {title: 'rejected', number: true});
  heading.push({title: 'match'}, {title: 'set'});
  const row = (number, each) => {
    const cells = inVpns ? [each['vpn-list'] || ''] : [];
    cells.push(number, make('span', {class: each.action}, each.action));
    if (counted) cells.push(grouped(each.accepted), grouped(each.rejected));
    cells.push((each.match || []).join(', '), (each.set || []).join(', '));
    return cells;
  };
  const rows = policy.sequences.map((each) => row(String(each.sequence ?? 'default'), each));
  if (policy.default) rows.push(row('default', policy.default));
  const parts = policy.settings.map((setting) => make('p', null, setting));
  if (rows.length) parts.push(make('div', {class: 'scroll'}, make('table', null, ...table(heading, rows))));
  for (const name of policy.undefined) parts.push(make('p', {class: 'error'}, `undefined: ${name}`));
  return parts;
}

async function choose(node, move) {
  graph.chosen = node;
  byId('board').classList.toggle('open', node !== null);
  draw();
  if (!node) return;
  const detail = byId('detail');
  const close = make('button', {type: 'button', class: 'close', 'aria-label': 'close'}, '×');
  close.addEventListener('click', () => { location.hash = '#graph'; });
  const parts = [close, make('h3', null, `${node.type} ${node.name}`)];
  const facts = [];
  if (node.elements) facts.push(count(node.elements, 'element'));
  if (node.state) facts.push(node.state);
  if (node.direction) facts.push(`direction ${node.direction}`);
  if (facts.length) parts.push(make('p', {class: 'soft'}, facts.join(', ')));
  if (node.column === 'policy') {
    try {
      parts.push(...await policyDetail(node));
    } catch (error) {
      parts.push(make('p', {class: 'error'}, error.message));
    }
  }
  if (node.column !== 'user') parts.push(make('p', null, 'Used by'), users(node));
  const used = graph.edges.filter((edge) => edge.from === node.id).map((edge) => make('li', null, link(nodeById(edge.to))));
  if (used.length) parts.push(make('p', null, 'Uses'), make('ul', null, ...used));
  if (graph.chosen !== node) return;
  detail.replaceChildren(...parts);
  if (move) detail.focus({preventScroll: window.innerWidth >= 960});
}

function followHash() {
  const [type, name] = location.hash.slice(1).split('/').map(decodeURIComponent);
  if (name === undefined && type !== 'graph') return;
  choose(graph.nodes.find((node) => node.type === type && node.name === name) || null, true);
}

async function showGraph() {
  readGraph(await ask('/api/graph'));
  const select = byId('policy');
  const before = select.value;
  select.replaceChildren(...graph.nodes
      .filter((node) => ['control-policy', 'membership-policy'].includes(node.type) && node.state !== 'undefined')
      .map((node) => make('option', {value: `${node.type} ${node.name}`}, node.name)));
  if ([...select.options].some((option) => option.value === before)) select.value = before;
  const key = graph.chosen && nodeKey(graph.chosen);
  graph.chosen = null;
  if (key) choose(graph.nodes.find((node) => nodeKey(node) === key) || null, false);
  else draw();
}

function values(set) {
  return Object.entries(set).map(([name, value]) => `${name} ${typeof value === 'object' ? Object.values(value).join(' ') : value}`);
}

function showVerdict(answer) {
  const steps = (answer.steps || []).filter((step) => !step.decided).map((step) => make(
      'li', step.held ? {class: 'held'} : null, make('b', null, `sequence ${step.sequence}`),
      ` ${step.held ? 'holds' : 'fails'}: ${step.reason || step.clause.toLowerCase()}`));
  const by = answer.sequence === null ? 'the default action' : `sequence ${answer.sequence}`;
  const set = [...values(answer.set || {}), ...(answer.tlocs || []).map((tloc) => `tloc ${Object.values(tloc).join(' ')}`),
               ...(answer.vpns || []).map((range) => `vpn ${range.join('-')}`)];
  const decided = make('li', {class: 'decides'}, make('span', {class: answer.action}, answer.action), ` by ${by}`,
                       set.length ? make('div', null, `sets ${set.join(', ')}`) : null,
                       ...(answer.idle || []).map((idle) => make('div', {class: 'soft'}, `not set: ${idle.clause}, ${idle.reason}`)));
  byId('verdict').replaceChildren(make('ol', {class: 'steps'}, ...steps, decided));
}

async function explain(event) {
  event.preventDefault();
  const field = (id) => byId(id).value.trim();
  const [type, ...name] = byId('policy').value.split(' ');
  const route = ['prefix', 'vpn', 'site', 'tag'].filter((id) => field(id)).map((id) => `${id}=${field(id)}`);
  if (field('more')) route.push(field('more'));
  const kind = type === 'membership-policy' ? 'membership' : 'route';
  if (kind === 'membership') route.unshift('type=service');
  const query = new URLSearchParams({policy: name.join(' '), kind, direction: field('direction'), route: route.join(',')});
  try {
    const answer = await ask(`/api/eval?${query}`);
    showVerdict(answer);
  } catch (error) {
    byId('verdict').replaceChildren(make('p', {class: 'error'}, error.message));
  }
}

async function showFindings() {
  const list = byId('findings-list');
  try {
    const answer = await ask('/api/check');
    if (!answer.ready) setTimeout(showFindings, 400);
    if (!answer.ready && !answer.findings.length) return list.replaceChildren(make('p', {class: 'soft'}, 'being looked for …'));
    list.replaceChildren(...answer.findings.map((finding) => make(
        'article', null, make('p', null, make('span', {class: finding.severity}, finding.severity), ` ${finding.what}`,
                              finding.expected ? ` (expected ${finding.expected})` : ''),
        make('p', {class: 'path soft'}, finding.path))));
    if (!answer.findings.length) list.append(make('p', {class: 'soft'}, 'none'));
  } catch (error) {
    list.replaceChildren(make('p', {class: 'error'}, error.message));
  }
}

function showCommits(commits) {
  const list = byId('commits-list');
  list.replaceChildren(...commits.slice().reverse().map((commit) => {
    const who = commit.user ? ` by ${commit.user}${commit.client ? ` (${commit.client})` : ''}` : '';
    const lines = (commit.lines || commit.changed).map((line) => make(
        'span', line.startsWith('+') ? {class: 'add'} : line.startsWith('-') ? {class: 'del'} : null, line));
    return make('article', null,
                make('p', null, make('b', null, `commit ${commit.number}`), ` ${commit.time.replace('T', ' ').replace('Z', ' UTC')}${who}`),
                commit.comment ? make('p', null, commit.comment) : null,
                make('p', {class: 'soft'}, `called back: ${commit.called.join(', ') || 'nobody'}`),
                lines.length ? make('pre', {tabindex: 0}, ...lines) : null);
  }));
  if (!commits.length) list.append(make('p', {class: 'soft'}, 'none since the start'));
}

let told = null;
async function refresh() {
  try {
    const status = await ask('/api/status');
    showStatus(status);
    const last = JSON.stringify(status.last_commit && status.last_commit.number);
    if (told !== last) {
      await showGraph();
      showFindings();
    }
    if (!report) showCommits(await ask('/api/commits'));
    told = last;
  } catch (error) {
    byId('alarm').textContent = `The host does not answer: ${error.message}`;
  }
}

async function begin() {
  if (report) {
    for (const id of ['explain', 'commits']) {
      byId(id).remove();
      document.querySelector(`nav a[href="#${id}"]`).remove();
    }
    byId('policy') || document.body.append(make('select', {id: 'policy', hidden: ''}));
  } else {
    byId('question').addEventListener('submit', explain);
    setInterval(() => { if (!document.hidden) refresh(); }, kAskAgainMs);
  }
  byId('search').addEventListener('input', draw);
  byId('search').addEventListener('keydown', (event) => {
    const hits = found();
    if (event.key === 'Enter' && hits && hits.size) location.hash = nodeKey(nodeById([...hits][0]));
  });
  window.addEventListener('resize', draw);
  window.addEventListener('hashchange', followHash);
  await refresh();
  followHash();
  document.body.dataset.ready = 'yes';
}
begin();
