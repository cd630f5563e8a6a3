// The Live screen: follows the snapshot stream and shows the session.
//
// Snapshots arrive 20 times a second and late in a long session each is
// close to a megabyte (read from the stream's bytes, see snapshot.js), so a
// snapshot only feeds the pacer clock and the sound cues and notes what
// changed; the page itself is updated at most once per animation frame, and
// only where something it shows changed.

import { api, openStream } from './api.js';
import { drawScope, drawTrend } from './charts.js';
import { confirmEndLive } from './confirm.js';
import { createCoupling, createCountdown, createStepCue } from './cues.js';
import {
  clockText, gaugeFraction, heartRateParts, metaText, runStateText, scoreText, sourceNoteText, titleText,
} from './format.js';
import { initHrvCard, renderHrv } from './hrv.js';
import { followJobs, resetJobs } from './jobs.js';
import { createPacerView } from './pacer.js';
import { breathsDone, rfSchedule } from './rf.js';
import { createRfResult, createRfSteps } from './rfview.js';
import { whatChanged } from './snapshot.js';
import { $, setText, toast } from './ui.js';

const kSeekSettleMs = 250;  // snapshots taken before a seek landed still arrive this long
const kScrubSteps = 1000;   // the scrubber's range

let shown = false;
let closeStream = null;
let last = null;            // the last snapshot
let lost = false;
let frameId = 0;
const dirty = { text: false, scope: false, chart: false, markers: false };
let dragging = false;
let ignoreScrubUntil = 0;
let onLeave = () => {};
let rfRan = false;           // this screen saw an assessment running

let pacer, countdown, coupling, stepCue, rfSteps, rfResult;

/** The last snapshot the screen received, or null. */
export const lastSnapshot = () => last;

// ---------- per snapshot ----------

function onSnapshot(s) {
  lost = false;
  const ch = whatChanged(last, s);
  last = s;
  pacer.clock.feed(s.elapsed, s.running, performance.now() / 1000);
  countdown.update(s);
  coupling.update(s);
  stepCue.update(s);
  // An assessment that ended (its last step, or Stop) is scored once.
  if (s.rf && s.running) rfRan = true;
  else if (s.rf && rfRan) {
    rfRan = false;
    rfResult.load();
  }
  followJobs(s);
  dirty.text = true;
  dirty.scope ||= ch.scope;
  dirty.chart ||= ch.chart;
  dirty.markers ||= ch.markers;
}

// ---------- per animation frame ----------

// The ball swells over seconds: 30 moves a second look as smooth as 60, and
// every frame the page draws costs the main thread a paint and a commit.
const kPacerFrameMs = 1000 / 30 - 2;
let pacerDrawn = -Infinity;

/** What the empty scope says: a strap that sends beats has no ECG to draw. */
function scopeNote(s) {
  if (s.source === 'beats') return 'No ECG from this strap – heart beats only';
  return s.mode === 'live' && s.running ? 'Waiting for ECG…' : 'No ECG';
}

function frame(ts) {
  frameId = requestAnimationFrame(frame);
  if (ts - pacerDrawn >= kPacerFrameMs) {
    pacerDrawn = ts;
    pacer.draw(ts / 1000, last);
  }
  if (!last) return;
  if (dirty.text) renderTexts(last);
  if (dirty.markers) renderMarkers(last.markers || []);
  if (dirty.scope) {
    const note = scopeNote(last);
    drawScope($('ecg'), canvasSize($('ecg')), last.ecg, last.scope_samples, note);
    // The note is drawn on the canvas; screen readers (and tests) read it here.
    $('ecg').setAttribute('aria-label', last.ecg?.length ? 'ECG' : note);
  }
  if (dirty.chart) drawTrend($('chart'), canvasSize($('chart')), last);
  dirty.text = dirty.scope = dirty.chart = dirty.markers = false;
}

// The canvases' boxes, kept by a ResizeObserver so drawing never measures.
const canvasSizes = new Map();
const canvasSize = (c) => canvasSizes.get(c) || { w: 0, h: 0 };
function watchCanvasSizes() {
  const ro = new ResizeObserver((entries) => {
    for (const e of entries) canvasSizes.set(e.target, { w: e.contentRect.width, h: e.contentRect.height });
    dirty.scope = dirty.chart = true;
  });
  ro.observe($('ecg'));
  ro.observe($('chart'));
}

