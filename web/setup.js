// The Setup screen: the person and the breathing rhythm, the data source
// (strap or recording), import and batch processing, and Start.

import { api } from './api.js';
import { unlockAudio } from './audio.js';
import { breathingPeriod, cycleText } from './format.js';
import { $, kNotYet, setNote } from './ui.js';

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
    fs: $('fs').value,
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
  if (r.missing) return setNote(note, kNotYet.scan, 'err');
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

// ---------- import and batch ----------

const kBatchPollMs = 1000;
const kBatchIdlePolls = 15;  // a batch still "idle" after this many polls did not start
let batchTimer = 0;
let batchIdlePolls = 0;
let batchRetryMs = 1500;     // after a failed status request

const importNote = (text, kind) => setNote($('importNote'), text, kind);

function pollBatch(delay, fresh = true) {
  clearTimeout(batchTimer);
  if (fresh) batchIdlePolls = 0;
  batchTimer = setTimeout(async () => {
    const r = await api('/batch_status');
    if (r.missing) return importNote(kNotYet.batch, 'err');
    if (!r.data) return pollBatch(batchRetryMs, false);
    const d = r.data;
    if (d.status === 'running') {
      let t = d.msg || 'Processing…';
      if (d.total) t += ' — ' + d.done + '/' + d.total + ' files';
      importNote(t);
      return pollBatch(kBatchPollMs, false);
    }
    if (d.status === 'done') {
      importNote('✓ ' + (d.msg || 'Done.'), 'ok');
      loadRecordings();
    } else if (d.status === 'error') {
      importNote(d.msg || 'Batch failed.', 'err');
    } else if (++batchIdlePolls > kBatchIdlePolls) {
      importNote('The batch did not start.', 'err');
    } else {
      pollBatch(kBatchPollMs, false);
    }
  }, delay);
}

async function importFile(ev) {
  const f = ev.target.files && ev.target.files[0];
  if (!f) return;
  importNote('Importing ' + f.name + '…');
  let body;
  try { body = await f.arrayBuffer(); } catch (e) { return importNote('Could not read that file.', 'err'); }
  const r = await api('/import', { fname: f.name, speed, ...sessionParams() }, { method: 'POST', body });
  if (r.missing) return importNote(kNotYet.import, 'err');
  const d = r.data;
  if (!d || !d.ok) return importNote((d && d.note) || 'Could not import that file.', 'err');
  if (d.kubios) {
    importNote('Processing Kubios RR (' + d.beats + ' beats)…');
    batchRetryMs = 1200;
    return pollBatch(kBatchPollMs);
  }
  importNote('');
  onStarted(speed);
}

function recordingsIn(files) {
  return Array.from(files || []).filter((f) => {
    const n = f.name.toLowerCase();
    return (n.endsWith('.txt') || n.endsWith('.csv')) && !n.endsWith('hrv.txt');
  });
}

async function uploadFolder(files, mode) {
  const picked = recordingsIn(files);
  if (!picked.length) return importNote('No recordings (.txt raw ECG or .csv Kubios) found in that folder.', 'err');
  const missingText = mode === 'single' ? kNotYet.import : kNotYet.batch;
  const first = await api('/batch_new');
  if (first.missing) return importNote(missingText, 'err');
  if (!first.data || !first.data.ok) return importNote('Could not start.', 'err');
  const top = (picked[0].webkitRelativePath || picked[0].name).split('/')[0];
  for (let i = 0; i < picked.length; i++) {
    const f = picked[i];
    importNote('Uploading… ' + (i + 1) + '/' + picked.length);
    const parts = (f.webkitRelativePath || f.name).split('/');
    const rel = parts.length > 1 ? parts.slice(1).join('/') : parts[0];
    let body;
    try { body = await f.arrayBuffer(); } catch (e) { return importNote('Could not read ' + f.name + '.', 'err'); }
    const up = await api('/batch_upload', { rel }, { method: 'POST', body });
    if (up.missing) return importNote(missingText, 'err');
    if (!up.data || !up.data.ok) return importNote('Could not upload ' + rel + '.', 'err');
  }
  const run = await api('/batch_run', { mode, ...(mode === 'single' ? { batchname: top } : {}), ...sessionParams() });
  if (run.missing) return importNote(missingText, 'err');
  if (!run.data || !run.data.ok) return importNote((run.data && run.data.reason) || 'Could not start.', 'err');
  importNote('Processing…');
  batchRetryMs = 1500;
  pollBatch(kBatchPollMs);
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
    const why = r.data && (r.data.error || r.data.reason);
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
  // The click is the last user gesture before a raw import opens the live
  // screen, so sound is unlocked here.
  $('importFileBtn').addEventListener('click', () => { unlockAudio(); $('importFile').value = ''; $('importFile').click(); });
  $('importFolderBtn').addEventListener('click', () => { $('importFolder').value = ''; $('importFolder').click(); });
  $('batchBtn').addEventListener('click', () => { $('batchFolder').value = ''; $('batchFolder').click(); });
  $('importFile').addEventListener('change', importFile);
  $('importFolder').addEventListener('change', (ev) => uploadFolder(ev.target.files, 'single'));
  $('batchFolder').addEventListener('change', (ev) => uploadFolder(ev.target.files, 'batch'));
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
