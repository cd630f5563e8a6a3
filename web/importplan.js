// What an import or a batch will do with the files the user chose, worked out
// before anything is sent. No DOM here, so node can test it.

import { config } from './config.js';

/** The largest file the program takes in one request, in words: "512 MB". */
export const uploadLimitText = () => config.max_upload_bytes / 2 ** 20 + ' MB';

/** How much of a file the program reads to tell a Kubios export from raw ECG. */
export const kKubiosHeadChars = 4000;

/** The program's own rule for a Kubios RR export, on the start of a file. */
export function looksLikeKubios(text) {
  const head = String(text).slice(0, kKubiosHeadChars).toLowerCase();
  return head.includes('kubios') || head.includes('hrv analysis results') ||
    head.startsWith('sep=') || head.includes('\nsep=');
}

/** The refusal of a file over the program's limit. */
export const tooLargeText = (name) => name + ' is larger than ' + uploadLimitText() + ', the most the program takes in one file.';

/** Why a chosen file is not sent at all, or '' when it may be. */
export function fileRefusal(name, size) {
  if (size === 0) return name + ' is empty (0 bytes): there is nothing in it to import.';
  return size > config.max_upload_bytes ? tooLargeText(name) : '';
}

// The program takes the first CSV column of every line that is a number and
// skips the rest (a header, notes); here the same, on the start of a file.
const kNumberText = /^[+-]?[0-9+\-.eE]*$/;
const kLinesLooked = 400;      // enough to tell, little enough to be quick
const kMinValues = 20;         // fewer tell nothing about a file's shape

/**
 * The samples the program would read from `head`, the start of a file (the
 * whole file unless `cut`, when its last line may be broken off and is left out).
 */
export const firstColumnValues = (head, cut) => firstColumn(head, cut).map((c) => c.v);

// The same as { text, v }: the warnings quote the file as it is written.
function firstColumn(head, cut) {
  const lines = String(head).split('\n');
  if (cut) lines.pop();
  const out = [];
  for (const line of lines.slice(0, kLinesLooked)) {
    const text = line.split(',')[0].replace(/[\r ]+$/, '').replace(/^[ \t]+/, '');
    if (!kNumberText.test(text) || !/[0-9]/.test(text)) continue;
    const v = parseFloat(text);
    if (Number.isFinite(v)) out.push({ text, v });
  }
  return out;
}

/** Whether the values climb like a clock: every one above the last, by steps of about one size. */
export function risesLikeTime(values) {
  if (values.length < kMinValues) return false;
  let lo = Infinity, hi = 0;
  for (let i = 1; i < values.length; i++) {
    const d = values[i] - values[i - 1];
    if (!(d > 0)) return false;
    lo = Math.min(lo, d);
    hi = Math.max(hi, d);
  }
  // A clock's steps vary with its rounding and jitter; an ECG that happens
  // to rise for a while speeds up and slows down far more.
  return hi <= 3 * lo;
}

/** Whether the values look like millivolts: all small, most with decimals. */
export function looksLikeMillivolts(values) {
  if (values.length < kMinValues || values.some((v) => Math.abs(v) >= 20)) return false;
  return values.filter((v) => !Number.isInteger(v)).length * 2 >= values.length;
}

const shortList = (column) => column.slice(0, 3).map((c) => c.text.replace(/^-/, '−')).join(', ') + ' …';

/**
 * What the user should check before a raw ECG is imported, from the start
 * of the file (`cut` as for firstColumnValues): sentences, none when it
 * looks like an ECG. The user may still go on.
 */
export function rawEcgWarnings(head, cut) {
  const column = firstColumn(head, cut);
  const values = column.map((c) => c.v);
  // A time column would also look small and decimal: one warning, the one that matters.
  if (risesLikeTime(values)) {
    return ['The first column rises steadily (' + shortList(column) + '), like a time axis. The program reads the ' +
      'first column as the ECG, so it would replay the time. Put the ECG in the first column, or go on if this is right.'];
  }
  if (looksLikeMillivolts(values)) {
    return ['All values are small with decimals (' + shortList(column) + '), like millivolts. The program keeps ' +
      'whole microvolts, so the trace would be rounded flat. Convert it to microvolts (× 1000) first, or go on if this is right.'];
  }
  return [];
}

