// A line chart of [[seconds, number or null], ...] in an SVG element, with gaps where there is no number.
const NS = 'http://www.w3.org/2000/svg';
const MARGIN = { left: 64, right: 12, top: 10, bottom: 24 };

function element(parent, name, attributes, text) {
  const node = document.createElementNS(NS, name);
  for (const [key, value] of Object.entries(attributes)) node.setAttribute(key, value);
  if (text !== undefined) node.textContent = text;
  parent.append(node);
  return node;
}

export function formatNumber(value) {
  const size = Math.abs(value);
  if (size !== 0 && (size >= 1e15 || size < 1e-4)) return value.toExponential(3);
  if (size >= 1e6) return (value / (size >= 1e9 ? 1e9 : 1e6)).toFixed(2) + (size >= 1e9 ? ' G' : ' M');
  return String(Number(value.toPrecision(6)));
}

export function formatTime(seconds, span) {
  const date = new Date(seconds * 1000);
  const two = (n) => String(n).padStart(2, '0');
  const day = `${date.getFullYear()}-${two(date.getMonth() + 1)}-${two(date.getDate())}`;
  const time = `${two(date.getHours())}:${two(date.getMinutes())}`;
  return span > 5 * 86400 ? day : span > 86400 ? `${day.slice(5)} ${time}` : time;
}

// Round steps, four to eight of them, that cover the values.
function ticks(low, high) {
  const raw = (high - low || Math.abs(high) || 1) / 5;
  const power = 10 ** Math.floor(Math.log10(raw));
  const step = power * [1, 2, 5, 10].find((factor) => raw <= factor * power);
  const result = [];
  for (let at = Math.floor(low / step) * step; at <= high + step; at += step) result.push(Number(at.toPrecision(12)));
  return result;
}

function path(points, x, y) {
  let text = '', open = false;
  for (const [time, value] of points) {
    if (value === null) { open = false; continue; }
    text += `${open ? 'L' : 'M'}${x(time).toFixed(1)} ${y(value).toFixed(1)}`;
    open = true;
  }
  return text;
}

export function drawChart(svg, caption, points, start, end) {
  svg.replaceChildren();
  const width = svg.clientWidth, height = svg.clientHeight, span = end - start;
  svg.setAttribute('viewBox', `0 0 ${width} ${height}`);
  const values = points.map((point) => point[1]).filter((value) => value !== null);
  const levels = ticks(Math.min(...values), Math.max(...values));
  const low = levels[0], high = levels[levels.length - 1];
  const x = (time) => MARGIN.left + ((time - start) / span) * (width - MARGIN.left - MARGIN.right);
  const y = (value) => height - MARGIN.bottom - ((value - low) / (high - low)) * (height - MARGIN.top - MARGIN.bottom);
  for (const level of levels) {
    element(svg, 'line', { class: 'grid', x1: MARGIN.left, x2: width - MARGIN.right, y1: y(level), y2: y(level) });
    element(svg, 'text', { class: 'axis', x: MARGIN.left - 6, y: y(level) + 4, 'text-anchor': 'end' }, formatNumber(level));
  }
  const marks = Math.max(1, Math.min(8, Math.floor((width - MARGIN.left - MARGIN.right) / 130)));
  for (let i = 0; i <= marks; i++) {
    const time = start + (span * i) / marks;
    const anchor = i === 0 ? 'start' : i === marks ? 'end' : 'middle';
    element(svg, 'text', { class: 'axis', x: x(time), y: height - 6, 'text-anchor': anchor }, formatTime(time, span));
  }
  element(svg, 'path', { class: 'curve', d: path(points, x, y) });
  // a number with a gap on both sides has no line
  points.forEach(([time, value], i) => {
    const alone = value !== null && (points[i - 1]?.[1] ?? null) === null && (points[i + 1]?.[1] ?? null) === null;
    if (alone) element(svg, 'circle', { class: 'dot', cx: x(time), cy: y(value), r: 2.5 });
  });
  const cursor = element(svg, 'line', { class: 'cursor', y1: MARGIN.top, y2: height - MARGIN.bottom, visibility: 'hidden' });
  const summary = `${values.length} of ${points.length} slots have data`;
  caption.textContent = summary;
  svg.onpointermove = (event) => {
    const time = start + ((event.offsetX - MARGIN.left) / (width - MARGIN.left - MARGIN.right)) * span;
    const near = points.reduce((a, b) => (b[1] !== null && (a === null || Math.abs(b[0] - time) < Math.abs(a[0] - time)) ? b : a), null);
    if (!near) return;
    cursor.setAttribute('x1', x(near[0]));
    cursor.setAttribute('x2', x(near[0]));
    cursor.setAttribute('visibility', 'visible');
    caption.textContent = `${new Date(near[0] * 1000).toLocaleString()}: ${near[1]}`;
  };
  svg.onpointerleave = () => {
    cursor.setAttribute('visibility', 'hidden');
    caption.textContent = summary;
  };
}

export function sparkline(svg, values) {
  const high = Math.max(...values, 1e-9);
  svg.setAttribute('viewBox', '0 0 119 30');
  svg.setAttribute('preserveAspectRatio', 'none');
  const points = values.map((value, i) => [i + 120 - values.length, value]);
  svg.replaceChildren();
  element(svg, 'path', { class: 'curve', 'vector-effect': 'non-scaling-stroke', d: path(points, (i) => i - 1, (value) => 28 - (value / high) * 26) });
}
