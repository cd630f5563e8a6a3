// The resonance-frequency assessment: the pacer walks the person through a few
// breathing rates, a couple of minutes each, and the program scores each step.
// Here: the schedule (the program computes the same one, so the pacer stays
// in phase with its "elapsed"), the settings as the setup table reads them,
// and the texts the page shows. No DOM here, so node can test it.

import { clockText, parseDecimal, round2 } from './format.js';

// The program refuses anything outside these before a session starts; the
// setup table says so first, next to the field, instead of after Start.
export const kRf = {
  rates: [6.5, 6.0, 5.5, 5.0, 4.5], minRates: 2, maxRates: 8, minRate: 3, maxRate: 10,
  step_s: 120, minStep: 60, maxStep: 300,
  infrac: 0.4, minInfrac: 0.3, maxInfrac: 0.6,
};

/**
 * The steps for `rates` (breaths/min), about `step_s` seconds each, a share
 * `infrac` of every breath spent breathing in: whole breaths per step (half a
 * breath rounds up), one step straight after the other, each starting with a
 * breath in. Returns { steps: [{ bpm, cycle, indur, outdur, breaths, start,
 * end }], total } in seconds.
 */
export function rfSchedule(rates, step_s, infrac) {
  const steps = [];
  let start = 0;
  for (const bpm of rates) {
    const cycle = 60 / bpm;
    const breaths = Math.max(1, Math.floor(step_s * bpm / 60 + 0.5));
    const end = start + breaths * cycle;
    steps.push({ bpm, cycle, indur: infrac * cycle, outdur: cycle - infrac * cycle, breaths, start, end });
    start = end;
  }
  return { steps, total: start };
}

/**
 * Breaths done by session time `t` (a fraction for the one under way) and in
 * all: an assessment's cycles change length from step to step, so elapsed
 * time over one cycle length counts nothing real.
 */
export function breathsDone(sched, t) {
  let done = 0, all = 0;
  for (const st of sched.steps) {
    done += Math.min(st.breaths, Math.max(0, (t - st.start) / st.cycle));
    all += st.breaths;
  }
  return { done, all };
}

/** The index of the step that session time `t` falls in (the first before it, the last after it). */
export function stepIndexAt(sched, t) {
  const { steps } = sched;
  let i = 0;
  while (i < steps.length - 1 && t >= steps[i].end) i++;
  return i;
}

/** The breaths that overlap [t0, t1] as [start, end of the breath in] pairs, for the chart's bands. */
export function breathsBetween(sched, t0, t1) {
  const out = [];
  for (const st of sched.steps) {
    if (st.end < t0 || st.start > t1) continue;
    for (let k = Math.max(0, Math.floor((t0 - st.start) / st.cycle)); k < st.breaths; k++) {
      const a = st.start + k * st.cycle;
      if (a > t1) break;
      out.push([a, a + st.indur]);
    }
  }
  return out;
}

// The steps' last breath begins one breath before the pace changes: a tone
// there lets the person hear the change coming without looking.
/**
 * Whether session time moving from `prev` to `cur` passed the start of a
 * step's last breath (not the last step's: nothing changes after it). A move
 * longer than `maxGap` (a seek, a page joining late) passes nothing.
 */
export function cueCrossed(sched, prev, cur, maxGap) {
  if (!(cur > prev) || cur - prev > maxGap) return false;
  const { steps } = sched;
  for (let i = 0; i < steps.length - 1; i++) {
    const at = steps[i].end - steps[i].cycle;
    if (prev < at && at <= cur) return true;
  }
  return false;
}

// ---------- the setup table ----------

/**
 * Reads the table as typed (`rates`: texts, `step`, `infrac`: texts; comma or
 * point) with the program's limits. Returns { ok, rates, step_s, infrac,
 * errors: { rates: [per row], list, step, infrac } } where an error is a
 * short sentence for beside its field, '' when the field is fine.
 */
export function readRfSettings({ rates, step, infrac }) {
  const k = kRf;
  const errors = { rates: [], list: '', step: '', infrac: '' };
  const values = rates.map((text) => parseDecimal(text, NaN));
  errors.rates = values.map((v) => (Number.isNaN(v) ? 'Enter a rate' :
    v < k.minRate || v > k.maxRate ? `${k.minRate}–${k.maxRate} breaths/min` : ''));
  if (rates.length < k.minRates || rates.length > k.maxRates) errors.list = `Use ${k.minRates} to ${k.maxRates} rates.`;
  const s = parseDecimal(step, NaN);
  if (!(Number.isInteger(s) && s >= k.minStep && s <= k.maxStep)) errors.step = `Whole seconds, ${k.minStep}–${k.maxStep}`;
  const f = parseDecimal(infrac, NaN);
  if (!(f >= k.minInfrac && f <= k.maxInfrac)) errors.infrac = `${k.minInfrac}–${k.maxInfrac} of each breath`;
  const ok = !errors.list && !errors.step && !errors.infrac && errors.rates.every((e) => !e);
  return { ok, rates: values, step_s: s, infrac: f, errors };
}

/** The start and import routes' parameters for valid settings. */
export function rfParams({ rates, step_s, infrac }) {
  return { protocol: 'rf', rates: rates.join(','), step_s: String(step_s), infrac: String(infrac) };
}

// ---------- texts ----------

/** A rate with one decimal, two when it has them: "6.0", "5.5", "5.25". */
export function rateText(bpm) {
  const r = round2(bpm);
  return Math.abs(r * 10 - Math.round(r * 10)) < 1e-9 ? r.toFixed(1) : String(r);
}

/** The live screen's step line from the snapshot's "rf". */
export function stepLine(rf) {
  const head = 'Step ' + rf.step + ' of ' + rf.steps + ' · ' + rateText(rf.bpm) + ' breaths/min';
  if (rf.step >= rf.steps && !(rf.left > 0)) return head + ' · done';
  return head + ' · ' + clockText(rf.left) + ' left';
}

/** "Recommended pace: 5.0 breaths/min", or that there is none. */
export function recommendationText(bpm) {
  return typeof bpm === 'number' && bpm > 0 ? 'Recommended pace: ' + rateText(bpm) + ' breaths/min' : 'No recommendation';
}

// A step's scores as the results table lists them: [key, heading, unit, decimals].
export const kRfColumns = [
  ['peak_trough_hr', 'Peak–trough HR', 'bpm', 1], ['lf_power', 'LF power', 'ms²', 0], ['lf_peak', 'LF peak', 'Hz', 3],
  ['phase_deg', 'Phase', '°', 0], ['amplitude_bpm', 'Amplitude', 'bpm', 1], ['cvn', 'CVN', '', 2],
];

const numberText = (v, decimals) => (typeof v === 'number' && Number.isFinite(v) ?
  (v < 0 && Number(v.toFixed(decimals)) !== 0 ? '−' : '') + Math.abs(v).toFixed(decimals) : '–');

/** One results row: the rate, the breaths and each score's text ("–" when it could not be computed); null scores for a step not reached. */
export function resultRow(step) {
  return {
    rate: rateText(step.bpm),
    breaths: step.breaths == null ? '–' : String(step.breaths),
    reached: !!step.reached,
    cells: step.reached ? kRfColumns.map(([key, , , d]) => numberText(step[key], d)) : null,
  };
}

/** The single rhythm at `bpm`: in = infrac of the breath, out the rest, to 0.01 s as the period fields take them. */
export function paceFromRate(bpm, infrac) {
  const cycle = 60 / bpm;
  return { indur: round2(infrac * cycle), outdur: round2(cycle - infrac * cycle) };
}
