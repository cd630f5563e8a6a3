// The resonance assessment's schedule, settings and texts.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { rfPoints, zeroBasedAxis } from '../../../web/charts.js';
import { schedulePose } from '../../../web/pacer.js';
import { breathsBetween, breathsDone, cueCrossed, paceFromRate, readRfSettings, recommendationText, resultRow, rfParams, rfSchedule, rateText, stepIndexAt, stepLine } from '../../../web/rf.js';

const near = (a, b, what) => assert.ok(Math.abs(a - b) < 1e-9, `${what}: ${a}, expected ${b}`);

test('schedule: whole breaths per step (halves up), steps back to back, periods from the in-fraction', () => {
  const d = rfSchedule([6.5, 6, 5.5, 5, 4.5], 120, 0.4);
  assert.deepEqual(d.steps.map((s) => s.breaths), [13, 12, 11, 10, 9]);
  d.steps.forEach((s, i) => near(s.start, 120 * i, `default step ${i + 1} start`));
  near(d.total, 600, 'default total');
  // 100 s: 10.83 → 11 breaths of 60/6.5 s, 7.5 → 8 of 60/4.5 s (a half rounds up), 11.67 → 12; 90 s at 7: 10.5 → 11.
  const s = rfSchedule([6.5, 4.5, 7], 100, 0.35);
  assert.deepEqual(s.steps.map((x) => x.breaths), [11, 8, 12]);
  near(s.steps[1].start, 11 * 60 / 6.5, 'second start');
  near(s.steps[2].start, 11 * 60 / 6.5 + 8 * 60 / 4.5, 'third start');
  near(s.steps[0].indur, 0.35 * 60 / 6.5, 'in-period');
  near(s.steps[0].indur + s.steps[0].outdur, 60 / 6.5, 'cycle');
  assert.equal(rfSchedule([7], 90, 0.4).steps[0].breaths, 11);
  assert.equal(rfSchedule([3], 60, 0.4).steps[0].breaths, 3);
  for (const [t, want] of [[-1, 0], [0, 0], [119.99, 0], [120, 1], [599, 4], [700, 4]]) assert.equal(stepIndexAt(d, t), want, `t=${t}`);
});

test('the pacer stays in phase across a change of pace and holds at the end', () => {
  const d = rfSchedule([6.5, 4.5], 100, 0.4);   // 11 breaths of 9.23 s, then 8 of 13.33 s
  const b = d.steps[1].start;
  // [t, step, inhale, scale to 2 decimals, cycle within the step]
  for (const [t, ...want] of [
    [0, 0, true, 0.42, 1], [b - 0.01, 0, false, 0.42, 11], [b, 1, true, 0.42, 1], [b + d.steps[1].indur / 2, 1, true, 0.71, 1],
    [b + 13.34, 1, true, 0.42, 2], [b + 8 * 13.3333 - 0.01, 1, false, 0.42, 8], [d.total + 30, 1, false, 0.42, 8],
  ]) {
    const p = schedulePose(t, d);
    assert.deepEqual([p.step, p.inhale, Math.round(p.scale * 100) / 100, p.cycle], want, `t=${t}`);
  }
});

test('the chart\'s breath bands follow each step\'s own breaths', () => {
  const d = rfSchedule([6, 5], 60, 0.4);   // 6 breaths of 10 s (4 s in), then 5 of 12 s (4.8 s in)
  assert.deepEqual(breathsBetween(d, 35, 75).map(([a, b]) => [a, Math.round(b * 10) / 10]), [[30, 34], [40, 44], [50, 54], [60, 64.8], [72, 76.8]]);
  assert.equal(breathsBetween(d, 0, 500).length, 11);
  assert.deepEqual(breathsBetween(d, 200, 300), []);
});

test('the change-of-pace cue sounds once per change, one breath ahead, never on a jump', () => {
  const d = rfSchedule([6, 5, 4.5], 120, 0.4);   // changes at 120 and 240; cues at 110 and 228
  assert.equal(cueCrossed(d, 109.95, 110, 2), true);
  assert.equal(cueCrossed(d, 110, 110.05, 2), false);
  assert.equal(cueCrossed(d, 227.9, 228.3, 2), true);
  // The last step's last breath ends the session: nothing to announce.
  assert.equal(cueCrossed(d, 359 - 13.4, 359, 20), false);
  assert.equal(cueCrossed(d, 50, 130, 2), false, 'a seek');
  assert.equal(cueCrossed(d, 111, 109, 2), false, 'backwards');
});

