// The History view: the people of the recordings folder, and one person's
// recordings newest first with a trend of mean CVN and RMSSD over the dates.
// Summaries are computed by the program in the background; rows it has not
// finished come back pending, and the view asks again while any are
// (docs/api.md, "/history"). The texts and the chart's scales are pure and
// exported for the unit tests.

import { api } from './api.js';
import { fitCanvas, niceStep } from './charts.js';
import { confirmEndLive } from './confirm.js';
import { clockText } from './format.js';
import { $ } from './ui.js';

const kRefreshMs = 400;        // while rows are pending: summaries land every ~50 ms each
const kPlot = { left: 54, right: 58, top: 16, bottom: 30 };
const kHoverPx = 14;           // how near the pointer must be to a point
const kPad = 0.12;             // share of a value axis's span above and below
const colours = { cvn: '#4357c7', rmssd: '#12976b', grid: '#eef2f5', axis: '#6b7f90', frame: '#dbe4ea' };

const finite = (v) => typeof v === 'number' && Number.isFinite(v);

/** "2025-03-01 09:00:00" as local milliseconds; NaN when it is no such date. */
export function dateMs(text) {
  const m = /^(\d{4})-(\d\d)-(\d\d) (\d\d):(\d\d):(\d\d)$/.exec(text || '');
  return m ? new Date(+m[1], m[2] - 1, +m[3], +m[4], +m[5], +m[6]).getTime() : NaN;
}

const fixed = (v, digits) => (finite(v) ? v.toFixed(digits) : '–');

/** The table's columns as a narrow window labels each cell, where the table's head is not shown. */
const kColumnLabels = ['Date', 'Duration', 'Protocol', 'Mean CVN', 'Peak–trough HR (bpm)', 'RMSSD (ms)', 'LF/HF',
  'Recommended pace (breaths/min)'];

/** The table's cells of a summarised row, in column order (date first). */
export function rowCells(row) {
  return [
    row.date || '–',
    finite(row.duration_s) ? clockText(row.duration_s) : '–',
    row.protocol === 'rf' ? 'Resonance assessment' : 'Single rhythm',
    fixed(row.cvn_mean, 2), fixed(row.peak_trough_hr, 1), fixed(row.rmssd, 1), fixed(row.lf_hf, 2),
    row.protocol === 'rf' ? fixed(row.recommended_bpm, 1) : '',
  ];
}

/** Summarised rows with a date and a value to draw, oldest first: [{ t, cvn, rmssd, row }]. */
export function trendPoints(rows) {
  return (rows || []).filter((r) => !r.pending && !r.error && Number.isFinite(dateMs(r.date)) &&
    (finite(r.cvn_mean) || finite(r.rmssd)))
    .map((r) => ({ t: dateMs(r.date), cvn: r.cvn_mean, rmssd: r.rmssd, row: r }))
    .sort((a, b) => a.t - b.t);
}

/** A value axis around `values` (finite ones), with room above and below; null when there are none. */
export function valueAxis(values) {
  const v = values.filter(finite);
  if (!v.length) return null;
  let lo = Math.min(...v), hi = Math.max(...v);
  const span = hi - lo || Math.max(1, Math.abs(hi) * 0.2);
  lo -= span * kPad;
  hi += span * kPad;
  const step = niceStep(hi - lo, 4);
  return { lo: Math.floor(lo / step) * step, hi: Math.ceil(hi / step) * step, step };
}

const dayText = (t) => new Date(t).toLocaleDateString(undefined, { day: 'numeric', month: 'short' });

