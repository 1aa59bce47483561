// The console: asks the node that served it every two seconds, and draws what is asked for. Needs nothing else.
import { drawChart, formatNumber, sparkline } from './chart.js';

const INTERVAL_MS = 2000, KEEP = 120;
const LIST_LINES_MAX = 200000, SUGGESTIONS_MAX = 50;
const SPANS = [60, 300, 3600, 86400];
const CELLS_WANTED = 400;
const READ_QUEUES = ['velmar_rest_raw_get', 'velmar_db_ranged_nnt', 'velmar_rollup_proxy_get'];
const $ = (id) => document.getElementById(id);

async function ask(path) {
  const response = await fetch(path, { cache: 'no-store' });
  const text = await response.text();
  if (response.ok) return text;
  let reason = `${response.status} ${response.statusText}`;
  try { reason = JSON.parse(text).error ?? reason; } catch { /* not JSON: the status will do */ }
  throw Object.assign(new Error(reason), { status: response.status });
}

// ---- figures

const rates = new Map();  // title to { last, at, history }
function rate(title, total) {
  const now = performance.now(), known = rates.get(title);
  const next = known ?? { history: [] };
  if (known && total >= known.last) next.history.push(((total - known.last) * 1000) / (now - known.at));
  next.history.splice(0, next.history.length - KEEP);
  Object.assign(next, { last: total, at: now });
  rates.set(title, next);
  return next.history;
}

function sumOf(stats, name, tag) {
  let sum = 0;
  for (const [key, leaf] of Object.entries(stats))
    if (key.startsWith(name + '|') && key.includes(tag)) sum += Number(leaf._value) || 0;
  return sum;
}

function tile(title, text, history) {
  let box = document.querySelector(`[data-title="${title}"]`);
  if (!box) {
    box = document.createElement('div');
    box.className = 'tile';
    box.dataset.title = title;
    box.innerHTML = '<span></span><b></b>';
    box.firstChild.textContent = title;
    if (history) box.append(document.createElementNS('http://www.w3.org/2000/svg', 'svg'));
    $('tiles').append(box);
  }
  box.querySelector('b').textContent = text;
  if (history?.length > 1) sparkline(box.querySelector('svg'), history);
}

function duration(seconds) {
  const parts = [[86400, 'd'], [3600, 'h'], [60, 'min'], [1, 's']];
  const at = Math.max(0, parts.findIndex(([size]) => seconds >= size));
  const [size, unit] = parts[at], [small, smallUnit] = parts[at + 1] ?? [];
  const rest = small ? Math.floor((seconds % size) / small) : 0;
  return `${Math.floor(seconds / size)} ${unit}` + (rest ? ` ${rest} ${smallUnit}` : '');
}

const microseconds = (us) => (us >= 1e6 ? `${(us / 1e6).toFixed(1)} s` : us >= 1000 ? `${(us / 1000).toFixed(1)} ms` : `${Math.round(us)} µs`);

function row(cells) {
  const line = document.createElement('tr');
  cells.forEach((cell) => {
    const field = line.insertCell();
    field.textContent = cell;
    if (typeof cell === 'number' || /^[\d.]+ (?:[mµ]?s|%)$/.test(cell)) field.className = 'number';
  });
  return line;
}

function showQueues(capa) {
  const busy = Object.entries(capa.jobqs).filter(([, queue]) => queue.total > 0);
  busy.sort((a, b) => b[1].backlog - a[1].backlog || b[1].total - a[1].total);
  $('queues').replaceChildren(...busy.slice(0, 12).map(([name, queue]) =>
    row([name, queue.backlog, queue.in_flight, queue.total, microseconds(queue.wait_p99_us), microseconds(queue.run_p99_us)])));
}

let shown = '';
async function showTopology(signature) {
  if (shown === signature) return;
  const parse = async (path) => new DOMParser().parseFromString(await ask(path), 'text/xml');
  const [topology, ring] = await Promise.all([parse(`/topology/xml/${signature}`), parse(`/toporing/xml/${signature}`)]);
  const points = [...ring.querySelectorAll('vnode')].map((point) => [Number(point.getAttribute('location')), point.getAttribute('id')]);
  points.sort((a, b) => a[0] - b[0]);
  const shares = new Map();
  points.forEach(([at, id], i) => {
    const before = i ? points[i - 1][0] : points[points.length - 1][0] - 100;
    shares.set(id, (shares.get(id) ?? 0) + at - before);
  });
  $('signature').textContent = signature;
  $('nodes').replaceChildren(...[...topology.querySelectorAll('node')].map((node) => {
    const id = node.getAttribute('id');
    return row([id, `${node.getAttribute('address')}:${node.getAttribute('apiport')}`, Number(node.getAttribute('weight')),
      `${(shares.get(id) ?? 0).toFixed(1)} %`]);
  }));
  shown = signature;
}

