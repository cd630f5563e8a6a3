// The pacer's pose at a time and the clock that follows the session.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { kBallMin, PacerClock, pacerPose } from '../../../web/pacer.js';

const near = (a, b, tol, what) => assert.ok(Math.abs(a - b) <= tol, `${what}: ${a}, expected ${b} ± ${tol}`);

test('pose through the cycle: in 5 s growing, out 11 s shrinking, eased', () => {
  // [t, in/out, periods, scale, seconds left, cycle]
  const cases = [
    [0, 5, 11, true, kBallMin, 5, 1],
    [2.5, 5, 11, true, 0.71, 3, 1],
    [5, 5, 11, false, 1, 11, 1],
    [10.5, 5, 11, false, 0.71, 6, 1],
    [15.99, 5, 11, false, kBallMin, 1, 1],
    [16, 5, 11, true, kBallMin, 5, 2],
    [162.5, 5, 11, true, 0.71, 3, 11],
    [168, 5, 11, false, 0.90, 8, 11],
    [174.25, 5, 11, false, 0.455, 2, 11],
    [1, 2, 8, true, 0.71, 1, 1],
    [6, 2, 8, false, 0.71, 4, 1],
  ];
  for (const [t, indur, outdur, inhale, scale, left, cycle] of cases) {
    const p = pacerPose(t, indur, outdur);
    const what = `t=${t} (${indur}/${outdur})`;
    assert.equal(p.inhale, inhale, what);
    near(p.scale, scale, 0.01, what);
    assert.equal(p.left, left, what);
    assert.equal(p.cycle, cycle, what);
  }
});

// Snapshots every 50 ms whose elapsed moves `rate` times as fast, in tenths.
function play(clock, { from = 0, rate, seconds, t0 = 0 }) {
  let now = t0;
  for (let i = 0; i * 0.05 < seconds; i++) {
    now = t0 + i * 0.05;
    clock.feed(Math.round((from + rate * i * 0.05) * 10) / 10, true, now);
  }
  return now;
}

test('the clock follows any playback rate, snaps on a seek and holds when stopped', () => {
  for (const rate of [1, 2, 8]) {
    const c = new PacerClock();
    const end = play(c, { rate, seconds: 3 });
    near(c.rate, rate, 0.15 * rate, `fitted rate at ${rate}x`);
    // Frames at 60 Hz between snapshots stay on the session's time.
    let shown = 0;
    for (let f = 1; f <= 6; f++) shown = c.frame(end + f / 60);
    near(shown, rate * (end + 0.1), 0.1 + 0.05 * rate, `shown time at ${rate}x`);
  }

  const c = new PacerClock();
  const end = play(c, { rate: 1, seconds: 3 });
  c.frame(end);
  c.feed(130, true, end + 0.05);  // a seek far ahead
  near(c.frame(end + 0.06), 130, 0.01, 'after a seek');

  // Stopped: the ball settles on the last time and stays there.
  c.feed(131, false, end + 0.1);
  let held = 0;
  for (let f = 1; f <= 120; f++) held = c.frame(end + 0.1 + f / 60);
  near(held, 131, 0.01, 'stopped at');
  near(c.frame(end + 60), held, 1e-3, 'still stopped');
});
