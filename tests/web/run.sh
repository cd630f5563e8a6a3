#!/usr/bin/env bash
# Browser end-to-end tests: starts the program (one as a machine without
# Bluetooth runs it, one with the simulated ECG strap, one with the simulated
# strap that sends beats only), each on a free port with a
# throw-away home, runs the Chromium tests against them and stops them.
# Screenshots land in test-artifacts/.  Usage: bash tests/web/run.sh <corvane-live>
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
root="$(cd "$here/../.." && pwd)"
[[ -x "${1:-}" ]] || { echo "usage: bash tests/web/run.sh <path to corvane-live>" >&2; exit 2; }
bin="$(realpath "$1")"
export CHROMIUM="${CHROMIUM:-/usr/bin/chromium}" CVN_ARTIFACTS="$root/test-artifacts"
python="$(command -v /usr/bin/python3 python3 | head -1)"  # the system one has the D-Bus module
for tool in "$CHROMIUM" node npm dbus-daemon "$python"; do
  command -v "$tool" >/dev/null || { echo "web tests: $tool is needed (tools/deps.sh)" >&2; exit 1; }
done
[[ -d "$here/node_modules/playwright-core" && -d "$here/node_modules/axe-core" ]] || (cd "$here" && npm ci --no-audit --no-fund --loglevel=error)
mkdir -p "$CVN_ARTIFACTS"

work="$(mktemp -d "${TMPDIR:-/tmp}/cvn-web.XXXXXX")"
pids=()
trap 'for p in "${pids[@]}"; do { kill "$p" && wait "$p"; } 2>/dev/null || true; done; rm -rf "$work"' EXIT
# until_true TENTHS COMMAND...: polls the command every 0.1 s.
until_true() { local n=$1; shift; until "$@"; do ((n-- > 0)) || return 1; sleep 0.1; done; }

# A private system bus whose BlueZ reports no adapter. (With no BlueZ at all
# the program stays optimistic and offers the scan, which then explains the failure.)
bus="unix:path=$work/bus"
dbus-daemon --config-file="$root/tests/sensor/bus.conf" --address="$bus" --nofork >"$work/bus.log" 2>&1 & pids+=("$!")
until_true 50 test -S "$work/bus" || true
"$python" "$root/tests/sensor/fake_bluez.py" --address "$bus" --no-adapter >"$work/bluez.log" 2>&1 & pids+=("$!")
until_true 50 grep -q ready "$work/bluez.log" || { echo "web tests: the stand-in BlueZ did not start" >&2; cat "$work/bluez.log" >&2; exit 1; }

# start_program NAME [VAR=value...]: sets $port to the port it printed. A
# random first port keeps parallel runs apart; the program walks on when one is taken.
start_program() {
  local name="$1" log="$work/$1"
  shift
  mkdir -p "$log/home"
  env -u CVN_BASE -u CVN_DATA -u USERPROFILE -u CVN_SIMULATED_STRAP HOME="$log/home" CVN_NO_BROWSER=1 "$@" \
    "$bin" "$((20000 + RANDOM % 30000))" >"$log/out.log" 2>"$log/err.log" & pids+=("$!")
  local pid=$!
  # (The log may not exist yet: the program's shell opens it.)
  port_in() { port="$(sed -n 's|^  Open your browser at:  http://127\.0\.0\.1:\([0-9][0-9]*\)/$|\1|p' "$1" 2>/dev/null)" && [[ -n "$port" ]]; }
  # Stops waiting as soon as the program has exited.
  up_or_gone() { port_in "$log/out.log" || ! kill -0 "$pid" 2>/dev/null; }
  until_true 150 up_or_gone && port_in "$log/out.log" ||
    { echo "web tests: the program ($name) did not print its address" >&2; cat "$log"/*.log >&2; exit 1; }
}
start_program plain DBUS_SYSTEM_BUS_ADDRESS="$bus"
export CVN_URL="http://127.0.0.1:$port/"
start_program strap CVN_SIMULATED_STRAP=1
export CVN_STRAP_URL="http://127.0.0.1:$port/"
start_program beats CVN_SIMULATED_STRAP=beats
export CVN_BEATS_URL="http://127.0.0.1:$port/"

(cd "$here" && node --test --test-reporter=tap e2e.mjs) && exit 0
for name in plain strap beats; do echo "--- program output ($name) ---" >&2; cat "$work/$name"/*.log >&2; done
exit 1
