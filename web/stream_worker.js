// Receives the snapshot stream off the page's main thread (see openStream in
// api.js) and posts each snapshot, with the series only when they changed.

import { readStream } from './api.js';

let sent = null;
readStream((s) => {
  const series = s.hr_series === sent?.hr_series && s.cvn_series === sent?.cvn_series ? null :
    { hr_series: s.hr_series, cvn_series: s.cvn_series };
  if (series) sent = series;
  delete s.hr_series;
  delete s.cvn_series;
  postMessage({ s, series });
}, () => postMessage({ lost: true }));
