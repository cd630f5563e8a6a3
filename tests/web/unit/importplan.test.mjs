// What the page tells the user before an import or a batch sends anything.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { config } from '../../../web/config.js';
import {
  firstColumnValues, importRate, kindText, looksLikeKubios, planFolder, rawEcgWarnings, recordingsText,
} from '../../../web/importplan.js';

// As /config gives them.
Object.assign(config, { sample_rate: 130, min_import_rate: 20, max_import_rate: 20000, max_upload_bytes: 512 * 2 ** 20 });

test('Kubios exports are told from raw ECG by the start of the file, as the program does', () => {
  // A "sep=" line counts even when the rest is ECG, but only at the start of a line;
  // nothing past the part the program reads counts.
  const yes = ['Kubios HRV Standard 3.5\nRR INTERVAL DATA', '...\nHRV ANALYSIS RESULTS\n', 'sep=,\n1\n2\n', 'SEP=;\n', '12\n34\nsep=,\n', ' '.repeat(3994) + 'kubios'];
  const no = ['12\n34 sep=,\n', '-100\n145\n627\n', ' '.repeat(4000) + 'kubios'];
  for (const text of [...yes, ...no]) assert.equal(looksLikeKubios(text), yes.includes(text), JSON.stringify(text.slice(-30)));
});

test('the rate the program will use and what it does with the file', () => {
  for (const [text, want] of [['360', 360], ['250,5', 250.5], ['', 130], ['abc', 130], ['19', 130], ['20000', 20000], ['20001', 130]]) {
    assert.equal(importRate(text), want, `"${text}"`);
  }
  assert.deepEqual([kindText(true, 360), kindText(false, 130.4), kindText(false, 360)], ['Kubios RR export: a report will be written.',
    'Raw ECG at 130 Hz: it will be saved and replayed.', 'Raw ECG at 360 Hz will be resampled to 130 per second and replayed.']);
  assert.deepEqual([recordingsText(2, 0), recordingsText(0, 1), recordingsText(3, 1)],
    ['2 raw ECG recordings', '1 Kubios RR export', '4 recordings: 3 raw ECG, 1 Kubios RR export']);
});

test('a chosen folder: persons, recordings, markers and the files left behind with the reason', () => {
  const files = [
    ['Anna/morning.txt', 10], ['Anna/deep/evening.CSV', 10], ['Anna/morning_markers.csv', 1],
    ['Ben.txt', 10], ['Ben/rest_hrv.txt', 10], ['Ben/rest_CVN_logpower.csv', 10], ['Ben/rest_RR.csv', 10],
    ['Dan_RR.txt', 10],
    ['Carla/huge.txt', config.max_upload_bytes + 1], ['Carla/ok.txt', config.max_upload_bytes],
    ['protocol.docx', 5], ['.DS_Store', 5], ['Anna/.hidden/x.txt', 5],
  ].map(([path, size]) => ({ path, size }));

  const batch = planFolder(files, false);
  assert.deepEqual(batch.recordings.map((f) => f.path), ['Anna/morning.txt', 'Anna/deep/evening.CSV', 'Ben.txt', 'Dan_RR.txt', 'Carla/ok.txt']);
  assert.deepEqual(batch.markers.map((f) => f.path), ['Anna/morning_markers.csv']);
  // A file at the top is a person of its own, named by its stem, and joins a folder of that name.
  assert.deepEqual(batch.persons, [{ name: 'Anna', count: 2 }, { name: 'Ben', count: 1 }, { name: 'Dan', count: 1 }, { name: 'Carla', count: 1 }]);
  assert.deepEqual(batch.skipped, [
    { path: 'Ben/rest_hrv.txt', why: 'a Kubios text report; export the RR intervals as .csv' },
    { path: 'Ben/rest_CVN_logpower.csv', why: 'an output of this program' },
    { path: 'Ben/rest_RR.csv', why: 'an output of this program' },
    { path: 'Carla/huge.txt', why: 'larger than 512 MB' },
    { path: 'protocol.docx', why: 'not a .txt or .csv file' },
  ]);

  assert.deepEqual(planFolder(files, true).persons, [{ name: '', count: 5 }]);
  assert.deepEqual(planFolder([], true), { recordings: [], markers: [], skipped: [], persons: [] });
});

// An ECG as the program stores it: whole microvolts, one per line.
const ecgLines = (n, scale = 1, decimals = 0) => Array.from({ length: n }, (_, i) =>
  (scale * (Math.sin(i / 4) * 300 + (i % 26 === 0 ? 1200 : 0))).toFixed(decimals)).join('\n') + '\n';

test('the samples the program reads: the first column of each line that is a number', () => {
  const head = 'time_s,ecg_uV\r\n  -12.5e1,3\n\tx7\n+4\n1-2\n.\n\n12, 9\n100\n4';
  assert.deepEqual(firstColumnValues(head, false), [-125, 4, 1, 12, 100, 4]);
  // A start of a file cut mid-line: its last line may be part of a number.
  assert.deepEqual(firstColumnValues(head, true), [-125, 4, 1, 12, 100]);
});

test('a raw ECG import warns of a time column and of millivolts, and is quiet for an ECG', () => {
  const timed = (fs, digits) => 'time_s,ecg_uV\n' + Array.from({ length: 300 }, (_, i) => (i / fs).toFixed(digits) + ',' + (i % 7)).join('\n');
  for (const [head, why] of [[timed(130, 4), '130 Hz in seconds'], [timed(130, 3), 'rounded to 3 decimals'], [timed(1000, 3), '1 kHz'],
    [Array.from({ length: 50 }, (_, i) => String(1700000000000 + Math.round(i * 7.69))).join('\n'), 'epoch milliseconds'],
    [Array.from({ length: 50 }, (_, i) => i + 1 + ',512').join('\n'), 'a sample counter']]) {
    const w = rawEcgWarnings(head, false);
    assert.equal(w.length, 1, why);
    assert.match(w[0], /^The first column rises steadily \(.+ …\), like a time axis\./, why);
  }
  assert.match(rawEcgWarnings(timed(130, 4), false)[0], /\(0\.0000, 0\.0077, 0\.0154 …\)/);

  const mv = ecgLines(200, 0.001, 3);
  assert.equal(rawEcgWarnings(mv, false).length, 1);
  assert.match(rawEcgWarnings(mv, false)[0], /^All values are small with decimals \(1\.200, 0\.074, 0\.144 …\), like millivolts\./);
  assert.match(rawEcgWarnings('-0.05\n' + mv, false)[0], /\(−0\.05, /, 'a real minus in the text');

  // Quiet: whole microvolts, microvolts with decimals, an upstroke that rises for a while, a flat
  // zero line, a file too short to tell, the Kubios-free text of a header only.
  // (A short file that only rises, but speeding up as an R wave does, is no clock.)
  const upstroke = Array.from({ length: 40 }, (_, i) => 3 * i * i);
  for (const head of [ecgLines(200), ecgLines(200, 1, 1), upstroke.join('\n'), '0.0\n'.repeat(100), '0.1\n0.2\n-0.3\n', 'time_s,ecg_uV\n']) {
    assert.deepEqual(rawEcgWarnings(head, false), [], head.slice(0, 40));
  }
});
