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
pids=()
cleanup() {
  for p in "${pids[@]}"; do
    if kill -0 "$p" 2>/dev/null; then
      kill "$p" 2>/dev/null || true
      wait "$p" 2>/dev/null || true
    fi
  done
  rm -rf "$work"
}
trap cleanup EXIT

# start_program NAME [VAR=value...]: runs the program with its own home
# folder and sets $port to the port it printed. A random first port keeps
# parallel runs apart; the program walks on from there when one is taken.
start_program() {
  local name="$1"
  shift
  mkdir -p "$work/$name/home"
  : >"$work/$name/out.log"  # exists before the program gets to write it
  env -u CVN_BASE -u CVN_DATA -u USERPROFILE -u CVN_SIMULATED_STRAP \
    HOME="$work/$name/home" CVN_NO_BROWSER=1 "$@" \
    "$bin" "$((20000 + RANDOM % 30000))" >"$work/$name/out.log" 2>"$work/$name/err.log" &
  local pid=$!
  pids+=("$pid")
  port=""
  for _ in $(seq 1 150); do
    port="$(sed -n 's|^  Open your browser at:  http://127\.0\.0\.1:\([0-9][0-9]*\)/$|\1|p' "$work/$name/out.log")"
    [[ -n "$port" ]] && return 0
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
  done
  echo "web tests: the program ($name) did not print its address" >&2
  cat "$work/$name/out.log" "$work/$name/err.log" >&2
  exit 1
}

# A machine without Bluetooth: a private system bus whose BlueZ reports no
# adapter. (With no BlueZ at all the program stays optimistic and offers the
# scan, which then explains the failure.)
python=/usr/bin/python3
[[ -x "$python" ]] || python="$(command -v python3)"
if ! command -v dbus-daemon >/dev/null; then
  echo "web tests: dbus-daemon is needed (apt-get install dbus)" >&2
  exit 1
fi
bus="unix:path=$work/bus"
dbus-daemon --config-file="$root/tests/sensor/bus.conf" --address="$bus" --nofork \
  >"$work/bus.log" 2>&1 &
pids+=("$!")
for _ in $(seq 1 100); do [[ -S "$work/bus" ]] && break; sleep 0.05; done
"$python" "$root/tests/sensor/fake_bluez.py" --address "$bus" --no-adapter >"$work/bluez.log" 2>&1 &
pids+=("$!")
for _ in $(seq 1 100); do grep -q ready "$work/bluez.log" 2>/dev/null && break; sleep 0.05; done
if ! grep -q ready "$work/bluez.log"; then
  echo "web tests: the stand-in BlueZ did not start" >&2
  cat "$work/bluez.log" >&2
  exit 1
fi

# One program as a machine without Bluetooth runs it, one with the
# simulated strap for the live path.
start_program plain DBUS_SYSTEM_BUS_ADDRESS="$bus"
export CVN_URL="http://127.0.0.1:$port/"
start_program strap CVN_SIMULATED_STRAP=1
export CVN_STRAP_URL="http://127.0.0.1:$port/"

status=0
(cd "$here" && node --test --test-reporter=tap e2e.mjs) || status=$?
if [[ $status -ne 0 ]]; then
  for name in plain strap; do
    echo "--- program output ($name) ---" >&2
    cat "$work/$name/out.log" "$work/$name/err.log" >&2
  done
fi
exit "$status"
