// Reading the stream's bytes into snapshots, and what changed between two.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { SnapshotReader, applySeries, whatChanged } from '../../../web/snapshot.js';

// A snapshot in the program's field order (abridged where the reader does not care).
const snap = ({ elapsed = 1, hr = [[0, 60]], name = 'Ann' } = {}) =>
  `{"mode":"replay","running":true,"name_id":${JSON.stringify(name)},"elapsed":${elapsed},"ecg":[1,2],` +
  `"hr_series":${JSON.stringify(hr.map(([x, y]) => ({ x, y })))},"cvn_series":[{"x":0,"y":null}],` +
  '"indur":5,"outdur":11,"cycle_seconds":16,"markers":[],"app_version":"1.0.0"}';
const events = (...data) => data.map((e) => 'data: ' + e + '\n\n').join('');
function readAll(text, chunk) {
  const r = new SnapshotReader(), b = new TextEncoder().encode(text), out = [];
  for (let i = 0; i < b.length; i += chunk) out.push(...r.push(b.subarray(i, i + chunk)));
  return out;
}

test('events split anywhere read the same; series are parsed only when they change', () => {
  const hr = [[0, 60], [0.1, 61.5]];
  const text = events(snap({ elapsed: 1 }), snap({ elapsed: 1.1 }), snap({ elapsed: 1.2, hr }),
    snap({ elapsed: 1.3, hr, name: 'a,"hr_series":[] ,"indur":1 ü' }),
    snap({ elapsed: 1.4, hr: [[0, 60], [0.1, 61.6]] }));  // same length, other value
  for (const chunk of [1, 2, 7, 4096, text.length]) {
    const got = readAll(text, chunk);
    assert.deepEqual(got.map((s) => s.elapsed), [1, 1.1, 1.2, 1.3, 1.4], `chunks of ${chunk}`);
    assert.equal(got[3].name_id, 'a,"hr_series":[] ,"indur":1 ü');
    assert.deepEqual([got[4].hr_series, got[0].cvn_series, got[4].app_version], [[{ x: 0, y: 60 }, { x: 0.1, y: 61.6 }], [{ x: 0, y: null }], '1.0.0']);
    const same = got.slice(1).map((s, i) => s.hr_series === got[i].hr_series);
    assert.deepEqual(same, [true, false, true, false], `series kept across events (chunks of ${chunk})`);
  }
});

test('other shapes: other field order, several data lines, comments, broken JSON', () => {
  const text = 'data: {"hr_series":[{"x":1,"y":2}],"mode":"idle"}\n\n' +  // no cut possible: parsed whole
    ': a comment\n\ndata: {"mode":\ndata: "live"}\n\ndata: {"mode":\n\n' + events(snap({ elapsed: 7 }));
  const got = readAll(text, 3);
  assert.deepEqual(got.map((s) => s.mode), ['idle', 'live', 'replay']);
  assert.deepEqual([got[0].hr_series, got[2].elapsed], [[{ x: 1, y: 2 }], 7]);
});

// A later event: each series as the points that replace it from `from` on.
const diff = ({ elapsed, hr, cvn = [0, []] }) => snap({ elapsed }).replace(
  /"hr_series":.*,"indur"/,
  `"hr_series":${JSON.stringify({ from: hr[0], points: hr[1].map(([x, y]) => ({ x, y })) })},` +
  `"cvn_series":${JSON.stringify({ from: cvn[0], points: cvn[1] })},"indur"`);

test('later events append, replace from a changed point, keep an unchanged series, and refuse a gap', () => {
  const text = events(snap({ elapsed: 1, hr: [[0, 60], [0.1, 61]] }),
    diff({ elapsed: 1.1, hr: [2, []], cvn: [1, []] }),
    diff({ elapsed: 1.2, hr: [2, [[0.2, 62], [0.3, 63]]], cvn: [1, []] }),
    diff({ elapsed: 1.3, hr: [4, []], cvn: [1, []] }),
    diff({ elapsed: 1.4, hr: [1, [[0.1, 70], [0.2, 71]]], cvn: [0, [{ x: 0, y: 0.5 }]] }),  // revised, and one point shorter
    snap({ elapsed: 0, hr: [[0, 50]] }).replace('{', '{"reset":true,'));
  for (const chunk of [3, text.length]) {
    const got = readAll(text, chunk);
    const ys = got.map((s) => s.hr_series.map((p) => p.y));
    assert.deepEqual(ys, [[60, 61], [60, 61], [60, 61, 62, 63], [60, 61, 62, 63], [60, 70, 71], [50]], `chunks of ${chunk}`);
    assert.deepEqual(got.map((s) => s.hr_series === got[Math.max(0, got.indexOf(s) - 1)].hr_series),
      [true, true, false, true, false, false]);
    assert.deepEqual(got[4].cvn_series, [{ x: 0, y: 0.5 }]);
    assert.equal(got[3].cvn_series, got[0].cvn_series);
  }
  // A `from` beyond the held points means an event went missing: the reader
  // gives up on the connection rather than show a series with a hole.
  const r = new SnapshotReader();
  r.push(new TextEncoder().encode(events(snap({ hr: [[0, 60]] }))));
  assert.throws(() => r.push(new TextEncoder().encode(events(diff({ elapsed: 2, hr: [3, [[0.3, 1]]] })))));
  assert.equal(applySeries([1, 2], { from: -1, points: [] }), null);
});

test('what to redraw after the last snapshot', () => {
  const [a, b] = readAll(events(snap(), snap()), 1e6);
  const other = (changes) => ({ ...b, ...changes });
  const cases = [  // [what, previous, next, scope, chart, markers]
    ['first snapshot', null, a, true, true, true],
    ['nothing new', a, b, false, false, false],
    ['ECG moved on', a, other({ ecg: [2, 3] }), true, false, false],
    ['series replaced', a, other({ hr_series: [...b.hr_series] }), false, true, false],
    ['marker placed', a, other({ markers: [{ t: 1, k: 3 }] }), false, true, true],
    ['stopped', a, other({ running: false }), true, true, false],
    ['other rhythm', a, other({ cycle_seconds: 10 }), false, true, false],
  ];
  for (const [what, prev, next, scope, chart, markers] of cases) assert.deepEqual(whatChanged(prev, next), { scope, chart, markers }, what);
});
