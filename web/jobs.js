// The live screen's two background jobs: export (the Save button) and the
// time-frequency maps. Each starts with one route and is polled until done.

import { api } from './api.js';
import { $, setNote } from './ui.js';

const kExportPollMs = 500;
const kTfrPollMs = 1500;

let exportTimer = 0;
let tfrTimer = 0;

// ---------- export ----------

// The export panel: a state ("busy", "done", "err"), a heading and below it
// either the folder and the files written or the reason it failed.
function showExport(state, title, detail) {
  const box = $('exportBox');
  box.hidden = false;
  box.className = 'notice' + (state === 'err' ? ' err' : '');
  box.dataset.state = state;
  $('exportTitle').textContent = title;
  $('exportProgress').hidden = state !== 'busy';
  $('exportDismiss').hidden = state === 'busy';
  const folder = $('exportFolder'), files = $('exportFiles'), why = $('exportError');
  folder.textContent = '';
  files.textContent = '';
  why.textContent = '';
  folder.hidden = files.hidden = why.hidden = true;
  if (state === 'done') {
    folder.textContent = detail.folder || '';
    folder.hidden = !detail.folder;
    for (const name of detail.files || []) {
      const li = document.createElement('li');
      li.textContent = name;
      files.appendChild(li);
    }
    files.hidden = !files.children.length;
  } else if (state === 'err' && detail) {
    why.textContent = detail;
    why.hidden = false;
  }
}

// Each export and TFR run has a number; an answer that arrives after the
// screen was reset belongs to an old run and is dropped.
let exportRun = 0;
let tfrRun = 0;

function exportEnded(state, title, detail) {
  clearTimeout(exportTimer);
  exportTimer = 0;
  showExport(state, title, detail);
  $('saveBtn').disabled = false;
}

function pollExport(run) {
  clearTimeout(exportTimer);
  exportTimer = setTimeout(async () => {
    const r = await api('/export_status');
    if (run !== exportRun) return;
    const d = r.data;
    if (!d || d.status === 'exporting') return pollExport(run);
    if (d.status === 'done') {
      const res = d.result && typeof d.result === 'object' ? d.result : {};
      const files = Array.isArray(res.files) ? res.files.map(String) : [];
      return exportEnded('done', 'Exported ' + files.length + (files.length === 1 ? ' file to' : ' files to'),
        { folder: String(res.folder || ''), files });
    }
    if (d.status === 'error') return exportEnded('err', 'Export failed', d.error || 'The export stopped without saying why.');
    // "idle": a new session started and cleared the job.
    exportEnded('err', 'Export failed', 'The session changed while exporting.');
  }, kExportPollMs);
}

function followExport() {
  $('saveBtn').disabled = true;
  showExport('busy', 'Exporting…');
  pollExport(++exportRun);
}

async function startExport() {
  $('saveBtn').disabled = true;
  showExport('busy', 'Exporting…');
  const run = ++exportRun;
  const r = await api('/export');
  if (run !== exportRun) return;
  if (!r.data || !r.data.ok) {
    return exportEnded('err', 'Export failed', 'The program did not start the export.');
  }
  pollExport(run);
}

/**
 * Picks up an export that runs without this page having started it (the
 * page was reloaded meanwhile): the snapshot says so.
 */
export function noticeExport(s) {
  if (s.export_status === 'exporting' && !exportTimer && $('exportBox').dataset.state !== 'busy') followExport();
}

// ---------- TFR ----------

function tfrEnded(text, kind) {
  clearTimeout(tfrTimer);
  tfrRun++;
  setNote($('tfrNote'), text, kind);
  $('tfrBtn').disabled = false;
}

async function showTfr(run) {
  const r = await api('/tfr_images');
  if (run !== tfrRun) return;
  const im = r.data && r.data.images;
  if (!im || !im.tfr3 || !im.tfr10) return tfrEnded('Could not compute TFR: the images are missing.', 'err');
  $('tfr10').src = im.tfr10;
  $('tfr3').src = im.tfr3;
  $('tfrFigs').hidden = false;
  tfrEnded('Green line: expected breathing frequency. Dark lines: cycle starts.');
}

function pollTfr(run) {
  clearTimeout(tfrTimer);
  tfrTimer = setTimeout(async () => {
    const r = await api('/tfr_status');
    if (run !== tfrRun) return;
    const d = r.data;
    if (!d) return pollTfr(run);
    if (d.status === 'done') return showTfr(run);
    if (d.status === 'idle') return tfrEnded('The session changed; compute the TFR again.');
    if (d.status === 'error') return tfrEnded('Could not compute TFR: ' + (d.error || 'unknown error'), 'err');
    pollTfr(run);
  }, kTfrPollMs);
}

async function startTfr() {
  $('tfrBtn').disabled = true;
  $('tfrFigs').hidden = true;
  setNote($('tfrNote'), 'Computing TFR…');
  const run = ++tfrRun;
  const r = await api('/tfr');
  if (run !== tfrRun) return;
  if (!r.data || !r.data.ok) {
    return tfrEnded('Could not compute TFR: it could not be started.', 'err');
  }
  pollTfr(run);
}

// ---------- both ----------

export function initJobs() {
  $('saveBtn').addEventListener('click', startExport);
  $('exportDismiss').addEventListener('click', () => { $('exportBox').hidden = true; });
  $('tfrBtn').addEventListener('click', startTfr);
}

/** Stops polling and clears both panels (a new session or leaving the screen). */
export function resetJobs() {
  clearTimeout(exportTimer);
  clearTimeout(tfrTimer);
  exportTimer = tfrTimer = 0;
  exportRun++;
  tfrRun++;
  $('exportBox').dataset.state = '';
  $('saveBtn').disabled = false;
  $('exportBox').hidden = true;
  $('tfrBtn').disabled = false;
  $('tfrFigs').hidden = true;
  $('tfr3').removeAttribute('src');
  $('tfr10').removeAttribute('src');
  setNote($('tfrNote'), 'Two heat-maps of the heart rate over time, with the breathing frequency marked.');
}
