// The Live screen's parts of a resonance assessment: the step line and bar
// above the chart while it runs, and the results card once it has ended.

import { api } from './api.js';
import { drawRfResult } from './charts.js';
import { kRf, rateText, recommendationText, resultRow, rfSchedule, stepLine } from './rf.js';
import { $, setNote, setText } from './ui.js';

/** The step line and the bar of steps (one segment each, as long as the step). */
export function createRfSteps() {
  let key = '', sched = null, segs = [], fills = {}, current = -1;
  const box = $('rfSteps'), bar = $('rfBar');
  const build = (rf) => {
    sched = rfSchedule(rf.rates, rf.step_s, rf.infrac);
    bar.textContent = '';
    segs = sched.steps.map((st) => {
      const seg = document.createElement('div');
      seg.className = 'seg-step';
      seg.style.flexGrow = String(st.end - st.start);
      seg.title = rateText(st.bpm) + ' breaths/min';
      seg.append(document.createElement('i'));
      bar.append(seg);
      return seg;
    });
    fills = {};
    current = -1;
  };
  return {
    reset() {
      key = '';
      box.hidden = true;
      bar.textContent = '';
      segs = [];
    },
    render(s) {
      const rf = s.rf;
      if (!rf) { box.hidden = true; return; }
      const k = rf.rates.join(',') + '/' + rf.step_s + '/' + rf.infrac;
      if (k !== key) { key = k; build(rf); }
      box.hidden = false;
      setText($('rfStepText'), stepLine(rf));
      const i = Math.min(segs.length, Math.max(1, rf.step)) - 1;
      if (i !== current) {
        segs.forEach((seg, j) => { seg.classList.toggle('on', j === i); seg.classList.toggle('done', j < i); });
        current = i;
      }
      // Progress from the program's "left": its step times are the page's.
      const st = sched.steps[i];
      const len = st.end - st.start;
      const frac = Math.min(1, Math.max(0, (len - (rf.left || 0)) / len));
      segs.forEach((seg, j) => {
        const w = j < i ? '100%' : j > i ? '0%' : (frac * 100).toFixed(1) + '%';
        if (fills[j] !== w) { fills[j] = w; seg.firstChild.style.width = w; }
      });
    },
  };
}

// The results plot's box, kept by a ResizeObserver like the other canvases.
let plotSize = { w: 0, h: 0 };

/**
 * The results card. `load()` asks /rf_result and shows it; `onUse(bpm,
 * infrac)` runs on "Use this pace".
 */
export function createRfResult(onUse) {
  let answer = null, asked = 0;
  const card = $('rfCard');
  const redraw = () => {
    if (answer && !card.hidden) drawRfResult($('rfPlot'), plotSize, answer.steps, answer.recommended_bpm);
  };
  new ResizeObserver((entries) => {
    for (const e of entries) plotSize = { w: e.contentRect.width, h: e.contentRect.height };
    redraw();
  }).observe($('rfPlot'));
  $('rfUse').addEventListener('click', () => {
    // The in-fraction the assessment ran with, so the rhythm trained at is the one scored.
    const infrac = answer && answer.protocol && answer.protocol.infrac;
    if (answer && answer.recommended_bpm > 0) onUse(answer.recommended_bpm, infrac > 0 ? infrac : kRf.infrac);
  });

  const show = (d) => {
    answer = d;
    setText($('rfRec'), recommendationText(d.recommended_bpm));
    $('rfRec').classList.toggle('none', !(d.recommended_bpm > 0));
    $('rfUse').hidden = !(d.recommended_bpm > 0);
    setNote($('rfResultNote'), '');
    const body = $('rfScores').tBodies[0];
    body.textContent = '';
    for (const step of d.steps || []) {
      const row = resultRow(step);
      const tr = body.insertRow();
      tr.classList.toggle('rec', step.bpm === d.recommended_bpm);
      tr.classList.toggle('unreached', !row.reached);
      const th = document.createElement('th');
      th.textContent = row.rate;
      tr.append(th);
      tr.insertCell().textContent = row.breaths;
      if (row.cells) {
        for (const text of row.cells) tr.insertCell().textContent = text;
      } else {
        const td = tr.insertCell();
        td.colSpan = 6;
        td.textContent = 'not reached';
      }
    }
    $('rfResultBody').hidden = false;
    redraw();
  };

  return {
    reset() {
      asked++;
      answer = null;
      card.hidden = true;
      $('rfResultBody').hidden = true;
      $('rfUse').hidden = true;
    },
    async load() {
      const id = ++asked;
      card.hidden = false;
      setText($('rfRec'), '');
      setNote($('rfResultNote'), 'Scoring the steps…');
      const r = await api('/rf_result');
      if (id !== asked) return;
      const d = r.data;
      if (!d || !d.ok) {
        const why = d && (d.reason || d.error);
        setText($('rfRec'), 'No recommendation');
        return setNote($('rfResultNote'), why ? 'No results: ' + why : 'The program gave no results.', 'err');
      }
      show(d);
    },
  };
}
