// The question asked before an action would end a live recording that is
// still going: a replay from History, a new start, an import. Asked in the
// page's own dialog, the safe answer first: Enter and Escape keep recording.

import { api } from './api.js';
import { endLiveText, isLiveRunning } from './format.js';
import { $, setText } from './ui.js';

let answer = null;   // resolves the open question

function settle(yes) {
  const d = $('endLive');
  if (d.open) d.close();
  if (answer) answer(yes);
  answer = null;
}

/**
 * True when `what` ("Replaying this recording") may go ahead: no live
 * recording is running, or the user agreed to stop it (`go` names that
 * button). The program is asked, not this page: the recording may be
 * another window's.
 */
export async function confirmEndLive(what, go) {
  const r = await api('/status');
  if (!isLiveRunning(r.data)) return true;
  const t = endLiveText(r.data, what, go);
  setText($('endLiveTitle'), t.title);
  setText($('endLiveText'), t.text);
  setText($('endLiveKeep'), t.keep);
  setText($('endLiveGo'), t.go);
  settle(false);
  const d = $('endLive');
  const yes = new Promise((resolve) => { answer = resolve; });
  d.showModal();
  $('endLiveKeep').focus();
  return yes;
}

/** Wires the dialog's buttons; Escape and a click beside it keep recording. */
export function initConfirm() {
  const d = $('endLive');
  $('endLiveKeep').addEventListener('click', () => settle(false));
  $('endLiveGo').addEventListener('click', () => settle(true));
  d.addEventListener('cancel', (e) => { e.preventDefault(); settle(false); });
  d.addEventListener('click', (e) => { if (e.target === d) settle(false); });
}
