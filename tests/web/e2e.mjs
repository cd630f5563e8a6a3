// The page in headless Chromium against the real program (started by run.sh).
// Every test fails on a console error, an uncaught exception, a failed
// request or an error answer that it did not ask for.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { chromium } from 'playwright-core';

const BASE = process.env.CVN_URL;
const STRAP = process.env.CVN_STRAP_URL;  // a program with the simulated strap
const ARTIFACTS = process.env.CVN_ARTIFACTS || os.tmpdir();
if (!BASE) throw new Error('CVN_URL is not set: run the tests through tests/web/run.sh');

let browser;
before(async () => {
  browser = await chromium.launch({
    executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
    headless: true,
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  });
});
after(async () => { if (browser) await browser.close(); });

// A fresh profile per test and no session left running by an earlier one (the
// page would resume it); `expected(path)` names answers the test provokes.
async function openPage(width, height, expected = () => false, base = BASE) {
  for (const c of browser.contexts()) await c.close();
  await fetch(base + 'stop');
  const context = await browser.newContext({ viewport: { width, height } });
  const page = await context.newPage();
  const problems = [];
  const pathOf = (u) => { try { return new URL(u).pathname; } catch { return u; } };
  page.on('console', (m) => {
    if (m.type() === 'error' && !expected(pathOf(m.location().url || ''))) problems.push('console: ' + m.text());
  });
  page.on('pageerror', (e) => problems.push('exception: ' + e.message));
  page.on('requestfailed', (r) => {
    // Leaving the live screen closes the event stream on purpose.
    if (pathOf(r.url()) === '/stream' && r.failure()?.errorText === 'net::ERR_ABORTED') return;
    problems.push(`failed: ${r.url()} ${r.failure()?.errorText}`);
  });
  page.on('response', (r) => {
    if (r.status() >= 400 && !expected(pathOf(r.url()))) problems.push(`HTTP ${r.status()}: ${r.url()}`);
  });
  const requests = [];
  page.on('request', (r) => requests.push(new URL(r.url())));
  await page.goto(base);
  return {
    page, requests,
    calls: (p) => requests.filter((u) => u.pathname === p),
    async done() {
      assert.deepEqual(problems, [], 'the page reported problems');
      await context.close();
    },
  };
}

const shot = (page, name, fullPage = false) =>
  page.screenshot({ path: path.join(ARTIFACTS, name), fullPage });
const text = (page, sel) => page.$eval(sel, (e) => e.textContent.trim());
const waitText = (page, sel, re, timeout = 10000) =>
  page.waitForFunction(([s, src]) => {
    const e = document.querySelector(s);
    return e && new RegExp(src).test(e.textContent.trim());
  }, [sel, re.source], { timeout });

// Pixels of a canvas matching a colour test, right of `fromX` CSS pixels.
const countInk = (page, sel, kind, fromX = 0) => page.$eval(sel, (c, [kind, fromX]) => {
  const d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data;
  const x0 = Math.round(fromX * (window.devicePixelRatio || 1));
  let n = 0;
  for (let i = 0; i < d.length; i += 4) {
    if ((i / 4) % c.width < x0) continue;
    const [r, g, b, a] = [d[i], d[i + 1], d[i + 2], d[i + 3]];
    if (a < 200) continue;
    if (kind === 'dark' ? r < 110 && g < 150 && b < 160 : r > 170 && g < 120 && b < 130) n++;
  }
  return n;
}, [kind, fromX]);

// Every pair of visible cards of a screen, by their boxes: none may overlap.
async function assertNoOverlap(page, screen) {
  const boxes = await page.$$eval(screen + ' .card', (cards) => cards.filter((c) => c.offsetParent).map((c) => {
    const r = c.getBoundingClientRect();
    return { name: c.id || c.className, x: r.x, y: r.y, w: r.width, h: r.height };
  }));
  const size = page.viewportSize();
  for (let i = 0; i < boxes.length; i++) {
    for (let j = i + 1; j < boxes.length; j++) {
      const [a, b] = [boxes[i], boxes[j]];
      const ox = Math.min(a.x + a.w, b.x + b.w) - Math.max(a.x, b.x), oy = Math.min(a.y + a.h, b.y + b.h) - Math.max(a.y, b.y);
      assert.ok(ox <= 0.5 || oy <= 0.5, `at ${size.width}×${size.height} "${a.name}" overlaps "${b.name}" by ${ox.toFixed(0)}×${oy.toFixed(0)} px`);
    }
  }
}
const kSizes = [[1280, 720], [1366, 850], [1920, 1080]];

