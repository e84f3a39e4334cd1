#!/usr/bin/env bash
# tiv-benchmark with tiny numbers gets through every stage and prints each part of its table.
set -euo pipefail
out="$(mktemp)"
trap 'rm -f "$out"' EXIT
status=0
"$1" --taps 3 --idle-seconds 1 --clients 1,5 --fan-out-taps 2 >"$out" 2>&1 || status=$?
cat "$out"
[ "$status" -eq 0 ] || { echo "FAIL: exit status $status"; exit 1; }
for expected in 'Tap to message: 3 taps, 1 client' 'a plain PC/SC client sees the card' \
  'CPU (utime + stime)' 'resident memory (VmRSS)' 'Fan-out: from the tap until the last client has the TAG'; do
  grep -qF -- "$expected" "$out" || { echo "FAIL: missing '$expected'"; exit 1; }
done
# One row per number of clients, each with its two taps.
grep -Eq '^ +5 +2 +[0-9.]+ s' "$out" || { echo "FAIL: no row for 5 clients"; exit 1; }
echo PASS
