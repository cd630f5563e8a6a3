// The Setup screen: the person and the breathing protocol (one rhythm, or a
// resonance assessment's steps), the data source (strap or recording),
// import and batch processing, and Start.

import { api } from './api.js';
import { confirmEndLive } from './confirm.js';
import { unlockAudio } from './audio.js';
import { ageError, breathingPeriod, clockText, cycleText, periodError, round2 } from './format.js';
import { initImports } from './imports.js';
import { importRate } from './importplan.js';
import { kRf, paceFromRate, readRfSettings, rateText, rfParams, rfSchedule } from './rf.js';
import { $, markField, setNote, setPressed, setText } from './ui.js';

let source = 'live';
let speed = 2;
let btAvailable = false;
let onStarted = () => {};
let protocol = 'free';
let rfRates = kRf.rates.map(rateText);   // the table's rate fields as typed

/** The session fields as every start and import route reads them. */
function sessionParams() {
  return {
    name: $('name').value.trim(),
    indur: $('indur').value,
    outdur: $('outdur').value,
    sex: $('sex').value,
    age: $('age').value,
    // An out-of-range rate would leave the program on the last one it took,
    // not on the one the import dialog named.
    fs: String(importRate($('fs').value)),
  };
}

// ---------- session ----------

/** Marks every session field that is wrong; returns the first wrong one, or null. */
function markSession() {
  let first = null;
  for (const [id, check] of [['age', ageError], ['indur', periodError], ['outdur', periodError]]) {
    // An assessment takes its periods from its steps.
    const msg = id === 'age' || protocol === 'free' ? check($(id).value) : '';
    markField($(id), $(id + 'Err'), msg);
    if (msg && !first) first = $(id);
  }
  // Start's "correct the fields" goes once they are.
  if (!first && $('startNote').textContent === kFixFields) setNote($('startNote'), '');
  return first;
}

const kFixFields = 'Correct the fields marked in red first.';

/**
 * Whether the session fields (and an assessment's table) can be sent as they
 * are; if not, the mistakes are marked, `note` says so and the first wrong
 * field takes the focus.
 */
function checkSession(note) {
  const field = markSession();
  const bad = field || (protocol === 'rf' ? firstBadRfField() : null);
  if (!bad) return true;
  note(field ? kFixFields : kFixRf);
  bad.focus();
  return false;
}

function updateCycle() {
  markSession();
  const ok = !periodError($('indur').value) && !periodError($('outdur').value);
  const i = breathingPeriod($('indur').value, 5), o = breathingPeriod($('outdur').value, 11);
  // A cycle from numbers that will not be sent would only mislead.
  $('cyclePill').textContent = ok ? cycleText(i, o) : 'Cycle –';
  document.querySelectorAll('.chip').forEach((c) => {
    setPressed(c, ok && +c.dataset.in === i && +c.dataset.out === o);
  });
}

// ---------- breathing protocol ----------

function setProtocol(p) {
  protocol = p;
  document.querySelectorAll('#protocolSwitch button').forEach((b) => setPressed(b, b.dataset.protocol === p));
  $('freePanel').hidden = p !== 'free';
  $('rfPanel').hidden = p !== 'rf';
  setNote($('startNote'), '');
  markSession();
}

