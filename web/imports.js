// Import file, Import folder and Batch process. Each first shows what will
// happen with the chosen files, sends nothing until the user agrees, then
// uploads, follows the program's batch and lists the reports it wrote.

import { api, openStream } from './api.js';
import { unlockAudio } from './audio.js';
import { config } from './config.js';
import { confirmEndLive } from './confirm.js';
import {
  countText, fileRefusal, importRate, kindText, kKubiosHeadChars, looksLikeKubios, planFolder, rawEcgWarnings,
  recordingsText, sizeText, stem, tooLargeText,
} from './importplan.js';
import { $, setText } from './ui.js';

const kSkippedShown = 12;     // skipped files listed by name; the rest are counted
const kPersonsShown = 8;      // persons named in the summary; the rest are counted

let ctx = null;               // {sessionParams(), checkSession(note), protocolParams(), fixProtocol, speed(), started(), refresh()}
let run = 0;                  // every flow has a number; late answers of an old one are dropped
let phase = 'idle';           // confirm, upload, process, end
let go = null;                // what the primary button does in "confirm"
let cancelled = false;
let closeStream = null;       // the snapshot stream a running batch is followed on

// ---------- the dialog ----------

const dialog = () => $('flow');

function show(el, on) { el.hidden = !on; }

function setButtons(cancelText, goText) {
  setText($('flowCancel'), cancelText);
  show($('flowGo'), !!goText);
  if (goText) setText($('flowGo'), goText);
}

function fillList(ul, items) {
  ul.textContent = '';
  for (const it of items) {
    const li = document.createElement('li');
    if (Array.isArray(it)) {
      const b = document.createElement('b');
      b.textContent = it[0];
      li.append(b, ' — ' + it[1]);
    } else {
      li.textContent = it;
    }
    ul.appendChild(li);
  }
}

function setFacts(rows) {
  const dl = $('flowFacts');
  dl.textContent = '';
  for (const [k, v] of rows) {
    const dt = document.createElement('dt'), dd = document.createElement('dd');
    dt.textContent = k;
    dd.textContent = v;
    dl.append(dt, dd);
  }
}

function setSkipped(skipped) {
  show($('flowSkipped'), skipped.length > 0);
  if (!skipped.length) return;
  setText($('flowSkippedTitle'), countText(skipped.length, 'file is', 'files are') + ' skipped (only .txt and .csv recordings are read)');
  const items = skipped.slice(0, kSkippedShown).map((s) => [s.path, s.why]);
  if (skipped.length > kSkippedShown) items.push('and ' + (skipped.length - kSkippedShown) + ' more');
  fillList($('flowSkippedList'), items);
}

/** A fresh dialog for a new flow. */
function openDialog(title) {
  stopFollowing();
  run++;
  cancelled = false;
  setPhase('idle');
  setText($('flowTitle'), title);
  setFacts([]);
  setText($('flowWhat'), '');
  show($('flowWhat'), true);
  show($('fsField'), false);
  show($('flowHint'), false);
  setWarnings([]);
  show($('flowSkipped'), false);
  show($('flowProgress'), false);
  show($('flowResult'), false);
  show($('flowError'), false);
  show($('flowShow'), false);
  importNote('');
  if (!dialog().open) dialog().showModal();
  return run;
}

function setPhase(p) {
  phase = p;
  dialog().dataset.phase = p;
  const busy = p === 'upload' || p === 'process';
  for (const id of ['importFileBtn', 'importFolderBtn', 'batchBtn']) $(id).disabled = busy;
  if (p === 'upload') setButtons('Cancel upload');
  else if (p === 'process') setButtons('Close');
  else if (p === 'end') setButtons('Close');
  // Once the files are on their way the choices are settled: only the
  // facts stay, above the progress and the outcome.
  if (p !== 'confirm') {
    for (const id of ['fsField', 'flowWhat', 'flowHint', 'flowWarn']) show($(id), false);
  }
}

// What to check before going on; the confirm button carries it for a screen reader.
function setWarnings(list) {
  const box = $('flowWarn');
  box.textContent = '';
  for (const text of list) {
    const p = document.createElement('p');
    p.textContent = text;
    box.append(p);
  }
  show(box, list.length > 0);
  if (list.length) $('flowGo').setAttribute('aria-describedby', 'flowWarn');
  else $('flowGo').removeAttribute('aria-describedby');
}

// The line under the import buttons follows the flow while the dialog is closed.
function importNote(text, kind) {
  setText($('importText'), text);
  const n = $('importNote');
  n.classList.toggle('err', kind === 'err');
  n.classList.toggle('ok', kind === 'ok');
}