/** Draws the trend; returns the points as drawn ({ x, y, p, key }) for hovering. */
function drawHistoryTrend(canvas, size, points) {
  const c = fitCanvas(canvas, size, 120, 80);
  if (!c) return [];
  const { ctx, w, h } = c;
  const pw = w - kPlot.left - kPlot.right, ph = h - kPlot.top - kPlot.bottom;
  ctx.font = '12px system-ui, sans-serif';
  if (!points.length) {
    ctx.fillStyle = colours.axis;
    ctx.textAlign = 'center';
    ctx.fillText('No summarised recording yet', w / 2, h / 2);
    return [];
  }
  const t0 = points[0].t, t1 = points[points.length - 1].t;
  // One recording, or all on one moment: the point in the middle.
  const x = (t) => kPlot.left + (t1 > t0 ? (t - t0) / (t1 - t0) * (pw - 24) + 12 : pw / 2);
  const axes = { cvn: valueAxis(points.map((p) => p.cvn)), rmssd: valueAxis(points.map((p) => p.rmssd)) };
  const y = (a) => (v) => kPlot.top + (1 - (v - a.lo) / (a.hi - a.lo)) * ph;
  ctx.textBaseline = 'middle';
  if (axes.cvn) {
    ctx.strokeStyle = colours.grid;
    ctx.lineWidth = 1;
    ctx.beginPath();
    for (let v = axes.cvn.lo; v <= axes.cvn.hi + 1e-9; v += axes.cvn.step) {
      const yy = Math.round(y(axes.cvn)(v)) + 0.5;
      ctx.moveTo(kPlot.left, yy);
      ctx.lineTo(kPlot.left + pw, yy);
    }
    ctx.stroke();
  }
  const ticks = (axis, key, xx, align) => {
    if (!axis) return;
    ctx.fillStyle = colours[key];
    ctx.textAlign = align;
    for (let v = axis.lo; v <= axis.hi + 1e-9; v += axis.step) ctx.fillText(String(Math.round(v * 100) / 100), xx, y(axis)(v));
  };
  ticks(axes.cvn, 'cvn', kPlot.left - 8, 'right');
  ticks(axes.rmssd, 'rmssd', kPlot.left + pw + 8, 'left');
  ctx.fillStyle = colours.axis;
  ctx.textAlign = 'center';
  ctx.textBaseline = 'top';
  // Dates under the points, as many as fit without touching.
  let lastRight = -Infinity;
  for (const p of points) {
    const text = dayText(p.t), half = ctx.measureText(text).width / 2 + 4;
    if (x(p.t) - half < lastRight) continue;
    ctx.fillText(text, x(p.t), kPlot.top + ph + 8);
    lastRight = x(p.t) + half;
  }
  const drawn = [];
  for (const key of ['rmssd', 'cvn']) {
    const axis = axes[key];
    if (!axis) continue;
    const pts = points.filter((p) => finite(p[key])).map((p) => ({ x: x(p.t), y: y(axis)(p[key]), p, key }));
    ctx.strokeStyle = ctx.fillStyle = colours[key];
    ctx.lineWidth = 2;
    ctx.beginPath();
    pts.forEach((q, i) => (i ? ctx.lineTo(q.x, q.y) : ctx.moveTo(q.x, q.y)));
    ctx.stroke();
    for (const q of pts) {
      ctx.beginPath();
      ctx.arc(q.x, q.y, 4, 0, Math.PI * 2);
      ctx.fill();
    }
    drawn.push(...pts);
  }
  ctx.strokeStyle = colours.frame;
  ctx.lineWidth = 1;
  ctx.strokeRect(kPlot.left + 0.5, kPlot.top + 0.5, pw - 1, ph - 1);
  return drawn;
}

// ---------- the view ----------

let state = { key: '', name: '', rows: [], run: 0, timer: 0 };
let chartSize = null;
let drawn = [];
let back = null;   // the screen History was opened from

function redraw() {
  if (chartSize) drawn = drawHistoryTrend($('historyChart'), chartSize, trendPoints(state.rows));
}

// Session parameters of a replay as the recording was made; what is not
// known is left to the program's defaults.
function replayParams(row, speed) {
  const p = { dir: 'saved', file: row.file, speed, name: state.name };
  for (const k of ['sex', 'age', 'indur', 'outdur']) if (row[k] !== null && row[k] !== undefined) p[k] = row[k];
  return p;
}

function actionButton(label, title, onClick) {
  const b = document.createElement('button');
  b.type = 'button';
  b.className = 'btn small';
  b.textContent = label;
  b.setAttribute('aria-label', title);
  b.addEventListener('click', onClick);
  return b;
}

function renderRows(enterLive) {
  const body = $('historyRows');
  body.textContent = '';
  for (const row of state.rows) {
    const tr = document.createElement('tr');
    tr.dataset.file = row.file;
    const cell = (text, cls) => {
      const td = document.createElement('td');
      td.textContent = text;
      if (cls) td.className = cls;
      tr.appendChild(td);
      return td;
    };
    if (row.pending) {
      cell(row.date || '–');
      cell('Analysing…', 'pending').colSpan = 8;
      tr.className = 'pending';
    } else if (row.error) {
      cell(row.date || '–');
      cell(row.error, 'err').colSpan = 8;
      tr.className = 'failed';
    } else {
      rowCells(row).forEach((text, i) => { cell(text).dataset.label = kColumnLabels[i]; });
      const td = cell('', 'actions');
      const box = document.createElement('div');
      td.append(box);
      const when = row.date || row.file;
      const replay = actionButton('Replay', 'Replay the recording of ' + when, () => openRow(enterLive, row, 2, false, both));
      const exp = actionButton('Export', 'Export the recording of ' + when, () => openRow(enterLive, row, 0, true, both));
      const both = [replay, exp];
      box.append(replay, exp);
    }
    body.appendChild(tr);
  }
  const pending = state.rows.filter((r) => r.pending).length;
  $('historyNote').textContent = pending ? `Analysing ${pending} of ${state.rows.length} recordings…`
    : `${state.rows.length} recording${state.rows.length === 1 ? '' : 's'}, newest first.`;
  redraw();
}

// Replays a row's recording on the live screen; for an export, the whole
// recording at once (paused at its end) and the live screen's own export.
// A live recording still going is ended only when the user says so. The
// row's buttons wait for the answer, so a double click starts one replay.
async function openRow(enterLive, row, speed, exportIt, buttons) {
  buttons.forEach((b) => { b.disabled = true; });
  try {
    await replayRow(enterLive, row, speed, exportIt);
  } finally {
    buttons.forEach((b) => { b.disabled = false; });
  }
}

