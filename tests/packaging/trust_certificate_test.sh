#!/usr/bin/env bash
# scripts/trust-certificate.sh issues a certificate from the local authority and points the
# settings at it, keeping the rest of the file. Trust stores are left alone; needs mkcert.
source "$(dirname "$0")/lib.sh"
command -v mkcert >/dev/null || skip "mkcert is not installed"

settings="$tmp/xdg/TIV/Tiv RFID WebSocket Service.ini"
mkdir -p "$(dirname "$settings")"
# Port 0: nothing listens there, so the script never takes it for a running service.
write_settings() {
  printf '[other]\ncertfile=untouched\n\n[service]\ncertfile=%s\nloglevel=3\nport=0\n' "$1"
  if [ -n "${2:-}" ]; then printf 'keyfile=%s\n' "$2"; fi
}
write_settings "$tmp/certs/localhost.pem" >"$settings"
write_settings "$tmp/certs/localhost-trusted.pem" "$tmp/certs/localhost-trusted.key" >"$tmp/expected"
trust() {
  (unset SUDO_USER; CAROOT="$tmp/ca" TIV_SKIP_TRUST_STORES=1 \
    bash "$source_dir/scripts/trust-certificate.sh" "$settings") >>"$tmp/trust.log" 2>&1 ||
    { cat "$tmp/trust.log" >&2; return 1; }
}

check "script succeeds" trust
check "certificate is from the authority, for localhost and 127.0.0.1" \
  openssl verify -CAfile "$tmp/ca/rootCA.pem" -verify_hostname localhost -verify_ip 127.0.0.1 \
    "$tmp/certs/localhost-trusted.pem"
check "only the owner reads the key" test "$(stat -c %a "$tmp/certs/localhost-trusted.key")" = 600
check "settings name the new pair, the rest is kept" diff "$tmp/expected" "$settings"
trust
check "running again changes nothing in the settings" diff "$tmp/expected" "$settings"

# The system service reads its key through the group of the key's folder.
if [ "$(id -u)" -eq 0 ] && getent group nogroup >/dev/null; then
  chgrp nogroup "$tmp/certs"
  trust
  check "a folder's group reads the renewed key, nobody else" \
    test "$(stat -c '%G %a' "$tmp/certs/localhost-trusted.key")" = "nogroup 640"
fi
finish
