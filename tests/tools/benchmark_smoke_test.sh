#!/usr/bin/env bash
# tiv-benchmark with tiny numbers gets through every stage and prints each part of its table.
set -euo pipefail
out="$(mktemp)"
trap 'rm -f "$out"' EXIT
status=0
"$1" --taps 3 --idle-seconds 1 --clients 1,5 --fan-out-taps 2 --restart-cycles 1 \
  --reconnects 3 --storm-seconds 3 >"$out" 2>&1 || status=$?
cat "$out"
[ "$status" -eq 0 ] || { echo "FAIL: exit status $status"; exit 1; }
for expected in 'Tap to message: 3 taps, 1 client' 'a plain PC/SC client sees the card' \
  'CPU (run time)' 'per connection (handshake, greeting)' 'both readers attached' 'pcscd up with no reader attached' \
  'Fan-out: from the tap until the last client has the TAG' 'first to last client' \
  'pcscd killed and started again: 1 of 1 cycles' 'Against the goals' \
  'Connect storm: 32 loops on 2 threads' 'own share p50 / p95, connect storm' 'resumed / full'; do
  grep -qF -- "$expected" "$out" || { echo "FAIL: missing '$expected'"; exit 1; }
done
# One row per number of clients, each with its two taps.
grep -Eq '^ +5 +2 +[0-9.]+ s' "$out" || { echo "FAIL: no row for 5 clients"; exit 1; }
grep -Eq '^  floor at 5: [0-9.]+ s for 5 bare TLS handshakes' "$out" || { echo "FAIL: no TLS floor"; exit 1; }
# The summary sets the fan-out and the connecting beside their floors.
grep -Eq '^  fan-out first to last p50, 5 clients +[0-9.]+ ms +[0-9.]+ ms +[0-9.]+x' "$out" \
  || { echo "FAIL: no fan-out beside its floor"; exit 1; }
grep -Eq '^  connect and greet 5 clients +[0-9.]+ s +[0-9.]+ s +[0-9.]+x' "$out" \
  || { echo "FAIL: no connecting beside its floor"; exit 1; }
# Both idle figures were measured, and the service's threads and descriptors were counted.
[ "$(grep -Ec '^  (both readers|pcscd up with no reader).* % of a core' "$out")" -eq 2 ] \
  || { echo "FAIL: an idle CPU figure is missing"; exit 1; }
grep -Eq 'service threads, before -> after +[0-9]+ -> [0-9]+' "$out" || { echo "FAIL: no thread counts"; exit 1; }
grep -Eq 'service descriptors, before -> after +[0-9]+ -> [0-9]+' "$out" || { echo "FAIL: no descriptor counts"; exit 1; }
# Both reconnect figures, whether or not the service resumed, and the storm's rate.
[ "$(grep -Ec '^  (a full handshake each|each resuming the session of a first one) +[0-9.]+ ms' "$out")" -eq 2 ] \
  || { echo "FAIL: a reconnect CPU figure is missing"; exit 1; }
grep -Eq '^  resumed: [0-3] of 3' "$out" || { echo "FAIL: no count of resumed sessions"; exit 1; }
grep -Eq 'connections served during the storm +[0-9]+ per second \([1-9][0-9]* in' "$out" \
  || { echo "FAIL: no storm connections"; exit 1; }
echo PASS
