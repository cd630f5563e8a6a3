// What the page tells the user before an import or a batch sends anything.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { config } from '../../../web/config.js';
import { importRate, kindText, looksLikeKubios, planFolder, recordingsText } from '../../../web/importplan.js';

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
