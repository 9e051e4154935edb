// What is seen of the log, and what moves it.

const element = (id) => document.getElementById(id);
const canvas = element('canvas');
const pen = canvas.getContext('2d');
const panels = makePanels();
const kHeader = 20;
const kAxis = 24;
const kShortest = 2;  // milliseconds

const view = { begin: data.begin, end: data.end, width: 0,
               x(time) { return (time - this.begin) / (this.end - this.begin) * this.width; },
               time(x) { return this.begin + x / this.width * (this.end - this.begin); } };
let cursor = Math.min(Math.max(0, data.begin), data.end);
let dragged = null;  // from and to, of the mouse
let asked = false;

function show(begin, end) {
  const longest = Math.max(data.end - data.begin, kShortest) * 1.02;
  const span = Math.min(Math.max(end - begin, kShortest), longest);
  const middle = (begin + end) / 2;
  const margin = longest * 0.01;
  const low = Math.min(Math.max(middle - span / 2, data.begin - margin),
                       Math.max(data.end + margin - span, data.begin - margin));
  view.begin = low;
  view.end = low + span;
  redraw();
}

function zoom(factor, at = cursor >= view.begin && cursor <= view.end
                           ? cursor : (view.begin + view.end) / 2) {
  show(at - (at - view.begin) * factor, at + (view.end - at) * factor);
}

function pan(share) {
  const by = (view.end - view.begin) * share;
  show(view.begin + by, view.end + by);
}

function redraw() {
  if (asked) return;
  asked = true;
  requestAnimationFrame(() => { asked = false; draw(); });
}

function drawAxis(top) {
  const step = roundStep(view.end - view.begin, view.width / 90);
  const digits = Math.max(0, 3 - Math.floor(Math.log10(step) + 1e-9));
  pen.textAlign = 'center';
  for (let mark = Math.ceil(view.begin / step) * step; mark <= view.end; mark += step) {
    const x = Math.round(view.x(mark));
    pen.fillStyle = colour('rule');
    pen.fillRect(x, top, 1, canvas.clientHeight - top);
    pen.fillStyle = colour('faint');
    if (x > 24 && x < view.width - 24) {
      pen.fillText(mark === 0 ? '0 s' : secondsText(mark, Math.min(digits, 3)), x, top + 15);
    }
  }
}

// A phone has no room for a title in a lane.
function isInside(panel) {
  return panel.inside && view.width >= 600;
}

function headerOf(panel) {
  return isInside(panel) ? 1 : kHeader;
}

function drawHeader(panel, top) {
  pen.textAlign = 'left';
  if (isInside(panel)) {
    pen.font = '600 12px system-ui, sans-serif';
    pen.globalAlpha = 0.75;
    pen.fillStyle = colour('back');
    pen.fillRect(0, top + 3, headerWidth(panel), 16);
    pen.globalAlpha = 1;
    ++top;
  }
  pen.fillStyle = colour('text');
  const title = panel.title.length > 28 ? panel.title.slice(0, 27) + '\u2026' : panel.title;
  pen.font = '600 12px system-ui, sans-serif';
  pen.fillText(title, 4, top + 14);
  let x = 12 + pen.measureText(title).width;
  pen.font = '12px system-ui, sans-serif';
  for (const part of panel.reading(cursor)) {
    pen.fillStyle = colour(part.colour);
    pen.fillText(part.text, x, top + 14);
    x += pen.measureText(part.text).width + 8;
  }
}

function headerWidth(panel) {
  return panel.reading(cursor).reduce((sum, part) => sum + pen.measureText(part.text).width + 8,
                                      16 + pen.measureText(panel.title).width);
}

function drawMarks() {
  pen.globalAlpha = 0.55;
  pen.fillStyle = colour('anomaly');
  for (const finding of data.findings) {
    if (!finding.anomaly || finding.t < view.begin || finding.t > view.end) continue;
    pen.fillRect(Math.round(view.x(finding.t)), kAxis, 1, canvas.clientHeight - kAxis);
  }
  pen.globalAlpha = 1;
  pen.fillStyle = colour('anomaly');
  const x = Math.round(view.x(cursor));
  for (const finding of data.findings) {
    const at = view.x(finding.t);
    if (!finding.anomaly || at < 0 || at > view.width) continue;
    pen.beginPath();
    pen.moveTo(at - 5, kAxis - 6);
    pen.lineTo(at + 5, kAxis - 6);
    pen.lineTo(at, kAxis + 1);
    pen.fill();
  }
  pen.fillStyle = colour('text');
  if (x >= 0 && x <= view.width) pen.fillRect(x, kAxis, 1, canvas.clientHeight - kAxis);
  if (dragged) {
    pen.globalAlpha = 0.15;
    pen.fillRect(Math.min(dragged.from, dragged.to), 0, Math.abs(dragged.to - dragged.from),
                 canvas.clientHeight);
    pen.globalAlpha = 1;
  }
}

