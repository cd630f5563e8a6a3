// Live from the simulated Polar H10 (the program runs with CVN_SIMULATED_STRAP=1).
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { BASE, computeTfr, countInk, openPage, text, waitElapsed, waitText } from './lib.mjs';

test('live from the simulated strap: scan, pick, record, mark, stop, TFR, new session', async () => {
  const { page, calls, done } = await openPage(1280, 800);
  await page.click('#scanBtn');  // waits for the button to be enabled
  assert.equal(await page.isDisabled('#scanBtn'), true, 'a second scan could start during the first');
  await waitText(page, '#scanNote', /^Found 1 device\(s\)\. Select your strap\.$/, 20000);
  assert.deepEqual(await page.$$eval('#device option', (o) => o.map((e) => e.textContent)), ['Polar H10 SIM00001 — A0:9E:1A:00:00:01 (ECG)']);
  assert.equal(await page.isVisible('#beatsOnly'), true, 'an H10 offers heart beats only');

  await page.fill('#name', 'LIVE01');
  await page.click('.chip >> text=10 s cycle');
  await page.dblclick('#startBtn');
  await waitText(page, '#liveTitle', /^Live recording · LIVE01$/);
  assert.equal(calls('/start_live').length, 1, 'a double click started twice');
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
  // New session would end the recording: asked first, and Enter keeps it going.
  await page.click('#newBtn');
  await page.waitForSelector('#endLive[open]');
  assert.equal(await page.evaluate(() => document.activeElement.id), 'endLiveKeep');
  await page.keyboard.press('Enter');
  await page.waitForSelector('#endLive:not([open])', { state: 'attached' });
  assert.equal(calls('/stop').length, 0);

  // One whole 10 s cycle recorded live is enough for the time-frequency maps.
  await waitElapsed(page, 11);
  await page.click('#stopBtn');
  await waitText(page, '#runState', /^Stopped$/);
  // Kept by the stop, with no Save, and found by History.
  await waitText(page, '#sourceText', /^Stopped · saved as recordings\/LIVE01_on2_off8_M40_\d{8}-\d{6}\.csv$/);
  const { people } = await (await page.request.get(BASE + 'people')).json();
  assert.deepEqual(people.map((p) => [p.name, p.recordings]), [['LIVE01', 1]]);
  await computeTfr(page);
  await page.click('#newBtn');
  await page.waitForSelector('#setup', { state: 'visible' });
  assert.equal(calls('/stop').length, 2);
  assert.equal((await (await page.request.get(BASE + 'status')).json()).running, false);
  await done();
});
