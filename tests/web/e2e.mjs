// The flows a person uses, in headless Chromium against the real program
// (started by run.sh); texts and numbers from pure logic are the unit tests'.
// Every test fails on a console error, an uncaught exception, a failed
// request or an error answer.
import { test, before, after } from 'node:test';
import assert from 'node:assert/strict';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { createRequire } from 'node:module';
import { chromium } from 'playwright-core';
const kAxe = createRequire(import.meta.url).resolve('axe-core/axe.min.js');

const { CVN_URL: BASE, CVN_STRAP_URL: STRAP, CVN_BEATS_URL: BEATS, CVN_ARTIFACTS: ARTIFACTS = os.tmpdir() } = process.env;
if (!BASE) throw new Error('CVN_URL is not set: run the tests through tests/web/run.sh');

let browser;
const trees = [];
before(async () => {
  browser = await chromium.launch({ executablePath: process.env.CHROMIUM || '/usr/bin/chromium', headless: true,
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'] });
});
after(async () => {
  await browser?.close();
  for (const dir of trees) fs.rmSync(dir, { recursive: true, force: true });
});

// A fresh profile per test and no session left running by an earlier one (the page would resume it).
// `limits`, when given, is what /config answers instead of the program; `init` runs in the page before its own scripts.
async function openPage(width, height, base = BASE, limits = null, init = null) {
  for (const c of browser.contexts()) await c.close();
  await fetch(base + 'stop');
  const context = await browser.newContext({ viewport: { width, height } });
  if (limits) await context.route('**/config', (r) => r.fulfill({ json: limits }));
  if (init) await context.addInitScript(init);
  const page = await context.newPage();
  const problems = [], requests = [];
  page.on('console', (m) => m.type() === 'error' && problems.push('console: ' + m.text()));
  page.on('pageerror', (e) => problems.push('exception: ' + e.message));
  // Leaving the live screen closes the event stream on purpose.
  page.on('requestfailed', (r) => (new URL(r.url()).pathname === '/stream' && r.failure()?.errorText === 'net::ERR_ABORTED') ||
    problems.push(`failed: ${r.url()} ${r.failure()?.errorText}`));
  page.on('response', (r) => r.status() >= 400 && problems.push(`HTTP ${r.status()}: ${r.url()}`));
  page.on('request', (r) => requests.push(new URL(r.url())));
  await page.goto(base);
  // Started: the page wires its screens once it has read /config.
  await page.waitForSelector('#device option', { state: 'attached' });
  return { page, calls: (p) => requests.filter((u) => u.pathname === p), done: async () => { assert.deepEqual(problems, [], 'the page reported problems'); await context.close(); } };
}

const shot = (page, name, fullPage = false) => page.screenshot({ path: path.join(ARTIFACTS, name), fullPage });
const text = (page, sel) => page.$eval(sel, (e) => e.textContent.trim());
const listed = (page, sel) => page.$$eval(sel + ' li', (l) => l.map((e) => e.textContent));
const waitText = (page, sel, re, timeout = 10000) => page.waitForFunction(([s, src]) =>
  new RegExp(src).test(document.querySelector(s)?.textContent.trim() ?? '\0'), [sel, re.source], { timeout });
const waitElapsed = (page, seconds, timeout = 20000) => page.waitForFunction((s) =>
  parseFloat(document.getElementById('elapsedVal').textContent) >= s, seconds, { timeout });
const waitFlow = (page, phase, timeout = 60000) =>
  page.waitForSelector(`#flow[data-phase="${phase}"]`, { state: 'attached', timeout });
// Agrees to what the import or batch dialog proposes and waits for its end.
const flowGo = async (page, timeout) => {
  await waitFlow(page, 'confirm');
  await page.click('#flowGo');
  await waitFlow(page, 'end', timeout);
};
const ballScale = (page) => page.$eval('#ball', (b) => parseFloat(/scale\(([\d.]+)\)/.exec(b.style.transform)?.[1] ?? 'NaN'));

// Opaque pixels of a canvas in the ECG's dark ink or the heart-rate line's red, right of `fromX` CSS pixels.
const countInk = (page, sel, kind, fromX = 0) => page.$eval(sel, (c, [kind, fromX]) => {
  const d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data, x0 = Math.round(fromX * (window.devicePixelRatio || 1));
  let n = 0;
  for (let i = 0; i < d.length; i += 4) {
    const [r, g, b, a] = d.subarray(i, i + 4);
    if ((i / 4) % c.width >= x0 && a >= 200 && (kind === 'dark' ? r < 110 && g < 150 && b < 160 : r > 170 && g < 120 && b < 130)) n++;
  }
  return n;
}, [kind, fromX]);

// Two animation frames: a resize's ResizeObserver callbacks have run and the canvases they marked are drawn.
const nextFrames = (page) => page.evaluate(() => new Promise((r) => requestAnimationFrame(() => requestAnimationFrame(r))));

// From a phone to a wide screen: no sideways scrolling, no overlapping cards, no serious axe-core fault.
async function checkLayouts(page, screen, { tag = '', fullPage = false } = {}) {
  for (const [width, height] of [[360, 780], [768, 1024], [1024, 768], [1280, 720], [1366, 850], [1920, 1080]]) {
    await page.setViewportSize({ width, height });
    await nextFrames(page);
    const [scrollWidth, innerWidth] = await page.evaluate(() => [document.documentElement.scrollWidth, window.innerWidth]);
    assert.ok(scrollWidth <= innerWidth, `at ${width}×${height} ${screen} is ${scrollWidth} px wide`);
    const boxes = await page.$$eval(screen + ' .card', (cards) => cards.filter((c) => c.offsetParent)
      .map((c) => ({ name: c.id || c.className, r: c.getBoundingClientRect().toJSON() })));
    for (const [i, { name: an, r: a }] of boxes.entries()) {
      for (const { name: bn, r: b } of boxes.slice(i + 1)) {
        const ox = Math.min(a.right, b.right) - Math.max(a.left, b.left), oy = Math.min(a.bottom, b.bottom) - Math.max(a.top, b.top);
        assert.ok(ox <= 0.5 || oy <= 0.5, `at ${width}×${height} "${an}" overlaps "${bn}" by ${ox.toFixed(0)}×${oy.toFixed(0)} px`);
      }
    }
    await shot(page, `${screen.slice(1)}${tag}-${width}.png`, fullPage);
  }
  if (!(await page.evaluate(() => 'axe' in window))) await page.addScriptTag({ path: kAxe });
  // A fading toast is half see-through: axe would judge its contrast mid-fade.
  // It goes by itself within seconds; shown, white on #10283b is far above the bar.
  await page.waitForFunction(() => !document.querySelector('.toast.show'), null, { timeout: 10000 });
  await page.evaluate(() => Promise.all(document.getAnimations()
    .filter((a) => a.effect?.getTiming().iterations !== Infinity).map((a) => a.finished.catch(() => {}))));
  const { violations } = await page.evaluate(() => window.axe.run(document, { resultTypes: ['violations'] }));
  assert.deepEqual(violations.filter((v) => ['serious', 'critical'].includes(v.impact)).map((v) => `${v.id}: ${v.nodes.map((n) => n.target).join(', ')}`), [], screen + tag);
}

// "Compute TFR" ends with both heat-maps shown: 1200 columns at most, one pixel row per frequency (320).
async function computeTfr(page) {
  await page.click('#tfrBtn');
  await page.waitForFunction(() => !document.getElementById('tfrFigs').hidden ||
    document.getElementById('tfrNote').textContent.startsWith('Could not compute TFR: '), null, { timeout: 30000 });
  assert.equal(await page.isHidden('#tfrFigs'), false, await text(page, '#tfrNote'));
  for (const id of ['#tfr10', '#tfr3']) {
    const [w, h] = await (await page.waitForFunction((s) => [document.querySelector(s)].map((i) => i.naturalWidth > 0 && [i.naturalWidth, i.naturalHeight])[0], id)).jsonValue();
    assert.ok(w > 100 && w <= 1200 && h === 320, `${id} is ${w}×${h}`);
  }
}

// `faster`, when given, is the speed the program is asked for instead of the
// chosen one, for a test that needs a whole recording and not a speed the page offers.
async function startReplay(page, file, { name = '', sex = 'M', age = '40', speed = '8×', faster = 0 } = {}) {
  if (faster) {
    await page.route('**/start_replay?*', (r) => {
      const url = new URL(r.request().url());
      url.searchParams.set('speed', String(faster));
      return r.continue({ url: url.href });
    }, { times: 1 });
  }
  await page.fill('#name', name);
  await page.selectOption('#sex', sex);
  await page.fill('#age', age);
  await page.click('#sourceSwitch >> text=Open a recording');
  await page.selectOption('#recording', { label: file });
  await page.click('#speedSwitch >> text=' + speed);
  await page.click('#startBtn');
  await page.waitForSelector('#live', { state: 'visible' });
}

test('setup: no Bluetooth, start without a device, layouts, About', async () => {
  const { page, done } = await openPage(1024, 768);
  await waitText(page, '#scanNote', /^Bluetooth is not available on this computer\. Use “Open a recording” to replay or import files\.$/);
  assert.equal(await page.isDisabled('#scanBtn'), true);
  await page.fill('#indur', '1,95');
  assert.equal(await text(page, '#cyclePill'), 'Cycle 12.95 s · 0.0772 Hz');
  await page.click('#startBtn');
  assert.equal(await text(page, '#startNote'), 'Scan and select your Polar H10 first.');
  assert.equal(await page.isHidden('#live'), true);
  await page.click('#sourceSwitch >> text=Open a recording');
  await checkLayouts(page, '#setup');
  await page.click('#aboutBtn');
  await waitText(page, '#about[open] #aboutVersion', /^1\.0\.0$/);
  await page.click('#aboutClose');
  await page.waitForSelector('#about:not([open])', { state: 'attached' });
  await done();
});

test('replay of Sample 1 at 8×: live screen, pacer, countdown, marker, seek, TFR, stop, export', async () => {
  const { page, calls, done } = await openPage(1920, 1080);
  // Countdown texts as the page shows them, so none is missed between polls.
  await page.evaluate(() => {
    const el = document.getElementById('cdText');
    window.countdown = [];
    new MutationObserver(() => window.countdown.push(el.textContent)).observe(el, { childList: true, characterData: true, subtree: true });
  });
  await startReplay(page, 'Sample 1.txt', { name: 'NIJ000123', sex: 'F', age: '52' });
  await waitText(page, '#liveTitle', /^Playback · NIJ000123$/);
  assert.equal(await text(page, '#liveMeta'), 'Sex F · Age 52 · In 5 s / Out 11 s · Cycle 16s · Expected 0.0625 Hz');
  await waitText(page, '#hrVal', /^\d{2,3}\.\d$/);
  await waitText(page, '#cdText', /^CVN active$/, 15000);
  const left = (await page.evaluate(() => window.countdown)).map((t) => Number(/^CVN in (\d+) s$/.exec(t)?.[1])).filter((n) => n);
  assert.ok(left.length >= 3 && left.includes(1), 'countdown seen: ' + left);
  assert.deepEqual(left, [...left].sort((a, b) => b - a), 'the countdown went backwards');
  await page.waitForSelector('#cdBar.gone');
  assert.ok(await countInk(page, '#ecg', 'dark') > 800, 'the ECG scope is blank');
  assert.ok(await countInk(page, '#chart', 'red', 60) > 300, 'no heart-rate line in the chart');

  // The ball moves, and at 8× (0.4 s a snapshot) the pacer's own clock keeps to the session's.
  const scales = [];
  for (let i = 0; i < 8; i++) {
    const [shown, elapsed] = await page.evaluate(() =>
      [parseFloat(document.getElementById('pacer').dataset.t), parseFloat(document.getElementById('elapsedVal').textContent)]);
    assert.ok(Math.abs(shown - elapsed) < 0.8, `pacer at ${shown} s, session at ${elapsed} s`);
    scales.push(await ballScale(page));
    await page.waitForTimeout(110);
  }
  assert.ok(scales.every((s) => s >= 0.42 && s <= 1) && new Set(scales.map((s) => s.toFixed(3))).size >= 4, 'ball scales: ' + scales);

  await page.keyboard.press('3');
  await waitText(page, '#markerLine .mk', /^3\d+\.\d s$/);
  assert.deepEqual(calls('/mark').map((u) => u.searchParams.get('key')), ['3']);
  await checkLayouts(page, '#live');

  // Clicking the middle of the scrubber seeks to about half of 264 s; the pacer follows.
  const box = await page.locator('#scrubber').boundingBox();
  await page.mouse.click(box.x + box.width / 2, box.y + box.height / 2);
  await waitElapsed(page, 125, 5000);
  assert.ok(Math.abs(Number(calls('/seek')[0].searchParams.get('frac')) - 0.5) < 0.05);
  await page.waitForFunction(() => parseInt(document.getElementById('pacerCycle').textContent.replace('Cycle ', ''), 10) >= 8);
  await computeTfr(page);

  await page.click('#stopBtn');
  await waitText(page, '#runState', /^Stopped$/);
  assert.equal(calls('/stop').length, 1);
  // Stopped, the replay can still be moved; at 168 s of a 16 s cycle (5 s in, 11 s out) the ball is out at 0.90.
  await page.request.get(BASE + 'seek?frac=' + 168 / 264);
  await page.waitForFunction(() => Math.abs(parseFloat(document.getElementById('elapsedVal').textContent) - 168) < 0.11);
  await page.waitForTimeout(250);
  assert.equal(await text(page, '#cue'), 'Breathe out');
  assert.ok(Math.abs(await ballScale(page) - 0.90) < 0.02, `ball at ${await ballScale(page)}`);
  await shot(page, 'live-stopped-1920-full.png', true);

  await page.click('#saveBtn');
  await page.waitForSelector('#exportBox[data-state="done"]', { timeout: 30000 });
  assert.equal(await text(page, '#exportTitle'), 'Exported 8 files to');
  assert.match(await text(page, '#exportFolder'), /[\\/]exports[\\/]NIJ000123[^\\/]*$/);
  const ends = (await listed(page, '#exportFiles')).map((f) => f.replace(/^NIJ000123.*?(_ECG\.txt|_HR\.txt|_markers\.csv|\.edf|_CVN_logpower\.csv|_HRV\.csv|_RR\.csv|_report\.pdf)$/, '$1'));
  assert.deepEqual(ends.sort(), ['.edf', '_CVN_logpower.csv', '_ECG.txt', '_HR.txt', '_HRV.csv', '_RR.csv', '_markers.csv', '_report.pdf']);
  assert.equal(await page.isEnabled('#saveBtn'), true);
  assert.ok(calls('/export_status').length <= 2 && calls('/tfr_status').length <= 2, 'jobs are followed on the stream, not polled');
  await checkLayouts(page, '#live', { tag: '-results', fullPage: true });
  await done();
});

// A reloaded page shows what it showed before; a nameless replay exports under the recording's name.
test('reload during a replay at 4×: the same state; the export is named after the recording', async () => {
  const { page, done } = await openPage(1366, 850);
  await startReplay(page, 'Sample 2.txt', { speed: '4×' });
  await waitText(page, '#runState', /^Playing 4×$/);
  await page.reload();
  await waitText(page, '#runState', /^Playing 4×$/);
  await page.click('#saveBtn');
  await page.waitForSelector('#exportBox[data-state="done"]', { timeout: 30000 });
  assert.match(await text(page, '#exportFolder'), /[\\/]Sample_2(-\d+)?_export$/);
  assert.ok((await listed(page, '#exportFiles')).every((f) => /^Sample_2[_.]/.test(f)), await text(page, '#exportFiles'));
  await done();
});

// The program sends "hrv" from two minutes of a session on; at 16× the sample
// passes them in under 8 s and ends after 12 s.
test('a whole replay at 16×: the HRV card\'s note, four indices, the rest under More; the stream\'s differences add up to the series /status answers', async () => {
  const { page, done } = await openPage(1366, 850);
  await startReplay(page, 'Sample 2.txt', { name: 'Diff', faster: 16 });
  await waitText(page, '#runState', /^Playing 16×$/);
  await waitText(page, '#hrVal', /^\d{2,3}\.\d$/);
  assert.equal(await page.isVisible('#hrvEmpty'), true);
  assert.equal(await page.isHidden('#hrvMore'), true);

  await page.waitForSelector('#hrvSummary', { state: 'visible', timeout: 40000 });
  assert.equal(await page.isHidden('#hrvEmpty'), true);
  const stats = await page.$$eval('#hrvSummary .hrv-stat', (l) => l.map((e) =>
    ['.label', '[data-key]', 'small'].map((sel) => e.querySelector(sel)?.textContent ?? '').join(' ').trim()));
  assert.equal(stats.length, 4);
  for (const [i, re] of [/^RMSSD \d+\.\d ms$/, /^SDNN \d+\.\d ms$/, /^LF\/HF \d+\.\d\d$/, /^Peak–trough HR \d+\.\d bpm$/].entries())
    assert.match(stats[i], re);
  assert.equal(await page.isHidden('#hrvTable'), true);
  await page.click('#hrvMore');
  const rows = await page.$$eval('#hrvTable tr', (l) => l.map((r) => [...r.cells].map((c) => c.textContent)));
  assert.equal(rows.length, 23);
  for (const [label, re, unit] of [['NN intervals', /^\d{3}$/, ''], ['NN50', /^\d+$/, ''], ['HF', /^\d/, 'ms²'],
    ['LF peak', /^0\.\d{3}$/, 'Hz']]) {
    const row = rows.find((r) => r[0] === label);
    assert.ok(row && re.test(row[1]) && row[2] === unit, `row ${label}: ${row}`);
  }
  await checkLayouts(page, '#live', { tag: '-hrv', fullPage: true });

  // The page's series are the ones its charts draw (the live screen's last
  // snapshot). Once the replay has ended they stop changing, and each must
  // then equal /status's, point for point.
  const compare = () => page.evaluate(async () => {
    const held = (await import('/live.js')).lastSnapshot();
    const status = await (await fetch('/status')).json();
    const same = (k) => JSON.stringify(held?.[k]) === JSON.stringify(status[k]);
    return { running: status.running, hr: status.hr_series.length, cvn: status.cvn_series.length,
      held: held?.hr_series?.length, same: same('hr_series') && same('cvn_series') };
  });
  let last;
  const deadline = Date.now() + 90000;
  while (Date.now() < deadline) {
    last = await compare();
    if (!last.running && last.same) break;
    await page.waitForTimeout(500);
  }
  assert.ok(!last.running && last.same, 'page against /status: ' + JSON.stringify(last));
  assert.ok(last.hr > 1500, 'a replay this long has ~10 points a second: ' + JSON.stringify(last));
  await done();
});

// Files written under a fresh temporary folder (removed after the tests): { relative path: contents }.
function tempTree(files) {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'cvn-web-'));
  trees.push(dir);
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
// The first `seconds` of a bundled sample at `rate` per second (interpolated from its 130).
const kSample = fs.readFileSync(new URL('../../assets/Sample 1.txt', import.meta.url), 'utf8').trim().split('\n').map(Number);
const sampleEcg = (seconds, rate) => Array.from({ length: seconds * rate }, (_, i) => {
  const t = (i / rate) * 130, k = Math.floor(t);
  return Math.round(kSample[k] + (t - k) * (kSample[k + 1] - kSample[k])) + '\n';
}).join('');
// A Kubios RR export as its table looks: header rows, then index, time, RR.
function kubiosRr(beats) {
  const rows = ['Kubios HRV Standard,,', 'RR INTERVAL DATA,,', 'Index,Time (s),RR (s)'];
  for (let i = 0, t = 0; i < beats; i++) {
    const rr = 0.85 + 0.08 * Math.sin((2 * Math.PI * t) / 16);
    rows.push(`${i + 1},${(t += rr).toFixed(3)},${rr.toFixed(3)}`);
  }
  return rows.join('\r\n') + '\r\n';
}

test('import: raw ECG at 360 Hz replays, a Kubios export ends in a report, a refusal in words', async () => {
  const { page, calls, done } = await openPage(1366, 850);
  const tree = tempTree({ 'Holter strip.txt': sampleEcg(40, 360), 'kubios_rr.csv': kubiosRr(300), 'photo.txt': 'not an ECG\n' });
  await page.fill('#name', 'Ben');
  await page.click('#sourceSwitch >> text=Open a recording');
  await choose(page, '#importFileBtn', path.join(tree, 'Holter strip.txt'));
  await waitFlow(page, 'confirm');
  assert.equal(calls('/import').length, 0, 'the file was sent before the user agreed');
  await page.fill('#fs', '360');
  await page.click('#flowGo');
  await waitText(page, '#sourceText', /^Imported — Holter_strip$/);
  assert.equal(await text(page, '#liveTitle'), 'Playback · Ben');
  const q = calls('/import')[0].searchParams;
  assert.deepEqual(['fname', 'fs', 'speed', 'name'].map((k) => q.get(k)), ['Holter strip.txt', '360', '2', 'Ben']);
  await waitText(page, '#scrubTotal', /^0:40$/);  // 40 s at 360 Hz is 40 s at 130 Hz once resampled
  await page.click('#newBtn');
  await page.waitForFunction(() => [...document.querySelectorAll('#recording option')]
    .some((e) => /^imported_Holter_strip_\d{8}-\d{6}\.csv$/.test(e.value)));

  await choose(page, '#importFileBtn', path.join(tree, 'kubios_rr.csv'));
  await flowGo(page);
  assert.equal(await text(page, '#flowDone'), '2 reports written to', await text(page, '#flow'));
  assert.ok((await listed(page, '#flowReports')).some((r) => /^kubios_rr_\d{8}-\d{6}_summary_report\.pdf$/.test(r)));
  await shot(page, 'import-kubios-1366.png');
  await page.click('#flowCancel');

  await choose(page, '#importFileBtn', path.join(tree, 'photo.txt'));
  await flowGo(page);
  assert.equal(await text(page, '#flowError'),
    'That file did not look like a raw ECG (.txt/.csv with one sample per line) or a Kubios export.');
  await done();
});

// The page holds no limits of its own: told other ones, it applies those.
test('limits from /config: shortest period, upload cap, import rate and its range', async () => {
  const { page, done } = await openPage(1366, 850, BASE, { sample_rate: 250, scope_samples: 1500,
    min_breathing_period: 1, min_import_rate: 100, max_import_rate: 1000, max_upload_bytes: 2 ** 20 });
  await page.fill('#indur', '0');
  assert.equal(await text(page, '#cyclePill'), 'Cycle 12 s · 0.0833 Hz');
  await page.click('#sourceSwitch >> text=Open a recording');
  await choose(page, '#importFileBtn', path.join(tempTree({ 'big.txt': '1\n'.repeat(2 ** 19 + 1) }), 'big.txt'));
  await waitText(page, '#flowError', /^big\.txt is larger than 1 MB, the most the program takes in one file\.$/);
  assert.deepEqual(await page.$eval('#fs', (e) => [e.min, e.max, e.value]), ['100', '1000', '250']);
  await done();
});

test('batch: two persons and a bad file, uploaded, reports and the error listed', async () => {
  const { page, calls, done } = await openPage(1366, 850);
  const ecg = sampleEcg(30, 130);
  const tree = tempTree({
    'Study/Anna/morning.txt': ecg, 'Study/Anna/evening.txt': ecg, 'Study/Anna/morning_markers.csv': '',
    'Study/Ben/rest.csv': kubiosRr(200), 'Study/Ben/notes.txt': 'seen on Monday\n', 'Study/protocol.docx': 'x',
  });
  await page.click('#sourceSwitch >> text=Open a recording');
  await choose(page, '#batchBtn', path.join(tree, 'Study'));
  await waitFlow(page, 'confirm');
  assert.equal(calls('/batch_new').length, 0);
  assert.equal(await text(page, '#flowFacts dd:last-of-type'), 'Anna: 2 recordings · Ben: 2 recordings');
  await flowGo(page, 90000);
  assert.deepEqual(calls('/batch_upload').map((u) => u.searchParams.get('rel')),
    ['Anna/evening.txt', 'Anna/morning.txt', 'Anna/morning_markers.csv', 'Ben/notes.txt', 'Ben/rest.csv']);
  assert.equal(await text(page, '#flowDone'), '4 reports written to');
  const reports = await listed(page, '#flowReports');
  assert.ok(reports.length === 4 && /^Study_\d{8}-\d{6}_summary_report\.pdf$/.test(reports[0]), reports.join(' | '));
  assert.deepEqual(await listed(page, '#flowFailedList'), ['Ben/notes.txt — Not a recording: no samples in it.']);
  assert.equal(calls('/batch_status').length, 1, 'the batch is followed on the stream, not polled');
  await shot(page, 'batch-done-1366.png');
  await done();
});

test('live from the simulated strap: scan, pick, record, mark, stop, TFR, new session', { skip: !STRAP && 'CVN_STRAP_URL not set' }, async () => {
  const { page, calls, done } = await openPage(1280, 800, STRAP);
  await page.click('#scanBtn');  // waits for the button to be enabled
  assert.equal(await page.isDisabled('#scanBtn'), true, 'a second scan could start during the first');
  await waitText(page, '#scanNote', /^Found 1 device\(s\)\. Select your strap\.$/, 20000);
  assert.deepEqual(await page.$$eval('#device option', (o) => o.map((e) => e.textContent)), ['Polar H10 SIM00001 — A0:9E:1A:00:00:01 (ECG)']);
  assert.equal(await page.isVisible('#beatsOnly'), true, 'an H10 offers heart beats only');

  await page.fill('#name', 'LIVE01');
  await page.click('.chip >> text=10 s cycle');
  await page.click('#startBtn');
  await waitText(page, '#liveTitle', /^Live recording · LIVE01$/);
  const start = calls('/start_live')[0].searchParams;
  assert.deepEqual(['address', 'device', 'name', 'indur', 'outdur'].map((k) => start.get(k)),
    ['A0:9E:1A:00:00:01', 'Polar H10 SIM00001', 'LIVE01', '2', '8']);
  assert.equal(start.get('source'), null, 'an H10 streams ECG unless asked for beats only');
  assert.equal(await page.isDisabled('#scrubber'), true);
  await waitText(page, '#hrVal', /^\d{2,3}\.\d$/, 15000);
  assert.ok(await countInk(page, '#ecg', 'dark') > 400, 'the ECG scope is blank');
  assert.match(await text(page, '#cdText'), /^CVN in \d+ s$/);
  await page.keyboard.press('5');
  await waitText(page, '#markerLine .mk', /^5\d+\.\d s$/);

  // One whole 10 s cycle recorded live is enough for the time-frequency maps.
  await waitElapsed(page, 11);
  await page.click('#stopBtn');
  await waitText(page, '#runState', /^Stopped$/);
  await computeTfr(page);
  await page.click('#newBtn');
  await page.waitForSelector('#setup', { state: 'visible' });
  assert.equal(calls('/stop').length, 2);
  assert.equal((await (await page.request.get(STRAP + 'status')).json()).running, false);
  await done();
});

// A strap that sends beats and no ECG: the scope says so; heart rate and coupling come from the beats.
test('live from a strap that sends beats only: no ECG, heart rate and coupling', { skip: !BEATS && 'CVN_BEATS_URL not set' }, async () => {
  const { page, calls, done } = await openPage(1280, 800, BEATS);
  await page.click('#scanBtn');
  await waitText(page, '#scanNote', /^Found 1 device/, 20000);
  assert.deepEqual(await page.$$eval('#device option', (o) => o.map((e) => e.textContent)), ['HR Strap SIM00003 — A0:9E:1A:00:00:03 (beats)']);
  // A short cycle: the score starts after two of them.
  await page.fill('#indur', '2');
  await page.fill('#outdur', '3');
  await page.click('#startBtn');
  await waitText(page, '#hrVal', /^\d{2,3}\.\d$/, 15000);
  assert.equal(calls('/start_live')[0].searchParams.get('source'), 'beats');
  assert.equal(await page.getAttribute('#ecg', 'aria-label'), 'No ECG from this strap – heart beats only');
  assert.equal(await countInk(page, '#ecg', 'dark'), 0, 'a strap without ECG drew a trace');
  await waitText(page, '#cvnVal', /^[−+]\d/, 30000);
  await shot(page, 'live-beats-1280.png');
  await done();
});

// A replay of Sample 1 (4:24) as an assessment of four 60 s steps, stopped
// in the third: the program's own steps, scores and recommendation.
test('resonance assessment: the steps table checks its fields, the live step bar, results and "Use this pace"', async () => {
  const { page, calls, done } = await openPage(1366, 850);
  await page.click('#protocolSwitch >> text=Resonance assessment');
  assert.equal(await page.isHidden('#freePanel'), true);
  const rows = () => page.$$eval('#rfRows tr', (l) => l.map((r) => [...r.cells].slice(2, 5).map((c) => c.textContent)));
  assert.deepEqual(await rows(), [['13', '3.69 / 5.54', '2:00'], ['12', '4.00 / 6.00', '2:00'], ['11', '4.36 / 6.55', '2:00'],
    ['10', '4.80 / 7.20', '2:00'], ['9', '5.33 / 8.00', '2:00']]);
  assert.equal(await text(page, '#rfTotal'), 'Total 55 breaths · 10:00');
  await page.click('#sourceSwitch >> text=Open a recording');
  await checkLayouts(page, '#setup', { tag: '-rf', fullPage: true });
  await page.setViewportSize({ width: 1366, height: 850 });

  // Wrong values are named beside their field and keep Start from sending anything.
  await page.fill('#rfRows tr:nth-child(2) input', '12');
  await page.fill('#rfStep', '59');
  assert.equal((await rows())[1][0], '3–10 breaths/min');
  assert.equal(await text(page, '#rfStepErr'), 'Whole seconds, 60–300');
  assert.equal(await text(page, '#rfTotal'), '');
  await shot(page, 'setup-rf-errors-1366.png');
  await page.click('#startBtn');
  assert.match(await text(page, '#startNote'), /^Correct the resonance assessment’s settings first/);
  assert.equal(calls('/start_replay').length, 0);

  // The program's refusal is shown where other refusals are.
  await page.fill('#rfStep', '60');
  await page.fill('#rfRows tr:nth-child(2) input', '6');
  await page.click('#rfRows tr:nth-child(5) .rf-del');
  assert.equal(await text(page, '#rfTotal'), 'Total 24 breaths · 4:10');
  await page.selectOption('#recording', { label: 'Sample 1.txt' });
  await page.click('#speedSwitch >> text=8×');
  await page.route('**/start_replay?*', (r) => r.fulfill({ json: { ok: false, reason: 'The step length must be 60 to 300 s.' } }), { times: 1 });
  await page.click('#startBtn');
  await waitText(page, '#startNote', /^Could not start: The step length must be 60 to 300 s\.$/);

  await page.click('#startBtn');
  await page.waitForSelector('#live', { state: 'visible' });
  const sent = calls('/start_replay').at(-1).searchParams;
  assert.deepEqual(['protocol', 'rates', 'step_s', 'infrac'].map((k) => sent.get(k)), ['rf', '6.5,6,5.5,5', '60', '0.4']);

  // Step 2 starts at 64.6 s with 6 breaths/min: the pacer starts it breathing in.
  await waitText(page, '#rfStepText', /^Step 2 of 4 · 6\.0 breaths\/min · 0:\d\d left$/, 30000);
  assert.equal(await page.$$eval('#rfBar .seg-step', (l) => l.map((s) => s.className).join()), 'seg-step done,seg-step on,seg-step,seg-step');
  await page.waitForFunction(() => /^Cycle \d of 6$/.test(document.getElementById('pacerCycle').textContent));
  await checkLayouts(page, '#live', { tag: '-rf' });
  await page.setViewportSize({ width: 1366, height: 850 });

  // Stopped early in step 3, with nothing slow in between: from about 155 s
  // on, its part outscores the others and the recommendation becomes 5.5.
  await waitText(page, '#rfStepText', /^Step 3 of 4 · 5\.5 breaths\/min · 0:[3-5]\d left$/, 30000);
  await page.click('#stopBtn');
  await waitText(page, '#rfRec', /^Recommended pace: 6\.[05] breaths\/min$/);
  const table = await page.$$eval('#rfScores tbody tr', (l) => l.map((r) => [...r.cells].map((c) => c.textContent).join(' ')));
  assert.equal(table.length, 4);
  assert.match(table[0], /^6\.5 7 \d+\.\d \d+ 0\.\d{3} /);
  assert.match(table[1], /^6\.0 6 \d+\.\d \d+ 0\.\d{3} /);
  assert.equal(table[3], '5.0 5 not reached');
  assert.ok(await countInk(page, '#rfPlot', 'red') > 60, 'no peak–trough line in the results plot');
  await checkLayouts(page, '#live', { tag: '-rf-result' });
  await page.setViewportSize({ width: 1366, height: 850 });

  const rec = Number((await text(page, '#rfRec')).match(/\d\.\d/)[0]);
  await page.click('#rfUse');
  await page.waitForSelector('#setup', { state: 'visible' });
  assert.equal(await page.isVisible('#freePanel'), true);
  const [indur, outdur] = [Number(await page.inputValue('#indur')), Number(await page.inputValue('#outdur'))];
  assert.ok(Math.abs(indur + outdur - 60 / rec) < 0.02 && Math.abs(indur - 24 / rec) < 0.01, `${indur} / ${outdur} for ${rec}`);
  await done();
});

// Setup and the live screen without a mouse. A field, switch or button is
// reached by Tab alone and shows where the focus is; digits become markers
// on the live screen, but not when typed into a field; when a screen or the
// button with the focus goes away, the focus goes on to a control or heading,
// never back to the page itself.
test('keyboard only: setup fields and a replay started, markers 1–9, the live screen\'s buttons, the focus across screens', async () => {
  const { page, calls, done } = await openPage(1366, 850);
  const has = (sel) => page.$eval(sel, (e) => e === document.activeElement);
  const focused = () => page.evaluate(() => document.activeElement.id || document.activeElement.tagName);
  // Tab (Shift+Tab backwards) until `sel` has the focus, which must be visible there.
  const tabTo = async (sel, key = 'Tab') => {
    for (let i = 0; i < 30 && !(await has(sel)); i++) await page.keyboard.press(key);
    assert.ok(await has(sel), `${sel} is not reached by ${key}`);
    const ring = await page.$eval(sel, (e) => [e.matches(':focus-visible'), getComputedStyle(e).outlineStyle,
      parseFloat(getComputedStyle(e).outlineWidth), getComputedStyle(e).boxShadow]);
    assert.ok(ring[0] && ((ring[1] !== 'none' && ring[2] > 0) || ring[3] !== 'none'), `no focus ring on ${sel}: ${ring}`);
  };

  await tabTo('#name');
  await page.keyboard.type('KB 42');
  await tabTo('#sex');
  await page.keyboard.press('ArrowDown');
  await tabTo('#age');
  await page.keyboard.press('Control+A');
  await page.keyboard.type('63');
  await tabTo('.chip[data-in="2"]');
  await page.keyboard.press('Space');
  assert.deepEqual([await page.inputValue('#indur'), await page.inputValue('#outdur')], ['2', '8']);
  await tabTo('#sourceSwitch [data-src="replay"]');
  await page.keyboard.press('Enter');
  await tabTo('#recording');
  for (let i = 0; i < 10 && await page.$eval('#recording', (s) => s.selectedOptions[0].textContent) !== 'Sample 2.txt'; i++)
    await page.keyboard.press('ArrowDown');
  await tabTo('#speedSwitch [data-speed="8"]');
  await page.keyboard.press('Space');
  assert.equal(await page.getAttribute('#speedSwitch [data-speed="8"]', 'aria-pressed'), 'true');
  await tabTo('#startBtn');
  await page.keyboard.press('Enter');
  await page.waitForSelector('#live', { state: 'visible' });
  assert.equal(await focused(), 'liveTitle');
  const sent = calls('/start_replay')[0].searchParams;
  assert.deepEqual(['file', 'speed', 'name', 'sex', 'age', 'indur', 'outdur'].map((k) => sent.get(k)),
    ['Sample 2.txt', '8', 'KB 42', 'F', '63', '2', '8']);
  await waitText(page, '#runState', /^Playing 8×$/);

  // The live screen has no text field of its own; one put there stands for any.
  await page.keyboard.press('7');
  await waitText(page, '#markerLine .mk', /^7\d+\.\d s$/);
  await page.evaluate(() => document.getElementById('liveMeta').after(Object.assign(document.createElement('input'), { id: 'kbField' })));
  await tabTo('#kbField');
  await page.keyboard.type('123');
  assert.equal(await page.inputValue('#kbField'), '123');
  await page.evaluate(() => document.getElementById('kbField').remove());
  await tabTo('#saveBtn');
  await tabTo('#stopBtn');
  await page.keyboard.press('9');  // after any marker the field's digits would have sent
  await page.waitForFunction(() => document.querySelectorAll('#markerLine .mk').length === 2);
  assert.deepEqual(calls('/mark').map((u) => u.searchParams.get('key')), ['7', '9'], 'digits typed into a field became markers');
  await tabTo('#newBtn');
  await tabTo('#tfrBtn');

  // History and back; Stop, which then goes away; New session.
  await tabTo('#historyBtn');
  await page.keyboard.press('Enter');
  await page.waitForSelector('#history', { state: 'visible' });
  assert.equal(await focused(), 'historyTitle');
  await tabTo('#historyBack');
  await page.keyboard.press('Enter');
  await page.waitForSelector('#live', { state: 'visible' });
  assert.equal(await focused(), 'historyBtn', 'the focus was dropped leaving History');
  await tabTo('#stopBtn');
  await page.keyboard.press('Enter');
  await waitText(page, '#runState', /^Stopped$/);
  assert.equal(await focused(), 'saveBtn', 'the focus was dropped with Stop');
  await tabTo('#newBtn');
  await page.keyboard.press('Enter');
  await page.waitForSelector('#setup', { state: 'visible' });
  assert.equal(await focused(), 'setupTitle');
  await tabTo('#name');
  assert.equal(calls('/stop').length, 2);
  await done();
});

test('history: two people, one person\'s rows and trend, reached and used by keyboard, a replay from a row', async () => {
  const ecg = fs.readFileSync(new URL('../../assets/Sample 2.txt', import.meta.url));
  for (const [fname, name, sex, age] of [['h1.txt', 'Hist Anna', 'F', 31], ['h2.txt', 'Hist Anna', 'F', 31], ['h3.txt', 'Hist Carl', 'M', 52]]) {
    const r = await fetch(BASE + `import?${new URLSearchParams({ fname, name, sex, age, speed: 0 })}`, { method: 'POST', body: ecg });
    assert.equal((await r.json()).ok, true, fname);
  }
  const { page, done } = await openPage(1366, 850);
  await page.focus('#historyBtn');
  await page.keyboard.press('Enter');
  await page.waitForSelector('#history', { state: 'visible' });
  assert.equal(await page.isHidden('#setup'), true);
  // The list fills once /people has answered.
  await page.waitForSelector('#historyPeople button', { state: 'attached' });
  const people = await page.$$eval('#historyPeople button', (l) => l.map((b) => b.textContent));
  assert.ok(people.includes('Hist Anna2') && people.includes('Hist Carl1'), people.join());  // name, then count

  const anna = page.locator('#historyPeople button', { hasText: 'Hist Anna' });
  await anna.focus();
  assert.equal(await anna.evaluate((b) => getComputedStyle(b).outlineStyle), 'solid', 'no visible focus');
  await page.keyboard.press('Enter');
  await page.waitForFunction(() => document.querySelectorAll('#historyRows tr').length === 2 &&
    !document.querySelector('#historyRows tr.pending'), null, { timeout: 30000 });
  assert.equal(await text(page, '#historyName'), 'Hist Anna');
  const rows = await page.$$eval('#historyRows tr', (l) => l.map((r) => [...r.cells].slice(0, 8).map((c) => c.textContent)));
  for (const cells of rows) {
    assert.match(cells[0], /^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d$/);
    assert.deepEqual(cells.slice(1, 3), ['3:04', 'Single rhythm']);
    for (const v of cells.slice(3, 7)) assert.match(v, /^-?\d+\.\d+$/, cells.join(' | '));
  }
  // Hovering a point names its recording. The points sit in the middle when
  // both recordings have one moment, at the ends when their seconds differ:
  // moves sent in the page find one, then the mouse goes there.
  const spot = await page.$eval('#historyChart', (c) => {
    const r = c.getBoundingClientRect(), tip = document.getElementById('historyTip');
    for (let y = 2; y < r.height; y += 4) {
      for (let x = 2; x < r.width; x += 4) {
        c.dispatchEvent(new MouseEvent('mousemove', { clientX: r.left + x, clientY: r.top + y }));
        if (!tip.hidden) return { x: r.left + x, y: r.top + y };
      }
    }
    return null;
  });
  assert.ok(spot, 'no point of the chart names its recording');
  await page.mouse.move(0, 0);
  await page.mouse.move(spot.x, spot.y);
  const tip = await page.$eval('#historyTip', (t) => (t.hidden ? '' : t.textContent));
  assert.match(tip, /^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d · mean CVN \d+\.\d\d · RMSSD \d+\.\d ms$/);
  await shot(page, 'history-1366.png');
  await checkLayouts(page, '#history');
  for (const width of [360, 768, 1024, 1280, 1366, 1920]) {
    await page.setViewportSize({ width, height: 850 });
    assert.equal(await page.evaluate(() => document.documentElement.scrollWidth), width, `a horizontal scroll bar at ${width} px`);
  }
  await page.setViewportSize({ width: 1366, height: 850 });

  // The first row's Replay button, by keyboard from the person's button.
  const replay = page.locator('#historyRows tr:first-child button', { hasText: 'Replay' });
  await replay.focus();
  await page.keyboard.press('Enter');
  await page.waitForSelector('#live', { state: 'visible' });
  await waitText(page, '#liveTitle', /Hist Anna$/);
  assert.equal(await page.isHidden('#history'), true);
  await done();
});
