#!/usr/bin/env bash
# The packaged Windows build (make windows) under Wine, checked over HTTP as
# the page would use it: in a throwaway Wine prefix and home, with the data
# in a temporary folder. Wine has no Bluetooth LE, so the sensor link must
# say so: no adapter, the scan's start failure, and its own log lines in the
# data folder. corvane-analyze.exe must agree with the Linux build.
# Usage: tools/wine_smoke.sh   (BUILD: the Linux build folder, default build)
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD
build=${BUILD:-build}
began=$(date +%s)

# Every wait is bounded; these are generous for a loaded 2-core machine.
readonly kStartSeconds=60   # a fresh prefix starts the program in a few seconds
readonly kReplaySeconds=60  # 264 s of ECG at 100x real time, plus analysis
readonly kTfrSeconds=60
readonly kReplaySpeed=100
readonly kFirstPort=18431

tools/deps.sh windows
make --no-print-directory windows >/dev/null
if [ ! -x "$build/corvane-analyze" ]; then
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
  cmake --build "$build" --target corvane-analyze >/dev/null
fi

tmp=$(mktemp -d)
server=
cleanup() {
  [ -n "$server" ] && kill "$server" 2>/dev/null
  # Ends what still runs in our own prefix (its wineserver and services).
  WINEPREFIX=$tmp/prefix wineserver -k 2>/dev/null || true
  rm -rf "$tmp"
}
trap cleanup EXIT

export WINEPREFIX=$tmp/prefix HOME=$tmp/home WINEDEBUG=-all
# No Mono or Gecko installer dialogs in a fresh prefix; no display needed.
export WINEDLLOVERRIDES="mscoree,mshtml="
unset DISPLAY WAYLAND_DISPLAY
mkdir -p "$HOME" "$tmp/data"
wineboot -i >/dev/null 2>&1
wineserver -w

zip=$(ls dist/CorvaneLive-*-win64.zip)
unzip -q "$zip" -d "$tmp/app"
app=$(ls -d "$tmp"/app/CorvaneLive-*)
data=$tmp/data

passed=0
failed=0
check() {  # check NAME COMMAND...
  local name=$1
  shift
  if "$@"; then
    passed=$((passed + 1))
    echo "ok - $name"
  else
    failed=$((failed + 1))
    echo "not ok - $name"
  fi
}
get() { curl -sf --max-time 30 "http://127.0.0.1:$port$1"; }
json() {  # json PATH EXPRESSION: a Python expression over the answer `d`
  get "$1" | python3 -c "import json, sys; d = json.load(sys.stdin); sys.exit(0 if ($2) else 1)"
}
poll() {  # poll SECONDS COMMAND...: until the command succeeds
  local until=$(($(date +%s) + $1))
  shift
  until "$@"; do
    [ "$(date +%s)" -lt "$until" ] || return 1
    sleep 0.5
  done
}
job() {  # job START EXPRESSION SECONDS STATUS EXPRESSION: started, then polled until done
  json "$1" "$2" && poll "$3" json "$4" "$5"
}

(cd "$tmp" && CVN_DATA="Z:$data" CVN_NO_BROWSER=1 exec wine "$app/corvane-live.exe" "$kFirstPort" \
  >"$tmp/out" 2>"$tmp/err") &
server=$!
banner() { grep -q "Open your browser at:" "$tmp/out"; }
if ! poll "$kStartSeconds" banner; then
  echo "corvane-live.exe did not start:" >&2
  cat "$tmp/out" "$tmp/err" >&2
  exit 1
fi
port=$(sed -n 's|.*http://127.0.0.1:\([0-9]*\)/.*|\1|p' "$tmp/out")

# The body first, then the search: grep -q stops reading at the match, and
# under pipefail curl's SIGPIPE on the rest of a 17 kB page failed the check.
page() { local body; body=$(get /) && grep -qi "<html" <<<"$body"; }
check "the page loads" page
check "/bt_available is false" json /bt_available 'd == {"available": False}'
check "/scan fails with the watcher-start message" json /scan \
  'd == {"success": False, "reason": "Could not start a Bluetooth scan. Make sure Bluetooth is turned on."}'

