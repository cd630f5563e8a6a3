// Reading the snapshot stream and telling what changed between two snapshots.
// No DOM here, so node can test it.
//
// The stream's first event is the full snapshot; later ones carry each series
// as {"from":i,"points":[…]}, the points that replace the series from index i
// on (docs/api.md, "Event stream"). The reader keeps the series and hands each
// snapshot out with whole arrays. An unchanged series keeps the same array
// object, so "did the chart's data change" is a comparison of references.
// Events come 20 times a second and the series change about once a second, so
// the reader parses the series part of an event only when its bytes differ
// from the last event's. The cut relies on the snapshot's fixed field order
// ("hr_series", "cvn_series", then "indur"); an event of any other shape is
// parsed whole. Neither marker can occur inside a JSON text, where every
// quote is escaped.

const ascii = (text) => Uint8Array.from(text, (c) => c.charCodeAt(0));
const kSeriesStart = ascii(',"hr_series":');
const kSeriesEnd = ascii(',"indur":');
const kData = ascii('data:');
const kNewline = 10;
const kSpace = 32;

// Where `pattern` starts in bytes[from, to), searching forwards or backwards; -1 if nowhere.
function find(bytes, pattern, from, to, backwards) {
  const last = to - pattern.length;
  const step = backwards ? -1 : 1;
  for (let i = backwards ? last : from; backwards ? i >= from : i <= last; i += step) {
    let j = 0;
    while (j < pattern.length && bytes[i + j] === pattern[j]) j++;
    if (j === pattern.length) return i;
  }
  return -1;
}

function startsWith(bytes, at, end, pattern) {
  if (end - at < pattern.length) return false;
  for (let j = 0; j < pattern.length; j++) if (bytes[at + j] !== pattern[j]) return false;
  return true;
}

// Equal bytes, four at a time: both arrays start on a fresh buffer.
function sameBytes(a, b, n) {
  const words = n >> 2;
  const wa = new Uint32Array(a.buffer, 0, words), wb = new Uint32Array(b.buffer, 0, words);
  for (let i = 0; i < words; i++) if (wa[i] !== wb[i]) return false;
  for (let i = words << 2; i < n; i++) if (a[i] !== b[i]) return false;
  return true;
}

/**
 * The series `held` after an event's value `v` for it: a whole array replaces
 * it; {from, points} keeps held's first `from` points and puts `points` after
 * them. Returns `held` itself when nothing changed, and null when `from` lies
 * beyond what is held: an event was missed and the copy cannot be trusted.
 */
export function applySeries(held, v) {
  if (Array.isArray(v)) return v;
  if (!v || typeof v !== 'object' || !Array.isArray(v.points)) return held;
  const from = v.from;
  if (!Number.isInteger(from) || from < 0 || from > held.length) return null;
  if (!v.points.length && from === held.length) return held;
  return held.slice(0, from).concat(v.points);
}

export class SnapshotReader {
  constructor() {
    this.decoder = new TextDecoder();
    this.buf = new Uint8Array(1 << 16);
    this.len = 0;          // bytes in buf
    this.lineStart = 0;    // start of the line being read
    this.scanFrom = 0;     // no newline in buf[lineStart, scanFrom)
    this.data = [];        // the event's data lines so far, as [start, end) in buf
    this.series = { hr_series: [], cvn_series: [] };  // as the last event left them
    this.seriesBytes = new Uint8Array(0);  // the last series' bytes...
    this.seriesLen = 0;                    // ...of which this many are used
    this.scratch = new Uint8Array(0);
  }

  /** Takes the next bytes of the stream; returns the snapshots completed by them (usually 0 or 1). */
  push(chunk) {
    this.reserve(chunk.length);
    this.buf.set(chunk, this.len);
    this.len += chunk.length;
    const out = [];
    const buf = this.buf.subarray(0, this.len);
    for (let nl = buf.indexOf(kNewline, this.scanFrom); nl >= 0; nl = buf.indexOf(kNewline, nl + 1)) {
      const start = this.lineStart;
      this.lineStart = nl + 1;
      if (nl === start) {
        // An empty line ends the event (server-sent events framing).
        if (this.data.length) {
          const s = this.event();
          if (s) out.push(s);
        }
        this.data = [];
      } else if (startsWith(buf, start, nl, kData)) {
        const from = start + kData.length;
        this.data.push([buf[from] === kSpace ? from + 1 : from, nl]);
      }
      // Other lines (comments, ids, retry) carry nothing the page reads.
    }
    this.scanFrom = this.len;
    this.compact();
    return out;
  }

