// Scales and ticks of the heart-rate and score chart.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { firstAtOrAfter, heartRateRange, niceStep, timeStep, timeWindow, valueTicks } from '../../../web/charts.js';

const series = (pts) => pts.map(([x, y]) => ({ x, y }));
const near = (a, b) => Math.abs(a - b) < 1e-9;

test('axis ticks: nice steps, ticks on their multiples, time labels that fit', () => {
  for (const [span, want] of [[10, 2], [7, 2], [12, 2.5], [20, 5], [1, 0.2], [300, 100], [0.5, 0.1]]) assert.equal(niceStep(span, 5), want, `span ${span}`);
  assert.deepEqual(valueTicks(57.3, 66.1, 2), [58, 60, 62, 64, 66]);
  assert.deepEqual(valueTicks(0.05, 0.65, 0.1), [0.1, 0.2, 0.3, 0.4, 0.5, 0.6]);
  assert.deepEqual(valueTicks(60, 60.5, 1), [60]);
  // Labels keep 110 px apart: 180 s over 1100 px is 10 labels, every 20 s.
  for (const [win, width, want] of [[180, 1100, 20], [180, 330, 60], [180, 200, 60], [3000, 1100, 300], [1e6, 1100, 3600]]) {
    assert.equal(timeStep(win, width), want, `timeStep(${win}, ${width})`);
  }
});

test('time window and heart-rate range follow the visible points', () => {
  assert.deepEqual(timeWindow([], 16), { t0: 0, t1: 180, width: 180 });
  assert.deepEqual(timeWindow(series([[0, 60], [400, 61]]), 16), { t0: 220, t1: 400, width: 180 });
  assert.deepEqual(timeWindow(series([[0, 60], [100, 61]]), 40), { t0: 0, t1: 240, width: 240 });
  // 60..70 visible (the 100 and 200 are outside), padded; a flat line widened to 6 bpm, then padded.
  const r = heartRateRange(series([[0, 100], [10, 60], [20, null], [30, 70], [40, 200]]), 5, 35);
  const flat = heartRateRange(series([[0, 64], [1, 65]]), 0, 10);
  assert.ok(near(r.lo, 58.6) && near(r.hi, 71.4) && near(flat.hi - flat.lo, 6 * 1.28), JSON.stringify([r, flat]));
  assert.deepEqual(heartRateRange(series([[0, null]]), 0, 10), { lo: 50, hi: 90 });
  for (const [t, want] of [[-1, 0], [0, 0], [0.5, 1], [1, 1], [4, 3], [9, 4]]) assert.equal(firstAtOrAfter(series([[0, 1], [1, 1], [1, 1], [5, 1]]), t), want, `t=${t}`);
});