// Texts that are composed of a number and a smaller unit are keyed by their
// whole text, so they are rebuilt only when it changes.
const composed = new Map();
function setComposed(el, big, small) {
  const key = big + '\u0000' + small;
  if (composed.get(el) === key) return;
  composed.set(el, key);
  el.textContent = big;
  if (small) {
    const d = document.createElement('small');
    d.textContent = small;
    el.append(d);
  }
}

function setDisabled(el, off) {
  if (el.disabled !== off) el.disabled = off;
}

// A stopped session is not stopped again. Stop, disabled with the keyboard's
// focus on it, would drop the focus on the page: it goes on to Save, the
// usual next step (New session while an export runs).
function disableStop() {
  const stop = $('stopBtn');
  if (stop.disabled) return;
  if (document.activeElement === stop) ($('saveBtn').disabled ? $('newBtn') : $('saveBtn')).focus();
  stop.disabled = true;
}

function renderTexts(s) {
  setText($('liveTitle'), titleText(s));
  setText($('liveMeta'), metaText(s));
  const st = $('runState');
  if (!lost) {
    setText(st, runStateText(s));
    st.classList.toggle('stopped', !s.running);
  }
  if (s.running) setDisabled($('stopBtn'), false);
  else disableStop();
  setText($('sourceText'), sourceNoteText(s));

  const hr = heartRateParts(s.hr);
  setComposed($('hrVal'), hr ? hr[0] : '–', hr ? hr[1] : '');
  if (s.rf) {
    const b = breathsDone(rfSchedule(s.rf.rates, s.rf.step_s, s.rf.infrac), s.elapsed || 0);
    setComposed($('cyclesVal'), b.done.toFixed(1), ' / ' + b.all);
  } else {
    setComposed($('cyclesVal'), (s.cycles_done || 0).toFixed(1), ' / ' + s.cycles_target);
  }
  setComposed($('elapsedVal'), (s.elapsed || 0).toFixed(1), ' s');

  setText($('cvnVal'), scoreText(s.cvn));
  const knob = $('knob');
  knob.classList.toggle('none', s.cvn == null);
  if (s.cvn != null) {
    const left = (gaugeFraction(s.cvn) * 100).toFixed(2) + '%';
    if (composed.get(knob) !== left) {
      composed.set(knob, left);
      knob.style.left = left;
    }
  }

  const scrub = $('scrubber');
  setDisabled(scrub, s.mode !== 'replay');
  if (!dragging && performance.now() >= ignoreScrubUntil) {
    const v = String(Math.round((s.frac || 0) * kScrubSteps));
    if (scrub.value !== v) scrub.value = v;
    setText($('scrubCur'), clockText(s.elapsed));
  }
  setText($('scrubTotal'), clockText(s.mode === 'replay' ? s.total : s.rf ? rfTotal(s.rf) : s.cycle_seconds * s.cycles_target));
  rfSteps.render(s);
  renderHrv(s.hrv, s.running);
}

// An assessment's planned length, for the live scrubber's end.
let rfTotalKey = '', rfTotalSeconds = 0;
function rfTotal(rf) {
  const k = rf.rates.join(',') + '/' + rf.step_s + '/' + rf.infrac;
  if (k !== rfTotalKey) { rfTotalKey = k; rfTotalSeconds = rfSchedule(rf.rates, rf.step_s, rf.infrac).total; }
  return rfTotalSeconds;
}

function renderMarkers(list) {
  const line = $('markerLine');
  line.querySelectorAll('.mk').forEach((n) => n.remove());
  $('markerEmpty').hidden = list.length > 0;
  // Newest first, so the latest marker stays visible on a narrow screen.
  for (let i = list.length - 1; i >= 0; i--) {
    const chip = document.createElement('span');
    chip.className = 'mk';
    const b = document.createElement('b');
    b.textContent = String(list[i].k);
    chip.append(b, list[i].t.toFixed(1) + ' s');
    line.appendChild(chip);
  }
}

// ---------- entering and leaving ----------

