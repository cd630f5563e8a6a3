// A resonance assessment from its steps table to "Use this pace".
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { checkLayouts, countInk, openPage, shot, startReplay, text, waitText } from './lib.mjs';

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