function progress(text, fraction) {
  show($('flowProgress'), true);
  setText($('flowStep'), text);
  const box = $('flowBarBox'), bar = $('flowBar');
  box.classList.toggle('busy', fraction == null);
  const pct = fraction == null ? '' : Math.round(Math.min(1, Math.max(0, fraction)) * 100);
  bar.style.width = fraction == null ? '' : pct + '%';
  if (fraction == null) box.removeAttribute('aria-valuenow');
  else box.setAttribute('aria-valuenow', String(pct));
  if (phase !== 'end') importNote(text);
}

function fail(text) {
  setPhase('end');
  show($('flowProgress'), false);
  setText($('flowError'), text);
  show($('flowError'), true);
  importNote(text, 'err');
  if (!dialog().open) show($('flowShow'), true);
}

// Why a request did not do its work, for people.
function refusal(r, what) {
  if (r.status === 413) return tooLargeText(what);
  if (r.status === 0) return 'The program did not answer. Is it still running?';
  const d = r.data;
  return (d && (d.note || d.reason || d.error)) || '';
}

// ---------- following the batch ----------

function stopFollowing() {
  if (closeStream) closeStream();
  closeStream = null;
}

// The snapshot stream carries the batch's progress. Once it says the batch
// is no longer running, /batch_status is asked once for the outcome: it also
// settles a snapshot taken before this batch had started, which still shows
// the last one's end.
function follow(id) {
  let asking = false;
  const ask = async () => {
    asking = true;
    const r = await api('/batch_status');
    asking = false;
    if (id !== run) return;
    const d = r.data;
    if (!d || d.status === 'running') return;
    stopFollowing();
    if (d.status === 'done') return finished(d);
    if (d.status === 'error') return fail(d.msg || 'The batch failed without saying why.');
    fail('The batch did not start.');
  };
  setPhase('process');
  stopFollowing();
  closeStream = openStream((s) => {
    if (id !== run || asking) return;
    const b = s.batch;
    if (!b || b.status !== 'running') return ask();
    progress(b.msg || 'Processing…', b.total ? b.done / b.total : null);
  }, () => {
    if (id === run) progress('Waiting for the program to answer…', null);
  });
}

function finished(d) {
  const res = d.result && typeof d.result === 'object' ? d.result : {};
  // The summary is the document people open first.
  const isSummary = (r) => r.endsWith('_summary_report.pdf');
  const all = Array.isArray(res.reports) ? res.reports.map(String) : [];
  const reports = [...all.filter(isSummary), ...all.filter((r) => !isSummary(r))];
  const failed = Array.isArray(res.failed) ? res.failed : [];
  setPhase('end');
  show($('flowProgress'), false);
  show($('flowResult'), true);
  let line;
  if (reports.length) line = countText(reports.length, 'report', 'reports') + ' written to';
  else line = d.msg || 'No report was written.';
  setText($('flowDone'), line);
  setText($('flowFolder'), res.folder || '');
  show($('flowFolder'), reports.length > 0 && !!res.folder);
  fillList($('flowReports'), reports);
  $('flowReports').querySelectorAll('li').forEach((li, i) => li.classList.toggle('summary', isSummary(reports[i])));
  show($('flowFailed'), failed.length > 0);
  setText($('flowFailedTitle'), countText(failed.length, 'file', 'files') + ' could not be processed:');
  fillList($('flowFailedList'), failed.map((f) => [String(f.file || ''), String(f.error || '')]));
  const summary = (reports.length ? '✓ ' + line + ' ' + (res.folder || 'the exports folder') : line) +
    (failed.length ? ' · ' + countText(failed.length, 'file', 'files') + ' could not be processed.' : '');
  importNote(summary, reports.length ? 'ok' : 'err');
  if (!dialog().open) show($('flowShow'), true);
  ctx.refresh();
}

// ---------- Import file ----------

