// What the browser tests share: one headless Chromium per test file, a fresh
// page per test, and the waits and checks the flows use. run.sh runs each
// file against its own program (CVN_URL), side by side with the others.
// Every test fails on a console error, an uncaught exception, a failed
// request or an error answer.
import { before, after } from 'node:test';
import assert from 'node:assert/strict';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { createRequire } from 'node:module';
import { chromium } from 'playwright-core';
const kAxe = createRequire(import.meta.url).resolve('axe-core/axe.min.js');

export const { CVN_URL: BASE, CVN_ARTIFACTS: ARTIFACTS = os.tmpdir() } = process.env;
if (!BASE) throw new Error('CVN_URL is not set: run the tests through tests/web/run.sh');

// The processes this one started (none where there is no /proc).
function childPids() {
  const ppid = (pid) => { try { return fs.readFileSync(`/proc/${pid}/stat`, 'utf8').split(') ')[1].split(' ')[1]; } catch { return ''; } };
  let all = [];
  try { all = fs.readdirSync('/proc').filter((d) => /^\d+$/.test(d)); } catch { /* not Linux */ }
  return all.filter((pid) => ppid(pid) === String(process.pid));
}

let browser;
const trees = [];
before(async () => {
  browser = await chromium.launch({ executablePath: process.env.CHROMIUM || '/usr/bin/chromium', headless: true,
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'] });
  // A niced file (run.sh) has its browser yield the CPU too. Chromium sets its
  // processes' nice values itself, and Playwright starts it in a session of
  // its own, which Linux schedules as one group: the group takes the value.
  const nice = os.getPriority();
  for (const pid of nice > 0 ? childPids() : []) {
    try { fs.writeFileSync(`/proc/${pid}/autogroup`, String(nice)); } catch { /* no such groups here */ }
  }
});
after(async () => {
  await browser?.close();
  for (const dir of trees) fs.rmSync(dir, { recursive: true, force: true });
});

// A fresh profile per test and no session left running by an earlier one (the page would resume it).
// `limits`, when given, is what /config answers instead of the program; `init` runs in the page before its own scripts.
export async function openPage(width, height, base = BASE, limits = null, init = null) {
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

export const shot = (page, name, fullPage = false) => page.screenshot({ path: path.join(ARTIFACTS, name), fullPage });
export const text = (page, sel) => page.$eval(sel, (e) => e.textContent.trim());
export const listed = (page, sel) => page.$$eval(sel + ' li', (l) => l.map((e) => e.textContent));
export const waitText = (page, sel, re, timeout = 10000) => page.waitForFunction(([s, src]) =>
  new RegExp(src).test(document.querySelector(s)?.textContent.trim() ?? '\0'), [sel, re.source], { timeout });
export const waitElapsed = (page, seconds, timeout = 20000) => page.waitForFunction((s) =>
  parseFloat(document.getElementById('elapsedVal').textContent) >= s, seconds, { timeout });
export const waitFlow = (page, phase, timeout = 60000) =>
  page.waitForSelector(`#flow[data-phase="${phase}"]`, { state: 'attached', timeout });
// Agrees to what the import or batch dialog proposes and waits for its end.
export const flowGo = async (page, timeout) => {
  await waitFlow(page, 'confirm');
  await page.click('#flowGo');
  await waitFlow(page, 'end', timeout);
};
export const ballScale = (page) => page.$eval('#ball', (b) => parseFloat(/scale\(([\d.]+)\)/.exec(b.style.transform)?.[1] ?? 'NaN'));

// Opaque pixels of a canvas in the ECG's dark ink or the heart-rate line's red, right of `fromX` CSS pixels.
export const countInk = (page, sel, kind, fromX = 0) => page.$eval(sel, (c, [kind, fromX]) => {
  const d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data, x0 = Math.round(fromX * (window.devicePixelRatio || 1));
  let n = 0;
  for (let i = 0; i < d.length; i += 4) {
    const [r, g, b, a] = d.subarray(i, i + 4);
    if ((i / 4) % c.width >= x0 && a >= 200 && (kind === 'dark' ? r < 110 && g < 150 && b < 160 : r > 170 && g < 120 && b < 130)) n++;
  }
  return n;
}, [kind, fromX]);

// Two animation frames: a resize's ResizeObserver callbacks have run and the canvases they marked are drawn.
export const nextFrames = (page) => page.evaluate(() => new Promise((r) => requestAnimationFrame(() => requestAnimationFrame(r))));

// From a phone to a wide screen: no sideways scrolling, no overlapping cards, no serious axe-core fault.
export async function checkLayouts(page, screen, { tag = '', fullPage = false } = {}) {
  for (const [width, height] of [[360, 780], [768, 1024], [1024, 768], [1280, 720], [1366, 850], [1920, 1080]]) {
    await page.setViewportSize({ width, height });
    await nextFrames(page);
    const [scrollWidth, innerWidth] = await page.evaluate(() => [document.documentElement.scrollWidth, window.innerWidth]);
    assert.ok(scrollWidth <= innerWidth, `at ${width}×${height} ${screen} is ${scrollWidth} px wide`);
    // Nor a button pushed out of reach inside a scrolling box (History's Replay at 390 px once).
    const beyond = await page.$$eval(screen + ' button', (bs) => bs.filter((b) => b.offsetParent)
      .filter((b) => b.getBoundingClientRect().right > window.innerWidth + 0.5).map((b) => b.id || b.textContent.trim()));
    assert.deepEqual(beyond, [], `at ${width}×${height} buttons beyond the right edge`);
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
export async function computeTfr(page) {
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
export async function startReplay(page, file, { name = '', sex = 'M', age = '40', speed = '8×', faster = 0 } = {}) {
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
// Files written under a fresh temporary folder (removed after the tests): { relative path: contents }.
export function tempTree(files) {
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'cvn-web-'));
  trees.push(dir);
  for (const [rel, body] of Object.entries(files)) {
    fs.mkdirSync(path.dirname(path.join(dir, rel)), { recursive: true });
    fs.writeFileSync(path.join(dir, rel), body);
  }
  return dir;
}
export async function choose(page, button, files) {
  const [chooser] = await Promise.all([page.waitForEvent('filechooser'), page.click(button)]);
  await chooser.setFiles(files);
}
// The first `seconds` of a bundled sample at `rate` per second (interpolated from its 130).
const kSample = fs.readFileSync(asset('Sample 1.txt'), 'utf8').trim().split('\n').map(Number);
export const sampleEcg = (seconds, rate) => Array.from({ length: seconds * rate }, (_, i) => {
  const t = (i / rate) * 130, k = Math.floor(t);
  return Math.round(kSample[k] + (t - k) * (kSample[k + 1] - kSample[k])) + '\n';
}).join('');
// A Kubios RR export as its table looks: header rows, then index, time, RR.
export function kubiosRr(beats) {
  const rows = ['Kubios HRV Standard,,', 'RR INTERVAL DATA,,', 'Index,Time (s),RR (s)'];
  for (let i = 0, t = 0; i < beats; i++) {
    const rr = 0.85 + 0.08 * Math.sin((2 * Math.PI * t) / 16);
    rows.push(`${i + 1},${(t += rr).toFixed(3)},${rr.toFixed(3)}`);
  }
  return rows.join('\r\n') + '\r\n';
}
// A file of the program's bundled assets.
export function asset(name) {
  return new URL('../../../assets/' + name, import.meta.url);
}
