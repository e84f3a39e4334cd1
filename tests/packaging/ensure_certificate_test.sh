#!/usr/bin/env bash
# The certificate helper that scripts/run.sh and the unit share: it completes half a pair, and
# with a group it hands the key to that group alone, also a key that was made without one.
source "$(dirname "$0")/lib.sh"
helper="$source_dir/packaging/tiv-rfid-svc-ensure-certificate"
dir="$tmp/certs"
cert="$dir/localhost.pem"
key="$dir/localhost.key"
pair_matches() { [ "$(openssl x509 -in "$cert" -noout -pubkey)" = "$(openssl pkey -in "$key" -pubout)" ]; }

sh "$helper" "$cert" "$key" >/dev/null
rm "$key"
check "half a pair is replaced by a whole one" sh "$helper" "$cert" "$key"
check "the new key belongs to the new certificate" pair_matches

if [ "$(id -u)" -ne 0 ]; then
  echo "note: not root, so the group hand-over is not checked"
  finish
  exit 0
fi
group=nogroup
getent group "$group" >/dev/null || skip "no group '$group' to hand the key to"
before="$(cat "$cert" "$key")"
check "an existing pair with a group" sh "$helper" "$cert" "$key" "$group"
check "is kept" test "$(cat "$cert" "$key")" = "$before"
check "its key is the group's to read, nobody else's" test "$(stat -c '%G %a' "$key")" = "$group 640"
check "its folder is the group's to enter" test "$(stat -c '%G %a' "$dir")" = "$group 750"
rm -rf "$dir"
check "a new pair with a group" sh "$helper" "$cert" "$key" "$group"
check "has the group's key" test "$(stat -c '%G %a' "$key")" = "$group 640"
finish
