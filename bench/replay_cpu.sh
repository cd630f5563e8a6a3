#!/bin/bash
# The program's own CPU time while it replays a long recording in real time,
# with no page open: early (4 minutes in) and late (116 minutes in). Each
# window is the process's user + system time over `seconds` of wall time,
# as a share of one core, read from /proc (Linux).
#
#   bench/replay_cpu.sh [path to corvane-live] [seconds per window, default 30]
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
bin="${1:-$root/build/corvane-live}"
seconds="${2:-30}"
data="$(mktemp -d)"
trap 'kill "$pid" 2>/dev/null || true; rm -rf "$data"' EXIT
mkdir -p "$data/recordings"
# 28 copies of the 264 s sample: 123 minutes.
for _ in $(seq 28); do cat "$root/assets/Sample 1.txt"; done > "$data/recordings/long.txt"
total=$(wc -l < "$data/recordings/long.txt")

port=$((20000 + RANDOM % 30000))
CVN_DATA="$data" CVN_NO_BROWSER=1 "$bin" "$port" > "$data/out.txt" 2>&1 &
pid=$!
url=""
for _ in $(seq 100); do
  url=$(grep -o 'http://127\.0\.0\.1:[0-9]*/' "$data/out.txt" | head -1 || true)
  [[ -n "$url" ]] && break
  sleep 0.1
done
[[ -n "$url" ]] || { echo "corvane-live did not start"; cat "$data/out.txt"; exit 1; }

ticks() { awk '{print $14 + $15}' "/proc/$pid/stat"; }
hz=$(getconf CLK_TCK)
window() {  # $1: minutes into the recording
  curl -s "${url}seek?frac=$(echo "$1 * 60 * 130 / $total" | bc -l)" > /dev/null
  sleep 5  # the first pass after the seek takes in everything skipped
  local a b
  a=$(ticks)
  sleep "$seconds"
  b=$(ticks)
  # The beats analysed so far: the analysis kept up.
  local shown
  shown=$(curl -s "${url}status" | grep -o '"rr_count":[0-9]*')
  echo "$1 min: $(echo "scale=2; ($b - $a) * 100 / $hz / $seconds" | bc) % of a core ($shown)"
}
curl -s "${url}start_replay?dir=saved&file=long.txt&speed=1" > /dev/null
window 4
window 116
