// The setup screen, the import and batch dialogs, the History view and the
// keyboard, in headless Chromium against the program run.sh started.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import {
  BASE, asset, checkLayouts, choose, flowGo, kubiosRr, listed, openPage, sampleEcg, shot, tempTree, text, waitFlow, waitText,
} from './lib.mjs';

test('setup: no Bluetooth, start without a device, layouts, About', async () => {
  const { page, done } = await openPage(1024, 768);
  await waitText(page, '#scanNote', /^Bluetooth is not available on this computer\. Use “Open a recording” to replay or import files\.$/);
  assert.equal(await page.isDisabled('#scanBtn'), true);
  // What the program would quietly replace is refused in the page, the first bad field focused.
  await page.fill('#age', '-5');
  await page.fill('#indur', 'abc');
  await page.click('#startBtn');
  assert.equal(await text(page, '#startNote'), 'Correct the fields marked in red first.');
  assert.equal(await text(page, '#ageErr'), 'Whole years, 0–120');
  assert.deepEqual(await page.$eval('#age', (e) => [e.getAttribute('aria-invalid'), e.getAttribute('aria-describedby'), document.activeElement === e]),
    ['true', 'ageErr', true]);
  await page.fill('#age', '40');
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

test('import: raw ECG at 360 Hz replays, a Kubios export ends in a report, a refusal in words', async () => {
  const { page, calls, done } = await openPage(1366, 850);
  const timed = 'time_s,ecg_uV\n' + sampleEcg(10, 130).split('\n').map((v, i) => `${(i / 130).toFixed(4)},${v}`).join('\n');
  const tree = tempTree({ 'Holter strip.txt': sampleEcg(40, 360), 'kubios_rr.csv': kubiosRr(300), 'photo.txt': 'not an ECG\n',
    'timed.csv': timed, 'empty.txt': '' });
  await page.fill('#name', 'Ben');
  await page.click('#sourceSwitch >> text=Open a recording');
  // The importer reads the first column: a time axis there is pointed out before anything is sent.
  await choose(page, '#importFileBtn', path.join(tree, 'timed.csv'));
  await waitFlow(page, 'confirm');
  await waitText(page, '#flowWarn', /^The first column rises steadily/);
  await page.click('#flowCancel');
  await choose(page, '#importFileBtn', path.join(tree, 'empty.txt'));
  await waitText(page, '#flowError', /^empty\.txt is empty \(0 bytes\)/);
  await page.click('#flowCancel');
  await choose(page, '#importFileBtn', path.join(tree, 'Holter strip.txt'));
  await waitFlow(page, 'confirm');
  assert.equal(await page.isHidden('#flowWarn'), true, 'a plain ECG was warned about');
  assert.equal(calls('/import').length, 0, 'a file was sent before the user agreed');
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
  // Under the program's shortest period is refused, in its own words; at it, it counts.
  await page.fill('#indur', '0');
  assert.equal(await text(page, '#cyclePill'), 'Cycle –');
  assert.equal(await text(page, '#indurErr'), 'Seconds, 1–60');
  await page.fill('#indur', '1');
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
  const ecg = fs.readFileSync(asset('Sample 2.txt'));
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
