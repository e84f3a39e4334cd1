#!/usr/bin/env bash
# The package installed on this machine, its unit run by systemd with its whole sandbox, only
# pointed at a private pcscd (tiv-demo's) and a free port: it must read a virtual tag and write
# its logs and settings as its own user, and a start that fails (port taken) is tried again.
# Skips where systemd does not run, and where the package or its settings are here already.
source "$(dirname "$0")/lib.sh"
demo="$4"
unit=tiv-rfid-svc.service
settings="/$settings_rel"
drop_in=/etc/systemd/system/$unit.d
case "$(systemctl is-system-running 2>/dev/null)" in running | degraded) ;; *) skip "systemd does not run here" ;; esac
[ "$(id -u)" -eq 0 ] || skip "installing the package needs root"
if dpkg -s tiv-rfid-svc >/dev/null 2>&1 || [ -e "$settings" ] || [ -e "$drop_in" ]; then
  skip "the package, its settings or a drop-in are here already; left alone"
fi

# Waits up to a minute for a command to succeed.
within_a_minute() {
  local deadline=$((SECONDS + 60))
  until "$@"; do [ "$SECONDS" -lt "$deadline" ] || return 1; sleep 0.2; done
}
# A WebSocket client: openssl sends the upgrade and, being quiet, stays connected after it; the
# service's frames are unmasked, so their text shows in the raw output.
printf 'GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: %s\r\nSec-WebSocket-Version: 13\r\n\r\n' \
  dGhlIHNhbXBsZSBub25jZQ== >"$tmp/upgrade"
client_pid=""
received() { grep -aqF -- "$1" "$tmp/client"; }
# Connects again whenever the last attempt has ended, until the greeting's end has come.
greeted() {
  received '"VERSION"' && return
  if [ -z "$client_pid" ] || ! kill -0 "$client_pid" 2>/dev/null; then
    openssl s_client -quiet -connect "127.0.0.1:$port" <"$tmp/upgrade" >"$tmp/client" 2>/dev/null &
    client_pid=$!
  fi
  return 1
}

cleanup() {
  [ "$failures" -eq 0 ] || journalctl -n 60 --no-pager -u "$unit" >&2 || true
  # shellcheck disable=SC2086 # unquoted: either may be empty
  kill $client_pid ${blocker:-} 2>/dev/null || true
  dpkg --purge tiv-rfid-svc >/dev/null 2>&1 || true
  rm -rf "$drop_in" "$settings"
  rmdir "$(dirname "$settings")" 2>/dev/null || true
  systemctl daemon-reload || true
  exec 3>&- || true
  [ -z "${demo_pid:-}" ] || wait "$demo_pid" || true
  rm -rf "$run_dir" "$tmp"
}

cpack -G DEB --config "$build_dir/CPackConfig.cmake" -B "$tmp/cpack" >"$tmp/cpack.log" 2>&1 ||
  { cat "$tmp/cpack.log"; exit 1; }
deb="$(find "$tmp/cpack" -maxdepth 1 -name 'tiv-rfid-svc_*.deb')"

# The unit's /tmp is its own, so the demo's pcscd puts its socket under /run instead.
run_dir="$(mktemp -d /run/tiv-unit-test.XXXXXX)"
trap cleanup EXIT
mkfifo "$run_dir/commands"
TMPDIR="$run_dir" "$demo" --port 0 <"$run_dir/commands" >"$tmp/demo" 2>&1 &
demo_pid=$!
exec 3>"$run_dir/commands"
within_a_minute grep -qF '"type":"VERSION"' "$tmp/demo" || { cat "$tmp/demo"; exit 1; }
reader="$(sed -n 's/^ *reader 0 = "\(.*\)"$/\1/p' "$tmp/demo")"
socket_dir="$(dirname "$(echo "$run_dir"/tiv-pcscd-*/pcscd.comm)")"
chmod 755 "$socket_dir"
port="$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')"

# Before the install, so the postinst's start already uses them: the package keeps settings.
mkdir -p "$(dirname "$settings")" "$drop_in"
printf '[service]\ncertfile=/etc/tiv-rfid-svc/localhost.pem\nkeyfile=/etc/tiv-rfid-svc/localhost.key\nlogpath=/var/log/tiv-rfid-svc/\nport=%s\n' \
  "$port" >"$settings"
printf '[Service]\nBindPaths=%s:/run/tiv-test-pcscd\nEnvironment=PCSCLITE_CSOCK_NAME=/run/tiv-test-pcscd/pcscd.comm\n' \
  "$socket_dir" >"$drop_in/zz-tests.conf"

apt-get install -y --no-install-recommends "$deb" >"$tmp/apt.log" 2>&1 || { cat "$tmp/apt.log"; exit 1; }
check "the postinst starts the unit" within_a_minute systemctl is-active --quiet "$unit"
check "the unit is enabled" test "$(systemctl is-enabled "$unit")" = enabled
check "the installed service greets with the private reader" within_a_minute greeted
check "the greeting names the reader" received "$reader"
echo 'tag 0 04a10b7f' >&3
check "a tag laid on the reader reaches the client" within_a_minute received '"tag_id": "04a10b7f"'

# A start that fails ends with status 0; the unit must try again.
systemctl stop "$unit"
python3 -c 'import socket, sys, time
s = socket.socket(); s.bind(("127.0.0.1", int(sys.argv[1]))); s.listen(); print("bound", flush=True); time.sleep(600)' \
  "$port" >"$tmp/blocker" &
blocker=$!
within_a_minute grep -q bound "$tmp/blocker"
systemctl start "$unit"
restarted() { [ "$(systemctl show -P NRestarts "$unit")" -gt 0 ]; }
check "a failed start is tried again" within_a_minute restarted
kill "$blocker"
: >"$tmp/client"
check "the restarted service serves" within_a_minute greeted

systemctl stop "$unit"
owner() { stat -c "$1" "$2" 2>/dev/null; }
check "app.log is written by the service user" test -s /var/log/tiv-rfid-svc/app.log -a \
  "$(owner %U /var/log/tiv-rfid-svc/app.log)" = tiv-rfid-svc
# The package hands the settings to the service user, which adds any missing key at stop.
check "the settings belong to the service user" test "$(owner %U "$settings")" = tiv-rfid-svc
check "the key is root's, for the service's group" \
  test "$(owner %U:%G /etc/tiv-rfid-svc/localhost.key)" = root:tiv-rfid-svc
echo quit >&3
finish