const ballScale = (page) => page.$eval('#ball', (b) => parseFloat(/scale\(([\d.]+)\)/.exec(b.style.transform)?.[1] ?? 'NaN'));

// "Compute TFR" ends with both heat-maps shown: 1200 columns at most, one
// pixel row per frequency (320).
async function computeTfr(page) {
  await page.click('#tfrBtn');
  await page.waitForFunction(() => !document.getElementById('tfrFigs').hidden ||
    document.getElementById('tfrNote').textContent.startsWith('Could not compute TFR: '), null, { timeout: 30000 });
  assert.equal(await page.isHidden('#tfrFigs'), false, await text(page, '#tfrNote'));
  assert.deepEqual(await page.$$eval('#tfrFigs figcaption', (f) => f.map((e) => e.textContent)),
    ['High frequency resolution (n = 10)', 'High time resolution (n = 3)']);
  for (const id of ['#tfr10', '#tfr3']) {
    await page.waitForFunction((s) => document.querySelector(s).naturalWidth > 0, id);
    const [w, h] = await page.$eval(id, (i) => [i.naturalWidth, i.naturalHeight]);
    assert.ok(w > 100 && w <= 1200, `${id} is ${w} pixels wide`);
    assert.equal(h, 320);
  }
}

async function startReplay(page, file, { name = '', sex = 'M', age = '40' } = {}) {
  await page.fill('#name', name);
  await page.selectOption('#sex', sex);
  await page.fill('#age', age);
  await page.click('#sourceSwitch >> text=Open a recording');
  await page.selectOption('#recording', { label: file });
  await page.click('#speedSwitch >> text=8×');
  await page.click('#startBtn');
  await page.waitForSelector('#live', { state: 'visible' });
}

test('setup: periods and presets, keys in fields, no Bluetooth, start without a device, About', async () => {
  const { page, calls, done } = await openPage(1024, 768);
  await waitText(page, '#scanNote', /^Bluetooth is not available on this computer\. Use “Open a recording” to replay or import files\.$/);
  assert.equal(await page.isDisabled('#scanBtn'), true);
  assert.match(await text(page, '#cyclePill'), /^Cycle 16 s · 0\.0625 Hz$/);
  assert.deepEqual(await page.$$eval('.chip.on', (c) => c.map((e) => e.textContent)), ['16 s cycle']);

  await page.click('#name');
  await page.keyboard.type('NIJ000123 456789');
  assert.equal(calls('/mark').length, 0, 'digits typed into the name field placed markers');

  await page.fill('#indur', '');
  await page.type('#indur', '1,95');
  assert.equal(await text(page, '#cyclePill'), 'Cycle 12.95 s · 0.0772 Hz');
  assert.equal(await page.$$eval('.chip.on', (c) => c.length), 0);
  await page.click('text=10 s cycle');
  assert.equal(await page.inputValue('#indur'), '2');
  assert.equal(await page.inputValue('#outdur'), '8');
  assert.equal(await text(page, '#cyclePill'), 'Cycle 10 s · 0.1000 Hz');
  await page.click('text=16 s cycle');

  await page.click('#startBtn');
  assert.equal(await text(page, '#startNote'), 'Scan and select your Polar H10 first.');
  assert.equal(await page.isHidden('#live'), true);

  await page.click('#sourceSwitch >> text=Open a recording');
  const groups = await page.$$eval('#recording optgroup', (gs) => gs.map((g) => [g.label, [...g.children].map((o) => o.value)]));
  assert.deepEqual(groups, [['Bundled samples', ['Sample 1.txt', 'Sample 2.txt']]]);
  for (const [width, height] of kSizes) {
    await page.setViewportSize({ width, height });
    await assertNoOverlap(page, '#setup');
    await shot(page, `setup-${width}.png`);
  }

  await page.click('#aboutBtn');
  await page.waitForSelector('#about[open]');
  assert.equal(await text(page, '#aboutVersion'), '1.0.0');
  await page.click('#aboutClose');
  await page.waitForSelector('#about:not([open])', { state: 'attached' });
  await done();
});

