// The program's limits, read once from /config before the page starts: the
// page applies them (the shortest breathing period, the import rate range,
// the largest file) but keeps no copies that could fall out of step with the
// program's. The scope's width comes with each snapshot.

import { api } from './api.js';

/** The answer of /config (keys as in docs/api.md); filled by loadConfig. */
export const config = {};

const kRetryMs = 2000;

/**
 * Fills `config`. There is no copy to fall back on: without an answer the
 * program is not running and no route would work either, so this waits,
 * asking again every two seconds, and the page starts once it is back.
 */
export async function loadConfig() {
  for (;;) {
    const r = await api('/config');
    if (r.ok && r.data) return Object.assign(config, r.data);
    await new Promise((wake) => setTimeout(wake, kRetryMs));
  }
}
