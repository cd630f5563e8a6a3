#!/usr/bin/env bash
# Browser end-to-end tests: each file of e2e/ runs against a program of its
# own, on a free port with a throw-away home, and the files run side by side
# (their time is mostly waiting for replays and live sessions). The programs
# run as a machine without Bluetooth runs it, except for strap.mjs's (the
# simulated ECG strap) and beats.mjs's (the simulated strap that sends beats
# only). Screenshots land in test-artifacts/; a failed file's output comes
# with its program's.
# Usage: bash tests/web/run.sh <corvane-live> [name...]  (names of e2e/ files: only those)
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

# nice_of NAME: how nice a file and its program run (see the list of files).
nice_of() { case "$1" in replay | resonance) echo 0 ;; *) echo 10 ;; esac; }

# start_program NAME [VAR=value...]: sets $port to the port it printed. A
# random first port keeps parallel runs apart; the program walks on when one is taken.
start_program() {
  local name="$1" log="$work/$1"
  shift
  mkdir -p "$log/home"
  env -u CVN_BASE -u CVN_DATA -u USERPROFILE -u CVN_SIMULATED_STRAP HOME="$log/home" CVN_NO_BROWSER=1 "$@" \
    nice -n "$(nice_of "$name")" "$bin" "$((20000 + RANDOM % 30000))" >"$log/out.log" 2>"$log/err.log" & pids+=("$!")
  local pid=$!
  # (The log may not exist yet: the program's shell opens it.)
  port_in() { port="$(sed -n 's|^  Open your browser at:  http://127\.0\.0\.1:\([0-9][0-9]*\)/$|\1|p' "$1" 2>/dev/null)" && [[ -n "$port" ]]; }
  # Stops waiting as soon as the program has exited.
  up_or_gone() { port_in "$log/out.log" || ! kill -0 "$pid" 2>/dev/null; }
  until_true 150 up_or_gone && port_in "$log/out.log" ||
    { echo "web tests: the program ($name) did not print its address" >&2; cat "$log"/*.log >&2; exit 1; }
}
# Each file with its program; a file's name is its program's. Their time is
# mostly waiting for replays and live sessions, but a live screen keeps two
# thirds of a core busy drawing (headless, without a GPU), so only four files
# run at once. Two hold the page to real time and go first: replay.mjs (the
# pacer within 0.1 s of the replay at 8×, which a stall of a fifth of a
# second breaks) and resonance.mjs (Stop within 4 s of a step's start). The
# others, the longest first, run niced with their programs and yield the CPU
# to them (lib.mjs hands the nice value on to their browsers).
files=(replay:plain resonance:plain setup:plain beats:beats strap:strap stream:plain)
if (($# > 1)); then
  only=" ${*:2} "
  for f in "${!files[@]}"; do [[ "$only" == *" ${files[f]%%:*} "* ]] || unset "files[f]"; done
  ((${#files[@]})) || { echo "web tests: no such file in e2e/: ${*:2}" >&2; exit 2; }
fi
jobs="${CVN_WEB_JOBS:-4}"
declare -A run_of=()
for f in "${files[@]}"; do
  name="${f%%:*}"
  case "${f#*:}" in
    plain) start_program "$name" DBUS_SYSTEM_BUS_ADDRESS="$bus" ;;
    strap) start_program "$name" CVN_SIMULATED_STRAP=1 ;;
    beats) start_program "$name" CVN_SIMULATED_STRAP=beats ;;
  esac
  echo "http://127.0.0.1:$port/" >"$work/$name/url"
done
# run_file NAME: e2e/NAME.mjs against its program, in the background.
run_file() {
  (cd "$here" && CVN_URL="$(cat "$work/$1/url")" exec nice -n "$(nice_of "$1")" \
    node --test --test-reporter=tap "e2e/$1.mjs") >"$work/$1/tap.log" 2>&1 &
  pids+=("$!")
  run_of[$!]="$1"
}
failed=()
# finish_one: waits for a running file and prints its output.
finish_one() {
  local pid rc=0
  wait -n -p pid "${!run_of[@]}" || rc=$?
  local name="${run_of[$pid]}"
  unset "run_of[$pid]"
  ((rc == 0)) || failed+=("$name")
  cat "$work/$name/tap.log"
}
for f in "${files[@]}"; do
  while ((${#run_of[@]} >= jobs)); do finish_one; done
  run_file "${f%%:*}"
done
while ((${#run_of[@]} > 0)); do finish_one; done

((${#failed[@]} == 0)) && exit 0
for name in "${failed[@]}"; do
  echo "--- $name.mjs failed; program output ---" >&2
  cat "$work/$name/out.log" "$work/$name/err.log" >&2
done
exit 1
