// How busy the page's main thread is late in a long session.
//
// A 30-minute session makes every stream event a ~0.9 MB snapshot (the two
// series are not decimated) arriving 20 times a second; the page has to stay
// cheap on that, while playing and after the session stopped.
//
// The benchmark builds a recording of --minutes (default 31) from copies of
// assets/Sample 1.txt in a throw-away data folder, starts corvane-live on it
// (CVN_DATA=<tmp> CVN_NO_BROWSER=1), replays it in headless Chromium, seeks to
// --seek (default 0.97; 0 plays it all) and measures the renderer's main
// thread over two windows of 10 s: while the replay plays, and after it has
// reached its end and stopped by itself (the program must still be running
// then). A 4-hour session at top speed, played from the start:
//
//   node bench/web_long_session.mjs --minutes 240 --speed 8 --seek 0 The
// figure ("busy") is the main thread's CPU time in tasks per second of wall
// time, read from the DevTools Performance domain ("TaskDuration", in thread
// time) at both ends of a window; "script", "style" and "layout" are parts
// of it.
//
// Run by hand from the top of the repository after building corvane-live
// (playwright-core comes from tests/web: `cd tests/web && npm ci` once):
//
//   node bench/web_long_session.mjs [path to corvane-live] [--speed N] [--seconds S] [--wall]
//
// --wall counts the tasks' wall time instead, which includes the time a task
// waited for a CPU; on a busy machine that inflates both figures.
// Defaults: ./build/corvane-live, speed 1 (so the playing window really
// plays; at 8x the last 3 % is over in 7 s), 10 s per window. The machine's
// other load shows in the figures: compare runs made back to back.
import { spawn } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { createRequire } from 'node:module';

const root = path.resolve(path.dirname(new URL(import.meta.url).pathname), '..');
const require = createRequire(path.join(root, 'tests/web/package.json'));
const { chromium } = require('playwright-core');

const args = process.argv.slice(2);
const opt = (name, dflt) => {
  const i = args.indexOf(name);
  if (i < 0) return dflt;
  const v = args[i + 1];
  args.splice(i, 2);
  return v;
};
const speed = Number(opt('--speed', '1'));
const minutes = Number(opt('--minutes', '31'));
const seekFrac = Number(opt('--seek', '0.97'));
const seconds = Number(opt('--seconds', '10'));
const wallIndex = args.indexOf('--wall');
if (wallIndex >= 0) args.splice(wallIndex, 1);
const timeDomain = wallIndex >= 0 ? 'timeTicks' : 'threadTicks';
const bin = path.resolve(args[0] || path.join(root, 'build/corvane-live'));
const kSampleSeconds = 264;  // one copy of Sample 1
const kCopies = Math.ceil(minutes * 60 / kSampleSeconds);

function makeDataFolder() {
  const data = fs.mkdtempSync(path.join(os.tmpdir(), 'cvn-bench-'));
  fs.mkdirSync(path.join(data, 'recordings'));
  const one = fs.readFileSync(path.join(root, 'assets/Sample 1.txt'), 'utf8');
  const body = one.endsWith('\n') ? one : one + '\n';
  fs.writeFileSync(path.join(data, 'recordings/long.txt'), body.repeat(kCopies));
  return data;
}

// A web folder on disk would replace the embedded page.
const { CVN_BASE, ...withoutBase } = process.env;

function startProgram(data) {
  const port = 20000 + Math.floor(Math.random() * 30000);
  const child = spawn(bin, [String(port)], {
    env: { ...withoutBase, CVN_DATA: data, CVN_NO_BROWSER: '1' },
    cwd: data,  // a web/ folder in the working directory would also replace it
    stdio: ['ignore', 'pipe', 'inherit'],
  });
  return new Promise((resolve, reject) => {
    let out = '';
    child.stdout.on('data', (b) => {
      out += b;
      const m = /Open your browser at:\s+(http:\/\/127\.0\.0\.1:\d+\/)/.exec(out);
      if (m) resolve({ child, url: m[1] });
    });
    child.on('exit', (code) => reject(new Error('corvane-live ended early (' + code + '):\n' + out)));
  });
}

// Share of one window of wall time the renderer's main thread spent in tasks,
// with the parts that dominate it.
async function busy(cdp, page, ms) {
  const read = async () => {
    const { metrics } = await cdp.send('Performance.getMetrics');
    return Object.fromEntries(metrics.map((m) => [m.name, m.value]));
  };
  const a = await read();
  const t0 = Date.now();
  await page.waitForTimeout(ms);
  const b = await read();
  const wall = (Date.now() - t0) / 1000;
  const part = (k) => ((b[k] - a[k]) / wall * 100).toFixed(1) + ' %';
  return {
    busy: ((b.TaskDuration - a.TaskDuration) / wall * 100).toFixed(1) + ' %',
    script: part('ScriptDuration'),
    style: part('RecalcStyleDuration'),
    layout: part('LayoutDuration'),
  };
}

const data = makeDataFolder();
let program, browser;
try {
  program = await startProgram(data);
  browser = await chromium.launch({
    executablePath: process.env.CHROMIUM || '/usr/bin/chromium',
    headless: true,
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
  });
  const page = await browser.newPage({ viewport: { width: 1920, height: 1080 } });
  await page.goto(program.url);
  await page.waitForSelector('#sourceSwitch button.on');  // the page's script is wired
  await page.click('#sourceSwitch >> text=Open a recording');
  await page.selectOption('#recording', { label: 'long.txt' });
  await page.click(`#speedSwitch >> text=${speed}×`);
  await page.click('#startBtn');
  await page.waitForSelector('#live', { state: 'visible' });
  const length = kCopies * kSampleSeconds;
  if (seekFrac > 0) {
    await page.request.get(program.url + 'seek?frac=' + seekFrac);
    // Let the first analysis of the long series land before measuring.
    await page.waitForFunction((t) => parseFloat(document.getElementById('elapsedVal').textContent) > t,
      length * seekFrac - 60, { timeout: 30000 });
  }
  await page.waitForTimeout(3000);

  const cdp = await page.context().newCDPSession(page);
  // Thread time by default: on a loaded machine a task that waits for the CPU
  // is not the page's doing.
  await cdp.send('Performance.enable', { timeDomain });
  const status = await (await page.request.get(program.url + 'status')).text();
  const playing = await busy(cdp, page, seconds * 1000);
  console.log(`snapshot ${(status.length / 1e6).toFixed(2)} MB, speed ${speed}x, ${timeDomain}`);
  console.log('playing: ', JSON.stringify(playing));

  // The replay ends by itself; a crash on the way ends the program first.
  const t0 = Date.now();
  await page.waitForFunction(() => document.getElementById('runState').textContent === 'Stopped',
    null, { timeout: (length * (1 - seekFrac) / speed + 120) * 1000, polling: 1000 });
  if (program.child.exitCode !== null) throw new Error('corvane-live ended during the replay');
  console.log(`ended by itself after ${((Date.now() - t0) / 1000).toFixed(0)} s more`);
  await page.waitForTimeout(1000);
  console.log('stopped: ', JSON.stringify(await busy(cdp, page, seconds * 1000)));
} finally {
  if (browser) await browser.close();
  if (program) program.child.kill();
  fs.rmSync(data, { recursive: true, force: true });
}