test('replay of Sample 1 at 8×: live screen, pacer, countdown, marker, seek, TFR, stop', async () => {
  const { page, calls, done } = await openPage(1920, 1080);
  // Countdown texts as the page shows them, so none is missed between polls.
  await page.evaluate(() => {
    window.countdown = [];
    new MutationObserver(() => window.countdown.push(document.getElementById('cdText').textContent))
      .observe(document.getElementById('cdText'), { childList: true, characterData: true, subtree: true });
  });
  await startReplay(page, 'Sample 1.txt', { name: 'NIJ000123', sex: 'F', age: '52' });

  await waitText(page, '#liveTitle', /./);
  assert.equal(await text(page, '#liveTitle'), 'Playback · NIJ000123');
  assert.equal(await text(page, '#liveMeta'), 'Sex F · Age 52 · In 5 s / Out 11 s · Cycle 16s · Expected 0.0625 Hz');
  await waitText(page, '#hrVal', /^\d{2,3}\.\d$/);
  await waitText(page, '#cdText', /^CVN active$/, 15000);
  const seen = await page.evaluate(() => window.countdown);
  const left = seen.map((t) => /^CVN in (\d+) s$/.exec(t)?.[1]).filter(Boolean).map(Number);
  assert.ok(left.length >= 3, 'countdown texts seen: ' + seen.join(' | '));
  assert.deepEqual(left, [...left].sort((a, b) => b - a), 'the countdown went backwards');
  assert.ok(left.includes(1));
  await page.waitForSelector('#cdBar.gone');

  assert.ok(await countInk(page, '#ecg', 'dark') > 800, 'the ECG scope is blank');
  assert.ok(await countInk(page, '#chart', 'red', 60) > 300, 'no heart-rate line in the chart');

  const scales = [];
  for (let i = 0; i < 5; i++) { scales.push(await ballScale(page)); await page.waitForTimeout(120); }
  assert.ok(scales.every((s) => s >= 0.42 && s <= 1), 'ball scale out of range: ' + scales);
  assert.ok(new Set(scales.map((s) => s.toFixed(3))).size >= 4, 'the pacer ball does not move: ' + scales);
  assert.match(await text(page, '#cue'), /^Breathe (in|out)$/);
  // At 8× each snapshot moves 0.4 s on; the pacer's own clock must stay close.
  for (let i = 0; i < 8; i++) {
    const [shown, elapsed] = await page.evaluate(() =>
      [parseFloat(document.getElementById('pacer').dataset.t), parseFloat(document.getElementById('elapsedVal').textContent)]);
    assert.ok(Math.abs(shown - elapsed) < 0.8, `pacer at ${shown} s, session at ${elapsed} s`);
    await page.waitForTimeout(110);
  }

  await page.keyboard.press('3');
  await page.waitForSelector('#markerLine .mk');
  assert.equal(calls('/mark').length, 1);
  assert.equal(calls('/mark')[0].searchParams.get('key'), '3');
  assert.match(await text(page, '#markerLine .mk'), /^3\d+\.\d s$/);
  for (const [width, height] of kSizes) {
    await page.setViewportSize({ width, height });
    await page.waitForTimeout(300);
    await assertNoOverlap(page, '#live');
    await shot(page, `live-${width}.png`);
  }

  // Clicking the middle of the scrubber seeks to about half of 264 s.
  const box = await page.locator('#scrubber').boundingBox();
  await page.mouse.click(box.x + box.width / 2, box.y + box.height / 2);
  await page.waitForFunction(() => parseFloat(document.getElementById('elapsedVal').textContent) >= 125, null, { timeout: 5000 });
  assert.equal(calls('/seek').length, 1);
  assert.ok(Math.abs(Number(calls('/seek')[0].searchParams.get('frac')) - 0.5) < 0.05);
  await page.waitForFunction(() => parseInt(document.getElementById('pacerCycle').textContent.replace('Cycle ', ''), 10) >= 8);

  await computeTfr(page);

  await page.click('#stopBtn');
  await waitText(page, '#runState', /^Stopped$/);
  assert.equal(calls('/stop').length, 1);
  // Stopped, the replay can still be moved; the ball must follow to where the
  // elapsed time puts it in the 16 s cycle (5 s in, 11 s out, eased).
  for (const [at, cue, scale] of [[168, 'Breathe out', 0.90]]) {
    await page.request.get(BASE + 'seek?frac=' + at / 264);
    await page.waitForFunction((e) => Math.abs(parseFloat(document.getElementById('elapsedVal').textContent) - e) < 0.11, at);
    await page.waitForTimeout(250);
    assert.equal(await text(page, '#cue'), cue, 'at ' + at + ' s');
    assert.ok(Math.abs(await ballScale(page) - scale) < 0.02, `ball at ${at} s: ${await ballScale(page)}, expected ${scale}`);
  }
  await shot(page, 'live-stopped-1920-full.png', true);
  await done();
});

