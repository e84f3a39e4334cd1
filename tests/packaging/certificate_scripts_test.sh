#!/usr/bin/env bash
# The certificate helper that scripts/run.sh and the unit share completes half a pair and hands
# the key to a group alone; scripts/trust-certificate.sh issues a certificate from the local
# authority (mkcert) and points the settings at it, keeping the rest of the file.
source "$(dirname "$0")/lib.sh"
dir="$tmp/certs"
cert="$dir/localhost.pem"
key="$dir/localhost.key"
helper() { sh "$source_dir/packaging/tiv-rfid-svc-ensure-certificate" "$cert" "$key" "$@" >/dev/null; }
pair_matches() { [ "$(openssl x509 -in "$cert" -noout -pubkey)" = "$(openssl pkey -in "$key" -pubout)" ]; }
group=nogroup
as_root_with_group() { [ "$(id -u)" -eq 0 ] && getent group "$group" >/dev/null; }

helper
rm "$key"
check "half a pair is replaced by a whole one" helper
check "the new key belongs to the new certificate" pair_matches
if as_root_with_group; then
  before="$(cat "$cert" "$key")"
  check "an existing pair with a group" helper "$group"
  check "is kept" test "$(cat "$cert" "$key")" = "$before"
  check "its key is the group's to read, nobody else's" test "$(stat -c '%G %a' "$key")" = "$group 640"
  check "its folder is the group's to enter" test "$(stat -c '%G %a' "$dir")" = "$group 750"
  rm -rf "$dir"
  check "a new pair with a group" helper "$group"
  check "has the group's key" test "$(stat -c '%G %a' "$key")" = "$group 640"
else
  echo "note: not root or no group '$group', so the group hand-over is not checked"
fi

command -v mkcert >/dev/null || { echo "note: mkcert is not installed; trust-certificate.sh not checked"; finish; exit 0; }
settings="$tmp/xdg/TIV/Tiv RFID WebSocket Service.ini"
mkdir -p "$(dirname "$settings")"
# Port 0: nothing listens there, so the script never takes it for a running service.
write_settings() {
  printf '[other]\ncertfile=untouched\n\n[service]\ncertfile=%s\nloglevel=3\nport=0\n' "$1"
  if [ -n "${2:-}" ]; then printf 'keyfile=%s\n' "$2"; fi
}
write_settings "$tmp/trusted/localhost.pem" >"$settings"
write_settings "$tmp/trusted/localhost-trusted.pem" "$tmp/trusted/localhost-trusted.key" >"$tmp/expected"
trust() {
  (unset SUDO_USER; CAROOT="$tmp/ca" TIV_SKIP_TRUST_STORES=1 \
    bash "$source_dir/scripts/trust-certificate.sh" "$settings") >>"$tmp/trust.log" 2>&1 ||
    { cat "$tmp/trust.log" >&2; return 1; }
}
check "trust-certificate.sh succeeds" trust
check "its certificate is from the authority, for localhost and 127.0.0.1" \
  openssl verify -CAfile "$tmp/ca/rootCA.pem" -verify_hostname localhost -verify_ip 127.0.0.1 \
    "$tmp/trusted/localhost-trusted.pem"
check "only the owner reads its key" test "$(stat -c %a "$tmp/trusted/localhost-trusted.key")" = 600
check "settings name the new pair, the rest is kept" diff "$tmp/expected" "$settings"
trust
check "running again changes nothing in the settings" diff "$tmp/expected" "$settings"
# The system service reads its key through the group of the key's folder.
if as_root_with_group; then
  chgrp "$group" "$tmp/trusted"
  trust
  check "a folder's group reads the renewed key, nobody else" \
    test "$(stat -c '%G %a' "$tmp/trusted/localhost-trusted.key")" = "$group 640"
fi
finish
