// The two canvases: the ECG scope and the chart of heart rate and score over
// time. The scale and tick arithmetic is pure and exported for the tests; the
// drawing functions take a 2D context and a layout.

import { clockText } from './format.js';
import { breathsBetween, rfSchedule } from './rf.js';

const kScopeHeadroom = 0.12;   // above and below the trace's range
const kScopeGrid = 38;         // pixels
const kWindowSeconds = 180;    // the chart shows at least three minutes...
const kWindowCycles = 6;       // ...and at least six breathing cycles
const kHrMinSpan = 6;          // bpm: a steady heart rate is not drawn as noise
const kHrPad = 0.14;           // share of the span above and below
const kHrIdle = [50, 90];      // bpm, before there is a heart rate
const kTimeSteps = [5, 10, 15, 20, 30, 60, 120, 300, 600, 1200, 3600];  // seconds
const kTimeLabelWidth = 110;   // pixels per time label at most
const kPlot = { left: 46, right: 44, top: 16, bottom: 24 };

const colours = {
  grid: '#eef2f5', scopeGrid: '#edf1f4', scope: '#0c5f6e', faint: '#8a9bab',
  band: 'rgba(17,137,138,0.06)', cycle: '#c9d6de', axis: '#6b7f90', frame: '#dbe4ea',
  hrAxis: '#b23a45', hr: '#d64550', score: '#4357c7', scoreZero: 'rgba(67,87,199,0.45)', mark: '#c27803',
};

/** The smallest 1, 2, 2.5 or 5 times a power of ten that splits `span` into at most `target` steps. */
export function niceStep(span, target) {
  const raw = span / Math.max(1, target);
  const p = Math.pow(10, Math.floor(Math.log10(raw)));
  for (const m of [1, 2, 2.5, 5, 10]) if (m * p >= raw) return m * p;
  return 10 * p;
}

/** The multiples of `step` from `lo` to `hi`, rounded to tenths so 0.1 steps do not drift. */
export function valueTicks(lo, hi, step) {
  const out = [];
  for (let i = Math.ceil(lo / step); i * step <= hi + 1e-9; i++) out.push(Math.round(i * step * 10) / 10);
  return out;
}

/** Seconds between time labels, so that labels keep `kTimeLabelWidth` pixels apart. */
export function timeStep(windowSeconds, plotWidth) {
  const want = windowSeconds / Math.max(3, Math.floor(plotWidth / kTimeLabelWidth));
  return kTimeSteps.find((v) => v >= want) || kTimeSteps[kTimeSteps.length - 1];
}

/** The visible time span: at least `kWindowSeconds` and six cycles wide, ending at the latest point. */
export function timeWindow(hrSeries, cycleSeconds) {
  const width = Math.max(kWindowSeconds, kWindowCycles * cycleSeconds);
  const lastX = hrSeries.length ? hrSeries[hrSeries.length - 1].x : 0;
  const t1 = Math.max(lastX, width);
  return { t0: t1 - width, t1, width };
}

/** Index of the first point with x >= t in a series sorted by x. */
export function firstAtOrAfter(series, t) {
  let lo = 0, hi = series.length;
  while (lo < hi) {
    const mid = (lo + hi) >> 1;
    if (series[mid].x < t) lo = mid + 1; else hi = mid;
  }
  return lo;
}

/** The heart-rate axis for the points between t0 and t1: at least 6 bpm, padded by 14 %. */
export function heartRateRange(hrSeries, t0, t1) {
  let lo = Infinity, hi = -Infinity;
  for (let i = firstAtOrAfter(hrSeries, t0); i < hrSeries.length; i++) {
    const p = hrSeries[i];
    if (p.x > t1) break;
    if (p.y == null) continue;
    if (p.y < lo) lo = p.y;
    if (p.y > hi) hi = p.y;
  }
  if (lo === Infinity) return { lo: kHrIdle[0], hi: kHrIdle[1] };
  if (hi - lo < kHrMinSpan) {
    const m = (hi + lo) / 2;
    lo = m - kHrMinSpan / 2;
    hi = m + kHrMinSpan / 2;
  }
  const pad = (hi - lo) * kHrPad;
  return { lo: lo - pad, hi: hi + pad };
}

