// Reading the stream's bytes into snapshots, and what changed between two.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { SnapshotReader, whatChanged } from '../../../web/snapshot.js';

// A snapshot in the program's field order (abridged where the reader does not care).
function snap({ elapsed = 1, running = true, hr = [[0, 60]], name = 'Ann', ecg = [1, 2], markers = [] } = {}) {
  return '{"mode":"replay","running":' + running + ',"name_id":' + JSON.stringify(name) +
    ',"elapsed":' + elapsed + ',"ecg":' + JSON.stringify(ecg) +
    ',"hr_series":' + JSON.stringify(hr.map(([x, y]) => ({ x, y }))) + ',"cvn_series":[{"x":0,"y":null}]' +
    ',"indur":5,"outdur":11,"cycle_seconds":16,"markers":' + JSON.stringify(markers) + ',"app_version":"1.0.0"}';
}
const bytes = (text) => new TextEncoder().encode(text);

function readAll(text, chunk) {
  const r = new SnapshotReader();
  const b = bytes(text), out = [];
  for (let i = 0; i < b.length; i += chunk) out.push(...r.push(b.subarray(i, i + chunk)));
  return out;
}

test('events split anywhere read the same; series are parsed only when they change', () => {
  const events = [
    snap({ elapsed: 1 }),
    snap({ elapsed: 1.1 }),
    snap({ elapsed: 1.2, hr: [[0, 60], [0.1, 61.5]] }),
    snap({ elapsed: 1.3, hr: [[0, 60], [0.1, 61.5]], name: 'a,"hr_series":[] ,"indur":1 ü' }),
    snap({ elapsed: 1.4, hr: [[0, 60], [0.1, 61.6]] }),  // same length, other value
  ];
  const text = events.map((e) => 'data: ' + e + '\n\n').join('');
  for (const chunk of [1, 2, 7, 4096, text.length]) {
    const got = readAll(text, chunk);
    assert.equal(got.length, 5, `chunks of ${chunk}`);
    assert.deepEqual(got.map((s) => s.elapsed), [1, 1.1, 1.2, 1.3, 1.4]);
    assert.equal(got[3].name_id, 'a,"hr_series":[] ,"indur":1 ü');
    assert.deepEqual(got[4].hr_series, [{ x: 0, y: 60 }, { x: 0.1, y: 61.6 }]);
    assert.deepEqual(got[0].cvn_series, [{ x: 0, y: null }]);
    assert.equal(got[4].app_version, '1.0.0');
    const same = got.slice(1).map((s, i) => s.hr_series === got[i].hr_series);
    assert.deepEqual(same, [true, false, true, false], `series kept across events (chunks of ${chunk})`);
  }
});

test('other shapes: other field order, several data lines, comments, broken JSON', () => {
  const text = [
    'data: {"hr_series":[{"x":1,"y":2}],"mode":"idle"}\n\n',  // no cut possible: parsed whole
    ': a comment\n\n',
    'data: {"mode":\ndata: "live"}\n\n',
    'data: {"mode":\n\n',
    'data: ' + snap({ elapsed: 7 }) + '\n\n',
  ].join('');
  const got = readAll(text, 3);
  assert.deepEqual(got.map((s) => s.mode), ['idle', 'live', 'replay']);
  assert.deepEqual(got[0].hr_series, [{ x: 1, y: 2 }]);
  assert.equal(got[2].elapsed, 7);
});

test('what to redraw after the last snapshot', () => {
  const base = readAll('data: ' + snap() + '\n\ndata: ' + snap() + '\n\n', 1e6);
  const [a, b] = base;
  const other = (changes) => ({ ...b, ...changes });
  const cases = [
    ['first snapshot', null, a, { scope: true, chart: true, markers: true }],
    ['nothing new', a, b, { scope: false, chart: false, markers: false }],
    ['ECG moved on', a, other({ ecg: [2, 3] }), { scope: true, chart: false, markers: false }],
    ['series replaced', a, other({ hr_series: [...b.hr_series] }), { scope: false, chart: true, markers: false }],
    ['marker placed', a, other({ markers: [{ t: 1, k: 3 }] }), { scope: false, chart: true, markers: true }],
    ['stopped', a, other({ running: false }), { scope: true, chart: true, markers: false }],
    ['other rhythm', a, other({ cycle_seconds: 10 }), { scope: false, chart: true, markers: false }],
  ];
  for (const [what, prev, next, want] of cases) assert.deepEqual(whatChanged(prev, next), want, what);
});