function tempTree(files) {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'cvn-web-'));
  for (const [rel, body] of Object.entries(files)) {
    fs.mkdirSync(path.dirname(path.join(dir, rel)), { recursive: true });
    fs.writeFileSync(path.join(dir, rel), body);
  }
  return dir;
}

async function choose(page, button, files) {
  const [chooser] = await Promise.all([page.waitForEvent('filechooser'), page.click(button)]);
  await chooser.setFiles(files);
}

// Real ECG for the uploads: the first `seconds` of a bundled sample, at
// `fs` samples per second (linear interpolation from its 130).
const kSample = fs.readFileSync(new URL('../../assets/Sample 1.txt', import.meta.url), 'utf8').trim().split('\n').map(Number);
function sampleEcg(seconds, fs) {
  const out = [];
  for (let i = 0; i < seconds * fs; i++) {
    const t = (i / fs) * 130, k = Math.floor(t), f = t - k;
    out.push(Math.round((1 - f) * kSample[k] + f * kSample[k + 1]));
  }
  return out.join('\n') + '\n';
}

// A Kubios RR export as its table looks: a header row, then index, time, RR.
function kubiosRr(beats) {
  const rows = ['Kubios HRV Standard,,', 'RR INTERVAL DATA,,', 'Index,Time (s),RR (s)'];
  let t = 0;
  for (let i = 0; i < beats; i++) {
    const rr = 0.85 + 0.08 * Math.sin((2 * Math.PI * t) / 16);
    t += rr;
    rows.push(`${i + 1},${t.toFixed(3)},${rr.toFixed(3)}`);
  }
  return rows.join('\r\n') + '\r\n';
}

const waitFlow = (page, phase, timeout = 60000) =>
  page.waitForSelector(`#flow[data-phase="${phase}"]`, { state: 'attached', timeout });
const listed = (page, sel) => page.$$eval(sel + ' li', (l) => l.map((e) => e.textContent));

test('export of a short replay: its folder and the six files', async () => {
  const { page, done } = await openPage(1366, 850);
  await startReplay(page, 'Sample 2.txt', { name: 'Anna' });
  await page.waitForFunction(() => parseFloat(document.getElementById('elapsedVal').textContent) >= 20, null, { timeout: 15000 });
  await page.click('#stopBtn');
  await page.click('#saveBtn');
  assert.equal(await text(page, '#exportTitle'), 'Exporting…');
  await page.waitForSelector('#exportBox[data-state="done"]', { timeout: 30000 });
  assert.equal(await text(page, '#exportTitle'), 'Exported 6 files to');
  assert.match(await text(page, '#exportFolder'), /[\\/]exports[\\/]Anna[^\\/]*$/);
  const files = await listed(page, '#exportFiles');
  assert.deepEqual(files.map((f) => f.replace(/^Anna.*?(_ECG\.txt|_HR\.txt|_markers\.csv|\.edf|_CVN_logpower\.csv|_report\.pdf)$/, '$1')).sort(),
    ['.edf', '_CVN_logpower.csv', '_ECG.txt', '_HR.txt', '_markers.csv', '_report.pdf']);
  assert.equal(await page.isEnabled('#saveBtn'), true);
  await shot(page, 'export-1366.png');
  await done();
});

