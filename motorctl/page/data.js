'use strict';
// What the page was given, unpacked: times are milliseconds from the zero of the report.

const failures = [];
addEventListener('error', (event) => failures.push(String(event.message)));

const data = JSON.parse(document.getElementById('data').textContent);

// Differences, in tenths, to two lists.
function unpack(numbers) {
  const curve = { t: [], v: [] };
  let time = 0;
  let value = 0;
  for (let i = 0; i + 1 < numbers.length; i += 2) {
    time += numbers[i];
    value += numbers[i + 1];
    curve.t.push(data.begin + time / 10);
    curve.v.push(value / 10);
  }
  return curve;
}

for (const wheel of data.wheels) {
  wheel.commanded = unpack(wheel.commanded);
  wheel.measured = unpack(wheel.measured);
}

// The last index at or before `time`, -1 when there is none.
function indexAt(times, time) {
  let low = 0;
  let high = times.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (times[middle] <= time) low = middle + 1; else high = middle;
  }
  return low - 1;
}

// Between reports that are so far apart nothing is known.
const longestGap = Math.max(400, (data.end - data.begin) / 600 * 3);

function commandedAt(wheel, time) {
  const i = indexAt(wheel.commanded.t, time);
  return i < 0 ? null : wheel.commanded.v[i];
}

// The nearest one.
function measuredAt(wheel, time) {
  const times = wheel.measured.t;
  let i = indexAt(times, time);
  if (i < 0 || (i + 1 < times.length && times[i + 1] - time < time - times[i])) ++i;
  if (i >= times.length || Math.abs(times[i] - time) > longestGap) return null;
  return wheel.measured.v[i];
}

function stateAt(lane, time) {
  const i = indexAt(lane.map((change) => change[0]), time);
  return i < 0 ? null : lane[i][1];
}

function loadAt(time) {
  const i = Math.floor((time - data.begin) / data.load.slice);
  return i >= 0 && i < data.load.bits.length ? loadOf(data.load.bits[i]) : null;
}

// In percent where the bit rate is known, otherwise in kbit/s.
function loadOf(bits) {
  const perSecond = bits / data.load.slice * 1000;
  return data.load.bit_rate > 0 ? perSecond / data.load.bit_rate * 100 : perSecond / 1000;
}

const loadUnit = data.load.bit_rate > 0 ? '%' : 'kbit/s';

function secondsText(time, digits = 3) {
  const text = (Math.abs(time) / 1000).toFixed(digits);
  return (time < 0 && Number(text) !== 0 ? '\u2212' : '+') + text;
}

function clockText(time) {
  if (data.zero === null) return '';
  const text = new Date(data.zero + time).toISOString().slice(11, 23);
  return ', ' + text + (data.utc ? ' UTC' : '');
}
