// Texts of the page from plain values.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { config } from '../../../web/config.js';
import {
  breathingPeriod, clockText, cycleText, endLiveText, gaugeFraction, heartRateParts, hrvText, kHrvGroups, kHrvSummary, scoreText,
} from '../../../web/format.js';

config.min_breathing_period = 0.05;  // as /config gives it

test('clock, score, heart-rate and gauge', () => {
  const cases = [
    [clockText, [[0, '0:00'], [59.9, '0:59'], [61, '1:01'], [3600, '60:00'], [-5, '0:00'], [undefined, '0:00']]],
    [scoreText, [[null, '–'], [0, '+0.00'], [0.123, '+0.12'], [-0.4, '−0.40'], [-1, '−1.00']]],
    [heartRateParts, [[71.96, ['72', '.0']], [59.5, ['59', '.5']], [null, null]]],
    [gaugeFraction, [[-1, 0], [0, 0.5], [1, 1], [1.4, 1], [-3, 0]]],
  ];
  for (const [f, table] of cases) for (const [v, want] of table) assert.deepEqual(f(v), want, `${f.name}(${v})`);
});

test('breathing periods read like the program reads them', () => {
  for (const [text, want] of [['5', 5], ['1,95', 1.95], [' 2.5 ', 2.5], ['2.345', 2.35], ['', 5], ['abc', 5], ['0', 0.05], ['-3', 0.05]]) {
    assert.equal(breathingPeriod(text, 5), want, `"${text}"`);
  }
  assert.equal(cycleText(5, 11), 'Cycle 16 s · 0.0625 Hz');
  assert.equal(cycleText(1.95, 11), 'Cycle 12.95 s · 0.0772 Hz');
});

test('HRV indices: empty is a dash, zero is a number, every summary index is in the table', () => {
  for (const [v, decimals, want] of [[null, 1, '–'], [undefined, 1, '–'], [NaN, 1, '–'], [0, 1, '0.0'], [0, 0, '0'],
    [37.125, 1, '37.1'], [1.23457e6, 0, '1234570'], [0.0625, 3, '0.063']]) {
    assert.equal(hrvText(v, decimals), want, `hrvText(${v}, ${decimals})`);
  }
  const keys = kHrvGroups.flatMap(([, list]) => list.map(([key]) => key));
  assert.equal(new Set(keys).size, 23);
  for (const key of kHrvSummary) assert.ok(keys.includes(key), key);
});

test('the question before a live recording is ended: whose, how long, and whether anything is kept', () => {
  const live = { mode: 'live', running: true, name_id: 'Anna', elapsed: 133.4 };
  const t = endLiveText(live, 'Replaying this recording', 'Stop and replay');
  assert.deepEqual(t, { title: 'Stop the live recording?', keep: 'Keep recording', go: 'Stop and replay',
    text: 'A live recording of Anna is running (2:13 so far). Replaying this recording stops it; what was recorded is saved in the recordings folder.' });
  // Under a second the program keeps nothing, and the question must not promise it.
  assert.equal(endLiveText({ ...live, name_id: '', elapsed: 0.6 }, 'Starting a new session', 'Stop recording').text,
    'A live recording is running (0:00 so far). Starting a new session stops it; less than a second is recorded, too little to save.');
});