function resetScreen() {
  last = null;
  lost = false;
  pacer.reset();
  countdown.reset();
  coupling.reset();
  stepCue.reset();
  rfSteps.reset();
  rfResult.reset();
  rfRan = false;
  composed.clear();
  dragging = false;
  ignoreScrubUntil = 0;
  // Nothing of the previous session may show before the first snapshot.
  for (const id of ['liveTitle', 'liveMeta', 'sourceText']) $(id).textContent = '';
  for (const id of ['hrVal', 'cvnVal', 'cyclesVal', 'elapsedVal']) $(id).textContent = '–';
  $('knob').classList.add('none');
  for (const id of ['ecg', 'chart']) {
    const c = $(id);
    c.getContext('2d').clearRect(0, 0, c.width, c.height);
  }
  $('runState').textContent = 'Starting…';
  $('runState').classList.remove('stopped');
  $('stopBtn').disabled = false;
  resetJobs();
  renderMarkers([]);
  renderHrv(null, false);
}

/** Shows the screen and follows the session's stream, which says all it shows. */
export function enterLive() {
  resetScreen();
  $('setup').hidden = true;
  $('live').hidden = false;
  shown = true;
  window.scrollTo(0, 0);
  // The button that started the session is hidden now: the keyboard goes on
  // from the top of this screen, and a screen reader reads its title.
  $('liveTitle').focus({ preventScroll: true });
  if (closeStream) closeStream();
  closeStream = openStream(onSnapshot, () => {
    lost = true;
    $('runState').textContent = 'Connection lost';
    $('runState').classList.add('stopped');
  });
  cancelAnimationFrame(frameId);
  frameId = requestAnimationFrame(frame);
}

function leaveLive() {
  if (closeStream) closeStream();
  closeStream = null;
  cancelAnimationFrame(frameId);
  shown = false;
  resetJobs();
  $('live').hidden = true;
  $('setup').hidden = false;
  $('setupTitle').focus({ preventScroll: true });
}

// ---------- controls ----------

function onKey(e) {
  if (!shown || e.ctrlKey || e.metaKey || e.altKey || e.repeat) return;
  if (!/^[1-9]$/.test(e.key)) return;
  const t = e.target;
  const tag = t && t.tagName;
  // Digits typed into a field belong to the field; the scrubber takes no digits.
  if (tag === 'TEXTAREA' || tag === 'SELECT' || (t && t.isContentEditable)) return;
  if (tag === 'INPUT' && !['range', 'button', 'checkbox', 'radio'].includes(t.type)) return;
  if ($('about').open) return;
  if (!last || !last.running) return;
  e.preventDefault();
  const key = e.key;
  api('/mark', { key }).then((r) => {
    if (r.data && r.data.ok) toast('Marker ' + key + ' placed');
  });
}

/**
 * Wires the screen; `left()` runs after New session brought back Setup, and
 * `useRate(bpm, infrac)` sets Setup to one rhythm at an assessment's
 * recommended rate (it returns the periods it set).
 */
export function initLive(left, useRate) {
  onLeave = left;
  pacer = createPacerView({
    pacer: $('pacer'), ball: $('ball'), arc: $('phaseArc'), cue: $('cue'), cueSub: $('cueSub'), cycle: $('pacerCycle'),
  });
  countdown = createCountdown();
  coupling = createCoupling();
  stepCue = createStepCue();
  rfSteps = createRfSteps();
  // The person goes on to train at the rate found: back to Setup with it.
  rfResult = createRfResult((bpm, infrac) => {
    const p = useRate(bpm, infrac);
    leaveLive();
    onLeave();
    toast('Single rhythm: in ' + p.indur + ' s, out ' + p.outdur + ' s');
  });

  const scrub = $('scrubber');
  scrub.addEventListener('pointerdown', () => { dragging = true; });
  scrub.addEventListener('input', () => {
    dragging = true;
    if (last) $('scrubCur').textContent = clockText((+scrub.value / kScrubSteps) * (last.total || 0));
  });
  scrub.addEventListener('change', async () => {
    const frac = +scrub.value / kScrubSteps;
    ignoreScrubUntil = Infinity;
    dragging = false;
    await api('/seek', { frac });
    ignoreScrubUntil = performance.now() + kSeekSettleMs;
  });

  $('stopBtn').addEventListener('click', async () => {
    disableStop();
    await api('/stop');
  });
  $('newBtn').addEventListener('click', async () => {
    if (!(await confirmEndLive('Starting a new session', 'Stop recording'))) return;
    await api('/stop');
    leaveLive();
    onLeave();
  });
  document.addEventListener('keydown', onKey);
  watchCanvasSizes();
  initHrvCard();
}