test('import: raw ECG at 360 Hz replays, a Kubios export ends in a report, a refusal in words', async () => {
  const { page, calls, done } = await openPage(1366, 850);
  const tree = tempTree({
    'Holter strip.txt': sampleEcg(40, 360),
    'kubios_rr.csv': kubiosRr(300),
    'photo.txt': 'not an ECG\n',
  });
  try {
    await page.fill('#name', 'Ben');
    await page.click('#sourceSwitch >> text=Open a recording');
    await choose(page, '#importFileBtn', path.join(tree, 'Holter strip.txt'));
    await waitFlow(page, 'confirm');
    assert.equal(calls('/import').length, 0, 'the file was sent before the user agreed');
    assert.match(await text(page, '#flowFacts'), /^FileHolter strip\.txt · \d+\.\d kB/);
    assert.equal(await text(page, '#flowWhat'), 'Raw ECG at 130 Hz: it will be saved and replayed.');
    await page.fill('#fs', '360');
    assert.equal(await text(page, '#flowWhat'), 'Raw ECG at 360 Hz will be resampled to 130 per second and replayed.');
    await shot(page, 'import-file-1366.png');
    await page.click('#flowGo');
    await page.waitForSelector('#live', { state: 'visible' });
    await waitText(page, '#sourceText', /^Imported — Holter_strip$/);
    assert.equal(await text(page, '#liveTitle'), 'Playback · Ben');
    const q = calls('/import')[0].searchParams;
    assert.deepEqual([q.get('fname'), q.get('fs'), q.get('speed'), q.get('name')], ['Holter strip.txt', '360', '2', 'Ben']);
    // 40 s at 360 Hz is 40 s at 130 Hz once resampled.
    await waitText(page, '#scrubTotal', /^0:40$/);
    await page.click('#newBtn');
    await page.waitForSelector('#setup', { state: 'visible' });
    await page.waitForFunction(() => [...document.querySelectorAll('#recording option')]
      .some((e) => /^imported_Holter_strip_\d{8}-\d{6}\.csv$/.test(e.value)));

    await choose(page, '#importFileBtn', path.join(tree, 'kubios_rr.csv'));
    await waitFlow(page, 'confirm');
    assert.equal(await text(page, '#flowWhat'), 'Kubios RR export: a report will be written.');
    assert.equal(await page.isHidden('#fsField'), true);
    await page.click('#flowGo');
    await waitFlow(page, 'end');
    assert.equal(await text(page, '#flowDone'), '2 reports written to', await text(page, '#flow'));
    assert.ok((await listed(page, '#flowReports')).some((r) => /^kubios_rr_\d{8}-\d{6}_summary_report\.pdf$/.test(r)), await text(page, "#flowReports"));
    await shot(page, 'import-kubios-1366.png');
    await page.click('#flowCancel');
    assert.match(await text(page, '#importNote'), /^✓ 2 reports written to .*exports/);

    await choose(page, '#importFileBtn', path.join(tree, 'photo.txt'));
    await waitFlow(page, 'confirm');
    await page.click('#flowGo');
    await waitFlow(page, 'end');
    assert.equal(await text(page, '#flowError'),
      'That file did not look like a raw ECG (.txt/.csv with one sample per line) or a Kubios export.');
  } finally {
    fs.rmSync(tree, { recursive: true, force: true });
  }
  await done();
});