// The rows are rebuilt only when a rate is added or removed, so typing keeps
// the focus; each input updates the computed cells in place.
function buildRfRows() {
  const body = $('rfRows');
  body.textContent = '';
  rfRates.forEach((text, i) => {
    const tr = document.createElement('tr');
    const cell = (cls) => {
      const td = document.createElement('td');
      if (cls) td.className = cls;
      tr.append(td);
      return td;
    };
    cell('n').textContent = String(i + 1);
    const input = document.createElement('input');
    input.value = text;
    input.inputMode = 'decimal';
    input.autocomplete = 'off';
    input.setAttribute('aria-label', 'Rate of step ' + (i + 1) + ' (breaths/min)');
    input.addEventListener('input', () => { rfRates[i] = input.value; updateRf(); });
    cell('rate').append(input);
    cell('breaths').id = 'rfRateErr' + i;
    cell('periods');
    cell('time');
    const del = document.createElement('button');
    del.type = 'button';
    del.className = 'rf-del';
    del.textContent = '×';
    del.title = 'Remove this rate';
    del.setAttribute('aria-label', 'Remove step ' + (i + 1));
    del.addEventListener('click', () => { rfRates.splice(i, 1); buildRfRows(); });
    cell('del').append(del);
    body.append(tr);
  });
  $('rfAdd').disabled = rfRates.length >= kRf.maxRates;
  updateRf();
}

/** The assessment's settings as typed, checked as the program checks them. */
function rfSettings() {
  return readRfSettings({ rates: rfRates, step: $('rfStep').value, infrac: $('rfInfrac').value });
}

// Shows each step's breaths, periods and time, or what is wrong beside the field.
function updateRf() {
  const v = rfSettings();
  const usable = !v.errors.step && !v.errors.infrac;
  const rows = $('rfRows').rows;
  const okRates = [];
  v.rates.forEach((bpm, i) => {
    const tr = rows[i];
    if (!tr) return;
    const err = v.errors.rates[i];
    markField(tr.querySelector('input'), tr.cells[2], err);
    tr.classList.toggle('bad', !!err);
    let breaths = '', periods = '', time = '';
    if (err) breaths = err;
    else if (usable) {
      const st = rfSchedule([bpm], v.step_s, v.infrac).steps[0];
      okRates.push(bpm);
      breaths = String(st.breaths);
      periods = round2(st.indur).toFixed(2) + ' / ' + round2(st.outdur).toFixed(2);
      time = clockText(Math.round(st.end));
    }
    setText(tr.cells[2], breaths);
    setText(tr.cells[3], periods);
    setText(tr.cells[4], time);
  });
  for (const [id, msg] of [['rfStep', v.errors.step], ['rfInfrac', v.errors.infrac]]) markField($(id), $(id + 'Err'), msg);
  let total = '';
  if (v.ok) {
    const sched = rfSchedule(v.rates, v.step_s, v.infrac);
    const breaths = sched.steps.reduce((n, st) => n + st.breaths, 0);
    total = 'Total ' + breaths + ' breaths · ' + clockText(Math.round(sched.total));
  }
  setText($('rfTotal'), total);
  setNote($('rfNote'), v.errors.list, 'err');
}

/** The protocol's start parameters; null (and the reason shown) when the assessment's table has a mistake. */
function protocolParams() {
  if (protocol !== 'rf') return {};
  const v = rfSettings();
  return v.ok ? rfParams(v) : null;
}

const kFixRf = 'Correct the resonance assessment’s settings first (marked in red).';

// In the order they stand on the screen.
function firstBadRfField() {
  const v = rfSettings();
  if (v.errors.step) return $('rfStep');
  if (v.errors.infrac) return $('rfInfrac');
  const i = v.rates.findIndex((_, k) => v.errors.rates[k]);
  if (i >= 0) return $('rfRows').rows[i].querySelector('input');
  // Too few rates: the button that adds one.
  return v.ok ? null : $('rfAdd');
}

/** Switches to one rhythm at `bpm` with the assessment's in-fraction (the results card's "Use this pace"). */
export function useRate(bpm, infrac) {
  const p = paceFromRate(bpm, infrac);
  $('indur').value = String(p.indur);
  $('outdur').value = String(p.outdur);
  setProtocol('free');
  updateCycle();
  return p;
}

// ---------- data source ----------

function setSource(s) {
  source = s;
  document.querySelectorAll('#sourceSwitch button').forEach((b) => setPressed(b, b.dataset.src === s));
  $('livePanel').hidden = s !== 'live';
  $('replayPanel').hidden = s !== 'replay';
  setNote($('startNote'), '');
}

