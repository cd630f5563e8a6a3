// The breathing pacer: a clock that follows the session's time between
// snapshots, the pose of the ball at a given time, and the view that shows it.
// Times are seconds; `now` is any monotonic wall clock in seconds.

import { rfSchedule, stepIndexAt } from './rf.js';

// Snapshots arrive every 50 ms with "elapsed" in tenths of a second, so the
// clock fits a straight line through the last two seconds of (arrival time,
// elapsed) pairs. Its slope is the playback rate, which keeps the pacer in
// step at any replay speed and through a seek.
const kFitSeconds = 2;
const kFitMinPoints = 3;
const kSnapSeconds = 1.5;   // further off than this is a seek or a new session
const kPull = 6;            // per second: how fast the ball closes a small gap
const kLongestFrame = 0.1;  // a frame after a pause does not jump the ball

export class PacerClock {
  constructor() { this.reset(); }

  reset() {
    this.pts = [];
    this.rate = 0;
    this.shown = 0;
    this.running = false;
    this.primed = false;
    this.lastFrame = 0;
    this.tm = 0;
    this.b = 0;
  }

  /** Session time at `now` from the fit (the last value before the fit holds). */
  estimate(now) {
    const n = this.pts.length;
    if (!n) return 0;
    if (!this.running || n < kFitMinPoints) return this.pts[n - 1][1];
    return this.b + this.rate * (now - this.tm);
  }

  /** Takes one snapshot's `elapsed` and `running`, received at `now`. */
  feed(elapsed, running, now) {
    const e = elapsed || 0;
    const jump = this.pts.length && Math.abs(e - this.estimate(now)) > kSnapSeconds + this.rate * 0.25;
    if (!this.primed || jump || !running) {
      this.pts = [];
      if (!this.primed || jump) this.shown = e;
    }
    this.primed = true;
    this.running = !!running;
    this.pts.push([now, e]);
    while (this.pts.length > kFitMinPoints && now - this.pts[0][0] > kFitSeconds) this.pts.shift();
    const n = this.pts.length;
    if (n < kFitMinPoints) {
      this.rate = 0;
      return;
    }
    let mt = 0, me = 0;
    for (const [t, v] of this.pts) { mt += t; me += v; }
    mt /= n;
    me /= n;
    let sxy = 0, sxx = 0;
    for (const [t, v] of this.pts) { sxy += (t - mt) * (v - me); sxx += (t - mt) * (t - mt); }
    this.rate = sxx > 0 ? Math.max(0, sxy / sxx) : 0;
    this.tm = mt;
    this.b = me;
  }

  /** The session time to show in the animation frame at `now`. */
  frame(now) {
    const dt = Math.min(kLongestFrame, Math.max(0, now - (this.lastFrame || now)));
    this.lastFrame = now;
    const target = this.estimate(now);
    if (this.running) this.shown += this.rate * dt;
    const err = target - this.shown;
    if (Math.abs(err) > kSnapSeconds) this.shown = target;
    else this.shown += err * (1 - Math.exp(-dt * kPull));
    return this.shown;
  }
}

/** Smallest ball, as a share of the full size (fully breathed out). */
export const kBallMin = 0.42;

const ease = (p) => 0.5 - 0.5 * Math.cos(Math.PI * Math.min(1, Math.max(0, p)));

/**
 * Where the pacer is at session time `t` for the given periods: breathing in
 * or out, the progress through that period (0..1), the ball's scale, whole
 * seconds left in the period (at least 1) and the 1-based cycle number.
 */
export function pacerPose(t, indur, outdur) {
  const cyc = indur + outdur;
  const ph = ((t % cyc) + cyc) % cyc;
  const inhale = ph < indur;
  const progress = inhale ? ph / indur : (ph - indur) / outdur;
  const size = inhale ? ease(progress) : 1 - ease(progress);
  return {
    inhale,
    progress,
    scale: kBallMin + (1 - kBallMin) * size,
    left: Math.max(1, Math.ceil((inhale ? indur - ph : cyc - ph) - 1e-6)),
    cycle: Math.floor(t / cyc) + 1,
  };
}

/**
 * The pose at session time `t` in an assessment's schedule (rf.js): the
 * current step's periods, counted from the step's start, so the ball stays in
 * phase across a change of pace (each step starts with a breath in). Adds the
 * 0-based `step`; `cycle` counts within the step. The session stops at the
 * end, so a time past it holds the last breath's end.
 */
export function schedulePose(t, sched) {
  const i = stepIndexAt(sched, t);
  const st = sched.steps[i];
  const local = Math.min(Math.max(0, t - st.start), st.breaths * st.cycle - 1e-6);
  return { ...pacerPose(local, st.indur, st.outdur), step: i };
}

// The schedule of a snapshot's "rf", worked out again only when it changes.
function scheduleCache() {
  let key = '', sched = null;
  return (rf) => {
    const k = rf.rates.join(',') + '/' + rf.step_s + '/' + rf.infrac;
    if (k !== key) { key = k; sched = rfSchedule(rf.rates, rf.step_s, rf.infrac); }
    return sched;
  };
}

/**
 * The pacer card. `draw(now, s)` runs in every animation frame with the last
 * snapshot (or null) and writes to the page only what differs from the last
 * frame, so a stopped session costs next to nothing.
 */
export function createPacerView(els) {
  const clock = new PacerClock();
  const schedule = scheduleCache();
  const shown = {};
  const put = (key, value, write) => {
    if (shown[key] === value) return;
    shown[key] = value;
    write(value);
  };
  return {
    clock,
    reset() {
      clock.reset();
      for (const k of Object.keys(shown)) delete shown[k];
    },
    draw(now, s) {
      const t = clock.frame(now);
      put('t', t.toFixed(2), (v) => { els.pacer.dataset.t = v; });
      if (!s || !(s.indur > 0 && s.outdur > 0)) {
        put('sub', '', (v) => { els.cueSub.textContent = v; });
        put('cycle', '', (v) => { els.cycle.textContent = v; });
        put('idle', true, (v) => els.pacer.classList.toggle('idle', v));
        return;
      }
      const sched = s.rf ? schedule(s.rf) : null;
      const pose = sched ? schedulePose(t, sched) : pacerPose(t, s.indur, s.outdur);
      put('scale', pose.scale.toFixed(4), (v) => { els.ball.style.transform = 'scale(' + v + ')'; });
      put('arc', (pose.progress * 100).toFixed(2), (v) => els.arc.setAttribute('stroke-dasharray', v + ' 100'));
      put('inhale', pose.inhale, (v) => {
        els.arc.setAttribute('stroke', v ? '#11898a' : '#5b7fb0');
        // The cue is a polite live region: it is written only when its
        // words change, so a screen reader hears each phase once.
        const words = v ? 'Breathe in' : 'Breathe out';
        if (els.cue.textContent !== words) els.cue.textContent = words;
        els.cue.classList.toggle('out', !v);
      });
      put('sub', s.running ? pose.left + ' s' : 'Stopped', (v) => { els.cueSub.textContent = v; });
      put('cycle', 'Cycle ' + pose.cycle + (sched ? ' of ' + sched.steps[pose.step].breaths : ''), (v) => { els.cycle.textContent = v; });
      put('idle', !s.running, (v) => els.pacer.classList.toggle('idle', v));
    },
  };
}
