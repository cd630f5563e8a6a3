// Talking to the program: JSON routes and the snapshot stream.

import { SnapshotReader } from './snapshot.js';

/** Calls a route and never throws: status 0 when the program did not answer. */
export async function api(path, params, init) {
  const q = params ? '?' + new URLSearchParams(params).toString() : '';
  let res;
  try {
    res = await fetch(path + q, { cache: 'no-store', ...(init || {}) });
  } catch (e) {
    return { ok: false, status: 0, data: null };
  }
  let text = '';
  try { text = await res.text(); } catch (e) { /* body lost: treated as empty */ }
  let data = null;
  try { data = text ? JSON.parse(text) : null; } catch (e) { data = null; }
  const isObj = data !== null && typeof data === 'object';
  return { ok: res.ok, status: res.status, data: isObj ? data : null };
}

const kReconnectMs = 2000;

/**
 * Reads the snapshot stream: `onSnapshot` gets every snapshot, `onLost` runs
 * when the connection breaks (it is tried again every two seconds). Returns
 * the function that closes it.
 *
 * A fetch rather than an EventSource: the reader sees the stream's bytes and
 * decodes only what it parses, where an EventSource would turn every ~1 MB
 * event of a long session into text first.
 */
export function readStream(onSnapshot, onLost) {
  let ctl = null;
  let timer = 0;
  let closed = false;
  const connect = async () => {
    ctl = new AbortController();
    const reader = new SnapshotReader();
    try {
      const res = await fetch('/stream', { cache: 'no-store', signal: ctl.signal });
      if (!res.ok || !res.body) throw new Error('no stream');
      const body = res.body.getReader();
      for (;;) {
        const { done, value } = await body.read();
        if (done) break;
        for (const s of reader.push(value)) onSnapshot(s);
      }
    } catch (e) { /* closed, or the program went away */ }
    if (closed) return;
    onLost();
    timer = setTimeout(connect, kReconnectMs);
  };
  connect();
  return () => {
    closed = true;
    clearTimeout(timer);
    if (ctl) ctl.abort();
  };
}

/**
 * Follows the snapshot stream like readStream, but receives and reads it on a
 * worker thread: the first event of a long session is several megabytes,
 * and each series the worker rebuilds from an event's changes is copied
 * whole. The worker hands over the series only when they changed, so an
 * unchanged series stays the same array here too.
 */
export function openStream(onSnapshot, onLost) {
  let worker;
  try {
    worker = new Worker('/stream_worker.js', { type: 'module' });
  } catch (e) {
    return readStream(onSnapshot, onLost);
  }
  let series = { hr_series: [], cvn_series: [] };
  let close = () => worker.terminate();
  // A worker that cannot start (its script did not load) leaves the reading
  // to this thread.
  worker.onerror = () => {
    worker.terminate();
    close = readStream(onSnapshot, onLost);
  };
  worker.onmessage = ({ data }) => {
    if (data.lost) return onLost();
    if (data.series) series = data.series;
    data.s.hr_series = series.hr_series;
    data.s.cvn_series = series.cvn_series;
    onSnapshot(data.s);
  };
  return () => close();
}