function setSpeed(v) {
  speed = v;
  document.querySelectorAll('#speedSwitch button').forEach((b) => setPressed(b, +b.dataset.speed === v));
}

function fillDevices(list) {
  const sel = $('device');
  sel.textContent = '';
  if (!list.length) {
    sel.add(new Option('No device yet – scan first', ''));
    return;
  }
  for (const d of list) {
    const name = d.name || '(unknown)';
    const kind = d.kind === 'ECG' ? 'ECG' : 'beats';
    const o = new Option(name + ' — ' + d.address + ' (' + kind + ')', d.address);
    o.dataset.name = name;
    o.dataset.kind = kind;
    sel.add(o);
  }
  showBeatsOnly();
}

// A Polar H10 streams ECG unless the person asks for its heart beats only;
// every other strap streams beats. The choice sits under the device list.
function beatsOnlyBox() {
  let box = $('beatsOnly');
  if (box) return box;
  const row = document.createElement('label');
  row.id = 'beatsOnlyRow';
  row.className = 'note';
  box = document.createElement('input');
  box.type = 'checkbox';
  box.id = 'beatsOnly';
  row.append(box, ' Heart beats only (no ECG)');
  $('device').closest('label').after(row);
  return box;
}

function showBeatsOnly() {
  const opt = $('device').selectedOptions[0];
  beatsOnlyBox().parentElement.hidden = !(opt && opt.dataset.kind === 'ECG');
}

/** `source=beats` when the chosen device is to stream heart beats. */
function sourceParam(opt) {
  const beats = opt.dataset.kind === 'beats' || (opt.dataset.kind === 'ECG' && beatsOnlyBox().checked);
  return beats ? { source: 'beats' } : {};
}

async function checkBluetooth() {
  const r = await api('/bt_available');
  btAvailable = !!(r.data && r.data.available);
  $('scanBtn').disabled = !btAvailable;
  if (!btAvailable) {
    setNote($('scanNote'), 'Bluetooth is not available on this computer. Use “Open a recording” to replay or import files.');
  } else if (!$('scanNote').textContent) {
    setNote($('scanNote'), 'Put on the strap, then scan.');
  }
}

async function scan() {
  const btn = $('scanBtn'), note = $('scanNote');
  btn.disabled = true;
  setNote(note, 'Scanning for Bluetooth devices (~10 s)…');
  const r = await api('/scan');
  btn.disabled = !btAvailable;
  if (!r.data) return setNote(note, 'Scan failed: no answer from the program.', 'err');
  if (!r.data.success) return setNote(note, 'Scan failed: ' + (r.data.reason || 'unknown reason'), 'err');
  const devs = (r.data.devices || []).slice();
  const isPolar = (d) => /polar/i.test(d.name || '');
  devs.sort((a, b) => isPolar(b) - isPolar(a));
  fillDevices(devs);
  if (devs.length) setNote(note, 'Found ' + devs.length + ' device(s). Select your strap.', 'ok');
  else setNote(note, 'No devices found. Wear the strap (moisten the electrodes) and keep it near.');
}

async function loadRecordings() {
  const r = await api('/recordings');
  const sel = $('recording');
  const before = sel.selectedOptions[0];
  const keep = before && before.value ? { dir: before.dataset.dir, file: before.value } : null;
  sel.textContent = '';
  if (!r.data) {
    sel.add(new Option('Could not list recordings', ''));
    return;
  }
  // Marker files sit beside their recordings and are no recordings.
  const groups = [
    ['Saved recordings', 'saved', (r.data.saved || []).filter((n) => !/_markers\.csv$/i.test(n))],
    ['Bundled samples', 'samples', r.data.samples || []],
  ];
  let any = false;
  for (const [label, dir, names] of groups) {
    if (!names.length) continue;
    const g = document.createElement('optgroup');
    g.label = label;
    for (const n of names) {
      const o = new Option(n, n);
      o.dataset.dir = dir;
      if (keep && keep.dir === dir && keep.file === n) o.selected = true;
      g.appendChild(o);
      any = true;
    }
    sel.appendChild(g);
  }
  if (!any) sel.add(new Option('No recordings yet', ''));
}