test('batch: two persons and a bad file, uploaded with progress, reports and the error listed', async () => {
  const { page, calls, done } = await openPage(1366, 850);
  const ecg = sampleEcg(30, 130);
  const tree = tempTree({
    'Study/Anna/morning.txt': ecg, 'Study/Anna/evening.txt': ecg, 'Study/Anna/morning_markers.csv': '',
    'Study/Ben/rest.csv': kubiosRr(200), 'Study/Ben/notes.txt': 'seen on Monday\n',
    'Study/protocol.docx': 'x', 'Study/.DS_Store': 'x',
  });
  const steps = [];
  await page.exposeFunction('stepShown', (t) => steps.push(t));
  await page.evaluate(() => new MutationObserver(() => window.stepShown(document.getElementById('flowStep').textContent))
    .observe(document.getElementById('flowStep'), { childList: true, characterData: true, subtree: true }));
  try {
    await page.click('#sourceSwitch >> text=Open a recording');
    await choose(page, '#batchBtn', path.join(tree, 'Study'));
    await waitFlow(page, 'confirm');
    assert.equal(calls('/batch_new').length, 0);
    assert.deepEqual(await page.$$eval('#flowFacts dd', (d) => d.map((e) => e.textContent)),
      ['Study', '4 recordings: 3 raw ECG, 1 Kubios RR export, plus 1 marker file', 'Anna: 2 recordings · Ben: 2 recordings']);
    assert.equal(await text(page, '#flowSkippedTitle'), '1 file is skipped (only .txt and .csv recordings are read)');
    assert.deepEqual(await listed(page, '#flowSkippedList'), ['protocol.docx — not a .txt or .csv file']);
    await shot(page, 'batch-confirm-1366.png');
    await page.click('#flowGo');
    await waitFlow(page, 'end', 90000);
    assert.ok(steps.includes('Uploading 5 / 5 — Ben/rest.csv'), steps.join(' | '));
    assert.deepEqual(calls('/batch_upload').map((u) => u.searchParams.get('rel')),
      ['Anna/evening.txt', 'Anna/morning.txt', 'Anna/morning_markers.csv', 'Ben/notes.txt', 'Ben/rest.csv']);
    const run = calls('/batch_run')[0].searchParams;
    assert.deepEqual([run.get('mode'), run.get('batchname')], ['folder', 'Study']);
    assert.equal(await text(page, '#flowDone'), '4 reports written to');
    const reports = await listed(page, '#flowReports');
    assert.equal(reports.length, 4, reports.join(' | '));
    assert.match(reports[0], /^Study_\d{8}-\d{6}_summary_report\.pdf$/);
    assert.deepEqual(await listed(page, '#flowFailedList'), ['Ben/notes.txt — Not a recording: no samples in it.']);
    await shot(page, 'batch-done-1366.png');
    await page.click('#flowCancel');
    assert.equal(await page.isVisible('#flowShow'), true);
  } finally {
    fs.rmSync(tree, { recursive: true, force: true });
  }
  await done();
});

test('live from the simulated strap: scan, pick, record, mark, stop, TFR, new session', { skip: !STRAP && 'CVN_STRAP_URL not set' }, async () => {
  const { page, calls, done } = await openPage(1280, 800, () => false, STRAP);
  await page.waitForFunction(() => !document.getElementById('scanBtn').disabled);
  await page.click('#scanBtn');
  assert.equal(await text(page, '#scanNote'), 'Scanning for Bluetooth devices (~10 s)…');
  assert.equal(await page.isDisabled('#scanBtn'), true);
  await waitText(page, '#scanNote', /^Found 1 device\(s\)\. Select your Polar H10\.$/, 20000);
  assert.equal(await page.isEnabled('#scanBtn'), true);
  assert.deepEqual(await page.$$eval('#device option', (o) => o.map((e) => e.textContent)), ['Polar H10 SIM00001 — A0:9E:1A:00:00:01']);

  await page.fill('#name', 'LIVE01');
  await page.click('.chip >> text=10 s cycle');
  await page.click('#startBtn');
  await page.waitForSelector('#live', { state: 'visible' });
  const start = calls('/start_live')[0].searchParams;
  assert.deepEqual([start.get('address'), start.get('device'), start.get('name'), start.get('indur'), start.get('outdur')],
    ['A0:9E:1A:00:00:01', 'Polar H10 SIM00001', 'LIVE01', '2', '8']);
  await waitText(page, '#liveTitle', /./);
  assert.equal(await text(page, '#liveTitle'), 'Live recording · LIVE01');
  assert.equal(await page.isDisabled('#scrubber'), true);
  await waitText(page, '#hrVal', /^\d{2,3}\.\d$/, 15000);
  assert.ok(await countInk(page, '#ecg', 'dark') > 400, 'the ECG scope is blank');
  assert.match(await text(page, '#cdText'), /^CVN in \d+ s$/);

  await page.keyboard.press('5');
  await page.waitForSelector('#markerLine .mk');
  assert.match(await text(page, '#markerLine .mk'), /^5\d+\.\d s$/);

  // One whole 10 s cycle recorded live is enough for the time-frequency maps.
  await page.waitForFunction(() => parseFloat(document.getElementById('elapsedVal').textContent) >= 11, null, { timeout: 20000 });
  await page.click('#stopBtn');
  await waitText(page, '#runState', /^Stopped$/);
  await computeTfr(page);

  await page.click('#newBtn');
  await page.waitForSelector('#setup', { state: 'visible' });
  assert.equal(calls('/stop').length, 2);
  const status = await (await page.request.get(STRAP + 'status')).json();
  assert.equal(status.running, false);
  await done();
});
