# shellcheck shell=bash disable=SC2154 # tmp, settings_rel: lib.sh; target_root: the caller
# The installed package under a running systemd, pointed at a private pcscd (tiv-demo's, on this
# machine) and a free port. Shared by installed_unit_test.sh (this machine's systemd) and
# container_unit_test.sh (a booted Debian 12 container). After lib.sh, the caller defines
#   on_target    runs a command on the system where the unit runs
#   target_root  that system's "/" as seen from here ("" or /proc/<pid>/root)
# and calls start_demo, write_admin_settings, installs the package, then check_installed_unit.
unit=tiv-rfid-svc.service
settings="/$settings_rel"
drop_in=/etc/systemd/system/$unit.d
# Inside the unit's namespace, where the drop-in binds the private pcscd's socket folder.
unit_pcscd_dir=/run/tiv-test-pcscd

# Waits for a command to succeed, up to the given number of seconds.
within() {
  local deadline=$((SECONDS + $1)); shift
  until "$@"; do [ "$SECONDS" -lt "$deadline" ] || return 1; sleep 0.2; done
}
within_a_minute() { within 60 "$@"; }

# The demo's pcscd, with a socket under /run: the unit's /tmp is its own. Sets run_dir (remove it
# after stop_demo), socket_dir, reader (reader 0's name), reader_count and port.
start_demo() {
  local demo="$1"
  run_dir="$(mktemp -d /run/tiv-unit-test.XXXXXX)"
  mkfifo "$run_dir/commands"
  TMPDIR="$run_dir" "$demo" --port 0 <"$run_dir/commands" >"$tmp/demo" 2>&1 &
  demo_pid=$!
  exec 3>"$run_dir/commands"
  within_a_minute grep -qF '"type":"VERSION"' "$tmp/demo" || { cat "$tmp/demo"; return 1; }
  reader="$(sed -n 's/^ *reader 0 = "\(.*\)"$/\1/p' "$tmp/demo")"
  reader_count="$(grep -c '^ *reader [0-9]* = ' "$tmp/demo")"
  socket_dir="$(dirname "$(echo "$run_dir"/tiv-pcscd-*/pcscd.comm)")"
  chmod 755 "$socket_dir"
  port="$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')"
}
stop_demo() {
  # shellcheck disable=SC2086 # unquoted: either may be empty
  kill $client_pid ${blocker:-} 2>/dev/null || true
  exec 3>&- || true
  [ -z "${demo_pid:-}" ] || wait "$demo_pid" || true
}

# Before the install, so the postinst's first start uses them: the package keeps existing
# settings, and the service must leave them as written, comment included.
write_admin_settings() {
  mkdir -p "$target_root$(dirname "$settings")" "$target_root$drop_in"
  printf '; Written by the administrator before the package came.\n[service]\ncertfile=/etc/tiv-rfid-svc/localhost.pem\nkeyfile=/etc/tiv-rfid-svc/localhost.key\nlogpath=/var/log/tiv-rfid-svc/\nport=%s\n' \
    "$port" >"$tmp/settings.admin"
  cp "$tmp/settings.admin" "$target_root$settings"
  printf '[Service]\nBindPaths=%s:%s\nEnvironment=PCSCLITE_CSOCK_NAME=%s/pcscd.comm\n' \
    "$socket_dir" "$unit_pcscd_dir" "$unit_pcscd_dir" >"$target_root$drop_in/zz-tests.conf"
}

# A WebSocket client: openssl sends the upgrade and, being quiet, stays connected after it; the
# service's frames are unmasked, so their text shows in the raw output.
client_pid=""
received() { grep -aqsF -- "$1" "$tmp/client"; }
# Connects again whenever the last attempt has ended, until the greeting's end has come.
greeted() {
  [ -e "$tmp/upgrade" ] ||
    printf 'GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Key: %s\r\nSec-WebSocket-Version: 13\r\n\r\n' \
      dGhlIHNhbXBsZSBub25jZQ== >"$tmp/upgrade"
  received '"VERSION"' && return
  if [ -z "$client_pid" ] || ! kill -0 "$client_pid" 2>/dev/null; then
    openssl s_client -quiet -connect "127.0.0.1:$port" <"$tmp/upgrade" >"$tmp/client" 2>/dev/null &
    client_pid=$!
  fi
  return 1
}
reconnect() {
  [ -z "$client_pid" ] || kill "$client_pid" 2>/dev/null || true
  client_pid=""
  : >"$tmp/client"
}