async function refresh() {
  try {
    const [state, stats, capa] = (await Promise.all(['/state', '/stats.json?format=tagged', '/capa'].map(ask))).map((text) => JSON.parse(text));
    const ingested = rate('samples', sumOf(stats, 'tuples', 'operation:put'));
    const reads = rate('reads', READ_QUEUES.reduce((sum, name) => sum + (capa.jobqs[name]?.total ?? 0), 0));
    const perSecond = (history) => (history.length ? formatNumber(Math.round(history[history.length - 1] * 10) / 10) : '–');
    tile('Samples a second', perSecond(ingested), ingested);
    tile('Reads a second', perSecond(reads), reads);
    tile('Metrics seen since the start', formatNumber(sumOf(stats, 'be`raw`known_metrics', '')));
    tile('Memory and mapped files, peak', `${formatNumber(Math.round(state['rusage.maxrss'] / 1024))} MiB`);
    tile('Requests under way', formatNumber(capa.requests_in_flight));
    tile('Up for', duration(sumOf(stats, 'uptime', '')));
    showQueues(capa);
    await showTopology(state.current);
    $('health').textContent = 'serving';
    $('health').className = 'badge good';
    $('identity').textContent = `node ${state.identity}, version ${state.version.slice(0, 12)}`;
  } catch (error) {
    $('health').textContent = `no answer: ${error.message}`;
    $('health').className = 'badge bad';
  }
  setTimeout(refresh, INTERVAL_MS);
}

// ---- metrics

let listing = null;  // the walk over the names that is under way
// Names that hold the text, read off the stream until there are enough.
async function findNames(text) {
  listing?.abort();
  const controller = listing = new AbortController();
  const found = [], wanted = text.toLowerCase();
  const response = await fetch('/raw/list_metrics', { signal: controller.signal });
  const reader = response.body.pipeThrough(new TextDecoderStream()).getReader();
  let rest = '', lines = 0;
  for (;;) {
    const { value, done } = await reader.read();
    const parts = (rest + (value ?? '')).split('\n');
    rest = parts.pop();
    for (const part of parts) {
      lines++;
      const quoted = part.trim().replace(/,$/, '');
      if (!quoted.startsWith('"') || !quoted.toLowerCase().includes(wanted)) continue;
      found.push(JSON.parse(quoted));
      if (found.length >= SUGGESTIONS_MAX) break;
    }
    if (done || found.length >= SUGGESTIONS_MAX || lines >= LIST_LINES_MAX) break;
  }
  controller.abort();
  return found;
}

let waiting = null;
$('metric').addEventListener('input', () => {
  clearTimeout(waiting);
  const text = $('metric').value;
  if ([...$('known').options].some((option) => option.value === text)) return;
  waiting = setTimeout(async () => {
    try {
      const names = await findNames(text);
      $('known').replaceChildren(...names.map((name) => new Option(name, name)));
    } catch (error) {
      if (error.name !== 'AbortError') $('message').textContent = error.message;
    }
  }, 250);
});

// Cells of a period the node keeps, not many more than the chart has room for.
const spanFor = (range) => SPANS.find((span) => range / span <= CELLS_WANTED) ?? SPANS[SPANS.length - 1];

async function draw(event) {
  event?.preventDefault();
  const key = $('metric').value.trim(), range = Number($('range').value), type = $('type').value;
  $('message').textContent = '';
  $('figure').hidden = true;
  if (!key) return;
  const parts = /^([0-9a-f]{8}(?:-[0-9a-f]{4}){3}-[0-9a-f]{12})-(.+)$/i.exec(key);
  if (!parts) {
    $('message').textContent = 'A metric is written uuid-name: choose one from the list, which follows what you type.';
    return;
  }
  location.hash = new URLSearchParams({ metric: key, range, type }).toString();
  const span = spanFor(range), end = Math.ceil(Date.now() / 1000 / span) * span, start = end - Math.ceil(range / span) * span;
  const query = new URLSearchParams({ start_ts: start, end_ts: end, rollup_span: `${span}s`, type });
  try {
    const points = JSON.parse(await ask(`/rollup/${parts[1]}/${encodeURIComponent(parts[2])}?${query}`));
    if (!points.some((point) => point[1] !== null)) {
      $('message').textContent = `No data of ${key} in this range: the metric does not exist, or nothing was sent for it.`;
      return;
    }
    $('figure').hidden = false;
    $('chart').setAttribute('aria-label', `${type} of ${key}`);
    drawChart($('chart'), $('caption'), points, start, end);
  } catch (error) {
    $('message').textContent = error.message;
  }
}

$('ask').addEventListener('submit', draw);
$('range').addEventListener('change', draw);
$('type').addEventListener('change', draw);
addEventListener('resize', () => $('figure').hidden || draw());

const wanted = new URLSearchParams(location.hash.slice(1));
for (const name of ['metric', 'range', 'type']) if (wanted.get(name)) $(name).value = wanted.get(name);
refresh();
draw();