  reserve(more) {
    if (this.len + more <= this.buf.length) return;
    const bigger = new Uint8Array(Math.max(this.buf.length * 2, this.len + more));
    bigger.set(this.buf.subarray(0, this.len));
    this.buf = bigger;
  }

  // Drops the bytes before the line being read, once no event refers to them.
  compact() {
    if (this.data.length || this.lineStart === 0) return;
    this.buf.copyWithin(0, this.lineStart, this.len);
    this.len -= this.lineStart;
    this.scanFrom -= this.lineStart;
    this.lineStart = 0;
  }

  event() {
    if (this.data.length !== 1) {
      const text = this.data.map(([a, b]) => this.decoder.decode(this.buf.subarray(a, b))).join('\n');
      return this.withSeries(this.parse(text));
    }
    const [from, to] = this.data[0];
    const a = find(this.buf, kSeriesStart, from, to, false);
    const b = a < 0 ? -1 : find(this.buf, kSeriesEnd, a, to, true);
    if (b < 0) return this.withSeries(this.parse(this.decoder.decode(this.buf.subarray(from, to))));
    if (this.seriesChanged(a, b)) {
      // "{" + the fields without their leading comma + "}".
      const parsed = this.withSeries(this.parse('{' + this.decoder.decode(this.buf.subarray(a + 1, b)) + '}'));
      if (!parsed) return null;
      [this.scratch, this.seriesBytes] = [this.seriesBytes, this.scratch];
      this.seriesLen = b - a;
    }
    const s = this.parse(this.decoder.decode(this.buf.subarray(from, a)) + this.decoder.decode(this.buf.subarray(b, to)));
    if (!s) return null;
    s.hr_series = this.series.hr_series;
    s.cvn_series = this.series.cvn_series;
    return s;
  }

  // Applies the series of a parsed event `s` to the held ones and gives `s`
  // the results. Throws when an event was missed, so that the stream is read
  // again from its first, full event.
  withSeries(s) {
    if (!s) return null;
    const next = {};
    for (const key of ['hr_series', 'cvn_series']) {
      next[key] = applySeries(this.series[key], s[key]);
      if (!next[key]) throw new Error(`the stream skipped part of ${key}`);
      s[key] = next[key];
    }
    this.series = next;
    return s;
  }

  // Whether buf[a, b) differs from the last series; leaves the bytes in scratch.
  seriesChanged(a, b) {
    const n = b - a;
    if (this.scratch.length < n) this.scratch = new Uint8Array(n + (n >> 2));
    this.scratch.set(this.buf.subarray(a, b));
    return n !== this.seriesLen || !sameBytes(this.scratch, this.seriesBytes, n);
  }

  parse(text) {
    try {
      const v = JSON.parse(text);
      return v && typeof v === 'object' ? v : null;
    } catch (e) {
      return null;
    }
  }
}

function sameNumbers(a, b) {
  if (a === b) return true;
  if (!a || !b || a.length !== b.length) return false;
  for (let i = 0; i < a.length; i++) if (a[i] !== b[i]) return false;
  return true;
}

function sameMarkers(a, b) {
  if (a === b) return true;
  if (!a || !b || a.length !== b.length) return false;
  for (let i = 0; i < a.length; i++) if (a[i].t !== b[i].t || a[i].k !== b[i].k) return false;
  return true;
}

/**
 * What the page has to redraw for `next` after showing `prev` (null for the
 * first snapshot of a screen): `scope` (the ECG trace), `chart` (heart rate
 * and score over time), `markers` (the marker list). Texts are compared where
 * they are written, so they are not listed here.
 */
export function whatChanged(prev, next) {
  if (!prev) return { scope: true, chart: true, markers: true };
  const markers = !sameMarkers(prev.markers, next.markers);
  return {
    scope: !sameNumbers(prev.ecg, next.ecg) || prev.mode !== next.mode || prev.running !== next.running,
    chart: markers || prev.hr_series !== next.hr_series || prev.cvn_series !== next.cvn_series ||
      prev.running !== next.running || prev.cycle_seconds !== next.cycle_seconds || prev.indur !== next.indur,
    markers,
  };
}