test('settings are checked against the program\'s limits, field by field', () => {
  const ok = readRfSettings({ rates: ['6.5', '6', '5,5', ' 5 ', '4.5'], step: '120', infrac: '0,4' });
  assert.equal(ok.ok, true, JSON.stringify(ok.errors));
  assert.deepEqual(rfParams(ok), { protocol: 'rf', rates: '6.5,6,5.5,5,4.5', step_s: '120', infrac: '0.4' });
  const bad = (fields, what) => {
    const r = readRfSettings({ rates: ['6', '5'], step: '120', infrac: '0.4', ...fields });
    assert.equal(r.ok, false, `${what} passed`);
    return r.errors;
  };
  const good = (fields, what) => assert.equal(readRfSettings({ rates: ['6', '5'], step: '120', infrac: '0.4', ...fields }).ok, true, what);
  for (const v of ['3', '10', '3.0', '10,0']) good({ rates: [v, '5'] }, `rate ${v}`);
  for (const v of ['2.99', '10.01', '', 'x', '-6']) assert.notEqual(bad({ rates: [v, '5'] }, `rate ${v}`).rates[0], '', `rate ${v}`);
  assert.deepEqual(bad({ rates: ['6', '11'] }).rates, ['', '3–10 breaths/min']);
  good({ rates: Array(8).fill('6') }, '8 rates');
  for (const n of [0, 1, 9]) assert.equal(bad({ rates: Array(n).fill('6') }, `${n} rates`).list, 'Use 2 to 8 rates.');
  for (const v of ['60', '300']) good({ step: v }, `step ${v}`);
  for (const v of ['59', '301', '90.5', '']) assert.equal(bad({ step: v }, `step ${v}`).step, 'Whole seconds, 60–300');
  for (const v of ['0.3', '0.6', '0,45']) good({ infrac: v }, `infrac ${v}`);
  for (const v of ['0.29', '0.61', '']) assert.equal(bad({ infrac: v }, `infrac ${v}`).infrac, '0.3–0.6 of each breath');
});

test('texts: the step line, rates, results rows, the recommendation and its pace', () => {
  assert.equal(stepLine({ step: 3, steps: 5, bpm: 5.5, left: 72.4 }), 'Step 3 of 5 · 5.5 breaths/min · 1:12 left');
  assert.equal(stepLine({ step: 5, steps: 5, bpm: 4.5, left: 0 }), 'Step 5 of 5 · 4.5 breaths/min · done');
  assert.deepEqual([6, 5.5, 5.25, 4.999999].map(rateText), ['6.0', '5.5', '5.25', '5.0']);
  assert.equal(recommendationText(5), 'Recommended pace: 5.0 breaths/min');
  assert.equal(recommendationText(null), 'No recommendation');
  const row = resultRow({ bpm: 6.5, breaths: 13, reached: true, peak_trough_hr: 9.14, lf_power: 812.5, lf_peak: 0.1056,
    phase_deg: -12.4, amplitude_bpm: null, cvn: 10.5 });
  assert.deepEqual(row, { rate: '6.5', breaths: '13', reached: true, cells: ['9.1', '813', '0.106', '−12', '–', '10.50'] });
  assert.equal(resultRow({ bpm: 4.5, breaths: 9, reached: false, peak_trough_hr: null }).cells, null);
  assert.equal(resultRow({ bpm: 5, breaths: 10, reached: true, phase_deg: -0.2 }).cells[3], '0', 'no minus on a zero');
  for (const [bpm, infrac, want] of [[5, 0.4, { indur: 4.8, outdur: 7.2 }], [6.5, 0.4, { indur: 3.69, outdur: 5.54 }], [4.5, 0.35, { indur: 4.67, outdur: 8.67 }]]) {
    assert.deepEqual(paceFromRate(bpm, infrac), want, `${bpm} at ${infrac}`);
  }
});

test('results plot: only steps reached with a value, by rate, on an axis from zero', () => {
  const steps = [{ bpm: 6, reached: true, lf_power: 500 }, { bpm: 5, reached: true, lf_power: 900 },
    { bpm: 5.5, reached: true, lf_power: null }, { bpm: 4.5, reached: false, lf_power: 40 }];
  assert.deepEqual(rfPoints(steps, 'lf_power'), [{ x: 5, y: 900 }, { x: 6, y: 500 }]);
  assert.deepEqual(zeroBasedAxis(rfPoints(steps, 'lf_power'), 1000), { lo: 0, hi: 1250, step: 250 });
  assert.deepEqual(zeroBasedAxis([], 10), { lo: 0, hi: 10, step: 2 });
});

test('breaths done: whole steps, a fraction of the breath under way, never past the plan', () => {
  const d = rfSchedule([6, 5], 60, 0.4);  // 6 breaths of 10 s, then 5 of 12 s
  assert.deepEqual(breathsDone(d, 0), { done: 0, all: 11 });
  near(breathsDone(d, 75).done, 6 + 15 / 12, 'into the second step');
  near(breathsDone(d, 500).done, 11, 'after the end');
});