// ---------- start ----------

// Start waits for the program's answer: a second click would start the
// session again.
async function start() {
  const btn = $('startBtn');
  if (btn.disabled) return;
  btn.disabled = true;
  try {
    await startSession();
  } finally {
    btn.disabled = false;
  }
}

async function startSession() {
  const note = $('startNote');
  setNote(note, '');
  if (!checkSession((text) => setNote(note, text, 'err'))) return;
  const proto = protocolParams();
  const live = source === 'live';
  const opt = live ? $('device').selectedOptions[0] : $('recording').selectedOptions[0];
  if (!opt || !opt.value) return setNote(note, live ? 'Scan and select your Polar H10 first.' : 'Pick or import a recording.', 'err');
  // Sound is unlocked by the click itself, before the question below.
  unlockAudio();
  // Another window may be recording live.
  if (!(await confirmEndLive('Starting this session', 'Stop and start'))) return;
  const r = live
    ? await api('/start_live', { address: opt.value, device: opt.dataset.name || '', ...sourceParam(opt), ...sessionParams(), ...proto })
    : await api('/start_replay', { dir: opt.dataset.dir, file: opt.value, speed, ...sessionParams(), ...proto });
  if (!r.data || !r.data.ok) {
    // Bad assessment settings come back as a sentence in "reason".
    const why = r.data && (r.data.reason || r.data.error);
    return setNote(note, why ? 'Could not start: ' + String(why).replace(/\.$/, '') + '.' : 'Could not start the session.', 'err');
  }
  onStarted();
}

/** Wires the screen; `started()` runs when a session has begun. */
export function initSetup(started) {
  onStarted = started;
  $('indur').addEventListener('input', updateCycle);
  $('outdur').addEventListener('input', updateCycle);
  $('age').addEventListener('input', markSession);
  document.querySelectorAll('.chip').forEach((c) => c.addEventListener('click', () => {
    $('indur').value = c.dataset.in;
    $('outdur').value = c.dataset.out;
    updateCycle();
  }));
  document.querySelectorAll('#sourceSwitch button').forEach((b) => b.addEventListener('click', () => setSource(b.dataset.src)));
  document.querySelectorAll('#speedSwitch button').forEach((b) => b.addEventListener('click', () => setSpeed(+b.dataset.speed)));
  $('scanBtn').addEventListener('click', scan);
  $('device').addEventListener('change', showBeatsOnly);
  document.querySelectorAll('#protocolSwitch button').forEach((b) => b.addEventListener('click', () => setProtocol(b.dataset.protocol)));
  $('rfStep').addEventListener('input', updateRf);
  $('rfInfrac').addEventListener('input', updateRf);
  $('rfAdd').addEventListener('click', () => {
    // The next rate half a breath slower than the last, as the usual steps go.
    const last = rfSettings().rates.at(-1);
    rfRates.push(rateText(Number.isFinite(last) ? Math.max(kRf.minRate, last - 0.5) : kRf.rates.at(-1)));
    buildRfRows();
  });
  initImports({ sessionParams, checkSession, protocolParams, fixProtocol: kFixRf, speed: () => speed, started: () => onStarted(), refresh: loadRecordings });
  $('startBtn').addEventListener('click', start);
  setProtocol('free');
  buildRfRows();
  setSource('live');
  setSpeed(2);
  fillDevices([]);
  updateCycle();
  refreshSetup();
}

/** Reloads what may have changed while the screen was away: Bluetooth, the recordings. */
export function refreshSetup() {
  checkBluetooth();
  loadRecordings();
}
