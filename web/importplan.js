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