/**
 * Sizes a canvas to `size` (its box in CSS pixels, as a ResizeObserver saw
 * it: measuring here would force a layout per draw) at the screen's pixel
 * ratio and clears it; null when too small to draw in.
 */
export function fitCanvas(canvas, size, minW, minH) {
  const dpr = window.devicePixelRatio || 1;
  const w = Math.max(1, Math.round(size.w * dpr)), h = Math.max(1, Math.round(size.h * dpr));
  if (canvas.width !== w || canvas.height !== h) { canvas.width = w; canvas.height = h; }
  const ctx = canvas.getContext('2d');
  ctx.setTransform(dpr, 0, 0, dpr, 0, 0);
  ctx.clearRect(0, 0, size.w, size.h);
  if (size.w < minW || size.h < minH) return null;
  return { ctx, w: size.w, h: size.h };
}

// ---------- ECG scope ----------

/**
 * Draws the scope: `ecg` is the trace, `width` the most samples the program
 * sends (the snapshot's scope_samples); `emptyText` shows when there is no trace.
 */
export function drawScope(canvas, size, ecg, width, emptyText) {
  const c = fitCanvas(canvas, size, 4, 4);
  if (!c) return;
  const { ctx, w, h } = c;
  ctx.strokeStyle = colours.scopeGrid;
  ctx.lineWidth = 1;
  ctx.beginPath();
  for (let x = 0.5; x < w; x += kScopeGrid) { ctx.moveTo(x, 0); ctx.lineTo(x, h); }
  for (let y = 0.5; y < h; y += kScopeGrid) { ctx.moveTo(0, y); ctx.lineTo(w, y); }
  ctx.stroke();
  if (!ecg || ecg.length < 2) {
    ctx.fillStyle = colours.faint;
    ctx.font = '14px system-ui, sans-serif';
    ctx.textAlign = 'center';
    ctx.fillText(emptyText, w / 2, h / 2);
    return;
  }
  let lo = Infinity, hi = -Infinity;
  for (const v of ecg) { if (v < lo) lo = v; if (v > hi) hi = v; }
  let range = hi - lo;
  if (!(range > 0)) { range = 1; lo -= 0.5; }
  lo -= range * kScopeHeadroom;
  range *= 1 + 2 * kScopeHeadroom;
  // Always as wide as the most the program sends, so a shorter trace starts
  // at the left and grows to the right like a sweep.
  const dx = w / (Math.max(width, ecg.length) - 1);
  ctx.strokeStyle = colours.scope;
  ctx.lineWidth = 1.6;
  ctx.lineJoin = 'round';
  ctx.beginPath();
  for (let i = 0; i < ecg.length; i++) {
    const x = i * dx, y = h - ((ecg[i] - lo) / range) * h;
    if (i) ctx.lineTo(x, y); else ctx.moveTo(x, y);
  }
  ctx.stroke();
}

// ---------- heart rate and score ----------

// In-breath bands, so the rise of the heart rate can be read against them.
function drawBreathBands(ctx, g, cyc, indur) {
  ctx.fillStyle = colours.band;
  for (let k = Math.floor(g.t0 / cyc); k * cyc < g.t1; k++) {
    const a = Math.max(g.t0, k * cyc), b = Math.min(g.t1, k * cyc + indur);
    if (b > a) ctx.fillRect(g.x(a), g.top, g.x(b) - g.x(a), g.ph);
  }
}

