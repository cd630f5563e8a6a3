// Live from the simulated strap that sends beats only (CVN_SIMULATED_STRAP=beats).
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { countInk, openPage, shot, waitText } from './lib.mjs';

// A strap that sends beats and no ECG: the scope says so; heart rate and coupling come from the beats.
test('live from a strap that sends beats only: no ECG, heart rate and coupling', async () => {
  const { page, calls, done } = await openPage(1280, 800);
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
  // Stopped, the session is kept as the strap's beats.
  await page.click('#stopBtn');
  await waitText(page, '#sourceText', /^Stopped · saved as recordings\/.+_RR\.txt$/);
  await done();
});
