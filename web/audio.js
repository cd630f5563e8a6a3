// Sound: countdown tones from Web Audio and the coupling cue from a file.
// Every call swallows refusals: sound is a courtesy.

const cueSound = new Audio('/piano.wav');
cueSound.preload = 'auto';
let actx = null;

/** Browsers allow sound only after a user gesture: call this inside a click. */
export function unlockAudio() {
  try {
    if (!actx) {
      const AC = window.AudioContext || window.webkitAudioContext;
      if (AC) actx = new AC();
    }
    if (actx && actx.state === 'suspended') actx.resume().catch(() => {});
  } catch (e) { actx = null; }
  try {
    const p = cueSound.play();
    cueSound.pause();
    if (p && p.catch) p.catch(() => {});
  } catch (e) { /* no sound on this machine */ }
}

/** A short sine tone; `peak` is its loudness (0..1). */
export function tone(freq, seconds, peak = 0.25) {
  if (!actx || actx.state !== 'running') return;
  try {
    const t0 = actx.currentTime;
    const osc = actx.createOscillator();
    const g = actx.createGain();
    osc.type = 'sine';
    osc.frequency.value = freq;
    g.gain.setValueAtTime(0.0001, t0);
    g.gain.exponentialRampToValueAtTime(peak, t0 + 0.01);
    g.gain.exponentialRampToValueAtTime(0.0001, t0 + seconds);
    osc.connect(g).connect(actx.destination);
    osc.start(t0);
    osc.stop(t0 + seconds + 0.02);
  } catch (e) { /* ignore */ }
}

export function playCue() {
  try {
    cueSound.currentTime = 0;
    const p = cueSound.play();
    if (p && p.catch) p.catch(() => {});
  } catch (e) { /* ignore */ }
}
