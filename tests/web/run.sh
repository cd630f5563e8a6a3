#!/usr/bin/env bash
# Browser end-to-end tests: starts the program on a free port with a
# throw-away home folder, runs the Chromium tests against it, stops it.
# Screenshots land in test-artifacts/ at the top of the repository.
#
# Usage: bash tests/web/run.sh <path to corvane-live>
set -euo pipefail

here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(cd "$here/../.." && pwd)"
bin="${1:-}"
if [[ -z "$bin" || ! -x "$bin" ]]; then
  echo "usage: bash tests/web/run.sh <path to corvane-live>" >&2
  exit 2
fi
bin="$(cd "$(dirname "$bin")" && pwd)/$(basename "$bin")"

export CHROMIUM="${CHROMIUM:-/usr/bin/chromium}"
if [[ ! -x "$CHROMIUM" ]]; then
  echo "web tests: no Chromium at $CHROMIUM (apt-get install chromium)" >&2
  exit 1
fi
if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
  echo "web tests: node and npm are needed (apt-get install nodejs npm)" >&2
  exit 1
fi
if [[ ! -d "$here/node_modules/playwright-core" ]]; then
  (cd "$here" && npm ci --no-audit --no-fund --loglevel=error)
fi

export CVN_ARTIFACTS="$root/test-artifacts"
mkdir -p "$CVN_ARTIFACTS"

work="$(mktemp -d "${TMPDIR:-/tmp}/cvn-web.XXXXXX")"
pid=""
cleanup() {
  if [[ -n "$pid" ]] && kill -0 "$pid" 2>/dev/null; then
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

# A random first port keeps parallel runs apart; the program walks on from
# there when a port is taken and prints the one it got.
mkdir -p "$work/home"
env -u CVN_BASE -u CVN_DATA -u USERPROFILE HOME="$work/home" CVN_NO_BROWSER=1 \
  "$bin" "$((20000 + RANDOM % 30000))" >"$work/out.log" 2>"$work/err.log" &
pid=$!

port=""
for _ in $(seq 1 150); do
  port="$(sed -n 's|^  Open your browser at:  http://127\.0\.0\.1:\([0-9][0-9]*\)/$|\1|p' "$work/out.log")"
  [[ -n "$port" ]] && break
  kill -0 "$pid" 2>/dev/null || break
  sleep 0.1
done
if [[ -z "$port" ]]; then
  echo "web tests: the program did not print its address" >&2
  cat "$work/out.log" "$work/err.log" >&2
  exit 1
fi

export CVN_URL="http://127.0.0.1:$port/"
status=0
(cd "$here" && node --test --test-reporter=spec e2e.mjs) || status=$?
if [[ $status -ne 0 ]]; then
  echo "--- program output ---" >&2
  cat "$work/out.log" "$work/err.log" >&2
fi
exit "$status"