// Horizontal grid lines and labels from the heart-rate axis.
function drawHeartRateAxis(ctx, g) {
  ctx.strokeStyle = colours.grid;
  ctx.lineWidth = 1;
  ctx.fillStyle = colours.hrAxis;
  ctx.textAlign = 'right';
  ctx.textBaseline = 'middle';
  ctx.beginPath();
  for (const v of valueTicks(g.lo, g.hi, niceStep(g.hi - g.lo, 5))) {
    const y = Math.round(g.yHr(v)) + 0.5;
    ctx.moveTo(g.left, y);
    ctx.lineTo(g.left + g.pw, y);
    ctx.fillText(String(v), g.left - 8, y);
  }
  ctx.stroke();
}

// An assessment's breaths change length with each step: its bands and
// cycle lines come from the schedule, not from the current step's cycle.
function drawScheduledBreaths(ctx, g, breaths) {
  ctx.fillStyle = colours.band;
  for (const [a0, b0] of breaths) {
    const a = Math.max(g.t0, a0), b = Math.min(g.t1, b0);
    if (b > a) ctx.fillRect(g.x(a), g.top, g.x(b) - g.x(a), g.ph);
  }
  ctx.strokeStyle = colours.cycle;
  ctx.beginPath();
  for (const [a] of breaths) {
    if (a < g.t0 || a > g.t1) continue;
    const x = Math.round(g.x(a)) + 0.5;
    ctx.moveTo(x, g.top);
    ctx.lineTo(x, g.top + g.ph);
  }
  ctx.stroke();
}

function drawCycleLines(ctx, g, cyc) {
  ctx.strokeStyle = colours.cycle;
  ctx.beginPath();
  for (let k = Math.ceil(g.t0 / cyc); k * cyc <= g.t1; k++) {
    const x = Math.round(g.x(k * cyc)) + 0.5;
    ctx.moveTo(x, g.top);
    ctx.lineTo(x, g.top + g.ph);
  }
  ctx.stroke();
}

function drawTimeAxis(ctx, g) {
  const step = timeStep(g.width, g.pw);
  ctx.fillStyle = colours.axis;
  ctx.textAlign = 'center';
  ctx.textBaseline = 'top';
  for (let t = Math.ceil(g.t0 / step) * step; t <= g.t1 + 1e-9; t += step) ctx.fillText(clockText(t), g.x(t), g.top + g.ph + 6);
}

// The score's fixed −1..+1 axis on the right, its zero dashed.
function drawScoreAxis(ctx, g) {
  ctx.textAlign = 'left';
  ctx.textBaseline = 'middle';
  ctx.fillStyle = colours.score;
  for (const v of [-1, -0.5, 0, 0.5, 1]) ctx.fillText((v > 0 ? '+' : v < 0 ? '−' : '') + Math.abs(v), g.left + g.pw + 8, g.yScore(v));
  const y = Math.round(g.yScore(0)) + 0.5;
  ctx.save();
  ctx.setLineDash([5, 5]);
  ctx.strokeStyle = colours.scoreZero;
  ctx.beginPath();
  ctx.moveTo(g.left, y);
  ctx.lineTo(g.left + g.pw, y);
  ctx.stroke();
  ctx.restore();
}

// One series as a line from just before the window on, broken at unknown values.
function drawSeries(ctx, g, series, y, colour, width) {
  ctx.strokeStyle = colour;
  ctx.lineWidth = width;
  ctx.lineJoin = 'round';
  ctx.beginPath();
  let pen = false;
  for (let i = firstAtOrAfter(series, g.t0 - 1); i < series.length; i++) {
    const p = series[i];
    if (p.y == null) { pen = false; continue; }
    if (pen) ctx.lineTo(g.x(p.x), y(p.y)); else ctx.moveTo(g.x(p.x), y(p.y));
    pen = true;
  }
  ctx.stroke();
}