async function replayRow(enterLive, row, speed, exportIt) {
  const agreed = exportIt ? await confirmEndLive('Exporting this recording', 'Stop and export')
    : await confirmEndLive('Replaying this recording', 'Stop and replay');
  if (!agreed) return;
  const r = await api('/start_replay', replayParams(row, speed));
  if (!r.data || !r.data.ok) {
    $('historyNote').textContent = 'Could not open ' + row.file + '.';
    return;
  }
  if (exportIt) await api('/seek', { frac: 1 });
  close(false);
  enterLive(speed);
  if (exportIt) $('saveBtn').click();
}

async function choose(enterLive, key) {
  clearTimeout(state.timer);
  const run = ++state.run;
  if (key !== state.key) state = { ...state, key, name: '', rows: [] };
  for (const b of document.querySelectorAll('#historyPeople button')) b.setAttribute('aria-pressed', String(b.dataset.key === key));
  $('historyPerson').hidden = false;
  const r = await api('/history', { name: key });
  if (run !== state.run) return;
  const d = r.data;
  if (!d || !d.ok || !Array.isArray(d.rows)) {
    $('historyName').textContent = '';
    $('historyNote').textContent = (d && d.reason) || 'The program did not answer.';
    state.rows = [];
    $('historyRows').textContent = '';
    redraw();
    return;
  }
  state.name = String(d.name);
  state.rows = d.rows;
  $('historyName').textContent = state.name;
  renderRows(enterLive);
  if (d.pending > 0) state.timer = setTimeout(() => choose(enterLive, key), kRefreshMs);
}

async function loadPeople(enterLive) {
  const list = $('historyPeople');
  const r = await api('/people');
  list.textContent = '';
  const people = (r.data && r.data.ok && Array.isArray(r.data.people)) ? r.data.people : [];
  $('historyPeopleNote').textContent = r.data ? (people.length ? '' : 'No recordings saved yet.') : 'The program did not answer.';
  for (const p of people) {
    const li = document.createElement('li');
    const b = document.createElement('button');
    b.type = 'button';
    b.dataset.key = p.key;
    b.setAttribute('aria-pressed', String(p.key === state.key));
    const name = document.createElement('span');
    name.textContent = p.name;
    const count = document.createElement('span');
    count.className = 'count';
    count.textContent = String(p.recordings);
    count.setAttribute('aria-label', p.recordings + (p.recordings === 1 ? ' recording' : ' recordings'));
    b.append(name, count);
    b.addEventListener('click', () => choose(enterLive, p.key));
    li.appendChild(b);
    list.appendChild(li);
  }
  if (state.key && people.some((p) => p.key === state.key)) choose(enterLive, state.key);
}

function close(restore = true) {
  clearTimeout(state.timer);
  state.run++;
  $('history').hidden = true;
  $('historyBtn').setAttribute('aria-expanded', 'false');
  if (restore && back) {
    back.hidden = false;
    // Back is hidden now: the focus returns to the button that opened the view.
    $('historyBtn').focus({ preventScroll: true });
  }
  back = null;
}

function showTip(e) {
  const tip = $('historyTip');
  const box = $('historyChart').getBoundingClientRect();
  const mx = e.clientX - box.left, my = e.clientY - box.top;
  let best = null, bestD = kHoverPx;
  for (const q of drawn) {
    const d = Math.hypot(q.x - mx, q.y - my);
    if (d <= bestD) { best = q; bestD = d; }
  }
  if (!best) { tip.hidden = true; return; }
  const row = best.p.row;
  tip.textContent = `${row.date} · mean CVN ${fixed(row.cvn_mean, 2)} · RMSSD ${fixed(row.rmssd, 1)} ms`;
  tip.hidden = false;
  tip.style.left = Math.max(0, Math.min(best.x + 10, box.width - tip.offsetWidth - 4)) + 'px';
  tip.style.top = Math.max(0, best.y - tip.offsetHeight - 8) + 'px';
}

/** Wires the header button and the view; `enterLive(speed)` shows the live screen. */
export function initHistory(enterLive) {
  $('historyBtn').setAttribute('aria-expanded', 'false');
  $('historyBtn').addEventListener('click', () => {
    if (!$('history').hidden) return;
    back = [$('setup'), $('live')].find((s) => !s.hidden) || $('setup');
    back.hidden = true;
    $('history').hidden = false;
    $('historyBtn').setAttribute('aria-expanded', 'true');
    $('historyTitle').focus({ preventScroll: true });
    loadPeople(enterLive);
  });
  $('historyTitle').tabIndex = -1;
  $('historyBack').addEventListener('click', () => close());
  const canvas = $('historyChart');
  new ResizeObserver((entries) => {
    const r = entries[entries.length - 1].contentRect;
    chartSize = { w: r.width, h: r.height };
    $('historyTip').hidden = true;  // its point has moved
    redraw();
  }).observe(canvas);
  canvas.addEventListener('mousemove', showTip);
  canvas.addEventListener('mouseleave', () => { $('historyTip').hidden = true; });
}
