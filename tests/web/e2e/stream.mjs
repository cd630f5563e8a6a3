// One whole replay of Sample 2: the HRV card as it fills, and the page's
// series against the program's at the end.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { checkLayouts, openPage, startReplay, waitText } from './lib.mjs';

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