async function chooseFile(file) {
  const id = openDialog('Import file');
  // Refused here rather than by the program halfway through the upload, which
  // a browser reports as a lost connection; an empty file is refused unsent.
  const refused = fileRefusal(file.name, file.size);
  if (refused) return fail(refused);
  // A raw import starts a session with the breathing protocol chosen.
  if (!ctx.protocolParams()) return fail(ctx.fixProtocol);
  let head = '';
  try { head = await file.slice(0, kKubiosHeadChars).text(); } catch (e) { /* unreadable: the send says so */ }
  if (id !== run) return;
  const kubios = looksLikeKubios(head);
  const p = ctx.sessionParams();
  setFacts([
    ['File', file.name + ' · ' + sizeText(file.size)],
    // A Kubios report is named after the file, not the name field.
    ['Person', personText(kubios ? { ...p, name: stem(file.name) } : p, '')],
  ]);
  const describe = () => setText($('flowWhat'), kindText(kubios, importRate($('fs').value)));
  $('fs').oninput = describe;
  describe();
  show($('fsField'), !kubios);
  // The program reads the first column as whole microvolts: a time column or
  // millivolts would import without a word and replay as nonsense.
  setWarnings(kubios ? [] : rawEcgWarnings(head, file.size > kKubiosHeadChars));
  setPhase('confirm');
  setButtons('Cancel', kubios ? 'Write report' : 'Import and replay');
  // A raw ECG is replayed at once, which ends a live recording still going.
  go = async () => {
    if (kubios || await confirmEndLive('Replaying the imported file', 'Stop and import')) sendFile(id, file);
  };
}

async function sendFile(id, file) {
  setPhase('upload');
  progress('Sending ' + file.name + '…', null);
  const speed = ctx.speed();
  const r = await api('/import', { fname: file.name, speed, ...ctx.sessionParams(), ...ctx.protocolParams() }, { method: 'POST', body: file });
  if (id !== run) return;
  const d = r.data;
  if (!d || !d.ok) return fail(refusal(r, file.name) || 'Could not import that file.');
  if (d.kubios) {
    progress('Processing Kubios RR (' + d.beats + ' beats)…', null);
    return follow(id);
  }
  setPhase('idle');
  importNote('');
  dialog().close();
  ctx.started();
}

// ---------- Import folder and Batch process ----------

// The path inside the folder the user chose: the browser puts that folder's
// own name first.
function insidePath(f) {
  const parts = (f.webkitRelativePath || f.name).split('/');
  return parts.length > 1 ? parts.slice(1).join('/') : parts[0];
}

function personText(p, fallback) {
  return (p.name || fallback || 'no name given') + ' · ' + (p.sex === 'F' ? 'female' : 'male') + ' · ' +
    (p.age.trim() ? p.age.trim() + ' years' : 'age not given');
}

async function chooseFolder(list, single) {
  const files = Array.from(list || []);
  const id = openDialog(single ? 'Import folder (one person)' : 'Batch process (one person per sub-folder)');
  const top = files.length ? (files[0].webkitRelativePath || files[0].name).split('/')[0] : '';
  const plan = planFolder(files.map((file) => ({ path: insidePath(file), size: file.size, file })), single);
  setSkipped(plan.skipped);
  if (!plan.recordings.length) {
    setFacts([['Folder', top || '(empty)']]);
    return fail('No recordings (.txt raw ECG or .csv Kubios) found in that folder.');
  }
  let kubios = 0;
  for (const r of plan.recordings) {
    try { if (looksLikeKubios(await r.file.slice(0, kKubiosHeadChars).text())) kubios++; } catch (e) { /* the batch will say */ }
  }
  if (id !== run) return;
  const raw = plan.recordings.length - kubios;
  const p = ctx.sessionParams();
  const facts = [
    ['Folder', top],
    ['Recordings', recordingsText(raw, kubios) +
      (plan.markers.length ? ', plus ' + countText(plan.markers.length, 'marker file', 'marker files') : '')],
  ];
  if (single) {
    facts.push(['Person', personText(p, top)]);
  } else {
    const named = plan.persons.slice(0, kPersonsShown).map((x) => x.name + ': ' + countText(x.count, 'recording', 'recordings'));
    if (plan.persons.length > kPersonsShown) named.push('and ' + (plan.persons.length - kPersonsShown) + ' more');
    facts.push(['Persons', named.join(' · ')]);
  }
  setFacts(facts);
  const describe = () => {
    const fs = importRate($('fs').value), own = config.sample_rate;
    const rate = raw ? (Math.abs(fs - own) < 0.5 ? ' Raw ECG is read at ' + own + ' Hz.' : ' Raw ECG is read at ' + fs + ' Hz and resampled to ' + own + ' per second.') : '';
    setText($('flowWhat'), (single ? 'A report for every recording, and a summary report for this person.'
      : 'A report for every recording, and one summary report of all persons.') + rate);
  };
  $('fs').oninput = describe;
  describe();
  show($('fsField'), raw > 0);
  if (!single) {
    setText($('flowHint'), 'Age and sex are not set per person in a batch, so the colour thresholds of the summary, ' +
      'which depend on them, should be ignored. For one person with their age and sex, use “Import folder”.');
    show($('flowHint'), true);
  }
  setPhase('confirm');
  setButtons('Cancel', 'Upload and process');
  const batchname = single ? (p.name || top) : top;
  go = () => sendFolder(id, [...plan.recordings, ...plan.markers], single, batchname);
}