function drawMarkers(ctx, g, markers) {
  ctx.font = '600 11px system-ui, sans-serif';
  ctx.textAlign = 'center';
  ctx.textBaseline = 'middle';
  for (const m of markers) {
    if (m.t < g.t0 || m.t > g.t1) continue;
    const x = Math.round(g.x(m.t)) + 0.5;
    ctx.save();
    ctx.setLineDash([4, 4]);
    ctx.strokeStyle = colours.mark;
    ctx.lineWidth = 1.5;
    ctx.beginPath();
    ctx.moveTo(x, g.top + 10);
    ctx.lineTo(x, g.top + g.ph);
    ctx.stroke();
    ctx.restore();
    ctx.fillStyle = colours.mark;
    ctx.beginPath();
    ctx.arc(x, g.top + 4, 8, 0, Math.PI * 2);
    ctx.fill();
    ctx.fillStyle = '#fff';
    ctx.fillText(String(m.k), x, g.top + 4.5);
  }
}

/** Draws heart rate (left axis) and score (right axis, −1..+1) over time from a snapshot. */
export function drawTrend(canvas, size, s) {
  const c = fitCanvas(canvas, size, 60, 60);
  if (!c || !(s.cycle_seconds > 0)) return;
  const { ctx, w, h } = c;
  const hr = s.hr_series || [], score = s.cvn_series || [];
  const win = timeWindow(hr, s.cycle_seconds);
  const { lo, hi } = heartRateRange(hr, win.t0, win.t1);
  const pw = w - kPlot.left - kPlot.right, ph = h - kPlot.top - kPlot.bottom;
  const g = {
    ...win, lo, hi, pw, ph, left: kPlot.left, top: kPlot.top,
    x: (t) => kPlot.left + ((t - win.t0) / win.width) * pw,
    yHr: (v) => kPlot.top + (1 - (v - lo) / (hi - lo)) * ph,
    yScore: (v) => kPlot.top + (1 - (Math.max(-1, Math.min(1, v)) + 1) / 2) * ph,
  };
  ctx.font = '12px system-ui, sans-serif';
  const breaths = s.rf ? breathsBetween(rfSchedule(s.rf.rates, s.rf.step_s, s.rf.infrac), win.t0, win.t1) : null;
  if (!breaths) drawBreathBands(ctx, g, s.cycle_seconds, Math.max(0, s.indur));
  drawHeartRateAxis(ctx, g);
  if (breaths) drawScheduledBreaths(ctx, g, breaths);
  else drawCycleLines(ctx, g, s.cycle_seconds);
  drawTimeAxis(ctx, g);
  drawScoreAxis(ctx, g);
  ctx.save();
  ctx.beginPath();
  ctx.rect(g.left, g.top - 2, pw, ph + 4);
  ctx.clip();
  drawSeries(ctx, g, hr, g.yHr, colours.hr, 2);
  drawSeries(ctx, g, score, g.yScore, colours.score, 2.2);
  ctx.restore();
  drawMarkers(ctx, g, s.markers || []);
  ctx.strokeStyle = colours.frame;
  ctx.lineWidth = 1;
  ctx.strokeRect(g.left + 0.5, g.top + 0.5, pw - 1, ph - 1);
}

// ---------- resonance assessment results ----------

const kRfPlot = { left: 46, right: 56, top: 14, bottom: 40 };
const kRfHeadroom = 1.15;   // the highest point sits below the top

/** A score against the rate for the steps reached where it could be computed, by rate: [{ x: bpm, y }]. */
export function rfPoints(steps, key) {
  return (steps || []).filter((s) => s.reached && typeof s[key] === 'number' && Number.isFinite(s[key]))
    .map((s) => ({ x: s.bpm, y: s[key] })).sort((a, b) => a.x - b.x);
}

/** An axis from zero (scores here are sizes) to a little above the highest value, with its tick step. */
export function zeroBasedAxis(points, fallback) {
  const top = points.reduce((m, p) => Math.max(m, p.y), 0);
  const hi = top > 0 ? top * kRfHeadroom : fallback;
  const step = niceStep(hi, 5);
  return { lo: 0, hi: Math.ceil(hi / step - 1e-9) * step, step };
}