show() { on_target systemctl show -P "$1" "$unit"; }
is_active() { on_target systemctl is-active --quiet "$unit"; }
status_has() { show StatusText | grep -qF -- "$1"; }
# Restarted by systemd: another main process, and one restart more than before.
restarted_since() {
  local pid
  pid="$(show MainPID)"
  [ "$(show NRestarts)" -gt "$2" ] && [ "$pid" -ne 0 ] && [ "$pid" -ne "$1" ] && is_active
}
# Signals the main process; systemd must start a new one.
check_restart_after() {
  local what="$1" signal="$2" seconds="$3" pid restarts
  pid="$(show MainPID)"; restarts="$(show NRestarts)"
  on_target systemctl kill --kill-whom=main --signal="$signal" "$unit"
  check "$what" within "$seconds" restarted_since "$pid" "$restarts"
}
owner() { on_target stat -c "$1" "$2" 2>/dev/null; }
gone() { ! on_target test -e "$1" && ! on_target test -L "$1"; }
nonzero_restarts() { [ "$(show NRestarts)" -gt 0 ]; }
purge() { on_target dpkg --purge tiv-rfid-svc >"$tmp/purge.log" 2>&1 || { cat "$tmp/purge.log" >&2; return 1; }; }

check_installed_unit() {
  check "the postinst starts the unit" within_a_minute is_active
  check "the unit is enabled" test "$(on_target systemctl is-enabled "$unit")" = enabled

  # With Type=notify, "active" means the service said READY=1.
  local type watchdog
  type="$(show Type)"; watchdog="$(show WatchdogUSec)"
  if [ "$type" = notify ]; then
    check "READY=1: active (running)" test "$(show ActiveState)/$(show SubState)" = active/running
    check "the status counts the $reader_count readers" within_a_minute status_has "$reader_count readers"
    echo "     status: $(show StatusText)"
  else
    echo "skip READY and STATUS: the unit is Type=$type"
  fi

  check "the installed service greets with the private reader" within_a_minute greeted
  check "the greeting names the reader" received "$reader"
  echo 'tag 0 04a10b7f' >&3
  check "a tag laid on the reader reaches the client" within_a_minute received '"tag_id": "04a10b7f"'

  check_restart_after "a killed service is started again" KILL 60
  if [ "$type" = notify ] && [ "$watchdog" != 0 ]; then
    # systemd sends the watchdog's signal with a SIGCONT, so the stopped process ends.
    check_restart_after "a stopped service is restarted by the watchdog (WatchdogSec=$watchdog)" STOP 180
  else
    echo "skip the watchdog: the unit has no WatchdogSec"
  fi

  # A start that fails (port taken) ends with status 0; the unit must try again.
  on_target systemctl stop "$unit"
  python3 -c 'import socket, sys, time
s = socket.socket(); s.bind(("127.0.0.1", int(sys.argv[1]))); s.listen(); print("bound", flush=True); time.sleep(600)' \
    "$port" >"$tmp/blocker" &
  blocker=$!
  within_a_minute grep -q bound "$tmp/blocker"
  on_target systemctl start --no-block "$unit"
  check "a failed start is tried again" within_a_minute nonzero_restarts
  kill "$blocker"
  reconnect
  check "the restarted service serves" within_a_minute greeted

  on_target systemctl stop "$unit"
  check "app.log is written by the service user" test -n "$(on_target find /var/log/tiv-rfid-svc/app.log -size +0)" -a \
    "$(owner %U /var/log/tiv-rfid-svc/app.log)" = tiv-rfid-svc
  check "the settings belong to the service user" test "$(owner %U "$settings")" = tiv-rfid-svc
  check "stop leaves the administrator's settings byte for byte" cmp -s "$tmp/settings.admin" "$target_root$settings"
  check "the key is root's, for the service's group" \
    test "$(owner %U:%G /etc/tiv-rfid-svc/localhost.key)" = root:tiv-rfid-svc

  rm -rf "$target_root$drop_in"
  check "the package purges" purge
  on_target systemctl daemon-reload
  check "purge leaves no unit" test "$(show LoadState)" = not-found
  local path
  for path in "/etc/systemd/system/multi-user.target.wants/$unit" /usr/bin/tiv-rfid-svc /etc/tiv-rfid-svc \
              "$settings" /var/log/tiv-rfid-svc; do
    check "purge leaves no $path" gone "$path"
  done
  check "purge leaves no user or group" test -z "$(on_target getent passwd tiv-rfid-svc; on_target getent group tiv-rfid-svc)"
}

# On failure: what the unit said.
unit_journal() { on_target journalctl -n 60 --no-pager -u "$unit" >&2 || true; }
