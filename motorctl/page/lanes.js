// The panels of the chart, one below the other. Each draws itself and says what it shows at a time.

const style = getComputedStyle(document.documentElement);
const colour = (name) => style.getPropertyValue('--' + name).trim();

// Of the panels whose title stands in them.
const titleWidth = 300;

const stateColours = {
  'operational': 'good', 'pre-operational': 'waiting', 'stopped': 'bad', 'boot-up': 'off',
  'Operation enabled': 'good', 'Switched on': 'waiting', 'Ready to switch on': 'waiting',
  'Switch on disabled': 'off', 'Not ready to switch on': 'off', 'Quick stop active': 'stop',
  'Emergency stop': 'stop', 'no heartbeat': 'bad', 'Fault': 'bad', 'Fault reaction active': 'bad',
};

// 1, 2 or 5 times a power of ten, so that about `count` fit in.
function roundStep(range, count) {
  const rough = range / Math.max(count, 1);
  const decade = Math.pow(10, Math.floor(Math.log10(rough)));
  for (const factor of [1, 2, 5]) if (rough <= factor * decade) return factor * decade;
  return 10 * decade;
}

function speedRange() {
  let low = 0;
  let high = 0;
  for (const wheel of data.wheels) {
    for (const v of wheel.commanded.v) { low = Math.min(low, v); high = Math.max(high, v); }
    for (const v of wheel.measured.v) { low = Math.min(low, v); high = Math.max(high, v); }
  }
  const room = Math.max(high - low, 10) * 0.06;
  return [low - room, high + room];
}

// What a step or a line needs of the points that are seen, one beyond each side.
function seen(curve, view) {
  return [Math.max(indexAt(curve.t, view.begin), 0),
          Math.min(indexAt(curve.t, view.end) + 1, curve.t.length - 1)];
}

function drawGrid(pen, box, range, unit) {
  const step = roundStep(range[1] - range[0], box.height / 28);
  pen.textAlign = 'left';
  for (let mark = Math.ceil(range[0] / step) * step; mark <= range[1]; mark += step) {
    const y = box.y(mark);
    pen.fillStyle = colour(Math.abs(mark) < step / 2 ? 'faint' : 'rule');
    pen.fillRect(box.left, Math.round(y), box.width, 1);
    pen.fillStyle = colour('faint');
    const digits = step < 1 ? 1 : 0;
    if (y - 3 > box.top + 8) pen.fillText(mark.toFixed(digits) + ' ' + unit, box.left + 3, y - 3);
  }
}

function speedPanel(wheel, range) {
  return {
    height: 96,
    title: wheel.name,
    reading(time) {
      const told = commandedAt(wheel, time);
      const measured = measuredAt(wheel, time);
      return [{ text: told === null ? 'no command' : told.toFixed(1), colour: 'commanded' },
              { text: measured === null ? 'not known' : measured.toFixed(1), colour: 'measured' },
              { text: 'rpm', colour: 'faint' }];
    },
    draw(pen, box, view) {
      box.y = (v) => box.top + (range[1] - v) / (range[1] - range[0]) * box.height;
      drawGrid(pen, box, range, 'rpm');
      pen.lineWidth = 1.6;
      drawSteps(pen, box, view, wheel.commanded);
      drawLine(pen, box, view, wheel.measured);
    },
  };
}

function drawSteps(pen, box, view, curve) {
  if (curve.t.length === 0) return;
  const [first, last] = seen(curve, view);
  pen.strokeStyle = colour('commanded');
  pen.beginPath();
  for (let i = first; i <= last; ++i) {
    const x = view.x(curve.t[i]);
    if (i > first) pen.lineTo(x, box.y(curve.v[i - 1])); else pen.moveTo(x, box.y(curve.v[i]));
    pen.lineTo(x, box.y(curve.v[i]));
  }
  pen.lineTo(view.x(data.end), box.y(curve.v[last]));
  pen.stroke();
}

function drawLine(pen, box, view, curve) {
  if (curve.t.length === 0) return;
  const [first, last] = seen(curve, view);
  pen.strokeStyle = colour('measured');
  pen.beginPath();
  for (let i = first; i <= last; ++i) {
    const apart = i === first || curve.t[i] - curve.t[i - 1] > longestGap;
    pen[apart ? 'moveTo' : 'lineTo'](view.x(curve.t[i]), box.y(curve.v[i]));
  }
  pen.stroke();
}

function lanePanel(title, states) {
  return {
    height: 20,
    inside: true,
    title,
    reading(time) {
      return [{ text: stateAt(states, time) || 'not known', colour: 'text' }];
    },
    draw(pen, box, view) {
      for (let i = 0; i < states.length; ++i) {
        const begin = Math.max(view.x(states[i][0]), box.left);
        const end = Math.min(view.x(i + 1 < states.length ? states[i + 1][0] : data.end),
                             box.left + box.width);
        if (end <= begin) continue;
        pen.fillStyle = colour(stateColours[states[i][1]] || 'off');
        pen.fillRect(begin, box.top, Math.max(end - begin, 1), box.height);
        // At its end, for the title stands at the beginning.
        const width = pen.measureText(states[i][1]).width + 8;
        const title = view.width >= 600 && begin < titleWidth ? titleWidth - begin : 0;
        if (width + title > end - begin) continue;
        pen.fillStyle = colour('text');
        pen.textAlign = 'right';
        pen.fillText(states[i][1], end - 4, box.top + 14);
      }
    },
  };
}

function loadPanel() {
  const values = data.load.bits.map(loadOf);
  const most = values.reduce((high, value) => Math.max(high, value), 0);
  const range = [0, data.load.bit_rate > 0 ? Math.min(Math.max(most * 1.15, 10), 105)
                                           : Math.max(most * 1.15, 1)];
  return {
    height: 60,
    title: 'bus load',
    reading(time) {
      const value = loadAt(time);
      return [{ text: value === null ? 'not known' : value.toFixed(1) + ' ' + loadUnit,
                colour: 'text' }];
    },
    draw(pen, box, view) {
      box.y = (v) => box.top + box.height - v / range[1] * box.height;
      pen.fillStyle = colour('load');
      const slice = data.load.slice;
      const first = Math.max(Math.floor((view.begin - data.begin) / slice), 0);
      for (let i = first; i < values.length && data.begin + i * slice <= view.end; ++i) {
        const begin = view.x(data.begin + i * slice);
        const end = view.x(Math.min(data.begin + (i + 1) * slice, data.end));
        pen.fillRect(begin, box.y(values[i]), Math.max(end - begin, 1),
                     box.top + box.height - box.y(values[i]));
      }
      drawGrid(pen, box, range, loadUnit);
    },
  };
}

function makePanels() {
  const panels = [];
  const range = speedRange();
  for (const wheel of data.wheels) panels.push(speedPanel(wheel, range));
  for (const node of data.nodes) {
    if (node.nmt.length > 0) panels.push(lanePanel('node ' + node.node + ', NMT', node.nmt));
    for (const drive of node.drives) panels.push(lanePanel(drive.name + ', drive', drive.states));
  }
  if (data.timed) panels.push(loadPanel());
  return panels;
}