/**
 * Peak–trough heart rate (left axis) and LF power (right axis) against the
 * breathing rate, the recommended rate marked; `steps` as /rf_result gives them.
 */
export function drawRfResult(canvas, size, steps, recommended) {
  const c = fitCanvas(canvas, size, 120, 80);
  if (!c) return;
  const { ctx, w, h } = c;
  const rates = (steps || []).map((s) => s.bpm).filter((v) => v > 0);
  if (!rates.length) return;
  const hr = rfPoints(steps, 'peak_trough_hr'), lf = rfPoints(steps, 'lf_power');
  const hrAxis = zeroBasedAxis(hr, 10), lfAxis = zeroBasedAxis(lf, 1000);
  const x0 = Math.min(...rates) - 0.25, x1 = Math.max(...rates) + 0.25;
  const pw = w - kRfPlot.left - kRfPlot.right, ph = h - kRfPlot.top - kRfPlot.bottom;
  // Fastest rate on the left, as the steps ran and the table lists them.
  const x = (v) => kRfPlot.left + ((x1 - v) / (x1 - x0)) * pw;
  const y = (axis) => (v) => kRfPlot.top + (1 - (v - axis.lo) / (axis.hi - axis.lo)) * ph;
  const yHr = y(hrAxis), yLf = y(lfAxis);
  ctx.font = '12px system-ui, sans-serif';

  if (recommended > 0) {
    ctx.fillStyle = 'rgba(17,137,138,0.12)';
    ctx.fillRect(x(recommended) - 12, kRfPlot.top, 24, ph);
  }
  ctx.strokeStyle = colours.grid;
  ctx.lineWidth = 1;
  ctx.textBaseline = 'middle';
  ctx.beginPath();
  for (let v = hrAxis.lo; v <= hrAxis.hi + 1e-9; v += hrAxis.step) {
    const yy = Math.round(yHr(v)) + 0.5;
    ctx.moveTo(kRfPlot.left, yy);
    ctx.lineTo(kRfPlot.left + pw, yy);
  }
  ctx.stroke();
  ctx.fillStyle = colours.hrAxis;
  ctx.textAlign = 'right';
  for (let v = hrAxis.lo; v <= hrAxis.hi + 1e-9; v += hrAxis.step) ctx.fillText(String(Math.round(v * 10) / 10), kRfPlot.left - 8, yHr(v));
  ctx.fillStyle = colours.score;
  ctx.textAlign = 'left';
  for (let v = lfAxis.lo; v <= lfAxis.hi + 1e-9; v += lfAxis.step) ctx.fillText(String(Math.round(v)), kRfPlot.left + pw + 8, yLf(v));

  ctx.fillStyle = colours.axis;
  ctx.textAlign = 'center';
  ctx.textBaseline = 'top';
  for (const r of rates) ctx.fillText(String(r), x(r), kRfPlot.top + ph + 6);
  ctx.fillText('breaths/min', kRfPlot.left + pw / 2, kRfPlot.top + ph + 22);

  const line = (pts, yy, colour) => {
    ctx.strokeStyle = colour;
    ctx.fillStyle = colour;
    ctx.lineWidth = 2;
    ctx.lineJoin = 'round';
    ctx.beginPath();
    pts.forEach((p, i) => (i ? ctx.lineTo(x(p.x), yy(p.y)) : ctx.moveTo(x(p.x), yy(p.y))));
    ctx.stroke();
    for (const p of pts) {
      ctx.beginPath();
      ctx.arc(x(p.x), yy(p.y), 3.5, 0, Math.PI * 2);
      ctx.fill();
    }
  };
  line(lf, yLf, colours.score);
  line(hr, yHr, colours.hr);
  ctx.strokeStyle = colours.frame;
  ctx.lineWidth = 1;
  ctx.strokeRect(kRfPlot.left + 0.5, kRfPlot.top + 0.5, pw - 1, ph - 1);
}
