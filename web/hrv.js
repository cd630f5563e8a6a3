// The Live screen's HRV card: four indices at a glance and all of them in a
// table behind "More". The program sends the indices once two minutes of the
// session exist and renews them every 10 s, so the card is rebuilt only when
// they (or the running state its note names) change.

import { hrvText, kHrvGroups, kHrvSummary } from './format.js';
import { $, setText } from './ui.js';

const fields = new Map(kHrvGroups.flatMap(([, list]) => list.map((f) => [f[0], f])));
const cells = [];   // [element, key, decimals] of every value shown
let shownKey = '';

function el(tag, className, text) {
  const e = document.createElement(tag);
  if (className) e.className = className;
  if (text) e.textContent = text;
  return e;
}

function addCell(e, key, decimals) {
  e.dataset.key = key;
  cells.push([e, key, decimals]);
  return e;
}

/** Builds the card's numbers and table and wires "More". */
export function initHrvCard() {
  for (const key of kHrvSummary) {
    const [, label, unit, decimals] = fields.get(key);
    const stat = el('div', 'hrv-stat');
    const v = el('span', 'v');
    v.append(addCell(el('span', '', '–'), key, decimals));
    if (unit) v.append(el('small', '', unit));
    stat.append(el('span', 'label', label), v);
    $('hrvSummary').append(stat);
  }
  for (const [title, list] of kHrvGroups) {
    const table = el('table');
    table.append(el('caption', '', title));
    for (const [key, label, unit, decimals] of list) {
      const row = el('tr');
      row.append(el('th', '', label), addCell(el('td', 'num', '–'), key, decimals), el('td', 'u', unit));
      table.append(row);
    }
    $('hrvTable').append(table);
  }
  const more = $('hrvMore');
  more.addEventListener('click', () => {
    const open = $('hrvTable').hidden;
    $('hrvTable').hidden = !open;
    more.textContent = open ? 'Less' : 'More';
    more.setAttribute('aria-expanded', String(open));
  });
}

/** Shows the snapshot's `hrv` (null: not two minutes yet). */
export function renderHrv(hrv, running) {
  const key = hrv ? JSON.stringify(hrv) + running : '';
  if (key === shownKey) return;
  shownKey = key;
  $('hrvEmpty').hidden = !!hrv;
  $('hrvBody').hidden = !hrv;
  $('hrvMore').hidden = !hrv;
  setText($('hrvNote'), !hrv ? '' : running ? 'Session so far · renewed every 10 s' : 'Whole session');
  for (const [e, k, decimals] of cells) setText(e, hrvText(hrv?.[k], decimals));
}
