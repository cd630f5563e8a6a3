// The pacer's pose at a time and the clock that follows the session.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { PacerClock, pacerPose } from '../../../web/pacer.js';

const near = (a, b, tol, what) => assert.ok(Math.abs(a - b) <= tol, `${what}: ${a}, expected ${b} ± ${tol}`);

test('pose through the cycle: in growing, out shrinking, eased; seconds left and cycle count', () => {
  // [t, in, out periods] → [inhale, scale to 2 decimals, seconds left, cycle]
  for (const [t, indur, outdur, ...want] of [
    [0, 5, 11, true, 0.42, 5, 1], [2.5, 5, 11, true, 0.71, 3, 1], [5, 5, 11, false, 1, 11, 1],
    [15.99, 5, 11, false, 0.42, 1, 1], [16, 5, 11, true, 0.42, 5, 2], [168, 5, 11, false, 0.90, 8, 11],
    [174.25, 5, 11, false, 0.46, 2, 11], [1, 2, 8, true, 0.71, 1, 1], [6, 2, 8, false, 0.71, 4, 1],
  ]) {
    const p = pacerPose(t, indur, outdur);
    assert.deepEqual([p.inhale, Math.round(p.scale * 100) / 100, p.left, p.cycle], want, `t=${t} (${indur}/${outdur})`);
  }
});

// Snapshots every 50 ms whose elapsed moves `rate` times as fast, in tenths; returns the last time.
function play(clock, rate, seconds) {
  let now = 0;
  for (let i = 0; i * 0.05 < seconds; i++) clock.feed(Math.round(rate * (now = i * 0.05) * 10) / 10, true, now);
  return now;
}

test('the clock follows any playback rate, snaps on a seek and holds when stopped', () => {
  for (const rate of [1, 2, 8]) {
    const c = new PacerClock();
    const end = play(c, rate, 3);
    near(c.rate, rate, 0.15 * rate, `fitted rate at ${rate}x`);
    // Frames at 60 Hz between snapshots stay on the session's time.
    let shown = 0;
    for (let f = 1; f <= 6; f++) shown = c.frame(end + f / 60);
    near(shown, rate * (end + 0.1), 0.1 + 0.05 * rate, `shown time at ${rate}x`);
  }
  const c = new PacerClock();
  const end = play(c, 1, 3);
  c.frame(end);
  c.feed(130, true, end + 0.05);  // a seek far ahead
  near(c.frame(end + 0.06), 130, 0.01, 'after a seek');
  c.feed(131, false, end + 0.1);  // stopped: the ball settles on the last time and stays there
  for (let f = 1; f <= 120; f++) c.frame(end + 0.1 + f / 60);
  near(c.frame(end + 0.1 + 2), 131, 0.01, 'stopped at');
  near(c.frame(end + 60), 131, 0.01, 'still stopped');
});
