#!/usr/bin/env bash
# A staged `cmake --install` lays out a complete, self-consistent, locked-down system service:
# systemd's own rating of its sandbox must stay "OK", 2.5 or less on a scale of 0 to 10.
source "$(dirname "$0")/lib.sh"

# Not /usr: a path written for one prefix only shows up here.
prefix=/opt/tiv-test
root="$tmp/root"
install_tree() { DESTDIR="$root" cmake --install "$build_dir" --prefix "$prefix" >"$tmp/install.log"; }
install_tree || { cat "$tmp/install.log"; exit 1; }
bin="$root$prefix/bin"
unit="$root$prefix/lib/systemd/system/$unit_name"
settings="$root/$settings_rel"

check "binary and certificate helper are executable" \
  test -x "$bin/tiv-rfid-svc" -a -x "$bin/tiv-rfid-svc-ensure-certificate"
check "log directory exists" test -d "$root/var/log/tiv-rfid-svc"
for line in "ExecStart=$prefix/bin/tiv-rfid-svc" Wants=pcscd.socket After=pcscd.socket \
            User=tiv-rfid-svc Restart=always WantedBy=multi-user.target \
            LogsDirectory=tiv-rfid-svc ReadWritePaths=-/etc/xdg/TIV \
            "RestrictAddressFamilies=AF_UNIX AF_INET" Type=notify NotifyAccess=main WatchdogSec=30s; do
  check "unit: $line" has_line "$unit" "$line"
done
check "unit: no daemon option, systemd supervises the process" lacks "$unit" "--daemon"
check "systemd-analyze accepts the unit" verify_unit "$unit" "$root"
# --offline came with systemd 250. The rating looks for the unit where systemd would.
if systemd-analyze security --offline=true --help >/dev/null 2>&1; then
  mkdir -p "$root/etc/systemd/system" && cp "$unit" "$root/etc/systemd/system/"
  systemd-analyze security --offline=true --root="$root" "$unit_name" >"$tmp/security.txt" 2>&1 || true
  score="$(sed -n 's/.*Overall exposure level for .*: \([0-9.]*\) .*/\1/p' "$tmp/security.txt")"
  within() { awk -v s="${score:-99}" 'BEGIN { exit !(s <= 2.5) }'; }
  check "exposure level ${score:-none} is 2.5 or less" within
  within || grep '✗' "$tmp/security.txt" >&2 || cat "$tmp/security.txt" >&2
else
  echo "note: systemd-analyze has no --offline; the sandbox is not rated"
fi

check "settings: port" has_line "$settings" "port=8036"
check "settings: log directory" has_line "$settings" "logpath=/var/log/tiv-rfid-svc/"
cert="$(sed -n 's/^certfile=//p' "$settings")"
key="$(sed -n 's/^keyfile=//p' "$settings")"
check "settings: absolute certificate and key" test "${cert:0:1}${key:0:1}" = "//"
# The start-up helper must create exactly the files the service is told to read, as root ("+"),
# readable by the service's group.
check "unit creates the certificate the settings name, for the service's group" \
  has_line "$unit" "ExecStartPre=+$prefix/bin/tiv-rfid-svc-ensure-certificate $cert $key tiv-rfid-svc"

echo "loglevel=3" >>"$settings"
install_tree
check "reinstall keeps edited settings" has_line "$settings" "loglevel=3"
finish
