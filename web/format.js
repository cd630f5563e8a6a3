// Texts the page shows, from plain values. No DOM here, so node can test it.

import { config } from './config.js';

/** "m:ss" for a number of seconds; negative and missing values show 0:00. */
export function clockText(sec) {
  const s = Math.max(0, Math.floor(sec || 0));
  return Math.floor(s / 60) + ':' + String(s % 60).padStart(2, '0');
}

/** A decimal number typed with a comma or a point; `dflt` when empty or not a number. */
export function parseDecimal(text, dflt) {
  const t = String(text).replace(/,/g, '.').trim();
  if (!t) return dflt;
  const v = parseFloat(t);
  return Number.isFinite(v) ? v : dflt;
}

export const round2 = (x) => Math.round(x * 100) / 100;

// The one place the page repeats the program's reading of a breathing
// period: before a session starts there is no snapshot to read it from, and
// the setup pill must show the cycle the program will use. At least the
// program's shortest period, then two decimals.
export function breathingPeriod(text, dflt) {
  return round2(Math.max(parseDecimal(text, dflt), config.min_breathing_period));
}

/** The setup pill: "Cycle 16 s · 0.0625 Hz". */
export function cycleText(indur, outdur) {
  const sum = round2(indur + outdur);
  return 'Cycle ' + sum + ' s · ' + (sum > 0 ? (1 / sum).toFixed(4) : '0') + ' Hz';
}

/** The score with its sign and a real minus: "+0.12", "−0.40", "–" when unknown. */
export function scoreText(v) {
  if (v == null) return '–';
  return (v < 0 ? '−' : '+') + Math.abs(v).toFixed(2);
}

/** Where the gauge knob sits for a score of −1..+1, as a fraction of its width. */
export function gaugeFraction(v) {
  return Math.min(1, Math.max(0, (v + 1) / 2));
}

/** Heart rate split for display: ["72", ".4"], or null when unknown. */
export function heartRateParts(hr) {
  if (hr == null) return null;
  const [whole, dec] = hr.toFixed(1).split('.');
  return [whole, '.' + dec];
}

/** The live screen's title and meta line. */
export function titleText(s) {
  return (s.mode === 'live' ? 'Live recording' : 'Playback') + (s.name_id ? ' · ' + s.name_id : '');
}
export function metaText(s) {
  return 'Sex ' + s.sex + ' · Age ' + s.age + ' · In ' + s.indur + ' s / Out ' + s.outdur +
    ' s · Cycle ' + s.cycle_seconds + 's · Expected ' + s.expected_freq + ' Hz';
}

/** The run state pill: the strap's status while live, the speed in replay. */
export function runStateText(s, replaySpeed) {
  if (!s.running) return 'Stopped';
  return s.mode === 'live' ? (s.bt_status || 'Recording') : 'Playing ' + replaySpeed + '×';
}
