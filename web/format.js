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

// What Setup refuses before anything is sent. The program would quietly turn
// "abc" into its default and 0 into its shortest period; a minute in or out
// is already far beyond any paced-breathing protocol, and 120 years beyond
// any person.
export const kMaxBreathingPeriod = 60;
export const kMaxAge = 120;

/** A number typed with a comma or a point, the whole text of it; NaN otherwise ("5 s", "abc", "1e3"). */
export function strictDecimal(text) {
  const t = String(text ?? '').trim().replace(',', '.');
  return /^[+-]?(\d+\.?\d*|\.\d+)$/.test(t) ? Number(t) : NaN;
}

/** What is wrong with an in- or out-period as typed, or '' when the program can use it. */
export function periodError(text) {
  const v = strictDecimal(text);
  const ok = v >= config.min_breathing_period && v <= kMaxBreathingPeriod;
  return ok ? '' : 'Seconds, ' + config.min_breathing_period + '–' + kMaxBreathingPeriod;
}

/** What is wrong with the age as typed, or ''. Empty is allowed: the program then takes its default. */
export function ageError(text) {
  const t = String(text ?? '').trim();
  return !t || (/^\d+$/.test(t) && Number(t) <= kMaxAge) ? '' : 'Whole years, 0–' + kMaxAge;
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

/** Whether a snapshot is of a live recording still going: ending it needs the user's word. */
export const isLiveRunning = (s) => !!s && s.mode === 'live' && !!s.running;

/**
 * The question before `what` (e.g. "Replaying this recording") ends the live
 * recording of snapshot `s`, and its buttons: { title, text, keep, go }.
 */
export function endLiveText(s, what, go) {
  const who = s.name_id ? ' of ' + s.name_id : '';
  // The program saves a live session when it stops, once it holds a second.
  const kept = s.elapsed >= 1 ? 'what was recorded is saved in the recordings folder.'
    : 'less than a second is recorded, too little to save.';
  return {
    title: 'Stop the live recording?',
    text: 'A live recording' + who + ' is running (' + clockText(s.elapsed) + ' so far). ' + what + ' stops it; ' + kept,
    keep: 'Keep recording',
    go,
  };
}

/**
 * The note of the scope's card: while live, the strap's own status
 * ("Streaming ECG…"); once stopped, that it stopped and the file the program
 * saved it as; a replay's source otherwise.
 */
export function sourceNoteText(s) {
  if (s.mode !== 'live') return s.source_label || '';
  if (s.running) return s.bt_status || '';
  return 'Stopped' + (s.saved_as ? ' · saved as recordings/' + s.saved_as : '');
}

/** The run state pill: the strap's status while live, the snapshot's speed in replay. */
export function runStateText(s) {
  if (!s.running) return 'Stopped';
  if (s.mode === 'live') return s.bt_status || 'Recording';
  return s.replay_speed > 0 ? 'Playing ' + s.replay_speed + '×' : 'Playing';
}

// The HRV indices of the snapshot's "hrv", grouped as the card's table lists
// them (the two long groups first; the short ones share a column): [key,
// label, unit, decimals]. Decimals follow what each index can tell: tenths of
// a ms, bpm or %, whole ms² (powers run to thousands), thousandths of a hertz
// (the spectrum's bins are 0.004 Hz apart or more). The n.u. rows carry their
// unit in the label, as they are usually written.
export const kHrvGroups = [
  ['Time domain', [
    ['n_beats', 'NN intervals', '', 0], ['artefact_pct', 'Artefacts', '%', 1],
    ['mean_nn', 'Mean NN', 'ms', 0], ['sdnn', 'SDNN', 'ms', 1], ['mean_hr', 'Mean HR', 'bpm', 1],
    ['sd_hr', 'SD HR', 'bpm', 1], ['min_hr', 'Min HR', 'bpm', 1], ['max_hr', 'Max HR', 'bpm', 1],
    ['rmssd', 'RMSSD', 'ms', 1], ['nn50', 'NN50', '', 0], ['pnn50', 'pNN50', '%', 1],
  ]],
  ['Frequency domain', [
    ['vlf', 'VLF', 'ms²', 0], ['lf', 'LF', 'ms²', 0], ['hf', 'HF', 'ms²', 0],
    ['total_power', 'Total power', 'ms²', 0], ['lf_hf', 'LF/HF', '', 2], ['lf_nu', 'LF n.u.', '', 1],
    ['hf_nu', 'HF n.u.', '', 1], ['lf_peak', 'LF peak', 'Hz', 3], ['hf_peak', 'HF peak', 'Hz', 3],
  ]],
  ['Poincaré plot', [['sd1', 'SD1', 'ms', 1], ['sd2', 'SD2', 'ms', 1]]],
  ['Per breath', [['peak_trough_hr', 'Peak–trough HR', 'bpm', 1]]],
];

/** The indices the HRV card shows without opening its table. */
export const kHrvSummary = ['rmssd', 'sdnn', 'lf_hf', 'peak_trough_hr'];

/** An index with `decimals` decimals; "–" when it is empty (null) or missing. */
export function hrvText(v, decimals) {
  return typeof v === 'number' && Number.isFinite(v) ? v.toFixed(decimals) : '–';
}
