#!/usr/bin/env bash
# The .deb declares what it needs and holds the service's files; its maintainer scripts install
# and purge cleanly in a private root (dpkg --root, scripts run without chroot under DPKG_ROOT).
source "$(dirname "$0")/lib.sh"

build_deb
check "cpack builds without warnings" lacks "$tmp/cpack.log" "Warning"
depends="$(dpkg-deb -f "$deb" Depends)"
lists() { tr ',' '\n' <<<"$2" | awk '{ print $1 }' | grep -qxF -- "$1"; }

check "version" test "$(dpkg-deb -f "$deb" Version)" = "$version"
for p in libqt5core5a libssl3 libpcsclite1 openssl adduser; do check "depends on $p" lists "$p" "$depends"; done
check "recommends pcscd" lists pcscd "$(dpkg-deb -f "$deb" Recommends)"
dpkg-deb -c "$deb" | awk '{ $1 = $2 = $3 = $4 = $5 = ""; sub(/^ +/, ""); print }' >"$tmp/contents"
for f in ./usr/bin/tiv-rfid-svc ./usr/bin/tiv-rfid-svc-ensure-certificate \
         "./usr/lib/systemd/system/$unit_name" ./usr/share/tiv-rfid-svc/settings.ini \
         ./usr/share/doc/tiv-rfid-svc/copyright ./usr/share/doc/tiv-rfid-svc/changelog.gz; do
  check "contains $f" has_line "$tmp/contents" "$f"
done
# The service rewrites its settings and owns its logs: the package scripts make both.
check "ships neither settings nor log directory" lacks "$tmp/contents" "./etc/"
check "no conffiles" test -z "$(dpkg-deb -I "$deb" conffiles 2>/dev/null)"

dpkg-deb -x "$deb" "$tmp/x"
bin="$tmp/x/usr/bin/tiv-rfid-svc"
check "packaged binary runs" grep -qF "$version" <(run_version "$bin")
changelog_version() { zcat "$tmp/x/usr/share/doc/tiv-rfid-svc/changelog.gz" | head -n1 | sed -n 's/^tiv-rfid-svc (\(.*\)).*/\1/p'; }
check "changelog's latest entry is this version" test "$(changelog_version)" = "$version"

# Every library the binary links directly must come from a package the .deb depends on.
# Sanitizer runtimes only appear in test builds, which are not shipped.
owner() {
  local p path
  path="$(readlink -f "$1")"
  for p in "$path" "${path#/usr}" "$1"; do dpkg -S "$p" 2>/dev/null && return; done
}
needed="$(readelf -d "$bin" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')"
ldd "$bin" | awk -v needed=" $needed" 'index(needed, " " $1 " ") && $2 == "=>" { print $3 }' |
  grep -vE 'lib(a|ub|t)san\.' | while read -r lib; do
    owner "$lib" | head -n1 | cut -d: -f1 | grep . || echo "nothing-owns-$lib"
  done | sort -u >"$tmp/owners"
while read -r pkg; do check "depends on $pkg, which the binary links" lists "$pkg" "$depends"; done <"$tmp/owners"

if command -v lintian >/dev/null; then
  lintian --no-tag-display-limit "$deb" >"$tmp/lintian.log" 2>&1 || true
  check "lintian reports no errors or warnings" lacks_any "$tmp/lintian.log" "^[EW]: "
  grep -E '^[EW]: ' "$tmp/lintian.log" >&2 || true
else
  echo "note: lintian is not installed; not checked"
fi

# Install and purge in a private root. Neither may reach this machine's /etc.
wants=/etc/systemd/system/multi-user.target.wants/$unit_name
guard=false; [ -e /etc/tiv-rfid-svc ] || [ -e "$wants" ] || guard=true
root="$tmp/root"
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
touch "$root/var/lib/dpkg/status"
dpkg_root() {
  dpkg --root="$root" --force-script-chrootless --force-depends --force-not-root "$@" \
    >>"$tmp/dpkg.log" 2>&1 || { cat "$tmp/dpkg.log" >&2; return 1; }
}
cert="$root/etc/tiv-rfid-svc/localhost.pem"
key="$root/etc/tiv-rfid-svc/localhost.key"
settings="$root/$settings_rel"
# Self-signed, hence its own authority: verify checks the names for real.
valid_for() { openssl verify -CAfile "$cert" "$@" "$cert" >/dev/null; }
pair_matches() { [ "$(openssl x509 -in "$cert" -noout -pubkey)" = "$(openssl pkey -in "$key" -pubout)" ]; }
check "dpkg installs the package" dpkg_root -i "$deb"
check "postinst makes a certificate for localhost and 127.0.0.1" \
  valid_for -verify_hostname localhost -verify_ip 127.0.0.1
check "its key belongs to it" pair_matches
# No service user is made inside a private root, so the key stays root's alone.
check "only the owner reads the key" test "$(stat -c %a "$key")" = 600
check "postinst puts the settings in place" cmp "$tmp/x/usr/share/tiv-rfid-svc/settings.ini" "$settings"
check "postinst makes the log directory" test -d "$root/var/log/tiv-rfid-svc"
before="$(cat "$cert" "$key")"
"$root/usr/bin/tiv-rfid-svc-ensure-certificate" "$cert" "$key"
check "the start-up helper keeps an existing pair" test "$(cat "$cert" "$key")" = "$before"
check "postinst enables the unit, with or without systemctl" test -L "$root$wants"

echo "loglevel=3" >>"$settings"
check "dpkg reinstalls the package" dpkg_root -i "$deb"
check "reinstall keeps edited settings" has_line "$settings" "loglevel=3"
check "dpkg removes the package" dpkg_root --remove tiv-rfid-svc
check "remove masks the unit, so nothing starts it without its files" test -L "$root/etc/systemd/system/$unit_name"
check "dpkg purges the package" dpkg_root --purge tiv-rfid-svc
check "purge leaves no files" test -z "$(find "$root" -path "$root/var/lib/dpkg" -prune -o ! -type d -print)"
if $guard; then check "this machine's /etc untouched" test ! -e /etc/tiv-rfid-svc -a ! -e "$wants"; fi
finish
