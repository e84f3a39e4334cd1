#!/usr/bin/env bash
# tiv-demo fed from a pipe: each card's message reaches the client, a card laid on an occupied
# reader replaces the one there, and nothing the demo made is left behind.
set -euo pipefail
demo="$1"
out="$(mktemp)"
trap 'rm -f "$out"' EXIT

fail() {
  echo "FAIL: $*"
  echo "--- demo output ---"
  cat "$out"
  exit 1
}

status=0
printf '%s\n' 'tag 0 04a10b7f' 'acos 1 0102030405060708' '# comments and blank lines are skipped' '' \
  'tag 0 04:A1:0B:80' 'remove 1' 'quit' | "$demo" --port 0 >"$out" 2>&1 || status=$?
[ "$status" -eq 0 ] || fail "exit status $status"

grep -qF '"tag_id":"04a10b7f","type":"TAG"' "$out" || fail "no TAG message for the first tag"
grep -qF '"tag_id":"0102030405060708","type":"SC"' "$out" || fail "no SC message for the ACOS card"
grep -qF '"tag_id":"04a10b80","type":"TAG"' "$out" || fail "the tag laid over another was not read"
grep -qF 'took the card off reader 1' "$out" || fail "the removal was not seen"
grep -qF '"event":"CONNECTED","name":"Tiv Virtual Reader 00 01","type":"READER"' "$out" \
  || fail "the greeting did not list the second reader"

cert="$(sed -n 's/^and 127.0.0.1: //p' "$out")"
log="$(sed -n "s/^The service's log: //p" "$out")"
[ -n "$cert" ] && [ -n "$log" ] || fail "the certificate or log path is not shown"
[ ! -e "$(dirname "$cert")" ] || fail "the certificate's directory was left behind"
[ ! -e "$(dirname "$(dirname "$log")")" ] || fail "the service's directory was left behind"
echo "PASS"
