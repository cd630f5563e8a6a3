// The countdown to the first score and the "Coupled" cue. Both follow every
// snapshot (cheap, and sound must not wait for an animation frame) and touch
// the page only when what they show changes.

import { playCue, tone } from './audio.js';
import { cueCrossed, rfSchedule } from './rf.js';
import { $, setText } from './ui.js';

// The score needs the snapshot's countdown_cycles whole cycles of data. Tones
// at 2 and 1 s left, and a higher one when it starts, let the user keep their
// eyes on the pacer.
const kTickTone = [660, 0.12];   // Hz, seconds
const kStartTone = [880, 0.25];
const kBarHideMs = 1200;

export function createCountdown() {
  let state = 'new', toned = {}, hideTimer = 0, fill = '';
  const text = $('cdText'), bar = $('cdBar'), fillEl = $('cdFill');
  const setFill = (v) => { if (v !== fill) { fill = v; fillEl.style.width = v; } };
  return {
    reset() {
      state = 'new';
      toned = {};
      clearTimeout(hideTimer);
      bar.classList.remove('gone');
      text.textContent = '\u00a0';
      text.classList.remove('active');
      setFill('0');
    },
    update(s) {
      if (!(s.cycle_seconds > 0 && s.countdown_cycles > 0)) return;
      const need = s.countdown_cycles * s.cycle_seconds;
      const el = s.elapsed || 0;
      const left = need - el;
      if (left > 0) {
        if (state !== 'counting') { clearTimeout(hideTimer); toned = {}; }
        state = 'counting';
        bar.classList.remove('gone');
        text.classList.remove('active');
        const whole = Math.ceil(left);
        setText(text, 'CVN in ' + whole + ' s');
        setFill((Math.min(1, el / need) * 100).toFixed(1) + '%');
        if (s.running && whole <= 2 && !toned[whole]) { toned[whole] = true; tone(...kTickTone); }
        return;
      }
      if (state === 'active') return;
      // A session joined after the countdown gets no tone and no bar.
      const sound = state === 'counting' && s.running;
      state = 'active';
      text.textContent = 'CVN active';
      text.classList.add('active');
      setFill('100%');
      if (sound) {
        tone(...kStartTone);
        hideTimer = setTimeout(() => bar.classList.add('gone'), kBarHideMs);
      } else {
        bar.classList.add('gone');
      }
    },
  };
}

// "Coupled" lights once the score has stayed above zero for a whole cycle;
// the cue sound repeats at most once a cycle of session time and never
// faster than kCueGapMs of wall time (a fast replay would chatter).
const kCueGapMs = 1200;

export function createCoupling() {
  let runStart = null, lastCueAt = null, lastCueWall = -1e9;
  const pill = $('coupled');
  return {
    reset() {
      runStart = null;
      lastCueAt = null;
      lastCueWall = -1e9;
      pill.classList.remove('on');
    },
    update(s) {
      const v = s.cvn, el = s.elapsed || 0, cyc = s.cycle_seconds;
      if (v == null || !(v > 0) || !(cyc > 0)) {
        runStart = null;
        pill.classList.remove('on');
        return;
      }
      if (runStart === null || el < runStart) runStart = el;
      const on = el - runStart >= cyc;
      pill.classList.toggle('on', on);
      if (!on || !s.running) return;
      const wall = performance.now();
      const due = lastCueAt === null || el - lastCueAt >= cyc || el < lastCueAt;
      if (due && wall - lastCueWall >= kCueGapMs) {
        lastCueAt = el;
        lastCueWall = wall;
        playCue();
      }
    },
  };
}

// An assessment's change of pace is announced one breath ahead by a soft,
// low tone, quieter than the countdown's ticks: the person is breathing out
// slowly and should not be startled. Session time moving by more than this
// between two snapshots (20 a second, 0.4 s apart at 8×) is a seek or a late
// join, and announces nothing.
const kStepTone = [440, 0.6, 0.1];  // Hz, seconds, loudness
const kStepCueGap = 2;              // seconds of session time

export function createStepCue() {
  let prev = null, key = '', sched = null;
  return {
    reset() { prev = null; },
    update(s) {
      const el = s.elapsed || 0;
      const before = prev;
      prev = el;
      if (!s.rf || !s.running || before === null) return;
      const k = s.rf.rates.join(',') + '/' + s.rf.step_s + '/' + s.rf.infrac;
      if (k !== key) { key = k; sched = rfSchedule(s.rf.rates, s.rf.step_s, s.rf.infrac); }
      if (cueCrossed(sched, before, el, kStepCueGap)) tone(...kStepTone);
    },
  };
}