async function sendFolder(id, files, single, batchname) {
  setPhase('upload');
  files.sort((a, b) => (a.path < b.path ? -1 : a.path > b.path ? 1 : 0));
  const first = await api('/batch_new');
  if (id !== run) return;
  if (!first.data || !first.data.ok) return fail(refusal(first, '') || 'The program could not make room for the upload.');
  const total = files.reduce((n, f) => n + f.size, 0) || 1;
  let sent = 0;
  for (let i = 0; i < files.length; i++) {
    if (cancelled) return fail('Upload cancelled; nothing was processed.');
    const f = files[i];
    progress('Uploading ' + (i + 1) + ' / ' + files.length + ' — ' + f.path, sent / total);
    const up = await api('/batch_upload', { rel: f.path }, { method: 'POST', body: f.file });
    if (id !== run) return;
    if (!up.data || !up.data.ok) {
      return fail('Could not upload ' + f.path + ': ' + (refusal(up, f.path) || 'the program could not store it.'));
    }
    sent += f.size;
  }
  if (cancelled) return fail('Upload cancelled; nothing was processed.');
  progress('Starting…', null);
  const p = ctx.sessionParams();
  const r = await api('/batch_run', { mode: single ? 'single' : 'folder', batchname, ...(single ? { patient: p.name } : {}), ...p });
  if (id !== run) return;
  if (!r.data || !r.data.ok) return fail(refusal(r, '') || 'Could not start the batch.');
  progress('Processing…', null);
  follow(id);
}

// ---------- wiring ----------

function secondary() {
  if (phase === 'upload') {
    cancelled = true;
    setButtons('Cancelling…');
    return;
  }
  // Processing goes on with the dialog closed; the line under the buttons follows it.
  if (phase === 'confirm') {
    run++;
    setPhase('idle');
  }
  show($('flowShow'), phase === 'process' || phase === 'end');
  dialog().close();
}

/**
 * Wires the three buttons. `c` gives the session fields (`sessionParams()`,
 * and `checkSession(note)`, false with `note(text)` told when they are wrong),
 * the breathing protocol's (`protocolParams()`, null while its settings are
 * wrong, `fixProtocol` saying so),
 * the replay speed (`speed()`), what starts the live screen (`started()`)
 * and what reloads the recording list (`refresh()`).
 */
export function initImports(c) {
  ctx = c;
  const fs = $('fs');
  fs.min = config.min_import_rate;
  fs.max = config.max_import_rate;
  fs.value = config.sample_rate;
  // The files go out with the session fields: wrong ones are put right
  // before a file is even chosen.
  const pick = (input) => () => {
    if (!ctx.checkSession((text) => importNote(text, 'err'))) return;
    input.value = '';
    input.click();
  };
  $('importFileBtn').addEventListener('click', pick($('importFile')));
  $('importFolderBtn').addEventListener('click', pick($('importFolder')));
  $('batchBtn').addEventListener('click', pick($('batchFolder')));
  $('importFile').addEventListener('change', (e) => { if (e.target.files[0]) chooseFile(e.target.files[0]); });
  $('importFolder').addEventListener('change', (e) => { if (e.target.files.length) chooseFolder(e.target.files, true); });
  $('batchFolder').addEventListener('change', (e) => { if (e.target.files.length) chooseFolder(e.target.files, false); });
  // The click is the last user gesture before a raw import opens the live
  // screen, so sound is unlocked here.
  $('flowGo').addEventListener('click', async () => {
    if (phase !== 'confirm' || !go) return;
    unlockAudio();
    // One send per confirmation, however fast a second click comes; kept
    // for another try when the user chose to keep a live recording going.
    const send = go;
    go = null;
    await send();
    if (phase === 'confirm' && !go) go = send;
  });
  $('flowCancel').addEventListener('click', secondary);
  // Escape does what the dialog's left button says.
  dialog().addEventListener('cancel', (e) => { e.preventDefault(); secondary(); });
  $('flowShow').addEventListener('click', () => {
    show($('flowShow'), false);
    dialog().showModal();
  });
}
