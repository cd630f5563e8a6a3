// The live screen's two background jobs: export (the Save button) and the
// time-frequency maps. Each starts with one route; the snapshot stream says
// when it has ended, and the job's own route is then read once for the
// result. That read also settles a snapshot taken just before the job
// started, which may still show the previous job's end.

import { api } from './api.js';
import { $, setNote } from './ui.js';

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
// screen was reset belongs to an old run and is dropped. A job is `waiting`
// from its start until its end is known, and `asking` while its route is read.
const exportJob = { run: 0, waiting: false, asking: false };
const tfrJob = { run: 0, waiting: false, asking: false };

// Reads `path` once the snapshot says the job is no longer `busy`; `ended`
// gets the answer unless it says the job still runs.
async function ask(job, path, busy, ended) {
  const run = job.run;
  job.asking = true;
  const r = await api(path);
  job.asking = false;
  if (run !== job.run || !job.waiting) return;
  if (!r.data || r.data.status === busy) return;
  job.waiting = false;
  ended(r.data, run);
}

function exportEnded(state, title, detail) {
  exportJob.waiting = false;
  showExport(state, title, detail);
  $('saveBtn').disabled = false;
}

function exportAnswer(d) {
  if (d.status === 'done') {
    const res = d.result && typeof d.result === 'object' ? d.result : {};
    const files = Array.isArray(res.files) ? res.files.map(String) : [];
    return exportEnded('done', 'Exported ' + files.length + (files.length === 1 ? ' file to' : ' files to'),
      { folder: String(res.folder || ''), files });
  }
  if (d.status === 'error') return exportEnded('err', 'Export failed', d.error || 'The export stopped without saying why.');
  // "idle": a new session started and cleared the job.
  exportEnded('err', 'Export failed', 'The session changed while exporting.');
}

function exportBusy() {
  $('saveBtn').disabled = true;
  showExport('busy', 'Exporting…');
}

async function startExport() {
  exportBusy();
  const run = ++exportJob.run;
  exportJob.waiting = false;
  const r = await api('/export');
  if (run !== exportJob.run) return;
  if (!r.data || !r.data.ok) {
    return exportEnded('err', 'Export failed', 'The program did not start the export.');
  }
  exportJob.waiting = true;
}

// ---------- TFR ----------

function tfrEnded(text, kind) {
  tfrJob.waiting = false;
  tfrJob.run++;
  setNote($('tfrNote'), text, kind);
  $('tfrBtn').disabled = false;
}

async function showTfr(run) {
  const r = await api('/tfr_images');
  if (run !== tfrJob.run) return;
  const im = r.data && r.data.images;
  if (!im || !im.tfr3 || !im.tfr10) return tfrEnded('Could not compute TFR: the images are missing.', 'err');
  $('tfr10').src = im.tfr10;
  $('tfr3').src = im.tfr3;
  $('tfrFigs').hidden = false;
  tfrEnded('Green line: expected breathing frequency. Dark lines: cycle starts.');
}

function tfrAnswer(d, run) {
  if (d.status === 'done') return showTfr(run);
  if (d.status === 'idle') return tfrEnded('The session changed; compute the TFR again.');
  tfrEnded('Could not compute TFR: ' + (d.error || 'unknown error'), 'err');
}

function tfrBusy() {
  $('tfrBtn').disabled = true;
  $('tfrFigs').hidden = true;
  setNote($('tfrNote'), 'Computing TFR…');
}

async function startTfr() {
  tfrBusy();
  const run = ++tfrJob.run;
  tfrJob.waiting = false;
  const r = await api('/tfr');
  if (run !== tfrJob.run) return;
  if (!r.data || !r.data.ok) {
    return tfrEnded('Could not compute TFR: it could not be started.', 'err');
  }
  tfrJob.waiting = true;
}

/**
 * Follows both jobs on each snapshot. A job that runs without this page
 * having started it (the page was reloaded meanwhile) is followed too.
 */
export function followJobs(s) {
  for (const [job, status, busy, path, showBusy, ended] of [
    [exportJob, s.export_status, 'exporting', '/export_status', exportBusy, exportAnswer],
    [tfrJob, s.tfr_status, 'computing', '/tfr_status', tfrBusy, tfrAnswer],
  ]) {
    if (job.asking) continue;
    if (status === busy) {
      if (!job.waiting && !$(job === exportJob ? 'saveBtn' : 'tfrBtn').disabled) {
        job.run++;
        job.waiting = true;
        showBusy();
      }
    } else if (job.waiting) {
      ask(job, path, busy, ended);
    }
  }
}

// ---------- both ----------

export function initJobs() {
  $('saveBtn').addEventListener('click', startExport);
  $('exportDismiss').addEventListener('click', () => { $('exportBox').hidden = true; });
  $('tfrBtn').addEventListener('click', startTfr);
}

/** Stops following both jobs and clears their panels (a new session or leaving the screen). */
export function resetJobs() {
  for (const job of [exportJob, tfrJob]) {
    job.run++;
    job.waiting = job.asking = false;
  }
  $('exportBox').dataset.state = '';
  $('saveBtn').disabled = false;
  $('exportBox').hidden = true;
  $('tfrBtn').disabled = false;
  $('tfrFigs').hidden = true;
  $('tfr3').removeAttribute('src');
  $('tfr10').removeAttribute('src');
  setNote($('tfrNote'), 'Two heat-maps of the heart rate over time, with the breathing frequency marked.');
}
