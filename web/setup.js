// The Setup screen: the person and the breathing rhythm, the data source
// (strap or recording), import and batch processing, and Start.

import { api } from './api.js';
import { unlockAudio } from './audio.js';
import { breathingPeriod, cycleText } from './format.js';
import { initImports } from './imports.js';
import { importRate } from './importplan.js';
import { $, setNote } from './ui.js';

let source = 'live';
let speed = 2;
let btAvailable = false;
let onStarted = () => {};

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

function updateCycle() {
  const i = breathingPeriod($('indur').value, 5), o = breathingPeriod($('outdur').value, 11);
  $('cyclePill').textContent = cycleText(i, o);
  document.querySelectorAll('.chip').forEach((c) => {
    c.classList.toggle('on', +c.dataset.in === i && +c.dataset.out === o);
  });
}

// ---------- data source ----------

function setSource(s) {
  source = s;
  document.querySelectorAll('#sourceSwitch button').forEach((b) => b.classList.toggle('on', b.dataset.src === s));
  $('livePanel').hidden = s !== 'live';
  $('replayPanel').hidden = s !== 'replay';
  setNote($('startNote'), '');
}

function setSpeed(v) {
  speed = v;
  document.querySelectorAll('#speedSwitch button').forEach((b) => b.classList.toggle('on', +b.dataset.speed === v));
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
    const o = new Option(name + ' — ' + d.address, d.address);
    o.dataset.name = name;
    sel.add(o);
  }
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
  if (devs.length) setNote(note, 'Found ' + devs.length + ' device(s). Select your Polar H10.', 'ok');
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

async function start() {
  const note = $('startNote');
  setNote(note, '');
  let r;
  if (source === 'live') {
    const opt = $('device').selectedOptions[0];
    if (!opt || !opt.value) return setNote(note, 'Scan and select your Polar H10 first.', 'err');
    unlockAudio();
    r = await api('/start_live', { address: opt.value, device: opt.dataset.name || '', ...sessionParams() });
  } else {
    const opt = $('recording').selectedOptions[0];
    if (!opt || !opt.value) return setNote(note, 'Pick or import a recording.', 'err');
    unlockAudio();
    r = await api('/start_replay', { dir: opt.dataset.dir, file: opt.value, speed, ...sessionParams() });
  }
  if (!r.data || !r.data.ok) {
    const why = r.data && r.data.error;
    return setNote(note, why ? 'Could not start: ' + why + '.' : 'Could not start the session.', 'err');
  }
  onStarted(speed);
}

/** Wires the screen; `started(speed)` runs when a session has begun. */
export function initSetup(started) {
  onStarted = started;
  $('indur').addEventListener('input', updateCycle);
  $('outdur').addEventListener('input', updateCycle);
  document.querySelectorAll('.chip').forEach((c) => c.addEventListener('click', () => {
    $('indur').value = c.dataset.in;
    $('outdur').value = c.dataset.out;
    updateCycle();
  }));
  document.querySelectorAll('#sourceSwitch button').forEach((b) => b.addEventListener('click', () => setSource(b.dataset.src)));
  document.querySelectorAll('#speedSwitch button').forEach((b) => b.addEventListener('click', () => setSpeed(+b.dataset.speed)));
  $('scanBtn').addEventListener('click', scan);
  initImports({ sessionParams, speed: () => speed, started: (v) => onStarted(v), refresh: loadRecordings });
  $('startBtn').addEventListener('click', start);
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
