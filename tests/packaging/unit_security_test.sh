#!/usr/bin/env bash
# systemd's own rating of the installed unit's sandbox: it must stay "OK" (2.5 or less on its
# scale of 0, locked down, to 10, unprotected).
source "$(dirname "$0")/lib.sh"
command -v systemd-analyze >/dev/null || skip "systemd-analyze is not installed"
# --offline came with systemd 250.
systemd-analyze security --offline=true --help >/dev/null 2>&1 || skip "systemd-analyze has no --offline"

root="$tmp/root"
DESTDIR="$root" cmake --install "$build_dir" --prefix /usr --component runtime >"$tmp/install.log" ||
  { cat "$tmp/install.log"; exit 1; }
unit="$root/usr/lib/systemd/system/$unit_name"
systemd-analyze security --offline=true --root="$root" "$unit_name" >"$tmp/security.txt" 2>&1 ||
  { cat "$tmp/security.txt"; exit 1; }
score="$(sed -n 's/.*Overall exposure level for .*: \([0-9.]*\) .*/\1/p' "$tmp/security.txt")"
echo "exposure: ${score:-none}"
within() { [ -n "$score" ] && awk -v s="$score" 'BEGIN { exit !(s <= 2.5) }'; }
check "exposure level $score is 2.5 or less" within
if [ "$failures" -ne 0 ]; then grep '✗' "$tmp/security.txt" >&2 || cat "$tmp/security.txt" >&2; fi
# Locked down, but not out of its own sockets: pcscd's unix socket and the loopback endpoint.
check "unit lets the service reach pcscd and serve TCP" has_line "$unit" "RestrictAddressFamilies=AF_UNIX AF_INET"
finish