function draw() {
  const scale = devicePixelRatio || 1;
  view.width = canvas.clientWidth;
  const height = panels.reduce((sum, panel) => sum + panel.height + headerOf(panel), kAxis + 4);
  canvas.style.height = height + 'px';
  canvas.width = Math.round(view.width * scale);
  canvas.height = Math.round(height * scale);
  pen.setTransform(scale, 0, 0, scale, 0, 0);
  pen.font = '12px system-ui, sans-serif';
  pen.fillStyle = colour('back');
  pen.fillRect(0, 0, view.width, height);
  if (data.timed) drawAxis(0);
  let top = kAxis;
  const headers = [];
  for (const panel of panels) {
    const box = { left: 0, width: view.width, top: top + headerOf(panel), height: panel.height };
    pen.save();
    pen.fillStyle = colour('panel');
    pen.globalAlpha = 0.7;
    pen.fillRect(0, box.top, box.width, box.height);
    pen.globalAlpha = 1;
    pen.beginPath();
    pen.rect(0, box.top, box.width, box.height);
    pen.clip();
    panel.draw(pen, box, view);
    pen.restore();
    headers.push([panel, top]);
    top = box.top + panel.height;
  }
  if (data.timed) drawMarks();
  for (const [panel, at] of headers) drawHeader(panel, at);
  element('reading').textContent =
      data.timed ? secondsText(cursor) + ' s' + clockText(cursor) : 'no times in this log';
  tell();
}

// For programs that look at the page.
function tell() {
  element('summary').textContent = JSON.stringify({
    drawn: canvas.width > 0, failures, panels: panels.length, cursor,
    view: [view.begin, view.end],
    anomalies: data.findings.filter((finding) => finding.anomaly).length,
    wheels: data.wheels.map((wheel) => ({
      name: wheel.name, commanded: commandedAt(wheel, cursor), measured: measuredAt(wheel, cursor),
      commanded_points: wheel.commanded.t.length, measured_points: wheel.measured.t.length,
    })),
    states: data.nodes.map((node) => ({
      node: node.node, nmt: stateAt(node.nmt, cursor),
      drives: node.drives.map((drive) => stateAt(drive.states, cursor)),
    })),
    load: loadAt(cursor),
  });
}

function setCursor(x) {
  cursor = Math.min(Math.max(view.time(x), data.begin), data.end);
  redraw();
}

// Fingers: one moves along, two zoom, a tap reads. The mouse reads where it is, and takes a stretch.
const fingers = new Map();
let moved = false;

canvas.addEventListener('pointerdown', (event) => {
  canvas.setPointerCapture(event.pointerId);
  moved = false;
  if (event.pointerType === 'mouse') {
    if (event.button === 0) dragged = { from: event.offsetX, to: event.offsetX };
  } else {
    fingers.set(event.pointerId, event.offsetX);
  }
});

function moveFinger(event) {
  const before = fingers.get(event.pointerId);
  const others = [...fingers].filter(([id]) => id !== event.pointerId);
  fingers.set(event.pointerId, event.offsetX);
  if (Math.abs(event.offsetX - before) > 2) moved = true;
  if (others.length === 0) {
    pan((before - event.offsetX) / view.width);
  } else {
    const other = others[0][1];
    const apart = Math.max(Math.abs(before - other), 8);
    zoom(apart / Math.max(Math.abs(event.offsetX - other), 8), view.time(other));
  }
}

canvas.addEventListener('pointermove', (event) => {
  if (fingers.has(event.pointerId)) {
    moveFinger(event);
  } else if (event.pointerType === 'mouse') {
    if (dragged) dragged.to = event.offsetX;
    setCursor(event.offsetX);
  }
});

canvas.addEventListener('pointerup', (event) => {
  if (fingers.delete(event.pointerId) && !moved && fingers.size === 0) setCursor(event.offsetX);
  if (dragged && Math.abs(dragged.to - dragged.from) > 6) {
    show(view.time(Math.min(dragged.from, dragged.to)), view.time(Math.max(dragged.from, dragged.to)));
  }
  dragged = null;
  redraw();
});
canvas.addEventListener('pointercancel', (event) => { fingers.delete(event.pointerId); dragged = null; });
canvas.addEventListener('dblclick', () => show(data.begin, data.end));
canvas.addEventListener('wheel', (event) => {
  event.preventDefault();
  if (Math.abs(event.deltaX) > Math.abs(event.deltaY)) {
    pan(event.deltaX / view.width);
  } else {
    zoom(Math.pow(1.0015, event.deltaY), view.time(event.offsetX));
  }
}, { passive: false });

element('in').onclick = () => zoom(0.5);
element('out').onclick = () => zoom(2);
element('left').onclick = () => pan(-0.4);
element('right').onclick = () => pan(0.4);
element('all').onclick = () => show(data.begin, data.end);
element('zero').onclick = () => { cursor = Math.min(Math.max(0, data.begin), data.end); show(cursor - 1000, cursor + 1000); };
element('zero').title = data.zero_text;

document.title = data.path + ' - motorctl report';
element('title').textContent = data.path.replace(/\/+$/, '').replace(/^.*\//, '');
element('title').title = data.path;
element('stretch').textContent =
    (data.interface ? data.interface + ', ' : '') +
    (data.timed ? ((data.end - data.begin) / 1000).toFixed(3) + ' s; times from ' + data.zero_text : '');
element('trigger').textContent = data.trigger ? 'trigger: ' + data.trigger : '';
element('text').textContent = data.text;
for (const finding of data.findings) {
  const row = element('findings').tBodies[0].insertRow();
  row.className = finding.anomaly ? 'anomaly' : '';
  row.insertCell().textContent = data.timed ? secondsText(finding.t) : 'line ' + finding.line;
  row.insertCell().textContent =
      finding.text + (finding.count > 1 ? ' (' + finding.count + ' times)' : '');
  row.onclick = () => { cursor = finding.t; zoom(1, cursor); show(cursor - 1000, cursor + 1000); element('chart').scrollIntoView({ behavior: 'smooth' }); };
}
addEventListener('resize', redraw);
matchMedia('(prefers-color-scheme: dark)').addEventListener('change', redraw);
show(data.begin, data.end);
draw();
