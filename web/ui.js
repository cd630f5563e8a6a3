// Small DOM helpers shared by the screens.

export const $ = (id) => document.getElementById(id);

/** Sets an element's text unless it already shows it (no layout work then). */
export function setText(el, text) {
  if (el.textContent !== text) el.textContent = text;
}

/** Marks a toggle button as chosen or not, for the eye and for screen readers. */
export function setPressed(button, on) {
  button.classList.toggle('on', on);
  button.setAttribute('aria-pressed', String(on));
}

/** A one-line note: plain, 'err' or 'ok'. */
export function setNote(el, text, kind) {
  setText(el, text || '');
  el.classList.toggle('err', kind === 'err');
  el.classList.toggle('ok', kind === 'ok');
}

/**
 * Shows a field's mistake beside it (`errEl`), or clears it: the red frame
 * for the eye, aria-invalid and aria-describedby for a screen reader.
 */
export function markField(input, errEl, msg) {
  input.classList.toggle('bad', !!msg);
  setText(errEl, msg || '');
  if (msg) {
    input.setAttribute('aria-invalid', 'true');
    input.setAttribute('aria-describedby', errEl.id);
  } else {
    input.removeAttribute('aria-invalid');
    input.removeAttribute('aria-describedby');
  }
}

const kToastMs = 1600;
let toastTimer = 0;
export function toast(text) {
  const t = $('toast');
  t.textContent = text;
  t.classList.add('show');
  clearTimeout(toastTimer);
  toastTimer = setTimeout(() => t.classList.remove('show'), kToastMs);
}

