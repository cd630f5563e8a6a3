// What Setup refuses to send: the program would quietly replace it.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { config } from '../../../web/config.js';
import { ageError, periodError } from '../../../web/format.js';

test('breathing periods: the program\'s shortest to a minute, a number and nothing else', () => {
  config.min_breathing_period = 0.05;  // as /config gives it
  const ok = ['0.05', '0,05', ' 5 ', '5.', '.5', '60', '60.00', '1,95'];
  const bad = ['', ' ', '0', '0.049', '-5', '60.01', 'abc', '5abc', '5 s', '1e1', '5,5,5', '1.2.3', 'Infinity', 'NaN'];
  for (const t of ok) assert.equal(periodError(t), '', `"${t}"`);
  for (const t of bad) assert.equal(periodError(t), 'Seconds, 0.05–60', `"${t}"`);
  // The limit is the program's, not a copy of it.
  config.min_breathing_period = 1;
  assert.deepEqual(['0.5', '1'].map(periodError), ['Seconds, 1–60', '']);
  config.min_breathing_period = 0.05;
});

test('age: whole years from 0 to 120, or left empty for the program\'s default', () => {
  for (const t of ['', '  ', '0', '40', ' 40 ', '120']) assert.equal(ageError(t), '', `"${t}"`);
  for (const t of ['-5', '121', '200', '4.5', '40,0', 'abc', '4e1', '+40', '40 years']) {
    assert.equal(ageError(t), 'Whole years, 0–120', `"${t}"`);
  }
});