check "a replay of Sample 1 runs to the end with a CVN score" job \
  "/start_replay?dir=samples&file=Sample%201.txt&speed=$kReplaySpeed" 'd == {"ok": True}' "$kReplaySeconds" \
  /status 'd["mode"] == "replay" and not d["running"] and d["elapsed"] == d["total"] > 0 and isinstance(d["cvn"], float)'

saved=
save() {
  saved=$(get /save | python3 -c 'import json, sys; d = json.load(sys.stdin); print(d["file"] if d["ok"] else "")')
  [ -n "$saved" ] && [ -s "$data/recordings/$saved" ]
}
check "/save writes the recording into the data folder" save

check "/tfr ends done" job /tfr 'd["ok"]' "$kTfrSeconds" /tfr_status 'd["status"] == "done"'

exported() {
  job /export 'd == {"ok": True, "status": "exporting"}' "$kTfrSeconds" /export_status 'd["status"] == "done"' || return 1
  local pdf
  pdf=$(ls "$data"/exports/*_export/*_report.pdf 2>/dev/null | head -1)
  [ -n "$pdf" ] && [ "$(ls "$(dirname "$pdf")" | wc -l)" -eq 8 ] && qpdf --check "$pdf" >/dev/null
}
check "/export writes eight files (HRV and beat tables included) and a report that passes qpdf --check" exported

log_lines() {
  # Written in text mode: CRLF line ends on Windows.
  local log
  log=$(tr -d '\r' <"$data/cvn_log.txt") || return 1
  grep -q "  \[BLE\] scan() enter$" <<<"$log" &&
    grep -q "  \[BLE\] WinRT: BluetoothLEAdvertisementWatcher failed (0x" <<<"$log" &&
    grep -q "  \[BLE\] scan() exception starting watcher$" <<<"$log" &&
    # Nowhere else: not in the Windows user's Documents, not in the home.
    [ -z "$(find "$WINEPREFIX/drive_c" "$HOME" -name cvn_log.txt)" ]
}
check "cvn_log.txt in the data folder holds the link's lines" log_lines

same_analysis() {
  [ -n "$saved" ] || return 1
  (cd "$data/recordings" && wine "$app/corvane-analyze.exe" "$saved") >"$tmp/win.json" 2>/dev/null &&
    "$build/corvane-analyze" "$data/recordings/$saved" >"$tmp/linux.json" &&
    python3 - "$tmp/win.json" "$tmp/linux.json" <<'EOF'
import json, math, sys
win, linux = (json.load(open(p)) for p in sys.argv[1:3])
def same(a, b):
    if isinstance(a, list) and isinstance(b, list):
        return len(a) == len(b) and all(same(x, y) for x, y in zip(a, b))
    if isinstance(a, (int, float)) and isinstance(b, (int, float)):
        # Two C libraries may differ in the last bits of a logarithm.
        return math.isclose(a, b, rel_tol=1e-9, abs_tol=1e-12)
    return a == b
bad = [k for k in ("samples", "rr", "hr", "cycle_bounds", "cvn", "expected_freq", "stats")
       if not same(win.get(k), linux.get(k))]
if bad or not linux["rr"] or not linux["cvn"]:
    sys.exit("corvane-analyze.exe differs from the Linux build in %s" % (bad or "nothing analysed"))
EOF
}
check "corvane-analyze.exe gives the Linux build's RR and CVN" same_analysis

if [ "$failed" -gt 0 ]; then
  echo "--- corvane-live.exe output"
  cat "$tmp/out" "$tmp/err"
  echo "--- cvn_log.txt"
  cat "$data/cvn_log.txt" 2>/dev/null || true
fi
echo "wine smoke took $(($(date +%s) - began)) s"
echo "wine: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