/** The sample rate the program will use for an imported raw ECG, from the field's text. */
export function importRate(text) {
  const v = parseFloat(String(text).replace(/,/g, '.'));
  return Number.isFinite(v) && v >= config.min_import_rate && v <= config.max_import_rate ? v : config.sample_rate;
}

/** What happens to a raw ECG or a Kubios file, in words. */
export function kindText(kubios, fs) {
  if (kubios) return 'Kubios RR export: a report will be written.';
  const rate = config.sample_rate;
  // The program leaves rates within half a hertz of its own alone.
  if (Math.abs(fs - rate) < 0.5) return 'Raw ECG at ' + rate + ' Hz: it will be saved and replayed.';
  return 'Raw ECG at ' + fs + ' Hz will be resampled to ' + rate + ' per second and replayed.';
}

/** "812 bytes", "14.2 kB", "3.4 MB". */
export function sizeText(bytes) {
  if (bytes < 1000) return bytes + ' bytes';
  if (bytes < 1e6) return (bytes / 1e3).toFixed(1) + ' kB';
  if (bytes < 1e9) return (bytes / 1e6).toFixed(1) + ' MB';
  return (bytes / 1e9).toFixed(2) + ' GB';
}

const lower = (s) => s.toLowerCase();
// A strap's beat recording is its person's as an ECG is: "Kim_RR.txt" is Kim's.
export const stem = (name) =>
  /._rr\.txt$/i.test(name) ? name.slice(0, -7)
    : name.lastIndexOf('.') > 0 ? name.slice(0, name.lastIndexOf('.')) : name;

// Why a file of the chosen folder is not sent, or '' when it is.
function skipReason(name, size) {
  const n = lower(name);
  if (!n.endsWith('.txt') && !n.endsWith('.csv')) return 'not a .txt or .csv file';
  if (n.endsWith('hrv.txt')) return 'a Kubios text report; export the RR intervals as .csv';
  if (['_cvn_logpower.csv', '_hrv.csv', '_rr.csv', '_rf.csv'].some((e) => n.endsWith(e))) return 'an output of this program';
  if (size > config.max_upload_bytes) return 'larger than ' + uploadLimitText();
  return '';
}

/**
 * Sorts the files of a chosen folder. `files` are {path, size}, `path` the
 * file's place inside the chosen folder ("Anna/morning.txt"). In a batch
 * (`single` false) each sub-folder is a person, and so is each file at the
 * top; on an import everything is one person's.
 *
 * Returns {recordings, markers, skipped, persons}: recordings and markers
 * files are sent (a recording's markers lie beside it), skipped ones are
 * {path, why}, persons the names in order with their recording counts.
 * Hidden files (".DS_Store") are left out without a word.
 */
export function planFolder(files, single) {
  const recordings = [], markers = [], skipped = [];
  const persons = new Map();
  for (const f of files) {
    const parts = f.path.split('/').filter(Boolean);
    const name = parts[parts.length - 1] || '';
    if (!name || parts.some((p) => p.startsWith('.'))) continue;
    const why = skipReason(name, f.size);
    if (why) {
      skipped.push({ path: f.path, why });
      continue;
    }
    if (lower(name).endsWith('_markers.csv')) {
      markers.push(f);
      continue;
    }
    recordings.push(f);
    const person = single ? '' : parts.length > 1 ? parts[0] : stem(name);
    persons.set(person, (persons.get(person) || 0) + 1);
  }
  return { recordings, markers, skipped, persons: [...persons].map(([name, count]) => ({ name, count })) };
}

/** "1 recording", "12 recordings". */
export const countText = (n, one, many) => n + ' ' + (n === 1 ? one : many);

/** "2 raw ECG recordings", "1 Kubios RR export", "4 recordings: 3 raw ECG, 1 Kubios RR export". */
export function recordingsText(raw, kubios) {
  const k = countText(kubios, 'Kubios RR export', 'Kubios RR exports');
  if (!kubios) return countText(raw, 'raw ECG recording', 'raw ECG recordings');
  if (!raw) return k;
  return countText(raw + kubios, 'recording', 'recordings') + ': ' + raw + ' raw ECG, ' + k;
}
