#!/usr/bin/env bash
# The package installed on this machine, its unit run by systemd with its whole sandbox, only
# pointed at a private pcscd (tiv-demo's) and a free port (unit_checks.sh).
# Skips where systemd does not run, and where the package or its settings are here already.
source "$(dirname "$0")/lib.sh"
source "$(dirname "$0")/unit_checks.sh"
demo="$4"
on_target() { "$@"; }
target_root=""
case "$(systemctl is-system-running 2>/dev/null)" in running | degraded) ;; *) skip "systemd does not run here" ;; esac
[ "$(id -u)" -eq 0 ] || skip "installing the package needs root"
if dpkg -s tiv-rfid-svc >/dev/null 2>&1 || [ -e "$settings" ] || [ -e "$drop_in" ]; then
  skip "the package, its settings or a drop-in are here already; left alone"
fi

cleanup() {
  [ "$failures" -eq 0 ] || unit_journal
  stop_demo
  dpkg --purge tiv-rfid-svc >/dev/null 2>&1 || true
  rm -rf "$drop_in" "$settings"
  rmdir "$(dirname "$settings")" 2>/dev/null || true
  systemctl daemon-reload || true
  rm -rf "${run_dir:-}" "$tmp"
}

build_deb
trap cleanup EXIT
start_demo "$demo"
write_admin_settings
apt-get install -y --no-install-recommends "$deb" >"$tmp/apt.log" 2>&1 || { cat "$tmp/apt.log"; exit 1; }
check_installed_unit
echo quit >&3
finish
