// The page's entry: wires the screens and the About dialog, and goes straight
// back to a session that is still running when the page is (re)loaded.

import { api } from './api.js';
import { loadConfig } from './config.js';
import { initConfirm } from './confirm.js';
import { initHistory } from './history.js';
import { initJobs } from './jobs.js';
import { enterLive, initLive, lastSnapshot } from './live.js';
import { initSetup, refreshSetup, useRate } from './setup.js';
import { $ } from './ui.js';

function initAbout() {
  const about = $('about');
  $('aboutBtn').addEventListener('click', () => {
    const s = lastSnapshot();
    if (s && s.app_version) $('aboutVersion').textContent = s.app_version;
    about.showModal();
  });
  $('aboutClose').addEventListener('click', () => about.close());
  about.addEventListener('click', (e) => { if (e.target === about) about.close(); });
}

// Everything below applies the program's limits, from the first cycle pill on.
await loadConfig();
initSetup(enterLive);
initLive(refreshSetup, useRate);
initJobs();
initAbout();
initConfirm();
initHistory(enterLive);

api('/status').then((r) => {
  const s = r.data;
  if (!s) return;
  if (s.app_version) $('aboutVersion').textContent = s.app_version;
  // A reload during a session goes straight back to it.
  if (s.running) enterLive();
});
